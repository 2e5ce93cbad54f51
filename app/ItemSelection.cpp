#include "app/ItemSelection.h"

#include <algorithm>
#include <cwctype>
#include <set>

#include "app/HostError.h"
#include "app/PolicyRules.h"
#include "app/Text.h"
#include "core/Names.h"

namespace host {

namespace {

bool SameName(const wchar_t* a, const std::wstring& b) { return broom::CompareNoCase(a, b.c_str()) == 0; }

std::vector<std::wstring> SplitPath(const std::wstring& path) {
  std::vector<std::wstring> parts;
  for (const std::wstring& part : broom::Split(path, L'/')) {
    // Surrounding blanks are a typing accident, never part of a name.
    std::wstring_view name = broom::Trim(part, [](wchar_t c) { return c == L' '; });
    if (!name.empty()) parts.emplace_back(name);
  }
  return parts;
}

template <class F>
void ForEachChild(const CScanGroup* group, F f) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group->GetChildren(it);
  for (; it && !it->AtEnd(); it->Next()) f(it->Current());
}

template <class F>
void ForEachTop(IConfig* config, F f) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  for (; it && !it->AtEnd(); it->Next()) f(it->Current());
}

// top and every group below it, parents before children, in the tree's
// order; without recursion, as a tree may be deeper than the stack.
template <class F>
void ForEachBelow(CScanGroup* top, F f) {
  std::vector<CScanGroup*> work{top};
  std::vector<CScanGroup*> children;
  while (!work.empty()) {
    CScanGroup* group = work.back();
    work.pop_back();
    f(group);
    children.clear();
    ForEachChild(group, [&](CScanGroup* child) { children.push_back(child); });
    work.insert(work.end(), children.rbegin(), children.rend());
  }
}

void CollectItems(CScanGroup* top, std::vector<SItem>& out) {
  ForEachBelow(top, [&](CScanGroup* group) {
    if (group->HasScanOps()) out.push_back(SItem{group, GroupPath(group)});
  });
}

// Every group whose path ends with the given names.
void FindSuffix(CScanGroup* top, const std::vector<std::wstring>& parts, std::vector<CScanGroup*>& out) {
  ForEachBelow(top, [&](CScanGroup* group) {
    const CScanGroup* g = group;
    for (size_t i = parts.size(); i-- > 0; g = g->GetParent())
      if (!g || !SameName(g->GetName(), parts[i])) return;
    out.push_back(group);
  });
}

// The names of a path as the user typed them, rejoined the way SplitPath
// reads them, so that blanks and doubled '/' do not count.
std::wstring JoinedPath(const std::wstring& path) {
  std::wstring joined;
  for (const std::wstring& part : SplitPath(path)) joined += (joined.empty() ? L"" : L"/") + part;
  return joined;
}

// Every group whose path is the whole text, or ends with it after a '/': a
// name that holds a '/' itself ("Folder/Dialog Box View Settings") is found so.
void FindWholeText(CScanGroup* top, const std::wstring& text, std::vector<CScanGroup*>& out) {
  std::wstring wanted = JoinedPath(text);
  ForEachBelow(top, [&](CScanGroup* group) {
    std::wstring path = JoinedPath(GroupPath(group));
    size_t at = path.size() >= wanted.size() ? path.size() - wanted.size() : std::wstring::npos;
    if (at != std::wstring::npos && (at == 0 || path[at - 1] == L'/') &&
        broom::CompareNoCase(path.c_str() + at, wanted.c_str()) == 0)
      out.push_back(group);
  });
}

// The words of a name, folded: runs of letters and digits.
std::vector<std::wstring> Words(const std::wstring& text) {
  std::vector<std::wstring> words(1);
  for (wchar_t c : text) {
    if (iswalnum(c))
      words.back() += broom::FoldCase(c);
    else if (!words.back().empty())
      words.emplace_back();
  }
  if (words.back().empty()) words.pop_back();
  return words;
}

