// Named values: scopes, the process-wide symbol scope, %NAME% expansion,
// "value" elements and registry paths.
#include <gtest/gtest.h>
#include <shlobj.h>

#include <optional>
#include <string>

#include "common/TestRegistry.h"
#include "tests/scandefs/Definitions.h"

using namespace defstest;
using Scope = CScopedMap::ConfigValueMap;

namespace {

// Puts the variables the definition tests rely on into the environment
// before the first test (and so before the symbol scope is filled) and puts
// the previous state back after the last.
class SymbolEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    m_app.emplace(kAppVar, kAppValue);
    m_tmp.emplace(kTmpVar, kTmpValue);
    m_shadowed.emplace(kShadowedVar, kShadowedValue);
  }
  void TearDown() override {  // last set, first restored
    m_shadowed.reset();
    m_tmp.reset();
    m_app.reset();
  }

 private:
  std::optional<EnvVar> m_app, m_tmp, m_shadowed;
};

testing::Environment* const g_symbols = testing::AddGlobalTestEnvironment(new SymbolEnvironment);

std::wstring Expand(const wchar_t* text, const Scope* scope, unsigned long* flags = nullptr) {
  std::wstring out = text;
  unsigned long f = XmlReader::ExpandSymbols(out, scope);
  if (flags) *flags = f;
  return out;
}

void SetRegString(HKEY key, const wchar_t* name, const std::wstring& data, DWORD type = REG_SZ) {
  ASSERT_EQ(RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(data.c_str()),
                           static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t))),
            ERROR_SUCCESS);
}

// ---- expansion ----

TEST(ExpandSymbols, ReferencesEscapesAndFlags) {
  CRefPtr<Scope> scope(new IUnknownNoQIImp<Scope>());
  scope->Set(L"TEMP", L"C:\\Tmp");
  scope->Set(L"A", L"1");
  scope->Set(L"B", L"2");
  scope->Set(L"SELF", L"%SELF%");
  scope->Set(L"EMPTY", L"");
  // flags: 1 = changed, 2 = a name was unknown
  const struct {
    const wchar_t *in, *out;
    unsigned long flags;
  } cases[] = {
      {L"%TEMP%\\x", L"C:\\Tmp\\x", 1}, {L"%temp%", L"C:\\Tmp", 1}, {L"100%%", L"100%", 1}, {L"%%TEMP%", L"%TEMP%", 1},
      {L"%NOSUCH%\\a", L"%NOSUCH%\\a", 2}, {L"%TEMP%%NOSUCH%", L"C:\\Tmp%NOSUCH%", 3}, {L"50% done", L"50% done", 0},
      {L"%%", L"%", 1}, {L"%%%", L"%%", 1}, {L"%A%%B%", L"12", 1}, {L"a%EMPTY%b", L"ab", 1}, {L"", L"", 0},
      {L"no reference", L"no reference", 0}, {L"x%A", L"x%A", 0}, {L"%A%%", L"1%", 1},
      {L"%SELF%|%A%", L"%SELF%|1", 1},    // inserted text is not scanned again
      {L"%NOSUCH%%A%", L"%NOSUCH%1", 3},  // the search goes on after the unknown name's closing '%'
      {L"a% %b", L"a% %b", 2},            // the name between two '%' may be a blank
  };
  unsigned long flags = 0;
  for (const auto& c : cases) {
    EXPECT_EQ(Expand(c.in, scope, &flags), c.out) << broomtest::Narrow(c.in);
    EXPECT_EQ(flags, c.flags) << broomtest::Narrow(c.in);
  }
  EXPECT_EQ(Expand(L"%TEMP%", nullptr, &flags), L"%TEMP%");
  EXPECT_EQ(flags, 2u);
}

// ---- scopes ----

