#include "recyclebin/RecycleBinScan.h"

#include <sddl.h>

#include <map>

#include "atl/CAtlException.h"
#include "clean/FileSystemOps.h"
#include "core/Handles.h"
#include "log/ScanLogThread.h"
#include "recyclebin/RecycleBinItem.h"
#include "recyclebin/RecycleBinRecord.h"
#include "scan/OperationNotify.h"
#include "whitelist/WhiteListTree.h"

namespace {

// The $I and $R entries of one suffix.
struct SPair {
  bool hasRecord = false, hasData = false;
  WIN32_FIND_DATAW record = {}, data = {};
};

std::wstring Upper(std::wstring text) {
  if (!text.empty()) broom::UpperCase(&text[0], text.size());
  return text;
}

// The whitelist's view of a path: at most 260 characters, cut at a
// separator (an entry above the cut protects everything below it).
std::wstring WhiteListForm(const std::wstring& path) {
  if (path.size() <= 260) return path;
  std::wstring cut = path.substr(0, 261);
  size_t slash = cut.rfind(L'\\');
  return cut.substr(0, slash == std::wstring::npos ? 0 : slash);
}

// Whether an entry below the folder's node in the tree protects something.
bool HoldsProtected(const CWhiteListTree::Folder& folder) {
  std::vector<const SWhiteListTreeNode*> pending{folder.Position().node()};
  while (!pending.empty()) {
    const SWhiteListTreeNode* node = pending.back();
    pending.pop_back();
    for (const SWhiteListTreeNode* child = node->link->next; child->item; child = child->next) {
      if (child->item->flags & 0x1) return true;
      pending.push_back(child);
    }
  }
  return false;
}

// Protected itself, below a protected folder or, for a folder about to go
// whole, holding something protected. A path the whitelist cannot read
// counts as protected.
bool Protected(CWhiteListTree& whiteList, const std::wstring& path, bool whole) {
  if (path.empty()) return false;
  try {
    std::wstring form = WhiteListForm(path);
    if (whiteList.CheckProtection(form.c_str()) & 0x1) return true;
    if (!whole || form.size() != path.size()) return false;
    unsigned long flags = 0;
    CWhiteListTree::Folder folder = whiteList.GetFolder(form.c_str(), flags);
    return folder && HoldsProtected(folder);
  } catch (...) {
    return true;
  }
}

// Whether the folder may be entered: it exists, is a folder and is no link.
// A link is noted.
bool Enterable(const std::wstring& folder, std::vector<CRecycleBinScan::SNote>& notes) {
  DWORD attributes = GetFileAttributesW(folder.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY)) return false;
  if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
    notes.push_back({folder, L"it is a link, not the Recycle Bin's own folder; not entered"});
    return false;
  }
  return true;
}

}  // namespace

std::wstring CRecycleBinScan::CurrentUserSid() {
  broom::unique_handle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.addressof())) return std::wstring();
  DWORD size = 0;
  GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
  std::vector<BYTE> buffer(size ? size : 1);
  if (!GetTokenInformation(token.get(), TokenUser, buffer.data(), size, &size)) return std::wstring();
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid, &text)) return std::wstring();
  broom::unique_hlocal hold(text);
  return text;
}

