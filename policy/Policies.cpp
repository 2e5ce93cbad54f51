#include "policy/Policies.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cwctype>

#include "core/Handles.h"
#include "textconv/TextConv.h"

namespace {

// Days from one to a hundred years, as --older-than and the definitions' ages take them.
constexpr unsigned long kMaxDays = 36500;
// A list of policy entries is short; anything larger is damage.
constexpr DWORD kMaxListBytes = 1u << 20;

const std::vector<SPolicyDef> kPolicies = {
    {EPolicy::disableRegistryCleaning, L"DisableRegistryCleaning", EPolicyKind::flag, REG_DWORD, 0, 1, {}},
    {EPolicy::alwaysQuarantine, L"AlwaysQuarantine", EPolicyKind::flag, REG_DWORD, 0, 1, {}},
    {EPolicy::quarantineKeepDays, L"QuarantineKeepDays", EPolicyKind::number, REG_DWORD, 1, kMaxDays, {}},
    {EPolicy::minimumAgeDays, L"MinimumAgeDays", EPolicyKind::number, REG_DWORD, 1, kMaxDays, {}},
    {EPolicy::disabledItems, L"DisabledItems", EPolicyKind::list, REG_MULTI_SZ, 0, 0, {}},
    {EPolicy::defaultItems, L"DefaultItems", EPolicyKind::list, REG_MULTI_SZ, 0, 0, {}},
    {EPolicy::disableWinapp2, L"DisableWinapp2", EPolicyKind::flag, REG_DWORD, 0, 1, {}},
    {EPolicy::keepCookieSites, L"KeepCookieSites", EPolicyKind::list, REG_MULTI_SZ, 0, 0, {}},
    {EPolicy::protectedPaths, L"ProtectedPaths", EPolicyKind::list, REG_MULTI_SZ, 0, 0, {}},
    {EPolicy::disableOverwrite, L"DisableOverwrite", EPolicyKind::flag, REG_DWORD, 0, 1, {}},
    {EPolicy::disableCloseApps, L"DisableCloseApps", EPolicyKind::flag, REG_DWORD, 0, 1, {}},
    {EPolicy::schedule, L"Schedule", EPolicyKind::choice, REG_SZ, 0, 0, {L"daily", L"weekly", L"monthly", nullptr}},
    {EPolicy::scheduleItems, L"ScheduleItems", EPolicyKind::list, REG_MULTI_SZ, 0, 0, {}},
};

const wchar_t* TypeName(DWORD type) {
  switch (type) {
    case REG_NONE: return L"REG_NONE";
    case REG_SZ: return L"REG_SZ";
    case REG_EXPAND_SZ: return L"REG_EXPAND_SZ";
    case REG_BINARY: return L"REG_BINARY";
    case REG_DWORD: return L"REG_DWORD";
    case REG_DWORD_BIG_ENDIAN: return L"REG_DWORD_BIG_ENDIAN";
    case REG_LINK: return L"REG_LINK";
    case REG_MULTI_SZ: return L"REG_MULTI_SZ";
    case REG_QWORD: return L"REG_QWORD";
    default: return L"an unknown type";
  }
}

std::wstring Trimmed(const wchar_t* begin, const wchar_t* end) {
  while (begin < end && iswspace(*begin)) ++begin;
  while (end > begin && iswspace(end[-1])) --end;
  return std::wstring(begin, end);
}

// Splits REG_MULTI_SZ data at its NULs: every non-empty entry counts, also
// one after an empty string, so that nothing written is lost.
std::vector<std::wstring> SplitMulti(const std::vector<wchar_t>& data) {
  std::vector<std::wstring> out;
  const wchar_t* p = data.data();
  const wchar_t* end = p + data.size();
  while (p < end) {
    const wchar_t* stop = p;
    while (stop < end && *stop) ++stop;
    std::wstring entry = Trimmed(p, stop);
    if (!entry.empty()) out.push_back(std::move(entry));
    p = stop + 1;
  }
  return out;
}

std::string Utf8(const std::wstring& text) { return textconv::ToMultiByte(text, CP_UTF8); }

// Reads one value into out, or says in reason why it is ignored. False with
// an empty reason when the value is absent.
bool ReadValue(HKEY key, const SPolicyDef& def, CPolicies::SValue& out, std::wstring& reason) {
  DWORD type = REG_NONE, size = 0;
  LONG rc = RegQueryValueExW(key, def.name, nullptr, &type, nullptr, &size);
  if (rc == ERROR_FILE_NOT_FOUND) return false;
  if (rc != ERROR_SUCCESS) {
    reason = L"cannot be read (error " + std::to_wstring(rc) + L"); ignored";
    return false;
  }
  if (type != def.regType) {
    reason = std::wstring(L"a ") + TypeName(type) + L" value where a " + TypeName(def.regType) + L" is expected; ignored";
    return false;
  }
  if (def.regType == REG_DWORD) {
    DWORD value = 0, got = sizeof value;
    if (size != sizeof value || RegQueryValueExW(key, def.name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &got) !=
                                    ERROR_SUCCESS || got != sizeof value || type != REG_DWORD) {
      reason = L"a REG_DWORD of " + std::to_wstring(size) + L" bytes instead of 4; ignored";
      return false;
    }
    if (value < def.minimum || value > def.maximum) {
      reason = L"is " + std::to_wstring(value) + L", outside " + std::to_wstring(def.minimum) + L" to " +
               std::to_wstring(def.maximum) + L"; ignored";
      return false;
    }
    out.number = value;
    return true;
  }

  if (size > kMaxListBytes || size % sizeof(wchar_t)) {
    reason = L"holds " + std::to_wstring(size) + L" bytes, which is no list of strings; ignored";
    return false;
  }
  std::vector<wchar_t> data(size / sizeof(wchar_t));
  DWORD got = size;
  if (size && (RegQueryValueExW(key, def.name, nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &got) !=
                   ERROR_SUCCESS || got != size || type != def.regType)) {
    reason = L"changed while it was read; ignored";
    return false;
  }
  if (def.kind == EPolicyKind::list) {
    out.list = SplitMulti(data);
    return true;
  }
  // A choice: the visible string, compared without regard to case.
  std::wstring text = Trimmed(data.data(), data.data() + wcsnlen(data.data(), data.size()));
  for (const wchar_t* const* choice = def.choices; *choice; ++choice) {
    if (_wcsicmp(text.c_str(), *choice) == 0) {
      out.text = *choice;
      return true;
    }
  }
  std::wstring words;
  for (const wchar_t* const* choice = def.choices; *choice; ++choice) words += (words.empty() ? L"" : L", ") + std::wstring(*choice);
  reason = L"is '" + text + L"', not one of " + words + L"; ignored";
  return false;
}

std::wstring Shown(const SPolicyDef& def, const CPolicies::SValue& value) {
  switch (def.kind) {
    case EPolicyKind::flag: return value.number ? L"1 (on)" : L"0 (off)";
    case EPolicyKind::number: return std::to_wstring(value.number);
    case EPolicyKind::choice: return value.text;
    case EPolicyKind::list: break;
  }
  return value.list.empty() ? L"(empty list)" : std::wstring();
}

}  // namespace

