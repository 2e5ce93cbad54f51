#include "browserdb/CookieKeepList.h"

#include <algorithm>

#include "core/Handles.h"
#include "textconv/TextConv.h"

namespace {

constexpr DWORD kMaxFileBytes = 4 * 1024 * 1024;

std::wstring Wide(const std::string& utf8) { return textconv::ToWide(utf8, CP_UTF8); }

std::string Narrow(const std::wstring& text) { return textconv::ToMultiByte(text, CP_UTF8); }

// A line as a message shows it: control characters as <U+000D>.
std::wstring Shown(const std::wstring& text) {
  std::wstring out;
  for (wchar_t c : text) {
    if (c < 0x20 || c == 0x7F) {
      wchar_t code[12];
      swprintf(code, 12, L"<U+%04X>", static_cast<unsigned>(c));
      out += code;
    } else {
      out += c;
    }
  }
  return out;
}

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t'; }

std::wstring Trimmed(const std::wstring& text) {
  size_t first = 0, last = text.size();
  while (first < last && IsBlank(text[first])) ++first;
  while (last > first && IsBlank(text[last - 1])) --last;
  return text.substr(first, last - first);
}

// The host of a cookie as the list compares it: lower case, without leading dots.
std::string HostKey(const char* host, size_t length) {
  while (length && *host == '.') ++host, --length;
  std::string key(host, length);
  for (char& c : key)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return key;
}

}  // namespace

bool CCookieKeepList::ParseSite(const std::wstring& given, std::wstring& site, std::wstring& why) {
  static const wchar_t kExample[] = L"; write the host name alone, as in example.com";
  std::wstring text = Trimmed(given);
  site.clear();
  if (text.empty()) {
    why = L"names no site";
    return false;
  }
  size_t scheme = text.find(L"://");
  if (scheme != std::wstring::npos) {
    why = L"holds a scheme ('" + text.substr(0, scheme + 3) + L"')" + kExample;
    return false;
  }
  for (wchar_t c : text) {
    if (IsBlank(c) || c == 0x3000 || c == 0xA0) {
      why = std::wstring(L"holds a space") + kExample;
      return false;
    }
    if (c < 0x20 || c == 0x7F) {
      why = L"holds the control character " + Shown(std::wstring(1, c));
      return false;
    }
  }
  size_t slash = text.find_first_of(L"/\\");
  if (slash != std::wstring::npos) {
    why = L"holds a path ('" + text.substr(slash) + L"')" + kExample;
    return false;
  }
  if (text.find(L':') != std::wstring::npos) {
    why = std::wstring(L"holds a ':' (a scheme or a port)") + kExample;
    return false;
  }
  std::wstring host = text;
  if (host.compare(0, 2, L"*.") == 0)
    host.erase(0, 2);
  else if (host[0] == L'.')
    host.erase(0, 1);
  if (host.find_first_of(L"*?") != std::wstring::npos) {
    why = L"holds a wildcard; only a leading '*.' is allowed, and example.com keeps every subdomain already";
    return false;
  }
  bool ascii = std::all_of(host.begin(), host.end(), [](wchar_t c) { return c < 0x80; });
  if (!ascii) {
    wchar_t converted[256];
    int length = IdnToAscii(0, host.c_str(), static_cast<int>(host.size()), converted, 256);
    if (length <= 0) {
      why = L"is not a valid international host name";
      return false;
    }
    host.assign(converted, static_cast<size_t>(length));
  }
  for (wchar_t& c : host)
    if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
  if (host.empty() || host.size() > 253) {
    why = host.empty() ? L"names no site" : L"is longer than a host name may be (253 characters)";
    return false;
  }
  for (size_t start = 0; start <= host.size();) {
    size_t end = host.find(L'.', start);
    if (end == std::wstring::npos) end = host.size();
    size_t length = end - start;
    if (length == 0) {
      why = L"has an empty part between dots";
      return false;
    }
    if (length > 63) {
      why = L"has a part longer than 63 characters";
      return false;
    }
    if (host[start] == L'-' || host[end - 1] == L'-') {
      why = L"has a part that starts or ends with '-'";
      return false;
    }
    for (size_t i = start; i < end; ++i) {
      wchar_t c = host[i];
      if (!((c >= L'a' && c <= L'z') || (c >= L'0' && c <= L'9') || c == L'-' || c == L'_')) {
        why = L"holds the character '" + std::wstring(1, c) + L"', which no host name holds";
        return false;
      }
    }
    start = end + 1;
  }
  site = host;
  return true;
}

