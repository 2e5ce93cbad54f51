#include "app/Session.h"

#include <shlobj.h>
#include <shlwapi.h>

#include <set>
#include <unordered_set>
#include <stdexcept>

#include "app/Text.h"
#include "app/WhiteListFile.h"
#include "atl/CAtlException.h"
#include "core/Handles.h"
#include "core/PathString.h"
#include "log/ScanLogThread.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegistryScanFactory.h"
#include "scan/BaseFileScan.h"
#include "scan/OperationNotify.h"
#include "scan/ScanOperation.h"
#include "settings/AppInfo.h"
#include "settings/RegSettings.h"

namespace host {

namespace {

std::atomic<bool> g_cancel{false};

bool SameName(const wchar_t* a, const std::wstring& b) { return _wcsicmp(a, b.c_str()) == 0; }

std::vector<std::wstring> SplitPath(const std::wstring& path) {
  std::vector<std::wstring> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find(L'/', start);
    if (slash == std::wstring::npos) slash = path.size();
    std::wstring part = path.substr(start, slash - start);
    // Surrounding blanks are a typing accident, never part of a name.
    size_t b = part.find_first_not_of(L' '), e = part.find_last_not_of(L' ');
    if (b != std::wstring::npos) parts.push_back(part.substr(b, e - b + 1));
    start = slash + 1;
  }
  return parts;
}

template <class F>
void ForEachChild(const CScanGroup* group, F f) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  group->GetChildren(it);
  for (; it && !it->AtEnd(); it->Next()) f(it->Current());
}

template <class F>
void ForEachTop(IConfig* config, F f) {
  CRefPtr<TIteratorIface<CScanGroup>> it;
  config->GetGroups(it);
  for (; it && !it->AtEnd(); it->Next()) f(it->Current());
}

// top and every group below it, parents before children, in the tree's
// order; without recursion, as a tree may be deeper than the stack.
template <class F>
void ForEachBelow(CScanGroup* top, F f) {
  std::vector<CScanGroup*> work{top};
  std::vector<CScanGroup*> children;
  while (!work.empty()) {
    CScanGroup* group = work.back();
    work.pop_back();
    f(group);
    children.clear();
    ForEachChild(group, [&](CScanGroup* child) { children.push_back(child); });
    work.insert(work.end(), children.rbegin(), children.rend());
  }
}

void CollectItems(CScanGroup* top, std::vector<SItem>& out) {
  ForEachBelow(top, [&](CScanGroup* group) {
    if (group->HasScanOps()) out.push_back(SItem{group, GroupPath(group)});
  });
}

// Every group whose path ends with the given names.
void FindSuffix(CScanGroup* top, const std::vector<std::wstring>& parts, std::vector<CScanGroup*>& out) {
  ForEachBelow(top, [&](CScanGroup* group) {
    const CScanGroup* g = group;
    for (size_t i = parts.size(); i-- > 0; g = g->GetParent())
      if (!g || !SameName(g->GetName(), parts[i])) return;
    out.push_back(group);
  });
}

// The names of a path as the user typed them, rejoined the way SplitPath
// reads them, so that blanks and doubled '/' do not count.
std::wstring JoinedPath(const std::wstring& path) {
  std::wstring joined;
  for (const std::wstring& part : SplitPath(path)) joined += (joined.empty() ? L"" : L"/") + part;
  return joined;
}

// Every group whose path is the whole text, or ends with it after a '/': a
// name that holds a '/' itself ("Folder/Dialog Box View Settings") is found so.
void FindWholeText(CScanGroup* top, const std::wstring& text, std::vector<CScanGroup*>& out) {
  std::wstring wanted = JoinedPath(text);
  ForEachBelow(top, [&](CScanGroup* group) {
    std::wstring path = JoinedPath(GroupPath(group));
    size_t at = path.size() >= wanted.size() ? path.size() - wanted.size() : std::wstring::npos;
    if (at != std::wstring::npos && (at == 0 || path[at - 1] == L'/') && _wcsicmp(path.c_str() + at, wanted.c_str()) == 0)
      out.push_back(group);
  });
}

// One note per switched-off item, or one for all when a group holds many.
void NoteSwitchedOff(const std::vector<std::wstring>& off, const std::wstring& group, std::vector<std::wstring>& notes) {
  if (off.size() <= 3) {
    for (const std::wstring& path : off)
      notes.push_back(L"skipped '" + path + L"': switched off because its application is not installed");
    return;
  }
  notes.push_back(L"skipped " + FormatCount(off.size()) + L" items of '" + group +
                  L"': switched off because their applications are not installed");
}

