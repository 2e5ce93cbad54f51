#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/XmlReader.h"
#include "tests/scandefs/Definitions.h"

using broomtest::TempDir;
using broomtest::WriteFile;
using defstest::EnvVar;

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


// Answers from a table; counts the calls.
struct TableLocalizer : ILocalizeStrings {
  CString Localize(const wchar_t* key, int) override {
    ++calls;
    for (const auto& entry : table)
      if (entry.first == key) return CString(entry.second.c_str());
    return CString(L"?");
  }
  std::vector<std::pair<std::wstring, std::wstring>> table;
  int calls = 0;
};

std::wstring FirstDescription(IConfig* config) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  return it->AtEnd() ? L"" : it->Current()->GetDescription();
}

TEST(ConfigStore, LocalisationRescansSubstitutedText) {
  TempDir dir;
  WriteFile(dir / L"a.xml", Group("G", "$(outer) and $(outer), $() $(plain"));
  TableLocalizer localizer;
  localizer.table = {{L"MANUAL_outer", L"<$(inner)>"}, {L"MANUAL_inner", L"in"}};
  CRefPtr<IConfig> config = IConfig::NewConfig();
  ASSERT_TRUE(config->Load(dir.Path().c_str(), nullptr, &localizer));
  // every occurrence goes at once; the reference inside the value is expanded
  // in turn; an empty name ends the step
  EXPECT_EQ(FirstDescription(config), L"<in> and <in>, $() $(plain");
  EXPECT_EQ(localizer.calls, 2);
}

TEST(ConfigStore, EnvironmentExpansionWithin511Characters) {
  // The symbol scope of the reader is filled before these variables exist,
  // so their references reach the store unexpanded. The reader turns "%%"
  // into "%", so "%%%%" reaches the store as "%%".
  CScopedMap::GetGlobalScope();
  TempDir dir;
  EnvVar fits(L"BROOMTEST_FITS", std::wstring(500, L'f').c_str());
  EnvVar big(L"BROOMTEST_BIG", std::wstring(600, L'b').c_str());
  WriteFile(dir / L"a.xml", "<ConfigItems><group name=\"A\" order=\"1\" desc=\"%BROOMTEST_FITS%1234567890\"/>"
                            "<group name=\"B\" order=\"2\" desc=\"%BROOMTEST_FITS%12345678901\"/>"
                            "<group name=\"C\" order=\"3\" desc=\"%BROOMTEST_BIG% 100%%%%\"/>"
                            "<group name=\"D\" order=\"4\" desc=\"%NO_SUCH_BROOM_VAR% 100%%%%\"/></ConfigItems>");
  CRefPtr<IConfig> config = IConfig::NewConfig();
  ASSERT_TRUE(config->Load(dir.Path().c_str(), nullptr, nullptr));
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  EXPECT_EQ(std::wstring(it->Current()->GetDescription()), std::wstring(500, L'f') + L"1234567890");  // 510
  it->Next();
  // 511 characters and the terminator do not fit: left as written
  EXPECT_STREQ(it->Current()->GetDescription(), L"%BROOMTEST_FITS%12345678901");
  it->Next();
  EXPECT_STREQ(it->Current()->GetDescription(), L"%BROOMTEST_BIG% 100%%");
  it->Next();
  // an unknown variable stays, and "%%" becomes "%"
  EXPECT_STREQ(it->Current()->GetDescription(), L"%NO_SUCH_BROOM_VAR% 100%");
}

TEST(ConfigStore, EveryFinishedLoadExpandsTheWholeTreeAgain) {
  TempDir one, two;
  WriteFile(one / L"a.xml", Group("Cash", "$$$$"));
  WriteFile(two / L"b.xml", Group("Other"));
  CRefPtr<IConfig> config = IConfig::NewConfig();
  ASSERT_TRUE(config->Load(one.Path().c_str(), nullptr, nullptr));
  EXPECT_EQ(FirstDescription(config), L"$$");
  ASSERT_TRUE(config->Load(two.Path().c_str(), nullptr, nullptr));
  EXPECT_EQ(FirstDescription(config), L"$");
  EXPECT_FALSE(config->Load((two / L"missing").c_str(), nullptr, nullptr));
  EXPECT_EQ(TopNames(config), (std::vector<std::wstring>{L"Cash", L"Other"}));  // kept
}

