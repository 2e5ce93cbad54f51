#include "app/Session.h"

#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>

#include "app/PolicyRules.h"
#include "app/CookieSites.h"
#include "app/Text.h"
#include "app/WhiteListFile.h"
#include "app/Winapp2Files.h"
#include "browserdb/BrowserDbScanFactory.h"
#include "core/Handles.h"
#include "log/ScanLogThread.h"
#include "recyclebin/RecycleBinScanFactory.h"
#include "registry/RegistryScanFactory.h"
#include "settings/AppInfo.h"
#include "settings/RegSettings.h"

namespace host {

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

namespace {

// Why no log can be written in the Logs folder; empty when one can.
std::wstring LogFolderFault(const std::wstring& data, const std::wstring& logs) {
  const wchar_t* what = L"; this run writes no scan log";
  for (const std::wstring& folder : {data, logs}) {
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY))
      return L"the data folder " + Quoted(folder) + L" is a file, not a folder" + what +
             L": move or rename that file";
    if (attributes == INVALID_FILE_ATTRIBUTES)
      return L"the data folder " + Quoted(folder) + L" cannot be made (" + SystemMessage(GetLastError()) + L")" +
             what;
  }
  // A file made and deleted at once tells whether the folder takes files.
  const std::wstring probe = logs + L"\\broom-write-test.tmp";
  broom::unique_hfile file(CreateFileW(probe.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                       FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  if (!file)
    return L"the log folder " + Quoted(logs) + L" cannot be written (" + SystemMessage(GetLastError()) + L")" + what;
  return std::wstring();
}

}  // namespace

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
  // a portable copy keeps its data beside itself
  if (std::wstring portable = PortableDataFolder(); !portable.empty()) m_userData = portable;
  // A data folder that cannot be made stops only what needs it (the
  // whitelist's saving, the quarantines, the logs), each saying so.
  const std::wstring logs = m_userData + L"\\Logs";
  SHCreateDirectoryExW(nullptr, logs.c_str(), nullptr);
  if (!noLog) m_logFault = LogFolderFault(m_userData, logs);

  try {
    CRegSettings settings(L"Broom", L"Engine");
    CAppInfo::Init(&settings, m_userData.c_str());
  } catch (int) {
    throw CHostError{exitUsage, L"the registry key HKCU\\SOFTWARE\\Broom\\Engine exists but cannot be opened; check its permissions"};
  }
  if (noLog || !m_logFault.empty()) CAppInfo::SetManualStateBits(0x20000);
  m_config = IConfig::NewConfig();
  m_config->AddFactory(CRegistryScanFactory::Create());  // "reg" definitions
  m_recycleBin = CRecycleBinScanFactory::Create();        // "recyclebin" definitions
  m_config->AddFactory(m_recycleBin);
  ReadCookieKeep(CookieKeepFile(), m_cookieKeep);  // unusable: its cookie operations find nothing
  m_config->AddFactory(CBrowserDbScanFactory::Create(m_cookieKeep));  // "cookies" and "history"
  m_started = true;
}

void CSession::LoadDefinitions(const std::vector<std::wstring>& folders) {
  // every file a load skipped, with the reason, as a note of its own
  auto showSkipped = [this] {
    if (CConfigStore* store = CConfigStore::Of(m_config))
      for (const SLoadNote& note : store->TakeLoadNotes())
        NoteLoad(L"skipped " + note.file.str() + L": " + note.reason.str());
    if (auto* bin = dynamic_cast<CRecycleBinScanFactory*>(m_recycleBin.Get()))
      for (const std::wstring& note : bin->TakeNotes()) NoteLoad(note);
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
  if (!files.empty() && Policies().IsOn(EPolicy::disableWinapp2)) {
    NoteLoad(L"winapp2 files are switched off by your organisation (DisableWinapp2); " +
             Plural(files.size(), L"file was", L"files were") + L" not loaded");
    return;
  }
  for (const std::wstring& given : files) {
    std::wstring file = FullPath(given);
    SWinapp2Report report = LoadWinapp2(*store, file);
    store->TakeLoadNotes();  // one line here; 'broom winapp2 check' lists them
    if (report.items == 0)
      throw CHostError{exitUsage, L"the winapp2 file " + Quoted(file) + L" gave no usable entry (" +
                                      Plural(report.entries, L"entry", L"entries") + L", " +
                                      Plural(report.skipped.size(), L"line", L"lines") +
                                      L" skipped); 'broom winapp2 check' lists why"};
    if (!report.skipped.empty())
      NoteLoad(file + L": " + Plural(report.skipped.size(), L"line was", L"lines were") +
               L" skipped; 'broom winapp2 check' lists them");
  }
}

void CSession::ApplyPolicies() {
  std::vector<std::wstring> notes;
  host::ApplyPolicies(m_config, Policies(), notes);
  PolicyProtectedPaths(Policies(), &notes);
  for (std::wstring& note : notes) NoteLoad(std::move(note));
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

std::vector<SItem> CSession::AllItems() const { return host::AllItems(m_config); }

std::vector<SItem> CSession::Select(const std::vector<std::wstring>& names, bool forClean,
                                    std::vector<std::wstring>& notes) const {
  return SelectItems(m_config, names, forClean, notes);
}

SSelection CSession::SelectByCost(const std::vector<std::wstring>& names, bool forClean, const SCostChoice& include,
                                  std::vector<std::wstring>& notes) const {
  return host::SelectByCost(m_config, names, forClean, include, notes);
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
  // The managed quarantines are never scanned.
  // Broom's own data folder (the managed quarantines, the whitelist, the
  // logs being written) is never scanned.
  SScanOptions run = options;
  run.olderThanDays = std::max(run.olderThanDays, Policies().Number(EPolicy::minimumAgeDays, 0));
  run.withoutRegistry = run.withoutRegistry || Policies().IsOn(EPolicy::disableRegistryCleaning);
  CheckCookieKeep(*this, items);
  CPolicyProtection protection(m_whiteList, PolicyProtectedPaths(Policies()));
  return RunScan(items, run, m_whiteList, m_userData);
}

bool CSession::SourceOf(const SHit& hit, SOperationSource& out) const {
  const CConfigStore* store = CConfigStore::Of(m_config);
  return hit.op && store && store->GetOperationSource(hit.op, out);
}

}  // namespace host