TEST(ConfigValueMap, NamesIgnoreCaseAndChildScopesFallBack) {
  CRefPtr<Scope> outer(new IUnknownNoQIImp<Scope>());
  outer->Set(L"Name", L"outer");
  outer->Set(L"NAME", L"replaced");  // the same name: one entry, the later spelling
  ASSERT_EQ(outer->size(), 1u);
  EXPECT_EQ(outer->begin()->first, L"NAME");
  std::wstring out;
  ASSERT_TRUE(outer->Lookup(L"name", out));
  EXPECT_EQ(out, L"replaced");

  CRefPtr<Scope> inner = outer->CreateChildScope();
  EXPECT_EQ(inner->m_parentScope.Get(), outer.Get());
  ASSERT_TRUE(inner->Lookup(L"nAmE", out));
  EXPECT_EQ(out, L"replaced");
  inner->Set(L"name", nullptr);  // defined as nothing: hides the outer one
  out = L"untouched";
  EXPECT_FALSE(inner->Lookup(L"NAME", out));
  EXPECT_EQ(out, L"untouched");
  inner->Remove(L"NAME");
  inner->Remove(L"absent");  // nothing to do

  // a child keeps its parent alive; releasing the child releases the parent
  Scope* parent = outer.Get();
  EXPECT_EQ(parent->AddRef(), 3u);  // outer, the child's parent reference, this one
  outer.Reset();
  out.clear();
  EXPECT_TRUE(inner->Lookup(L"name", out));
  EXPECT_EQ(out, L"replaced");
  inner.Reset();
  EXPECT_EQ(parent->Release(), 0u);
}

// ---- the process-wide scope ----

std::wstring ShellFolder(int csidl) {
  wchar_t buffer[MAX_PATH] = {};
  if (FAILED(SHGetFolderPathW(nullptr, csidl, nullptr, 0, buffer))) return L"";
  return buffer;
}

TEST(GlobalScope, EnvironmentAndShellFolders) {
  Scope* global = CScopedMap::GetGlobalScope();
  ASSERT_NE(global, nullptr);
  EXPECT_EQ(global, CScopedMap::GetGlobalScope());  // built once
  EXPECT_EQ(Expand(L"%broomtest_app%\\x", global), std::wstring(kAppValue) + L"\\x");
  ASSERT_FALSE(ShellFolder(CSIDL_WINDOWS).empty());
  // WINDOWS: the shell folder replaces the environment variable of the same name
  const std::pair<const wchar_t*, int> folders[] = {{L"%WINDOWS%", CSIDL_WINDOWS},
                                                    {L"%LOCALAPPDATA%", CSIDL_LOCAL_APPDATA},
                                                    {L"%SYSTEM%", CSIDL_SYSTEM},
                                                    {L"%PROGRAM_FILES%", CSIDL_PROGRAM_FILES}};
  for (const auto& f : folders) EXPECT_EQ(Expand(f.first, global), ShellFolder(f.second)) << broomtest::Narrow(f.first);
  // two symbols for the same folder
  EXPECT_EQ(Expand(L"%MYDOCUMENTS%", global), Expand(L"%PERSONAL%", global));
  // no symbol of its own: the environment variable serves
  wchar_t appData[MAX_PATH] = {};
  if (GetEnvironmentVariableW(L"APPDATA", appData, MAX_PATH)) {
    EXPECT_EQ(Expand(L"%APPDATA%", global), appData);
  }
  // a virtual folder without a path stays undefined
  std::wstring bin = ShellFolder(CSIDL_BITBUCKET);
  EXPECT_EQ(Expand(L"%BITBUCKET%", global), bin.empty() ? L"%BITBUCKET%" : bin);
  // the hidden per-drive entries ("=C:=C:\...") are not names
  EXPECT_EQ(Expand(L"%=C:%", global), L"%=C:%");
  // known folders, where the system has them
  using KnownFolderFn = HRESULT(WINAPI*)(REFGUID, DWORD, HANDLE, PWSTR*);
  auto known = reinterpret_cast<KnownFolderFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"Shell32.dll"), "SHGetKnownFolderPath")));
  if (!known) return;
  const GUID downloads = {0x374DE290, 0x123F, 0x4565, {0x91, 0x64, 0x39, 0xC4, 0x92, 0x5E, 0x46, 0x7B}};
  PWSTR path = nullptr;
  HRESULT hr = known(downloads, 0, nullptr, &path);
  std::wstring expected = SUCCEEDED(hr) && path ? path : L"%DOWNLOADS%";
  CoTaskMemFree(path);
  EXPECT_EQ(Expand(L"%DOWNLOADS%", global), expected);
}