std::wstring ExceptionText() {
  try {
    throw;
  } catch (const CHostError& e) {
    return e.message;
  } catch (const CAtlException& e) {
    wchar_t text[64];
    swprintf(text, 64, L"error 0x%08lX", static_cast<unsigned long>(e.m_hr));
    return text;
  } catch (const Exception& e) {
    return e.m_message;
  } catch (const std::exception& e) {
    return Wide(e.what());
  } catch (...) {
    return L"unexpected error";
  }
}

// ---- scanning ----

class CScanNotify : public IOperationProgressNotify, public IOperationStatusNotify {
 public:
  explicit CScanNotify(const SScanOptions& options)
      : m_cancelAfter(options.cancelAfterFiles), m_observer(options.observer) {}

  void Begin(const std::wstring& item, size_t index, size_t count) {
    m_total = 0;
    if (m_observer) m_observer->OnItem(item, index, count);
  }

  void SetTotal(int total) override {
    m_total = total;
    if (m_observer) m_observer->OnProgress(0, total);
  }
  void SetPosition(int position) override {
    if (m_observer) m_observer->OnProgress(position, m_total);
  }
  void Finish() override {
    if (m_observer) m_observer->OnProgress(m_total, m_total);
  }

  void SetCurrentFolder(const CString& folder) override {
    if (m_observer) m_observer->OnFolder(std::wstring(folder.GetString(), static_cast<size_t>(folder.GetLength())));
  }
  bool IsCancelled() override {
    if (m_observer && m_observer->IsCancelled()) RequestCancel();
    return IsCancelRequested();
  }
  void OnItem(const wchar_t*, int kind) override {
    if (kind == itemFile && m_cancelAfter != 0 && ++m_filesSeen >= m_cancelAfter) RequestCancel();
  }

 private:
  unsigned long m_cancelAfter;
  unsigned long m_filesSeen = 0;
  IScanObserver* m_observer;
  int m_total = 0;
};

// Adds an age filter to every file operation of a run, or takes the age
// filters out for the run, and puts the filters back as they were
// afterwards, so the tree is as loaded for the next run.
class CRunAgeFilters {
 public:
  CRunAgeFilters(unsigned long days, bool withoutAges) : m_days(days), m_withoutAges(withoutAges) {}
  ~CRunAgeFilters() {
    for (auto& added : m_added) added.first->RemoveFilter(added.second);
    for (auto& removed : m_removed) removed.first->AddFilter(removed.second);
  }
  CRunAgeFilters(const CRunAgeFilters&) = delete;
  CRunAgeFilters& operator=(const CRunAgeFilters&) = delete;

  void Apply(IScanOperation* op) {
    auto* files = dynamic_cast<CBaseFileScan*>(op);
    if (!files) return;
    if (m_withoutAges) {
      std::vector<CBaseFileScan::IFilter*> ages;
      for (const auto& filter : files->GetFilters())
        if (dynamic_cast<CBaseFileScan::_FilterRejectRecentFiles_Impl*>(filter.Get())) ages.push_back(filter.Get());
      for (CBaseFileScan::IFilter* age : ages) {
        m_removed.emplace_back(files, age);  // holds it while it is out of the list
        files->RemoveFilter(age);
      }
      return;
    }
    if (m_days == 0) return;
    auto* age = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
    CRefPtr<CBaseFileScan::IFilter> hold(age);
    age->SetAge(m_days, false);
    files->AddFilter(age);
    m_added.emplace_back(files, age);
  }

 private:
  unsigned long m_days;
  bool m_withoutAges;
  std::vector<std::pair<CBaseFileScan*, CBaseFileScan::IFilter*>> m_added;
  std::vector<std::pair<CBaseFileScan*, CRefPtr<CBaseFileScan::IFilter>>> m_removed;
};

// Which files were already counted, by their upper-cased full path. A scan
// that keeps only totals remembers a 64-bit hash of each path instead of the
// path itself, so 100,000 hits cost a few megabytes rather than a hundred.
class CSeenPaths {
 public:
  explicit CSeenPaths(bool exact) : m_exact(exact) {}

