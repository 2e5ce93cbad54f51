#include "winapp2/Winapp2Text.h"

#include <windows.h>

#include <cstring>
#include <cwchar>

#include "core/Handles.h"
#include "core/NameMask.h"
#include "core/Names.h"
#include "textconv/TextConv.h"

namespace broom {
namespace winapp2 {

namespace {

const std::pair<const wchar_t*, EKind> kKinds[] = {
    {L"LangSecRef", kLangSecRef}, {L"Section", kSection},     {L"Detect", kDetect},
    {L"DetectFile", kDetectFile}, {L"SpecialDetect", kSpecialDetect}, {L"DetectOS", kDetectOS},
    {L"FileKey", kFileKey},       {L"ExcludeKey", kExcludeKey}, {L"RegKey", kRegKey},
    {L"Warning", kWarning},       {L"Default", kDefault}};

}  // namespace

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == 0xFEFF; }

Text Trim(Text t) { return broom::Trim(t, IsBlank); }

bool Equal(Text a, const wchar_t* b) { return broom::EqualNoCase(a, b); }

std::wstring Upper(Text t) { return broom::Upper(std::wstring(t)); }

std::vector<Text> Fields(Text t, wchar_t separator) {
  std::vector<Text> fields;
  for (size_t start = 0;;) {
    size_t end = t.find(separator, start);
    fields.push_back(Trim(t.substr(start, end == Text::npos ? Text::npos : end - start)));
    if (end == Text::npos) return fields;
    start = end + 1;
  }
}

EKind KindOf(Text key) {
  while (!key.empty() && key.back() >= L'0' && key.back() <= L'9') key.remove_suffix(1);
  for (const auto& kind : kKinds)
    if (Equal(key, kind.first)) return kind.second;
  return kUnknown;
}

bool ParseVersion(Text t, unsigned (&version)[2]) {
  version[0] = version[1] = 0;
  size_t dot = t.find(L'.');
  Text parts[2] = {t.substr(0, dot), dot == Text::npos ? Text() : t.substr(dot + 1)};
  if (parts[0].empty() || (dot != Text::npos && parts[1].empty())) return false;
  for (int i = 0; i < 2; ++i)
    for (wchar_t c : parts[i]) {
      if (c < L'0' || c > L'9' || version[i] > 9999) return false;
      version[i] = version[i] * 10 + static_cast<unsigned>(c - L'0');
    }
  return true;
}

// GetVersionEx reports 6.2 to programs without a manifest that names newer systems.
void WindowsVersion(unsigned (&version)[2]) {
  static unsigned cached[2] = {0, 0};
  if (!cached[0]) {
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
    auto get = reinterpret_cast<RtlGetVersionFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    OSVERSIONINFOW info = {};
    info.dwOSVersionInfoSize = sizeof info;
    if (get && get(&info) == 0) {
      cached[0] = info.dwMajorVersion;
      cached[1] = info.dwMinorVersion;
    }
  }
  version[0] = cached[0];
  version[1] = cached[1];
}

bool Below(const unsigned (&a)[2], const unsigned (&b)[2]) { return a[0] < b[0] || (a[0] == b[0] && a[1] < b[1]); }

std::vector<SEntry> ParseEntries(const std::wstring& text, const SkipFn& skip) {
std::vector<SEntry> entries;
  bool inEntry = false;  // keys after an unreadable header belong to no entry
  int number = 0;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find(L'\n', at);
    if (end == std::wstring::npos) end = text.size();
    Text line = Trim(Text(text.data() + at, end - at));
    at = end + 1;
    ++number;
    if (line.empty() || line[0] == L';') continue;
    // text after a NUL would be lost on the way to the system, leaving a shorter path
    if (line.find(L'\0') != Text::npos) {
      skip(number, line.substr(0, line.find(L'\0')), L"the line holds a NUL character");
      if (line[0] == L'[') inEntry = false;
      continue;
    }
    if (line[0] == L'[') {
      inEntry = false;
      if (line.back() != L']') {
        skip(number, line, L"an entry name without its closing ']'; its keys are skipped too");
        continue;
      }
      Text name = Trim(line.substr(1, line.size() - 2));
      if (name.size() >= 2 && name.back() == L'*' && IsBlank(name[name.size() - 2])) name = Trim(name.substr(0, name.size() - 1));
      if (name.empty()) {
        skip(number, line, L"an entry without a name; its keys are skipped too");
        continue;
      }
      entries.push_back(SEntry{number, name, line, {}});
      inEntry = true;
      continue;
    }
    size_t equals = line.find(L'=');
    if (equals == Text::npos) {
      skip(number, line, L"not a Key=Value line");
      continue;
    }
    SLine key{number, kUnknown, Trim(line.substr(0, equals)), Trim(line.substr(equals + 1)), line};
    if (!inEntry) {
      skip(key.line, key.text, entries.empty() ? L"a key before the first [entry]" : L"a key of an entry that cannot be read");
      continue;
    }
    key.kind = KindOf(key.key);
    if (key.kind == kUnknown) {
      skip(key.line, key.text, L"unknown key '" + std::wstring(key.key) + L"'");
      continue;
    }
    entries.back().keys.push_back(key);
  }
  return entries;
}

bool ReadWhole(const wchar_t* path, size_t maxBytes, std::string& bytes, std::wstring& error) {
  broom::unique_hfile file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file) {
    DWORD code = GetLastError();
    error = code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND
                ? L"the file does not exist"
                : L"the file cannot be opened (Windows error " + std::to_wstring(code) + L")";
    return false;
  }
  LARGE_INTEGER size = {};
  if (!GetFileSizeEx(file.get(), &size) || static_cast<unsigned long long>(size.QuadPart) > maxBytes) {
    error = L"the file is larger than " + std::to_wstring(maxBytes >> 20) + L" MB";
    return false;
  }
  bytes.resize(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  if (!bytes.empty() && (!ReadFile(file.get(), &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                         read != bytes.size())) {
    error = L"the file cannot be read (Windows error " + std::to_wstring(GetLastError()) + L")";
    return false;
  }
  return true;
}

std::wstring Decode(const char* data, size_t size) {
  std::wstring text;
  if (size >= 2 && static_cast<unsigned char>(data[0]) == 0xFF && static_cast<unsigned char>(data[1]) == 0xFE) {
    text.resize((size - 2) / 2);
    if (!text.empty()) memcpy(&text[0], data + 2, text.size() * 2);
    return text;
  }
  if (size >= 3 && memcmp(data, "\xEF\xBB\xBF", 3) == 0) {
    data += 3;
    size -= 3;
  }
  if (size == 0) return text;
  text = textconv::ToWide(std::string(data, size), CP_UTF8);
  return text;
}

}  // namespace winapp2
}  // namespace broom
