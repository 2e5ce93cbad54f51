#include "winapp2/Winapp2Detect.h"

#include <cwchar>

#include "scandefs/ConfigValues.h"
#include "core/NameMask.h"

namespace broom {
namespace winapp2 {

namespace {

std::vector<std::wstring> Upper(std::vector<std::wstring> parts) {
  for (std::wstring& part : parts) UpperName(part);
  return parts;
}

const REGSAM kViews[2] = {KEY_WOW64_64KEY, KEY_WOW64_32KEY};

// HKCR is the user's classes laid over the machine's; it is asked as those
// two keys, since Wine leaks a handle on every open below HKCR with a view flag.
bool ClassesKeys(const CRegistryPath& key, CRegistryPath (&out)[2]) {
  if (key.Hive() != HKEY_CLASSES_ROOT) return false;
  std::wstring subkey = key.Subkey().empty() ? L"Software\\Classes" : L"Software\\Classes\\" + key.Subkey();
  out[0] = CRegistryPath(HKEY_CURRENT_USER, subkey);
  out[1] = CRegistryPath(HKEY_LOCAL_MACHINE, subkey);
  for (CRegistryPath& path : out)
    if (key.HasValue()) path.SetValue(key.ValueName());
  return true;
}

}  // namespace

// ---- the plan ----

void CDetector::CPlan::Key(std::wstring& key, uint32_t node, const wchar_t* name, size_t length) {
  key.assign(1, static_cast<wchar_t>(node >> 16));
  key += static_cast<wchar_t>(node & 0xFFFF);
  key.append(name, length);
}

uint32_t CDetector::CPlan::Add(uint32_t node, const std::wstring& name) {
  std::wstring key;
  Key(key, node, name.data(), name.size());
  auto added = m_edges.emplace(std::move(key), static_cast<uint32_t>(m_nodes.size()));
  if (added.second) {
    ++m_nodes[node].children;
    m_nodes.emplace_back();
  }
  return added.first->second;
}

uint32_t CDetector::CPlan::Child(uint32_t node, const wchar_t* name, size_t length) const {
  if (node == kNone) return kNone;
  std::wstring key;
  Key(key, node, name, length);
  auto found = m_edges.find(key);
  return found == m_edges.end() ? kNone : found->second;
}

// ---- files ----

void CDetector::PlanFile(const std::wstring& path) {
  std::vector<std::wstring> parts = Upper(SplitPath(path.c_str(), path.size()));
  if (parts.empty()) return;
  uint32_t node = m_files.Add(0, parts[0]);
  for (size_t i = 1; i < parts.size(); ++i) {
    if (HasWildcard(parts[i])) {
      m_files.SetWild(node);
      return;
    }
    node = m_files.Add(node, parts[i]);
  }
}

bool CDetector::FileExists(const std::wstring& path) {
  std::wstring upper = path;
  UpperName(upper);
  // the root: a drive, or \\server\share
  size_t root = path.size() >= 2 && path[0] == L'\\' && path[1] == L'\\' ? path.find(L'\\', path.find(L'\\', 2) + 1)
                                                                    : path.find(L'\\');
  if (root == std::wstring::npos) root = path.size();
  std::wstring folder = path.substr(0, root), upperFolder = upper.substr(0, root);
  return WalkFile(path, upper, root, folder, upperFolder, m_files.Child(0, upperFolder));
}

// folder exists; the components of path from at on are still to be found
// in it. folder and upperFolder grow as the walk goes down and are given
// back as they came.
bool CDetector::WalkFile(const std::wstring& path, const std::wstring& upper, size_t at, std::wstring& folder,
                         std::wstring& upperFolder, uint32_t plan) {
  while (at < path.size() && path[at] == L'\\') ++at;
  if (at >= path.size()) return true;
  size_t end = path.find(L'\\', at);
  if (end == std::wstring::npos) end = path.size();
  const bool last = path.find_first_not_of(L'\\', end) == std::wstring::npos;
  const size_t length = folder.size(), upperLength = upperFolder.size();
  auto descend = [&](const wchar_t* name, size_t nameLength, const wchar_t* upperName, size_t upperNameLength) {
    folder.append(1, L'\\').append(name, nameLength);
    upperFolder.append(1, L'\\').append(upperName, upperNameLength);
    bool found = WalkFile(path, upper, end, folder, upperFolder, m_files.Child(plan, upperName, upperNameLength));
    folder.resize(length);
    upperFolder.resize(upperLength);
    return found;
  };
  if (HasWildcard(upper.data() + at, end - at)) {
    const SListing& listing = List(folder, upperFolder);
    for (const auto& name : listing.names) {
      if (++m_wildcardNames > kMaxWildcardNames) return false;
      if (!MatchUpper(upper.data() + at, end - at, name.first.data(), name.first.size())) continue;
      if (last) return true;
      const DWORD attributes = listing.attributes.at(name.first);
      if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT) &&
          descend(name.second.data(), name.second.size(), name.first.data(), name.first.size()))
        return true;
    }
    return false;
  }
  DWORD attributes = Attributes(folder, upperFolder, plan, path.data() + at, upper.data() + at, end - at);
  if (attributes == INVALID_FILE_ATTRIBUTES) return false;
  if (last) return true;
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) && descend(path.data() + at, end - at, upper.data() + at, end - at);
}

