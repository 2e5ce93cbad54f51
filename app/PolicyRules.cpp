#include "app/PolicyRules.h"

#include <shlwapi.h>

#include <set>
#include <unordered_map>

#include "app/HostError.h"
#include "app/ItemSelection.h"
#include "app/Quarantine.h"
#include "app/QuarantineStore.h"
#include "app/Text.h"
#include "app/WhiteListFile.h"
#include "registry/RegistryPath.h"
#include "registry/RegistryScan.h"
#include "whitelist/WhiteListTree.h"

namespace host {

namespace {

// Written once after the definitions load, read by both threads of a host.
std::unordered_map<const CScanGroup*, SPolicyMark> g_marks;

// The enabled items one policy entry names. A name that finds several
// groups is noted; one that finds nothing is not, as it may name winapp2
// entries or definitions this run did not load.
std::vector<SItem> Named(IConfig* config, const wchar_t* policy, const std::wstring& name,
                         std::vector<std::wstring>& notes) {
  std::vector<std::wstring> ignored;
  try {
    return SelectItems(config, {name}, false, ignored);
  } catch (const CHostError& e) {
    if (e.message.find(L"names several groups") != std::wstring::npos)
      notes.push_back(std::wstring(L"policy ") + policy + L": the entry " + Quoted(name) + L" is not used: " + e.message);
  }
  return {};
}

bool OnlyRegistry(const CScanGroup* group) {
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
  group->GetScanOps(ops);
  bool any = false;
  for (; ops && !ops->AtEnd(); ops->Next()) {
    if (!IsRegistryOperation(*ops->Current())) return false;
    any = true;
  }
  return any;
}

}  // namespace

void ApplyPolicies(IConfig* config, const CPolicies& policies, std::vector<std::wstring>& notes) {
  g_marks.clear();
  for (const CPolicies::SNote& note : policies.Notes())
    notes.push_back(std::wstring(L"policy ") + note.name + L" (" + CPolicies::SourceName(note.source) + L"): " +
                    note.reason);
  if (!config) return;

  if (policies.IsSet(EPolicy::defaultItems)) {
    std::set<const CScanGroup*> on;
    for (const std::wstring& name : policies.List(EPolicy::defaultItems))
      for (const SItem& item : Named(config, L"DefaultItems", name, notes)) on.insert(item.group);
    for (const SItem& item : AllItems(config)) {
      const AttributeBoolState state = on.count(item.group) ? abTrue : abFalse;
      item.group->SetBoolProperty(bpDefaultScan, state);
      item.group->SetBoolProperty(bpDefaultClean, state);
      SPolicyMark& mark = g_marks[item.group];
      mark.defaultSet = true;
      mark.defaultOn = state == abTrue;
    }
  }
  if (policies.IsOn(EPolicy::disableRegistryCleaning)) {
    for (const SItem& item : AllItems(config)) {
      if (!IsEnabled(item.group) || !OnlyRegistry(item.group)) continue;
      item.group->SetBoolProperty(bpEnabled, abFalse);
      g_marks[item.group].off = L"DisableRegistryCleaning";
    }
  }
  for (const std::wstring& name : policies.List(EPolicy::disabledItems)) {
    for (const SItem& item : Named(config, L"DisabledItems", name, notes)) {
      item.group->SetBoolProperty(bpEnabled, abFalse);
      g_marks[item.group].off = L"DisabledItems";
    }
  }
}

const SPolicyMark* PolicyMarkOf(const CScanGroup* group) {
  auto found = g_marks.find(group);
  return found == g_marks.end() ? nullptr : &found->second;
}

std::wstring PolicyOffText(const SPolicyMark& mark) { return L"switched off by your organisation (" + mark.off + L")"; }

bool IsRegistryOperation(const IScanOperation* op) { return dynamic_cast<const CRegistryScan*>(op) != nullptr; }

std::vector<std::wstring> PolicyProtectedPaths(const CPolicies& policies, std::vector<std::wstring>* notes) {
  std::vector<std::wstring> paths;
  for (const std::wstring& entry : policies.List(EPolicy::protectedPaths)) {
    // Policies name folders of every user: %USERPROFILE%\Documents\Keep
    wchar_t expanded[MAX_PATH + 1];
    DWORD n = ExpandEnvironmentStringsW(entry.c_str(), expanded, MAX_PATH + 1);
    std::wstring path = n && n <= MAX_PATH + 1 ? std::wstring(expanded) : entry;
    if (!CRegistryPath::StartsWithHive(path.c_str()) && PathIsRelativeW(path.c_str())) {
      if (notes) notes->push_back(L"policy ProtectedPaths: the entry " + Quoted(entry) +
                                  L" is not used: it is neither a full path nor a registry key");
      continue;
    }
    try {
      paths.push_back(ProtectedPathText(path));
    } catch (const CHostError& e) {
      if (notes) notes->push_back(L"policy ProtectedPaths: the entry " + Quoted(entry) + L" is not used: " + e.message);
    }
  }
  return paths;
}

CPolicyProtection::CPolicyProtection(CWhiteListTree& list, const std::vector<std::wstring>& paths) : m_list(list) {
  for (const std::wstring& path : paths) {
    if (IsListed(list, path)) continue;
    list.SafeGuardPath(path.c_str(), 0x1);
    m_added.push_back(path);
  }
}

CPolicyProtection::~CPolicyProtection() {
  for (const std::wstring& path : m_added) m_list.RemovePath(path.c_str(), 0x1);
}

size_t PurgeExpiredQuarantines(const std::wstring& root, unsigned long days, std::vector<std::wstring>& notes) {
  size_t deleted = 0;
  CQuarantineStore store(root);
  for (const SManagedQuarantine& q : store.List()) {
    if (!q.dated || CQuarantineStore::AgeInDays(q.date) <= days) continue;
    if (!q.damaged.empty()) {
      notes.push_back(L"kept the quarantine " + Quoted(q.name) + L" past QuarantineKeepDays: its manifest is damaged");
      continue;
    }
    std::wstring reason;
    if (CQuarantine::DeleteFolder(q.folder, reason)) {
      ++deleted;
      continue;
    }
    notes.push_back(L"the quarantine " + Quoted(q.name) + L" is past QuarantineKeepDays but stays: " + reason);
  }
  return deleted;
}

}  // namespace host