void CRecycleBinScan::PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress,
                                  IOperationStatusNotify* status, CWhiteListTree* whiteList) {
  // as file scans: never without the caller's protection list
  if (!whiteList) AtlThrow(E_FAIL);
  m_notes.clear();
  std::vector<std::wstring> roots = m_drives;
  if (m_drives.empty()) {
    std::list<CBaseFileScan::DriveInfo> drives;
    CBaseFileScan::GetFixedDriveInfo(drives);
    for (const auto& drive : drives) roots.emplace_back(drive.root.c_str());
  }
  std::wstring sid = CurrentUserSid();
  if (sid.empty()) m_notes.push_back({L"", L"the current user's SID cannot be read; no Recycle Bin was scanned"});
  if (progress) progress->SetTotal(static_cast<int>(roots.size()));
  for (size_t i = 0; i < roots.size() && !sid.empty(); ++i) {
    if (status && status->IsCancelled()) break;
    std::wstring root = roots[i];
    if (root.empty() || root.back() != L'\\') root += L'\\';
    std::wstring bin = root + L"$Recycle.Bin";
    if (Enterable(bin, m_notes) && Enterable(bin + L"\\" + sid, m_notes))
      ScanBin(bin + L"\\" + sid, collector, status, whiteList);
    if (progress) progress->SetPosition(static_cast<int>(i + 1));
  }
  if (progress) progress->Finish();
}

void CRecycleBinScan::ScanBin(const std::wstring& bin, IResultsCollector* collector, IOperationStatusNotify* status,
                              CWhiteListTree* whiteList) {
  if (status) status->SetCurrentFolder(CString(bin.c_str()));
  if (Protected(*whiteList, bin, false)) return;
  // pairs by upper-cased suffix, so the items come in a stable order
  std::map<std::wstring, SPair> pairs;
  {
    WIN32_FIND_DATAW data;
    broom::unique_hfind find(FindFirstFileExW((bin + L"\\*").c_str(), FindExInfoBasic, &data, FindExSearchNameMatch,
                                              nullptr, 0));
    if (!find) return;
    do {
      const wchar_t* name = data.cFileName;
      if (name[0] != L'$' || !name[1]) continue;  // desktop.ini and anything else is not an entry
      wchar_t kind = name[1] == L'i' ? L'I' : name[1] == L'r' ? L'R' : name[1];
      if (kind != L'I' && kind != L'R') continue;
      SPair& pair = pairs[Upper(name + 2)];
      (kind == L'I' ? pair.hasRecord : pair.hasData) = true;
      (kind == L'I' ? pair.record : pair.data) = data;
    } while (FindNextFileW(find.get(), &data));
  }
  CRefPtr<ILogWriter> log = CScanLogThread::GetCurrentScanLog(false);
  for (const auto& [suffix, pair] : pairs) {
    if (status && status->IsCancelled()) return;
    std::wstring recordPath = pair.hasRecord ? bin + L"\\" + pair.record.cFileName : std::wstring();
    SRecycleBinRecord record;
    if (pair.hasRecord) {
      std::wstring why;
      if (pair.record.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT))
        why = L"it is a folder or a link, not a record";
      else if (!CRecycleBinRecord::Read(recordPath.c_str(), record, why))
        why = L"it does not parse: " + why;
      if (!why.empty()) {
        m_notes.push_back({recordPath, why + L"; the entry is left alone"});
        continue;
      }
    }
    try {
      CRefPtr<CRecycleBinItem> item(new IUnknownNoQIImp<CRecycleBinItem>());
      item->InitEntry(bin, pair.hasRecord ? &pair.record : nullptr, pair.hasRecord ? &record : nullptr,
                      pair.hasData ? &pair.data : nullptr);
      if (Protected(*whiteList, item->GetDataPath(), item->IsDirectory()) ||
          Protected(*whiteList, item->GetRecordPath(), false) ||
          Protected(*whiteList, item->GetOriginalPath(), false))
        continue;
      bool kept = false;
      for (const auto& filter : m_filters)
        if (filter && filter->RejectFile(CPathString(bin.c_str()), item->GetAgeEntry())) kept = true;
      if (kept) continue;
      // the log lists every reported item, even one the host later declines
      if (log) log->WriteEntry(item->GetLogEntry(), false);
      if (collector) collector->AddItem(item);
    } catch (...) {
      m_notes.push_back({pair.hasData ? bin + L"\\" + pair.data.cFileName : recordPath,
                         L"it could not be read as an entry (a path too long?); left alone"});
    }
  }
}
