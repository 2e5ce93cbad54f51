#pragma once
// A recording scan and recording notifiers for the walk tests.
#include <functional>
#include <string>
#include <vector>

#include "common/TestFiles.h"
#include "scan/BaseFileScan.h"
#include "settings/AppInfo.h"

namespace scantest {

// The logs folder is fixed at its first use, so the whole program shares one
// user data folder.
inline const std::wstring& UserDataFolder() {
  static broomtest::TempDir folder;
  static bool made =
      (broomtest::MakeDirs(folder / L"Logs"), CAppInfo::Init(nullptr, folder.Path().c_str()), true);
  (void)made;
  return folder.Path();
}

// The text of the current scan log once the log thread has written at least
// `minChars` characters (or after two seconds).
inline std::wstring ReadScanLog(size_t minChars) {
  std::wstring path = UserDataFolder() + L"\\Logs\\scan1.log";
  std::string bytes;
  for (int i = 0; i < 200; ++i) {
    if (broomtest::Exists(path)) bytes = broomtest::ReadFile(path);
    if (bytes.size() >= 2 * minChars) break;
    Sleep(10);
  }
  return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
}

struct Hit {
  std::wstring folder;
  std::wstring name;
  std::wstring Path() const {
    if (folder.empty()) return name;
    return folder.back() == L'\\' ? folder + name : folder + L"\\" + name;
  }
};

class RecordingScan : public CBaseFileScan {
 public:
  void OnFile(const CPathString& folder, const WIN32_FIND_DATAW& entry) override {
    hits.push_back({std::wstring(folder.c_str()), entry.cFileName});
    if (onFile) onFile(hits.back());
  }
  void ProcessHit(const CPathString&, const WIN32_FIND_DATAW&, unsigned int) override {}
  void SetTitle(const wchar_t* title) { m_title = title; }

  std::vector<std::wstring> Paths() const {
    std::vector<std::wstring> out;
    for (const auto& h : hits) out.push_back(h.Path());
    return out;
  }

  std::vector<Hit> hits;
  std::function<void(const Hit&)> onFile;
};

class RecordingProgress : public IOperationProgressNotify {
 public:
  void SetTotal(int total) override { totals.push_back(total); }
  void Finish() override { ++finished; }
  void SetPosition(int position) override { positions.push_back(position); }

  std::vector<int> totals;
  std::vector<int> positions;
  int finished = 0;
};

class RecordingStatus : public IOperationStatusNotify {
 public:
  void SetCurrentFolder(const CString& folder) override {
    folders.push_back(folder.GetString());
    if (onFolder) onFolder(folders.back());
  }
  bool IsCancelled() override { return cancelled; }
  void OnItem(const wchar_t* name, int kind) override { items.push_back({name, kind}); }

  bool cancelled = false;
  std::vector<std::wstring> folders;
  std::vector<std::pair<std::wstring, int>> items;
  std::function<void(const std::wstring&)> onFolder;
};

}  // namespace scantest