const std::vector<SPolicyDef>& CPolicies::Definitions() { return kPolicies; }

const SPolicyDef& CPolicies::Definition(EPolicy id) { return kPolicies.at(static_cast<size_t>(id)); }

const wchar_t* CPolicies::SourceName(EPolicySource source) {
  switch (source) {
    case EPolicySource::machine: return L"machine";
    case EPolicySource::user: return L"user";
    case EPolicySource::none: break;
  }
  return L"";
}

CPolicies CPolicies::Read(HKEY machineRoot, HKEY userRoot, const wchar_t* subkey) {
  CPolicies result;
  broom::unique_hkey keys[2];
  const EPolicySource sources[2] = {EPolicySource::machine, EPolicySource::user};
  const HKEY roots[2] = {machineRoot, userRoot};
  for (int i = 0; i < 2; ++i) {
    if (!roots[i]) continue;
    // Group Policy writes the 64-bit view; a 32-bit Broom must read it too.
    LONG rc = RegOpenKeyExW(roots[i], subkey, 0, KEY_QUERY_VALUE | KEY_WOW64_64KEY, keys[i].addressof());
    if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND)
      result.m_notes.push_back({sources[i], subkey, L"the key cannot be read (error " + std::to_wstring(rc) +
                                                        L"); its policies are not in force"});
  }
  for (const SPolicyDef& def : kPolicies) {
    for (int i = 0; i < 2; ++i) {
      if (!keys[i]) continue;
      SValue value;
      value.id = def.id;
      value.source = sources[i];
      std::wstring reason;
      if (ReadValue(keys[i].get(), def, value, reason)) {
        result.m_values.push_back(std::move(value));
        break;
      }
      if (!reason.empty()) result.m_notes.push_back({sources[i], def.name, reason});
    }
  }
  return result;
}

