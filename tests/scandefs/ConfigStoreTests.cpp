// The store: which files of a folder it loads and how, and the finishing
// step after a load (environment, "$(name)" localisation, "$$", sorting).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/Handles.h"
#include "tests/scandefs/Definitions.h"

using namespace defstest;

namespace {

using ConfigStore = Definitions;

// Answers the key "MANUAL_<name>" from a table of names, "?" for any other;
// counts the calls.
struct Localizer : ILocalizeStrings {
  explicit Localizer(std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> entries) : table(entries) {}
  CString Localize(const wchar_t* key, int reserved) override {
    EXPECT_EQ(reserved, 0);
    ++calls;
    for (const auto& entry : table)
      if (L"MANUAL_" + std::wstring(entry.first) == key) return CString(entry.second);
    return CString(L"?");
  }
  std::vector<std::pair<const wchar_t*, const wchar_t*>> table;
  int calls = 0;
};

TEST_F(ConfigStore, FolderSearchByExtensionAndHook) {
  // .xml and .dat files are read as they are; .da0, .dat0 and .dat2 files
  // pass through the hook. A subfolder is searched only when its name has
  // the extension being searched for.
  const std::pair<const wchar_t*, const char*> files[] = {
      {L"a.xml", "A"},   {L"b.dat", "B"},   {L"c.dat2", "C"},         {L"d.txt", "D"},
      {L"a.da0", "A0"},  {L"b.dat0", "B0"}, {L"more\\e.xml", "E"},    {L"more.xml\\f.xml", "F"},
      {L"deep.dat0\\inner.dat0\\d.dat0", "Deep"}, {L"deep.dat0\\skipped\\e.dat0", "Skipped"}};
  for (const auto& file : files) Write(L"defs\\" + std::wstring(file.first), Group(file.second));
  // every .xml file is read before any .dat file, whatever their names
  Write(L"defs\\z.xml", Group("Order", "xml"));
  Write(L"defs\\0.dat", Group("Order", "dat"));
  RecordingHook hook;
  ASSERT_TRUE(Load(L"defs", &hook));
  EXPECT_EQ(Groups(), (Names{L"A", L"A0", L"B", L"B0", L"C", L"Deep", L"F", L"Order"}));
  EXPECT_EQ(Description(L"Order"), L"dat");
  // the hook gets the bytes as they are on disk, .da0 first and .dat2 last
  ASSERT_EQ(hook.seen.size(), 4u);
  EXPECT_EQ(hook.seen.front(), Group("A0"));
  EXPECT_EQ(hook.seen.back(), Group("C"));
  EXPECT_EQ(hook.calls, "data,done,data,done,data,done,data,done,");
}

TEST_F(ConfigStore, RejectedOrMissingFoldersLoadNothing) {
  // "*.dat" also matches the short names of c.dat2 (C~1.DAT) and b.dat0:
  // those must still reach the hook only, never be read as plain files
  RecordingHook hook;
  hook.reject = true;
  Write(L"only\\x.da0", Group("X"));
  Write(L"only\\c.dat2", Group("C"));
  Write(L"only\\b.dat0", Group("B"));
  Write(L"only\\n.xml2", Group("N"));
  EXPECT_FALSE(Load(L"only", &hook));
  EXPECT_EQ(hook.seen.size(), 3u);
  EXPECT_FALSE(Load(L"missing"));
  EXPECT_EQ(Groups(), Names{});
}

TEST_F(ConfigStore, EntriesWhosePathPassesTheLimitAreSkippedNotSearchedElsewhere) {
  // A folder whose "\\*.xml" pattern fits but whose entries' full paths do
  // not: the join fails, and the entry must not turn into a search of the
  // current directory, where another definition file lies.
  std::wstring folder = m_dir / L"long";
  while (folder.size() < MAX_PATH - 8) folder += L"\\d";
  folder.resize(MAX_PATH - 8);
  if (folder.back() == L'\\') folder.back() = L'x';
  // past 248 characters folders are made through the long-path prefix
  for (size_t at = m_dir.Path().size() + 1; at != std::wstring::npos; at = folder.find(L'\\', at + 1))
    CreateDirectoryW((L"\\\\?\\" + folder.substr(0, at)).c_str(), nullptr);
  CreateDirectoryW((L"\\\\?\\" + folder).c_str(), nullptr);
  broomtest::WriteFile(folder + L"\\a.xml", Group("A"));
  std::wstring longSub = L"\\\\?\\" + folder + L"\\subfolder.xml";
  ASSERT_TRUE(CreateDirectoryW(longSub.c_str(), nullptr));
  auto removeSub = broom::scope_exit([&] { RemoveDirectoryW(longSub.c_str()); });
  Write(L"cwd\\stray.xml", Group("Stray"));
  wchar_t before[MAX_PATH];
  GetCurrentDirectoryW(MAX_PATH, before);
  ASSERT_TRUE(SetCurrentDirectoryW((m_dir / L"cwd").c_str()));
  auto back = broom::scope_exit([&] { SetCurrentDirectoryW(before); });
  EXPECT_TRUE(m_store->Load(folder.c_str(), nullptr, nullptr));
  EXPECT_EQ(Groups(), Names{L"A"});
}

TEST_F(ConfigStore, HookThatCutsBeforeTheMarkupRaisesInvalidArgument) {
  RecordingHook cutter;  // leaves only the blanks
  cutter.drop = Group("X").size();
  Write(L"defs\\x.dat0", "   " + Group("X"));
  EXPECT_EQ(AtlError([&] { Load(L"defs", &cutter); }), E_INVALIDARG);

  // A hook that raises the count gets only the bytes read: the search for
  // '<' never looks past them.
  struct Raiser : ILoadHook {
    void OnLoadComplete() override {}
    bool OnFileData(char*, unsigned long* size, bool) override {
      *size += 256u << 20;
      return true;
    }
  } raiser;
  Write(L"raised\\y.da0", std::string(64, ' '));
  EXPECT_EQ(AtlError([&] { Load(L"raised", &raiser); }), E_INVALIDARG);
}

TEST_F(ConfigStore, FinishingExpandsLocalizesAndSorts) {
  Write(L"defs\\a.xml", "<ConfigItems>"
                        "<group name=\"$(Browsers)\" order=\"2\" desc=\"100%% safe\"/>"
                        "<group name=\"win\" order=\"1\" desc=\"%WINDIR%\\Temp\"/>"
                        "<group name=\"cash\" desc=\"$$5 $(abc\"/>"
                        "<group name=\"loop\" desc=\"$(self)\"/></ConfigItems>");
  Localizer localizer({{L"Browsers", L"Web browsers"}, {L"self", L"[$(self)]"}});
  ASSERT_TRUE(Load(L"defs", nullptr, &localizer));
  EXPECT_EQ(Groups(), (Names{L"win", L"Web browsers", L"cash", L"loop"}));
  wchar_t windir[MAX_PATH];
  GetEnvironmentVariableW(L"WINDIR", windir, MAX_PATH);
  EXPECT_EQ(Description(L"win"), std::wstring(windir) + L"\\Temp");
  EXPECT_EQ(Description(L"Web browsers"), L"100% safe");
  EXPECT_EQ(Description(L"cash"), L"$5 $(abc");
  EXPECT_NE(Description(L"loop").find(L"[["), std::wstring::npos);  // a value that refers to itself ends

  // without a localizer the names stay as written
  CRefPtr<IConfig> plain = IConfig::NewConfig();
  ASSERT_TRUE(plain->Load((m_dir / L"defs").c_str(), nullptr, nullptr));
  CRefPtr<TIteratorIface<CScanGroup>> it;
  plain->GetGroups(it);
  EXPECT_EQ(NamesOf(it)[1], L"$(Browsers)");
}

TEST_F(ConfigStore, LocalisationRescansSubstitutedText) {
  Write(L"defs\\a.xml", Group("G", "$(outer) and $(outer), $() $(plain"));
  Localizer localizer({{L"outer", L"<$(inner)>"}, {L"inner", L"in"}});
  ASSERT_TRUE(Load(L"defs", nullptr, &localizer));
  // every occurrence goes at once; the reference inside the value is expanded
  // in turn; an empty name ends the step
  EXPECT_EQ(Description(L"G"), L"<in> and <in>, $() $(plain");
  EXPECT_EQ(localizer.calls, 2);
}

TEST_F(ConfigStore, LocalisationLooksUpAgainOnlyReferencesMadeSince) {
  // "$(x)" inside the value of "y" came after "x" was looked up; the last
  // "$(x)" was there already, and an empty name ends only the look-ups
  Write(L"defs\\a.xml", Group("G", "$(x) $(y) $() $(x)"));
  Write(L"defs\\b.xml", Group("H", "$(dbl)$(dbl)$(dbl)"));
  Localizer localizer({{L"x", L"X"}, {L"y", L"[$(x)]"}, {L"dbl", L"$(dbl)$(dbl)"}});
  ASSERT_TRUE(Load(L"defs", nullptr, &localizer));
  EXPECT_EQ(Description(L"G"), L"X [X] $() X");
  // a value that doubles itself stops once four times the text and 1M
  // characters have gone in
  size_t length = Description(L"H").size();
  EXPECT_GT(length, 1u << 19);
  EXPECT_LE(length, 18u + 4 * 18u + (1u << 20));
  EXPECT_EQ(localizer.calls, 3 + 256);
}

TEST_F(ConfigStore, NotesNameEverySkippedFileInLoadOrder) {
  Write(L"defs\\a.xml", Group("A"));
  Write(L"defs\\b.xml", "<ConfigItems>\r\n<group name=\"x\">");
  Write(L"defs\\c.dat", "");
  Write(L"defs\\d.da0", Group("D"));
  RecordingHook hook;
  hook.reject = true;
  ASSERT_TRUE(Load(L"defs", &hook));
  std::vector<std::wstring> seen;
  for (const SLoadNote& note : m_store->GetLoadNotes())
    seen.push_back(note.file.str() + L"|" + std::to_wstring(note.line) + L"|" + note.reason.str());
  EXPECT_EQ(seen, (Names{m_dir / L"defs\\b.xml|2|does not parse: an end tag does not match its start tag at line 2",
                         m_dir / L"defs\\c.dat|0|is empty", m_dir / L"defs\\d.da0|0|was rejected by the load hook"}));
  EXPECT_EQ(Notes().size(), 3u);  // taken once
  EXPECT_EQ(Notes(), Names{});
  EXPECT_EQ(CConfigStore::Of(m_store), m_store.Get());
}

TEST_F(ConfigStore, FilesReadAheadKeepTheirOrderAndTheirFailures) {
  // Enough files for a folder to be read ahead of the merge, with the
  // failures spread over it: a file another program holds open without
  // sharing, an empty one, one that does not parse, and a subfolder with
  // the extension between them, which is searched in its place. Hooked
  // files are read ahead (the hook dawdles over the first, so the others
  // are); plain ones are parsed ahead too (many fillers come first, so the
  // thread gets ahead of the merge).
  struct SlowHook : RecordingHook {
    bool OnFileData(char* data, unsigned long* size, bool reading) override {
      if (seen.empty()) Sleep(200);
      return RecordingHook::OnFileData(data, size, reading);
    }
  };
  for (const wchar_t* kind : {L"da0", L"xml"}) {
    SCOPED_TRACE(testing::Message() << kind);
    const std::wstring ext = std::wstring(L".") + kind, folder = std::wstring(L"defs-") + kind + L"\\";
    if (ext == L".xml")
      for (int i = 0; i < 24; ++i) Write(folder + L"0" + std::to_wstring(10 + i) + ext, Group("F"));
    const std::pair<std::wstring, const char*> files[] = {
        {L"a", "<ConfigItems><group name=\"G\" desc=\"a\"/></ConfigItems>"},
        {L"b", "x"},
        {L"c", ""},
        {L"d", "<ConfigItems><group name=\"G\" desc=\"d\"/></ConfigItems>"},
        {L"e" + ext + L"\\inner", "<ConfigItems><group name=\"G\" desc=\"e\"/></ConfigItems>"},
        {L"f", "<ConfigItems>\r\n<group"},
        {L"g", "<ConfigItems><value name=\"V\">g</value><group name=\"G\" desc=\"%V%\"/></ConfigItems>"},
        {L"h", "<ConfigItems><group name=\"H\"/></ConfigItems>"}};
    for (const auto& file : files) Write(folder + file.first + ext, file.second);
    broom::unique_hfile held(CreateFileW((m_dir / (folder + L"b" + ext)).c_str(), GENERIC_READ, 0, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(held);
    m_store = CConfigStore::Of(IConfig::NewConfig());
    SlowHook hook;
    ASSERT_TRUE(Load(folder, &hook));
    EXPECT_EQ(hook.seen.size(), ext == L".da0" ? 6u : 0u);
    // the later file's description wins, so G tells the merge order
    EXPECT_EQ(Description(L"G"), L"g");
    EXPECT_EQ(Groups().back(), L"H");
    std::vector<std::wstring> seen;
    for (const SLoadNote& note : m_store->GetLoadNotes())
      seen.push_back(note.file.str() + L"|" + std::to_wstring(note.line) + L"|" + note.reason.str());
    const std::wstring at = m_dir / folder;
    EXPECT_EQ(seen, (Names{at + L"b" + ext + L"|0|cannot be opened (error 32)", at + L"c" + ext + L"|0|is empty",
                           at + L"f" + ext + L"|2|does not parse: a start tag is malformed at line 2"}));
  }
}

TEST_F(ConfigStore, EnvironmentExpansionWithin511Characters) {
  // The symbol scope of the reader is filled before these variables exist,
  // so their references reach the store unexpanded. The reader turns "%%"
  // into "%", so "%%%%" reaches the store as "%%".
  CScopedMap::GetGlobalScope();
  EnvVar fits(L"BROOMTEST_FITS", std::wstring(500, L'f').c_str());
  EnvVar big(L"BROOMTEST_BIG", std::wstring(600, L'b').c_str());
  Write(L"defs\\a.xml", "<ConfigItems><group name=\"A\" desc=\"%BROOMTEST_FITS%1234567890\"/>"
                        "<group name=\"B\" desc=\"%BROOMTEST_FITS%12345678901\"/>"
                        "<group name=\"C\" desc=\"%BROOMTEST_BIG% 100%%%%\"/>"
                        "<group name=\"D\" desc=\"%NO_SUCH_BROOM_VAR% 100%%%%\"/></ConfigItems>");
  ASSERT_TRUE(Load(L"defs"));
  EXPECT_EQ(Description(L"A"), std::wstring(500, L'f') + L"1234567890");  // 510
  // 511 characters and the terminator do not fit: left as written
  EXPECT_EQ(Description(L"B"), L"%BROOMTEST_FITS%12345678901");
  EXPECT_EQ(Description(L"C"), L"%BROOMTEST_BIG% 100%%");
  // an unknown variable stays, and "%%" becomes "%"
  EXPECT_EQ(Description(L"D"), L"%NO_SUCH_BROOM_VAR% 100%");
}

TEST_F(ConfigStore, LoadsMergeAndEachExpandsTheWholeTreeAgain) {
  Write(L"one\\a.xml", "<ConfigItems><group name=\"Cash\" desc=\"$$$$\"><group name=\"A\"/></group></ConfigItems>");
  Write(L"two\\b.xml",
        "<ConfigItems><group name=\"CASH\"><group name=\"B\"/></group><group name=\"Other\"/></ConfigItems>");
  CRefPtr<TIteratorIface<CScanGroup>> it;
  m_store->GetGroups(it);
  EXPECT_TRUE(it->AtEnd());
  ASSERT_TRUE(Load(L"one"));
  m_store->GetGroups(it);  // replaces the iterator it is given
  EXPECT_EQ(NamesOf(it), Names{L"Cash"});
  EXPECT_EQ(Description(L"Cash"), L"$$");
  ASSERT_TRUE(Load(L"two"));
  EXPECT_EQ(Description(L"Cash"), L"$");
  EXPECT_FALSE(Load(L"missing"));
  EXPECT_EQ(Tree(Root()), L"Cash{A,B},Other");  // kept
}

TEST_F(ConfigStore, FolderTextLosesLeadingDotsAndBackslashes) {
  Write(L"defs\\a.xml", Group("Relative"));
  wchar_t saved[MAX_PATH];
  ASSERT_GT(GetCurrentDirectoryW(MAX_PATH, saved), 0u);
  ASSERT_TRUE(SetCurrentDirectoryW(m_dir.Path().c_str()));
  CRefPtr<IConfig> other = IConfig::NewConfig();
  bool dotted = m_store->Load(L".\\defs", nullptr, nullptr);
  bool backslashed = other->Load(L"\\..\\defs", nullptr, nullptr);  // searched as "defs" too
  SetCurrentDirectoryW(saved);
  EXPECT_TRUE(dotted);
  EXPECT_TRUE(backslashed);
  EXPECT_EQ(Groups(), (Names{L"Relative"}));
}

TEST_F(ConfigStore, ExceptionLeavesTheTreeFinishedAndTheStoreUsable) {
  Write(L"bad\\a.xml", "<ConfigItems><group name=\"z\" desc=\"$$x\"/><group name=\"a\" desc=\"$(Browsers)\">"
                       "<clean kind=\"file\">C:\\" + std::string(300, 'x') + "</clean></group></ConfigItems>");
  Write(L"good\\b.xml", Group("m", "$(Browsers)"));
  Localizer localizer({{L"Browsers", L"Web browsers"}});
  EXPECT_THROW(Load(L"bad", nullptr, &localizer), BufferOverflowException);
  // expanded and sorted on the way out
  EXPECT_EQ(Groups(), (Names{L"a", L"z"}));
  EXPECT_EQ(Description(L"a"), L"Web browsers");
  EXPECT_EQ(Description(L"z"), L"$x");
  // the next load is an outermost one again, without the old localizer
  ASSERT_TRUE(Load(L"good"));
  EXPECT_EQ(Groups(), (Names{L"a", L"m", L"z"}));
  EXPECT_EQ(Description(L"m"), L"$(Browsers)");
}

class CountedFactory : public IScanOperationFactory {
 public:
  CRefPtr<IScanOperation> CreateOperation(const wchar_t*, xml::NodePtr) override { return nullptr; }
  virtual ~CountedFactory() { ++*m_destroyed; }
  int* m_destroyed = nullptr;
};

TEST(ConfigStoreFactories, AreHeldUntilTheStoreGoes) {
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

TEST(XmlConfigSettings, GroupsAndDefaults) {
  XmlConfigSettings settings;
  settings.Set(L"x", 9);  // values are not kept
  EXPECT_EQ(settings.Get(L"x", 7), 7);
  EXPECT_STREQ(settings.Get(L"x", L"d").GetString(), L"d");
  settings.BeginGroup(L"a");
  settings.BeginGroup(L"b");
  EXPECT_EQ(settings.GetPath(L"key"), L"a/b/key");
  settings.EndGroup();
  EXPECT_EQ(settings.Group(), L"a/");
  {
    XmlConfigGroup scope(&settings, L"b");
    EXPECT_EQ(settings.Group(), L"a/b/");
    settings.EndGroup();
    settings.EndGroup();
  }
  EXPECT_EQ(settings.Group(), L"a/");  // the scope puts back the path it found
  settings.EndGroup();
  EXPECT_EQ(settings.Group(), L"");
  EXPECT_EQ(static_cast<XmlConfigSettings*>(XmlConfigGroup(nullptr, L"x")), nullptr);
}

TEST_F(ConfigStore, OperationsKnowTheirRuleAndAnAgeTheyCannotKeepSkipsTheRule) {
  Write(L"defs\\a.xml", "<ConfigItems>\n<group name=\"G\">\n<item name=\"I\">\n"
                        "<clean kind=\"file\">C:\\\\A\\*.tmp</clean>\n"
                        "<clean kind=\"trunc\" olderThan=\"30\" ageBy=\"Accessed\">C:\\B</clean>\n"
                        "<clean kind=\"file\" olderThan=\"7\">C:\\C</clean>\n"
                        "<clean kind=\"file\" olderThan=\"7d\">C:\\D</clean>\n"
                        "<clean kind=\"file\" olderThan=\"0\">C:\\E</clean>\n"
                        "<clean kind=\"file\" ageBy=\"created\">C:\\F</clean>\n"
                        "</item></group></ConfigItems>");
  ASSERT_TRUE(Load(L"defs"));
  CScanGroup* item = Child(*Child(Root(), L"G"), L"I");
  ASSERT_NE(item, nullptr);
  // the three usable rules, each with its file, line, kind, text and age
  std::vector<std::wstring> seen;
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> it;
  for (item->GetScanOps(it); !it->AtEnd(); it->Next()) {
    IScanOperation* op = it->Current()->Get();
    SOperationSource found;
    ASSERT_TRUE(m_store->GetOperationSource(op, found));
    const SOperationSource* source = &found;
    EXPECT_STREQ(source->file.GetString(), (m_dir / L"defs\\a.xml").c_str());
    std::wstring age = L"-";
    for (const auto& filter : dynamic_cast<CBaseFileScan*>(op)->GetFilters())
      if (auto* recent = dynamic_cast<CBaseFileScan::_FilterRejectRecentFiles_Impl*>(filter.Get()))
        age = std::to_wstring(recent->GetDays()) + (recent->ByLastAccess() ? L"a" : L"m");
    seen.push_back(std::to_wstring(source->line) + L" " + source->kind.GetString() + L" " + source->text.GetString() +
                   L" " + age);
  }
  EXPECT_EQ(seen, (Names{L"4 file C:\\\\A\\*.tmp -", L"5 trunc C:\\B 30a", L"6 file C:\\C 7m"}));
  std::vector<std::wstring> notes;
  for (const SLoadNote& note : m_store->GetLoadNotes()) notes.push_back(std::to_wstring(note.line) + L": " + note.reason.GetString());
  EXPECT_EQ(notes, (Names{L"7: olderThan=\"7d\" is not a number of days from 1 to 36500 (line 7); that rule is skipped",
                          L"8: olderThan=\"0\" is not a number of days from 1 to 36500 (line 8); that rule is skipped",
                          L"9: ageBy=\"created\" is neither \"modified\" nor \"accessed\" (line 9); that rule is skipped"}));
}

}  // namespace

namespace {

std::vector<std::wstring> NotesOf(CConfigStore& store) {
  std::vector<std::wstring> notes;
  for (const SLoadNote& note : store.GetLoadNotes()) notes.push_back(note.reason.GetString());
  return notes;
}

TEST_F(ConfigStore, AnAgeInHoursAndRemovingEmptiedFoldersAreReadOrSkipTheRule) {
  Write(L"defs\\a.xml", "<ConfigItems>\n<group name=\"G\">\n<item name=\"I\">\n"
                        "<clean kind=\"file\" olderThanHours=\"24\" removeEmpty=\"yes\">C:\\A</clean>\n"
                        "<clean kind=\"file\" olderThanHours=\"5\">C:\\B</clean>\n"
                        "<clean kind=\"file\" olderThanHours=\"5\" olderThan=\"1\">C:\\C</clean>\n"
                        "<clean kind=\"file\" olderThanHours=\"876001\">C:\\D</clean>\n"
                        "<clean kind=\"trunc\" removeEmpty=\"yes\">C:\\E</clean>\n"
                        "<clean kind=\"file\" removeEmpty=\"maybe\">C:\\F</clean>\n"
                        "</item></group></ConfigItems>");
  ASSERT_TRUE(Load(L"defs"));
  CScanGroup* item = Child(*Child(Root(), L"G"), L"I");
  ASSERT_NE(item, nullptr);
  std::vector<std::wstring> seen;
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> it;
  for (item->GetScanOps(it); !it->AtEnd(); it->Next()) {
    auto* scan = dynamic_cast<CBaseFileScan*>(it->Current()->Get());
    ASSERT_NE(scan, nullptr);
    std::wstring age = L"-";
    for (const auto& filter : scan->GetFilters())
      if (auto* recent = dynamic_cast<CBaseFileScan::_FilterRejectRecentFiles_Impl*>(filter.Get()))
        age = std::to_wstring(recent->GetHours()) + L"h";
    seen.push_back(scan->GetPaths().front().c_str() + (L" " + age) + (scan->GetRemoveEmptied() ? L" empty" : L""));
  }
  EXPECT_EQ(seen, (Names{L"C:\\A 24h empty", L"C:\\B 5h"}));
  EXPECT_EQ(NotesOf(*m_store),
            (Names{L"olderThan and olderThanHours are both given (line 6); that rule is skipped",
                   L"olderThanHours=\"876001\" is not a number of hours from 1 to 876000 (line 7); that rule is skipped",
                   L"removeEmpty=\"yes\" is not yes or no, or is given to a rule that deletes no files (line 8); that "
                   L"rule is skipped",
                   L"removeEmpty=\"maybe\" is not yes or no, or is given to a rule that deletes no files (line 9); "
                   L"that rule is skipped"}));
}

TEST_F(ConfigStore, CostsAreInheritedAndProgramsGathered) {
  Write(L"defs\\a.xml",
        "<ConfigItems>\n"
        "<group name=\"Web\" cost=\"history\">\n"
        "<running>web.exe; Web.EXE ;helper.exe</running>\n"
        "<item name=\"Cache\" cost=\"Cache\"><clean kind=\"file\">C:\\A</clean></item>\n"
        "<item name=\"Visits\"><clean kind=\"file\">C:\\B</clean></item>\n"
        "<group name=\"Logins\" cost=\"saved\">\n"
        "<item name=\"Passwords\"><running>C:\\x\\pw.exe;pw.exe;*.exe</running><clean kind=\"file\">C:\\C</clean></item>\n"
        "</group>\n"
        "<item name=\"Cookies\" cost=\"sign-in\"><clean kind=\"file\">C:\\D</clean></item>\n"
        "<item name=\"Odd\" cost=\"pricey\"><clean kind=\"file\">C:\\E</clean></item>\n"
        "</group>\n"
        "<group name=\"Plain\"><item name=\"P\"><clean kind=\"file\">C:\\F</clean></item></group>\n"
        "</ConfigItems>");
  ASSERT_TRUE(Load(L"defs"));
  CScanGroup* web = Child(Root(), L"Web");
  ASSERT_NE(web, nullptr);
  CScanGroup* passwords = Child(*Child(*web, L"Logins"), L"Passwords");
  const std::pair<CScanGroup*, ECost> costs[] = {
      {web, costHistory},         {Child(*web, L"Cache"), costCache},   {Child(*web, L"Visits"), costHistory},
      {passwords, costSaved},     {Child(*web, L"Cookies"), costSignIn}, {Child(*web, L"Odd"), costSaved},
      {Child(*Child(Root(), L"Plain"), L"P"), costCache}};
  for (const auto& [group, cost] : costs) {
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(m_store->GetCost(group), cost) << group->GetName();
  }
  EXPECT_EQ(m_store->GetOwnCost(Child(*web, L"Visits")), costUnset);
  EXPECT_EQ(m_store->GetPrograms(passwords), (Names{L"pw.exe", L"web.exe", L"helper.exe"}));
  std::vector<std::wstring> notes = NotesOf(*m_store);
  ASSERT_EQ(notes.size(), 3u);
  EXPECT_EQ(notes[0].rfind(L"running program 'C:\\x\\pw.exe' of 'Passwords' is left out: it holds a path separator", 0), 0u);
  EXPECT_EQ(notes[1].rfind(L"running program '*.exe' of 'Passwords' is left out: it holds the wildcard '*'", 0), 0u);
  EXPECT_EQ(notes[2], L"cost=\"pricey\" of 'Odd' is none of cache, history, sign-in, saved; it counts as saved (line 10)");
}

}  // namespace