// The attributes of one entry of a folder, asked once: from the folder's
// listing when the folder is listed, else from the system.
DWORD CDetector::Attributes(std::wstring& folder, std::wstring& upperFolder, uint32_t plan, const wchar_t* name,
                            const wchar_t* upperName, size_t nameLength) {
  const size_t length = folder.size(), upperLength = upperFolder.size();
  upperFolder.append(1, L'\\').append(upperName, nameLength);
  auto known = m_attributes.find(upperFolder);
  upperFolder.resize(upperLength);
  if (known != m_attributes.end()) return known->second;
  DWORD attributes = INVALID_FILE_ATTRIBUTES;
  if (m_listings.count(upperFolder) ||
      (m_listedNames < kMaxListedNames && (m_files.Wild(plan) || m_files.Names(plan) >= kListAt))) {
    const SListing& listing = List(folder, upperFolder);
    auto found = listing.attributes.find(std::wstring(upperName, nameLength));
    if (found != listing.attributes.end()) attributes = found->second;
  } else {
    ++m_fileCalls;
    folder.append(1, L'\\').append(name, nameLength);
    attributes = GetFileAttributesW(folder.c_str());
    folder.resize(length);
  }
  m_attributes.emplace(upperFolder + L'\\' + std::wstring(upperName, nameLength), attributes);
  return attributes;
}

const CDetector::SListing& CDetector::List(const std::wstring& folder, const std::wstring& upperFolder) {
  auto known = m_listings.find(upperFolder);
  if (known != m_listings.end()) return known->second;
  static const SListing kNothing;  // past the budget: nothing more is listed
  if (m_listedNames >= kMaxListedNames) return kNothing;
  SListing& listing = m_listings[upperFolder];
  ++m_fileCalls;
  WIN32_FIND_DATAW data;
  unique_hfind find(FindFirstFileExW((folder + L"\\*").c_str(), FindExInfoBasic, &data, FindExSearchNameMatch,
                                     nullptr, FIND_FIRST_EX_LARGE_FETCH));
  if (!find) return listing;
  do {
    if (wcscmp(data.cFileName, L".") == 0 || wcscmp(data.cFileName, L"..") == 0) continue;
    std::wstring upper(data.cFileName);
    UpperName(upper);
    if (listing.attributes.emplace(upper, data.dwFileAttributes).second)
      listing.names.emplace_back(std::move(upper), data.cFileName);
  } while (++m_listedNames < kMaxListedNames && FindNextFileW(find.get(), &data));
  return listing;
}

// ---- registry ----

void CDetector::PlanKey(const CRegistryPath& key) {
  CRegistryPath classes[2];
  if (ClassesKeys(key, classes)) {
    for (const CRegistryPath& path : classes) PlanKey(path);
    return;
  }
  const wchar_t* hive = CRegistryPath::HiveShortName(key.Hive());
  if (!hive) return;
  uint32_t node = m_keysPlanned.Add(0, hive);
  for (const std::wstring& part : Upper(CRegistryPath::Components(key.Subkey()))) node = m_keysPlanned.Add(node, part);
}

