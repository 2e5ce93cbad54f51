#include "scan/StdFileScan.h"

#include "clean/CleanableFile.h"
#include "clean/CleanableFolder.h"

void CStdFileScan::PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress,
                               IOperationStatusNotify* status, CWhiteListTree* whiteList) {
  m_collector = collector;
  Initialize(progress, status, whiteList);
  StartScan();
  m_collector.Reset();
}

void CStdFileScan::OnFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) { ProcessHit(folder, entry, 0); }

void CStdFileScan::Report(CCleanableFile* item, const CPathString& folder, const WIN32_FIND_DATAW& entry) {
  CRefPtr<ICleanableItem> hold(item);
  item->Init(folder, entry);
  // the log lists every reported item, even one the host later declines
  m_log->WriteEntry(item->GetLogEntry(), false);
  m_collector->AddItem(item);
}

void CStdFileScan::ProcessHit(const CPathString& folder, const WIN32_FIND_DATAW& entry, unsigned int) {
  Report(new IUnknownNoQIImp<CCleanableFile>(), folder, entry);
}

void CStdFileScan_trunc::ProcessHit(const CPathString& folder, const WIN32_FIND_DATAW& entry, unsigned int) {
  if (entry.nFileSizeHigh == 0 && entry.nFileSizeLow == 0) return;
  Report(new IUnknownNoQIImp<CCleanableFile_trunc>(), folder, entry);
}

bool CStdFileScan::OnEmptiedFolder(const CPathString& path, const WIN32_FIND_DATAW& entry) {
  if (!m_collector) return false;
  CRefPtr<CCleanableEmptyFolder> item(new IUnknownNoQIImp<CCleanableEmptyFolder>());
  item->InitFolder(path, entry.dwFileAttributes);
  m_log->WriteEntry(item->GetLogEntry(), false);
  m_collector->AddItem(item);
  return true;
}
