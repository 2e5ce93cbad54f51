// scan and clean --all-users: every person's profile of the PC, each run by
// a broom.exe of its own that takes the profile on (app/ProfileRun.h).
#include "console/Commands.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "app/ProfileRun.h"
#include "app/Text.h"
#include "console/Console.h"
#include "core/CommandLine.h"
#include "core/Handles.h"
#include "profiles/UserProfiles.h"

namespace host {

namespace {

// The arguments of this run without --all-users, for a run over one profile.
std::wstring ProfileCommandLine(int argc, wchar_t** argv, const std::wstring& sid) {
  std::wstring line = broom::QuoteArgument(argv[0]) + L" --as-profile " + broom::QuoteArgument(sid);
  for (int i = 1; i < argc; ++i)
    if (wcscmp(argv[i], L"--all-users") != 0) line += L" " + broom::QuoteArgument(argv[i]);
  return line;
}

// Runs one profile's broom.exe, its standard output to output (inherited
// when null); its exit code, or exitUsage when it cannot start.
int RunProfile(const std::wstring& commandLine, HANDLE output, std::wstring& error) {
  wchar_t exe[MAX_PATH + 1];
  const DWORD n = GetModuleFileNameW(nullptr, exe, MAX_PATH + 1);
  if (n == 0 || n > MAX_PATH) {
    error = L"cannot find broom.exe itself";
    return exitUsage;
  }
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = output ? output : GetStdHandle(STD_OUTPUT_HANDLE);
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process = {};
  std::vector<wchar_t> line(commandLine.begin(), commandLine.end());
  line.push_back(0);
  if (!CreateProcessW(exe, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
    error = L"cannot start broom.exe for it (" + SystemMessage(GetLastError()) + L")";
    return exitUsage;
  }
  broom::unique_handle thread(process.hThread), child(process.hProcess);
  WaitForSingleObject(child.get(), INFINITE);
  DWORD code = exitUsage;
  GetExitCodeProcess(child.get(), &code);
  return static_cast<int>(code);
}

// A file for one run's JSON output, deleted when it closes.
broom::unique_hfile JsonFile() {
  wchar_t folder[MAX_PATH + 1], name[MAX_PATH + 1];
  if (!GetTempPathW(MAX_PATH + 1, folder) || !GetTempFileNameW(folder, L"brm", 0, name)) return broom::unique_hfile();
  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  return broom::unique_hfile(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                         &inherit, CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
}

std::string ReadBack(HANDLE file) {
  LARGE_INTEGER size = {}, zero = {};
  if (!GetFileSizeEx(file, &size) || !SetFilePointerEx(file, zero, nullptr, FILE_BEGIN) || size.QuadPart > (64 << 20))
    return std::string();
  std::string text(static_cast<size_t>(size.QuadPart), '\0');
  DWORD read = 0;
  if (!text.empty() && !::ReadFile(file, &text[0], static_cast<DWORD>(text.size()), &read, nullptr)) return std::string();
  text.resize(read);
  return text;
}

}  // namespace

int RunForEveryProfile(int argc, wchar_t** argv, const SOptions& options) {
  if (!CUserProfiles::IsAdministrator())
    throw CHostError{exitUsage, L"--all-users works on other people's files and registry, which needs an "
                                L"administrator: run broom from an elevated prompt"};
  std::vector<std::wstring> notes;
  const std::vector<SUserProfile> profiles = CUserProfiles::List(&notes);
  for (const std::wstring& note : notes) CConsole::Err(L"broom: note: left out " + Printable(note) + L"\n");
  if (profiles.empty()) throw CHostError{exitUsage, L"the profile list of this PC names no person's profile"};

  int worst = exitOk;
  nlohmann::json runs = nlohmann::json::array();
  for (const SUserProfile& profile : profiles) {
    if (IsCancelRequested()) {
      worst = std::max(worst, static_cast<int>(exitCancelled));
      break;
    }
    if (!options.json) CConsole::Out(L"Profile " + Printable(DescribeProfile(profile)) + L":\n");
    broom::unique_hfile output;
    if (options.json) output = JsonFile();
    std::wstring error;
    const int code = RunProfile(ProfileCommandLine(argc, argv, profile.sid), output.get(), error);
    if (!error.empty()) CConsole::Err(L"broom: " + Printable(DescribeProfile(profile)) + L": " + error + L"\n");
    worst = std::max(worst, code);
    if (options.json) {
      const std::string text = output ? ReadBack(output.get()) : std::string();
      nlohmann::json result = nlohmann::json::parse(text, nullptr, false);
      runs.push_back({{"sid", Utf8(profile.sid)},
                      {"folder", Utf8(profile.folder)},
                      {"user", Utf8(profile.userName)},
                      {"exit_code", code},
                      {"result", result.is_discarded() ? nlohmann::json() : result}});
    } else {
      CConsole::Out(L"\n");
    }
  }
  if (options.json) CConsole::OutBytes(nlohmann::json{{"profiles", runs}}.dump(2) + "\n");
  return worst;
}

}  // namespace host
