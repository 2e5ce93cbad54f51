// minimal-host: the smallest useful host of the Broom engine. It loads a
// folder of definitions, scans one item, prints every hit and, with --clean,
// deletes the hits.   minimal-host DEFS DATA ITEM [--protect PATH]... [--clean]
// DEFS: definition folder; DATA: the host's data folder; ITEM: "Group/Item".
// The [guide:...] markers delimit the fragments docs/host-guide.md quotes.
#include <windows.h>
#include <objbase.h>

#include <cstdio>
#include <string>
#include <vector>

#include "atl/CAtlException.h"
#include "clean/CleanableFile.h"
#include "core/PathString.h"  // Exception
#include "scandefs/ConfigStore.h"
#include "settings/AppInfo.h"
#include "settings/RegSettings.h"
#include "threads/MsgThreadSTA.h"
#include "whitelist/WhiteListTree.h"

namespace {

// [guide:localizer]
// Texts for "$(name)" in group names and descriptions, asked as "MANUAL_name".
class CLocalizer : public ILocalizeStrings {
 public:
  CString Localize(const wchar_t* key, int) override { return CString(key + wcslen(L"MANUAL_")); }
};
// [guide:end]

// [guide:notifiers]
// Not reference counted; called on the scanning thread while PerformScan runs.
class CNotify : public IOperationProgressNotify, public IOperationStatusNotify {
 public:
  void SetTotal(int) override {}
  void SetPosition(int) override {}  // of SetTotal's total: a progress bar
  void Finish() override {}
  void SetCurrentFolder(const CString&) override {}
  bool IsCancelled() override { return false; }  // true stops the scan at the next entry
  void OnItem(const wchar_t*, int) override {}
};
// [guide:end]

// [guide:collector]
// Called for every hit on the scanning thread. An item arrives with a count
// of 0: the CRefPtr kept here takes the reference that keeps it alive.
class CCollector : public IResultsCollector {
 public:
  void AddItem(ICleanableItem* item) override { m_items.emplace_back(item); }
  std::vector<CRefPtr<ICleanableItem>> m_items;
};
// [guide:end]

// [guide:walk]
// The group at "Group/Item". The store owns the tree: the pointer is valid while it lives.
CScanGroup* FindGroup(IConfig* config, const std::wstring& path) {
  CRefPtr<TIteratorIface<CScanGroup>> level;
  config->GetGroups(level);
  CScanGroup* group = nullptr;
  for (size_t start = 0, end = 0; end != std::wstring::npos; start = end + 1) {
    end = path.find(L'/', start);
    const std::wstring name = path.substr(start, end - start);
    for (group = nullptr; level && !level->AtEnd() && !group; level->Next())
      if (_wcsicmp(level->Current()->GetName(), name.c_str()) == 0) group = level->Current();
    if (!group) return nullptr;
    group->GetChildren(level);
  }
  return group;
}
// [guide:end]

int Run(int argc, wchar_t** argv) {
  if (argc < 4) return fwprintf(stderr, L"usage: minimal-host DEFS DATA ITEM [--protect PATH]... [--clean]\n"), 2;
  const std::wstring data = argv[2];
  std::vector<const wchar_t*> protectedPaths;
  bool clean = false;
  for (int i = 4; i < argc; ++i) {
    if (wcscmp(argv[i], L"--clean") == 0) clean = true;
    if (wcscmp(argv[i], L"--protect") == 0 && i + 1 < argc) protectedPaths.push_back(argv[++i]);
  }

  // [guide:start-up]
  // Settings: HKCU and HKLM\SOFTWARE\Broom\MinimalHost. Scan logs go to the
  // data folder's Logs folder, which the host creates (or scans log nothing).
  CreateDirectoryW(data.c_str(), nullptr);
  CreateDirectoryW((data + L"\\Logs").c_str(), nullptr);
  CRegSettings settings(L"Broom", L"MinimalHost");
  CAppInfo::Init(&settings, data.c_str());
  // [guide:end]

  // [guide:load]
  CRefPtr<IConfig> config = IConfig::NewConfig();
  CLocalizer localizer;
  // No ILoadHook: only *.da0, *.dat0 and *.dat2 files would pass through one.
  if (!config->Load(argv[1], nullptr, &localizer))
    return fwprintf(stderr, L"minimal-host: no definition file could be read in %ls\n", argv[1]), 2;
  // [guide:end]

  // [guide:item]
  CScanGroup* item = FindGroup(config, argv[3]);
  if (!item || !item->HasScanOps() || item->IsEnabled() == abFalse)  // abFalse: a check failed
    return fwprintf(stderr, L"minimal-host: no item '%ls' applies to this PC\n", argv[3]), 2;
  // [guide:end]

  // [guide:whitelist]
  CWhiteListTree whiteList;  // scans skip protected folders with everything below them
  for (const wchar_t* path : protectedPaths) whiteList.SafeGuardPath(path, 0x1);
  // [guide:end]

  // [guide:scan]
  CNotify notify;
  CFakeBaseIUnknown<CCollector> collector;  // on the stack: counting does nothing
  CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> ops;
  item->GetScanOps(ops);
  for (; ops && !ops->AtEnd(); ops->Next())
    (*ops->Current())->PerformScan(&collector, &notify, &notify, &whiteList);
  for (const CRefPtr<ICleanableItem>& hit : collector.m_items)
    wprintf(L"hit %ls\\%ls %llu bytes\n", hit->GetDetails().GetString(), hit->GetName().GetString(), hit->GetSize());
  // [guide:end]

  if (!clean) return 0;
  // [guide:clean]
  int failures = 0;
  for (const CRefPtr<ICleanableItem>& hit : collector.m_items) {
    DWORD code = hit->Clean(nullptr, nullptr);  // never throws; kCleanDone (0) is success
    wprintf(L"%ls %ls 0x%08lX\n", code == kCleanDone ? L"cleaned" : L"failed", hit->GetName().GetString(), code);
    failures += code != kCleanDone;
  }
  return failures == 0 ? 0 : 1;
  // [guide:end]
}

}  // namespace

// [guide:main]
int wmain(int argc, wchar_t** argv) {
  // Clean asks a COM server when the shell fails, from this thread: enter an apartment.
  HRESULT com = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  int code = 2;
  try {
    code = Run(argc, argv);
  } catch (const Exception& e) {  // the engine's own: a path too long, a Win32 failure
    fwprintf(stderr, L"minimal-host: %ls\n", e.m_message.c_str());
  } catch (const CAtlException& e) {  // HRESULTs: a scan without paths, a file without '<'
    fwprintf(stderr, L"minimal-host: error 0x%08lX\n", static_cast<unsigned long>(e.m_hr));
  } catch (int) {  // CRegSettings: the key exists but cannot be opened
    fwprintf(stderr, L"minimal-host: the registry key cannot be opened\n");
  }
  // Every engine object went with Run. End the STA thread that cleaning
  // started: before exit, never from DllMain.
  if (CXmlConfigGlobal::IsRunning()) CXmlConfigGlobal::Shutdown();
  if (SUCCEEDED(com)) CoUninitialize();
  return code;
}
// [guide:end]
