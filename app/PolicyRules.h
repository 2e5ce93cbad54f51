#pragma once
// What the organisation's policies (policy/Policies.h) change in both hosts:
// items switched off or on by default, registry rules left out, an age
// floor, paths protected beside the user's list, a quarantine for every
// clean and the purge of old ones. The marks made on the loaded tree say
// which policy set what, so that the hosts can say so.
#include <string>
#include <vector>

#include "policy/Policies.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/ScanGroup.h"
#include "scan/ScanOperation.h"

class CWhiteListTree;

namespace host {

// What a policy decides for one group of the loaded tree.
struct SPolicyMark {
  std::wstring off;         // the policy that switches it off ("DisabledItems"); empty when none does
  bool defaultSet = false;  // DefaultItems decides whether it is on by default
  bool defaultOn = false;
};

// The text a host shows beside what a policy sets.
constexpr const wchar_t* kSetByOrganisation = L"Set by your organisation";

// Marks the loaded tree: DisabledItems switches the named items and groups
// off, DefaultItems makes exactly the named ones on by default (for scanning
// and cleaning), DisableRegistryCleaning switches off the items that have
// registry rules only. An entry that names several groups is noted. Marks
// of an earlier call are dropped first.
void ApplyPolicies(IConfig* config, const CPolicies& policies, std::vector<std::wstring>& notes);
// The mark of a group, or null when no policy touches it.
const SPolicyMark* PolicyMarkOf(const CScanGroup* group);
// "switched off by your organisation (DisabledItems)"
std::wstring PolicyOffText(const SPolicyMark& mark);

// A rule on the registry (a definition's reg rule or a winapp2 RegKey).
bool IsRegistryOperation(const IScanOperation* op);

// The policies' protected paths as the whitelist stores them; an entry that
// cannot be used is noted and left out.
std::vector<std::wstring> PolicyProtectedPaths(const CPolicies& policies, std::vector<std::wstring>* notes = nullptr);
// Adds the paths the list does not already protect; the destructor takes
// them out again, so the user's list is never saved with them.
class CPolicyProtection {
 public:
  CPolicyProtection(CWhiteListTree& list, const std::vector<std::wstring>& paths);
  ~CPolicyProtection();
  CPolicyProtection(const CPolicyProtection&) = delete;
  CPolicyProtection& operator=(const CPolicyProtection&) = delete;

 private:
  CWhiteListTree& m_list;
  std::vector<std::wstring> m_added;
};

// Deletes the managed quarantines in root older than days (by the date in
// their names); one with a damaged manifest stays. Returns how many went;
// what stays and why goes to notes.
size_t PurgeExpiredQuarantines(const std::wstring& root, unsigned long days, std::vector<std::wstring>& notes);

}  // namespace host
