// Loads a generated folder of 50 definition files holding 2,000 items with
// values through the configuration store, next to pugixml alone parsing
// the same files in the same process.
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <pugixml.hpp>

#include "scandefs/ConfigStore.h"

namespace {

constexpr int kFiles = 50;
constexpr int kItemsPerFile = 40;

std::string FileText(int f) {
  std::string text = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<ConfigItems>\r\n";
  text += "  <value name=\"BASE\">C:\\Bench\\Data" + std::to_string(f) + "</value>\r\n";
  text += "  <group name=\"Group " + std::to_string(f % 7) + "\" desc=\"Generated group\" scan=\"yes\">\r\n";
  for (int i = 0; i < kItemsPerFile; ++i) {
    std::string n = std::to_string(f) + "_" + std::to_string(i);
    text += "    <item name=\"Item " + n + "\" order=\"" + std::to_string(i) +
            "\" desc=\"Cache of %BASE% number " + n + "\" safe=\"yes\" qscan=\"on\">\r\n"
            "      <value name=\"SUB\">sub" + n + "</value>\r\n"
            "      <cleaning><clean kind=\"file\">%BASE%\\%SUB%\\*.tmp</clean>"
            "<clean kind=\"trunc\">%TEMP%\\%SUB%\\*.log</clean></cleaning>\r\n"
            "    </item>\r\n";
  }
  text += "  </group>\r\n</ConfigItems>\r\n";
  return text;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstring folder = std::wstring(temp) + L"broom-bench-defs";
  CreateDirectoryW(folder.c_str(), nullptr);
  std::vector<std::wstring> files;
  for (int f = 0; f < kFiles; ++f) {
    std::wstring path = folder + L"\\defs" + std::to_wstring(f) + L".xml";
    std::string text = FileText(f);
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written;
    WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(h);
    files.push_back(path);
  }
  // the process-wide symbol scope is built on the first file; not part of a load
  IConfig::NewConfig()->Load(folder.c_str(), nullptr, nullptr);

  double bestLoad = 1e9, bestParse = 1e9;
  int items = 0;
  for (int round = 0; round < 7; ++round) {
    auto t0 = std::chrono::steady_clock::now();
    for (const auto& path : files) {
      pugi::xml_document document;
      document.load_file(path.c_str());
    }
    bestParse = std::min(bestParse, Seconds(t0));

    CRefPtr<IConfig> config = IConfig::NewConfig();
    auto t1 = std::chrono::steady_clock::now();
    config->Load(folder.c_str(), nullptr, nullptr);
    bestLoad = std::min(bestLoad, Seconds(t1));
    items = 0;
    CRefPtr<TIteratorIface<CScanGroup>> groups;
    config->GetGroups(groups);
    for (; !groups->AtEnd(); groups->Next()) items += groups->Current()->GetChildCount();
  }
  for (const auto& path : files) DeleteFileW(path.c_str());
  RemoveDirectoryW(folder.c_str());
  printf("pugixml parse of %d files: %.1f ms\n", kFiles, bestParse * 1000);
  printf("store load of %d items:   %.1f ms\n", items, bestLoad * 1000);
  printf("ratio load/parse: %.2f (goal <= 1.5)\n", bestLoad / bestParse);
  return 0;
}
