// The fuzz run of the definition and winapp2 loaders. One program plays two
// parts: the supervisor (the default) starts a worker and watches it through
// a block of shared memory; the worker (--worker) loads one input after
// another, each into a fresh store (a definition file from a folder holding
// only that file, a winapp2.ini file through CWinapp2Loader), and counts
// what came of each in the shared block, which outlives it. A worker that
// dies is a crash, one that stays on an input past the limit a hang, one
// whose memory passes the input's ceiling a failure too; the supervisor then
// starts a new worker on the next input.
//   test_fuzz.exe [--count N] [--seed S] [--limit SECONDS] [--save DIR] [--each]
//   test_fuzz.exe --write INDEX FILE [--seed S]   writes one input to FILE
// The kept cases (tests/fuzz/cases.txt) come first in every run; --each
// prints a line per input (outcome, time, memory).
#include <windows.h>
#include <psapi.h>
#include <shellapi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/HandleCount.h"
#include "common/TestProcess.h"
#include "core/Handles.h"
#include "fuzz/FuzzInputs.h"
#include "fuzz/FuzzLoad.h"

using namespace fuzz;

namespace {

constexpr int kKept = 64;

// The memory one input may drive the worker to, above what the worker held
// before its first input: 64 MB, and 16 bytes for each byte of the input
// (the file is held as read and as text, and every line the load keeps or
// skips costs a few times its length).
constexpr LONG64 kMemoryFloor = 64ll << 20;
constexpr LONG64 kMemoryPerByte = 16;
LONG64 Ceiling(LONG64 bytes) { return kMemoryFloor + kMemoryPerByte * bytes; }
// A worker whose peak passed this ends itself after that input (exit code
// kFresh), so that the next input's peak is its own again: the peak working
// set only ever grows. An input past its ceiling in a worker that ran other
// inputs first is judged again alone by a fresh worker.
constexpr LONG64 kFreshPeak = 32ll << 20;
constexpr DWORD kFresh = 75;

// Lives in memory shared with the workers; every worker adds to it.
struct Shared {
  volatile LONG64 current;       // the input a worker is on
  volatile LONG64 currentBytes;  // its size
  volatile LONG64 reached;       // every input before this one is finished
  volatile LONG64 base;          // the worker's working set before its first input; 0 until known
  LONG64 counts[kOutcomes];
  LONG64 slowestIndex, slowestMs;
  LONG64 msDefinitions, msWinapp2;
  LONG64 handleRun, handlesAfterWarmUp, handlesAtEnd;  // of the worker that ran the most inputs
  LONG64 highestIndex, highestUsed;  // the input that drove memory highest, and how far above base
  LONG64 closestIndex, closestUsed, closestPermille;  // the input that came closest to its ceiling
  LONG failureCount;
  LONG64 failureIndex[kKept];
  char failureText[kKept][200];
};

struct Options {
  uint64_t count = 3000, seed = 1;
  DWORD limitSeconds = 10;
  bool each = false;
  std::wstring save, sourceDir;
};

bool WriteBytes(const std::wstring& path, const std::string& bytes) {
  broom::unique_hfile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  DWORD written = 0;
  return file && ::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
         written == bytes.size();
}

std::string ReadBytes(const std::wstring& path) {
  broom::unique_hfile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  std::string bytes;
  LARGE_INTEGER size;
  if (!file || !GetFileSizeEx(file.get(), &size)) return bytes;
  bytes.resize(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  if (!bytes.empty() && !::ReadFile(file.get(), &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr)) read = 0;
  bytes.resize(read);
  return bytes;
}

// The shared Winapp2.ini, where the winapp2 tests find it: beside the source
// tree, or one folder further up from a git worktree of it.
std::wstring SharedWinapp2(const std::wstring& sourceDir) {
  std::wstring path = sourceDir + L"\\..\\shared\\winapp2\\Winapp2.ini";
  if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) path.insert(sourceDir.size(), L"\\..");
  return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES ? std::wstring() : path;
}

// The bundled definitions, the kept cases and the shared Winapp2.ini, from the source folder.
Inputs MakeInputs(const Options& o) {
  std::vector<std::string> seeds;
  WIN32_FIND_DATAW data;
  std::wstring defs = o.sourceDir + L"\\defs\\";
  broom::unique_hfind find(FindFirstFileW((defs + L"*.xml").c_str(), &data));
  if (find) {
    do seeds.push_back(ReadBytes(defs + data.cFileName));
    while (FindNextFileW(find.get(), &data));
  }
  std::sort(seeds.begin(), seeds.end());  // the order a search returns is not fixed
  std::wstring winapp2 = SharedWinapp2(o.sourceDir);
  return Inputs(o.seed, seeds, ReadCases(o.sourceDir + L"\\tests\\fuzz\\cases.txt"),
                winapp2.empty() ? std::string() : ReadBytes(winapp2));
}

PROCESS_MEMORY_COUNTERS Memory(HANDLE process) {
  PROCESS_MEMORY_COUNTERS counters = {};
  counters.cb = sizeof counters;
  if (!GetProcessMemoryInfo(process, &counters, sizeof counters)) ZeroMemory(&counters, sizeof counters);
  return counters;
}

std::string Megabytes(LONG64 bytes) {
  char text[32];
  snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / (1 << 20));
  return text;
}

