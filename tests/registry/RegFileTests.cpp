#include <gtest/gtest.h>

#include "RegTestTree.h"
#include "common/TestFiles.h"
#include "registry/RegFile.h"

using namespace regtest;

namespace {

// One value of every kind that a quoted string or dword: would not give back exactly.
void FillEveryType(const Tree& t) {
  Bytes wide(300, 0x5A);
  t.Set(L"K", L"", REG_SZ, Text(L"default"));
  t.Set(L"K", L"sz", REG_SZ, Text(L"plain \"quoted\" C:\\path"));
  t.Set(L"K", L"unterminated", REG_SZ, Text(L"abc", false));
  t.Set(L"K", L"embedded", REG_SZ, Text(std::wstring(L"a\0b", 3)));
  t.Set(L"K", L"empty", REG_SZ, {});
  t.Set(L"K", L"odd", REG_SZ, Bytes({0x41, 0, 0x42}));
  t.Set(L"K", L"lines", REG_SZ, Text(L"one\r\ntwo"));
  t.Set(L"K", L"expand", REG_EXPAND_SZ, Text(L"%TEMP%\\x"));
  t.Set(L"K", L"multi", REG_MULTI_SZ, Text(std::wstring(L"a\0bc\0", 5)));
  t.Set(L"K", L"binary", REG_BINARY, wide);
  t.Set(L"K", L"dword", REG_DWORD, Bytes({1, 2, 3, 4}));
  t.Set(L"K", L"short dword", REG_DWORD, Bytes({1, 2, 3}));
  t.Set(L"K", L"qword", REG_QWORD, Bytes({1, 2, 3, 4, 5, 6, 7, 8}));
  t.Set(L"K", L"none", REG_NONE, Bytes({0}));
  t.Set(L"K", L"unknown type", 0x12345, Bytes({0xAB}));
  t.Set(L"K", L"na\"me\\", REG_DWORD, Bytes({0, 0, 0, 0}));
  t.Set(L"K\\Sub", L"x", REG_BINARY, {});
  t.Set(L"K\\Sub\\Empty", nullptr, 0, {});
}

std::wstring FileText(const std::wstring& path) {
  std::string bytes = broomtest::ReadFile(path);
  return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
}

class RegFileTest : public testing::TestWithParam<HKEY> {
 protected:
  Tree t{GetParam()};
  broomtest::TempDir dir;
};
INSTANTIATE_TEST_SUITE_P(Hives, RegFileTest, testing::Values(HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE), HiveName);

}  // namespace

TEST_P(RegFileTest, MovedKeyTreeComesBackByteForByte) {
  FillEveryType(t);
  Picture before = t.Read();
  auto items = Scan({t.Path(L"K")});
  ASSERT_EQ(1u, items.size());
  CPathString proposal;
  std::wstring file = dir / L"k.reg";
  ASSERT_EQ(0u, items[0]->Move(CString(file.c_str()), nullptr, nullptr, false, proposal));
  EXPECT_EQ(1u, t.Read().size());
  std::wstring text = FileText(file);
  EXPECT_EQ(0u, text.find(L"\xFEFFWindows Registry Editor Version 5.00\r\n\r\n[HKEY_"));
  EXPECT_NE(std::wstring::npos, text.find(L"\"sz\"=\"plain \\\"quoted\\\" C:\\\\path\"\r\n"));
  EXPECT_NE(std::wstring::npos, text.find(L"\"unterminated\"=hex(1):61,00,62,00,63,00\r\n"));

  SRegRestoreStats stats;
  EXPECT_EQ(0u, CRegFile::Restore(file.c_str(), false, &stats));
  EXPECT_EQ(before, t.Read());
  EXPECT_EQ(3u, stats.keys);
  EXPECT_EQ(17u, stats.written);
  EXPECT_EQ(0u, CRegFile::Restore(file.c_str(), false, &stats));  // again: all there already
  EXPECT_EQ(17u, stats.unchanged);

  // a value changed since is never overwritten unless asked
  t.Set(L"K", L"dword", REG_DWORD, Bytes({9, 9, 9, 9}));
  EXPECT_EQ(kRegistryRestoreConflict, CRegFile::Restore(file.c_str(), false, &stats));
  EXPECT_EQ(1u, stats.conflicts);
  EXPECT_EQ(Bytes({9, 9, 9, 9}), t.Read()[L"K|dword"].second);
  EXPECT_EQ(0u, CRegFile::Restore(file.c_str(), true, &stats));
  EXPECT_EQ(before, t.Read());
}

TEST_P(RegFileTest, MovedValueComesBackAndAnExistingFileIsNotReplaced) {
  t.Set(L"K", L"", REG_EXPAND_SZ, Text(L"%x%"));
  t.Set(L"K", L"other", REG_SZ, Text(L"stays"));
  Picture before = t.Read();
  auto items = Scan({t.Path(L"K|")});
  ASSERT_EQ(1u, items.size());
  std::wstring taken = broomtest::WriteFile(dir / L"v.reg", "x"), freeName = dir / L"v (1).reg";
  CPathString proposal;
  EXPECT_EQ(0x80640001u, items[0]->Move(CString(taken.c_str()), nullptr, nullptr, false, proposal));
  EXPECT_EQ(freeName, std::wstring(proposal.c_str()));
  EXPECT_EQ(before, t.Read());
  EXPECT_EQ("x", broomtest::ReadFile(taken));

  ASSERT_EQ(0u, items[0]->Move(CString(proposal.c_str()), nullptr, nullptr, false, proposal));
  EXPECT_EQ(0u, t.Read().count(L"K|"));
  EXPECT_EQ(1u, t.Read().count(L"K|other"));
  EXPECT_EQ(0u, CRegFile::Restore(freeName.c_str(), false, nullptr));
  EXPECT_EQ(before, t.Read());
}

