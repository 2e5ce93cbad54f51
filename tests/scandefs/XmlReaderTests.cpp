// The definition reader: bytes to text, the root element, groups and items,
// base properties, merging, hooks, and the operations and checks it hands on.
#include <gtest/gtest.h>
#include <shlobj.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "tests/scandefs/Definitions.h"

using namespace defstest;
using broomtest::WriteFile;

namespace {

std::wstring LocalAppData() {
  wchar_t buffer[MAX_PATH] = {};
  SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, buffer);
  return buffer;
}

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
  std::wstring local = LocalAppData();
  ASSERT_FALSE(local.empty());
  ASSERT_FALSE(broomtest::Exists(local + L"\\Browser"));
  ASSERT_TRUE(Read(Xml(kExample)));
  EXPECT_EQ(ChildNames(Root()), (std::vector<std::wstring>{L"Internet", L"System"}));

  CScanGroup* internet = Child(Root(), L"Internet");
  EXPECT_EQ(internet->GetParent(), nullptr);
  EXPECT_EQ(internet->GetOrder(), 20);
  EXPECT_STREQ(internet->GetDescription(), L"Browsers and plug-ins");
  EXPECT_EQ(internet->IsDefaultScan(), abTrue);
  EXPECT_EQ(internet->IsDefaultClean(), abTrue);
  EXPECT_EQ(internet->IsEnabled(), abNotSet);
  EXPECT_EQ(internet->GetScanOpCount(), 0);
  EXPECT_EQ(ChildNames(*internet), (std::vector<std::wstring>{L"Browser cache"}));

  CScanGroup* cache = Child(*internet, L"Browser cache");
  EXPECT_EQ(cache->GetParent(), internet);
  EXPECT_EQ(cache->GetOrder(), 999999);
  EXPECT_STREQ(cache->GetDescription(), L"Cached web pages");
  EXPECT_EQ(cache->IsSafe(), abTrue);
  EXPECT_EQ(cache->IsDefaultScan(), abTrue);  // from Internet
  EXPECT_EQ(cache->IsDefaultClean(), abTrue);
  EXPECT_EQ(cache->IsEnabled(), abFalse);  // the folder does not exist
  EXPECT_EQ(cache->GetQScan(), abFalse);   // switched off, so no quick scan either
  EXPECT_FALSE(cache->HasChildren());
  auto ops = Operations(*cache);
  ASSERT_EQ(ops.size(), 1u);
  ASSERT_NE(ops[0], nullptr);
  EXPECT_EQ(dynamic_cast<CStdFileScan_trunc*>(ops[0]), nullptr);
  ASSERT_EQ(ops[0]->GetPaths().size(), 1u);
  EXPECT_EQ(std::wstring(ops[0]->GetPaths().front().c_str()), local + L"\\Browser\\Cache2");

  CScanGroup* system = Child(Root(), L"System");
  EXPECT_EQ(system->GetOrder(), 999999);
  EXPECT_STREQ(system->GetDescription(), L"");
  EXPECT_EQ(ChildNames(*system), (std::vector<std::wstring>{L"Explorer"}));
  CScanGroup* explorer = Child(*system, L"Explorer");
  EXPECT_EQ(explorer->GetParent(), system);
  EXPECT_EQ(ChildNames(*explorer), (std::vector<std::wstring>{L"Thumbnails"}));
  CScanGroup* thumbs = Child(*explorer, L"Thumbnails");
  EXPECT_EQ(thumbs->GetOrder(), 5);
  EXPECT_STREQ(thumbs->GetDescription(), L"Thumbnail cache");
  EXPECT_EQ(thumbs->IsEnabled(), abNotSet);
  EXPECT_EQ(thumbs->IsDefaultScan(), abNotSet);
  auto truncOps = Operations(*thumbs);
  ASSERT_EQ(truncOps.size(), 1u);
  EXPECT_NE(dynamic_cast<CStdFileScan_trunc*>(truncOps[0]), nullptr);
  EXPECT_EQ(std::wstring(truncOps[0]->GetPaths().front().c_str()), local + L"\\Explorer");
}