// ---- the worker ----

// Ends the worker with the exception's code as its exit code; it uses
// next to no stack, as it may be the stack that ran out.
LONG WINAPI OnCrash(EXCEPTION_POINTERS* info) {
  TerminateProcess(GetCurrentProcess(), info->ExceptionRecord->ExceptionCode);
  return EXCEPTION_EXECUTE_HANDLER;
}

// A stack overflow never reaches the unhandled-exception filter under Wine.
LONG WINAPI OnStackOverflow(EXCEPTION_POINTERS* info) {
  if (info->ExceptionRecord->ExceptionCode == EXCEPTION_STACK_OVERFLOW) return OnCrash(info);
  return EXCEPTION_CONTINUE_SEARCH;
}

void Keep(Shared* shared, uint64_t index, const char* kind, const std::string& text) {
  if (shared->failureCount >= kKept) return;
  LONG k = shared->failureCount++;
  shared->failureIndex[k] = static_cast<LONG64>(index);
  snprintf(shared->failureText[k], sizeof shared->failureText[k], "%s%s%s", kind, text.empty() ? "" : ": ",
           text.c_str());
}

// Loads what every load sets up once (code pages, the process-wide scope,
// the guard's folders, the registry's predefined keys), so that the
// worker's base and its handle count are taken after it.
void WarmUp(const std::wstring& folder) {
  Input definition, winapp2;
  definition.bytes = "<ConfigItems><group name=\"g\"/></ConfigItems>";
  winapp2.bytes = "[Warm *]\r\nDetect=HKCR\\.broom-fuzz-none\r\nDetect1=HKU\\.DEFAULT\\broom-fuzz-none\r\nDetectFile=%WinDir%\\broom-fuzz-none\r\nFileKey1=%Temp%\\broom-fuzz-none|*.tmp\r\n";
  std::string text;
  WriteBytes(folder + L"\\input.xml", definition.bytes);
  LoadDefinitions(folder, definition, text);
  DeleteFileW((folder + L"\\input.xml").c_str());
  WriteBytes(folder + L"\\input.ini", winapp2.bytes);
  LoadWinapp2(folder + L"\\input.ini", winapp2, text);
  DeleteFileW((folder + L"\\input.ini").c_str());
}