TEST_P(RegFileTest, NothingIsDeletedWhenTheExportFails) {
  t.Set(L"K\\Locked", L"x", REG_DWORD, Bytes({1, 0, 0, 0}));
  if (!t.Restrict(L"K\\Locked", WRITE_DAC)) GTEST_SKIP() << "the registry does not enforce key rights";
  Picture before = t.Read();
  auto items = Scan({t.Path(L"K")});
  ASSERT_EQ(1u, items.size());
  CPathString proposal;
  EXPECT_EQ(0x80520005u, items[0]->Move(CString((dir / L"k.reg").c_str()), nullptr, nullptr, false, proposal));
  EXPECT_FALSE(broomtest::Exists(dir / L"k.reg"));
  EXPECT_EQ(before, t.Read());
}

TEST_P(RegFileTest, DamagedFilesWriteNothing) {
  std::wstring good = L"\xFEFFWindows Registry Editor Version 5.00\r\n\r\n[" + t.Path(L"New") + L"]\r\n";
  for (const std::wstring& text : {good + L"\"a\"=dword:1\r\n\"b\"=hex:zz\r\n", good + L"\"a\"=-\r\n",
                                   L"\xFEFFREGEDIT4\r\n" + good.substr(41), good + L"\"a\"=\"open\r\n"}) {
    std::string bytes(reinterpret_cast<const char*>(text.data()), text.size() * 2);
    EXPECT_EQ(kRegistryFailed | ERROR_INVALID_DATA,
              CRegFile::Restore(broomtest::WriteFile(dir / L"bad.reg", bytes).c_str(), false, nullptr));
    EXPECT_EQ(1u, t.Read().size());
  }
}

TEST_P(RegFileTest, ARestoreWritesOnlyTheKeyOrValueItWasExportedFor) {
  t.Set(L"K\\Sub", L"x", REG_DWORD, Bytes({1, 0, 0, 0}));
  t.Set(L"K", L"v", REG_DWORD, Bytes({2, 0, 0, 0}));
  CRegistryPath key, value, sibling;
  ASSERT_TRUE(key.Parse(t.Path(L"K")));
  ASSERT_TRUE(value.Parse(t.Path(L"K|v")));
  std::wstring keyFile = dir / L"k.reg", valueFile = dir / L"v.reg";
  ASSERT_EQ(0u, CRegFile::Export(key, 0, keyFile.c_str(), false));
  ASSERT_EQ(0u, CRegFile::Export(value, 0, valueFile.c_str(), false));
  const std::wstring keyText = FileText(keyFile), valueText = FileText(valueFile);
  const std::wstring hive = GetParam() == HKEY_CURRENT_USER ? L"HKEY_CURRENT_USER\\" : L"HKEY_LOCAL_MACHINE\\";
  const std::wstring run = L"\r\n[" + hive + L"Software\\Microsoft\\Windows\\CurrentVersion\\Run]\r\n\"x\"=\"evil.exe\"\r\n";
  const std::wstring next = L"\r\n[" + hive + t.Sub(L"KX") + L"]\r\n\"x\"=dword:00000001\r\n";
  const struct {
    const wchar_t* label;
    std::wstring text;
    const CRegistryPath* within;
    DWORD result;
  } cases[] = {
      {L"the key's own export", keyText, &key, 0},
      {L"a Run key added", keyText + run, &key, kRegistryRestoreOutside},
      {L"a key beside it whose name starts the same", keyText + next, &key, kRegistryRestoreOutside},
      {L"the value's own export", valueText, &value, 0},
      {L"another value of its key", valueText + L"\"w\"=dword:00000003\r\n", &value, kRegistryRestoreOutside},
      {L"a key below the value's key", valueText + L"\r\n[" + hive + t.Sub(L"K\\Sub") + L"]\r\n", &value,
       kRegistryRestoreOutside},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(broomtest::Narrow(c.label));
    t.Set(L"K", nullptr, 0, {});
    Picture before = t.Read();
    std::string bytes(reinterpret_cast<const char*>(c.text.data()), c.text.size() * 2);
    std::wstring file = broomtest::WriteFile(dir / L"changed.reg", bytes);
    EXPECT_EQ(c.result, CRegFile::Restore(file.c_str(), false, nullptr, c.within));
    if (c.result) {
      EXPECT_EQ(before, t.Read());
    }
  }
  HKEY runKey = nullptr;
  if (RegOpenKeyExW(GetParam(), L"Software\\Microsoft\\Windows\\CurrentVersion\\Run", 0, KEY_READ, &runKey) == 0) {
    EXPECT_NE(ERROR_SUCCESS, RegQueryValueExW(runKey, L"x", nullptr, nullptr, nullptr, nullptr));
    RegCloseKey(runKey);
  }
}
