// The definition reader: bytes to text, the root element, groups and items,
// base properties, merging, hooks, and the operations and checks it hands on.
#include <gtest/gtest.h>
#include <shlobj.h>

#include <string>
#include <vector>

#include "tests/scandefs/Definitions.h"

using namespace defstest;

namespace {

// The example definition: a value, a group with an item holding a check and
// a clean, and an item placed by its "group" path.
const char kExample[] = R"(
  <value name="CACHE">Cache2</value>
  <group name="Internet" order="20" desc="Browsers and plug-ins" scan="yes" clean="yes">
    <item name="Browser cache" desc="Cached web pages" safe="true" qscan="on">
      <checks>
        <check test="exists" data="file" path="%LOCALAPPDATA%\Browser"/>
      </checks>
      <cleaning>
        <clean kind="file">%LOCALAPPDATA%\Browser\%CACHE%</clean>
      </cleaning>
    </item>
  </group>
  <item name="Thumbnails" group="System/Explorer" order="5" desc="Thumbnail cache">
    <clean kind="trunc" system="1">%LOCALAPPDATA%\Explorer</clean>
  </item>)";

TEST_F(Definitions, ExampleReadsIntoTheTreeItDescribes) {
  wchar_t buffer[MAX_PATH] = {};
  SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, buffer);
  std::wstring local = buffer;
  ASSERT_FALSE(local.empty());
  ASSERT_FALSE(broomtest::Exists(local + L"\\Browser"));
  ASSERT_TRUE(Read(Xml(kExample)));
  EXPECT_EQ(Tree(Root()), L"Internet{Browser cache},System{Explorer{Thumbnails}}");
  CScanGroup* internet = Child(Root(), L"Internet");
  EXPECT_EQ(internet->GetParent(), nullptr);
  EXPECT_EQ(Props(*internet), L"order=20 desc=Browsers and plug-ins scan=y clean=y");
  EXPECT_EQ(Ops(*internet), Names{});
  CScanGroup* cache = Child(*internet, L"Browser cache");
  EXPECT_EQ(cache->GetParent(), internet);
  // the folder does not exist: switched off, and so no quick scan either
  EXPECT_EQ(Props(*cache), L"order=999999 desc=Cached web pages enabled=n qscan=y safe=y");
  EXPECT_EQ(cache->GetQScan(), abFalse);
  EXPECT_EQ(cache->IsDefaultScan(), abTrue);  // from Internet
  EXPECT_EQ(cache->IsDefaultClean(), abTrue);
  EXPECT_EQ(Ops(*cache), (Names{L"file:" + local + L"\\Browser\\Cache2"}));
  EXPECT_EQ(Props(*Child(Root(), L"System")), L"order=999999");
  CScanGroup* thumbs = Child(*Child(*Child(Root(), L"System"), L"Explorer"), L"Thumbnails");
  EXPECT_EQ(Props(*thumbs), L"order=5 desc=Thumbnail cache");
  EXPECT_EQ(Ops(*thumbs), (Names{L"trunc:" + local + L"\\Explorer"}));
}