int Work(Shared* shared, const Inputs& inputs, uint64_t from, uint64_t to, const std::wstring& dir, bool each) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  SetUnhandledExceptionFilter(OnCrash);
  AddVectoredExceptionHandler(1, OnStackOverflow);
  std::wstring folder = dir + L"\\in";
  CreateDirectoryW(folder.c_str(), nullptr);
  // what a crashed worker left
  for (const wchar_t* extension : {L"xml", L"dat", L"da0", L"dat0", L"dat2", L"ini"})
    DeleteFileW((folder + L"\\input." + extension).c_str());
  WarmUp(folder);
  const LONG64 base = static_cast<LONG64>(Memory(GetCurrentProcess()).WorkingSetSize);
  shared->base = base;
  LONG64 warmHandles = -1;
  // the worker that ran the most inputs tells whether loads give back their handles
  auto handles = [&](uint64_t ran) {
    if (warmHandles < 0 || static_cast<LONG64>(ran) <= shared->handleRun) return;
    shared->handleRun = static_cast<LONG64>(ran);
    shared->handlesAfterWarmUp = warmHandles;
    shared->handlesAtEnd = broomtest::ProcessHandleCount();
  };
  for (uint64_t i = from; i < to; ++i) {
    Input in = inputs.Make(i);
    shared->currentBytes = static_cast<LONG64>(in.bytes.size());
    shared->current = static_cast<LONG64>(i);
    std::wstring file = folder + L"\\input." + in.extension;
    if (!WriteBytes(file, in.bytes)) {
      fprintf(stderr, "fuzz worker: cannot write %s\n", Narrow(file.c_str()).c_str());
      return 3;
    }
    ULONGLONG started = GetTickCount64();
    std::string text;
    int outcome = in.winapp2 ? LoadWinapp2(file, in, text) : LoadDefinitions(folder, in, text);
    DeleteFileW(file.c_str());
    LONG64 ms = static_cast<LONG64>(GetTickCount64() - started);
    // the peak of this input above the worker's base, with up to kFreshPeak that earlier inputs left
    const LONG64 used = static_cast<LONG64>(Memory(GetCurrentProcess()).PeakWorkingSetSize) - base;
    const LONG64 ceiling = Ceiling(static_cast<LONG64>(in.bytes.size()));
    // past the ceiling after other inputs: judged again alone, by a fresh worker
    if (used > ceiling && i > from) return static_cast<int>(kFresh);
    (in.winapp2 ? shared->msWinapp2 : shared->msDefinitions) += ms;
    if (ms > shared->slowestMs) {
      shared->slowestMs = ms;
      shared->slowestIndex = static_cast<LONG64>(i);
    }
    if (used > shared->highestUsed) {
      shared->highestUsed = used;
      shared->highestIndex = static_cast<LONG64>(i);
    }
    const LONG64 permille = used * 1000 / ceiling;
    if (shared->closestIndex < 0 || permille > shared->closestPermille) {
      shared->closestIndex = static_cast<LONG64>(i);
      shared->closestUsed = used;
      shared->closestPermille = permille;
    }
    if (each)
      printf("#%llu %s, %lld ms, %s of %s for %zu bytes: %s\n", static_cast<unsigned long long>(i),
             kOutcomeNames[outcome], ms, Megabytes(used).c_str(), Megabytes(ceiling).c_str(), in.bytes.size(),
             in.what.c_str());
    ++shared->counts[outcome];
    if (outcome >= kFirstFailure) Keep(shared, i, kOutcomeNames[outcome], text);
    if (used > ceiling) {
      ++shared->counts[kMemory];
      Keep(shared, i, kOutcomeNames[kMemory], Megabytes(used) + " above the worker's start, ceiling " + Megabytes(ceiling));
    }
    shared->reached = static_cast<LONG64>(i + 1);
    // Handles the first loads open for good (code pages, registry roots)
    // are in by now; after that every load must give back what it takes.
    if (i - from == 50) warmHandles = broomtest::ProcessHandleCount();
    if (used > kFreshPeak && i + 1 < to) {
      handles(i + 1 - from);
      return static_cast<int>(kFresh);
    }
  }
  handles(to - from);
  return 0;
}

// ---- the supervisor ----

struct Failure {
  uint64_t index;
  std::string kind;
};

std::wstring Quote(const std::wstring& arg) { return L"\"" + arg + L"\""; }

