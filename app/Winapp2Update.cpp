#include "app/Winapp2Update.h"

#include <algorithm>

#include "app/HostError.h"
#include "app/HttpDownload.h"
#include "app/Text.h"
#include "app/Winapp2Files.h"
#include "scandefs/ConfigStore.h"
#include "winapp2/Winapp2Loader.h"

namespace host {

namespace {

// The temporary files of an update, gone when it ends however it ends.
class CTempFile {
 public:
  explicit CTempFile(std::wstring path) : m_path(std::move(path)) {}
  ~CTempFile() { DeleteFileW(m_path.c_str()); }
  CTempFile(const CTempFile&) = delete;
  CTempFile& operator=(const CTempFile&) = delete;
  const std::wstring& Path() const { return m_path; }

 private:
  std::wstring m_path;
};

SWinapp2Report Read(const std::wstring& file) {
  CRefPtr<IConfig> config = IConfig::NewConfig();
  return CWinapp2Loader(*CConfigStore::Of(config)).Load(file.c_str());
}

[[noreturn]] void Fail(const std::wstring& what) {
  throw CHostError{exitCleanFailures, L"winapp2.ini was not updated: " + what + L"; nothing was changed"};
}

}  // namespace

SWinapp2Update UpdateWinapp2(const std::wstring& dataFolder, const std::wstring& url, DWORD timeoutMs) {
  if (url.compare(0, 7, L"http://") != 0 && url.compare(0, 8, L"https://") != 0)
    throw CHostError{exitUsage, Quoted(url) + L" is not an http:// or https:// URL"};
  SWinapp2Update update;
  update.file = DataWinapp2(dataFolder);
  update.inUse = BundledWinapp2(dataFolder);
  if (!update.inUse.empty()) {
    SWinapp2Report current = Read(update.inUse);
    if (current.read) update.previousEntries = current.entries;
  }

  CTempFile download(update.file + L".download");
  SDownload got = HttpGetToFile(url, download.Path(), timeoutMs, CWinapp2Loader::kMaxFileBytes);
  if (!got.ok) Fail(L"downloading " + Quoted(url) + L" failed: " + got.error);
  update.bytes = got.bytes;

  SWinapp2Report report = Read(download.Path());
  if (!report.read) Fail(L"the download cannot be read as winapp2.ini (" + report.error.str() + L")");
  if (report.entries == 0)
    Fail(L"the download (" + FormatSize(got.bytes) + L") holds no winapp2 entry; it is not a winapp2.ini file");
  update.entries = report.entries;
  update.skipped = report.skipped.size();
  const size_t fewSkipped = std::max<size_t>(10, report.entries / 100);
  if (update.skipped > fewSkipped)
    Fail(L"the download skipped " + FormatCount(update.skipped) + L" of its lines (at most " + FormatCount(fewSkipped) +
         L" may be); it is damaged or not a winapp2.ini file");
  // a truncated download reads well but holds fewer entries
  if (static_cast<unsigned long long>(report.entries) * 10 < static_cast<unsigned long long>(update.previousEntries) * 9)
    Fail(L"the download holds " + FormatCount(report.entries) + L" entries, fewer than nine tenths of the " +
         FormatCount(update.previousEntries) + L" of " + Quoted(update.inUse) + L"; it may be cut short");

  if (GetFileAttributesW(update.file.c_str()) != INVALID_FILE_ATTRIBUTES) {
    update.previous = update.file + L".previous";
    CTempFile copy(update.previous + L".tmp");
    if (!CopyFileW(update.file.c_str(), copy.Path().c_str(), FALSE) ||
        !MoveFileExW(copy.Path().c_str(), update.previous.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
      Fail(L"the copy in use could not be kept as " + Quoted(update.previous) + L" (" +
           SystemMessage(GetLastError()) + L")");
  }
  if (!MoveFileExW(download.Path().c_str(), update.file.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
    Fail(Quoted(update.file) + L" could not be replaced (" + SystemMessage(GetLastError()) + L")");
  return update;
}

}  // namespace host
