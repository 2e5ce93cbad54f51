// Cleans browser databases as the "cookies" and "history" operations do: a
// Chromium Network\Cookies of 20,000 cookies over 2,000 sites with 50 sites
// kept, and a Firefox places.sqlite of 100,000 visits to 20,000 pages, 1,000
// of them bookmarked. Each round looks at a fresh copy (what a scan does) and
// cleans it, in a process of its own, so the peak memory printed is the
// engine's; an idle child gives the floor. Prints the median of the rounds.
#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "browserdb/BrowserDatabase.h"
#include "browserdb/BrowserSchemas.h"

using namespace browserschema;

namespace {

constexpr int kRounds = 3;

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double Mb(unsigned __int64 bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

std::string KeepText() {
  std::string text;
  for (int site = 0; site < 2000; site += 40) text += "site" + std::to_string(site) + ".example\n";
  return text;
}

void MakeCookies(const std::wstring& path) {
  auto db = Open(path);
  Exec(db.get(), kChromiumCookies);
  Exec(db.get(), "BEGIN");
  std::vector<std::vector<std::string>> rows;
  for (int i = 0; i < 20000; ++i) {
    int site = i % 2000;
    // a site's cookies: some for the host alone, some for the whole domain
    std::string host = (i / 2000) % 2 ? "." : "";
    host += "site" + std::to_string(site) + ".example";
    rows.push_back({host, "cookie" + std::to_string(i)});
  }
  Insert(db.get(), kChromiumCookieRow, rows);
  Exec(db.get(), "COMMIT");
}

void MakePlaces(const std::wstring& path) {
  auto db = Open(path);
  Exec(db.get(), kFirefoxPlaces);
  Exec(db.get(), "BEGIN");
  Exec(db.get(),
       "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<500) "
       "INSERT INTO moz_origins(id,prefix,host,frecency) SELECT i,'https://','host'||i||'.example',i FROM n;"
       "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<20000) "
       "INSERT INTO moz_places(id,url,title,rev_host,visit_count,last_visit_date,guid,url_hash,origin_id,frecency) "
       "SELECT i,'https://host'||(i%500+1)||'.example/page/'||i,'Page '||i||' of a site with a longer title',"
       "'elpmaxe.'||(i%500+1)||'tsoh.',5,1700000000000000+i,'guid'||i,i*7919,i%500+1,i FROM n;"
       "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<100000) "
       "INSERT INTO moz_historyvisits(id,from_visit,place_id,visit_date,visit_type,source) "
       "SELECT i,i-1,(i%20000)+1,1700000000000000+i,1,0 FROM n;"
       "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<1000) "
       "INSERT INTO moz_bookmarks(id,type,fk,parent,position,title,guid) "
       "SELECT 100+i,1,i*20,3,i,'Bookmark '||i,'bm'||i FROM n;"
       "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<2000) "
       "INSERT INTO moz_inputhistory SELECT i*7,'in'||i,1 FROM n;");
  Exec(db.get(), "COMMIT");
}

struct SMemory {
  double peakWorkingSet = 0, peakPrivate = 0;
};

SMemory PeakMemory() {
  PROCESS_MEMORY_COUNTERS counters{};
  counters.cb = sizeof counters;
  GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  return SMemory{Mb(counters.PeakWorkingSetSize), Mb(counters.PeakPagefileUsage)};
}

// In the child: looks at and cleans one copy, printing one line of figures.
int RunChild(const std::wstring& kind, const std::wstring& database) {
  if (kind == L"idle") {
    SMemory memory = PeakMemory();
    std::printf("idle %.1f %.1f 0 0 0 0 0\n", memory.peakWorkingSet, memory.peakPrivate);
    return 0;
  }
  CCookieKeepList keep;
  keep.Parse(KeepText());
  EBrowserFamily family = kind == L"cookies" ? EBrowserFamily::chromium : EBrowserFamily::firefox;
  EBrowserDbKind dbKind = kind == L"cookies" ? EBrowserDbKind::cookies : EBrowserDbKind::history;
  SBrowserDbSummary summary;
  auto t0 = std::chrono::steady_clock::now();
  DWORD code = CBrowserDatabase::Inspect(database.c_str(), family, dbKind, keep, summary);
  double look = Seconds(t0);
  t0 = std::chrono::steady_clock::now();
  SBrowserDbCleanResult result = CBrowserDatabase::Clean(database.c_str(), family, dbKind, keep);
  double clean = Seconds(t0);
  SMemory memory = PeakMemory();
  if (code || result.code) {
    std::fprintf(stderr, "failed: 0x%08lX 0x%08lX\n", static_cast<unsigned long>(code),
                 static_cast<unsigned long>(result.code));
    return 1;
  }
  std::printf("%ls %.1f %.1f %.4f %.4f %.2f %.2f %.2f\n", summary.Describe().c_str(), memory.peakWorkingSet,
              memory.peakPrivate, look, clean, Mb(result.bytesBefore), Mb(result.bytesBefore - result.bytesAfter),
              Mb(summary.freeable));
  return 0;
}

// Runs this program on one copy; its one line of output.
std::string Child(const std::wstring& kind, const std::wstring& database, const std::wstring& output) {
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::wstring command = L"\"" + std::wstring(self) + L"\" " + kind + L" \"" + database + L"\"";
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  broom::unique_hfile file(CreateFileW(output.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0,
                                       nullptr));
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = file.get();
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process))
    return std::string();
  WaitForSingleObject(process.hProcess, INFINITE);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  file.reset();
  broom::unique_hfile read(CreateFileW(output.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  char buffer[512] = {};
  DWORD got = 0;
  ReadFile(read.get(), buffer, sizeof buffer - 1, &got, nullptr);
  return std::string(buffer, got);
}

struct SFigures {
  std::string what;
  double workingSet = 0, privateBytes = 0, look = 0, clean = 0, before = 0, freed = 0, estimate = 0;
};

bool Parse(const std::string& line, SFigures& f) {
  size_t end = line.find(" kept ");
  if (line.compare(0, 5, "idle ") == 0) end = 3;
  if (end == std::string::npos) return false;
  f.what = line.substr(0, end == 3 ? 4 : end + 5);
  return std::sscanf(line.c_str() + f.what.size(), "%lf %lf %lf %lf %lf %lf %lf", &f.workingSet, &f.privateBytes,
                     &f.look, &f.clean, &f.before, &f.freed, &f.estimate) == 7;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc == 3) return RunChild(argv[1], argv[2]);
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  const std::wstring root = std::wstring(temp) + L"broom-bench-browserdb";
  CreateDirectoryW(root.c_str(), nullptr);
  const std::wstring cookies = root + L"\\Cookies.master", places = root + L"\\places.master";
  DeleteFileW(cookies.c_str());
  DeleteFileW(places.c_str());
  MakeCookies(cookies);
  MakePlaces(places);
  SFigures idle;
  Parse(Child(L"idle", L"-", root + L"\\out.txt"), idle);
  std::printf("peak memory of an idle child: working set %.1f MB, private %.1f MB\n", idle.workingSet,
              idle.privateBytes);
  struct { const wchar_t* kind; std::wstring master; const char* name; } runs[] = {
      {L"cookies", cookies, "Chromium cookies, 50 of 2,000 sites kept"},
      {L"history", places, "Firefox history, 1,000 of 20,000 pages bookmarked"},
  };
  int status = 0;
  for (const auto& run : runs) {
    std::vector<double> look, clean, workingSet, privateBytes;
    SFigures last;
    for (int round = 0; round < kRounds; ++round) {
      const std::wstring copy = root + L"\\work-" + run.kind;
      for (const wchar_t* suffix : {L"", L"-wal", L"-shm", L"-journal"}) DeleteFileW((copy + suffix).c_str());
      CopyFileW(run.master.c_str(), copy.c_str(), FALSE);
      SFigures f;
      if (!Parse(Child(run.kind, copy, root + L"\\out.txt"), f)) {
        std::printf("%s: the child failed\n", run.name);
        status = 1;
        break;
      }
      look.push_back(f.look);
      clean.push_back(f.clean);
      workingSet.push_back(f.workingSet);
      privateBytes.push_back(f.privateBytes);
      last = f;
    }
    if (look.empty()) continue;
    std::printf("%s: %s\n  database %.2f MB; freed %.2f MB (the scan's estimate %.2f MB)\n"
                "  look (scan) %.3f s, clean %.3f s, median of %d\n"
                "  peak working set %.1f MB, peak private %.1f MB (%.1f MB and %.1f MB above an idle child)\n",
                run.name, last.what.c_str(), last.before, last.freed, last.estimate, Median(look), Median(clean),
                static_cast<int>(look.size()), Median(workingSet), Median(privateBytes),
                Median(workingSet) - idle.workingSet, Median(privateBytes) - idle.privateBytes);
  }
  for (const wchar_t* name : {L"\\work-cookies", L"\\work-history", L"\\out.txt"}) DeleteFileW((root + name).c_str());
  DeleteFileW(cookies.c_str());
  DeleteFileW(places.c_str());
  RemoveDirectoryW(root.c_str());
  return status;
}
