// The policies read from throw-away keys standing for HKLM's and HKCU's
// SOFTWARE\Policies\Broom. The machine's is a real key below
// HKLM\SOFTWARE\Policies (Wine lets the test prefix's user write there);
// the reader takes the keys as roots with an empty subkey.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "common/TestRegistry.h"
#include "policy/Policies.h"

namespace {

using broomtest::Narrow;
using broomtest::TestRegKey;

struct Keys {
  TestRegKey machine{HKEY_LOCAL_MACHINE, L"SOFTWARE\\Policies\\BroomTest"};
  TestRegKey user{HKEY_CURRENT_USER, L"Software\\BroomTest"};
  CPolicies Read() const { return CPolicies::Read(machine.Key(), user.Key(), L""); }
};

void SetDword(HKEY key, const wchar_t* name, DWORD value) {
  ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value));
}

void SetRaw(HKEY key, const wchar_t* name, DWORD type, const std::wstring& data) {
  ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(data.data()),
                                          static_cast<DWORD>(data.size() * sizeof(wchar_t))));
}

std::string NotesOf(const CPolicies& policies) {
  std::string out;
  for (const auto& note : policies.Notes())
    out += Narrow(std::wstring(CPolicies::SourceName(note.source)) + L" " + note.name + L": " + note.reason) + "\n";
  return out;
}

// Every policy of the table, written once as its type and range allow and
// once in each way they forbid: the right ones are in force, the wrong ones
// are not and say why.
TEST(Policies, EachValueIsReadWithItsTypeAndRangeAndAnyOtherIsIgnoredWithANote) {
  struct Case {
    DWORD type;
    std::wstring data;  // for REG_DWORD, the number in decimal
    bool inForce;
    const char* note;   // a part of the note when ignored
  };
  for (const SPolicyDef& def : CPolicies::Definitions()) {
    std::vector<Case> cases;
    switch (def.kind) {
      case EPolicyKind::flag:
      case EPolicyKind::number:
        cases = {{REG_DWORD, std::to_wstring(def.minimum), true, ""},
                 {REG_DWORD, std::to_wstring(def.maximum), true, ""},
                 {REG_DWORD, std::to_wstring(def.maximum + 1), false, "outside"},
                 {REG_SZ, std::wstring(L"1\0", 2), false, "a REG_SZ value where a REG_DWORD is expected"},
                 {REG_QWORD, std::wstring(L"\x0001\0\0\0", 4), false, "a REG_QWORD value"},
                 {REG_BINARY, std::wstring(L"\x0001\0", 2), false, "a REG_BINARY value"}};
        if (def.minimum > 0) cases.push_back({REG_DWORD, std::to_wstring(def.minimum - 1), false, "outside"});
        break;
      case EPolicyKind::list:
        cases = {{REG_MULTI_SZ, std::wstring(L"A/b\0  C \0\0", 10), true, ""},
                 {REG_SZ, std::wstring(L"A/b\0", 4), false, "a REG_SZ value where a REG_MULTI_SZ is expected"},
                 {REG_EXPAND_SZ, std::wstring(L"A\0", 2), false, "REG_EXPAND_SZ"}};
        break;
      case EPolicyKind::choice:
        cases = {{REG_SZ, std::wstring(L" Weekly\0", 8), true, ""},
                 {REG_SZ, std::wstring(L"hourly\0", 7), false, "not one of daily, weekly, monthly"},
                 {REG_DWORD, L"1", false, "a REG_DWORD value where a REG_SZ is expected"}};
        break;
    }
    for (const Case& c : cases) {
      SCOPED_TRACE(Narrow(std::wstring(def.name) + L" = " + c.data));
      Keys keys;
      if (c.type == REG_DWORD)
        SetDword(keys.machine.Key(), def.name, std::stoul(c.data));
      else
        SetRaw(keys.machine.Key(), def.name, c.type, c.data);
      CPolicies policies = keys.Read();
      const CPolicies::SValue* value = policies.Get(def.id);
      ASSERT_EQ(c.inForce, value != nullptr) << NotesOf(policies);
      if (c.inForce) {
        EXPECT_EQ(EPolicySource::machine, value->source);
        EXPECT_TRUE(policies.Notes().empty()) << NotesOf(policies);
        if (def.kind == EPolicyKind::list) {
          EXPECT_EQ((std::vector<std::wstring>{L"A/b", L"C"}), policies.List(def.id));
        } else if (def.kind == EPolicyKind::choice) {
          EXPECT_EQ(L"weekly", policies.Text(def.id));
        } else {
          EXPECT_EQ(std::stoul(c.data), policies.Number(def.id, 12345));
        }
        continue;
      }
      ASSERT_EQ(1u, policies.Notes().size()) << NotesOf(policies);
      EXPECT_EQ(def.name, policies.Notes()[0].name);
      EXPECT_NE(std::string::npos, NotesOf(policies).find(c.note)) << NotesOf(policies);
      // Ignored means not in force at all: never read as on, never as a number.
      EXPECT_FALSE(policies.IsOn(def.id));
      EXPECT_EQ(777u, policies.Number(def.id, 777));
      EXPECT_TRUE(policies.List(def.id).empty());
    }
  }
}

