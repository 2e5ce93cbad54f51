// broom policy: the organisation's policies in force, and what a clean does
// because of them before it starts.
#include "console/Commands.h"

#include <nlohmann/json.hpp>

#include "app/PolicyRules.h"
#include "app/Text.h"
#include "console/Console.h"

namespace host {

int CmdPolicy(CSession& session, const SOptions& options) {
  const CPolicies& policies = session.Policies();
  std::vector<std::wstring> notes;
  PolicyProtectedPaths(policies, &notes);
  if (options.json) {
    nlohmann::json ignored = nlohmann::json::array();
    for (const CPolicies::SNote& note : policies.Notes())
      ignored.push_back({{"name", Utf8(note.name)},
                         {"source", Utf8(std::wstring(CPolicies::SourceName(note.source)))},
                         {"reason", Utf8(note.reason)}});
    nlohmann::json unused = nlohmann::json::array();
    for (const std::wstring& note : notes) unused.push_back(Utf8(note));
    nlohmann::json doc = {{"key", Utf8(std::wstring(CPolicies::kKey))},
                          {"policies", nlohmann::json::parse(policies.ToJson())},
                          {"ignored", ignored},
                          {"notes", unused}};
    CConsole::OutBytes(doc.dump(2) + "\n");
    return exitOk;
  }
  std::wstring out = policies.Describe();
  for (const std::wstring& note : notes) out += L"Note: " + Printable(note) + L"\n";
  CConsole::Out(out);
  return exitOk;
}

void PurgeByPolicy(CSession& session) {
  const unsigned long days = session.Policies().Number(EPolicy::quarantineKeepDays, 0);
  if (!days) return;
  std::vector<std::wstring> notes;
  size_t deleted = PurgeExpiredQuarantines(session.QuarantineRoot(), days, notes);
  for (const std::wstring& note : notes) CConsole::Err(L"broom: " + Printable(note) + L"\n");
  if (deleted)
    CConsole::Out(L"Deleted " + Plural(deleted, L"quarantine", L"quarantines") + L" older than " +
                  Plural(days, L"day", L"days") + L" (QuarantineKeepDays, set by your organisation).\n");
}

}  // namespace host
