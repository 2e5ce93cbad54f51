#include "clean/CleanItems.h"

#include <typeinfo>
#include <vector>

#include "clean/FileSystemOps.h"
#include "core/RefCounting.h"
#include "threads/MsgThreadSTA.h"

namespace {

// Runs on the STA thread: one shell delete per path, in order.
class CDeleteRunHandler : public CNamedMsgRouter::IMsgReceiver {
 public:
  explicit CDeleteRunHandler(const std::vector<CCleanableFile*>& files) : m_files(files) {}
  LRESULT Receive(const wchar_t*, LPARAM) override {
    for (CCleanableFile* file : m_files) {
      int result = ERROR_GEN_FAILURE;
      try {
        result = CFileSystemOps::ShellDelete(nullptr, file->GetPath());  // already on the STA thread
      } catch (...) {
      }
      m_results.push_back(result);
    }
    return 0;
  }
  std::vector<int> m_results;

 private:
  const std::vector<CCleanableFile*>& m_files;
};

// Only the engine's own file items: a subclass may clean differently, and
// an overwrite is not the shell's.
bool IsShellDeleted(ICleanableItem* item) {
  return item && typeid(*item) == typeid(IUnknownNoQIImp<CCleanableFile>) &&
         !static_cast<CCleanableFile*>(item)->GetOverwrite();
}

void CleanRun(const std::vector<CCleanableFile*>& files, const std::vector<size_t>& at, DWORD* results) {
  CDeleteRunHandler handler(files);
  bool delivered = false;
  try {
    CRefPtr<CMsgThreadSTA> sta = CXmlConfigGlobal::AcquireSTAMsgThread();
    CNamedMsgRouter::SendDelivery(sta->GetRouterWindow(), L"", 0, &handler, &delivered);
  } catch (...) {
    delivered = false;
  }
  for (size_t i = 0; i < files.size(); ++i) {
    // a run that never reached the thread: each item tries on its own
    if (!delivered || i >= handler.m_results.size())
      results[at[i]] = files[i]->Clean(nullptr, nullptr);
    else
      results[at[i]] = files[i]->CleanAfterShell(handler.m_results[i]);
  }
}

}  // namespace

void CleanItems(ICleanableItem* const* items, size_t count, DWORD* results) {
  CleanItems(items, count, results, false);
}

void CleanItems(ICleanableItem* const* items, size_t count, DWORD* results, bool overwrite) {
  std::vector<CCleanableFile*> run;
  std::vector<size_t> at;
  run.reserve(kCleanRun);
  at.reserve(kCleanRun);
  auto flush = [&] {
    if (run.empty()) return;
    CleanRun(run, at, results);
    run.clear();
    at.clear();
  };
  for (size_t i = 0; i < count; ++i) {
    if (overwrite) {
      if (auto* file = dynamic_cast<CCleanableFile*>(items[i])) {
        flush();
        results[i] = file->CleanWith(true, nullptr, nullptr);
        continue;
      }
    }
    if (!IsShellDeleted(items[i])) {
      flush();  // keeps the order in which items are cleaned
      results[i] = items[i] ? items[i]->Clean(nullptr, nullptr) : kCleanFailed;
      continue;
    }
    run.push_back(static_cast<CCleanableFile*>(items[i]));
    at.push_back(i);
    if (run.size() == kCleanRun) flush();
  }
  flush();
}