int Supervise(const Options& o, const Inputs& inputs) {
  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  broom::unique_handle mapping(
      CreateFileMappingW(INVALID_HANDLE_VALUE, &inherit, PAGE_READWRITE, 0, sizeof(Shared), nullptr));
  if (!mapping) {
    fprintf(stderr, "fuzz: cannot make the shared block (error %lu)\n", GetLastError());
    return 2;
  }
  auto* shared = static_cast<Shared*>(MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, sizeof(Shared)));
  auto unmap = broom::scope_exit([&] { UnmapViewOfFile(shared); });
  ZeroMemory(shared, sizeof *shared);
  shared->slowestIndex = shared->highestIndex = shared->closestIndex = -1;

  wchar_t temp[MAX_PATH], exe[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  GetModuleFileNameW(nullptr, exe, MAX_PATH);
  std::wstring dir = std::wstring(temp) + L"broom-fuzz-" + std::to_wstring(GetCurrentProcessId());
  CreateDirectoryW(dir.c_str(), nullptr);

  const uint64_t total = inputs.CaseCount() + o.count;
  std::vector<Failure> failures;
  unsigned crashes = 0, hangs = 0, overMemory = 0, workers = 0, fresh = 0;
  ULONGLONG began = GetTickCount64();
  uint64_t retried = total;  // the input last judged again by a fresh worker after passing the ceiling
  for (uint64_t next = 0; next < total;) {
    const uint64_t first = next;
    shared->current = static_cast<LONG64>(next);
    shared->reached = static_cast<LONG64>(next);
    shared->base = 0;
    std::wstring command = Quote(exe) + L" --worker " +
                           std::to_wstring(reinterpret_cast<ULONG_PTR>(mapping.get())) + L" " +
                           std::to_wstring(next) + L" " + std::to_wstring(total) + L" --seed " +
                           std::to_wstring(o.seed) + L" --count " + std::to_wstring(o.count) + L" --dir " +
                           Quote(dir) + L" --source " + Quote(o.sourceDir) + (o.each ? L" --each" : L"");
    std::vector<wchar_t> line(command.begin(), command.end());
    line.push_back(0);
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    if (!broomtest::StartProcess(exe, line.data(), TRUE, 0, nullptr, nullptr, &si, &pi)) {
      fprintf(stderr, "fuzz: cannot start a worker (error %lu)\n", GetLastError());
      return 2;
    }
    ++workers;
    broom::unique_handle process(pi.hProcess), thread(pi.hThread);
    LONG64 seen = -1;
    ULONGLONG since = GetTickCount64();
    for (;;) {
      if (WaitForSingleObject(process.get(), 50) == WAIT_OBJECT_0) {
        DWORD code = 0;
        GetExitCodeProcess(process.get(), &code);
        if (code == 0 && static_cast<uint64_t>(shared->reached) >= total) {
          next = total;
        } else if (code == kFresh) {
          ++fresh;
          next = static_cast<uint64_t>(shared->reached);
        } else {
          char kind[64];
          snprintf(kind, sizeof kind, "crash, exit code 0x%08lX", code);
          failures.push_back({static_cast<uint64_t>(shared->current), kind});
          ++crashes;
          next = static_cast<uint64_t>(shared->current) + 1;
        }
        break;
      }
      LONG64 current = shared->current;
      // memory taken faster than the worker could tell after the input
      const LONG64 base = shared->base;
      const LONG64 ceiling = Ceiling(shared->currentBytes);
      const LONG64 now = base ? static_cast<LONG64>(Memory(process.get()).WorkingSetSize) - base : 0;
      if (now > ceiling) {
        TerminateProcess(process.get(), 0xDEAD);
        WaitForSingleObject(process.get(), INFINITE);
        // what earlier inputs of the worker left may be in it: once more, alone
        if (static_cast<uint64_t>(current) > first && static_cast<uint64_t>(current) != retried) {
          retried = next = static_cast<uint64_t>(current);
          break;
        }
        failures.push_back({static_cast<uint64_t>(current), "memory past its ceiling: " + Megabytes(now) +
                                                                " above the worker's start, ceiling " + Megabytes(ceiling)});
        ++overMemory;
        next = static_cast<uint64_t>(current) + 1;
        break;
      }
      if (current != seen) {
        seen = current;
        since = GetTickCount64();
      } else if (GetTickCount64() - since > o.limitSeconds * 1000ull) {
        TerminateProcess(process.get(), 0xDEAD);
        WaitForSingleObject(process.get(), INFINITE);
        failures.push_back({static_cast<uint64_t>(current), "hang, more than " + std::to_string(o.limitSeconds) + " s"});
        ++hangs;
        next = static_cast<uint64_t>(current) + 1;
        break;
      }
    }
  }
  double seconds = static_cast<double>(GetTickCount64() - began) / 1000;
  RemoveDirectoryW((dir + L"\\in").c_str());
  RemoveDirectoryW(dir.c_str());

  for (LONG k = 0; k < shared->failureCount; ++k)
    failures.push_back({static_cast<uint64_t>(shared->failureIndex[k]), shared->failureText[k]});
  LONG64 finished = 0, failed = 0;
  for (int k = 0; k < kOutcomes; ++k) finished += k == kMemory ? 0 : shared->counts[k];  // counted with its outcome too
  for (int k = kFirstFailure; k < kOutcomes; ++k) failed += shared->counts[k];
  bool leaked = shared->handlesAtEnd > shared->handlesAfterWarmUp;

  printf("fuzz: seed %llu, %llu kept cases and %llu generated inputs in %.1f s (%.0f per second), %u workers\n",
         static_cast<unsigned long long>(o.seed), static_cast<unsigned long long>(inputs.CaseCount()),
         static_cast<unsigned long long>(o.count), seconds, static_cast<double>(finished) / seconds, workers);
  printf("  definition files: accepted %lld, rejected %lld\n", shared->counts[kAccepted], shared->counts[kRejected]);
  printf("  winapp2 files: %lld loaded whole, %lld with lines skipped, %lld refused whole\n",
         shared->counts[kWinapp2Whole], shared->counts[kWinapp2Skipped], shared->counts[kWinapp2Refused]);
  if (!inputs.HasSharedWinapp2())
    printf("  note: no shared Winapp2.ini beside the source folder: its slices and entries were left out, "
           "grammar files made instead\n");
  std::string thrown;
  for (int k = kBufferOverflow; k < kBroken; ++k)
    if (shared->counts[k]) thrown += (thrown.empty() ? "" : ", ") + std::string(kOutcomeNames[k]) + " " + std::to_string(shared->counts[k]);
  printf("  exceptions: %s\n", thrown.empty() ? "none" : thrown.c_str());
  printf("  crashes %u, hangs %u (limit %lu s), memory past the ceiling %lld (64 MB + %lld x the input's bytes), "
         "undocumented exceptions and broken invariants %lld\n",
         crashes, hangs, o.limitSeconds, overMemory + shared->counts[kMemory], kMemoryPerByte,
         failed - shared->counts[kMemory]);
  printf("  loading took %.1f s for definition files, %.1f s for winapp2 files\n", shared->msDefinitions / 1000.0,
         shared->msWinapp2 / 1000.0);
  if (shared->slowestIndex >= 0)
    printf("  slowest input #%lld: %lld ms (%s)\n", shared->slowestIndex, shared->slowestMs,
           inputs.Make(static_cast<uint64_t>(shared->slowestIndex)).what.c_str());
  if (shared->highestIndex >= 0) {
    Input highest = inputs.Make(static_cast<uint64_t>(shared->highestIndex));
    Input closest = inputs.Make(static_cast<uint64_t>(shared->closestIndex));
    printf("  memory: highest %s on input #%lld of %zu bytes (%s)\n", Megabytes(shared->highestUsed).c_str(),
           shared->highestIndex, highest.bytes.size(), highest.what.c_str());
    printf("  memory: closest to its ceiling %s of %s (%lld%%) on input #%lld (%s); %u workers ended for a fresh peak\n",
           Megabytes(shared->closestUsed).c_str(), Megabytes(Ceiling(static_cast<LONG64>(closest.bytes.size()))).c_str(),
           shared->closestPermille / 10, shared->closestIndex, closest.what.c_str(), fresh);
  }
  printf("  handles of the longest worker: %lld after warm-up, %lld at the end\n", shared->handlesAfterWarmUp,
         shared->handlesAtEnd);

  std::sort(failures.begin(), failures.end(), [](const Failure& a, const Failure& b) { return a.index < b.index; });
  if (!o.save.empty() && !failures.empty()) CreateDirectoryW(o.save.c_str(), nullptr);
  for (const Failure& f : failures) {
    Input in = inputs.Make(f.index);
    std::string where;
    if (!o.save.empty()) {
      std::wstring path = o.save + L"\\input-" + std::to_wstring(o.seed) + L"-" + std::to_wstring(f.index) + L"." + in.extension;
      if (WriteBytes(path, in.bytes)) where = ", saved as " + Narrow(path.c_str());
    }
    printf("  FAILED #%llu: %s; %zu bytes (%s)%s\n", static_cast<unsigned long long>(f.index), f.kind.c_str(),
           in.bytes.size(), in.what.c_str(), where.c_str());
  }
  if (leaked) printf("  FAILED: the worker's handles grew\n");
  return crashes || hangs || overMemory || failed || leaked ? 1 : 0;
}

