#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "common/TestRegistry.h"
#include "scan/StdFileScan.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/XmlReader.h"

using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

std::string Xml(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<ConfigItems>" + body + "</ConfigItems>";
}

CScanGroup* Child(const CScanGroup& group, const wchar_t* name) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group.GetChildren(it);
  for (; !it->AtEnd(); it->Next())
    if (_wcsicmp(it->Current()->GetName(), name) == 0) return it->Current();
  return nullptr;
}

std::vector<CStdFileScan*> Operations(const CScanGroup& group) {
  std::vector<CStdFileScan*> out;
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> it;
  group.GetScanOps(it);
  for (; !it->AtEnd(); it->Next()) out.push_back(dynamic_cast<CStdFileScan*>(it->Current()->Get()));
  return out;
}

// Restores an environment variable when the test ends.
class EnvVar {
 public:
  EnvVar(const wchar_t* name, const wchar_t* value) : m_name(name) {
    wchar_t old[1024];
    DWORD n = GetEnvironmentVariableW(name, old, 1024);
    m_had = n > 0 && n < 1024;
    if (m_had) m_old = old;
    SetEnvironmentVariableW(name, value);
    _wputenv_s(name, value ? value : L"");
  }
  ~EnvVar() {
    SetEnvironmentVariableW(m_name.c_str(), m_had ? m_old.c_str() : nullptr);
    _wputenv_s(m_name.c_str(), m_had ? m_old.c_str() : L"");
  }

 private:
  std::wstring m_name, m_old;
  bool m_had = false;
};

// The global symbol scope is taken from the environment once, when the
// first definition file of the process is read: the variables the tests use
// are set before any test runs.
const bool g_environmentSet = [] {
  SetEnvironmentVariableW(L"BROOMTEST_APP", L"C:\\App");
  SetEnvironmentVariableW(L"BROOMTEST_TMP", L"C:\\Tmp");
  return true;
}();

class Definitions : public testing::Test {
 protected:
  // Reads one file into the store's root; returns ReadFile's answer.
  bool Read(const std::string& bytes) {
    std::wstring path = WriteFile(m_dir / (L"def" + std::to_wstring(++m_files) + L".xml"), bytes);
    XmlReader reader(m_store);
    return reader.ReadFile(CString(path.c_str()), m_store->GetRoot(), nullptr);
  }

  TempDir m_dir;
  int m_files = 0;
  CRefPtr<CConfigStore> m_store{static_cast<CConfigStore*>(IConfig::NewConfig().Get())};
};