  // False when the path was seen before.
  bool Insert(const wchar_t* path, size_t length) {
    // registry paths may be longer than file paths
    wchar_t local[MAX_PATH + 1];
    std::wstring longer;
    wchar_t* upper = local;
    if (length > MAX_PATH) {
      longer.assign(path, length);
      upper = &longer[0];
    } else {
      wmemcpy(local, path, length);
    }
    CharUpperBuffW(upper, static_cast<DWORD>(length));
    if (m_exact) return m_paths.emplace(upper, length).second;
    unsigned long long hash = 14695981039346656037ull;
    for (size_t i = 0; i < length; ++i) hash = (hash ^ upper[i]) * 1099511628211ull;
    return m_hashes.insert(hash).second;
  }

 private:
  bool m_exact;
  std::unordered_set<std::wstring> m_paths;
  std::unordered_set<unsigned long long> m_hashes;
};

class CHitCollector : public IResultsCollector {
 public:
  CHitCollector(CWhiteListTree& whiteList, EKeep keep, SScanResults& results)
      : m_whiteList(whiteList), m_keep(keep), m_seen(keep != keepTotals), m_results(results) {}

  void SetTarget(SItemResult* target) { m_target = target; }
  void SetOperation(const IScanOperation* op) { m_op = op; }
  void SetObserver(IScanObserver* observer) { m_observer = observer; }
  void SetEveryItem(bool everyItem) { m_everyItem = everyItem; }

  void AddItem(ICleanableItem* item) override {
    if (!item || !m_target) return;
    // File items know their path; registry items their key (and value);
    // others are asked for folder and name.
    std::wstring built;
    const wchar_t* path = nullptr;
    size_t length = 0;
    auto* file = dynamic_cast<CCleanableFile*>(item);
    if (file) {
      path = file->GetPath().c_str();
      length = file->GetPath().GetLength();
    } else {
      if (auto* key = dynamic_cast<CCleanableRegistry*>(item))
        built = key->GetPath().Text();
      else
        built = std::wstring(item->GetDetails().GetString()) + L"\\" + item->GetName().GetString();
      path = built.c_str();
      length = built.size();
    }
    // Protection covers folders during the walk; a protected file (or a
    // folder protected after its parent was listed) is dropped here.
    // Registry scans check every key and value they report themselves.
    if (file && (m_whiteList.CheckProtection(path) & 0x1)) {
      ++m_results.protectedSkipped;
      return;
    }
    if (!m_everyItem && !m_seen.Insert(path, length)) return;
    unsigned __int64 size = item->GetSize();
    m_target->size += size;
    ++m_target->files;
    ++m_results.files;
    m_results.size += size;
    if (m_observer) m_observer->OnHits(m_results.files, m_results.size);
    if (m_keep == keepTotals) return;
    SHit hit;
    if (m_keep == keepItems) hit.item = item;
    hit.path.assign(path, length);
    hit.size = size;
    hit.op = m_op;
    m_target->hits.push_back(std::move(hit));
  }

 private:
  CWhiteListTree& m_whiteList;
  EKeep m_keep;
  CSeenPaths m_seen;
  SScanResults& m_results;
  SItemResult* m_target = nullptr;
  const IScanOperation* m_op = nullptr;
  IScanObserver* m_observer = nullptr;
  bool m_everyItem = false;
};

}  // namespace

void RequestCancel() { g_cancel = true; }
bool IsCancelRequested() { return g_cancel; }
void ResetCancel() { g_cancel = false; }

std::wstring GroupPath(const CScanGroup* group) {
  // names are gathered leaf first and joined once, so long names at every
  // level cost their length, not their length times the depth
  std::vector<const wchar_t*> names;
  size_t length = 0;
  for (const CScanGroup* g = group; g; g = g->GetParent()) {
    names.push_back(g->GetName());
    length += wcslen(names.back()) + 1;
  }
  std::wstring path;
  path.reserve(length);
  for (auto it = names.rbegin(); it != names.rend(); ++it) {
    if (!path.empty()) path += L'/';
    path += *it;
  }
  return path;
}

bool IsOn(AttributeBoolState state) { return state == abTrue; }
bool IsEnabled(const CScanGroup* group) { return group->IsEnabled() != abFalse; }

std::wstring FullPath(const std::wstring& path) {
  wchar_t buffer[MAX_PATH + 1];
  DWORD n = GetFullPathNameW(path.c_str(), MAX_PATH + 1, buffer, nullptr);
  if (n == 0 || n > MAX_PATH)
    throw CHostError{exitUsage, L"the path '" + path + L"' is not usable (too long or malformed); give a full path of at most 260 characters"};
  std::wstring full(buffer, n);
  while (full.size() > 3 && full.back() == L'\\') full.pop_back();
  return full;
}

