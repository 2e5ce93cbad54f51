// broom winapp2 check: what a winapp2.ini file gives and every line it skips;
// broom winapp2 update: the current file into the data folder.
#include "console/Commands.h"

#include <nlohmann/json.hpp>

#include "app/Text.h"
#include "app/Winapp2Update.h"
#include "console/Console.h"
#include "winapp2/Winapp2Loader.h"

namespace host {

namespace {

constexpr int exitLinesSkipped = 1;  // a check that skipped lines

}  // namespace

int CmdWinapp2Check(CSession&, const SOptions& options) {
  std::wstring file = FullPath(Wide(options.file));
  // a store of its own: the check needs no definitions
  CRefPtr<IConfig> config = IConfig::NewConfig();
  SWinapp2Report report = LoadWinapp2(*CConfigStore::Of(config), file);
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
    // The file's own text is shown, never written: a binary file's bytes
    // cannot move the cursor or change the terminal.
    std::wstring out = Printable(file) + L"\n";
    for (size_t i = 0; i < sizeof labels / sizeof labels[0]; ++i)
      out += L"  " + Pad(labels[i], 16, false) + Pad(FormatCount(counts[i].second), 8, true) + L"\n";
    out += report.skipped.empty() ? L"No line was skipped.\n"
                                  : Plural(report.skipped.size(), L"line was", L"lines were") + L" skipped:\n";
    for (const SWinapp2Skip& skip : report.skipped)
      out += L"  line " + std::to_wstring(skip.line) + L": " + Printable(skip.text.str()) + L"\n      " +
             Printable(skip.reason.str()) + L"\n";
    CConsole::Out(out);
  }
  return report.skipped.empty() ? exitOk : exitLinesSkipped;
}

int CmdWinapp2Update(CSession& session, const SOptions& options) {
  const std::wstring url = options.url.empty() ? std::wstring(kWinapp2Url) : Wide(options.url);
  CConsole::Err(L"Downloading " + Printable(url) + L"...\n");
  SWinapp2Update update = UpdateWinapp2(session.UserDataFolder(), url, options.timeoutSeconds * 1000);
  std::wstring out = L"Updated " + update.file + L": " + Plural(update.entries, L"entry", L"entries") + L" (" +
                     FormatSize(update.bytes) + L")";
  if (!update.inUse.empty())
    out += L"; the copy in use had " + FormatCount(update.previousEntries);
  out += L".\n";
  if (!update.previous.empty()) out += L"The copy before is kept as " + update.previous + L".\n";
  if (update.skipped) out += Plural(update.skipped, L"line was", L"lines were") + L" skipped; 'broom winapp2 check' lists them.\n";
  CConsole::Out(out);
  return exitOk;
}

}  // namespace host