bool CCookieKeepList::Fail(int line, const std::string& raw, const std::wstring& reason) {
  m_usable = false;
  m_problem = SKeepListProblem();
  m_problem.line = line;
  m_problem.text = Shown(Wide(raw));
  m_problem.reason = reason;
  m_lines.clear();
  m_sites.clear();
  return false;
}

bool CCookieKeepList::Parse(const std::string& bytes) {
  m_usable = true;
  m_absent = false;
  m_problem = SKeepListProblem();
  m_lines.clear();
  m_sites.clear();
  m_enforced.clear();
  size_t start = bytes.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
  int number = 0;
  while (start < bytes.size()) {
    size_t end = bytes.find('\n', start);
    if (end == std::string::npos) end = bytes.size();
    SLine line;
    line.raw = bytes.substr(start, end - start);
    if (!line.raw.empty() && line.raw.back() == '\r') line.raw.pop_back();
    start = end + 1;
    ++number;
    if (line.raw.find('\0') != std::string::npos) return Fail(number, line.raw, L"holds a NUL character");
    if (!line.raw.empty() &&
        !MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, line.raw.data(), static_cast<int>(line.raw.size()),
                             nullptr, 0))
      return Fail(number, line.raw, L"is not UTF-8 text");
    std::wstring text = Wide(line.raw.substr(0, line.raw.find('#')));
    if (!Trimmed(text).empty()) {
      std::wstring site, why;
      if (!ParseSite(text, site, why)) return Fail(number, line.raw, why);
      line.site = Narrow(site);
      m_sites.insert(line.site);
    }
    m_lines.push_back(std::move(line));
  }
  return true;
}

bool CCookieKeepList::Load(const wchar_t* path) {
  m_lines.clear();
  m_sites.clear();
  m_enforced.clear();
  m_problem = SKeepListProblem();
  broom::unique_hfile file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                       nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file) {
    DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
      m_usable = true;
      m_absent = true;
      return true;
    }
    Fail(0, std::string(), L"cannot be read");
    m_problem.error = error;
    return false;
  }
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(file.get(), &size)) {
    Fail(0, std::string(), L"cannot be read");
    m_problem.error = GetLastError();
    return false;
  }
  if (size.QuadPart > kMaxFileBytes)
    return Fail(0, std::string(), L"is larger than a list of sites can be (4 MB)");
  std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
  DWORD read = 0;
  if (!bytes.empty() && (!ReadFile(file.get(), &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                         read != bytes.size())) {
    DWORD error = GetLastError();
    Fail(0, std::string(), L"cannot be read whole");
    m_problem.error = error ? error : ERROR_READ_FAULT;
    return false;
  }
  return Parse(bytes);
}

std::wstring CCookieKeepList::DescribeProblem() const {
  if (m_usable) return std::wstring();
  if (m_problem.line == 0) {
    std::wstring text = m_problem.reason;
    if (m_problem.error) {
      wchar_t* buffer = nullptr;
      DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                        FORMAT_MESSAGE_IGNORE_INSERTS,
                                    nullptr, m_problem.error, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
      std::wstring system = length ? std::wstring(buffer, length) : L"error " + std::to_wstring(m_problem.error);
      if (buffer) LocalFree(buffer);
      while (!system.empty() && (system.back() == L'\n' || system.back() == L'\r' || system.back() == L'.'))
        system.pop_back();
      text += L" (" + system + L")";
    }
    return text;
  }
  return L"line " + std::to_wstring(m_problem.line) + L" ('" + m_problem.text + L"') " + m_problem.reason;
}

std::string CCookieKeepList::KeptByUtf8(const std::string& key) const {
  if (m_sites.empty() || key.empty()) return std::string();
  if (m_sites.count(key)) return key;
  for (size_t dot = key.find('.'); dot != std::string::npos; dot = key.find('.', dot + 1)) {
    std::string parent = key.substr(dot + 1);
    if (!parent.empty() && m_sites.count(parent)) return parent;
  }
  return std::string();
}

bool CCookieKeepList::KeepsUtf8(const char* host, size_t length) const {
  if (!m_usable) return true;
  return !KeptByUtf8(HostKey(host ? host : "", host ? length : 0)).empty();
}

bool CCookieKeepList::Keeps(const wchar_t* host) const {
  std::string text = Narrow(host ? host : L"");
  return KeepsUtf8(text.data(), text.size());
}

std::wstring CCookieKeepList::KeptBy(const wchar_t* host) const {
  std::string text = Narrow(host ? host : L"");
  return Wide(KeptByUtf8(HostKey(text.data(), text.size())));
}

std::vector<std::wstring> CCookieKeepList::GetSites() const {
  std::vector<std::wstring> sites;
  std::unordered_set<std::string> seen;
  for (const SLine& line : m_lines)
    if (!line.site.empty() && seen.insert(line.site).second) sites.push_back(Wide(line.site));
  return sites;
}

