// A definition folder drives a scan and a clean from end to end, and the
// disk is checked afterwards.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "clean/CleanableFile.h"
#include "common/HandleCount.h"
#include "common/ScanNotifiers.h"
#include "common/TestFiles.h"
#include "scandefs/ConfigStore.h"
#include "settings/AppInfo.h"
#include "whitelist/WhiteListTree.h"

using broomtest::Exists;
using broomtest::WriteFile;

namespace {

using broomtest::StackCollector;

std::string Narrow(const std::wstring& s) { return broomtest::Narrow(s); }

// Every operation of every enabled item below group, in tree order.
void Perform(const CScanGroup& group, IResultsCollector* collector, CWhiteListTree* whiteList, int& ops) {
  CRefPtr<TIteratorIface<CScanGroup>> children;
  group.GetChildren(children);
  for (; !children->AtEnd(); children->Next()) {
    CScanGroup* child = children->Current();
    if (child->IsEnabled() == abFalse) continue;
    CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>> it;
    child->GetScanOps(it);
    broomtest::NullProgress progress;
    broomtest::NullStatus status;
    for (; !it->AtEnd(); it->Next(), ++ops) (*it->Current())->PerformScan(collector, &progress, &status, whiteList);
    Perform(*child, collector, whiteList, ops);
  }
}

TEST(EndToEnd, DefinitionsDriveScanAndClean) {
  broomtest::AllowHandleGrowth();  // the STA thread and the scan log thread
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  broomtest::TempDir dir, data;
  CAppInfo::Init(nullptr, dir.Path().c_str());
  broomtest::MakeDirs(dir / L"Logs");

  // the tree to clean
  WriteFile(data / L"Cache\\a.tmp", 100);
  WriteFile(data / L"Cache\\sub\\b.tmp", 200);
  WriteFile(data / L"Cache\\keep.txt", 5);
  WriteFile(data / L"Cache\\protected\\p.tmp", 300);
  std::wstring readOnly = WriteFile(data / L"Cache\\ro.tmp", 10);
  SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_READONLY);
  std::wstring hidden = WriteFile(data / L"Cache\\hidden.tmp", 10);
  SetFileAttributesW(hidden.c_str(), FILE_ATTRIBUTE_HIDDEN);
  WriteFile(data / L"Outside\\victim.tmp", 400);
  ASSERT_TRUE(broomtest::MakeUnixSymlink(data / L"Outside", data / L"Cache\\link"));
  WriteFile(data / L"Logs\\app.log", 1234);
  WriteFile(data / L"Logs\\empty.log", 0);
  WriteFile(data / L"Disabled\\d.tmp", 50);

  SetEnvironmentVariableW(L"BROOMTEST_DATA", data.Path().c_str());
  WriteFile(dir / L"defs\\test.xml",
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<ConfigItems>"
            "<value name=\"SUB\">sub</value>"
            "<group name=\"Test\" scan=\"yes\">"
            "  <item name=\"Temp files\"><check test=\"exists\" data=\"file\" path=\"%BROOMTEST_DATA%\\Cache\"/>"
            "    <cleaning><clean kind=\"file\">%BROOMTEST_DATA%\\Cache\\*.tmp</clean>"
            "              <clean kind=\"file\">%BROOMTEST_DATA%\\Cache\\%SUB%</clean></cleaning></item>"
            "  <item name=\"Logs\"><clean kind=\"trunc\">%BROOMTEST_DATA%\\Logs\\*.log</clean></item>"
            "  <item name=\"Off\"><check test=\"exists\" data=\"file\" path=\"%BROOMTEST_DATA%\\NoSuchThing\"/>"
            "    <clean kind=\"file\">%BROOMTEST_DATA%\\Disabled\\*</clean></item>"
            "</group></ConfigItems>");
  CRefPtr<IConfig> config = IConfig::NewConfig();
  ASSERT_TRUE(config->Load((dir / L"defs").c_str(), nullptr, nullptr));

  CWhiteListTree whiteList;
  whiteList.SafeGuardPath((data / L"Cache\\protected").c_str(), 1);
  StackCollector collector;
  CRefPtr<TIteratorIface<CScanGroup>> top;
  config->GetGroups(top);
  ASSERT_FALSE(top->AtEnd());
  int ops = 0;
  Perform(*top->Current(), &collector, &whiteList, ops);
  EXPECT_EQ(ops, 3);  // the switched-off item ran nothing

  std::set<std::wstring> reported;
  std::wstring expectedLog;
  for (auto& item : collector.items) {
    reported.insert(static_cast<CCleanableFile*>(item.Get())->GetPath().c_str());
    expectedLog += item->GetLogEntry().GetString();
  }
  EXPECT_EQ(reported, (std::set<std::wstring>{data / L"Cache\\a.tmp", data / L"Cache\\ro.tmp",
                                              data / L"Cache\\hidden.tmp", data / L"Cache\\sub\\b.tmp",
                                              data / L"Logs\\app.log"}));

  for (auto& item : collector.items) EXPECT_EQ(item->Clean(nullptr, nullptr), 0u) << Narrow(item->GetName().str());
  for (const auto& path : reported) {
    if (path.find(L"\\Logs\\") != std::wstring::npos) {
      EXPECT_TRUE(Exists(path));
      EXPECT_EQ(broomtest::ReadFile(path).size(), 0u);
    } else {
      EXPECT_FALSE(Exists(path)) << Narrow(path);
    }
  }
  EXPECT_TRUE(Exists(data / L"Cache\\keep.txt"));
  EXPECT_TRUE(Exists(data / L"Cache\\protected\\p.tmp"));
  EXPECT_TRUE(Exists(data / L"Outside\\victim.tmp"));
  EXPECT_TRUE(Exists(data / L"Disabled\\d.tmp"));

  // the scan log holds one line per reported item, in order
  std::wstring log;
  for (int i = 0; i < 300 && log.find(expectedLog) == std::wstring::npos; ++i) {
    Sleep(10);
    std::string bytes = broomtest::ReadFile(dir / L"Logs\\scan1.log");
    log.assign(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
  }
  EXPECT_NE(log.find(expectedLog), std::wstring::npos);
  collector.items.clear();
  CoUninitialize();
  SetEnvironmentVariableW(L"BROOMTEST_DATA", nullptr);
}

}  // namespace
