#include "registry/RegFile.h"

#include <cstring>
#include <cwchar>
#include <string>
#include <string_view>
#include <vector>

#include "core/Handles.h"
#include "core/Names.h"
#include "registry/RegKeyReader.h"

using broom::reg::SValue;

namespace {

const wchar_t kHeader[] = L"Windows Registry Editor Version 5.00";
constexpr DWORD kMaxFileBytes = 256u * 1024 * 1024;

bool HasLineBreak(const std::wstring& text) { return text.find_first_of(L"\r\n") != std::wstring::npos; }

std::wstring Quote(const std::wstring& text) {
  std::wstring out = L"\"";
  for (wchar_t c : text) {
    if (c == L'\\' || c == L'"') out += L'\\';
    out += c;
  }
  return out + L'"';
}

// The characters of REG_SZ data when a quoted string gives exactly its bytes
// back: one terminating NUL and no other, no line break.
bool QuotableText(const SValue& value, std::wstring& text) {
  if (value.type != REG_SZ || value.data.size() < 2 || value.data.size() % 2 != 0) return false;
  text.resize(value.data.size() / 2);
  memcpy(&text[0], value.data.data(), value.data.size());
  if (text.back() != 0) return false;
  text.pop_back();
  return text.find(L'\0') == std::wstring::npos && !HasLineBreak(text);
}

void AppendValue(std::wstring& out, const SValue& value) {
  std::wstring line = value.name.empty() ? std::wstring(L"@") : Quote(value.name);
  line += L'=';
  std::wstring text;
  wchar_t number[32];
  if (QuotableText(value, text)) {
    line += Quote(text);
  } else if (value.type == REG_DWORD && value.data.size() == 4) {
    DWORD dword;
    memcpy(&dword, value.data.data(), 4);
    swprintf(number, 32, L"dword:%08lx", static_cast<unsigned long>(dword));
    line += number;
  } else {
    if (value.type == REG_BINARY) {
      line += L"hex:";
    } else {
      swprintf(number, 32, L"hex(%lx):", static_cast<unsigned long>(value.type));
      line += number;
    }
    // lines of at most 80 characters, continued with a backslash as the editor does
    size_t column = line.size();
    for (size_t i = 0; i < value.data.size(); ++i) {
      swprintf(number, 32, i + 1 < value.data.size() ? L"%02x," : L"%02x", value.data[i]);
      size_t width = wcslen(number);
      if (i > 0 && column + width > 77) {
        line += L"\\\r\n  ";
        column = 2;
      }
      line += number;
      column += width;
    }
  }
  out += line;
  out += L"\r\n";
}

// The section name of an open key: where it really lives, when the system
// says so, else the path it was opened by.
std::wstring SectionName(HKEY key, const CRegistryPath& openedAs) {
  CRegistryPath real;
  const CRegistryPath& path = CRegistryPath::FromKernelName(CRegistryPath::KernelName(key), real) ? real : openedAs;
  std::wstring name = CRegistryPath::HiveLongName(path.Hive());
  if (!path.Subkey().empty()) name += L'\\' + path.Subkey();
  return name;
}

LONG AppendKey(HKEY key, REGSAM view, const std::wstring& section, std::wstring& out) {
  if (HasLineBreak(section)) return ERROR_INVALID_NAME;
  out += L"\r\n[" + section + L"]\r\n";
  std::vector<SValue> values;
  LONG rc = broom::reg::ReadValues(key, true, values);
  if (rc != ERROR_SUCCESS) return rc;
  for (const SValue& value : values) {
    if (HasLineBreak(value.name)) return ERROR_INVALID_NAME;
    AppendValue(out, value);
  }
  std::vector<std::wstring> names;
  rc = broom::reg::ReadSubkeyNames(key, names);
  if (rc != ERROR_SUCCESS) return rc;
  for (const std::wstring& name : names) {
    broom::unique_hkey child;
    rc = RegOpenKeyExW(key, name.c_str(), 0, KEY_READ | view, child.addressof());
    if (rc == ERROR_FILE_NOT_FOUND) continue;  // deleted meanwhile
    if (rc != ERROR_SUCCESS) return rc;
    rc = AppendKey(child.get(), view, section + L'\\' + name, out);
    if (rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

DWORD WriteTextFile(const wchar_t* file, const std::wstring& text, bool overwrite) {
  broom::unique_hfile handle(CreateFileW(file, GENERIC_WRITE, 0, nullptr, overwrite ? CREATE_ALWAYS : CREATE_NEW,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!handle) {
    DWORD error = GetLastError();
    return error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS ? kRegistryExportFileExists
                                                                       : RegistryResult(static_cast<LONG>(error));
  }
  std::vector<BYTE> bytes(2 + text.size() * sizeof(wchar_t));
  bytes[0] = 0xFF;
  bytes[1] = 0xFE;
  memcpy(bytes.data() + 2, text.data(), text.size() * sizeof(wchar_t));
  DWORD written = 0;
  if (!WriteFile(handle.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ||
      written != bytes.size() || !FlushFileBuffers(handle.get())) {
    DWORD error = GetLastError();
    handle.reset();
    DeleteFileW(file);
    return RegistryResult(error ? static_cast<LONG>(error) : ERROR_WRITE_FAULT);
  }
  return 0;
}

// ---- reading a file back ----

struct SSection {
  HKEY hive = nullptr;
  std::wstring subkey;
  std::vector<SValue> values;
};

std::wstring_view Trim(std::wstring_view text) { return broom::Trim(text, broom::IsSpaceOrTab); }

int HexDigit(wchar_t c) {
  if (c >= L'0' && c <= L'9') return c - L'0';
  if (c >= L'a' && c <= L'f') return c - L'a' + 10;
  if (c >= L'A' && c <= L'F') return c - L'A' + 10;
  return -1;
}

// Up to maxDigits hex digits from text[pos], at least one.
bool ReadHexNumber(const std::wstring& text, size_t& pos, size_t maxDigits, DWORD& out) {
  out = 0;
  size_t start = pos;
  while (pos < text.size() && pos - start < maxDigits && HexDigit(text[pos]) >= 0)
    out = out * 16 + static_cast<DWORD>(HexDigit(text[pos++]));
  return pos > start;
}

// A quoted text at text[pos] with \\ and \" escapes; pos ends after the closing quote.
bool ReadQuoted(const std::wstring& text, size_t& pos, std::wstring& out) {
  if (pos >= text.size() || text[pos] != L'"') return false;
  out.clear();
  for (++pos; pos < text.size(); ++pos) {
    wchar_t c = text[pos];
    if (c == L'"') {
      ++pos;
      return true;
    }
    if (c == L'\\' && pos + 1 < text.size()) c = text[++pos];
    out += c;
  }
  return false;
}

bool ReadHexBytes(const std::wstring& list, std::vector<BYTE>& out) {
  out.clear();
  std::wstring rest(Trim(list));
  if (rest.empty()) return true;
  size_t pos = 0;
  for (;;) {
    while (pos < rest.size() && broom::IsSpaceOrTab(rest[pos])) ++pos;
    DWORD byte = 0;
    if (!ReadHexNumber(rest, pos, 2, byte)) return false;
    out.push_back(static_cast<BYTE>(byte));
    while (pos < rest.size() && broom::IsSpaceOrTab(rest[pos])) ++pos;
    if (pos == rest.size()) return true;
    if (rest[pos++] != L',') return false;
  }
}

bool StartsWithNoCase(const std::wstring& text, size_t pos, const wchar_t* prefix) {
  size_t n = wcslen(prefix);
  return text.size() - pos >= n && broom::EqualNoCase(text.c_str() + pos, n, prefix, n);
}

// One value line (continuations already joined).
bool ParseValue(const std::wstring& line, SValue& value) {
  size_t pos = 0;
  if (line[0] == L'@') {
    value.name.clear();
    pos = 1;
  } else if (!ReadQuoted(line, pos, value.name)) {
    return false;
  }
  while (pos < line.size() && broom::IsSpaceOrTab(line[pos])) ++pos;
  if (pos >= line.size() || line[pos++] != L'=') return false;
  while (pos < line.size() && broom::IsSpaceOrTab(line[pos])) ++pos;
  value.data.clear();
  if (pos < line.size() && line[pos] == L'"') {
    std::wstring text;
    if (!ReadQuoted(line, pos, text) || !Trim(line.substr(pos)).empty()) return false;
    value.type = REG_SZ;
    value.data.resize((text.size() + 1) * sizeof(wchar_t));
    memcpy(value.data.data(), text.c_str(), value.data.size());
  } else if (StartsWithNoCase(line, pos, L"dword:")) {
    pos += 6;
    DWORD dword = 0;
    if (!ReadHexNumber(line, pos, 8, dword) || !Trim(line.substr(pos)).empty()) return false;
    value.type = REG_DWORD;
    value.data.resize(4);
    memcpy(value.data.data(), &dword, 4);
  } else if (StartsWithNoCase(line, pos, L"hex:")) {
    value.type = REG_BINARY;
    if (!ReadHexBytes(line.substr(pos + 4), value.data)) return false;
  } else if (StartsWithNoCase(line, pos, L"hex(")) {
    pos += 4;
    if (!ReadHexNumber(line, pos, 8, value.type) || line.compare(pos, 2, L"):") != 0) return false;
    if (!ReadHexBytes(line.substr(pos + 2), value.data)) return false;
  } else {
    return false;  // deletions ("-") and anything else are not ours
  }
  value.size = static_cast<DWORD>(value.data.size());
  return true;
}

bool ParseText(const std::wstring& text, std::vector<SSection>& out) {
  std::vector<std::wstring> lines;
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find(L'\n', start);
    if (end == std::wstring::npos) end = text.size();
    std::wstring line = text.substr(start, end - start);
    if (!line.empty() && line.back() == L'\r') line.pop_back();
    lines.push_back(line);
    start = end + 1;
  }
  size_t i = 0;
  while (i < lines.size() && Trim(lines[i]).empty()) ++i;
  if (i == lines.size() || Trim(lines[i]) != kHeader) return false;
  for (++i; i < lines.size(); ++i) {
    std::wstring line = lines[i];
    std::wstring trimmed(Trim(line));
    if (trimmed.empty() || trimmed[0] == L';') continue;
    if (trimmed[0] == L'[') {
      size_t close = trimmed.rfind(L']');
      if (close == 0 || close == std::wstring::npos || trimmed[1] == L'-') return false;
      SSection section;
      std::wstring name = trimmed.substr(1, close - 1);
      if (!CRegistryPath::SplitKey(name.c_str(), name.size(), section.hive, section.subkey)) return false;
      out.push_back(std::move(section));
      continue;
    }
    if (out.empty()) return false;
    // hex data goes on over lines that end with a backslash
    while (!Trim(line).empty() && Trim(line).back() == L'\\' && i + 1 < lines.size()) {
      line = std::wstring(Trim(line));
      line.pop_back();
      line += Trim(lines[++i]);
    }
    SValue value;
    if (!ParseValue(std::wstring(Trim(line)), value)) return false;
    out.back().values.push_back(std::move(value));
  }
  return true;
}

bool ReadTextFile(const wchar_t* file, std::wstring& text, DWORD& error) {
  broom::unique_hfile handle(
      CreateFileW(file, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size = {};
  if (!handle || !GetFileSizeEx(handle.get(), &size)) {
    error = GetLastError();
    return false;
  }
  error = ERROR_INVALID_DATA;
  if (size.QuadPart < 2 || size.QuadPart > kMaxFileBytes || size.QuadPart % 2 != 0) return false;
  std::vector<BYTE> bytes(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  if (!ReadFile(handle.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) ||
      read != bytes.size()) {
    error = GetLastError() ? GetLastError() : ERROR_READ_FAULT;
    return false;
  }
  if (bytes[0] != 0xFF || bytes[1] != 0xFE) return false;
  text.resize((bytes.size() - 2) / 2);
  if (!text.empty()) memcpy(&text[0], bytes.data() + 2, bytes.size() - 2);
  return true;
}

bool StartsWithKey(const std::wstring& subkey, const wchar_t* prefix, std::wstring& rest) {
  const size_t length = wcslen(prefix);
  if (subkey.size() < length || !broom::EqualNoCase(subkey.c_str(), length, prefix, length)) return false;
  if (subkey.size() > length && subkey[length] != L'\\') return false;
  rest = subkey.size() > length ? subkey.substr(length + 1) : std::wstring();
  return true;
}

std::wstring Join(const wchar_t* a, const std::wstring& b) { return b.empty() ? a : std::wstring(a) + L"\\" + b; }

// Where the key an export was made for may really live: as named, its
// 32-bit view key under WOW6432Node, a classes key under HKCU or HKLM.
std::vector<std::pair<HKEY, std::wstring>> HomesOf(const CRegistryPath& path) {
  std::vector<std::pair<HKEY, std::wstring>> homes;
  std::wstring rest;
  if (path.Hive() == HKEY_CLASSES_ROOT) {
    homes.emplace_back(HKEY_CURRENT_USER, Join(L"Software\\Classes", path.Subkey()));
    homes.emplace_back(HKEY_LOCAL_MACHINE, Join(L"Software\\Classes", path.Subkey()));
  } else {
    homes.emplace_back(path.Hive(), path.Subkey());
  }
  const size_t named = homes.size();
  for (size_t i = 0; i < named; ++i) {
    const HKEY hive = homes[i].first;
    const std::wstring subkey = homes[i].second;
    if ((hive == HKEY_CURRENT_USER || hive == HKEY_LOCAL_MACHINE) && StartsWithKey(subkey, L"Software\\Classes", rest))
      homes.emplace_back(hive, Join(L"Software\\Classes\\WOW6432Node", rest));
    else if (hive == HKEY_LOCAL_MACHINE && StartsWithKey(subkey, L"SOFTWARE", rest) &&
             !StartsWithKey(rest, L"WOW6432Node", rest))
      homes.emplace_back(hive, Join(L"SOFTWARE\\WOW6432Node", rest));
  }
  return homes;
}

// Whether every section of the file lies at or below where path may live;
// for a value, only that value of that key.
bool Within(const std::vector<SSection>& sections, const CRegistryPath& path) {
  const auto homes = HomesOf(path);
  std::wstring rest;
  for (const SSection& section : sections) {
    bool inside = false;
    for (const auto& home : homes)
      inside = inside || (section.hive == home.first && StartsWithKey(section.subkey, home.second.c_str(), rest) &&
                          (!path.HasValue() || rest.empty()));
    if (!inside) return false;
    if (!path.HasValue()) continue;
    for (const SValue& value : section.values)
      if (!broom::EqualNoCase(value.name.c_str(), value.name.size(), path.ValueName().c_str(), path.ValueName().size()))
        return false;
  }
  return true;
}

}  // namespace

DWORD CRegFile::Export(const CRegistryPath& path, REGSAM view, const wchar_t* file, bool overwrite) {
  try {
    broom::unique_hkey key;
    LONG rc = RegOpenKeyExW(path.Hive(), path.Subkey().c_str(), 0, KEY_READ | view, key.addressof());
    if (rc != ERROR_SUCCESS) return RegistryResult(rc);
    std::wstring text = kHeader;
    text += L"\r\n";
    std::wstring section = SectionName(key.get(), path);
    if (path.HasValue()) {
      SValue value;
      rc = broom::reg::ReadValue(key.get(), path.ValueName(), value);
      if (rc == ERROR_SUCCESS && (HasLineBreak(section) || HasLineBreak(value.name))) rc = ERROR_INVALID_NAME;
      if (rc != ERROR_SUCCESS) return RegistryResult(rc);
      text += L"\r\n[" + section + L"]\r\n";
      AppendValue(text, value);
    } else {
      rc = AppendKey(key.get(), view, section, text);
      if (rc != ERROR_SUCCESS) return RegistryResult(rc);
    }
    text += L"\r\n";
    return WriteTextFile(file, text, overwrite);
  } catch (...) {
    return RegistryResult(ERROR_NOT_ENOUGH_MEMORY);
  }
}

DWORD CRegFile::Restore(const wchar_t* file, bool overwrite, SRegRestoreStats* stats, const CRegistryPath* within) {
  SRegRestoreStats local;
  SRegRestoreStats& counts = stats ? *stats : local;
  counts = SRegRestoreStats();
  try {
    std::wstring text;
    DWORD error = 0;
    if (!ReadTextFile(file, text, error)) return RegistryResult(static_cast<LONG>(error));
    std::vector<SSection> sections;
    if (!ParseText(text, sections)) return RegistryResult(ERROR_INVALID_DATA);
    if (within && !Within(sections, *within)) return kRegistryRestoreOutside;

    LONG first = ERROR_SUCCESS;
    auto note = [&first](LONG rc) {
      if (first == ERROR_SUCCESS) first = rc;
    };
    for (const SSection& section : sections) {
      // section names are where the keys really live: reach them in the 64-bit view
      broom::unique_hkey key;
      LONG rc = RegCreateKeyExW(section.hive, section.subkey.c_str(), 0, nullptr, 0,
                                KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, key.addressof(), nullptr);
      if (rc != ERROR_SUCCESS) {
        note(rc);
        continue;
      }
      ++counts.keys;
      for (const SValue& value : section.values) {
        SValue existing;
        rc = broom::reg::ReadValue(key.get(), value.name, existing);
        if (rc == ERROR_SUCCESS) {
          if (existing.type == value.type && existing.data == value.data) {
            ++counts.unchanged;
            continue;
          }
          if (!overwrite) {
            ++counts.conflicts;
            continue;
          }
        } else if (rc != ERROR_FILE_NOT_FOUND) {
          note(rc);
          continue;
        }
        rc = broom::reg::WriteValue(key.get(), value.name, value.type, value.data);
        if (rc == ERROR_SUCCESS)
          ++counts.written;
        else
          note(rc);
      }
    }
    if (first != ERROR_SUCCESS) return RegistryResult(first);
    return counts.conflicts ? static_cast<DWORD>(kRegistryRestoreConflict) : 0;
  } catch (...) {
    return RegistryResult(ERROR_NOT_ENOUGH_MEMORY);
  }
}
