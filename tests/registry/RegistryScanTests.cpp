#include <gtest/gtest.h>

#include <pugixml.hpp>

#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <iterator>
#include <set>

#include "RegTestTree.h"
#include "registry/RegistrySafety.h"
#include "registry/RegistryScanFactory.h"
#include "scandefs/ConfigValues.h"

using namespace regtest;

namespace {

// App: a, b; App\Recent: r; App\Settings: s; App\Settings\Window: w
class RegistryScanTest : public testing::TestWithParam<HKEY> {
 protected:
  void SetUp() override {
    t.Set(L"App", L"a", REG_SZ, Text(L"x"));
    t.Set(L"App", L"b", REG_BINARY, {1, 2, 3});
    t.Set(L"App\\Recent", L"r", REG_DWORD, {4, 0, 0, 0});
    t.Set(L"App\\Settings", L"s", REG_SZ, Text(L"yy"));
    t.Set(L"App\\Settings\\Window", L"w", REG_BINARY, {9, 9});
  }
  // Items as paths relative to the tree (upper case), with their sizes.
  std::map<std::wstring, unsigned __int64> Found(const std::vector<CRefPtr<CCleanableRegistry>>& items) {
    std::map<std::wstring, unsigned __int64> found;
    std::wstring prefix = Upper(t.Path(L""));
    for (const auto& item : items) {
      std::wstring text = Upper(item->GetPath().Text());
      EXPECT_EQ(0u, text.find(prefix)) << broomtest::Narrow(text);
      found[text.substr(prefix.size() + 1)] = item->GetSize();
    }
    return found;
  }
  Tree t{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Hives, RegistryScanTest, testing::Values(HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE), HiveName);

}  // namespace

TEST_P(RegistryScanTest, ReportsKeysValuesAndWhatExclusionsAndTheWhitelistLeave) {
  using Sizes = std::map<std::wstring, unsigned __int64>;
  struct { std::vector<std::wstring> paths, keeps, protect; Sizes expected; } cases[] = {
      {{L"App"}, {}, {}, {{L"APP", 19}}},
      {{L"App|a"}, {}, {}, {{L"APP|A", 4}}},
      {{L"Nope", L"App|nope", L"App\\Recent|"}, {}, {}, {}},
      {{L"App", L"app\\Recent", L"APP|a", L"App"}, {}, {}, {{L"APP", 19}}},  // never twice, nothing below
      {{L"App"}, {L"Settings\\Window"}, {},
       {{L"APP|A", 4}, {L"APP|B", 3}, {L"APP\\RECENT", 4}, {L"APP\\SETTINGS|S", 6}}},
      {{L"App"}, {L"|a", L" Recent "}, {}, {{L"APP|B", 3}, {L"APP\\SETTINGS", 8}}},
      {{L"App"}, {t.Path(L"App\\Settings|s")}, {},
       {{L"APP|A", 4}, {L"APP|B", 3}, {L"APP\\RECENT", 4}, {L"APP\\SETTINGS\\WINDOW", 2}}},
      {{L"App"}, {}, {L"App\\Settings"}, {{L"APP|A", 4}, {L"APP|B", 3}, {L"APP\\RECENT", 4}}},
      {{L"App"}, {}, {L"App\\b"}, {{L"APP|A", 4}, {L"APP\\RECENT", 4}, {L"APP\\SETTINGS", 8}}},
      {{L"App\\Recent", L"App|a"}, {}, {L"App"}, {}},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    std::vector<std::wstring> paths;
    for (const auto& p : cases[i].paths) paths.push_back(t.Path(p));
    CWhiteListTree whiteList;
    for (const auto& p : cases[i].protect) whiteList.SafeGuardPath(t.Path(p).c_str(), 0x1);
    EXPECT_EQ(cases[i].expected, Found(Scan(paths, cases[i].keeps, &whiteList))) << "case " << i;
  }
  EXPECT_TRUE(Scan({L"HKCU\\Software", L"HKLM\\SOFTWARE\\Microsoft", L"HKCU|x"}).empty());
}

TEST_P(RegistryScanTest, CleaningDeletesItemsAndKeepsExclusionsWithTheirAncestors) {
  for (const auto& item : Scan({t.Path(L"App")}, {L"Settings\\Window"})) EXPECT_EQ(0u, item->Clean(nullptr, nullptr));
  Picture expected = {{L"", {~0u, {}}}, {L"App", {~0u, {}}}, {L"App\\Settings", {~0u, {}}},
                      {L"App\\Settings\\Window", {~0u, {}}}, {L"App\\Settings\\Window|w", {REG_BINARY, {9, 9}}}};
  EXPECT_EQ(expected, t.Read());

  t.Set(L"App", L"", REG_SZ, Text(L"d"));
  auto key = Scan({t.Path(L"App")}), unnamed = Scan({t.Path(L"App|")});
  ASSERT_TRUE(key.size() == 1 && unnamed.size() == 1);
  EXPECT_EQ(L"App", key[0]->GetName());
  EXPECT_EQ(Upper(t.Path(L"")), Upper(key[0]->GetDetails().GetString()));
  EXPECT_EQ(L"(Default)", unnamed[0]->GetName());
  EXPECT_EQ(Upper(t.Path(L"App")), Upper(unnamed[0]->GetDetails().GetString()));
  EXPECT_EQ(Upper(L"Registry: " + t.Path(L"App|") + L"\t\tSize: 4\r\n"), Upper(unnamed[0]->GetLogEntry().GetString()));
  EXPECT_EQ(0u, unnamed[0]->Clean(nullptr, nullptr));
  EXPECT_EQ(1u, t.Read().count(L"App\\Settings\\Window|w"));
  EXPECT_EQ(0u, key[0]->Clean(nullptr, nullptr));
  EXPECT_FALSE(key[0]->Exists());
  EXPECT_EQ(0u, key[0]->Clean(nullptr, nullptr));  // already gone counts as done
  EXPECT_EQ(0u, unnamed[0]->Clean(nullptr, nullptr));
  EXPECT_EQ(1u, t.Read().size());
}

TEST_P(RegistryScanTest, KeyWithoutDeleteRightsIsLeftWholeWithTheError) {
  for (const wchar_t* locked : {L"App\\Settings\\Window", L"App"}) {
    if (!t.Restrict(locked, KEY_READ | WRITE_DAC)) GTEST_SKIP() << "the registry does not enforce key rights";
    Picture before = t.Read();
    auto items = Scan({t.Path(L"App")});
    ASSERT_EQ(1u, items.size());
    EXPECT_EQ(0x80520005u, items[0]->Clean(nullptr, nullptr)) << broomtest::Narrow(locked);
    EXPECT_EQ(before, t.Read());
  }
}

TEST_P(RegistryScanTest, BothViewsAreVisitedWhereTheyDiffer) {
  t.Set(L"View", L"v64", REG_DWORD, {6, 4, 0, 0}, KEY_WOW64_64KEY);
  t.Set(L"View", L"v32", REG_DWORD, {3, 2, 0, 0}, KEY_WOW64_32KEY);
  t.Set(L"Only32", L"o", REG_DWORD, {1, 0, 0, 0}, KEY_WOW64_32KEY);
  bool split = t.Read(KEY_WOW64_64KEY) != t.Read(KEY_WOW64_32KEY);  // user keys are shared by both views

  std::multiset<std::wstring> names;
  for (const auto& item : Scan({t.Path(L"View"), t.Path(L"Only32")})) {
    names.insert(Upper(item->GetPath().Text()));
    EXPECT_EQ(0u, item->Clean(nullptr, nullptr));
  }
  std::wstring wow = Upper(t.Path(L""));  // where the 32-bit view keeps the machine's keys
  if (split) wow.replace(wow.find(L"\\SOFTWARE\\") + 10, 0, L"WOW6432NODE\\");
  std::multiset<std::wstring> expected = {Upper(t.Path(L"View")), wow + L"\\ONLY32"};
  if (split) expected.insert(wow + L"\\VIEW");
  EXPECT_EQ(expected, names);
  for (REGSAM view : {KEY_WOW64_64KEY, KEY_WOW64_32KEY})
    EXPECT_EQ(0u, t.Read(view).count(L"View") + t.Read(view).count(L"Only32"));
}

TEST(RegistryScanFactory, BuildsRegOperationsOnlyFromValidDefinitions) {
  Tree t;
  struct { const wchar_t* kind; std::wstring text; const wchar_t* keep; bool built; } cases[] = {
      {L"reg", t.Path(L"A"), nullptr, true},
      {L"REGISTRY", t.Path(L"A|v"), nullptr, true},
      {L"reg", L"\n    " + t.Path(L"A") + L"\n  ", L"B; C\\D ;|v;", true},
      {L"file", t.Path(L"A"), nullptr, false},
      {L"reg", L"Software\\A", nullptr, false},
      {L"reg", t.Path(L"A"), L"HKLM\\Elsewhere", false},  // a keep outside the key
      {L"reg", t.Path(L"A|v"), L"B", false},
  };
  CRefPtr<IScanOperationFactory> factory = CRegistryScanFactory::Create();
  for (const auto& c : cases) {
    pugi::xml_document doc;
    pugi::xml_node clean = doc.append_child(L"clean");
    clean.append_attribute(L"kind") = c.kind;
    if (c.keep) clean.append_attribute(L"keep") = c.keep;
    clean.append_child(pugi::node_pcdata).set_value(c.text.c_str());
    CRefPtr<IScanOperation> op = factory->CreateOperation(c.kind, xml::NodePtr(clean));
    EXPECT_EQ(c.built, op.Get() != nullptr) << broomtest::Narrow(c.text);
  }
}

TEST(RegistryScanFactory, DefaultDefinitionsOfferRegistryListsSwitchedOffAndDescribed) {
  const char* source = getenv("BROOM_SOURCE_DIR");
  if (!source) GTEST_SKIP() << "BROOM_SOURCE_DIR is set by ctest";
  std::wstring defs = L"Z:" + std::wstring(source, source + strlen(source)) + L"/defs";
  std::replace(defs.begin(), defs.end(), L'/', L'\\');
  CRefPtr<IConfig> config = IConfig::NewConfig();
  config->AddFactory(CRegistryScanFactory::Create());
  ASSERT_TRUE(config->Load(defs.c_str(), nullptr, nullptr));
  int operations = 0;
  CRefPtr<TIteratorIface<CScanGroup>> top, items;
  for (config->GetGroups(top); top && !top->AtEnd(); top->Next())
    for (top->Current()->GetChildren(items); items && !items->AtEnd(); items->Next()) {
      CScanGroup* item = items->Current();
      bool registry = false, anyKey = false;
      CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
      for (item->GetScanOps(ops); ops && !ops->AtEnd(); ops->Next()) {
        auto* scan = dynamic_cast<CRegistryScan*>(ops->Current()->Get());
        for (size_t i = 0; scan && i < scan->GetPaths().size(); ++i) {
          EXPECT_FALSE(CRegistrySafety::IsRefusedKey(scan->GetPaths()[i])) << broomtest::Narrow(item->GetName());
          HKEY key = nullptr;
          if (OpenRegistryPath(scan->GetPaths()[i].KeyText(), key)) anyKey = (RegCloseKey(key), true);
        }
        operations += scan != nullptr;
        registry = registry || scan;
      }
      if (!registry) continue;
      EXPECT_EQ(abFalse, item->IsDefaultScan()) << broomtest::Narrow(item->GetName());
      EXPECT_GT(wcslen(item->GetDescription()), 20u);
      EXPECT_TRUE(anyKey || item->IsEnabled() == abFalse) << broomtest::Narrow(item->GetName());
    }
  EXPECT_EQ(6, operations);
}
