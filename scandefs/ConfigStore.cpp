#include "scandefs/ConfigStore.h"

#include <shlwapi.h>

#include <algorithm>
#include <cwchar>
#include <utility>
#include <initializer_list>
#include <map>
#include <memory>
#include <vector>

#include "core/Handles.h"
#include "core/Names.h"
#include "scandefs/FilePrefetch.h"
#include "scandefs/XmlReader.h"

namespace {

// A localized value may refer to itself; this bounds the look-ups.
constexpr int kMaxSubstitutions = 256;
// The most text ExpandEnvironmentStringsW takes.
constexpr int kMaxEnvironmentText = 32767;
// Localizing a text inserts at most four times its length and 1M
// characters, so values that multiply themselves stop in time.
constexpr size_t kInsertFree = 1 << 20;

using Store = IUnknownNoQIImp<CConfigStore>;

}  // namespace

CRefPtr<IConfig> IConfig::NewConfig() { return CRefPtr<IConfig>(new Store()); }

CConfigStore* CConfigStore::Of(IConfig* config) { return dynamic_cast<CConfigStore*>(config); }

std::vector<SLoadNote> CConfigStore::TakeLoadNotes() {
  std::vector<SLoadNote> notes;
  notes.swap(m_notes);
  return notes;
}

void CConfigStore::AddLoadNote(const CString& file, int line, const CString& reason) {
  m_notes.push_back(SLoadNote{file, line, reason});
}

ECost CConfigStore::GetOwnCost(const CScanGroup* group) const {
  auto found = m_costs.find(group);
  return found == m_costs.end() ? costUnset : found->second;
}

ECost CConfigStore::GetCost(const CScanGroup* group) const {
  for (const CScanGroup* at = group; at && at != &m_root; at = at->m_parent) {
    ECost own = GetOwnCost(at);
    if (own != costUnset) return own;
  }
  return costCache;
}

void CConfigStore::SetCost(const CScanGroup* group, ECost cost) {
  if (cost == costUnset)
    m_costs.erase(group);
  else
    m_costs[group] = cost;
}

namespace {

void AddOnce(std::vector<std::wstring>& names, const std::wstring& name) {
  for (const std::wstring& known : names)
    if (broom::EqualNoCase(known.c_str(), known.size(), name.c_str(), name.size())) return;
  names.push_back(name);
}

}  // namespace

std::vector<std::wstring> CConfigStore::GetPrograms(const CScanGroup* group) const {
  std::vector<std::wstring> names;
  for (const CScanGroup* at = group; at && at != &m_root; at = at->m_parent) {
    auto found = m_programs.find(at);
    if (found == m_programs.end()) continue;
    for (const std::wstring& name : found->second) AddOnce(names, name);
  }
  return names;
}

void CConfigStore::AddPrograms(const CScanGroup* group, const std::vector<std::wstring>& images) {
  if (images.empty()) return;
  std::vector<std::wstring>& names = m_programs[group];
  for (const std::wstring& name : images) AddOnce(names, name);
}

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
  // Each folder is listed once for the five searches of this load.
  Listings listings;
  Listings* outer = std::exchange(m_listings, &listings);
  auto restore = broom::scope_exit([&] { m_listings = outer; });
  try {
    // sorting the tree at the end would confuse the index: it goes first
    std::unique_ptr<XmlReader::SharedIndex> index;
    if (m_loadDepth == 1) index = std::make_unique<XmlReader::SharedIndex>(m_root);
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

// A folder with fewer files is read without a thread of its own: starting
// one costs about what reading a file does.
constexpr size_t kPrefetchFrom = 3;

}  // namespace