const CPolicies& CPolicies::Current() {
  static const CPolicies current = Read(HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER);
  return current;
}

const CPolicies::SValue* CPolicies::Get(EPolicy id) const {
  for (const SValue& value : m_values)
    if (value.id == id) return &value;
  return nullptr;
}

bool CPolicies::IsOn(EPolicy id) const {
  const SValue* value = Get(id);
  return value && Definition(id).kind == EPolicyKind::flag && value->number == 1;
}

unsigned long CPolicies::Number(EPolicy id, unsigned long fallback) const {
  const SValue* value = Get(id);
  EPolicyKind kind = Definition(id).kind;
  return value && (kind == EPolicyKind::flag || kind == EPolicyKind::number) ? value->number : fallback;
}

const std::vector<std::wstring>& CPolicies::List(EPolicy id) const {
  static const std::vector<std::wstring> none;
  const SValue* value = Get(id);
  return value ? value->list : none;
}

std::wstring CPolicies::Text(EPolicy id) const {
  const SValue* value = Get(id);
  return value ? value->text : std::wstring();
}

std::wstring CPolicies::Describe() const {
  std::wstring out;
  if (m_values.empty()) {
    out = L"No Broom policy is in force (HKLM and HKCU\\" + std::wstring(kKey) + L").\n";
  } else {
    size_t width = 0;
    for (const SValue& value : m_values) width = std::max(width, wcslen(Definition(value.id).name));
    out = L"Policies in force (" + std::wstring(kKey) + L"):\n";
    for (const SValue& value : m_values) {
      const SPolicyDef& def = Definition(value.id);
      std::wstring head = L"  " + std::wstring(def.name) + std::wstring(width - wcslen(def.name) + 2, L' ');
      std::wstring from = std::wstring(L"  [") + SourceName(value.source) + L"]";
      if (def.kind == EPolicyKind::list && !value.list.empty()) {
        for (size_t i = 0; i < value.list.size(); ++i)
          out += (i ? std::wstring(head.size(), L' ') : head) + value.list[i] + (i ? L"" : from) + L"\n";
      } else {
        out += head + Shown(def, value) + from + L"\n";
      }
    }
  }
  if (!m_notes.empty()) {
    out += L"Ignored:\n";
    for (const SNote& note : m_notes)
      out += std::wstring(L"  ") + SourceName(note.source) + L" " + note.name + L": " + note.reason + L"\n";
  }
  return out;
}

std::string CPolicies::ToJson() const {
  nlohmann::ordered_json out = nlohmann::ordered_json::object();
  for (const SValue& value : m_values) {
    const SPolicyDef& def = Definition(value.id);
    nlohmann::ordered_json entry;
    switch (def.kind) {
      case EPolicyKind::flag:
      case EPolicyKind::number: entry["value"] = value.number; break;
      case EPolicyKind::choice: entry["value"] = Utf8(value.text); break;
      case EPolicyKind::list: {
        entry["value"] = nlohmann::ordered_json::array();
        for (const std::wstring& item : value.list) entry["value"].push_back(Utf8(item));
        break;
      }
    }
    entry["source"] = Utf8(SourceName(value.source));
    out[Utf8(def.name)] = std::move(entry);
  }
  return out.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}