// ---- "value" elements ----

TEST_F(Definitions, ValuesAreScopedAndNotExpandedThemselves) {
  ASSERT_TRUE(Read(Xml(R"(
    <value name="LIT">%BROOMTEST_TMP%</value>
    <value name="EMPTY"/>
    <value name="DEF" default="fallback"/>
    <value name="BOTH" default="unused">text</value>
    <value>no name: defines nothing</value>
    <group name="G" desc="a%EMPTY%b|%LIT%|%broomtest_tmp%\x|100%%|%NOSUCH%|%DEF%|%BOTH%|%OWN%">
      <value name="OWN">own</value>
      <item name="before" desc="%LATE%"/>
      <value name="LATE">late</value>
      <item name="after" desc="%LATE%|%OWN%"><clean kind="file"><![CDATA[%BROOMTEST_TMP%\raw]]></clean>
                                     <clean kind="file">%BROOMTEST_TMP%\text</clean></item>
    </group>
    <group name="H" desc="%LATE%|%OWN%|%LIT%"/>)")));
  CScanGroup* g = Child(Root(), L"G");
  ASSERT_NE(g, nullptr);
  // a value of the element is not visible in the element's own attributes
  EXPECT_STREQ(g->GetDescription(), L"ab|%BROOMTEST_TMP%|C:\\Tmp\\x|100%|%NOSUCH%|fallback|text|%OWN%");
  EXPECT_STREQ(Child(*g, L"before")->GetDescription(), L"%LATE%");
  CScanGroup* after = Child(*g, L"after");
  EXPECT_STREQ(after->GetDescription(), L"late|own");
  // CDATA is kept as written
  EXPECT_EQ(Ops(*after), (Names{L"file:%BROOMTEST_TMP%\\raw", L"file:C:\\Tmp\\text"}));
  // outside G its values are gone; the file's own stay
  EXPECT_EQ(Description(L"H"), L"%LATE%|%OWN%|%BROOMTEST_TMP%");
  // and the next file does not see them
  ASSERT_TRUE(Read(Xml(R"(<group name="Next" desc="%LIT%"/>)")));
  EXPECT_EQ(Description(L"Next"), L"%LIT%");
}

TEST_F(Definitions, InnerValuesHideOuterOnesUntilTheirElementEnds) {
  ASSERT_TRUE(Read(Xml(R"(
    <value name="X">outer</value>
    <group name="A" desc="%x%">
      <value name="X">first</value>
      <value name="x">second</value>
      <value name="BROOMTEST_TMP" type="regVal"/>
      <item name="i" desc="%X%|%BROOMTEST_TMP%"><value name="X">item</value><clean kind="file">%X%</clean></item>
      <item name="j" desc="%X%"/>
    </group>
    <group name="B" desc="%X%|%BROOMTEST_TMP%"/>)")));
  CScanGroup* a = Child(Root(), L"A");
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a->GetDescription(), L"outer");
  // the later of two definitions in one scope counts; one defined as nothing hides the environment's
  EXPECT_STREQ(Child(*a, L"i")->GetDescription(), L"second|%BROOMTEST_TMP%");
  EXPECT_EQ(Ops(*Child(*a, L"i")), (Names{L"file:item"}));
  EXPECT_STREQ(Child(*a, L"j")->GetDescription(), L"second");
  EXPECT_EQ(Description(L"B"), L"outer|C:\\Tmp");
}

TEST_F(Definitions, ValuesCutAtDelimiters) {
  ASSERT_TRUE(Read(Xml(R"(
    <value name="I1" delimiter=";" index="1">a;b;c</value>
    <value name="I2" delimiter=";" index="2">a;b;c</value>
    <value name="I3" delimiter=";" index="3">a;b;c</value>
    <value name="I4" delimiter=";" index="4">a;b;c</value>
    <value name="I0" delimiter=";" index="0">a;b;c</value>
    <value name="NONE" delimiter=";" index="1">abc</value>
    <value name="RUN" delimiter=";" index="1">a;;b;c</value>
    <value name="RUN2" delimiter=";" index="2">a;;b;c</value>
    <value name="SET" delimiter=";," index="1">a;,b,c</value>
    <value name="NOTSUB" delimiter=";," index="1">a;b,c</value>
    <value name="LEAD" delimiter=";" index="1">;;a;b</value>
    <value name="NOIDX" delimiter=";">a;b</value>
    <group name="G" desc="%I1%|%I2%|%I3%|%I4%|%I0%|%NONE%|%RUN%|%RUN2%|%SET%|%NOTSUB%|%LEAD%|%NOIDX%"/>)")));
  // a delimiter set is cut only where the whole delimiter text occurs
  EXPECT_EQ(Description(L"G"), L"b;c|c|||a;b;c|abc|;b;c|c|,b,c|a;b,c|b|a;b");
}

TEST_F(Definitions, RegistryValues) {
  broomtest::TestRegKey key;
  SetRegString(key.Key(), L"Path ", L"C:\\Vendor");
  SetRegString(key.Key(), L"List", L"x|y|z");
  SetRegString(key.Key(), L"Refers", L"%BROOMTEST_TMP%");
  std::string hive = "HKCU\\" + broomtest::Narrow(key.Subkey());
  ASSERT_TRUE(Read(Xml("<value name=\"X\">outer</value><value name=\"Y\">outer</value>"
                       "<group name=\"R\" desc=\"%X%|%V%\">"
                       "<value name=\"X\" type=\"regVal\">" + hive + "\\Missing</value>"
                       "<value name=\"Y\" type=\"regVal\"/>"
                       "<value name=\"V\" type=\"REGVAL\">" + hive + "[Path ]</value>"
                       "<value name=\"L\" type=\"regval\" delimiter=\"|\" index=\"1\">" + hive + "[List]</value>"
                       "<value name=\"F\" type=\"regVal\">" + hive + "[Refers]</value>"
                       "<item name=\"i\" desc=\"%X%|%Y%|%V%|%L%|%F%\"/></group>")));
  CScanGroup* r = Child(Root(), L"R");
  EXPECT_STREQ(r->GetDescription(), L"outer|%V%");  // its own values come after its attributes
  // a value that cannot be read hides the outer one of that name
  EXPECT_STREQ(Child(*r, L"i")->GetDescription(), L"%X%|%Y%|C:\\Vendor|y|z|%BROOMTEST_TMP%");
}

// ---- registry paths ----

class RegistryPaths : public testing::Test {
 protected:
  void SetBytes(const wchar_t* name, const void* data, DWORD bytes, DWORD type = REG_SZ) {
    ASSERT_EQ(RegSetValueExW(m_key.Key(), name, 0, type, static_cast<const BYTE*>(data), bytes), ERROR_SUCCESS);
  }
  // Reads path, or "<failed>".
  static std::wstring Read(const std::wstring& path) {
    std::wstring out = L"<stale>";
    return ReadRegistryString(path, out) ? out : L"<failed>";
  }
  // Reads every path and compares it with what it should give.
  static void ExpectReads(const std::vector<std::pair<std::wstring, std::wstring>>& cases) {
    for (const auto& c : cases) EXPECT_EQ(Read(c.first), c.second) << broomtest::Narrow(c.first);
  }

  broomtest::TestRegKey m_key;
  std::wstring m_sub = m_key.Subkey(), m_base = L"HKCU\\" + m_sub;
};

TEST_F(RegistryPaths, HivesAndValueNames) {
  SetRegString(m_key.Key(), L"Path ", L"C:\\Vendor");
  SetRegString(m_key.Key(), nullptr, L"default");
  ExpectReads({
      {m_base + L"[ Path ]", L"C:\\Vendor"},  // leading blanks dropped, the trailing one kept
      {m_base + L"[Path ", L"C:\\Vendor"},    // no ']': the name runs to the end
      {m_base + L"[\t Path ]", L"C:\\Vendor"}, {m_base + L"[Path]", L"<failed>"}, {m_base + L"[]", L"default"},
      {m_base + L"[  ]", L"default"}, {m_base, L"default"}, {L"HKEY_CURRENT_USER\\" + m_sub, L"default"},
      {L"hkcu\\" + m_sub, L"default"}, {L"hkey_current_user\\" + m_sub + L"[ Path ]", L"C:\\Vendor"},
      {L"HKLM\\" + m_sub, L"<failed>"}, {L"HKXX\\" + m_sub, L"<failed>"}, {m_base + L"\\Missing", L"<failed>"},
      {L"HKCU", L"<failed>"},  // no backslash names nothing
  });
  HKEY opened = nullptr;
  ASSERT_TRUE(OpenRegistryPath(m_base + L"[whatever]", opened));
  RegCloseKey(opened);
  EXPECT_FALSE(OpenRegistryPath(m_base + L"\\Missing", opened));
  EXPECT_FALSE(OpenRegistryPath(L"HKZZ\\Software", opened));
}

TEST_F(RegistryPaths, OtherHives) {
  broomtest::TestRegKey machine(HKEY_LOCAL_MACHINE);
  SetRegString(machine.Key(), L"v", L"lm");
  ExpectReads({{L"HKLM\\" + machine.Subkey() + L"[v]", L"lm"},
               {L"HKEY_LOCAL_MACHINE\\" + machine.Subkey() + L"[v]", L"lm"}});
  wchar_t user[256];
  DWORD length = 256;
  ASSERT_EQ(RegEnumKeyExW(HKEY_USERS, 0, user, &length, nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
  for (const std::wstring& path : {L"HKU\\" + std::wstring(user), L"HKEY_USERS\\" + std::wstring(user),
                                   std::wstring(L"HKCR\\CLSID"), std::wstring(L"HKEY_CLASSES_ROOT\\CLSID")}) {
    HKEY opened = nullptr;
    EXPECT_TRUE(OpenRegistryPath(path, opened)) << broomtest::Narrow(path);
    if (opened) RegCloseKey(opened);
  }
}

TEST_F(RegistryPaths, TypesAndSizes) {
  DWORD number = 5;
  SetBytes(L"Number", &number, sizeof number, REG_DWORD);
  SetRegString(m_key.Key(), L"Expand", L"%WINDIR%\\x", REG_EXPAND_SZ);
  SetBytes(L"Empty", L"", 0);
  SetBytes(L"Odd", L"ab", 3);
  SetBytes(L"NoTerminator", L"abcd", 6);  // the system adds a terminator only when one follows the data
  SetRegString(m_key.Key(), L"Max", std::wstring(259, L'm'));
  SetRegString(m_key.Key(), L"TooLong", std::wstring(260, L'l'));
  ExpectReads({{m_base + L"[Number]", L"<failed>"}, {m_base + L"[Empty]", L""}, {m_base + L"[Odd]", L"<failed>"},
               {m_base + L"[NoTerminator]", L"<failed>"}, {m_base + L"[TooLong]", L"<failed>"},
               {m_base + L"[Expand]", L"%WINDIR%\\x"},  // not expanded
               {m_base + L"[Max]", std::wstring(259, L'm')}});  // 260 with its terminator
}

TEST_F(RegistryPaths, OnlyTheFirst260CharactersCount) {
  std::wstring head = m_base + L"[";
  ASSERT_LT(head.size(), 200u);
  // the name in the path is cut where the 260 characters end
  std::wstring name(260 - head.size(), L'v');
  SetRegString(m_key.Key(), name.c_str(), L"cut");
  EXPECT_EQ(Read(head + name + L"vvvv]"), L"cut");
}

TEST(RegistryPathsBracket, RemainderStartingWithABracketIsTheWholeSubkey) {
  // The subkey is then the whole remainder, and the value name still comes
  // from the brackets: HKCU\[BroomTest]\<n> reads the value "BroomTest".
  std::wstring out;
  {
    broomtest::TestRegKey key(HKEY_CURRENT_USER, L"[BroomTest]");
    SetRegString(key.Key(), L"BroomTest", L"bracketed");
    EXPECT_TRUE(ReadRegistryString(L"HKCU\\" + key.Subkey(), out));
  }
  RegDeleteKeyW(HKEY_CURRENT_USER, L"[BroomTest]");
  EXPECT_EQ(out, L"bracketed");
}

}  // namespace
