#pragma once
// Registry paths as definitions, the whitelist and the items write them:
// HIVE\subkey for a key and HIVE\subkey|Value for one value of it. Hives go
// by their long or short names; the normal form uses the short one. Names
// of keys compare as definition names do (core/Names.h).
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"

class BROOM_API CRegistryPath {
 public:
  CRegistryPath() = default;
  CRegistryPath(HKEY hive, std::wstring subkey) : m_hive(hive), m_subkey(std::move(subkey)) {}

  // HIVE\subkey or HIVE\subkey|Value (split at the first '|'; nothing after
  // it names the default value). Blanks and line breaks around the whole
  // text are dropped, so are empty components. False for an unknown hive.
  bool Parse(const wchar_t* text, size_t length);
  bool Parse(const std::wstring& text) { return Parse(text.c_str(), text.size()); }
  // True when text starts with a hive name followed by a separator, '|' or its end.
  static bool StartsWithHive(const wchar_t* text);

  // The predefined key a hive name stands for, in its long or short form
  // (HKEY_CURRENT_USER or HKCU, HKLM, HKU, HKCR; any case); null when unknown.
  static HKEY HiveFromName(const wchar_t* name, size_t length);
  // "HKCU", "HKLM", "HKU", "HKCR", and the long names of those four; null for other keys.
  static const wchar_t* HiveShortName(HKEY hive);
  static const wchar_t* HiveLongName(HKEY hive);
  // Splits HIVE\subkey without a length limit or value part; the hive alone
  // gives an empty subkey, and empty components (doubled or trailing
  // separators) are dropped. False for an unknown hive.
  static bool SplitKey(const wchar_t* path, size_t length, HKEY& hive, std::wstring& subkey);

  HKEY Hive() const { return m_hive; }
  const std::wstring& Subkey() const { return m_subkey; }
  bool HasValue() const { return m_hasValue; }
  const std::wstring& ValueName() const { return m_valueName; }
  bool IsHiveRoot() const { return m_subkey.empty(); }
  // The subkey's names, top first, empty components dropped.
  static std::vector<std::wstring> Components(const std::wstring& subkey);

  // Value parts aside: the same key as other; this key is outer or lies
  // below it; this key lies below outer, with rest (when given) the subkey
  // path from outer down to it.
  bool SameKey(const CRegistryPath& other) const;
  bool IsAtOrBelow(const CRegistryPath& outer) const;
  bool IsBelow(const CRegistryPath& outer, std::wstring* rest = nullptr) const;

  // HKCU\Software\Vendor, with the value as HKCU\Software\Vendor|Name.
  std::wstring Text() const;
  std::wstring KeyText() const;
  // The form the whitelist holds: the key path, with a value as one more
  // component (the default value is its key).
  std::wstring WhiteListText() const;

  void SetValue(const std::wstring& name) {
    m_hasValue = true;
    m_valueName = name;
  }

  // The full kernel name of an open key (\REGISTRY\MACHINE\SOFTWARE\...),
  // empty when the system does not tell it.
  static std::wstring KernelName(HKEY key);
  // The path a kernel name stands for, with the most specific hive: the
  // current user's keys under HKCU (their classes under
  // HKCU\Software\Classes), other users' under HKU, the machine's under HKLM.
  // False for names outside those.
  static bool FromKernelName(const std::wstring& kernelName, CRegistryPath& out);

 private:
  HKEY m_hive = nullptr;
  std::wstring m_subkey;
  std::wstring m_valueName;
  bool m_hasValue = false;
};