TEST(ConfigStore, FolderTextLosesLeadingDotsAndBackslashes) {
  TempDir dir;
  WriteFile(dir / L"defs\\a.xml", Group("Relative"));
  wchar_t saved[MAX_PATH];
  ASSERT_GT(GetCurrentDirectoryW(MAX_PATH, saved), 0u);
  ASSERT_TRUE(SetCurrentDirectoryW(dir.Path().c_str()));
  CRefPtr<IConfig> dotted = IConfig::NewConfig();
  CRefPtr<IConfig> plain = IConfig::NewConfig();
  bool dottedLoaded = dotted->Load(L".\\defs", nullptr, nullptr);
  bool plainLoaded = plain->Load(L"\\..\\defs", nullptr, nullptr);  // searched as "defs" too
  SetCurrentDirectoryW(saved);
  EXPECT_TRUE(dottedLoaded);
  EXPECT_TRUE(plainLoaded);
  EXPECT_EQ(TopNames(dotted), (std::vector<std::wstring>{L"Relative"}));
}

TEST(ConfigStore, AllHookedExtensionsAndNestedFolders) {
  TempDir dir;
  WriteFile(dir / L"a.da0", Group("A0"));
  WriteFile(dir / L"b.dat0", Group("B0"));
  WriteFile(dir / L"c.dat2", Group("C2"));
  WriteFile(dir / L"x.dat", Group("Dat"));
  WriteFile(dir / L"deep.dat0\\inner.dat0\\d.dat0", Group("Deep"));
  WriteFile(dir / L"deep.dat0\\skipped\\e.dat0", Group("Skipped"));
  RecordingHook hook;
  CRefPtr<IConfig> config = IConfig::NewConfig();
  ASSERT_TRUE(config->Load(dir.Path().c_str(), &hook, nullptr));
  EXPECT_EQ(TopNames(config), (std::vector<std::wstring>{L"A0", L"B0", L"C2", L"Dat", L"Deep"}));
  EXPECT_EQ(hook.seen.size(), 4u);  // not the .dat file
  EXPECT_EQ(hook.completed, 4);
}

TEST(ConfigStore, ExceptionLeavesTheTreeFinishedAndTheStoreUsable) {
  TempDir bad, good;
  WriteFile(bad / L"a.xml", "<ConfigItems><group name=\"z\" desc=\"$$x\"/><group name=\"a\" desc=\"$(Browsers)\">"
                            "<clean kind=\"file\">C:\\" + std::string(300, 'x') + "</clean></group></ConfigItems>");
  WriteFile(good / L"b.xml", Group("m", "$(Browsers)"));
  Localizer localizer;
  CRefPtr<IConfig> config = IConfig::NewConfig();
  EXPECT_THROW(config->Load(bad.Path().c_str(), nullptr, &localizer), BufferOverflowException);
  // expanded and sorted on the way out
  EXPECT_EQ(TopNames(config), (std::vector<std::wstring>{L"a", L"z"}));
  auto* store = static_cast<CConfigStore*>(config.Get());
  EXPECT_STREQ(store->GetRoot().m_children.front().GetDescription(), L"Web browsers");
  EXPECT_STREQ(store->GetRoot().m_children.back().GetDescription(), L"$x");
  // the next load is an outermost one again, without the old localizer
  ASSERT_TRUE(config->Load(good.Path().c_str(), nullptr, nullptr));
  EXPECT_EQ(TopNames(config), (std::vector<std::wstring>{L"a", L"m", L"z"}));
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  it->Next();
  EXPECT_STREQ(it->Current()->GetDescription(), L"$(Browsers)");
}

class CountedFactory : public IScanOperationFactory {
 public:
  CRefPtr<IScanOperation> CreateOperation(const wchar_t*, xml::NodePtr) override { return nullptr; }
  virtual ~CountedFactory() { ++*m_destroyed; }
  int* m_destroyed = nullptr;
};

TEST(ConfigStore, FactoriesAreHeldUntilTheStoreGoes) {
  int destroyed = 0;
  auto* factory = new IUnknownNoQIImp<CountedFactory>();
  factory->m_destroyed = &destroyed;
  CRefPtr<IScanOperationFactory> mine(factory);
  CRefPtr<IConfig> config = IConfig::NewConfig();
  config->AddFactory(factory);
  config->AddFactory(factory);
  EXPECT_EQ(factory->AddRef(), 4u);  // mine, two registrations, this one
  factory->Release();
  mine.Reset();
  EXPECT_EQ(destroyed, 0);
  config.Reset();
  EXPECT_EQ(destroyed, 1);
}

TEST(ConfigStore, GetGroupsReplacesTheIteratorItIsGiven) {
  TempDir dir;
  WriteFile(dir / L"a.xml", Group("Only"));
  CRefPtr<IConfig> config = IConfig::NewConfig();
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  EXPECT_TRUE(it->AtEnd());
  ASSERT_TRUE(config->Load(dir.Path().c_str(), nullptr, nullptr));
  config->GetGroups(it);
  ASSERT_FALSE(it->AtEnd());
  EXPECT_STREQ(it->Current()->GetName(), L"Only");
}

}  // namespace
