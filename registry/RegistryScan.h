#pragma once
// The scan operation of "reg" definitions: finds registry keys and values
// and reports them as CCleanableRegistry items.
//
// Each path is looked up in the 64-bit and the 32-bit view of the registry;
// the second view counts only when the system names a different key for
// it. Items name the key where it really lives (HKLM\SOFTWARE\WOW6432Node\…
// for the 32-bit view), and no key is reported twice, nor anything below a
// key already reported. Keys of the safety table (RegistrySafety.h) are
// never reported; values only not in a hive root.
//
// Keeps (definition excludes) and protected whitelist paths below a key
// split it: the key then stays, and its values and subkeys are reported
// one by one, except the kept ones, descending into subkeys that hold kept
// ones. A whitelist path below a key keeps a subkey and a value of that name.
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/RefCounting.h"
#include "registry/RegistryPath.h"
#include "scan/ScanOperation.h"

class BROOM_API CRegistryScan : public IScanOperation {
 public:
  CRegistryScan() = default;

  // A key (HIVE\subkey) or value (HIVE\subkey|Name) to look for; false, and
  // nothing added, when the text is not a registry path.
  bool AddPath(const wchar_t* text);
  // Something to keep in every key of this operation: a subkey path
  // relative to the key (Sub\Key), a value (Sub|Name, or |Name for a value
  // of the key itself), or a full path below one of the operation's keys;
  // blanks around it do not count. Keeps follow the paths they apply to.
  // False, and nothing kept, for anything else.
  bool AddKeep(const wchar_t* text);
  const std::vector<CRegistryPath>& GetPaths() const { return m_paths; }

  void PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress, IOperationStatusNotify* status,
                   CWhiteListTree* whiteList) override;
  bool ReportsProgress() const override { return true; }

  // What stays of a key: the key itself (whole), or some subkeys and values.
  struct SKeep {
    bool whole = false;
    std::map<std::wstring, SKeep> keys;  // by upper-cased name
    std::set<std::wstring> values;       // upper-cased names
    bool Empty() const { return !whole && keys.empty() && values.empty(); }
    // Keeps the subkey at relativeKey whole, or with value one value of it.
    void Add(const std::wstring& relativeKey, const std::wstring* value);
  };

 protected:
  struct SKeepEntry {
    bool full = false;  // path holds a full path, else a relative one in its subkey
    CRegistryPath path;
  };
  SKeep KeepFor(const CRegistryPath& key) const;

  std::vector<CRegistryPath> m_paths;
  std::vector<SKeepEntry> m_keeps;
};
