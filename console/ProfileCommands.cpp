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

// A file for one run's output, deleted when it closes.
broom::unique_hfile OutputFile() {
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

struct SProfileOutcome {
  int code = exitUsage;
  std::string out, err;  // what the run printed (UTF-8)
  std::wstring failure;  // why it did not run
};

// Runs one profile's broom.exe with its output in files of its own (a
// console's or a pipe's handles do not reach it whole under every system),
// no input (it never asks: the parent asked once), and waits for it.
SProfileOutcome RunProfile(const std::wstring& commandLine) {
  SProfileOutcome outcome;
  wchar_t exe[MAX_PATH + 1];
  const DWORD n = GetModuleFileNameW(nullptr, exe, MAX_PATH + 1);
  broom::unique_hfile out = OutputFile(), err = OutputFile();
  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  broom::unique_hfile in(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ, &inherit, OPEN_EXISTING, 0, nullptr));
  if (n == 0 || n > MAX_PATH || !out || !err || !in) {
    outcome.failure = L"cannot prepare its run (" + SystemMessage(GetLastError()) + L")";
    return outcome;
  }
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in.get();
  startup.hStdOutput = out.get();
  startup.hStdError = err.get();
  PROCESS_INFORMATION process = {};
  std::vector<wchar_t> line(commandLine.begin(), commandLine.end());
  line.push_back(0);
  // ERROR_INTERNAL_ERROR means the run ended before any of its code ran (Wine
  // gives it when its Unix side fails to start on a loaded machine): nothing
  // happened, so starting it again is safe.
  BOOL started = FALSE;
  for (int attempt = 1; !started; ++attempt) {
    started = CreateProcessW(exe, line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                             &startup, &process);
    if (started || GetLastError() != ERROR_INTERNAL_ERROR || attempt == 3) break;
    Sleep(250 * attempt);
  }
  if (!started) {
    outcome.failure = L"cannot start broom.exe for it (" + SystemMessage(GetLastError()) + L")";
    return outcome;
  }
  broom::unique_handle thread(process.hThread), child(process.hProcess);
  // Ctrl+C reaches the run too; it ends on its own terms
  WaitForSingleObject(child.get(), INFINITE);
  DWORD code = exitUsage;
  GetExitCodeProcess(child.get(), &code);
  outcome.code = static_cast<int>(code);
  outcome.out = ReadBack(out.get());
  outcome.err = ReadBack(err.get());
  return outcome;
}

}  // namespace

int RunForEveryProfile(int argc, wchar_t** argv, const SOptions& options, bool clean) {
  if (!CUserProfiles::IsAdministrator())
    throw CHostError{exitUsage, L"--all-users works on other people's files and registry, which needs an "
                                L"administrator: run broom from an elevated prompt"};
  std::vector<std::wstring> notes;
  const std::vector<SUserProfile> profiles = CUserProfiles::List(&notes);
  for (const std::wstring& note : notes) CConsole::Err(L"broom: note: left out " + Printable(note) + L"\n");
  if (profiles.empty()) throw CHostError{exitUsage, L"the profile list of this PC names no person's profile"};

  // One question for them all: each profile's run is told yes.
  std::wstring yes;
  if (clean) {
    if (!options.yes && !options.scheduled) {
      std::wstring names;
      for (const SUserProfile& profile : profiles) names += L"\n  " + Printable(DescribeProfile(profile));
      CConsole::Out(L"Cleaning every person's profile of this PC, without a question per profile:" + names + L"\n");
      const std::wstring which =
          profiles.size() == 1 ? std::wstring(L"this profile") : L"these " + std::to_wstring(profiles.size()) + L" profiles";
      if (!Confirm(L"Clean the chosen items in " + which + L"?")) {
        CConsole::Out(L"Nothing was cleaned.\n");
        return exitOk;
      }
    }
    yes = L" --yes";
  }

  int worst = exitOk;
  nlohmann::json runs = nlohmann::json::array();
  for (const SUserProfile& profile : profiles) {
    if (IsCancelRequested()) {
      worst = std::max(worst, static_cast<int>(exitCancelled));
      break;
    }
    if (!options.json) CConsole::Out(L"Profile " + Printable(DescribeProfile(profile)) + L":\n");
    const SProfileOutcome run = RunProfile(ProfileCommandLine(argc, argv, profile.sid) + yes);
    worst = std::max(worst, run.code);
    // what the run said on standard error is said as it said it, after its failure if any
    if (!run.failure.empty())
      CConsole::Err(L"broom: " + Printable(DescribeProfile(profile)) + L": " + run.failure + L"\n");
    if (!run.err.empty()) CConsole::Err(Wide(run.err));
    if (options.json) {
      nlohmann::json result = nlohmann::json::parse(run.out, nullptr, false);
      runs.push_back({{"sid", Utf8(profile.sid)},
                      {"folder", Utf8(profile.folder)},
                      {"user", Utf8(profile.userName)},
                      {"exit_code", run.code},
                      {"result", result.is_discarded() ? nlohmann::json() : result}});
    } else {
      CConsole::OutBytes(run.out + "\n");
    }
  }
  if (options.json) CConsole::OutBytes(nlohmann::json{{"profiles", runs}}.dump(2) + "\n");
  return worst;
}

}  // namespace host
