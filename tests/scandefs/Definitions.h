#pragma once
// Helpers shared by the definition tests: definition files written into a
// fresh folder and read into a store's tree, tree look-ups, and environment
// variables that are put back when a test ends.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "scan/StdFileScan.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/XmlReader.h"

namespace defstest {

// Variables every test program run sees in the process-wide symbol scope,
// which is filled once, from the environment of the first file read. They
// are set before the first test and put back after the last.
inline constexpr const wchar_t* kAppVar = L"BROOMTEST_APP";
inline constexpr const wchar_t* kAppValue = L"C:\\App";
inline constexpr const wchar_t* kTmpVar = L"BROOMTEST_TMP";
inline constexpr const wchar_t* kTmpValue = L"C:\\Tmp";
// Defined in the environment and also a shell-folder symbol: the folder wins.
inline constexpr const wchar_t* kShadowedVar = L"WINDOWS";
inline constexpr const wchar_t* kShadowedValue = L"C:\\NotTheWindowsFolder";

// A definition file with the UTF-8 declaration and a "ConfigItems" root.
inline std::string Xml(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<ConfigItems>" + body + "</ConfigItems>";
}

// The first child of group named name (case-insensitive), or null.
inline CScanGroup* Child(const CScanGroup& group, const wchar_t* name) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group.GetChildren(it);
  for (; !it->AtEnd(); it->Next())
    if (_wcsicmp(it->Current()->GetName(), name) == 0) return it->Current();
  return nullptr;
}

inline std::vector<std::wstring> ChildNames(const CScanGroup& group) {
  std::vector<std::wstring> names;
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group.GetChildren(it);
  for (; !it->AtEnd(); it->Next()) names.push_back(it->Current()->GetName());
  return names;
}

// The built-in file scans of a group, null for operations of other kinds.
inline std::vector<CStdFileScan*> Operations(const CScanGroup& group) {
  std::vector<CStdFileScan*> out;
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> it;
  group.GetScanOps(it);
  for (; !it->AtEnd(); it->Next()) out.push_back(dynamic_cast<CStdFileScan*>(it->Current()->Get()));
  return out;
}

// Sets a variable in the process environment and in the runtime's copy
// (which checks read with _wgetenv) and restores both when it goes.
class EnvVar {
 public:
  EnvVar(const wchar_t* name, const wchar_t* value) : m_name(name) {
    DWORD n = GetEnvironmentVariableW(name, nullptr, 0);
    if (n > 0) {
      m_old.resize(n);
      n = GetEnvironmentVariableW(name, &m_old[0], n);
      m_old.resize(n);
      m_had = true;
    }
    Apply(value);
  }
  ~EnvVar() { Apply(m_had ? m_old.c_str() : nullptr); }
  EnvVar(const EnvVar&) = delete;
  EnvVar& operator=(const EnvVar&) = delete;

 private:
  void Apply(const wchar_t* value) {
    SetEnvironmentVariableW(m_name.c_str(), value);
    _wputenv_s(m_name.c_str(), value ? value : L"");
  }

  std::wstring m_name, m_old;
  bool m_had = false;
};

// A store and a folder; Read writes one more file and reads it into the
// store's root with a reader of that store.
class Definitions : public testing::Test {
 protected:
  bool Read(const std::string& bytes, ILoadHook* hook = nullptr) {
    std::wstring path = broomtest::WriteFile(m_dir / (L"def" + std::to_wstring(++m_files) + L".xml"), bytes);
    XmlReader reader(m_store);
    return reader.ReadFile(CString(path.c_str()), m_store->GetRoot(), hook);
  }
  CScanGroup_imp& Root() { return m_store->GetRoot(); }

  broomtest::TempDir m_dir;
  int m_files = 0;
  CRefPtr<CConfigStore> m_store{static_cast<CConfigStore*>(IConfig::NewConfig().Get())};
};

}  // namespace defstest