TEST_F(Definitions, ExampleReadsIntoTheTreeItDescribes) {
  ASSERT_TRUE(Read(Xml(R"(
    <value name="CACHE">Cache2</value>
    <group name="Internet" order="20" desc="Browsers and plug-ins" scan="yes" clean="yes">
      <item name="Browser cache" desc="Cached web pages" safe="true" qscan="on">
        <checks><check test="exists" data="file" path="%BROOMTEST_APP%\Browser"/></checks>
        <cleaning><clean kind="file">%BROOMTEST_APP%\Browser\%CACHE%</clean></cleaning>
      </item>
    </group>
    <item name="Thumbnails" group="System/Explorer" order="5" desc="Thumbnail cache">
      <clean kind="trunc" system="1">%BROOMTEST_APP%\Explorer</clean>
    </item>)")));
  CScanGroup_imp& root = m_store->GetRoot();
  ASSERT_EQ(root.GetChildCount(), 2);
  CScanGroup* internet = Child(root, L"Internet");
  ASSERT_NE(internet, nullptr);
  EXPECT_EQ(internet->GetOrder(), 20);
  EXPECT_STREQ(internet->GetDescription(), L"Browsers and plug-ins");
  CScanGroup* cache = Child(*internet, L"Browser cache");
  ASSERT_NE(cache, nullptr);
  EXPECT_EQ(cache->IsSafe(), abTrue);
  EXPECT_EQ(cache->IsDefaultScan(), abTrue);  // inherited
  EXPECT_EQ(cache->IsEnabled(), abFalse);     // C:\App\Browser does not exist
  auto ops = Operations(*cache);
  ASSERT_EQ(ops.size(), 1u);
  ASSERT_NE(ops[0], nullptr);
  EXPECT_STREQ(ops[0]->GetPaths().front().c_str(), L"C:\\App\\Browser\\Cache2");

  CScanGroup* thumbs = Child(*Child(*Child(root, L"System"), L"Explorer"), L"Thumbnails");
  ASSERT_NE(thumbs, nullptr);
  auto truncOps = Operations(*thumbs);
  ASSERT_EQ(truncOps.size(), 1u);
  EXPECT_NE(dynamic_cast<CStdFileScan_trunc*>(truncOps[0]), nullptr);
  EXPECT_STREQ(truncOps[0]->GetPaths().front().c_str(), L"C:\\App\\Explorer");
}

TEST_F(Definitions, BadFilesAreRejectedAndLeaveTheTreeAlone) {
  ASSERT_TRUE(Read(Xml("<group name=\"Kept\"/>")));
  EXPECT_FALSE(Read(""));
  EXPECT_FALSE(Read("<ConfigItems><group name=\"x\">"));  // does not parse
  EXPECT_FALSE(Read("<Config><group name=\"Other\"/></Config>"));
  std::string utf16;
  for (char c : std::string("<ConfigItems><group name=\"U\"/></ConfigItems>")) utf16 += std::string{c, '\0'};
  EXPECT_FALSE(Read("\xFF\xFE" + utf16));
  EXPECT_FALSE(Read(std::string("<?xml version=\"1.0\"?><!-- c --><Config/>")));
  try {
    Read("no markup at all");
    FAIL() << "no exception";
  } catch (const CAtlException& e) {
    EXPECT_EQ(e.m_hr, E_INVALIDARG);
  }
  XmlReader reader(m_store);
  EXPECT_FALSE(reader.ReadFile(CString((m_dir / L"missing.xml").c_str()), m_store->GetRoot(), nullptr));
  EXPECT_EQ(m_store->GetRoot().GetChildCount(), 1);
  EXPECT_TRUE(Read("\xEF\xBB\xBF" + Xml("<group name=\"Bom\"/>")));
  EXPECT_TRUE(Read("<configitems><group name=\"Lower\"/></configitems>"));
  EXPECT_EQ(m_store->GetRoot().GetChildCount(), 3);
}

TEST_F(Definitions, AttributesAndMerging) {
  ASSERT_TRUE(Read(Xml(R"(<group name="Internet" desc="first" order="abc" scan="yes"><group name="A"/></group>
                          <group Name="Skipped"/><group name="/"/><item name="NoGroup"/>
                          <item name="I" group="X/Y"/>)")));
  ASSERT_TRUE(Read(Xml(R"(<group name="internet" desc="second" order="" scan="maybe"><group name="B"/></group>)")));
  CScanGroup_imp& root = m_store->GetRoot();
  EXPECT_EQ(root.GetChildCount(), 2);  // Internet and X
  CScanGroup* internet = Child(root, L"Internet");
  EXPECT_STREQ(internet->GetName(), L"Internet");
  EXPECT_STREQ(internet->GetDescription(), L"second");
  EXPECT_EQ(internet->GetOrder(), 0);  // "abc" reads as 0, "" leaves it
  EXPECT_EQ(internet->m_boolProps[bpDefaultScan], abNotSet);
  EXPECT_EQ(internet->GetChildCount(), 2);
  EXPECT_NE(Child(*Child(*Child(root, L"X"), L"Y"), L"I"), nullptr);
}

TEST_F(Definitions, ValuesAreScopedAndNotExpandedThemselves) {
  ASSERT_TRUE(Read(Xml(R"(
    <value name="LIT">%BROOMTEST_TMP%</value>
    <value name="EMPTY"/>
    <value name="CUT" delimiter=";" index="1">a;b;c</value>
    <group name="G" desc="a%EMPTY%b|%LIT%|%CUT%|%broomtest_tmp%\x|100%%|%NOSUCH%">
      <item name="before" desc="%LATE%"/>
      <value name="LATE">late</value>
      <item name="after" desc="%LATE%"><clean kind="file"><![CDATA[%BROOMTEST_TMP%\raw]]></clean></item>
    </group>)")));
  CScanGroup* g = Child(m_store->GetRoot(), L"G");
  EXPECT_STREQ(g->GetDescription(), L"ab|%BROOMTEST_TMP%|b;c|C:\\Tmp\\x|100%|%NOSUCH%");
  EXPECT_STREQ(Child(*g, L"before")->GetDescription(), L"%LATE%");
  CScanGroup* after = Child(*g, L"after");
  EXPECT_STREQ(after->GetDescription(), L"late");
  EXPECT_STREQ(Operations(*after)[0]->GetPaths().front().c_str(), L"%BROOMTEST_TMP%\\raw");
}

TEST(Symbols, ExpansionFlagsAndEscapes) {
  auto* scopeObject = new IUnknownNoQIImp<CScopedMap::ConfigValueMap>();
  CRefPtr<CScopedMap::ConfigValueMap> hold(scopeObject);
  CScopedMap::ConfigValueMap& scope = *scopeObject;
  scope.Set(L"TEMP", L"C:\\Tmp");
  scope.Set(L"A", L"1");
  scope.Set(L"B", L"2");
  struct Case {
    const wchar_t* in;
    const wchar_t* out;
    unsigned long flags;
  } cases[] = {{L"%TEMP%\\x", L"C:\\Tmp\\x", 1}, {L"%temp%", L"C:\\Tmp", 1},     {L"100%%", L"100%", 1},
               {L"%%TEMP%", L"%TEMP%", 1},     {L"%NOSUCH%\\a", L"%NOSUCH%\\a", 2}, {L"%TEMP%%NOSUCH%", L"C:\\Tmp%NOSUCH%", 3},
               {L"50% done", L"50% done", 0},  {L"%%", L"%", 1},                 {L"%%%", L"%%", 1},
               {L"%A%%B%", L"12", 1}};
  for (const auto& c : cases) {
    std::wstring text = c.in;
    EXPECT_EQ(XmlReader::ExpandSymbols(text, &scope), c.flags) << broomtest::Narrow(c.in);
    EXPECT_EQ(text, c.out) << broomtest::Narrow(c.in);
  }
  std::wstring text = L"%TEMP%";
  EXPECT_EQ(XmlReader::ExpandSymbols(text, nullptr), 2u);
  CRefPtr<CScopedMap::ConfigValueMap> child = scope.CreateChildScope();
  child->Set(L"TEMP", nullptr);  // hidden in the child
  std::wstring out;
  EXPECT_FALSE(child->Lookup(L"TEMP", out));
  EXPECT_TRUE(child->Lookup(L"a", out));
  EXPECT_EQ(out, L"1");
  EXPECT_EQ(scope.AddRef(), 3u);  // the holder, the child's parent reference, this one
  scope.Release();
  child.Reset();
  EXPECT_EQ(scope.AddRef(), 2u);  // the child released its parent
  scope.Release();
}

TEST_F(Definitions, RegistryValuesAndPaths) {
  broomtest::TestRegKey key;
  RegSetValueExW(key.Key(), L"Path ", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"C:\\Vendor"), 20);
  RegSetValueExW(key.Key(), nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(L"default"), 16);
  DWORD number = 5;
  RegSetValueExW(key.Key(), L"Number", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4);
  std::wstring base = L"HKCU\\" + key.Subkey();
  std::wstring out;
  EXPECT_TRUE(ReadRegistryString(base + L"[ Path ]", out));
  EXPECT_EQ(out, L"C:\\Vendor");
  EXPECT_TRUE(ReadRegistryString(L"hkey_current_user\\" + key.Subkey() + L"[]", out));
  EXPECT_EQ(out, L"default");
  EXPECT_TRUE(ReadRegistryString(base, out));
  EXPECT_EQ(out, L"default");
  EXPECT_FALSE(ReadRegistryString(base + L"[Number]", out));
  EXPECT_FALSE(ReadRegistryString(L"HKXX\\" + key.Subkey(), out));
  EXPECT_FALSE(ReadRegistryString(L"HKCU", out));

  std::string hive = broomtest::Narrow(base);
  ASSERT_TRUE(Read(Xml("<value name=\"X\">outer</value><group name=\"R\" desc=\"%X%|%V%\">"
                       "<value name=\"X\" type=\"regVal\">" + hive + "\\Missing</value>"
                       "<value name=\"V\" type=\"REGVAL\">" + hive + "[Path ]</value>"
                       "<item name=\"i\" desc=\"%X%|%V%\"/></group>")));
  CScanGroup* r = Child(m_store->GetRoot(), L"R");
  EXPECT_STREQ(Child(*r, L"i")->GetDescription(), L"%X%|C:\\Vendor");  // a failed regVal hides X
}

TEST_F(Definitions, ChecksSwitchOffTheirOwnGroup) {
  EnvVar os(L"BROOMTEST_OS", L"Windows_NT");
  ASSERT_TRUE(Read(Xml(R"(<group name="P">
      <item name="missing"><check test="exists" data="file" path="C:\NoSuchFolder"/></item>
      <item name="noTest"><check data="file" path="C:\NoSuchFolder"/></item>
      <item name="equals"><check test="equals" data="env" path="BROOMTEST_OS" value="windows_nt"/></item>
      <item name="contains"><check test="contains" data="env" path="BROOMTEST_OS" value="windows"/></item>
      <item name="noValue"><check test="equals" data="file" path="C:\NoSuchFolder"/></item>
      <item name="unset"><checks><check test="exists" data="env" path="BROOMTEST_UNSET_VAR"/></checks>
        <item name="child"/></item>
      <item name="regkey"><check test="exists" data="regkey" path="HKCU\Software\NoSuchBroomKey"/></item>
    </group>)")));
  CScanGroup* p = Child(m_store->GetRoot(), L"P");
  EXPECT_EQ(p->IsEnabled(), abNotSet);
  EXPECT_EQ(Child(*p, L"missing")->IsEnabled(), abFalse);
  EXPECT_EQ(Child(*p, L"noTest")->IsEnabled(), abNotSet);
  EXPECT_EQ(Child(*p, L"equals")->IsEnabled(), abNotSet);
  EXPECT_EQ(Child(*p, L"contains")->IsEnabled(), abFalse);
  EXPECT_EQ(Child(*p, L"noValue")->IsEnabled(), abNotSet);
  EXPECT_EQ(Child(*Child(*p, L"unset"), L"child")->IsEnabled(), abFalse);
  EXPECT_EQ(Child(*p, L"regkey")->IsEnabled(), abFalse);
}

class KindFactory : public IScanOperationFactory {
 public:
  CRefPtr<IScanOperation> CreateOperation(const wchar_t* kind, xml::NodePtr) override {
    asked.push_back(kind);
    if (_wcsicmp(kind, m_answers) != 0) return nullptr;
    return CRefPtr<IScanOperation>(new IUnknownNoQIImp<CStdFileScan_trunc>());
  }
  const wchar_t* m_answers = L"";
  std::vector<std::wstring> asked;
};
using Factory = CUnknownFoundation<KindFactory, CRefCount<0>, CIUnknownOnly, CDontDelete>;

TEST_F(Definitions, CleanKindsAndFactories) {
  static Factory first, second;  // outlive the store whatever the test's outcome
  first.m_answers = L"reg";
  second.m_answers = L"file";
  m_store->AddFactory(&first);
  m_store->AddFactory(&second);
  ASSERT_TRUE(Read(Xml(R"(<group name="K">
      <item name="file"><clean kind="File">C:\Temp\\Cache</clean></item>
      <item name="trunc"><clean kind="path_trunc" system="1">C:\T</clean>
                         <clean kind="trunc" system="yes">C:\U</clean></item>
      <item name="none"><clean kind="ram">C:\R</clean><clean kind="system">C:\S</clean>
                        <clean kind="nonsense">C:\N</clean><clean>C:\NoKind</clean></item>
      <item name="reg"><clean kind="reg">HKCU\x</clean></item>
    </group>)")));
  CScanGroup* k = Child(m_store->GetRoot(), L"K");
  // "File" went to the second factory, which built its own operation
  auto fileOps = Operations(*Child(*k, L"file"));
  ASSERT_EQ(fileOps.size(), 1u);
  EXPECT_NE(dynamic_cast<CStdFileScan_trunc*>(fileOps[0]), nullptr);
  EXPECT_TRUE(fileOps[0]->GetPaths().empty());
  auto truncOps = Operations(*Child(*k, L"trunc"));
  ASSERT_EQ(truncOps.size(), 2u);
  EXPECT_STREQ(truncOps[0]->GetPaths().front().c_str(), L"C:\\T");
  EXPECT_EQ(Operations(*Child(*k, L"none")).size(), 0u);
  EXPECT_EQ(Operations(*Child(*k, L"reg")).size(), 1u);
  // the second factory is asked only when the first declines
  EXPECT_EQ(first.asked.size(), 7u);
  EXPECT_EQ(second.asked.size(), 6u);
  m_store.Reset();
}

TEST(CleanHelpers, DuplicateSeparatorsKindTableAndCommands) {
  CPathString three(L"a\\\\\\b"), four(L"a\\\\\\\\b"), plain(L"C:\\x\\y"), unc(L"\\\\server\\share");
  XmlReader::RemoveDuplicateValues(three, L'\\');
  EXPECT_STREQ(three.c_str(), L"a\\\\b");
  XmlReader::RemoveDuplicateValues(four, L'\\');
  EXPECT_STREQ(four.c_str(), L"a\\\\b");
  XmlReader::RemoveDuplicateValues(plain, L'\\');
  EXPECT_STREQ(plain.c_str(), L"C:\\x\\y");
  XmlReader::RemoveDuplicateValues(unc, L'\\');
  EXPECT_STREQ(unc.c_str(), L"\\server\\share");
  CPathString empty;
  EXPECT_THROW(XmlReader::RemoveDuplicateValues(empty, L'\\'), PositionOutOfStringException);

  CString table(L":ram:1:file:2:path:2:trunc:3:file_trunc:3:path_trunc:3:reg:4:registry:4:system:5:");
  EXPECT_EQ(LookupNamedValue(table, L"FILE"), 2);
  EXPECT_EQ(LookupNamedValue(table, L"path_trunc"), 3);
  EXPECT_EQ(LookupNamedValue(table, L"registry"), 4);
  EXPECT_EQ(LookupNamedValue(table, L"nonsense"), 0);
  EXPECT_TRUE(IDelete::IsScanCommand(IDelete::CleanCommand(1)));
  EXPECT_TRUE(IDelete::IsScanCommand(IDelete::CleanCommand(3)));
  EXPECT_FALSE(IDelete::IsScanCommand(IDelete::CleanCommand(2)));
  EXPECT_TRUE(IDelete::IsRebootAllowed(IDelete::CleanCommand(4)));
  EXPECT_FALSE(IDelete::IsRebootAllowed(IDelete::CleanCommand(2)));
}

}  // namespace
