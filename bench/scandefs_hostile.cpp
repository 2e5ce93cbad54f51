// Loads hostile definition files through the configuration store and times
// each load: attributes of 250,000, 1 million and 2 million '%' (expansion
// must stay linear), then files of several shapes at 5 MB and at 50 MB,
// which must load, or be rejected, in time proportional to their size.
//   bench_scandefs_hostile.exe [NAME ...]   only the cases whose names start so
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "scandefs/ConfigStore.h"

namespace {

std::string Repeat(const std::string& piece, size_t bytes) {
  std::string out;
  out.reserve(bytes + piece.size());
  while (out.size() < bytes) out += piece;
  return out;
}

std::string Wrap(const std::string& body) { return "<ConfigItems>" + body + "</ConfigItems>"; }

// Items as real files hold them, repeated up to the size.
std::string Items(size_t bytes) {
  std::string out = "<ConfigItems><value name=\"BASE\">C:\\Bench</value><group name=\"G\" scan=\"yes\">";
  for (size_t i = 0; out.size() < bytes; ++i) {
    std::string n = std::to_string(i);
    out += "<item name=\"Item " + n + "\" order=\"" + n + "\" desc=\"Cache of %BASE% number " + n +
           "\"><value name=\"SUB\">sub" + n + "</value><cleaning><clean kind=\"file\">%BASE%\\%SUB%\\*.tmp</clean>"
           "</cleaning></item>";
  }
  return out + "</group></ConfigItems>";
}

struct Shape {
  const char* name;
  std::string (*make)(size_t bytes);
};

const Shape kShapes[] = {
    {"items", Items},
    {"percent", [](size_t n) { return Wrap("<group name=\"G\" desc=\"" + Repeat("%", n) + "\"/>"); }},
    {"references", [](size_t n) {
       return Wrap("<value name=\"A\">C:\\x</value><group name=\"G\" desc=\"" + Repeat("%A%", n) + "\"/>");
     }},
    {"unknown", [](size_t n) { return Wrap("<group name=\"G\" desc=\"" + Repeat("%NO_SUCH%", n) + "\"/>"); }},
    {"localized", [](size_t n) { return Wrap("<group name=\"G\" desc=\"" + Repeat("$(a) $(b) ", n) + "\"/>"); }},
    {"delimited", [](size_t n) {
       // a large delimiter set that occurs in the text, cutting many fields
       std::string delimiter = ";" + std::string(n / 4, 'b');
       return Wrap("<value name=\"A\" delimiter=\"" + delimiter + "\" index=\"100000000\">" + Repeat("a;", n / 2) +
                   delimiter + "</value>");
     }},
    {"nesting", [](size_t n) {
       size_t levels = n / 24;
       return Wrap(Repeat("<group name=\"g\">", levels * 16) + Repeat("</group>", levels * 8));
     }},
    {"path", [](size_t n) { return Wrap("<group name=\"" + Repeat("a/", n) + "\"/>"); }},
};

struct Localizer : ILocalizeStrings {
  CString Localize(const wchar_t* key, int) override { return CString(wcscmp(key, L"MANUAL_a") ? L"B" : L"A"); }
};

bool Write(const std::wstring& path, const std::string& bytes) {
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  DWORD written = 0;
  BOOL ok = WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  CloseHandle(h);
  return ok && written == bytes.size();
}

// Milliseconds to load the folder holding only this file (best of rounds),
// and whether the file was accepted.
double Load(const std::wstring& folder, const std::string& bytes, int rounds, bool& accepted) {
  std::wstring file = folder + L"\\hostile.xml";
  if (!Write(file, bytes)) {
    printf("cannot write %zu bytes\n", bytes.size());
    return -1;
  }
  Localizer localizer;
  double best = 1e12;
  for (int r = 0; r < rounds; ++r) {
    CRefPtr<IConfig> config = IConfig::NewConfig();
    auto t0 = std::chrono::steady_clock::now();
    try {
      accepted = config->Load(folder.c_str(), nullptr, &localizer);
    } catch (...) {
      accepted = false;
    }
    config.Reset();  // destroying the tree is part of the cost
    best = std::min(best, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
  }
  DeleteFileW(file.c_str());
  return best;
}

bool Wanted(const std::vector<std::string>& names, const std::string& name) {
  if (names.empty()) return true;
  for (const std::string& n : names)
    if (name.rfind(n, 0) == 0) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> names(argv + 1, argv + argc);
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstring folder = std::wstring(temp) + L"broom-bench-hostile";
  CreateDirectoryW(folder.c_str(), nullptr);
  // the process-wide symbol scope is built with the first file; not part of a load
  bool accepted = false;
  Load(folder, Wrap("<group name=\"warm\"/>"), 1, accepted);

  for (size_t n : {250000u, 1000000u, 2000000u}) {
    std::string name = "percent-run-" + std::to_string(n);
    if (!Wanted(names, name)) continue;
    double ms = Load(folder, Wrap("<group name=\"G\" desc=\"" + std::string(n, '%') + "\"/>"), 3, accepted);
    printf("attribute of %7zu '%%': %9.1f ms (%s)\n", n, ms, accepted ? "loaded" : "rejected");
    fflush(stdout);
  }
  for (const Shape& shape : kShapes) {
    if (!Wanted(names, std::string("shape-") + shape.name)) continue;
    double small = 0;
    for (size_t mb : {5u, 50u}) {
      if (mb == 50 && small > 10000) {
        printf("%-10s 50 MB: skipped, 5 MB took more than 10 s\n", shape.name);
        break;
      }
      double ms = Load(folder, shape.make(mb << 20), mb == 5 ? 3 : 1, accepted);
      printf("%-10s %2zu MB: %9.1f ms, %6.1f ms per MB (%s)\n", shape.name, mb, ms, ms / mb,
             accepted ? "loaded" : "rejected");
      if (mb == 50) printf("%-10s 50 MB took %.1f times as long as 5 MB\n", shape.name, ms / small);
      small = ms;
      fflush(stdout);
    }
  }
  RemoveDirectoryW(folder.c_str());
  return 0;
}