// Every group whose own name holds the typed words as a run of whole words
// ("chrome" for "Google Chrome"), none below another one found.
void FindWords(IConfig* config, const std::wstring& text, std::vector<CScanGroup*>& out) {
  const std::vector<std::wstring> wanted = Words(text);
  if (wanted.empty()) return;
  ForEachTop(config, [&](CScanGroup* top) {
    ForEachBelow(top, [&](CScanGroup* group) {
      for (const CScanGroup* above = group->GetParent(); above; above = above->GetParent())
        for (CScanGroup* found : out)
          if (found == above) return;
      const std::vector<std::wstring> words = Words(group->GetName());
      for (size_t at = 0; at + wanted.size() <= words.size(); ++at)
        if (std::equal(wanted.begin(), wanted.end(), words.begin() + static_cast<std::ptrdiff_t>(at))) {
          out.push_back(group);
          return;
        }
    });
  });
}

size_t EditDistance(const std::wstring& a, const std::wstring& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// The names closest to one that matched nothing: those that hold it, or
// are a few typing slips away from it or from one of their words; at most three.
std::wstring DidYouMean(IConfig* config, const std::wstring& name) {
  std::wstring typed;
  for (wchar_t c : JoinedPath(name)) typed += broom::FoldCase(c);
  if (typed.empty()) return std::wstring();
  const size_t slips = typed.size() <= 4 ? 1 : typed.size() <= 8 ? 2 : 3;
  std::vector<std::pair<size_t, std::wstring>> close;
  std::set<std::wstring> seen;
  ForEachTop(config, [&](CScanGroup* top) {
    ForEachBelow(top, [&](CScanGroup* group) {
      std::wstring folded;
      for (const wchar_t* c = group->GetName(); *c; ++c) folded += broom::FoldCase(*c);
      size_t best = folded.find(typed) != std::wstring::npos ? 0 : EditDistance(typed, folded);
      for (const std::wstring& word : Words(folded)) best = std::min(best, EditDistance(typed, word));
      if (best > slips || !seen.insert(folded).second) return;
      close.emplace_back(best, group->GetName());
    });
  });
  std::stable_sort(close.begin(), close.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  if (close.size() > 3) close.resize(3);
  std::wstring text;
  for (size_t i = 0; i < close.size(); ++i)
    text += (i == 0 ? L"'" : i + 1 == close.size() ? L" or '" : L", '") + close[i].second + L"'";
  return text.empty() ? text : L"did you mean " + text + L"?";
}

// One note per switched-off item, or one for all when a group holds many.
void NoteSwitchedOff(const std::vector<std::wstring>& off, const std::wstring& group, std::vector<std::wstring>& notes) {
  if (off.size() <= 3) {
    for (const std::wstring& path : off)
      notes.push_back(L"skipped '" + path + L"': switched off because its application is not installed");
    return;
  }
  notes.push_back(L"skipped " + FormatCount(off.size()) + L" items of '" + group +
                  L"': switched off because their applications are not installed");
}

}  // namespace

std::wstring GroupPath(const CScanGroup* group) {
  // names are gathered leaf first and joined once, so long names at every
  // level cost their length, not their length times the depth
  std::vector<const wchar_t*> names;
  size_t length = 0;
  for (const CScanGroup* g = group; g; g = g->GetParent()) {
    names.push_back(g->GetName());
    length += wcslen(names.back()) + 1;
  }
  std::wstring path;
  path.reserve(length);
  for (auto it = names.rbegin(); it != names.rend(); ++it) {
    if (!path.empty()) path += L'/';
    path += *it;
  }
  return path;
}

bool IsOn(AttributeBoolState state) { return state == abTrue; }
bool IsEnabled(const CScanGroup* group) { return group->IsEnabled() != abFalse; }

std::vector<SItem> AllItems(IConfig* config) {
  std::vector<SItem> items;
  ForEachTop(config, [&](CScanGroup* group) { CollectItems(group, items); });
  return items;
}

std::vector<SItem> SelectItems(IConfig* config, const std::vector<std::wstring>& names, bool forClean,
                               std::vector<std::wstring>& notes) {
  return SelectByCost(config, names, forClean, SCostChoice(), notes).items;
}

ECost CostOf(IConfig* config, const CScanGroup* item) {
  const CConfigStore* store = config ? CConfigStore::Of(config) : nullptr;
  return store ? store->GetCost(item) : costCache;
}

bool SSelection::Named(const CScanGroup* item) const {
  return std::find(named.begin(), named.end(), item) != named.end();
}

SSelection SelectByCost(IConfig* config, const std::vector<std::wstring>& names, bool forClean,
                        const SCostChoice& include, std::vector<std::wstring>& notes) {
  SSelection selection;
  std::vector<SItem>& chosen = selection.items;
  std::set<const CScanGroup*> leftOut;
  // an item a group would take, unless its cost keeps it out
  auto takeFromGroup = [&](const SItem& item) {
    ECost cost = CostOf(config, item.group);
    if (include.Takes(cost)) return true;
    if (leftOut.insert(item.group).second)
      selection.leftOut.push_back(SLeftOut{item, cost, std::wstring(L"name it or add --include ") + CostName(cost)});
    return false;
  };
  std::vector<SItem> all = AllItems(config);
  if (names.empty()) {
    for (const SItem& item : all) {
      if (!IsEnabled(item.group) || !IsOn(item.group->IsDefaultScan())) continue;
      if (forClean && !IsOn(item.group->IsDefaultClean())) continue;
      if (takeFromGroup(item)) chosen.push_back(item);
    }
    return selection;
  }

  std::set<const CScanGroup*> taken;
  for (const std::wstring& name : names) {
    std::vector<std::wstring> parts = SplitPath(name);
    if (parts.empty()) throw CHostError{exitUsage, L"an empty item name was given; run 'broom list' to see the names"};
    // A full path from a top-level group first, then a path that ends a group's path.
    std::vector<CScanGroup*> found;
    ForEachTop(config, [&](CScanGroup* top) {
      if (!SameName(top->GetName(), parts[0])) return;
      CScanGroup* g = top;
      for (size_t i = 1; g && i < parts.size(); ++i) {
        CScanGroup* next = nullptr;
        ForEachChild(g, [&](CScanGroup* child) {
          if (!next && SameName(child->GetName(), parts[i])) next = child;
        });
        g = next;
      }
      if (g) found.push_back(g);
    });
    if (found.empty()) ForEachTop(config, [&](CScanGroup* top) { FindSuffix(top, parts, found); });
    if (found.empty()) ForEachTop(config, [&](CScanGroup* top) { FindWholeText(top, name, found); });
    if (found.empty()) FindWords(config, name, found);
    if (found.empty()) {
      const std::wstring close = DidYouMean(config, name);
      throw CHostError{exitUsage, L"no item or group is named '" + name + L"'; " +
                                      (close.empty() ? L"run 'broom list' to see the names"
                                                     : close + L" ('broom list' shows every name)")};
    }
    if (found.size() > 1) {
      std::wstring which;
      for (CScanGroup* g : found) which += (which.empty() ? L"'" : L", '") + GroupPath(g) + L"'";
      throw CHostError{exitUsage, L"'" + name + L"' names several groups (" + which + L"); give the full path"};
    }
    std::vector<SItem> below;
    CollectItems(found[0], below);
    std::vector<std::wstring> off;
    for (const SItem& item : below) {
      const SPolicyMark* mark = PolicyMarkOf(item.group);
      if (mark && !mark->off.empty() && !IsEnabled(item.group)) {
        notes.push_back(L"skipped '" + item.path + L"': " + PolicyOffText(*mark));
        continue;
      }
      if (!IsEnabled(item.group)) {
        off.push_back(item.path);
        continue;
      }
      bool named = item.group == found[0];
      if (named) selection.named.push_back(item.group);
      if (!named && !takeFromGroup(item)) continue;
      if (taken.insert(item.group).second) chosen.push_back(item);
    }
    NoteSwitchedOff(off, GroupPath(found[0]), notes);
  }
  // an item named one by one is not left out, wherever its name stood
  auto& out = selection.leftOut;
  out.erase(std::remove_if(out.begin(), out.end(), [&](const SLeftOut& l) { return taken.count(l.item.group) != 0; }),
            out.end());
  return selection;
}

}  // namespace host