void CCookieKeepList::Rebuild() {
  m_sites.clear();
  for (const SLine& line : m_lines)
    if (!line.site.empty()) m_sites.insert(line.site);
  m_sites.insert(m_enforced.begin(), m_enforced.end());
}

bool CCookieKeepList::AddEnforced(const wchar_t* text, const wchar_t* origin) {
  if (!m_usable) return false;
  std::wstring site, why;
  if (!ParseSite(text ? text : L"", site, why)) {
    Fail(0, std::string(), std::wstring(origin ? origin : L"an enforced site") + L" ('" + Shown(text ? text : L"") +
                               L"') " + why);
    m_enforced.clear();
    return false;
  }
  const std::string key = Narrow(site);
  if (std::find(m_enforced.begin(), m_enforced.end(), key) == m_enforced.end()) m_enforced.push_back(key);
  m_sites.insert(key);
  return true;
}

std::vector<std::wstring> CCookieKeepList::GetEnforcedSites() const {
  std::vector<std::wstring> sites;
  for (const std::string& site : m_enforced) sites.push_back(Wide(site));
  return sites;
}

bool CCookieKeepList::IsEnforced(const wchar_t* site) const {
  const std::string key = Narrow(site ? site : L"");
  return std::find(m_enforced.begin(), m_enforced.end(), key) != m_enforced.end();
}

namespace {

// The site an edit names; false with the reason in detail.
bool EditedSite(const wchar_t* text, std::wstring& site, std::wstring* detail) {
  std::wstring why;
  if (CCookieKeepList::ParseSite(text ? text : L"", site, why)) return true;
  if (detail) *detail = why;
  return false;
}

}  // namespace

CCookieKeepList::EEdit CCookieKeepList::Keep(const wchar_t* text, std::wstring* detail) {
  if (!m_usable) return editUnusable;
  std::wstring site;
  if (!EditedSite(text, site, detail)) return editInvalid;
  std::string key = Narrow(site);
  std::string by = KeptByUtf8(key);
  if (!by.empty()) {
    if (detail) *detail = Wide(by);
    return std::find(m_enforced.begin(), m_enforced.end(), by) != m_enforced.end() ? editByPolicy : editAlready;
  }
  m_lines.push_back(SLine{key, key});
  Rebuild();
  if (detail) *detail = site;
  return editAdded;
}

CCookieKeepList::EEdit CCookieKeepList::Unkeep(const wchar_t* text, std::wstring* detail) {
  if (!m_usable) return editUnusable;
  std::wstring site;
  if (!EditedSite(text, site, detail)) return editInvalid;
  std::string key = Narrow(site);
  if (detail) *detail = site;
  // a listed parent keeps the site whatever its own lines say
  size_t dot = key.find('.');
  std::string parent = dot == std::string::npos ? std::string() : KeptByUtf8(key.substr(dot + 1));
  const auto enforced = [&](const std::string& s) {
    return std::find(m_enforced.begin(), m_enforced.end(), s) != m_enforced.end();
  };
  if (enforced(key) || (!parent.empty() && enforced(parent))) {
    if (detail) *detail = Wide(enforced(key) ? key : parent);
    return editByPolicy;
  }
  if (!parent.empty()) {
    if (detail) *detail = Wide(parent);
    return editByParent;
  }
  if (!m_sites.count(key)) return editNotListed;
  m_lines.erase(std::remove_if(m_lines.begin(), m_lines.end(), [&](const SLine& line) { return line.site == key; }),
                m_lines.end());
  Rebuild();
  return editRemoved;
}

std::string CCookieKeepList::Text() const {
  std::string text;
  for (const SLine& line : m_lines) {
    text += line.raw;
    text += "\r\n";
  }
  return text;
}

DWORD CCookieKeepList::Save(const wchar_t* path) const {
  if (!m_usable) return ERROR_INVALID_STATE;
  const std::wstring target(path ? path : L"");
  const std::wstring temp = target + L".tmp";
  const std::string text = Text();
  {
    broom::unique_hfile file(CreateFileW(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return GetLastError();
    DWORD written = 0;
    if ((!text.empty() && (!WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
                           written != text.size())) ||
        !FlushFileBuffers(file.get())) {
      DWORD error = GetLastError();
      file.reset();
      DeleteFileW(temp.c_str());
      return error ? error : ERROR_WRITE_FAULT;
    }
  }
  if (!MoveFileExW(temp.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    DWORD error = GetLastError();
    DeleteFileW(temp.c_str());
    return error;
  }
  return ERROR_SUCCESS;
}
