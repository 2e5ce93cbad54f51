// The Recycle Bin scan and its items on a bin laid out in the test prefix's
// C:\$Recycle.Bin\<SID> as the shell writes it. The shell's own bin (the
// Unix trash under Wine) is never used: Link.cmake points it elsewhere and
// the fixture checks that nothing reached it.
#include <gtest/gtest.h>
#include <shlobj.h>

#include <algorithm>
#include <string>
#include <vector>

#include "clean/FileSystemOps.h"
#include "common/ScanNotifiers.h"
#include "common/TestFiles.h"
#include "core/Handles.h"
#include "guard/BlastGuard.h"
#include "recyclebin/RecycleBinItem.h"
#include "recyclebin/RecycleBinScan.h"
#include "recyclebin/RecycleBinScanFactory.h"
#include "scandefs/ConfigStore.h"
#include "whitelist/WhiteListTree.h"

using broomtest::Exists;
using broomtest::WriteFile;

namespace {

constexpr unsigned long long kDay = 864000000000ull;

unsigned long long DaysAgo(double days) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return ((static_cast<unsigned long long>(now.dwHighDateTime) << 32) | now.dwLowDateTime) -
         static_cast<unsigned long long>(days * kDay);
}

unsigned long long Ticks(const FILETIME& time) {
  return (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// A $I record byte for byte: version 1 pads the path to 260 characters,
// version 2 gives its length with the NUL.
std::string Record(int version, unsigned long long size, unsigned long long deleted, const std::wstring& path) {
  std::string bytes;
  auto put = [&](unsigned long long value, int count) {
    for (int i = 0; i < count; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
  };
  put(static_cast<unsigned long long>(version), 8);
  put(size, 8);
  put(deleted, 8);
  std::wstring text = path;
  if (version == 2) put(text.size() + 1, 4);
  text.resize(version == 1 ? 260 : text.size() + 1, L'\0');
  for (wchar_t c : text) put(static_cast<unsigned long long>(c), 2);
  return bytes;
}

std::string Unix(const std::wstring& text) { return broomtest::Narrow(text); }

class RecycleBin : public testing::Test {
 protected:
  void SetUp() override {
    const wchar_t* xdg = _wgetenv(L"XDG_DATA_HOME");
    ASSERT_TRUE(xdg && *xdg) << "run through ctest: XDG_DATA_HOME must name a trash folder of the test's own";
    m_trash = L"Z:" + std::wstring(xdg) + L"/Trash";
    std::replace(m_trash.begin(), m_trash.end(), L'/', L'\\');
    m_sid = CRecycleBinScan::CurrentUserSid();
    ASSERT_FALSE(m_sid.empty());
    broomtest::RemoveTree(m_root);  // left by a run that was killed
    m_bin = m_root + L"\\" + m_sid;
    broomtest::MakeDirs(m_bin);
    SetFileAttributesW(m_bin.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
  }
  void TearDown() override {
    broomtest::RemoveTree(m_root);
    EXPECT_FALSE(Exists(m_trash)) << "something reached the shell's Recycle Bin";
  }

  std::wstring In(const std::wstring& name) const { return m_bin + L"\\" + name; }
  // A deleted file: its record and its data.
  void File(const std::wstring& suffix, int version, double daysAgo, const std::wstring& original,
            const std::string& content) {
    WriteFile(In(L"$I" + suffix), Record(version, content.size(), DaysAgo(daysAgo), original));
    WriteFile(In(L"$R" + suffix), content);
  }

  std::vector<CRefPtr<CRecycleBinItem>> Scan(CRecycleBinScan& scan) {
    broomtest::StackCollector collector;
    broomtest::NullProgress progress;
    broomtest::NullStatus status;
    scan.SetDrives({L"C:\\"});
    scan.PerformScan(&collector, &progress, &status, &m_whiteList);
    std::vector<CRefPtr<CRecycleBinItem>> items;
    for (auto& item : collector.items) {
      auto* entry = dynamic_cast<CRecycleBinItem*>(item.Get());
      EXPECT_NE(entry, nullptr);
      if (entry) items.emplace_back(entry);
    }
    return items;
  }
  std::vector<CRefPtr<CRecycleBinItem>> Scan() {
    CRefPtr<CRecycleBinScan> scan(new IUnknownNoQIImp<CRecycleBinScan>());
    return Scan(*scan);
  }

  std::wstring m_root = L"C:\\$Recycle.Bin";
  std::wstring m_bin, m_sid, m_trash;
  CWhiteListTree m_whiteList;
};

CRecycleBinItem* Find(const std::vector<CRefPtr<CRecycleBinItem>>& items, const std::wstring& path) {
  for (const auto& item : items)
    if (_wcsicmp(item->GetPath().c_str(), path.c_str()) == 0) return item.Get();
  return nullptr;
}

TEST_F(RecycleBin, EntriesOfBothVersionsOrphansAndDamagedRecords) {
  File(L"A1B2C3.txt", 1, 3, L"C:\\users\\me\\Documents\\notes.txt", std::string(1000, 'a'));
  File(L"D4E5F6.log", 2, 40, L"D:\\logs\\app.log", std::string(2500, 'b'));
  // a folder: the record, and data with everything that was in it
  WriteFile(In(L"$IF0LDER"), Record(2, 300, DaysAgo(10), L"C:\\work\\old project"));
  WriteFile(In(L"$RF0LDER\\a.c"), std::string(100, 'c'));
  std::wstring hidden = WriteFile(In(L"$RF0LDER\\deep\\x.bin"), std::string(200, 'd'));
  SetFileAttributesW(hidden.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
  WriteFile(In(L"$INODATA.doc"), Record(2, 77, DaysAgo(5), L"C:\\gone.doc"));
  WriteFile(In(L"$RNORECORD.png"), std::string(640, 'e'));
  WriteFile(In(L"desktop.ini"), "[.ShellClassInfo]");
  WriteFile(m_root + L"\\S-1-5-21-1-2-3-1001\\$IOTHER.txt", Record(2, 1, DaysAgo(99), L"C:\\other.txt"));
  WriteFile(m_root + L"\\S-1-5-21-1-2-3-1001\\$ROTHER.txt", "x");

  struct Damaged {
    const wchar_t* suffix;
    std::string record;
  } damaged[] = {
      {L"BADVER.txt", Record(3, 1, DaysAgo(9), L"C:\\a.txt")},
      {L"SHORT1.txt", Record(1, 1, DaysAgo(9), L"C:\\a.txt").substr(0, 543)},
      {L"LENGTH.txt", Record(2, 1, DaysAgo(9), L"C:\\a.txt") + "zz"},
      {L"RELATIVE.txt", Record(2, 1, DaysAgo(9), L"a.txt")},
      {L"EMPTY.txt", Record(2, 1, DaysAgo(9), L"")},
      {L"NOTIME.txt", Record(2, 1, 0, L"C:\\a.txt")},
      {L"TINY.txt", "\x02"},
  };
  for (const Damaged& d : damaged) {
    WriteFile(In(std::wstring(L"$I") + d.suffix), d.record);
    WriteFile(In(std::wstring(L"$R") + d.suffix), "restorable data");
  }

  CRefPtr<CRecycleBinScan> scan(new IUnknownNoQIImp<CRecycleBinScan>());
  auto items = Scan(*scan);
  ASSERT_EQ(items.size(), 5u);
  struct Expected {
    std::wstring path, original, name, details;
    CRecycleBinItem::EKind kind;
    unsigned long long size;
    double daysAgo;
  } expected[] = {
      {In(L"$RA1B2C3.txt"), L"C:\\users\\me\\Documents\\notes.txt", L"notes.txt", L"C:\\users\\me\\Documents",
       CRecycleBinItem::kindEntry, 1000, 3},
      {In(L"$RD4E5F6.log"), L"D:\\logs\\app.log", L"app.log", L"D:\\logs", CRecycleBinItem::kindEntry, 2500, 40},
      {In(L"$RF0LDER"), L"C:\\work\\old project", L"old project", L"C:\\work", CRecycleBinItem::kindEntry, 300, 10},
      {In(L"$INODATA.doc"), L"C:\\gone.doc", L"gone.doc", L"C:\\", CRecycleBinItem::kindRecordOnly, 0, 5},
      {In(L"$RNORECORD.png"), L"", L"$RNORECORD.png", m_bin, CRecycleBinItem::kindDataOnly, 640, 0},
  };
  for (const Expected& e : expected) {
    const CRecycleBinItem* item = Find(items, e.path);
    ASSERT_NE(item, nullptr) << Unix(e.path);
    EXPECT_EQ(item->GetKind(), e.kind) << Unix(e.path);
    EXPECT_EQ(item->GetOriginalPath(), e.original);
    EXPECT_STREQ(item->GetName().GetString(), e.name.c_str());
    EXPECT_STREQ(item->GetDetails().GetString(), e.details.c_str());
    if (e.kind != CRecycleBinItem::kindRecordOnly) {
      EXPECT_EQ(item->GetSize(), e.size) << Unix(e.path);
    }
    // the record's time; data without one is as old as its move into the bin
    EXPECT_NEAR(static_cast<double>(Ticks(item->GetDeletionTime())), static_cast<double>(DaysAgo(e.daysAgo)),
                60.0 * 10000000) << Unix(e.path);
  }
  EXPECT_TRUE(Find(items, In(L"$RF0LDER"))->IsDirectory());
  EXPECT_EQ(Find(items, In(L"$RA1B2C3.txt"))->GetRecord().version, 1);
  EXPECT_STREQ(Find(items, In(L"$RA1B2C3.txt"))->GetLogEntry().GetString(),
               (L"Recycle Bin: " + In(L"$RA1B2C3.txt") +
                L"\t\tOriginal: C:\\users\\me\\Documents\\notes.txt\t\tSize: 1000\r\n").c_str());

  // every damaged record is noted, and neither it nor its data is reported
  ASSERT_EQ(scan->GetNotes().size(), std::size(damaged));
  for (const Damaged& d : damaged) {
    bool noted = false;
    for (const auto& note : scan->GetNotes())
      noted = noted || (note.path == In(std::wstring(L"$I") + d.suffix) &&
                        note.reason.find(L"left alone") != std::wstring::npos);
    EXPECT_TRUE(noted) << Unix(d.suffix);
  }
}

TEST_F(RecycleBin, AgesGoByTheDeletionTimeAndAddUp) {
  const double ages[] = {1, 29, 31, 400};
  for (double age : ages) {
    std::wstring suffix = L"AGE" + std::to_wstring(static_cast<int>(age));
    File(suffix, 2, age, L"C:\\x\\" + suffix, "data");
  }
  // a file years old by its own times, deleted yesterday
  std::wstring old = In(L"$RAGE1");
  FILETIME longAgo;
  unsigned long long ticks = DaysAgo(3000);
  longAgo.dwLowDateTime = static_cast<DWORD>(ticks);
  longAgo.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  {
    broom::unique_hfile file(CreateFileW(old.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(file);
    ASSERT_TRUE(SetFileTime(file.get(), &longAgo, &longAgo, &longAgo));
  }

  CRefPtr<IScanOperationFactory> factory = CRecycleBinScanFactory::Create();
  pugi::xml_document doc;
  ASSERT_TRUE(doc.load_string(L"<clean kind=\"recyclebin\" olderThan=\"30\"/>"));
  CRefPtr<IScanOperation> op = factory->CreateOperation(L"recyclebin", xml::NodePtr(doc.first_child()));
  auto* scan = dynamic_cast<CRecycleBinScan*>(op.Get());
  ASSERT_NE(scan, nullptr);
  auto names = [&] {
    std::vector<std::wstring> out;
    for (const auto& item : Scan(*scan)) out.push_back(item->GetName().GetString());
    std::sort(out.begin(), out.end());
    return out;
  };
  EXPECT_EQ(names(), (std::vector<std::wstring>{L"AGE31", L"AGE400"}));
  // a host's --older-than 365 for one run, the same way as on file scans
  CRefPtr<CBaseFileScan::IFilter> extra(new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>());
  static_cast<CBaseFileScan::_FilterRejectRecentFiles_Impl*>(extra.Get())->SetAge(365, false);
  scan->AddFilter(extra);
  EXPECT_EQ(names(), (std::vector<std::wstring>{L"AGE400"}));
  scan->RemoveFilter(extra);
  EXPECT_EQ(names(), (std::vector<std::wstring>{L"AGE31", L"AGE400"}));
}

TEST_F(RecycleBin, FactoryTakesItsKindAndRefusesWhatItCannotHold) {
  struct Case {
    const wchar_t* xml;
    bool made;
    bool noted;
  } cases[] = {
      {L"<clean kind=\"recyclebin\"/>", true, false},
      {L"<clean kind=\"RecycleBin\" olderThan=\"36500\"/>", true, false},
      {L"<clean kind=\"recyclebin\" olderThan=\"0\"/>", false, true},
      {L"<clean kind=\"recyclebin\" olderThan=\"36501\"/>", false, true},
      {L"<clean kind=\"recyclebin\" olderThan=\"30 \"/>", false, true},
      {L"<clean kind=\"recyclebin\" ageBy=\"modified\"/>", false, true},
      {L"<clean kind=\"recyclebin\">D:\\</clean>", false, true},
      {L"<clean kind=\"file\">C:\\x\\*.tmp</clean>", false, false},
  };
  CRefPtr<IScanOperationFactory> factory = CRecycleBinScanFactory::Create();
  auto* notes = static_cast<CRecycleBinScanFactory*>(factory.Get());
  for (const Case& c : cases) {
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_string(c.xml));
    xml::NodePtr node(doc.first_child());
    CRefPtr<IScanOperation> op = factory->CreateOperation(node.Attribute(L"kind"), node);
    EXPECT_EQ(op.Get() != nullptr, c.made) << Unix(c.xml);
    EXPECT_EQ(notes->TakeNotes().size(), c.noted ? 1u : 0u) << Unix(c.xml);
  }
}

TEST_F(RecycleBin, CleanRemovesDataThenRecordAndNothingElse) {
  broomtest::TempDir outside;
  std::wstring keep = WriteFile(outside / L"notes.txt", "the file that was restored meanwhile");
  File(L"KEEP01.txt", 2, 50, outside / L"notes.txt", "deleted copy");
  File(L"RO0001.txt", 1, 50, L"C:\\ro.txt", "read-only");
  SetFileAttributesW(In(L"$RRO0001.txt").c_str(), FILE_ATTRIBUTE_READONLY);
  WriteFile(In(L"$IDIR001"), Record(2, 10, DaysAgo(50), L"C:\\dir"));
  std::wstring locked = WriteFile(In(L"$RDIR001\\sub\\busy.dat"), "busy");
  WriteFile(In(L"$RDIR001\\other.dat"), "other");
  WriteFile(In(L"$IORPHAN.txt"), Record(2, 10, DaysAgo(50), L"C:\\orphan.txt"));
  WriteFile(In(L"$RLONELY"), "no record");
  WriteFile(In(L"$IBROKEN.txt"), "not a record");
  WriteFile(In(L"$RBROKEN.txt"), "restorable");

  auto items = Scan();
  ASSERT_EQ(items.size(), 5u);
  std::vector<DWORD> results;
  {
    // the data cannot go while a file in it is held: the record stays
    broom::unique_hfile holder(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(holder);
    CRecycleBinItem* folder = Find(items, In(L"$RDIR001"));
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(folder->Clean(nullptr, nullptr), kRemoveFailed | ERROR_SHARING_VIOLATION);
    EXPECT_TRUE(Exists(In(L"$IDIR001")));
    EXPECT_TRUE(Exists(locked));
  }
  for (auto& item : items) EXPECT_EQ(item->Clean(nullptr, nullptr), 0u) << Unix(item->GetPath().c_str());

  // what is left: the damaged entry, the other user's folder, and outside the bin everything
  std::vector<std::wstring> left;
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW(In(L"*").c_str(), &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  do {
    if (data.cFileName[0] != L'.') left.push_back(data.cFileName);
  } while (FindNextFileW(find, &data));
  FindClose(find);
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::wstring>{L"$IBROKEN.txt", L"$RBROKEN.txt"}));
  EXPECT_EQ(broomtest::ReadFile(keep), "the file that was restored meanwhile");
}

TEST_F(RecycleBin, LinksInsideTheDataAreNeverFollowed) {
  broomtest::TempDir outside;
  std::wstring target = WriteFile(outside / L"target\\precious.txt", "precious");
  WriteFile(In(L"$ILINKED"), Record(2, 10, DaysAgo(50), L"C:\\linked"));
  WriteFile(In(L"$RLINKED\\own.txt"), "own");
  ASSERT_TRUE(broomtest::MakeUnixSymlink(outside / L"target", In(L"$RLINKED\\link")));
  auto unlink = broom::scope_exit([&] { broomtest::RemoveUnixSymlink(In(L"$RLINKED\\link")); });

  auto items = Scan();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0]->GetSize(), 3u);  // the link's target does not count
  DWORD result = items[0]->Clean(nullptr, nullptr);
  EXPECT_EQ(broomtest::ReadFile(target), "precious");
  EXPECT_FALSE(Exists(In(L"$RLINKED\\own.txt")));
  // Windows removes the link itself; Wine cannot remove a link to a folder,
  // and then the record stays with the data that is left
  if (result == 0) {
    EXPECT_FALSE(Exists(In(L"$RLINKED")));
    EXPECT_FALSE(Exists(In(L"$ILINKED")));
  } else {
    EXPECT_EQ(result & 0xFFFF0000u, kRemoveFailed);
    EXPECT_TRUE(Exists(In(L"$ILINKED")));
  }
}

TEST_F(RecycleBin, WhatChangedOrIsProtectedIsLeftAlone) {
  File(L"CHANGE.txt", 2, 50, L"C:\\change.txt", "data");
  File(L"MOVE01.txt", 2, 50, L"C:\\move.txt", "data");
  File(L"PROT01.txt", 2, 50, L"C:\\Users\\me\\kept.txt", "data");
  WriteFile(In(L"$IPROT02"), Record(2, 10, DaysAgo(50), L"C:\\folder"));
  WriteFile(In(L"$RPROT02\\inner\\kept.txt"), "kept");
  m_whiteList.SafeGuardPath(L"C:\\Users\\me\\kept.txt", 1);
  m_whiteList.SafeGuardPath(In(L"$RPROT02\\inner\\kept.txt").c_str(), 1);

  auto items = Scan();
  ASSERT_EQ(items.size(), 2u);
  // restored and deleted again between scan and clean: another record now
  WriteFile(In(L"$ICHANGE.txt"), Record(2, 4, DaysAgo(1), L"C:\\change.txt"));
  CRecycleBinItem* changed = Find(items, In(L"$RCHANGE.txt"));
  ASSERT_NE(changed, nullptr);
  EXPECT_EQ(changed->Clean(nullptr, nullptr), kRecycleBinChanged);
  EXPECT_TRUE(Exists(In(L"$RCHANGE.txt")));
  // the bin is its own undo: an entry never moves
  CRecycleBinItem* moved = Find(items, In(L"$RMOVE01.txt"));
  ASSERT_NE(moved, nullptr);
  broomtest::TempDir quarantine;
  CPathString newPath;
  EXPECT_EQ(moved->Move(CString((quarantine / L"x").c_str()), nullptr, nullptr, false, newPath), kRecycleBinNotMoved);
  EXPECT_TRUE(Exists(In(L"$RMOVE01.txt")));
  EXPECT_FALSE(Exists(quarantine / L"x"));
}

TEST_F(RecycleBin, ABinThatIsALinkIsNeverEntered) {
  broomtest::TempDir elsewhere;
  WriteFile(elsewhere / (m_sid + L"\\$IA.txt"), Record(2, 1, DaysAgo(50), L"C:\\a.txt"));
  WriteFile(elsewhere / (m_sid + L"\\$RA.txt"), "a");
  broomtest::RemoveTree(m_root);
  ASSERT_TRUE(broomtest::MakeUnixSymlink(elsewhere.Path(), m_root));
  auto unlink = broom::scope_exit([&] { broomtest::RemoveUnixSymlink(m_root); });
  CRefPtr<CRecycleBinScan> scan(new IUnknownNoQIImp<CRecycleBinScan>());
  EXPECT_TRUE(Scan(*scan).empty());
  ASSERT_EQ(scan->GetNotes().size(), 1u);
  EXPECT_EQ(scan->GetNotes()[0].path, m_root);
  EXPECT_TRUE(Exists(elsewhere / (m_sid + L"\\$RA.txt")));
}

// Explorer learns of a clean through the shell's change notifications.
constexpr UINT kShellChanged = WM_APP + 7;
bool g_shellTold = false;

LRESULT CALLBACK ShellNotifyProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == kShellChanged) g_shellTold = true;
  return DefWindowProcW(window, message, wParam, lParam);
}

TEST_F(RecycleBin, CleaningTellsTheShell) {
  File(L"NOTIFY.txt", 2, 50, L"C:\\notify.txt", "data");
  auto items = Scan();
  ASSERT_EQ(items.size(), 1u);
  WNDCLASSW windowClass = {};
  windowClass.lpfnWndProc = ShellNotifyProc;
  windowClass.lpszClassName = L"BroomRecycleBinTest";
  RegisterClassW(&windowClass);
  broom::unique_hwnd window(
      CreateWindowExW(0, windowClass.lpszClassName, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr));
  ASSERT_TRUE(window);
  PIDLIST_ABSOLUTE folder = ILCreateFromPathW(m_bin.c_str());
  ASSERT_NE(folder, nullptr);
  auto freeFolder = broom::scope_exit([&] { ILFree(folder); });
  SHChangeNotifyEntry entry = {folder, TRUE};
  g_shellTold = false;
  ULONG registration = SHChangeNotifyRegister(window.get(), SHCNRF_ShellLevel | SHCNRF_InterruptLevel,
                                              SHCNE_DELETE | SHCNE_UPDATEDIR, kShellChanged, 1, &entry);
  ASSERT_NE(registration, 0u);
  auto unregister = broom::scope_exit([&] { SHChangeNotifyDeregister(registration); });
  EXPECT_EQ(items[0]->Clean(nullptr, nullptr), 0u);
  for (DWORD start = GetTickCount(); !g_shellTold && GetTickCount() - start < 5000;) {
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    Sleep(10);
  }
  EXPECT_TRUE(g_shellTold);
}

}  // namespace

TEST_F(RecycleBin, TheGuardAllowsEntriesDirectlyInTheBinWhateverTheirName) {
  File(L"PROG01.exe", 2, 50, L"C:\\tools\\setup.exe", "a deleted program");
  WriteFile(In(L"$IDLL001.dll"), Record(2, 10, DaysAgo(50), L"C:\\tools\\hook.dll"));
  auto items = Scan();
  ASSERT_EQ(items.size(), 2u);
  CBlastGuard guard;
  for (auto& item : items) EXPECT_TRUE(guard.Check(item.Get(), nullptr).allowed) << Unix(item->GetPath().c_str());

  // an item that claims a folder that is no Recycle Bin is refused
  broomtest::TempDir elsewhere;
  WIN32_FIND_DATAW data = {};
  wcscpy(data.cFileName, L"$RFAKE01.exe");
  WriteFile(elsewhere / L"$RFAKE01.exe", "x");
  CRefPtr<CRecycleBinItem> fake(new IUnknownNoQIImp<CRecycleBinItem>());
  fake->InitEntry(elsewhere.Path(), nullptr, nullptr, &data);
  EXPECT_FALSE(guard.Check(fake.Get(), nullptr).allowed);
}