TEST_F(Definitions, BadFilesAreRejectedAndLeaveTheTreeAlone) {
  ASSERT_TRUE(Read(Xml("<group name=\"Kept\"/>")));
  std::string utf16 = "\xFF\xFE";
  for (char c : std::string("<ConfigItems><group name=\"U\"/></ConfigItems>")) utf16 += std::string{c, '\0'};
  const std::pair<std::string, const wchar_t*> rejected[] = {
      {"", L"0: is empty"},
      {"\xEF\xBB\xBF\r\n\r\n<ConfigItems>\n<group name=\"x\">\n</ConfigItems>",
       L"5: does not parse: an end tag does not match its start tag at line 5"},
      // lines counted past 8-bit text, which the code page converts
      {"<ConfigItems>\n<group name=\"caf\xE9\">\n\n<x>\n</ConfigItems>",
       L"5: does not parse: an end tag does not match its start tag at line 5"},
      {"<Config><group name=\"Other\"/></Config>", L"0: has no ConfigItems root element"},
      {utf16, L"1: does not parse: a tag is not recognised at line 1"},  // UTF-16 is not decoded
      {"<?xml version=\"1.0\"?><!-- c --><Config/>", L"0: has no ConfigItems root element"},
      {"<!-- only -->", L"0: holds no element"},
  };
  for (const auto& bytes : rejected) {
    EXPECT_FALSE(Read(bytes.first)) << bytes.first;
    EXPECT_EQ(Notes(), Names{bytes.second}) << bytes.first;
  }
  XmlReader reader(m_store);
  EXPECT_FALSE(reader.ReadFile(CString((m_dir / L"missing.xml").c_str()), Root(), nullptr));
  EXPECT_EQ(Notes(), Names{L"0: cannot be opened (error 2)"});
  // data without any '<' is an error, not a rejection
  EXPECT_EQ(AtlError([&] { Read("no markup at all"); }), E_INVALIDARG);
  EXPECT_EQ(Tree(Root()), L"Kept");
  // a byte-order mark, and the root name in another case, are accepted
  EXPECT_TRUE(Read("\xEF\xBB\xBF" + Xml("<group name=\"Bom\"/>")));
  EXPECT_TRUE(Read("<configitems><group name=\"Lower\"/></configitems>"));
  EXPECT_EQ(Tree(Root()), L"Kept,Bom,Lower");
  EXPECT_EQ(Notes(), Names{});
}

std::string Repeat(const std::string& piece, size_t count) {
  std::string out;
  for (size_t i = 0; i < count; ++i) out += piece;
  return out;
}

TEST_F(Definitions, FilesPastTheLimitsAreRejectedWhole) {
  ASSERT_TRUE(Read(Xml("<group name=\"Kept\"/>")));
  const std::string v4k = "<value name=\"V\">" + std::string(4096, 'v') + "</value>";
  const std::pair<std::string, const wchar_t*> cases[] = {
      // "ConfigItems" and 99 more levels of elements are read, 101 are not
      {"<ConfigItems>" + Repeat("<g>", 99) + Repeat("</g>", 99) + "</ConfigItems>", nullptr},
      {"<ConfigItems>\n" + Repeat("<value name=\"v\">", 100) + Repeat("</value>", 100) + "</ConfigItems>",
       L"2: nests 101 levels deep at line 2; at most 100 are read"},
      // groups count every segment of their paths, down from the top level
      {Xml("<group name=\"" + Repeat("a/", 100) + "\"/>"), nullptr},
      {Xml("<group name=\"" + Repeat("/a", 101) + "\"/>"), L"2: nests its groups 101 levels deep at line 2; at most 100 are read"},
      {Xml("<group name=\"g\">\n<item group=\"" + Repeat("a/", 50) + "\" name=\"" + Repeat("b/", 50) + "\"/></group>"),
       L"3: nests its groups 101 levels deep at line 3; at most 100 are read"},
      {Xml("<value name=\"P\">" + Repeat("p/", 101) + "</value><group name=\"%P%\"/>"),
       L"2: nests its groups 101 levels deep at line 2; at most 100 are read"},
      // paths the reader skips do not count
      {Xml("<item name=\"" + Repeat("a/", 200) + "\"/><group name=\"s\"><cleaning><group name=\"" + Repeat("a/", 200) +
           "\"/></cleaning></group>"),
       nullptr},
      // what %NAME% references may insert into one file
      {Xml(v4k + "<group name=\"G\" desc=\"" + Repeat("%V%", 4096) + "\"/>"), nullptr},
      {Xml(v4k + "<group name=\"G\" desc=\"" + Repeat("%V%", 2048) + "\"/>\n<group name=\"H\">" +
           Repeat("%V%", 2049) + "</group>"),
       L"3: has %NAME% references that insert more than 16777216 characters at line 3; at most that many are read"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Read(c.first), !c.second) << c.first.substr(0, 200);
    EXPECT_EQ(Notes(), c.second ? Names{c.second} : Names{}) << c.first.substr(0, 200);
  }
  // nothing of a rejected file is in the tree
  EXPECT_EQ(Groups(), (Names{L"Kept", L"a", L"s", L"G"}));
  size_t depth = 0;
  for (const CScanGroup* g = Child(Root(), L"a"); g; g = Child(*g, L"a")) ++depth;
  EXPECT_EQ(depth, 100u);
}

