// Loads a generated folder of 50 definition files holding 2,000 items with
// values through the configuration store, next to pugixml alone parsing the
// same files in the same process. Best of several rounds; goal: the load
// costs at most 1.5 times the parse.
//
// A second folder holds the same items without their "clean" elements, to
// show how much of the load goes into building the scan operations. Each
// round also builds the same tree straight from texts in memory, which is
// what the tree's layout costs by itself, nothing read or parsed.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <pugixml.hpp>

#include "scan/StdFileScan.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/ScanGroup.h"

namespace {

constexpr int kFiles = 50;
constexpr int kItemsPerFile = 40;
constexpr int kRounds = 25;

std::string FileText(int f, bool cleans) {
  std::string text = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<ConfigItems>\r\n";
  text += "  <value name=\"BASE\">C:\\Bench\\Data" + std::to_string(f) + "</value>\r\n";
  text += "  <group name=\"Group " + std::to_string(f % 7) + "\" desc=\"Generated group\" scan=\"yes\">\r\n";
  for (int i = 0; i < kItemsPerFile; ++i) {
    std::string n = std::to_string(f) + "_" + std::to_string(i);
    text += "    <item name=\"Item " + n + "\" order=\"" + std::to_string(i) + "\" desc=\"Cache of %BASE% number " + n +
            "\" safe=\"yes\" qscan=\"on\">\r\n"
            "      <value name=\"SUB\">sub" + n + "</value>\r\n";
    if (cleans)
      text += "      <cleaning><clean kind=\"file\">%BASE%\\%SUB%\\*.tmp</clean>"
              "<clean kind=\"trunc\">%TEMP%\\%SUB%\\*.log</clean></cleaning>\r\n";
    text += "    </item>\r\n";
  }
  text += "  </group>\r\n</ConfigItems>\r\n";
  return text;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

struct Folder {
  std::wstring path;
  std::vector<std::wstring> files;
};

bool Generate(Folder& folder, bool cleans) {
  CreateDirectoryW(folder.path.c_str(), nullptr);
  for (int f = 0; f < kFiles; ++f) {
    std::wstring path = folder.path + L"\\defs" + std::to_wstring(f) + L".xml";
    std::string text = FileText(f, cleans);
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    BOOL ok = WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(h);
    if (!ok || written != text.size()) return false;
    folder.files.push_back(path);
  }
  return true;
}

void Remove(const Folder& folder) {
  for (const auto& path : folder.files) DeleteFileW(path.c_str());
  RemoveDirectoryW(folder.path.c_str());
}

struct Result {
  double parse = 1e9, load = 1e9;  // best of the rounds
  double medianRatio = 0;          // of load and parse measured side by side
  // The parse's spread over the rounds: under Wine, opening a file costs
  // from about 60 to 400 us depending on how quickly its server answers,
  // which moves the floor itself between runs.
  double medianParse = 0, worstParse = 0;
  // The same groups, items and operations made straight from memory:
  // what the tree's own layout costs, with nothing read or parsed.
  double tree = 1e9, medianTree = 0;
  int items = 0, operations = 0;
};

// The tree a load of the generated files makes, built directly from texts
// made beforehand: each operation a file scan holding its root pattern,
// each item a group with its name and description.
struct TreeTexts {
  std::vector<std::wstring> groups, names, descs, paths;  // per file, per item, per operation
  explicit TreeTexts(bool cleans) {
    for (int f = 0; f < kFiles; ++f) {
      std::wstring base = L"C:\\Bench\\Data" + std::to_wstring(f);
      groups.push_back(L"Group " + std::to_wstring(f % 7));
      for (int i = 0; i < kItemsPerFile; ++i) {
        std::wstring n = std::to_wstring(f) + L"_" + std::to_wstring(i);
        names.push_back(L"Item " + n);
        descs.push_back(L"Cache of " + base + L" number " + n);
        if (!cleans) continue;
        paths.push_back(base + L"\\sub" + n + L"\\*.tmp");
        paths.push_back(L"C:\\Temp\\sub" + n + L"\\*.log");
      }
    }
  }
};

double BuildTree(const TreeTexts& texts) {
  CScanGroup_imp root;
  auto t0 = std::chrono::steady_clock::now();
  size_t item = 0, path = 0;
  for (const std::wstring& groupName : texts.groups) {
    CScanGroup_imp* group = CScanGroup_imp::FindOrAddGroupPath(groupName.c_str(), groupName.size(), root);
    for (int i = 0; i < kItemsPerFile; ++i, ++item) {
      group->m_children.emplace_back();
      CScanGroup_imp& child = group->m_children.back();
      child.m_name = texts.names[item].c_str();
      child.m_parent = group;
      child.m_desc = texts.descs[item].c_str();
      for (int k = 0; k < 2 && path < texts.paths.size(); ++k, ++path) {
        auto* scan = new IUnknownNoQIImp<CStdFileScan>();
        CRefPtr<IScanOperation> op(scan);
        scan->SetWhiteListTestBits(1);
        scan->AddPath(CPathString(texts.paths[path].c_str()));
        CScanGroup_imp::AddScanOp(child, op);
      }
    }
  }
  return Seconds(t0);
}

// Parse and load alternate, so that both see the same state of the machine.
Result Measure(const Folder& folder) {
  Result r;
  std::vector<double> ratios, parses, trees;
  const TreeTexts texts(folder.path.find(L"noclean") == std::wstring::npos);
  for (int round = 0; round < kRounds; ++round) {
    auto t0 = std::chrono::steady_clock::now();
    for (const auto& path : folder.files) {
      pugi::xml_document document;
      document.load_file(path.c_str());
    }
    double parse = Seconds(t0);

    CRefPtr<IConfig> config = IConfig::NewConfig();
    auto t1 = std::chrono::steady_clock::now();
    config->Load(folder.path.c_str(), nullptr, nullptr);
    double load = Seconds(t1);
    double tree = BuildTree(texts);
    r.parse = std::min(r.parse, parse);
    r.load = std::min(r.load, load);
    r.tree = std::min(r.tree, tree);
    trees.push_back(tree);
    ratios.push_back(load / parse);
    parses.push_back(parse);

    r.items = r.operations = 0;
    CRefPtr<TIteratorIface<CScanGroup>> groups;
    config->GetGroups(groups);
    for (; !groups->AtEnd(); groups->Next()) {
      CRefPtr<TIteratorIface<CScanGroup>> items;
      groups->Current()->GetChildren(items);
      for (; !items->AtEnd(); items->Next()) {
        ++r.items;
        r.operations += items->Current()->GetScanOpCount();
      }
    }
  }
  std::sort(ratios.begin(), ratios.end());
  r.medianRatio = ratios[ratios.size() / 2];
  std::sort(parses.begin(), parses.end());
  r.medianParse = parses[parses.size() / 2];
  r.worstParse = parses.back();
  std::sort(trees.begin(), trees.end());
  r.medianTree = trees[trees.size() / 2];
  return r;
}

}  // namespace

int main() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  Folder full{std::wstring(temp) + L"broom-bench-defs", {}};
  Folder bare{std::wstring(temp) + L"broom-bench-defs-noclean", {}};
  if (!Generate(full, true) || !Generate(bare, false)) {
    printf("cannot write the definition files\n");
    Remove(full);
    Remove(bare);
    return 1;
  }
  // the process-wide symbol scope is built with the first file; not part of a load
  IConfig::NewConfig()->Load(full.path.c_str(), nullptr, nullptr);

