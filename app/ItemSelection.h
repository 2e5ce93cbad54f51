#pragma once
// The items of a loaded tree and how a user names them: the groups that
// have operations of their own, chosen by path, by a group's path or name,
// or by their default states.
#include <string>
#include <vector>

#include "scandefs/ConfigStore.h"
#include "scandefs/ScanGroup.h"

namespace host {

// A scan definition group that has operations of its own: what a user ticks.
struct SItem {
  CScanGroup* group = nullptr;
  std::wstring path;  // "System/Temporary files"
};

std::wstring GroupPath(const CScanGroup* group);
bool IsOn(AttributeBoolState state);  // abTrue only
bool IsEnabled(const CScanGroup* group);  // not switched off by a failed check

// Items below the top-level groups, in the store's order.
std::vector<SItem> AllItems(IConfig* config);
// Named items (paths or group names) or, with no names, the items that are
// enabled and on by default for scanning (and for cleaning when forClean).
// Notes for the user go to notes; a name that finds nothing, or several
// groups, throws CHostError(exitUsage).
std::vector<SItem> SelectItems(IConfig* config, const std::vector<std::wstring>& names, bool forClean,
                               std::vector<std::wstring>& notes);

}  // namespace host
