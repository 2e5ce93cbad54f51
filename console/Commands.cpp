// Helpers shared by the commands.
#include "console/Commands.h"

#include "app/Text.h"
#include "app/Winapp2Files.h"
#include "console/Console.h"
#include "console/ProgressLine.h"

namespace host {

std::wstring Pad(const std::wstring& text, size_t width, bool right) {
  if (text.size() >= width) return text;
  std::wstring fill(width - text.size(), L' ');
  return right ? fill + text : text + fill;
}

std::vector<std::wstring> WideList(const std::vector<std::string>& list) {
  std::vector<std::wstring> out;
  for (const std::string& s : list) out.push_back(Wide(s));
  return out;
}

void LoadDefinitions(CSession& session, const SOptions& options) {
  std::vector<std::wstring> folders;
  for (const std::wstring& folder : WideList(options.defs)) folders.push_back(FullPath(folder));
  if (folders.empty()) folders.push_back(ExeFolder() + L"\\defs");
  // what was left out comes before the error that may end the load
  auto show = [&session] {
    for (const std::wstring& note : session.TakeLoadNotes()) CConsole::Err(L"broom: " + note + L"\n");
  };
  try {
    session.LoadDefinitions(folders);
    if (!options.noWinapp2) LoadBundledWinapp2(session, WideList(options.winapp2));
    session.LoadWinapp2Files(WideList(options.winapp2));
    session.ApplyPolicies();
  } catch (...) {
    show();
    throw;
  }
  show();
}

bool Confirm(const std::wstring& question) {
  CConsole::Err(question + L" [y/N] ");
  std::wstring answer;
  bool got = CConsole::ReadLine(answer);
  if (!got) CConsole::Err(L"\n");
  return got && (answer == L"y" || answer == L"Y" || answer == L"yes" || answer == L"YES" || answer == L"Yes");
}

SCostChoice CostChoice(const SOptions& options) {
  SCostChoice choice;
  for (const std::string& word : options.include) {
    if (word == "sign-in") choice.signIn = true;
    if (word == "saved") choice.saved = true;
  }
  return choice;
}

SScanOptions ScanOptions(const SOptions& options, EKeep keep) {
  SScanOptions scan;
  scan.keep = keep;
  scan.cancelAfterFiles = options.cancelAfterFiles;
  scan.olderThanDays = options.olderThan;
  return scan;
}

SScanResults ScanWithProgress(CSession& session, const std::vector<SItem>& items, SScanOptions scan) {
  CProgressLine progress;
  scan.observer = &progress;
  return session.Scan(items, scan);
}

}  // namespace host