TEST(Policies, TheTableIsInTheOrderOfItsIdentifiers) {
  const auto& table = CPolicies::Definitions();
  ASSERT_EQ(static_cast<size_t>(EPolicy::count), table.size());
  for (size_t i = 0; i < table.size(); ++i) EXPECT_EQ(i, static_cast<size_t>(table[i].id)) << Narrow(table[i].name);
}

TEST(Policies, TheMachineWinsAndAnIgnoredMachineValueLeavesTheUsers) {
  Keys keys;
  SetDword(keys.machine.Key(), L"MinimumAgeDays", 30);
  SetDword(keys.user.Key(), L"MinimumAgeDays", 7);
  SetDword(keys.user.Key(), L"QuarantineKeepDays", 5);
  SetRaw(keys.machine.Key(), L"DisableRegistryCleaning", REG_SZ, std::wstring(L"1\0", 2));
  SetDword(keys.user.Key(), L"DisableRegistryCleaning", 1);
  SetDword(keys.machine.Key(), L"AlwaysQuarantine", 0);
  SetDword(keys.user.Key(), L"AlwaysQuarantine", 1);
  SetRaw(keys.user.Key(), L"ProtectedPaths", REG_MULTI_SZ, std::wstring(L"C:\\Keep\0\0", 9));

  CPolicies policies = keys.Read();
  EXPECT_EQ(30u, policies.Number(EPolicy::minimumAgeDays, 0));
  EXPECT_EQ(EPolicySource::machine, policies.Get(EPolicy::minimumAgeDays)->source);
  EXPECT_EQ(5u, policies.Number(EPolicy::quarantineKeepDays, 0));
  EXPECT_EQ(EPolicySource::user, policies.Get(EPolicy::quarantineKeepDays)->source);
  EXPECT_TRUE(policies.IsOn(EPolicy::disableRegistryCleaning));
  EXPECT_EQ(EPolicySource::user, policies.Get(EPolicy::disableRegistryCleaning)->source);
  // The machine's explicit 0 is a value in force.
  EXPECT_FALSE(policies.IsOn(EPolicy::alwaysQuarantine));
  EXPECT_EQ(EPolicySource::machine, policies.Get(EPolicy::alwaysQuarantine)->source);
  EXPECT_EQ(std::vector<std::wstring>{L"C:\\Keep"}, policies.List(EPolicy::protectedPaths));
  ASSERT_EQ(1u, policies.Notes().size());
  EXPECT_EQ(EPolicySource::machine, policies.Notes()[0].source);

  EXPECT_EQ("{\"DisableRegistryCleaning\":{\"value\":1,\"source\":\"user\"},"
            "\"AlwaysQuarantine\":{\"value\":0,\"source\":\"machine\"},"
            "\"QuarantineKeepDays\":{\"value\":5,\"source\":\"user\"},"
            "\"MinimumAgeDays\":{\"value\":30,\"source\":\"machine\"},"
            "\"ProtectedPaths\":{\"value\":[\"C:\\\\Keep\"],\"source\":\"user\"}}",
            policies.ToJson());
  const std::wstring text = policies.Describe();
  EXPECT_NE(std::wstring::npos, text.find(L"MinimumAgeDays           30  [machine]\n")) << Narrow(text);
  EXPECT_NE(std::wstring::npos, text.find(L"ProtectedPaths           C:\\Keep  [user]\n")) << Narrow(text);
  EXPECT_NE(std::wstring::npos,
            text.find(L"Ignored:\n  machine DisableRegistryCleaning: a REG_SZ value where a REG_DWORD is expected"))
      << Narrow(text);
}

TEST(Policies, NoKeyMeansNoPolicyAndNoNote) {
  CPolicies policies = CPolicies::Read(HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER, L"SOFTWARE\\Policies\\BroomTest\\none");
  EXPECT_TRUE(policies.Values().empty());
  EXPECT_TRUE(policies.Notes().empty());
  EXPECT_EQ("{}", policies.ToJson());
  EXPECT_EQ(0u, policies.Describe().find(L"No Broom policy is in force"));
}

TEST(Policies, ADwordOfTheWrongSizeIsIgnored) {
  Keys keys;
  const BYTE two[2] = {1, 0};
  ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(keys.machine.Key(), L"DisableWinapp2", 0, REG_DWORD, two, sizeof two));
  CPolicies policies = keys.Read();
  EXPECT_FALSE(policies.IsSet(EPolicy::disableWinapp2));
  EXPECT_NE(std::string::npos, NotesOf(policies).find("a REG_DWORD of 2 bytes instead of 4")) << NotesOf(policies);
}

}  // namespace
