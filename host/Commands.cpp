// Helpers shared by the commands.
#include "host/Commands.h"

#include "host/Console.h"

namespace host {

std::wstring Pad(const std::wstring& text, size_t width, bool right) {
  if (text.size() >= width) return text;
  std::wstring fill(width - text.size(), L' ');
  return right ? fill + text : text + fill;
}

std::wstring Plural(unsigned __int64 n, const wchar_t* one, const wchar_t* many) {
  return FormatCount(n) + L" " + (n == 1 ? one : many);
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
    LoadWinapp2Files(session, options);
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

SScanOptions ScanOptions(const SOptions& options, EKeep keep) {
  SScanOptions scan;
  scan.keep = keep;
  scan.cancelAfterFiles = options.cancelAfterFiles;
  scan.olderThanDays = options.olderThan;
  return scan;
}

}  // namespace host
