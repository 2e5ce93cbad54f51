#pragma once
// Existence checks for winapp2 detection, made for thousands of keys and
// paths at once. Every query is announced first (Plan...), so that a folder
// or key asked about many names is listed once rather than asked once per
// name, and every answer on the way is kept: a missing vendor key or folder
// is asked once and ends every query below it. Files are asked with
// GetFileAttributesW (which stays inside the process under Wine), keys with
// one open per key that exists. What is planned is held as a tree of
// names, so a path costs one node per component: memory and time grow with
// the file, not with the square of a path's length. Internal to the engine.
#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/Handles.h"
#include "registry/RegistryPath.h"

namespace broom {
namespace winapp2 {

class CDetector {
 public:
  // A folder or key asked about this many different names is listed instead.
  static constexpr size_t kListAt = 8;
  // What one load's detection may take, as a path of wildcards would
  // otherwise list a whole drive, and query after query walk it again: its
  // listings hold this many names in all (past them no folder is listed and
  // names are asked one by one), and its wildcards are compared with this
  // many names in all; past either, a wildcard matches nothing (its query
  // does not hold).
  static constexpr size_t kMaxListedNames = 100000;
  static constexpr size_t kMaxWildcardNames = 4000000;

  // path: a full path in normal form (C:\a\b or \\server\share\a), with '*'
  // and '?' allowed in any component after the first.
  void PlanFile(const std::wstring& path);
  void PlanKey(const CRegistryPath& key);
  // Whether the file or folder exists; a wildcard component matches any
  // entry of its folder by its long name, and never leads through a link
  // (a junction or symbolic link), as a rule's walk never does.
  bool FileExists(const std::wstring& path);
  // Whether the key exists in the 64-bit or in the 32-bit registry view;
  // with a value part, whether that value exists in it.
  bool KeyExists(const CRegistryPath& key);

  // Calls into the system made so far: file listings and attribute
  // look-ups, key opens, listings and value look-ups.
  unsigned FileCalls() const { return m_fileCalls; }
  unsigned KeyCalls() const { return m_keyCalls; }

 private:
  using Names = std::unordered_set<std::wstring>;

  // The folders or keys queries will ask about: upper-cased names below a
  // root (a drive, \\server\share or a hive), each with the number of
  // different names asked in it.
  class CPlan {
   public:
    static constexpr uint32_t kNone = 0xFFFFFFFFu;
    uint32_t Add(uint32_t node, const std::wstring& name);
    // kNone when nothing was planned there.
    uint32_t Child(uint32_t node, const wchar_t* name, size_t length) const;
    uint32_t Child(uint32_t node, const std::wstring& name) const { return Child(node, name.data(), name.size()); }
    size_t Names(uint32_t node) const { return node == kNone ? 0 : m_nodes[node].children; }
    bool Wild(uint32_t node) const { return node != kNone && m_nodes[node].wild; }
    void SetWild(uint32_t node) { m_nodes[node].wild = true; }

   private:
    struct SNode {
      uint32_t children = 0;
      bool wild = false;  // a wildcard component lists it
    };
    static void Key(std::wstring& key, uint32_t node, const wchar_t* name, size_t length);
    std::vector<SNode> m_nodes{SNode()};             // node 0 holds the roots
    std::unordered_map<std::wstring, uint32_t> m_edges;  // parent node and name: child node
  };

  struct SListing {
    std::unordered_map<std::wstring, DWORD> attributes;       // by upper-cased name
    std::vector<std::pair<std::wstring, std::wstring>> names;  // upper-cased and as listed
  };
  struct SKey {
    bool exists = false;
    unique_hkey handle;
    bool listed = false;                   // subkeys was looked at
    std::shared_ptr<const Names> subkeys;  // upper-cased names; null when not listed
  };

  // plan: upperFolder's node in m_files, or CPlan::kNone.
  bool WalkFile(const std::wstring& path, const std::wstring& upper, size_t at, std::wstring& folder,
                std::wstring& upperFolder, uint32_t plan);
  DWORD Attributes(std::wstring& folder, std::wstring& upperFolder, uint32_t plan, const wchar_t* name,
                   const wchar_t* upperName, size_t nameLength);
  const SListing& List(const std::wstring& folder, const std::wstring& upperFolder);
  HKEY OpenKey(const CRegistryPath& key, REGSAM view);
  const Names* Subkeys(SKey& key, HKEY handle, uint32_t plan);

  CPlan m_files;                                          // folders and the names asked in them
  CPlan m_keysPlanned;                                    // keys and the subkey names asked in them
  std::unordered_map<std::wstring, DWORD> m_attributes;   // upper-cased path
  std::unordered_map<std::wstring, SListing> m_listings;  // upper-cased folder
  std::unordered_map<std::wstring, SKey> m_keys[2];       // per view, by upper-cased key path
  std::unordered_map<std::wstring, std::shared_ptr<const Names>> m_subkeysByKernelName;
  unsigned m_fileCalls = 0;
  unsigned m_keyCalls = 0;
  size_t m_listedNames = 0, m_wildcardNames = 0;
};

}  // namespace winapp2
}  // namespace broom