TEST_F(Definitions, LaterFileMergesIntoTheGroupOfTheSameName) {
  ASSERT_TRUE(Read(Xml(R"(<group name="Internet" order="7" desc="first" tip="kept" scan="yes" safe="yes">
                          <group name="A"/></group>)")));
  ASSERT_TRUE(Read(Xml(R"(<group name="internet" order="" desc="second" scan="maybe"><group name="B"/></group>)")));
  EXPECT_EQ(Tree(Root()), L"Internet{A,B}");  // the first spelling stays
  // texts and the order stay when absent, and an empty value counts as
  // absent; a switch is read afresh: an unknown word or a missing attribute
  // clears it
  EXPECT_EQ(Props(*Child(Root(), L"Internet")), L"order=7 desc=second tip=kept");
}

TEST_F(Definitions, BasePropertiesAndBooleanWords) {
  ASSERT_TRUE(Read(Xml(R"(<group name="G" order=" -12x" desc="d" tip="t" icon="i" tabIcon="ti" report="r">
      <item name="yes" scan="TRUE" clean="Yes" qscan="on" safe="1" enabled="no"/>
      <item name="no" scan="false" clean="NO" qscan="Off" safe="0" order="abc"/>
      <item name="odd" scan="maybe" clean="" qscan="2" safe=" true"/>
      <item name="case" Scan="no" DESC="x" tabicon="y" Order="1" Report="z"/>
      <item name="twice" desc="" desc="second" safe="no" safe="yes" tip="t" tip="u"/>
    </group>)")));
  // the order is read like _wtoi; enabled is never read from an attribute;
  // attribute names are case-sensitive
  CScanGroup* g = Child(Root(), L"G");
  EXPECT_EQ(Props(*g), L"order=-12 desc=d tip=t icon=i tabIcon=ti report=r");
  EXPECT_EQ(Props(*Child(*g, L"yes")), L"order=999999 scan=y clean=y qscan=y safe=y");
  EXPECT_EQ(Props(*Child(*g, L"no")), L"order=0 scan=n clean=n qscan=n safe=n");
  EXPECT_EQ(Props(*Child(*g, L"odd")), L"order=999999");
  EXPECT_EQ(Props(*Child(*g, L"case")), L"order=999999");
  // the first attribute of a name counts, an empty one as absent
  EXPECT_EQ(Props(*Child(*g, L"twice")), L"order=999999 tip=t safe=n");
}

TEST_F(Definitions, GroupAndItemPaths) {
  ASSERT_TRUE(Read(Xml(R"(
      <group name="//"/><group name="/"/><group Name="NameIsCaseSensitive"/>
      <group name="/a//b/"><item name="in b"><item name="nested"/></item></group>
      <item name="x" group="/"/>
      <item name="NoGroupAtTopLevel"/>
      <item name="" group="a"/>
      <item name="c/d" group="A/B"/>
      <group name="A"><item name="under a"/></group>
      <clean kind="file">C:\Ignored</clean>
      <check test="exists" data="file" path="C:\NoSuch"/>
      <unknown name="u"/>)")));
  EXPECT_EQ(Tree(Root()), L"a{b{in b{nested},c{d}},under a}");
  // a clean or a check directly in the file is ignored
  EXPECT_EQ(Root().GetScanOpCount(), 0);
  EXPECT_EQ(Root().m_boolProps[bpEnabled], abNotSet);
}

TEST_F(Definitions, ChecksSwitchOffTheirOwnGroup) {
  EnvVar os(L"BROOMTEST_OS", L"Windows_NT");
  ASSERT_TRUE(Read(Xml(R"(<group name="P">
      <item name="missing" qscan="on"><check test="exists" data="file" path="C:\NoSuchFolder"/></item>
      <item name="present" qscan="on"><check test="exists" data="file" path=")" +
                       broomtest::Narrow(m_dir.Path()) + R"("/></item>
      <item name="noTest"><check data="file" path="C:\NoSuchFolder"/></item>
      <item name="equals"><check test="equals" data="env" path="BROOMTEST_OS" value="windows_nt"/></item>
      <item name="contains"><check test="contains" data="env" path="BROOMTEST_OS" value="windows"/></item>
      <item name="noValue"><check test="equals" data="file" path="C:\NoSuchFolder"/></item>
      <item name="unset"><checks><check test="exists" data="env" path="BROOMTEST_UNSET_VAR"/></checks>
        <item name="child"/></item>
      <item name="regkey"><check test="exists" data="regkey" path="HKCU\Software\NoSuchBroomKey"/></item>
    </group>)")));
  CScanGroup* p = Child(Root(), L"P");
  EXPECT_EQ(p->IsEnabled(), abNotSet);
  const std::pair<const wchar_t*, AttributeBoolState> enabled[] = {
      {L"missing", abFalse}, {L"present", abNotSet},  {L"noTest", abNotSet}, {L"equals", abNotSet},
      {L"contains", abFalse}, {L"noValue", abNotSet}, {L"regkey", abFalse}};
  for (const auto& e : enabled) EXPECT_EQ(Child(*p, e.first)->IsEnabled(), e.second) << broomtest::Narrow(e.first);
  EXPECT_EQ(Child(*Child(*p, L"unset"), L"child")->IsEnabled(), abFalse);
  // a switched-off item loses its quick scan too
  EXPECT_EQ(Child(*p, L"missing")->GetQScan(), abFalse);
  EXPECT_EQ(Child(*p, L"present")->GetQScan(), abTrue);
}

// A host's factory: records every kind it is asked for and answers one kind
// with a truncating scan of its own. Meeting kind "inject" it appends a
// child named "Injected" to m_group, as a factory might while a file is read.
class HostFactory : public IScanOperationFactory {
 public:
  CRefPtr<IScanOperation> CreateOperation(const wchar_t* kind, xml::NodePtr) override {
    asked.push_back(kind);
    if (m_group && wcscmp(kind, L"inject") == 0) {
      m_group->m_children.emplace_back();
      m_group->m_children.back().m_name = L"Injected";
      m_group->m_children.back().m_parent = m_group;
    }
    if (_wcsicmp(kind, m_answers) != 0) return nullptr;
    return CRefPtr<IScanOperation>(new IUnknownNoQIImp<CStdFileScan_trunc>());
  }
  const wchar_t* m_answers = L"";
  CScanGroup_imp* m_group = nullptr;
  std::vector<std::wstring> asked;
};
using Factory = CUnknownFoundation<HostFactory, CRefCount<0>, CIUnknownOnly, CDontDelete>;

TEST_F(Definitions, CleanKindsAndFactories) {
  static Factory first, second;  // outlive the store whatever the test's outcome
  first.m_answers = L"reg";
  second.m_answers = L"file";
  first.asked.clear();
  second.asked.clear();
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
  CScanGroup* k = Child(Root(), L"K");
  // "File" went to the second factory, which built its own operation
  EXPECT_EQ(Ops(*Child(*k, L"file")), (Names{L"trunc"}));
  EXPECT_EQ(Ops(*Child(*k, L"trunc")), (Names{L"trunc:C:\\T", L"trunc:C:\\U"}));
  EXPECT_EQ(Ops(*Child(*k, L"none")), Names{});
  EXPECT_EQ(Ops(*Child(*k, L"reg")), (Names{L"trunc"}));
  // the second factory is asked only when the first declines
  EXPECT_EQ(first.asked.size(), 7u);
  EXPECT_EQ(second.asked.size(), 6u);
  m_store.Reset();
}

TEST(CleanHelpers, DuplicateSeparatorsAndKindTable) {
  const std::pair<const wchar_t*, const wchar_t*> paths[] = {
      {L"a\\\\\\b", L"a\\\\b"}, {L"a\\\\\\\\b", L"a\\\\b"},  // runs of three and four
      {L"C:\\x\\y", L"C:\\x\\y"}, {L"\\\\server\\share", L"\\server\\share"}};
  for (const auto& p : paths) {
    CPathString path(p.first);
    XmlReader::RemoveDuplicateValues(path, L'\\');
    EXPECT_STREQ(path.c_str(), p.second) << broomtest::Narrow(p.first);
  }
  CPathString empty;
  EXPECT_THROW(XmlReader::RemoveDuplicateValues(empty, L'\\'), PositionOutOfStringException);

  CString table(L":ram:1:file:2:path:2:trunc:3:file_trunc:3:path_trunc:3:reg:4:registry:4:system:5:");
  EXPECT_EQ(LookupNamedValue(table, L"FILE"), 2);
  EXPECT_EQ(LookupNamedValue(table, L"path_trunc"), 3);
  EXPECT_EQ(LookupNamedValue(table, L"registry"), 4);
  EXPECT_EQ(LookupNamedValue(table, L"nonsense"), 0);
}

TEST_F(Definitions, BytesToText) {
  // files that are accepted, each holding the group named beside it
  const std::pair<std::string, const wchar_t*> accepted[] = {
      // text ends at the first NUL; what follows is never parsed
      {Xml("<group name=\"Nul\"/>") + std::string("\0<<garbage", 10), L"Nul"},
      // leading bytes before the first '<' are skipped, whatever they are
      {"junk\r\n" + Xml("<group name=\"Junk\"/>"), L"Junk"},
      // comments, processing instructions and a document type before the root are dropped
      {"<!-- c --><?pi x?><!DOCTYPE ConfigItems><ConfigItems><group name=\"Doc\"/></ConfigItems>", L"Doc"},
      // a declaration in another spelling is not relabelled; the parser drops it all the same
      {"<?xml version='1.0' encoding='utf-8'?><ConfigItems><group name=\"Quote\"/></ConfigItems>", L"Quote"},
  };
  for (const auto& file : accepted) {
    EXPECT_TRUE(Read(file.first)) << broomtest::Narrow(file.second);
    EXPECT_NE(Child(Root(), file.second), nullptr) << broomtest::Narrow(file.second);
  }
  // 8-bit text is decoded with the thread's ANSI code page
  std::string ansi = "caf\xE9 \x80";
  ASSERT_TRUE(Read(Xml("<group name=\"Ansi\" desc=\"" + ansi + "\"/>")));
  wchar_t expected[16] = {};
  MultiByteToWideChar(CP_THREAD_ACP, 0, ansi.data(), static_cast<int>(ansi.size()), expected, 16);
  EXPECT_EQ(Description(L"Ansi"), expected);
  // entities and character references are decoded; attribute whitespace is normalised
  ASSERT_TRUE(Read(Xml("<group name=\"Ent\" desc=\"a&amp;b&#65;&lt;\tc\"/>")));
  EXPECT_EQ(Description(L"Ent"), L"a&bA< c");
  // element text keeps its whitespace, with line ends normalised, and CDATA
  // is kept as written; every occurrence of the UTF-8 declaration is
  // relabelled, even inside text
  ASSERT_TRUE(Read(Xml("<group name=\"Text\"><clean kind=\"file\">\r\n      C:\\Temp\r\n    </clean>"
                       "<clean kind=\"file\"><![CDATA[ C:\\Raw ]]></clean><clean kind=\"file\"><![CDATA[<?xml "
                       "version=\"1.0\" encoding=\"utf-8\"?>]]></clean></group>")));
  EXPECT_EQ(Ops(*Child(Root(), L"Text")), (Names{L"file:\n      C:\\Temp\n    ", L"file: C:\\Raw ",
                                                  L"file:<?xml version=\"1.0\" encoding=\"utf-16\"?>"}));
}

TEST_F(Definitions, HookSeesTheRawBytesAndMayRewriteThem) {
  RecordingHook hook;
  hook.drop = 4;
  std::string bytes = "\xEF\xBB\xBF" + Xml("<group name=\"#one\"/>") + "TAIL";
  ASSERT_TRUE(Read(bytes, &hook));
  EXPECT_EQ(hook.seen, std::vector<std::string>{bytes});
  EXPECT_EQ(hook.calls, "data,done,");
  RecordingHook rejecting;
  rejecting.reject = true;
  EXPECT_FALSE(Read(Xml("<group name=\"Rejected\"/>"), &rejecting));
  EXPECT_EQ(rejecting.calls, "data,");  // not completed after a rejection
  EXPECT_EQ(Tree(Root()), L"Zone");
}

TEST_F(Definitions, OverLongPathThrowsAndKeepsWhatWasMerged) {
  std::string longPath = "C:\\" + std::string(258, 'p');  // 261 characters
  std::string fits = "C:\\" + std::string(257, 'p');     // 260 characters
  EXPECT_THROW(Read(Xml("<group name=\"Before\"/><group name=\"G\" desc=\"d\"><item name=\"ok\"><clean kind=\"file\">" +
                        fits + "</clean></item><item name=\"long\" desc=\"set\"><clean kind=\"file\">" + longPath +
                        "</clean><clean kind=\"file\">C:\\After</clean></item><item name=\"later\"/></group>"
                        "<group name=\"After\"/>")),
               BufferOverflowException);
  EXPECT_EQ(Tree(Root()), L"Before,G{ok,long}");
  CScanGroup* g = Child(Root(), L"G");
  EXPECT_EQ(Ops(*Child(*g, L"ok")), (Names{L"file:" + std::wstring(fits.begin(), fits.end())}));
  CScanGroup* item = Child(*g, L"long");
  EXPECT_STREQ(item->GetDescription(), L"set");  // its properties were read before its children
  EXPECT_EQ(item->GetScanOpCount(), 0);

  // an empty path in a built-in clean fails the same way
  EXPECT_THROW(Read(Xml("<group name=\"E\"><clean kind=\"file\"></clean></group>")), PositionOutOfStringException);
  EXPECT_NE(Child(Root(), L"E"), nullptr);
}

TEST_F(Definitions, LargeGroupsMergeByName) {
  std::string first, second;
  for (int i = 0; i < 100; ++i) {
    first += "<item name=\"Item " + std::to_string(i) + "\" desc=\"one\"/>";
    second += "<item name=\"ITEM " + std::to_string(99 - i) + "\" tip=\"two\"/>";
  }
  ASSERT_TRUE(Read(Xml("<group name=\"Big\">" + first + "</group>")));
  ASSERT_TRUE(Read(Xml("<group name=\"big\">" + second + "<item name=\"New\"/></group>")));
  CScanGroup* big = Child(Root(), L"Big");
  ASSERT_EQ(big->GetChildCount(), 101);
  for (int i = 0; i < 100; ++i) {
    std::wstring name = L"Item " + std::to_wstring(i);
    CScanGroup* item = Child(*big, name.c_str());
    ASSERT_NE(item, nullptr);
    EXPECT_STREQ(item->GetName(), name.c_str());  // the first spelling stays
    EXPECT_STREQ(item->GetDescription(), L"one");
    EXPECT_STREQ(item->GetTip(), L"two");
  }

  // children that appear while the file is read are found like the others
  static Factory factory;
  factory.m_group = &static_cast<CScanGroup_imp&>(*big);
  m_store->AddFactory(&factory);
  ASSERT_TRUE(Read(Xml("<group name=\"Big\"><item name=\"Item 1\"><clean kind=\"inject\">x</clean></item>"
                       "<item name=\"injected\" desc=\"merged\"/></group>")));
  EXPECT_EQ(big->GetChildCount(), 102);
  EXPECT_STREQ(Child(*big, L"Injected")->GetDescription(), L"merged");
  m_store.Reset();
  factory.m_group = nullptr;
}

TEST_F(Definitions, FirstOfSiblingsWithTheSameNameIsUsed) {
  // a tree built by hand may hold two siblings of one name
  CScanGroup_imp* big = CScanGroup_imp::FindOrAddGroupPath(CString(L"Big"), Root());
  for (int i = 0; i < 40; ++i) {
    big->m_children.emplace_back();
    big->m_children.back().m_name = i % 2 ? L"twin" : (L"child " + std::to_wstring(i)).c_str();
    big->m_children.back().m_parent = big;
  }
  ASSERT_TRUE(Read(Xml("<group name=\"Big/TWIN\" desc=\"to the first\"/>")));
  auto second = std::next(big->m_children.begin());
  EXPECT_STREQ(second->GetDescription(), L"to the first");
  EXPECT_STREQ(std::next(second, 2)->GetDescription(), L"");
  EXPECT_EQ(big->GetChildCount(), 40);
}

}  // namespace
