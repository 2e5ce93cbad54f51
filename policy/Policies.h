#pragma once
// The policies an organisation sets for Broom through Group Policy or Intune:
// values under SOFTWARE\Policies\Broom in HKLM (machine) and HKCU (user).
// One table names every policy with its registry type and range; a value of
// another type, or out of range, is ignored with a note, so a damaged policy
// never reads as a broader permission. A machine value wins over a user
// value of the same name; a machine value that is ignored leaves the user's.
#include <windows.h>

#include <string>
#include <vector>

#include "core/Export.h"

enum class EPolicy : unsigned {
  disableRegistryCleaning,
  alwaysQuarantine,
  quarantineKeepDays,
  minimumAgeDays,
  disabledItems,
  defaultItems,
  disableWinapp2,
  keepCookieSites,
  protectedPaths,
  disableOverwrite,
  disableCloseApps,
  schedule,
  scheduleItems,
  count
};

enum class EPolicyKind {
  flag,    // REG_DWORD, 0 or 1
  number,  // REG_DWORD within [minimum, maximum]
  list,    // REG_MULTI_SZ
  choice   // REG_SZ, one of the choices (any case; kept as the table spells it)
};

enum class EPolicySource { none, machine, user };

struct SPolicyDef {
  EPolicy id;
  const wchar_t* name;  // the registry value's name
  EPolicyKind kind;
  DWORD regType;        // REG_DWORD, REG_MULTI_SZ or REG_SZ
  unsigned long minimum;
  unsigned long maximum;
  const wchar_t* choices[4];  // for a choice, ended by a null
};

class BROOM_API CPolicies {
 public:
  static constexpr const wchar_t* kKey = L"SOFTWARE\\Policies\\Broom";

  struct SValue {
    EPolicy id = EPolicy::count;
    EPolicySource source = EPolicySource::none;
    unsigned long number = 0;        // flag, number
    std::wstring text;               // choice
    std::vector<std::wstring> list;  // list: its entries, blanks trimmed, empty ones left out
  };
  struct SNote {
    EPolicySource source;
    std::wstring name;    // the value's name
    std::wstring reason;  // "a REG_SZ value where a REG_DWORD is expected; ignored"
  };

  // No policy set.
  CPolicies() = default;

  // Reads subkey below each root (a null root is skipped): machineRoot is
  // HKEY_LOCAL_MACHINE and userRoot HKEY_CURRENT_USER but for tests.
  static CPolicies Read(HKEY machineRoot, HKEY userRoot, const wchar_t* subkey = kKey);
  // This process's policies, read from HKLM and HKCU on first use and kept
  // for the rest of the run.
  static const CPolicies& Current();

  static const std::vector<SPolicyDef>& Definitions();
  static const SPolicyDef& Definition(EPolicy id);
  static const wchar_t* SourceName(EPolicySource source);  // "machine", "user", "" for none

  // The value in force, or null when neither place sets one that is valid.
  const SValue* Get(EPolicy id) const;
  bool IsSet(EPolicy id) const { return Get(id) != nullptr; }
  // A flag set to 1.
  bool IsOn(EPolicy id) const;
  // A number or flag in force, or fallback.
  unsigned long Number(EPolicy id, unsigned long fallback) const;
  // A list's entries; empty when not set (IsSet tells an empty list apart).
  const std::vector<std::wstring>& List(EPolicy id) const;
  // A choice in force, as the table spells it; empty when not set.
  std::wstring Text(EPolicy id) const;

  // The values in force, in the table's order, and what was ignored.
  const std::vector<SValue>& Values() const { return m_values; }
  const std::vector<SNote>& Notes() const { return m_notes; }

  // What `broom policy` prints: one line per value in force with where it
  // came from, then the ignored values with their reasons.
  std::wstring Describe() const;
  // UTF-8 JSON object: {"Name": {"value": 1 | "text" | [...], "source": "machine"}, ...}
  std::string ToJson() const;

 private:
  std::vector<SValue> m_values;
  std::vector<SNote> m_notes;
};