bool CDetector::KeyExists(const CRegistryPath& key) {
  CRegistryPath classes[2];
  if (ClassesKeys(key, classes)) return KeyExists(classes[0]) || KeyExists(classes[1]);
  for (REGSAM view : kViews) {
    HKEY handle = OpenKey(key, view);
    if (!handle) continue;
    if (!key.HasValue()) return true;
    ++m_keyCalls;
    if (RegQueryValueExW(handle, key.ValueName().c_str(), nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS)
      return true;
  }
  return false;
}

// The open key in the view, or null when it does not exist there. Each key
// on the way is opened once, relative to its parent, and kept.
HKEY CDetector::OpenKey(const CRegistryPath& key, REGSAM view) {
  const wchar_t* hive = CRegistryPath::HiveShortName(key.Hive());
  if (!hive) return nullptr;
  auto& keys = m_keys[view == KEY_WOW64_32KEY ? 1 : 0];
  std::wstring upperPath = hive;
  HKEY parent = key.Hive();
  SKey* parentState = &keys[upperPath];
  parentState->exists = true;
  uint32_t plan = m_keysPlanned.Child(0, upperPath);
  for (const std::wstring& part : CRegistryPath::Components(key.Subkey())) {
    std::wstring upperPart = part;
    UpperName(upperPart);
    std::wstring childPath = upperPath + L'\\' + upperPart;
    auto known = keys.find(childPath);
    if (known == keys.end()) {
      const Names* listed = Subkeys(*parentState, parent, plan);
      SKey child;
      if (!listed || listed->count(upperPart)) {
        ++m_keyCalls;
        child.exists = RegOpenKeyExW(parent, part.c_str(), 0, KEY_READ | view, child.handle.addressof()) ==
                       ERROR_SUCCESS;
      }
      known = keys.emplace(childPath, std::move(child)).first;
    }
    if (!known->second.exists) return nullptr;
    parent = known->second.handle.get();
    parentState = &known->second;
    upperPath = std::move(childPath);
    plan = m_keysPlanned.Child(plan, upperPart);
  }
  return parent;
}

// The subkey names of a key asked about many of them, listed once: a key
// with fewer subkeys than names asked is cheaper to list than to ask. A key
// that names the same key in both views is listed once for both. Names the
// system redirects below a shared key (CLSID below Classes, for one) are
// taken as listed.
const CDetector::Names* CDetector::Subkeys(SKey& key, HKEY handle, uint32_t plan) {
  if (key.listed) return key.subkeys.get();
  key.listed = true;
  const size_t asked = m_keysPlanned.Names(plan);
  if (asked < kListAt) return nullptr;
  DWORD count = 0, longest = 0;
  ++m_keyCalls;
  if (RegQueryInfoKeyW(handle, nullptr, nullptr, nullptr, &count, &longest, nullptr, nullptr, nullptr, nullptr,
                       nullptr, nullptr) != ERROR_SUCCESS ||
      count + 1 >= asked)
    return nullptr;
  std::wstring kernelName = CRegistryPath::KernelName(handle);
  ++m_keyCalls;
  if (!kernelName.empty()) {
    UpperName(kernelName);
    auto shared = m_subkeysByKernelName.find(kernelName);
    if (shared != m_subkeysByKernelName.end()) return (key.subkeys = shared->second).get();
  }
  auto names = std::make_shared<Names>();
  std::vector<wchar_t> buffer(longest + 2);
  for (DWORD i = 0;; ++i) {
    DWORD length = static_cast<DWORD>(buffer.size());
    ++m_keyCalls;
    LONG status = RegEnumKeyExW(handle, i, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_MORE_DATA) {
      buffer.resize(buffer.size() * 2 + 256);  // a key added meanwhile with a longer name
      --i;
      continue;
    }
    if (status != ERROR_SUCCESS) break;
    std::wstring name(buffer.data(), length);
    UpperName(name);
    names->insert(std::move(name));
  }
  key.subkeys = names;
  if (!kernelName.empty()) m_subkeysByKernelName.emplace(kernelName, names);
  return key.subkeys.get();
}

}  // namespace winapp2
}  // namespace broom
