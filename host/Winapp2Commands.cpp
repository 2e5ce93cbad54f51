// broom --winapp2 FILE and broom winapp2 check: the community's winapp2.ini
// database beside the definitions.
#include "host/Commands.h"

#include <nlohmann/json.hpp>

#include "host/Console.h"
#include "winapp2/Winapp2Loader.h"

namespace host {

namespace {

constexpr int kLinesSkipped = 1;  // exit code of a check that skipped lines

CHostError Unreadable(const std::wstring& file, const SWinapp2Report& report) {
  return CHostError{exitUsage, L"cannot read the winapp2 file '" + file + L"': " + report.error.str() +
                                   L"; give the path of a winapp2.ini file"};
}

}  // namespace

void LoadWinapp2Files(CSession& session, const SOptions& options) {
  CConfigStore* store = CConfigStore::Of(session.Config());
  if (!store) return;
  for (const std::wstring& given : WideList(options.winapp2)) {
    std::wstring file = FullPath(given);
    SWinapp2Report report = CWinapp2Loader(*store).Load(file.c_str());
    store->TakeLoadNotes();  // one line here; 'broom winapp2 check' lists them
    if (!report.read) throw Unreadable(file, report);
    if (!report.skipped.empty())
      session.NoteLoad(file + L": " + Plural(report.skipped.size(), L"line was", L"lines were") +
                       L" skipped; 'broom winapp2 check' lists them");
  }
}

int CmdWinapp2Check(const SOptions& options) {
  std::wstring file = FullPath(Wide(options.file));
  // a store of its own: the check needs no definitions
  CRefPtr<IConfig> config = IConfig::NewConfig();
  SWinapp2Report report = CWinapp2Loader(*CConfigStore::Of(config)).Load(file.c_str());
  if (!report.read) throw Unreadable(file, report);
  const std::pair<const char*, unsigned> counts[] = {
      {"entries", report.entries},         {"items", report.items},
      {"applicable", report.applicable},   {"file_rules", report.fileRules},
      {"registry_rules", report.registryRules}, {"excludes", report.excludes},
      {"detection_keys", report.detectionKeys}};
  if (options.json) {
    nlohmann::json doc = {{"file", Utf8(file)}};
    for (const auto& count : counts) doc[count.first] = count.second;
    nlohmann::json skipped = nlohmann::json::array();
    for (const SWinapp2Skip& skip : report.skipped)
      skipped.push_back({{"line", skip.line}, {"text", Utf8(skip.text)}, {"reason", Utf8(skip.reason)}});
    doc["skipped"] = skipped;
    CConsole::OutBytes(doc.dump(2) + "\n");
  } else {
    const wchar_t* labels[] = {L"entries",    L"items loaded", L"applicable here", L"file rules",
                               L"registry rules", L"excludes",     L"detection keys"};
    std::wstring out = file + L"\n";
    for (size_t i = 0; i < sizeof labels / sizeof labels[0]; ++i)
      out += L"  " + Pad(labels[i], 16, false) + Pad(FormatCount(counts[i].second), 8, true) + L"\n";
    out += report.skipped.empty() ? L"No line was skipped.\n"
                                  : Plural(report.skipped.size(), L"line was", L"lines were") + L" skipped:\n";
    for (const SWinapp2Skip& skip : report.skipped)
      out += L"  line " + std::to_wstring(skip.line) + L": " + skip.text.str() + L"\n      " + skip.reason.str() + L"\n";
    CConsole::Out(out);
  }
  return report.skipped.empty() ? exitOk : kLinesSkipped;
}

}  // namespace host
