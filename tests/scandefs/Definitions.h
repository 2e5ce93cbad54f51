#pragma once
// Helpers shared by the definition tests: definition files written into a
// fresh folder and read or loaded into a store, tree look-ups, and
// environment variables that are put back when a test ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "common/TestFiles.h"
#include "scan/StdFileScan.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/XmlReader.h"

namespace defstest {

using Names = std::vector<std::wstring>;

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

// A file holding one top-level group.
inline std::string Group(const std::string& name, const std::string& desc = "") {
  return "<ConfigItems><group name=\"" + name + "\" desc=\"" + desc + "\"/></ConfigItems>";
}

inline Names NamesOf(const CRefPtr<TIteratorIface<CScanGroup>>& it) {
  Names names;
  for (; !it->AtEnd(); it->Next()) names.push_back(it->Current()->GetName());
  return names;
}

// The tree below group: "a{b,c{d}},e". A child whose parent link does not
// lead back to group is marked with '!'.
inline std::wstring Tree(const CScanGroup& group) {
  std::wstring out;
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group.GetChildren(it);
  for (; !it->AtEnd(); it->Next()) {
    const CScanGroup& child = *it->Current();
    out += (out.empty() ? L"" : L",") + std::wstring(child.GetName()) + (child.m_parent == &group ? L"" : L"!");
    if (child.HasChildren()) out += L"{" + Tree(child) + L"}";
  }
  return out;
}

// A group's own settings on one line: the order, the texts that are not
// empty (the report whenever it is not null) and the switches that are set.
inline std::wstring Props(const CScanGroup& g) {
  std::wstring out = L"order=" + std::to_wstring(g.GetOrder());
  const std::pair<const wchar_t*, const wchar_t*> texts[] = {
      {L"desc", g.GetDescription()}, {L"tip", g.GetTip()}, {L"icon", g.GetIcon()}, {L"tabIcon", g.GetTabIcon()}};
  for (const auto& text : texts)
    if (*text.second) out += L" " + std::wstring(text.first) + L"=" + text.second;
  if (g.GetReport()) out += L" report=" + std::wstring(g.GetReport());
  const wchar_t* switches[] = {L"scan", L"clean", L"enabled", L"qscan", L"safe"};
  for (int i = 0; i < 5; ++i)
    if (g.m_boolProps[i] != abNotSet) out += L" " + std::wstring(switches[i]) + (g.m_boolProps[i] ? L"=y" : L"=n");
  return out;
}

// The first child of group named name (case-insensitive), or null.
inline CScanGroup* Child(const CScanGroup& group, const wchar_t* name) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group.GetChildren(it);
  for (; !it->AtEnd(); it->Next())
    if (_wcsicmp(it->Current()->GetName(), name) == 0) return it->Current();
  return nullptr;
}

// The operations of a group, one text each: "file" or "trunc" with the
// paths of a built-in file scan (":a|b"), or "other".
inline Names Ops(const CScanGroup& group) {
  Names out;
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> it;
  for (group.GetScanOps(it); !it->AtEnd(); it->Next()) {
    auto* scan = dynamic_cast<CStdFileScan*>(it->Current()->Get());
    out.push_back(!scan ? L"other" : dynamic_cast<CStdFileScan_trunc*>(scan) ? L"trunc" : L"file");
    const wchar_t* separator = L":";
    if (!scan) continue;
    for (const auto& path : scan->GetPaths()) out.back() += std::exchange(separator, L"|") + std::wstring(path.c_str());
  }
  return out;
}

// The code of the CAtlException f throws; S_OK when it throws none.
template <class F>
HRESULT AtlError(F f) {
  try {
    f();
  } catch (const CAtlException& e) {
    return e.m_hr;
  }
  return S_OK;
}

// A host's hook: records the bytes of each file and the order of the calls;
// rejects every file when reject is set, and otherwise "decrypts" by turning
// each '#' into 'Z' and dropping the last drop bytes.
struct RecordingHook : ILoadHook {
  void OnLoadComplete() override { calls += "done,"; }
  bool OnFileData(char* data, unsigned long* size, bool reading) override {
    EXPECT_TRUE(reading);
    seen.emplace_back(data, *size);
    calls += "data,";
    std::replace(data, data + (reject ? 0 : *size), '#', 'Z');
    *size -= reject ? 0 : drop;
    return !reject;
  }
  bool reject = false;
  unsigned long drop = 0;
  std::string calls;
  std::vector<std::string> seen;
};

// Sets a variable in the process environment and in the runtime's copy
// (which checks read with _wgetenv) and restores both when it goes.
class EnvVar {
 public:
  EnvVar(const wchar_t* name, const wchar_t* value) : m_name(name) {
    DWORD n = GetEnvironmentVariableW(name, nullptr, 0);
    if (n > 0) {
      m_old.resize(n);
      m_old.resize(GetEnvironmentVariableW(name, &m_old[0], n));
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

// A store and a folder. Read writes one more file into the folder and reads
// it into the store's root with a reader of that store; Load loads a
// subfolder through the store.
class Definitions : public testing::Test {
 protected:
  bool Read(const std::string& bytes, ILoadHook* hook = nullptr) {
    std::wstring path = broomtest::WriteFile(m_dir / (L"def" + std::to_wstring(++m_files) + L".xml"), bytes);
    XmlReader reader(m_store);
    return reader.ReadFile(CString(path.c_str()), m_store->GetRoot(), hook);
  }
  void Write(const std::wstring& path, const std::string& bytes) { broomtest::WriteFile(m_dir / path, bytes); }
  bool Load(const std::wstring& folder, ILoadHook* hook = nullptr, ILocalizeStrings* localizer = nullptr) {
    return m_store->Load((m_dir / folder).c_str(), hook, localizer);
  }
  // The top-level groups as the store hands them out.
  Names Groups() {
    CRefPtr<TIteratorIface<CScanGroup>> it;
    m_store->GetGroups(it);
    return NamesOf(it);
  }
  std::wstring Description(const wchar_t* name) {
    CScanGroup* group = Child(Root(), name);
    return group ? group->GetDescription() : L"<missing>";
  }
  CScanGroup_imp& Root() { return m_store->GetRoot(); }
  // The notes the store took since the last call: "line: reason" each.
  Names Notes() {
    Names out;
    for (const SLoadNote& note : m_store->TakeLoadNotes())
      out.push_back(std::to_wstring(note.line) + L": " + note.reason.str());
    return out;
  }

  broomtest::TempDir m_dir;
  int m_files = 0;
  CRefPtr<CConfigStore> m_store{static_cast<CConfigStore*>(IConfig::NewConfig().Get())};
};

}  // namespace defstest
