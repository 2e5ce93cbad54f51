#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/XmlReader.h"

using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

std::string Group(const std::string& name, const std::string& desc = "") {
  return "<ConfigItems><group name=\"" + name + "\" desc=\"" + desc + "\"/></ConfigItems>";
}

std::vector<std::wstring> TopNames(IConfig* config) {
  std::vector<std::wstring> names;
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  for (; !it->AtEnd(); it->Next()) names.push_back(it->Current()->GetName());
  return names;
}

struct RecordingHook : ILoadHook {
  void OnLoadComplete() override { ++completed; }
  bool OnFileData(char* data, unsigned long* size, bool reading) override {
    seen.push_back(std::string(data, *size));
    EXPECT_TRUE(reading);
    return !reject;
  }
  bool reject = false;
  int completed = 0;
  std::vector<std::string> seen;
};

struct Localizer : ILocalizeStrings {
  CString Localize(const wchar_t* key, int reserved) override {
    EXPECT_EQ(reserved, 0);
    keys.push_back(key);
    if (wcscmp(key, L"MANUAL_Browsers") == 0) return CString(L"Web browsers");
    if (wcscmp(key, L"MANUAL_self") == 0) return CString(L"[$(self)]");
    return CString(L"?");
  }
  std::vector<std::wstring> keys;
};

TEST(ConfigStore, FolderSearchByExtensionAndHook) {
  TempDir dir;
  WriteFile(dir / L"a.xml", Group("A"));
  WriteFile(dir / L"b.dat", Group("B"));
  WriteFile(dir / L"c.dat2", Group("C"));
  WriteFile(dir / L"d.txt", Group("D"));
  WriteFile(dir / L"more\\e.xml", Group("E"));
  WriteFile(dir / L"more.xml\\f.xml", Group("F"));
  RecordingHook hook;
  CRefPtr<IConfig> config = IConfig::NewConfig();
  EXPECT_TRUE(config->Load(dir.Path().c_str(), &hook, nullptr));
  EXPECT_EQ(TopNames(config), (std::vector<std::wstring>{L"A", L"B", L"C", L"F"}));
  ASSERT_EQ(hook.seen.size(), 1u);  // only the .dat2 file passes the hook
  EXPECT_EQ(hook.seen[0], Group("C"));
  EXPECT_EQ(hook.completed, 1);

  hook.reject = true;
  CRefPtr<IConfig> rejecting = IConfig::NewConfig();
  WriteFile(dir / L"only\\x.da0", Group("X"));
  EXPECT_FALSE(rejecting->Load((dir / L"only").c_str(), &hook, nullptr));
  EXPECT_FALSE(rejecting->Load((dir / L"missing").c_str(), nullptr, nullptr));
  EXPECT_TRUE(TopNames(rejecting).empty());
}

TEST(ConfigStore, HookThatCutsBeforeTheMarkupRaisesInvalidArgument) {
  struct Cutter : ILoadHook {
    void OnLoadComplete() override {}
    bool OnFileData(char*, unsigned long* size, bool) override {
      *size = 3;
      return true;
    }
  } cutter;
  TempDir dir;
  WriteFile(dir / L"x.dat0", "   " + Group("X"));
  CRefPtr<IConfig> config = IConfig::NewConfig();
  try {
    config->Load(dir.Path().c_str(), &cutter, nullptr);
    FAIL() << "no exception";
  } catch (const CAtlException& e) {
    EXPECT_EQ(e.m_hr, E_INVALIDARG);
  }
}

TEST(ConfigStore, FinishingExpandsLocalizesAndSorts) {
  TempDir dir;
  WriteFile(dir / L"a.xml", "<ConfigItems>"
                            "<group name=\"$(Browsers)\" order=\"2\" desc=\"100%% safe\"/>"
                            "<group name=\"win\" order=\"1\" desc=\"%WINDIR%\\Temp\"/>"
                            "<group name=\"cash\" desc=\"$$5 $(abc\"/>"
                            "<group name=\"loop\" desc=\"$(self)\"/></ConfigItems>");
  Localizer localizer;
  CRefPtr<IConfig> config = IConfig::NewConfig();
  ASSERT_TRUE(config->Load(dir.Path().c_str(), nullptr, &localizer));
  EXPECT_EQ(TopNames(config), (std::vector<std::wstring>{L"win", L"Web browsers", L"cash", L"loop"}));
  auto* store = static_cast<CConfigStore*>(config.Get());
  auto it = store->GetRoot().m_children.begin();
  wchar_t windir[MAX_PATH];
  GetEnvironmentVariableW(L"WINDIR", windir, MAX_PATH);
  EXPECT_EQ(std::wstring(it->GetDescription()), std::wstring(windir) + L"\\Temp");
  EXPECT_STREQ((++it)->GetDescription(), L"100% safe");
  EXPECT_STREQ((++it)->GetDescription(), L"$5 $(abc");
  std::wstring looped = (++it)->GetDescription();  // a value that refers to itself ends
  EXPECT_NE(looped.find(L"[["), std::wstring::npos);

  CRefPtr<IConfig> plain = IConfig::NewConfig();
  ASSERT_TRUE(plain->Load(dir.Path().c_str(), nullptr, nullptr));
  EXPECT_EQ(TopNames(plain)[1], L"$(Browsers)");
}

TEST(ConfigStore, LoadsMerge) {
  TempDir one, two;
  WriteFile(one / L"a.xml", "<ConfigItems><group name=\"Internet\"><group name=\"A\"/></group></ConfigItems>");
  WriteFile(two / L"b.xml", "<ConfigItems><group name=\"internet\"><group name=\"B\"/></group></ConfigItems>");
  CRefPtr<IConfig> config = IConfig::NewConfig();
  ASSERT_TRUE(config->Load(one.Path().c_str(), nullptr, nullptr));
  ASSERT_TRUE(config->Load(two.Path().c_str(), nullptr, nullptr));
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  ASSERT_FALSE(it->AtEnd());
  EXPECT_EQ(it->Current()->GetChildCount(), 2);
  EXPECT_FALSE(it->Next());
}

TEST(XmlConfigSettings, GroupsAndDefaults) {
  XmlConfigSettings settings;
  settings.Set(L"x", 9);
  EXPECT_EQ(settings.Get(L"x", 7), 7);
  EXPECT_STREQ(settings.Get(L"x", L"d").GetString(), L"d");
  settings.BeginGroup(L"a");
  settings.BeginGroup(L"b");
  EXPECT_EQ(settings.Group(), L"a/b/");
  EXPECT_EQ(settings.GetPath(L"key"), L"a/b/key");
  settings.EndGroup();
  EXPECT_EQ(settings.Group(), L"a/");
  {
    XmlConfigGroup scope(&settings, L"b");
    EXPECT_EQ(settings.Group(), L"a/b/");
    settings.EndGroup();
    settings.EndGroup();
  }
  EXPECT_EQ(settings.Group(), L"a/");
  settings.EndGroup();
  EXPECT_EQ(settings.Group(), L"");
  XmlConfigGroup none(nullptr, L"x");
  EXPECT_EQ(static_cast<XmlConfigSettings*>(none), nullptr);
}

}  // namespace