std::wstring ExeFolder() {
  wchar_t buffer[MAX_PATH + 1];
  DWORD n = GetModuleFileNameW(nullptr, buffer, MAX_PATH + 1);
  std::wstring path(buffer, n);
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? std::wstring(L".") : path.substr(0, slash);
}

CSession::CSession() = default;
CSession::~CSession() = default;

void CSession::Start(bool noLog) {
  wchar_t local[MAX_PATH + 1] = {};
  DWORD n = GetEnvironmentVariableW(L"LOCALAPPDATA", local, MAX_PATH + 1);
  if (n == 0 || n > MAX_PATH) {
    if (FAILED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, local)))
      throw CHostError{exitUsage, L"cannot find the local application data folder; set LOCALAPPDATA"};
  }
  m_userData = std::wstring(local);
  while (!m_userData.empty() && m_userData.back() == L'\\') m_userData.pop_back();
  m_userData += L"\\Broom";
  std::wstring logs = m_userData + L"\\Logs";
  int rc = SHCreateDirectoryExW(nullptr, logs.c_str(), nullptr);
  if (rc != ERROR_SUCCESS && rc != ERROR_ALREADY_EXISTS && rc != ERROR_FILE_EXISTS)
    throw CHostError{exitUsage, L"cannot create the data folder '" + logs + L"'; check that it is writable"};

  try {
    CRegSettings settings(L"Broom", L"Engine");
    CAppInfo::Init(&settings, m_userData.c_str());
  } catch (int) {
    throw CHostError{exitUsage, L"the registry key HKCU\\SOFTWARE\\Broom\\Engine exists but cannot be opened; check its permissions"};
  }
  if (noLog) CAppInfo::SetManualStateBits(0x20000);
  m_config = IConfig::NewConfig();
  m_config->AddFactory(CRegistryScanFactory::Create());  // "reg" definitions
  m_started = true;
}

