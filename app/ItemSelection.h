#pragma once
// The items of a loaded tree and how a user names them: the groups that
// have operations of their own, chosen by path, by a group's path or name,
// or by their default states.
#include <string>
#include <vector>

#include "scandefs/ConfigStore.h"
#include "scandefs/ItemTraits.h"
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
// (A group, or the defaults, take only their cache and history items; see SelectByCost.)
std::vector<SItem> SelectItems(IConfig* config, const std::vector<std::wstring>& names, bool forClean,
                               std::vector<std::wstring>& notes);

// What an item costs its user (costCache when the tree has no store).
ECost CostOf(IConfig* config, const CScanGroup* item);

// The classes above history a group brings along (--include sign-in, saved).
struct SCostChoice {
  bool signIn = false;
  bool saved = false;
  bool Takes(ECost cost) const { return cost <= costHistory || (cost == costSignIn ? signIn : saved); }
};

struct SLeftOut {
  SItem item;
  ECost cost = costCache;
  std::wstring how;  // how to take it: "name it or add --include saved"
};

struct SSelection {
  std::vector<SItem> items;
  // Items of a named group (or of the defaults) that cost more than the
  // group may take; an item also named one by one is taken instead.
  std::vector<SLeftOut> leftOut;
  std::vector<const CScanGroup*> named;  // the items named by their own path
  bool Named(const CScanGroup* item) const;
};

// SelectItems, where a group takes its sign-in and saved items only when
// include says so; an item named by its own path is always taken.
SSelection SelectByCost(IConfig* config, const std::vector<std::wstring>& names, bool forClean,
                        const SCostChoice& include, std::vector<std::wstring>& notes);

}  // namespace host
