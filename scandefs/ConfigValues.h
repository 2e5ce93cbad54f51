#pragma once
// Named values of definition files: scopes that fall back to their
// enclosing scope, the process-wide scope of environment variables and
// shell folders, and registry paths of the form HIVE\subkey[value].
#include <windows.h>

#include <map>
#include <string>

#include "core/Export.h"
#include "core/RefCounting.h"

// Orders names case-insensitively (ordinal, upper-case folding).
struct CaseInsensitiveStringLess {
  bool operator()(const std::wstring& a, const std::wstring& b) const {
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_LESS_THAN;
  }
};

class BROOM_API CScopedMap {
 public:
  // Maps names to texts it owns; a null text hides the name from the
  // enclosing scopes.
  class BROOM_API ConfigValueMap : public IUnknown,
                                   public std::map<std::wstring, const wchar_t*, CaseInsensitiveStringLess> {
   public:
    ConfigValueMap() = default;
    ConfigValueMap(const ConfigValueMap&) = delete;
    ConfigValueMap& operator=(const ConfigValueMap&) = delete;
    virtual ~ConfigValueMap();

    bool Lookup(const std::wstring& name, std::wstring& out) const;
    void Set(const std::wstring& name, const wchar_t* text);
    void Remove(const std::wstring& name);
    CRefPtr<ConfigValueMap> CreateChildScope();

    CRefPtr<ConfigValueMap> m_parentScope;
  };

  // The process-wide scope, built on the first call: environment, shell
  // folders, Downloads and LocalAppDataLow.
  static ConfigValueMap* GetGlobalScope();
};

// Opens the key of a registry path for reading.
BROOM_API bool OpenRegistryPath(const std::wstring& path, HKEY& key);
// Reads the REG_SZ/REG_EXPAND_SZ value a registry path names (at most 260
// characters); the key's default value without "[name]".
BROOM_API bool ReadRegistryString(const std::wstring& path, std::wstring& out);