const std::vector<CConfigStore::SEntry>* CConfigStore::Listing(const wchar_t* base) {
  std::wstring key(base);
  if (m_listings) {
    auto found = m_listings->find(key);
    if (found != m_listings->end()) return found->second.listed ? &found->second.entries : nullptr;
  }
  SListing listing;
  wchar_t pattern[520 + MAX_PATH];
  wcscpy(pattern, base);
  if (PathAppendW(pattern, L"*")) {
    WIN32_FIND_DATAW data;
    broom::unique_hfind find(FindFirstFileW(pattern, &data));
    listing.listed = static_cast<bool>(find);
    if (find) {
      do {
        if (wcscmp(data.cFileName, L".") == 0 || wcscmp(data.cFileName, L"..") == 0) continue;
        listing.entries.push_back(SEntry{data.cFileName, (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
      } while (FindNextFileW(find.get(), &data));
    }
  }
  if (!m_listings) return nullptr;
  SListing& kept = (*m_listings)[key] = std::move(listing);
  return kept.listed ? &kept.entries : nullptr;
}

bool CConfigStore::SearchFolder(const wchar_t* folder, const wchar_t* extension, ILoadHook* hook) {
  std::wstring mask = extension[0] == L'.' ? std::wstring(L"*") + extension : std::wstring(L"*.") + extension;
  const std::wstring suffix = mask.substr(1);
  while (*folder == L'.' || *folder == L'\\') ++folder;
  wchar_t pattern[520 + MAX_PATH] = {};
  wcsncpy(pattern, folder, 519);
  // the pattern as the search of one extension would list it, for its limits
  if (!PathAppendW(pattern, mask.c_str())) return false;
  wchar_t base[520 + MAX_PATH];
  wcscpy(base, pattern);
  PathRemoveFileSpecW(base);
  const std::vector<SEntry>* entries = Listing(base);
  if (!entries) return false;
  // The joined paths first, so that the files can be read ahead of the
  // one being merged. A join past 260 characters fails and empties the
  // buffer, which would then name the current directory: such an entry is
  // skipped.
  std::vector<std::wstring> paths(entries->size());
  std::vector<std::wstring> files;
  // by index: a nested search may add listings, never change this one
  for (size_t i = 0; i < entries->size(); ++i) {
    const SEntry& entry = (*entries)[i];
    if (!HasExtension(entry.name.c_str(), suffix)) continue;
    wchar_t path[520 + MAX_PATH];
    wcscpy(path, base);
    if (!PathAppendW(path, entry.name.c_str()) || !path[0]) continue;
    paths[i] = path;
    if (!entry.folder) files.push_back(path);
  }
  std::unique_ptr<CFilePrefetch> prefetch;
  if (files.size() >= kPrefetchFrom)
    prefetch = std::make_unique<CFilePrefetch>(std::move(files), hook ? nullptr : &XmlReader::PrepareText);
  bool loaded = false;
  size_t file = 0;
  for (size_t i = 0; i < entries->size(); ++i) {
    if (paths[i].empty()) continue;
    if ((*entries)[i].folder) {
      loaded |= SearchFolder(paths[i].c_str(), extension, hook);
    } else {
      SFileBytes bytes;
      if (prefetch)
        prefetch->Take(file++, bytes);
      else
        ReadWholeFile(paths[i].c_str(), bytes);
      loaded |= LoadFile(paths[i].c_str(), bytes, hook);
    }
  }
  return loaded;
}

bool CConfigStore::LoadFile(const wchar_t* path, SFileBytes& bytes, ILoadHook* hook) {
  XmlReader reader(CRefPtr<CConfigStore>(this));
  return reader.ReadFile(CString(path), bytes, m_root, hook);
}

void CConfigStore::FinishLoad() {
  for (auto& child : m_root.m_children) ExpandTree(child);
  m_root.SortChildren();
}

void CConfigStore::ExpandTree(CScanGroup_imp& top) {
  // depth first, parents before children, without recursion
  std::vector<CScanGroup_imp*> work{&top};
  while (!work.empty()) {
    CScanGroup_imp& group = *work.back();
    work.pop_back();
    // only a '%' or a '$' can make a text change
    for (CString* text : {&group.m_name, &group.m_desc}) {
      const wchar_t* c = text->GetString();
      while (*c && *c != L'%' && *c != L'$') ++c;
      if (!*c) continue;
      CString expanded = ExpandText(*text);
      if (expanded != *text) *text = expanded;
    }
    for (auto child = group.m_children.rbegin(); child != group.m_children.rend(); ++child) work.push_back(&*child);
  }
}

CString CConfigStore::ExpandText(const CString& text) const {
  CString result = text;
  if (!result.IsEmpty() && result.GetLength() <= kMaxEnvironmentText && result.Find(L'%') >= 0) {
    wchar_t buffer[511];
    DWORD n = ExpandEnvironmentStringsW(result, buffer, 511);
    if (n > 0 && n <= 511) {
      result = buffer;
      if (result.Find(L'%') >= 0) result.Replace(L"%%", L"%");
    }
  }
  if (m_localizer && result.Find(L"$(") >= 0) result = Localize(result);
  result.Replace(L"$$", L"$");
  return result;
}

// Replaces "$(name)" references by the localizer's values in one pass from
// left to right. The text reads as if each look-up replaced every
// occurrence of its reference at once and the search went on at the
// reference just replaced: an inserted value is scanned in turn, and a
// reference that was already in the text when the same name was looked up
// takes that look-up's value without a new one. Each character remembers
// the look-up that inserted it (0: the text itself), which tells the two
// apart.
CString CConfigStore::Localize(const CString& text) const {
  const wchar_t* original = text.GetString();
  const size_t length = static_cast<size_t>(text.GetLength());
  size_t at = 0;                       // the original text is read up to here
  std::wstring pending;                // inserted text still to read, last character first
  std::vector<unsigned short> stamps;  // the look-up that inserted each pending character
  std::wstring out;
  out.reserve(length);
  struct Lookup {
    int number;
    std::wstring value;
  };
  std::map<std::wstring, std::vector<Lookup>> lookups;
  int lookupCount = 0;
  size_t insertable = 4 * length + kInsertFree;

  auto size = [&] { return pending.size() + (length - at); };
  auto charAt = [&](size_t k) { return k < pending.size() ? pending[pending.size() - 1 - k] : original[at + k - pending.size()]; };
  auto stampAt = [&](size_t k) { return k < stamps.size() ? stamps[stamps.size() - 1 - k] : 0; };
  auto drop = [&](size_t n) {
    size_t inserted = std::min(n, pending.size());
    pending.resize(pending.size() - inserted);
    stamps.resize(stamps.size() - inserted);
    at += n - inserted;
  };
  // Once a look-up may not be made, references made before the last
  // look-up of their name still take its value: those were replaced
  // already when the step ended.
  bool lookingUp = true;
  for (;;) {
    while (size() >= 2 && !(charAt(0) == L'$' && charAt(1) == L'(')) {
      out += charAt(0);
      drop(1);
    }
    if (size() < 2) break;
    // nothing after a "$(" without ")" can be a reference
    size_t close = 2;
    while (close < size() && charAt(close) != L')') ++close;
    if (close == size()) break;
    std::wstring name;
    int stamp = 0;
    for (size_t k = 0; k <= close; ++k) {
      if (k >= 2 && k < close) name += charAt(k);
      stamp = std::max<int>(stamp, stampAt(k));
    }
    // an empty name ends the look-ups
    lookingUp = lookingUp && !name.empty();
    std::vector<Lookup>& history = lookups[name];
    auto earlier = std::upper_bound(history.begin(), history.end(), stamp,
                                    [](int s, const Lookup& l) { return s < l.number; });
    if (earlier == history.end()) {
      lookingUp = lookingUp && lookupCount < kMaxSubstitutions;
      if (!lookingUp) {
        for (size_t k = 0; k <= close; ++k) out += charAt(k);
        drop(close + 1);
        continue;
      }
      CString key(L"MANUAL_");
      key += CString(name.data(), static_cast<int>(name.size()));
      history.push_back(Lookup{++lookupCount, m_localizer->Localize(key, 0).str()});
      earlier = history.end() - 1;
    }
    const std::wstring& value = earlier->value;
    if (value.size() > insertable) break;
    insertable -= value.size();
    drop(close + 1);
    pending.append(value.rbegin(), value.rend());
    stamps.resize(stamps.size() + value.size(), static_cast<unsigned short>(earlier->number));
  }
  out.append(pending.rbegin(), pending.rend());
  out.append(original + at, length - at);
  return CString(out.c_str(), static_cast<int>(out.size()));
}

bool CConfigStore::GetOperationSource(const IScanOperation* op, SOperationSource& out) const {
  auto before = [](const SSourceRecord& a, const SSourceRecord& b) { return a.op < b.op; };
  if (!m_sourcesSorted) {
    std::stable_sort(m_sources.begin(), m_sources.end(), before);
    m_sourcesSorted = true;
  }
  SSourceRecord key{op, 0, 0, 0, 0, 0, 0};
  auto last = std::upper_bound(m_sources.begin(), m_sources.end(), key, before);
  if (last == m_sources.begin() || (last - 1)->op != op) return false;
  const SSourceRecord& r = *(last - 1);
  out.file = m_sourceFiles[r.file];
  out.line = r.line;
  out.kind = CString(m_sourceText.data() + r.kind, static_cast<int>(r.kindLength));
  out.text = CString(m_sourceText.data() + r.text, static_cast<int>(r.textLength));
  return true;
}

void CConfigStore::SetOperationSource(const IScanOperation* op, const wchar_t* file, int line, const wchar_t* kind,
                                      const wchar_t* text) {
  if (!op) return;
  file = file ? file : L"";
  // notes come file by file: the last file is the one to reuse
  if (m_sourceFiles.empty() || m_sourceFiles.back().Compare(file) != 0) m_sourceFiles.emplace_back(file);
  SSourceRecord record{op, m_sourceFiles.size() - 1, line, 0, 0, 0, 0};
  record.kind = m_sourceText.size();
  record.kindLength = kind ? wcslen(kind) : 0;
  m_sourceText.append(kind ? kind : L"", record.kindLength);
  record.text = m_sourceText.size();
  record.textLength = text ? wcslen(text) : 0;
  m_sourceText.append(text ? text : L"", record.textLength);
  if (!m_sources.empty() && m_sources.back().op > op) m_sourcesSorted = false;
  m_sources.push_back(record);
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