  Result withOps = Measure(full);
  Result withoutOps = Measure(bare);
  Remove(full);
  Remove(bare);

  printf("best of %d rounds, %d files\n", kRounds, kFiles);
  printf("pugixml parse:                  %6.2f ms\n", withOps.parse * 1000);
  printf("store load (%d items, %d operations): %6.2f ms\n", withOps.items, withOps.operations,
         withOps.load * 1000);
  printf("parse over the rounds: best %.2f ms, median %.2f ms, worst %.2f ms\n", withOps.parse * 1000,
         withOps.medianParse * 1000, withOps.worstParse * 1000);
  printf("ratio load/parse: %.2f of the best times, %.2f median of the rounds (goal <= 1.5)\n",
         withOps.load / withOps.parse, withOps.medianRatio);
  printf("the same tree built from memory, nothing read or parsed: best %.2f ms, median %.2f ms (%.2f of the best parse)\n",
         withOps.tree * 1000, withOps.medianTree * 1000, withOps.tree / withOps.parse);
  printf("same items without clean elements: parse %.2f ms, load %.2f ms, ratio %.2f, median %.2f\n",
         withoutOps.parse * 1000, withoutOps.load * 1000, withoutOps.load / withoutOps.parse, withoutOps.medianRatio);
  return 0;
}
