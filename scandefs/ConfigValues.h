#pragma once
// Named values of definition files: scopes that fall back to their
// enclosing scope, the process-wide scope of environment variables and
// shell folders, and registry paths of the form HIVE\subkey[value].
#include <windows.h>

#include <map>
#include <string>
#include <utility>

#include "core/Export.h"
#include "core/Names.h"
#include "core/RefCounting.h"

// Orders names as _wcsicmp(a, b) < 0 does; also compares against a
// (pointer, length) name so that look-ups need no string of their own.
struct CaseInsensitiveStringLess {
  using is_transparent = void;
  using Name = std::pair<const wchar_t*, size_t>;
  // names hold no NUL, so comparing by length orders as _wcsicmp does; all
  // three forms must order alike
  bool operator()(const std::wstring& a, const std::wstring& b) const {
    return broom::CompareNoCase(a.data(), a.size(), b.data(), b.size()) < 0;
  }
  bool operator()(const std::wstring& a, const Name& b) const {
    return broom::CompareNoCase(a.data(), a.size(), b.first, b.second) < 0;
  }
  bool operator()(const Name& a, const std::wstring& b) const {
    return broom::CompareNoCase(a.first, a.second, b.data(), b.size()) < 0;
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
    // The text the name resolves to through this scope and its enclosing
    // ones; null when it is unknown or hidden. Valid while the entry lives.
    const wchar_t* Find(const wchar_t* name, size_t length) const;
    void Set(const std::wstring& name, const wchar_t* text);
    void Remove(const std::wstring& name);
    CRefPtr<ConfigValueMap> CreateChildScope();

    CRefPtr<ConfigValueMap> m_parentScope;
  };

  // The process-wide scope, built on the first call: environment, shell
  // folders, Downloads and LocalAppDataLow.
  static ConfigValueMap* GetGlobalScope();
  // Names whose values the process-wide scope takes instead of what the
  // system says (a run over another user's profile gives that user's
  // folders); a null value makes the name unknown. Only before the scope
  // is built: false, and nothing changes, once it is.
  static bool OverrideGlobal(const wchar_t* name, const wchar_t* value);
};

// Opens the key of a registry path for reading.
BROOM_API bool OpenRegistryPath(const std::wstring& path, HKEY& key);
// Reads the REG_SZ/REG_EXPAND_SZ value a registry path names (at most 260
// characters); the key's default value without "[name]".
BROOM_API bool ReadRegistryString(const std::wstring& path, std::wstring& out);