TEST_F(Definitions, ExampleItemStaysOnWhereItsFolderExists) {
  // the same item with the check pointing at a folder that exists
  std::string example = kExample;
  std::string from = "%LOCALAPPDATA%\\Browser\"";
  example.replace(example.find(from), from.size(), broomtest::Narrow(m_dir.Path()) + "\"");
  ASSERT_TRUE(Read(Xml(example)));
  EXPECT_EQ(Child(*Child(Root(), L"Internet"), L"Browser cache")->IsEnabled(), abNotSet);
  EXPECT_EQ(Child(*Child(Root(), L"Internet"), L"Browser cache")->GetQScan(), abTrue);
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


TEST_F(Definitions, BasePropertiesAndBooleanWords) {
  ASSERT_TRUE(Read(Xml(R"(<group name="G" order=" -12x" desc="d" tip="t" icon="i" tabIcon="ti" report="r">
      <item name="yes" scan="TRUE" clean="Yes" qscan="on" safe="1"/>
      <item name="no" scan="false" clean="NO" qscan="Off" safe="0"/>
      <item name="odd" scan="maybe" clean="" qscan="2" safe=" true"/>
      <item name="case" Scan="no" DESC="x" tabicon="y"/>
    </group>)")));
  CScanGroup* g = Child(Root(), L"G");
  EXPECT_EQ(g->GetOrder(), -12);  // read like _wtoi
  EXPECT_STREQ(g->GetDescription(), L"d");
  EXPECT_STREQ(g->GetTip(), L"t");
  EXPECT_STREQ(g->GetIcon(), L"i");
  EXPECT_STREQ(g->GetTabIcon(), L"ti");
  EXPECT_STREQ(g->GetReport(), L"r");
  const EBoolProperty props[] = {bpDefaultScan, bpDefaultClean, bpQScan, bpSafe};
  for (EBoolProperty p : props) {
    EXPECT_EQ(Child(*g, L"yes")->m_boolProps[p], abTrue) << p;
    EXPECT_EQ(Child(*g, L"no")->m_boolProps[p], abFalse) << p;
    EXPECT_EQ(Child(*g, L"odd")->m_boolProps[p], abNotSet) << p;
    EXPECT_EQ(Child(*g, L"case")->m_boolProps[p], abNotSet) << p;  // attribute names are case-sensitive
  }
  CScanGroup* cased = Child(*g, L"case");
  EXPECT_STREQ(cased->GetDescription(), L"");
  EXPECT_STREQ(cased->GetTabIcon(), L"");
  EXPECT_EQ(cased->GetReport(), nullptr);
  // enabled is never read from an attribute
  ASSERT_TRUE(Read(Xml(R"(<group name="E" enabled="no"/>)")));
  EXPECT_EQ(Child(Root(), L"E")->m_boolProps[bpEnabled], abNotSet);
}

TEST_F(Definitions, UnrecognisedWordClearsAnEarlierSetting) {
  ASSERT_TRUE(Read(Xml(R"(<group name="G" scan="yes" safe="yes" order="3" desc="kept"/>)")));
  ASSERT_TRUE(Read(Xml(R"(<group name="g" scan="maybe"/>)")));
  CScanGroup* g = Child(Root(), L"G");
  EXPECT_EQ(g->m_boolProps[bpDefaultScan], abNotSet);
  EXPECT_EQ(g->m_boolProps[bpSafe], abNotSet);  // absent resets too
  EXPECT_EQ(g->GetOrder(), 3);                  // texts and order stay when absent
  EXPECT_STREQ(g->GetDescription(), L"kept");
}

TEST_F(Definitions, GroupAndItemPaths) {
  ASSERT_TRUE(Read(Xml(R"(
      <group name="//"/>
      <group name="/a//b/"><item name="in b"><item name="nested"/></item></group>
      <item name="x" group="/"/>
      <item name="" group="a"/>
      <item name="c/d" group="A/B"/>
      <group name="A"><item name="under a"/></group>
      <clean kind="file">C:\Ignored</clean>
      <check test="exists" data="file" path="C:\NoSuch"/>
      <unknown name="u"/>)")));
  EXPECT_EQ(ChildNames(Root()), (std::vector<std::wstring>{L"a"}));
  CScanGroup* a = Child(Root(), L"a");
  EXPECT_EQ(ChildNames(*a), (std::vector<std::wstring>{L"b", L"under a"}));
  CScanGroup* b = Child(*a, L"b");
  EXPECT_EQ(ChildNames(*b), (std::vector<std::wstring>{L"in b", L"c"}));
  EXPECT_EQ(ChildNames(*Child(*b, L"in b")), (std::vector<std::wstring>{L"nested"}));
  EXPECT_EQ(ChildNames(*Child(*b, L"c")), (std::vector<std::wstring>{L"d"}));
  EXPECT_EQ(a->IsEnabled(), abNotSet);  // a check directly in the file is ignored
  EXPECT_EQ(a->GetScanOpCount(), 0);
}

TEST_F(Definitions, ByteLevel) {
  // text ends at the first NUL; what follows is never parsed
  ASSERT_TRUE(Read(Xml("<group name=\"Nul\"/>") + std::string("\0<<garbage", 10)));
  // leading bytes before the first '<' are skipped, whatever they are
  ASSERT_TRUE(Read("junk\r\n" + Xml("<group name=\"Junk\"/>")));
  // comments, processing instructions and a document type before the root are dropped
  ASSERT_TRUE(Read("<!-- c --><?pi x?><!DOCTYPE ConfigItems><ConfigItems><group name=\"Doc\"/></ConfigItems>"));
  // a declaration in another spelling is not relabelled; the parser drops it all the same
  ASSERT_TRUE(Read("<?xml version='1.0' encoding='utf-8'?><ConfigItems><group name=\"Quote\"/></ConfigItems>"));
  // 8-bit text is decoded with the thread's ANSI code page
  std::string ansi = "caf\xE9 \x80";
  ASSERT_TRUE(Read(Xml("<group name=\"Ansi\" desc=\"" + ansi + "\"/>")));
  wchar_t expected[16] = {};
  MultiByteToWideChar(CP_THREAD_ACP, 0, ansi.data(), static_cast<int>(ansi.size()), expected, 16);
  EXPECT_STREQ(Child(Root(), L"Ansi")->GetDescription(), expected);
  // entities and character references are decoded; attribute whitespace is normalised
  ASSERT_TRUE(Read(Xml("<group name=\"Ent\" desc=\"a&amp;b&#65;&lt;\tc\"/>")));
  EXPECT_STREQ(Child(Root(), L"Ent")->GetDescription(), L"a&bA< c");
  // every occurrence of the UTF-8 declaration is relabelled, even inside text
  ASSERT_TRUE(Read(Xml("<group name=\"Decl\"><clean kind=\"file\"><![CDATA[<?xml version=\"1.0\" "
                       "encoding=\"utf-8\"?>]]></clean></group>")));
  auto ops = Operations(*Child(Root(), L"Decl"));
  ASSERT_EQ(ops.size(), 1u);
  EXPECT_STREQ(ops[0]->GetPaths().front().c_str(), L"<?xml version=\"1.0\" encoding=\"utf-16\"?>");
  for (const wchar_t* name : {L"Nul", L"Junk", L"Doc", L"Quote"}) EXPECT_NE(Child(Root(), name), nullptr) << broomtest::Narrow(name);
}

TEST_F(Definitions, ElementTextIsKeptWithItsWhitespace) {
  ASSERT_TRUE(Read(Xml("<group name=\"G\"><clean kind=\"file\">\r\n      C:\\Temp\r\n    </clean>"
                       "<clean kind=\"file\"><![CDATA[ C:\\Raw ]]></clean></group>")));
  auto ops = Operations(*Child(Root(), L"G"));
  ASSERT_EQ(ops.size(), 2u);
  EXPECT_STREQ(ops[0]->GetPaths().front().c_str(), L"\n      C:\\Temp\n    ");  // line ends normalised
  EXPECT_STREQ(ops[1]->GetPaths().front().c_str(), L" C:\\Raw ");
}

TEST_F(Definitions, HookSeesTheRawBytesAndMayRewriteThem) {
  // a hook that "decrypts": flips the case of one marker letter and drops a trailer
  struct Hook : ILoadHook {
    void OnLoadComplete() override { completed = ++calls; }
    bool OnFileData(char* data, unsigned long* size, bool reading) override {
      seen.assign(data, *size);
      dataCall = ++calls;
      EXPECT_TRUE(reading);
      for (unsigned long i = 0; i < *size; ++i)
        if (data[i] == '#') data[i] = 'Z';
      *size -= 4;
      return true;
    }
    std::string seen;
    int calls = 0, dataCall = 0, completed = 0;
  } hook;
  std::string bytes = "\xEF\xBB\xBF" + Xml("<group name=\"#one\"/>") + "TAIL";
  ASSERT_TRUE(Read(bytes, &hook));
  EXPECT_EQ(hook.seen, bytes);
  EXPECT_EQ(hook.dataCall, 1);
  EXPECT_EQ(hook.completed, 2);
  EXPECT_NE(Child(Root(), L"Zone"), nullptr);

  struct Rejecting : ILoadHook {
    void OnLoadComplete() override { ADD_FAILURE() << "completed after a rejection"; }
    bool OnFileData(char*, unsigned long*, bool) override { return false; }
  } rejecting;
  EXPECT_FALSE(Read(Xml("<group name=\"Rejected\"/>"), &rejecting));
  EXPECT_EQ(Child(Root(), L"Rejected"), nullptr);
}

TEST_F(Definitions, OverLongPathThrowsAndKeepsWhatWasMerged) {
  std::string longPath = "C:\\" + std::string(258, 'p');  // 261 characters
  std::string fits = "C:\\" + std::string(257, 'p');     // 260 characters
  try {
    Read(Xml("<group name=\"Before\"/><group name=\"G\" desc=\"d\"><item name=\"ok\"><clean kind=\"file\">" + fits +
             "</clean></item><item name=\"long\" desc=\"set\"><clean kind=\"file\">" + longPath +
             "</clean><clean kind=\"file\">C:\\After</clean></item><item name=\"later\"/></group>"
             "<group name=\"After\"/>"));
    FAIL() << "no exception";
  } catch (const BufferOverflowException&) {
  }
  EXPECT_EQ(ChildNames(Root()), (std::vector<std::wstring>{L"Before", L"G"}));
  CScanGroup* g = Child(Root(), L"G");
  EXPECT_EQ(ChildNames(*g), (std::vector<std::wstring>{L"ok", L"long"}));
  EXPECT_EQ(Child(*g, L"ok")->GetScanOpCount(), 1);
  EXPECT_EQ(std::string(broomtest::Narrow(Operations(*Child(*g, L"ok"))[0]->GetPaths().front().c_str())), fits);
  CScanGroup* item = Child(*g, L"long");
  EXPECT_STREQ(item->GetDescription(), L"set");  // its properties were read before its children
  EXPECT_EQ(item->GetScanOpCount(), 0);

  // an empty path in a built-in clean fails the same way
  EXPECT_THROW(Read(Xml("<group name=\"E\"><clean kind=\"file\"></clean></group>")), PositionOutOfStringException);
  EXPECT_NE(Child(Root(), L"E"), nullptr);
}


// Appends a child named "Injected" to a group when it meets kind "inject",
// as a host's factory might while a file is being read.
class InjectingFactory : public IScanOperationFactory {
 public:
  CRefPtr<IScanOperation> CreateOperation(const wchar_t* kind, xml::NodePtr) override {
    if (wcscmp(kind, L"inject") == 0 && m_group) {
      m_group->m_children.emplace_back();
      m_group->m_children.back().m_name = L"Injected";
      m_group->m_children.back().m_parent = m_group;
    }
    return nullptr;
  }
  CScanGroup_imp* m_group = nullptr;
};
using Injecting = CUnknownFoundation<InjectingFactory, CRefCount<0>, CIUnknownOnly, CDontDelete>;

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
  static Injecting factory;
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
