#include "scandefs/ConfigStore.h"

#include <shlwapi.h>

#include <cwchar>
#include <initializer_list>

#include "core/Handles.h"
#include "scandefs/NoCase.h"
#include "scandefs/XmlReader.h"

namespace {

// A localized value may refer to itself; this bounds the re-scanning.
constexpr int kMaxSubstitutions = 256;

using Store = IUnknownNoQIImp<CConfigStore>;

}  // namespace

CRefPtr<IConfig> IConfig::NewConfig() { return CRefPtr<IConfig>(new Store()); }

void CConfigStore::GetGroups(CRefPtr<TIteratorIface<CScanGroup>>& out) {
  out.Reset();
  m_root.GetChildren(out);
}

bool CConfigStore::Load(const wchar_t* folder, ILoadHook* hook, ILocalizeStrings* localizer) {
  ++m_loadDepth;
  m_localizer = localizer;
  // every level lowers the depth again; the outermost also expands and
  // sorts the tree, on the way out of a failure too
  auto leave = broom::scope_exit([&] {
    --m_loadDepth;
    m_localizer = nullptr;
  });
  bool loaded = false;
  const std::pair<const wchar_t*, bool> kinds[] = {
      {L"xml", false}, {L"dat", false}, {L"da0", true}, {L"dat0", true}, {L"dat2", true}};
  try {
    for (const auto& kind : kinds) loaded |= SearchFolder(folder, kind.first, kind.second ? hook : nullptr);
  } catch (...) {
    if (m_loadDepth == 1) FinishLoad();
    throw;
  }
  if (m_loadDepth == 1) FinishLoad();
  return loaded;
}

namespace {

// A mask of the form *.ext with a three-character extension also matches
// the 8.3 short name, so "*.dat" finds "c.dat2" (short name C~1.DAT). What
// a search finds counts only when its long name ends with the extension
// itself: a file of a hooked kind must never be read as a plain one.
bool HasExtension(const wchar_t* name, const std::wstring& suffix) {
  size_t length = wcslen(name);
  return length >= suffix.size() &&
         broom::CompareNoCase(name + length - suffix.size(), suffix.c_str()) == 0;
}

}  // namespace

bool CConfigStore::SearchFolder(const wchar_t* folder, const wchar_t* extension, ILoadHook* hook) {
  std::wstring mask = extension[0] == L'.' ? std::wstring(L"*") + extension : std::wstring(L"*.") + extension;
  const std::wstring suffix = mask.substr(1);
  while (*folder == L'.' || *folder == L'\\') ++folder;
  wchar_t pattern[520 + MAX_PATH] = {};
  wcsncpy(pattern, folder, 519);
  if (!PathAppendW(pattern, mask.c_str())) return false;
  WIN32_FIND_DATAW data;
  broom::unique_hfind find(FindFirstFileW(pattern, &data));
  if (!find) return false;
  wchar_t base[520 + MAX_PATH];
  wcscpy(base, pattern);
  PathRemoveFileSpecW(base);
  bool loaded = false;
  do {
    if (wcscmp(data.cFileName, L".") == 0 || wcscmp(data.cFileName, L"..") == 0) continue;
    if (!HasExtension(data.cFileName, suffix)) continue;
    wchar_t path[520 + MAX_PATH];
    wcscpy(path, base);
    // A join past 260 characters fails and empties the buffer, which would
    // then name the current directory: such an entry is skipped.
    if (!PathAppendW(path, data.cFileName) || !path[0]) continue;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
      loaded |= SearchFolder(path, extension, hook);
    else
      loaded |= LoadFile(path, hook);
  } while (FindNextFileW(find.get(), &data));
  return loaded;
}

bool CConfigStore::LoadFile(const wchar_t* path, ILoadHook* hook) {
  XmlReader reader(CRefPtr<CConfigStore>(this));
  return reader.ReadFile(CString(path), m_root, hook);
}

void CConfigStore::FinishLoad() {
  for (auto& child : m_root.m_children) ExpandTree(child);
  m_root.SortChildren();
}

void CConfigStore::ExpandTree(CScanGroup_imp& group) {
  // only a '%' or a '$' can make a text change
  for (CString* text : {&group.m_name, &group.m_desc}) {
    if (!wcspbrk(*text, L"%$")) continue;
    CString expanded = ExpandText(*text);
    if (expanded != *text) *text = expanded;
  }
  for (auto& child : group.m_children) ExpandTree(child);
}

CString CConfigStore::ExpandText(const CString& text) const {
  CString result = text;
  if (!result.IsEmpty() && result.Find(L'%') >= 0) {
    wchar_t buffer[511];
    DWORD n = ExpandEnvironmentStringsW(result, buffer, 511);
    if (n > 0 && n <= 511) {
      result = buffer;
      if (result.Find(L'%') >= 0) result.Replace(L"%%", L"%");
    }
  }
  if (m_localizer) {
    int pos = 0;
    for (int substitutions = 0; substitutions < kMaxSubstitutions; ++substitutions) {
      int open = result.Find(L"$(", pos);
      if (open < 0) break;
      int close = result.Find(L')', open + 2);
      if (close < 0 || close == open + 2) break;
      CString name = result.Mid(open + 2, close - open - 2);
      CString value = m_localizer->Localize(CString(L"MANUAL_") + name, 0);
      result.Replace(CString(L"$(") + name + L")", value);
      pos = open;
    }
  }
  result.Replace(L"$$", L"$");
  return result;
}

// ---- settings ----

void XmlConfigSettings::Set(const wchar_t*, const wchar_t*) {}
void XmlConfigSettings::Set(const wchar_t*, int) {}
int XmlConfigSettings::Get(const wchar_t*, int defaultValue) { return defaultValue; }
CString XmlConfigSettings::Get(const wchar_t*, const wchar_t* defaultValue) { return CString(defaultValue); }
std::wstring XmlConfigSettings::Group() { return m_group.str(); }
std::wstring XmlConfigSettings::GetPath(const wchar_t* name) { return Group() + (name ? name : L""); }

void XmlConfigSettings::BeginGroup(const wchar_t* name) {
  if (!m_group.IsEmpty() && m_group.Right(1) != L"/") m_group += L'/';
  if (name) m_group += name;
  m_group += L'/';
}

void XmlConfigSettings::EndGroup() {
  m_group.TrimRight(L'/');
  int slash = m_group.ReverseFind(L'/');
  if (slash >= 0)
    m_group = m_group.Left(slash + 1);
  else
    m_group.Empty();
}

XmlConfigGroup::XmlConfigGroup(XmlConfigSettings* settings, const wchar_t* name) : m_settings(settings) {
  if (m_settings) {
    m_savedGroup = m_settings->Group();
    if (name && *name) m_settings->BeginGroup(name);
  }
}

XmlConfigGroup::~XmlConfigGroup() {
  if (m_settings) m_settings->m_group = m_savedGroup;
}
