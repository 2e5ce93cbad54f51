// broom list: the tree of groups and items with their states.
#include "console/Commands.h"

#include <nlohmann/json.hpp>

#include "app/PolicyRules.h"
#include "app/Text.h"
#include "console/Console.h"

namespace host {

namespace {

std::wstring StateText(const CScanGroup* group, const CConfigStore* store) {
  std::vector<std::wstring> parts;
  const SPolicyMark* mark = PolicyMarkOf(group);
  if (mark && !mark->off.empty())
    parts.push_back(L"off: " + PolicyOffText(*mark));
  else if (!IsEnabled(group))
    parts.push_back(L"off: not on this PC");
  if (mark && mark->defaultSet) parts.push_back(L"default set by your organisation (DefaultItems)");
  parts.push_back(IsOn(group->IsDefaultScan()) ? L"scan" : L"not scanned");
  parts.push_back(IsOn(group->IsDefaultClean()) ? L"clean" : L"not cleaned");
  if (IsOn(group->IsSafe())) parts.push_back(L"safe");
  if (IsOn(group->GetQScan())) parts.push_back(L"quick scan");
  int ops = group->GetScanOpCount();
  parts.push_back(Plural(static_cast<unsigned>(ops), L"operation", L"operations"));
  if (store) parts.push_back(std::wstring(L"cost: ") + CostName(store->GetCost(group)));
  std::wstring text;
  for (const std::wstring& p : parts) text += (text.empty() ? L"" : L", ") + p;
  return L"[" + text + L"]";
}

// A group and everything below it, children indented; without recursion,
// as a tree may be deeper than the stack.
void ListGroup(const CScanGroup* top, const CConfigStore* store, std::wstring& out, unsigned& items) {
  std::vector<CRefPtr<TIteratorIface<CScanGroup>>> open;  // one per level being listed
  for (const CScanGroup* group = top; group;) {
    std::wstring indent(open.size() * 2, L' ');
    std::wstring line = indent + group->GetName();
    if (group->HasScanOps()) {
      ++items;
      line += L"  " + StateText(group, store);
    }
    out += line + L"\n";
    const wchar_t* desc = group->GetDescription();
    if (desc && *desc) out += indent + L"    " + desc + L"\n";
    open.emplace_back();
    group->GetChildren(open.back());
    // the next group: the first child, or the next sibling of the nearest level that has one
    group = nullptr;
    while (!open.empty() && !group) {
      CRefPtr<TIteratorIface<CScanGroup>>& it = open.back();
      if (it && !it->AtEnd()) {
        group = it->Current();
        it->Next();
      } else {
        open.pop_back();
      }
    }
  }
}

// What the policies set for a group: null when none does.
nlohmann::json PolicyJson(const CScanGroup* group) {
  const SPolicyMark* mark = PolicyMarkOf(group);
  if (!mark) return nullptr;
  nlohmann::json j = nlohmann::json::object();
  nlohmann::json by = nlohmann::json::array();
  if (!mark->off.empty()) {
    j["enabled"] = false;
    by.push_back(Utf8(mark->off));
  }
  if (mark->defaultSet) {
    j["scan"] = mark->defaultOn;
    j["clean"] = mark->defaultOn;
    by.push_back("DefaultItems");
  }
  j["set_by"] = by;
  return j;
}

nlohmann::json State(AttributeBoolState state) { return state == abNotSet ? nlohmann::json() : nlohmann::json(state == abTrue); }

// A group with its states, its operations' sources and its children; groups
// nest at most a hundred levels deep, so recursion is safe here.
nlohmann::json GroupJson(const CScanGroup* group, const CConfigStore* store, unsigned& items, unsigned& groups) {
  nlohmann::json sources = nlohmann::json::array();
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
  group->GetScanOps(ops);
  for (; ops && !ops->AtEnd(); ops->Next()) {
    SOperationSource source;
    if (!store || !store->GetOperationSource(*ops->Current(), source)) {
      sources.push_back(nullptr);
      continue;
    }
    sources.push_back({{"file", Utf8(source.file)}, {"line", source.line},
                       {"kind", Utf8(source.kind)}, {"text", Utf8(source.text)}});
  }
  bool enabled = IsEnabled(group);
  nlohmann::json j = {{"name", Utf8(std::wstring(group->GetName()))},
                      {"path", Utf8(GroupPath(group))},
                      {"description", Utf8(std::wstring(group->GetDescription()))},
                      {"tip", Utf8(std::wstring(group->GetTip()))},
                      {"item", group->HasScanOps()},
                      {"scan", State(group->IsDefaultScan())},
                      {"clean", State(group->IsDefaultClean())},
                      {"safe", State(group->IsSafe())},
                      {"quick_scan", State(group->GetQScan())},
                      {"enabled", enabled},
                      {"reason", enabled ? nlohmann::json()
                                 : PolicyMarkOf(group) && !PolicyMarkOf(group)->off.empty()
                                     ? nlohmann::json(Utf8(PolicyOffText(*PolicyMarkOf(group))))
                                     : nlohmann::json("not on this PC")},
                      {"policy", PolicyJson(group)},
                      {"operations", group->GetScanOpCount()},
                      {"cost", store ? nlohmann::json(Utf8(std::wstring(CostName(store->GetCost(group))))) : nlohmann::json()},
                      {"sources", sources}};
  // the programs that hold the item's files while they run, its groups' included
  if (group->HasScanOps()) {
    nlohmann::json running = nlohmann::json::array();
    if (store)
      for (const std::wstring& image : store->GetPrograms(group)) running.push_back(Utf8(image));
    j["running"] = running;
  }
  group->HasScanOps() ? ++items : ++groups;
  nlohmann::json children = nlohmann::json::array();
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group->GetChildren(it);
  for (; it && !it->AtEnd(); it->Next()) children.push_back(GroupJson(it->Current(), store, items, groups));
  j["children"] = children;
  return j;
}

int ListJson(CSession& session) {
  unsigned items = 0, groups = 0;
  nlohmann::json tree = nlohmann::json::array();
  CRefPtr<TIteratorIface<CScanGroup>> it;
  session.Config()->GetGroups(it);
  for (; it && !it->AtEnd(); it->Next())
    tree.push_back(GroupJson(it->Current(), CConfigStore::Of(session.Config()), items, groups));
  std::vector<std::wstring> notes;
  nlohmann::json doc = {{"policies", nlohmann::json::parse(session.Policies().ToJson())},
                        {"groups", tree},
                        {"item_count", items},
                        {"group_count", groups},
                        {"scanned_by_default", session.Select({}, false, notes).size()}};
  CConsole::OutBytes(doc.dump(2) + "\n");
  return exitOk;
}

}  // namespace

int CmdList(CSession& session, const SOptions& options) {
  LoadDefinitions(session, options);
  if (options.json) return ListJson(session);
  std::wstring out;
  unsigned items = 0, groups = 0;
  CRefPtr<TIteratorIface<CScanGroup>> it;
  session.Config()->GetGroups(it);
  for (; it && !it->AtEnd(); it->Next()) {
    ListGroup(it->Current(), CConfigStore::Of(session.Config()), out, items);
    ++groups;
  }
  std::vector<std::wstring> notes;
  size_t byDefault = session.Select({}, false, notes).size();
  out += L"\n" + Plural(items, L"item", L"items") + L" in " + Plural(groups, L"group", L"groups") + L"; " +
         FormatCount(byDefault) + L" scanned by default.\n";
  CConsole::Out(out);
  return exitOk;
}

}  // namespace host