void CSession::LoadDefinitions(const std::vector<std::wstring>& folders) {
  // every file a load skipped, with the reason, as a note of its own
  auto showSkipped = [this] {
    if (CConfigStore* store = CConfigStore::Of(m_config))
      for (const SLoadNote& note : store->TakeLoadNotes())
        NoteLoad(L"skipped " + note.file.str() + L": " + note.reason.str());
  };
  for (const std::wstring& folder : folders) {
    DWORD attributes = GetFileAttributesW(folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
      throw CHostError{exitUsage, L"the definition folder '" + folder + L"' does not exist; pass --defs with a folder of definition files"};
    bool loaded = false;
    try {
      loaded = m_config->Load(folder.c_str(), nullptr, nullptr);
    } catch (...) {
      showSkipped();
      throw CHostError{exitUsage, L"the definitions in '" + folder + L"' are unusable (" + ExceptionText() +
                                      L"); fix the definition file or leave the folder out"};
    }
    showSkipped();
    if (!loaded)
      throw CHostError{exitUsage, L"no definition file in '" + folder +
                                      L"' could be read (*.xml, *.dat); check the files or pass another --defs"};
  }
  if (AllItems().empty())
    throw CHostError{exitUsage, L"the definitions hold no item with a clean element; check the --defs folders"};
}

SWinapp2Report LoadWinapp2(CConfigStore& store, const std::wstring& file) {
  SWinapp2Report report = CWinapp2Loader(store).Load(file.c_str());
  if (!report.read)
    throw CHostError{exitUsage, L"cannot read the winapp2 file '" + file + L"': " + report.error.str() +
                                    L"; give the path of a winapp2.ini file"};
  return report;
}

void CSession::LoadWinapp2Files(const std::vector<std::wstring>& files) {
  CConfigStore* store = CConfigStore::Of(m_config);
  if (!store) return;
  for (const std::wstring& given : files) {
    std::wstring file = FullPath(given);
    SWinapp2Report report = LoadWinapp2(*store, file);
    store->TakeLoadNotes();  // one line here; 'broom winapp2 check' lists them
    if (!report.skipped.empty())
      NoteLoad(file + L": " + Plural(report.skipped.size(), L"line was", L"lines were") +
               L" skipped; 'broom winapp2 check' lists them");
  }
}

std::wstring CSession::WhiteListFile() const { return m_userData + L"\\whitelist.txt"; }

void CSession::LoadWhiteList() {
  const std::wstring file = WhiteListFile();
  std::string bytes;
  DWORD error = ERROR_SUCCESS;
  {
    broom::unique_hfile handle(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!handle) {
      error = GetLastError();
      if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return;  // nothing protected yet
    } else {
      std::vector<char> chunk(65536);
      for (DWORD got = 0;; bytes.append(chunk.data(), got)) {
        if (!::ReadFile(handle.get(), chunk.data(), static_cast<DWORD>(chunk.size()), &got, nullptr)) {
          error = GetLastError();
          break;
        }
        if (got == 0) break;
      }
    }
  }
  if (error != ERROR_SUCCESS)
    throw CHostError{exitUsage, L"the protected-path list " + Quoted(file) + L" cannot be read (" +
                                    SystemMessage(error) +
                                    L"); nothing was changed: close the program that holds it or check its permissions, "
                                    L"then run the command again"};
  std::vector<std::wstring> lines;
  SWhiteListFault fault;
  if (!SplitWhiteList(bytes, lines, fault))
    throw CHostError{exitUsage, L"the protected-path list " + Quoted(file) + L" cannot be read whole: " + fault.what +
                                    L"; nothing was changed: " + fault.fix + L" in that file, then run the command again"};

  // The lines that were checked are the ones loaded, so the file cannot
  // change in between.
  std::vector<CString> paths;
  paths.reserve(lines.size());
  m_unstorable.clear();
  for (size_t i = 0; i < lines.size(); ++i) {
    paths.emplace_back(lines[i].c_str());
    std::wstring stored = StoredForm(lines[i]);
    if (!WhyNotStorable(stored).empty()) m_unstorable.push_back(SUnstorableLine{stored, static_cast<int>(i + 1)});
  }
  try {
    m_whiteList.LoadFromArray(paths);
  } catch (...) {
    throw CHostError{exitUsage, L"the protected-path list " + Quoted(file) + L" cannot be loaded (" + ExceptionText() +
                                    L"); nothing was changed: correct or delete the file"};
  }
}

void CSession::SaveWhiteList() {
  const std::wstring file = WhiteListFile();
  CRefPtr<IConstTArray<CString>> listed = m_whiteList.SaveToArray(0x1);
  for (const CString& entry : listed->GetArray()) {
    std::wstring path(entry.GetString(), static_cast<size_t>(entry.GetLength()));
    std::wstring why = WhyNotStorable(path);
    if (why.empty()) continue;
    for (const SUnstorableLine& u : m_unstorable)
      if (u.stored == path)
        throw CHostError{exitUsage, L"the protected-path list " + Quoted(file) + L" cannot be saved: line " +
                                        std::to_wstring(u.line) + L" is stored as " + Quoted(path) + L", which " + why +
                                        L"; nothing was changed: replace that line with a parent folder or delete it, "
                                        L"then run the command again"};
    throw CHostError{exitUsage, Quoted(path) + L" cannot be protected: its stored (upper-case) form " + why +
                                    L"; nothing was changed: protect a parent folder instead"};
  }
  // Written beside the file and moved over it in one step: a failure half-way
  // leaves the old list as it was.
  const std::wstring temp = file + L".tmp";
  if (!m_whiteList.SaveToFile(temp.c_str(), 0x1)) {
    DeleteFileW(temp.c_str());
    throw CHostError{exitUsage, L"the protected-path list cannot be written to " + Quoted(temp) +
                                    L"; nothing was changed: check that its folder is writable and has space"};
  }
  if (!MoveFileExW(temp.c_str(), file.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    DWORD error = GetLastError();
    DeleteFileW(temp.c_str());
    throw CHostError{exitUsage, L"the protected-path list " + Quoted(file) + L" cannot be replaced (" +
                                    SystemMessage(error) +
                                    L"); nothing was changed: check that it is not read-only or held open by a program"};
  }
}

std::vector<SItem> CSession::AllItems() const {
  std::vector<SItem> items;
  ForEachTop(m_config, [&](CScanGroup* group) { CollectItems(group, items); });
  return items;
}

std::vector<SItem> CSession::Select(const std::vector<std::wstring>& names, bool forClean,
                                    std::vector<std::wstring>& notes) const {
  std::vector<SItem> all = AllItems();
  std::vector<SItem> chosen;
  if (names.empty()) {
    for (const SItem& item : all) {
      if (!IsEnabled(item.group) || !IsOn(item.group->IsDefaultScan())) continue;
      if (forClean && !IsOn(item.group->IsDefaultClean())) continue;
      chosen.push_back(item);
    }
    return chosen;
  }

  std::set<const CScanGroup*> taken;
  for (const std::wstring& name : names) {
    std::vector<std::wstring> parts = SplitPath(name);
    if (parts.empty()) throw CHostError{exitUsage, L"an empty item name was given; run 'broom list' to see the names"};
    // A full path from a top-level group first, then a path that ends a group's path.
    std::vector<CScanGroup*> found;
    ForEachTop(m_config, [&](CScanGroup* top) {
      if (!SameName(top->GetName(), parts[0])) return;
      CScanGroup* g = top;
      for (size_t i = 1; g && i < parts.size(); ++i) {
        CScanGroup* next = nullptr;
        ForEachChild(g, [&](CScanGroup* child) {
          if (!next && SameName(child->GetName(), parts[i])) next = child;
        });
        g = next;
      }
      if (g) found.push_back(g);
    });
    if (found.empty()) ForEachTop(m_config, [&](CScanGroup* top) { FindSuffix(top, parts, found); });
    if (found.empty()) ForEachTop(m_config, [&](CScanGroup* top) { FindWholeText(top, name, found); });
    if (found.empty())
      throw CHostError{exitUsage, L"no item or group is named '" + name + L"'; run 'broom list' to see the names"};
    if (found.size() > 1) {
      std::wstring which;
      for (CScanGroup* g : found) which += (which.empty() ? L"'" : L", '") + GroupPath(g) + L"'";
      throw CHostError{exitUsage, L"'" + name + L"' names several groups (" + which + L"); give the full path"};
    }
    std::vector<SItem> below;
    CollectItems(found[0], below);
    std::vector<std::wstring> off;
    for (const SItem& item : below) {
      if (!IsEnabled(item.group)) {
        off.push_back(item.path);
        continue;
      }
      if (taken.insert(item.group).second) chosen.push_back(item);
    }
    NoteSwitchedOff(off, GroupPath(found[0]), notes);
  }
  return chosen;
}

void CSession::BeginScanLog(const wchar_t* command) {
  m_scanLog = CScanLogThread::GetCurrentScanLog(true);
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t heading[96];
  swprintf(heading, 96, L"Broom %ls, %04u-%02u-%02u %02u:%02u:%02u", command, now.wYear, now.wMonth, now.wDay,
           now.wHour, now.wMinute, now.wSecond);
  m_scanLog->WriteEntry(CString(heading), true);
}

SScanResults CSession::Scan(const std::vector<SItem>& items, const SScanOptions& options) {
  SScanResults results;
  results.items.reserve(items.size());
  CScanNotify notify(options);
  CFakeBaseIUnknown<CHitCollector> collector(m_whiteList, options.keep, results);
  collector.SetObserver(options.observer);
  collector.SetEveryItem(options.everyItem);
  CRunAgeFilters ages(options.olderThanDays, options.withoutAgeFilters);
  // The managed quarantines are never scanned; the guard lasts for this scan
  // only, so it is never saved or listed with the protected paths.
  const std::wstring quarantines = QuarantineRoot();
  const bool guard = !(m_whiteList.CheckProtection(quarantines.c_str()) & 0x1);
  if (guard) m_whiteList.SafeGuardPath(quarantines.c_str(), 0x1);
  auto unguard = broom::scope_exit([&] {
    if (guard) m_whiteList.RemovePath(quarantines.c_str(), 0x1);
  });

  for (size_t i = 0; i < items.size(); ++i) {
    if (notify.IsCancelled()) break;
    results.items.push_back(SItemResult{items[i], {}, 0, 0, {}, {}});
    SItemResult& current = results.items.back();
    collector.SetTarget(&current);
    notify.Begin(items[i].path, i, items.size());

    CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
    items[i].group->GetScanOps(ops);
    for (; ops && !ops->AtEnd(); ops->Next()) {
      if (notify.IsCancelled()) break;
      IScanOperation* op = *ops->Current();
      if (!op) continue;
      collector.SetOperation(op);
      try {
        ages.Apply(op);
        op->PerformScan(&collector, &notify, &notify, &m_whiteList);
      } catch (...) {
        current.errors.push_back(ExceptionText());
      }
    }
  }
  collector.SetTarget(nullptr);
  results.cancelled = IsCancelRequested();
  return results;
}

bool CSession::SourceOf(const SHit& hit, SOperationSource& out) const {
  const CConfigStore* store = CConfigStore::Of(m_config);
  return hit.op && store && store->GetOperationSource(hit.op, out);
}

}  // namespace host