// A path as Windows programs under Wine see it.
std::wstring WindowsPath(std::wstring path) {
  if (!path.empty() && path[0] == L'/') path = L"Z:" + path;
  std::replace(path.begin(), path.end(), L'/', L'\\');
  return path;
}

}  // namespace

int main() {
  int argc = 0;
  wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  if (!argv) return 2;
  auto freeArgs = broom::scope_exit([&] { LocalFree(argv); });
  Options o;
  if (const wchar_t* source = _wgetenv(L"BROOM_SOURCE_DIR")) o.sourceDir = WindowsPath(source);
  std::wstring worker, dir, writeTo;
  uint64_t from = 0, to = 0, writeIndex = 0;
  bool write = false;
  try {
    for (int i = 1; i < argc; ++i) {
      std::wstring a = argv[i];
      auto next = [&]() -> std::wstring {
        if (i + 1 >= argc) throw std::invalid_argument("a value is missing");
        return argv[++i];
      };
      if (a == L"--count") o.count = std::stoull(next());
      else if (a == L"--seed") o.seed = std::stoull(next());
      else if (a == L"--limit") o.limitSeconds = std::stoul(next());
      else if (a == L"--save") o.save = next();
      else if (a == L"--source") o.sourceDir = next();
      else if (a == L"--each") o.each = true;
      else if (a == L"--dir") dir = next();
      else if (a == L"--worker") worker = next(), from = std::stoull(next()), to = std::stoull(next());
      else if (a == L"--write") write = true, writeIndex = std::stoull(next()), writeTo = next();
      else if (a.rfind(L"--gtest", 0) != 0) throw std::invalid_argument("unknown argument");
    }
  } catch (const std::exception&) {
    fprintf(stderr, "usage: test_fuzz [--count N] [--seed S] [--limit SECONDS] [--save DIR] [--each] | --write INDEX FILE\n");
    return 2;
  }
  if (o.sourceDir.empty()) {
    fprintf(stderr, "fuzz: set BROOM_SOURCE_DIR to the source folder (for defs\\, tests\\fuzz\\cases.txt and the shared Winapp2.ini)\n");
    return 2;
  }
  try {
    Inputs inputs = MakeInputs(o);
    if (write) {
      Input in = inputs.Make(writeIndex);
      printf("%s\n", in.what.c_str());
      return WriteBytes(writeTo, in.bytes) ? 0 : 1;
    }
    if (!worker.empty()) {
      HANDLE mapping = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(std::stoull(worker)));
      auto* shared = static_cast<Shared*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, sizeof(Shared)));
      if (!shared) return 3;
      return Work(shared, inputs, from, to, dir, o.each);
    }
    return Supervise(o, inputs);
  } catch (const std::exception& e) {
    fprintf(stderr, "fuzz: %s\n", e.what());
    return 2;
  }
}
