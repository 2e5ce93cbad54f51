// The fuzz run of the definition loader. One program plays two parts: the
// supervisor (the default) starts a worker and watches it through a block of
// shared memory; the worker (--worker) loads one input after another, each
// through a fresh store from a folder holding only that input, and counts
// what came of each in the shared block, which outlives it. A worker that
// dies is a crash, one that stays on an input past the limit a hang; either
// way the supervisor starts a new worker on the next input.
//   test_fuzz.exe [--count N] [--seed S] [--limit SECONDS] [--save DIR]
//   test_fuzz.exe --write INDEX FILE [--seed S]   writes one input to FILE
// The kept cases (tests/fuzz/cases.txt) come first in every run.
#include <windows.h>
#include <shellapi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/HandleCount.h"
#include "core/Handles.h"
#include "fuzz/FuzzInputs.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/XmlReader.h"

namespace {

// What came of one input. The first five are what a definition file may
// lead to; anything after them fails the run.
enum Outcome : int {
  kAccepted,
  kRejected,
  kBufferOverflow,
  kPositionOutOfString,
  kInvalidArgument,
  kInvalidSubstring,
  kOtherLibrary,
  kOutOfMemory,
  kOtherAtl,
  kBadAlloc,
  kStd,
  kUnknown,
  kBroken,  // the load ended, but what it left is wrong
  kOutcomes
};
const char* const kOutcomeNames[kOutcomes] = {
    "accepted", "rejected", "BufferOverflowException", "PositionOutOfStringException", "CAtlException(E_INVALIDARG)",
    "InvalidSubstringException", "other library exception", "CAtlException(E_OUTOFMEMORY)", "other CAtlException",
    "std::bad_alloc", "std::exception", "unknown exception", "broken invariant"};
constexpr int kFirstFailure = kInvalidSubstring;

constexpr int kKept = 64;

// Lives in memory shared with the workers; every worker adds to it.
struct Shared {
  volatile LONG64 current;  // the input a worker is on
  volatile LONG64 reached;  // every input before this one is finished
  LONG64 counts[kOutcomes];
  LONG64 slowestIndex, slowestMs;
  LONG64 handleRun, handlesAfterWarmUp, handlesAtEnd;  // of the worker that ran the most inputs
  LONG failureCount;
  LONG64 failureIndex[kKept];
  char failureText[kKept][200];
};

struct Options {
  uint64_t count = 3000, seed = 1;
  DWORD limitSeconds = 10;
  std::wstring save, sourceDir;
};

std::string Narrow(const wchar_t* text) {
  int n = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  std::string out(n > 0 ? n - 1 : 0, '\0');
  if (n > 1) WideCharToMultiByte(CP_UTF8, 0, text, -1, &out[0], n, nullptr, nullptr);
  return out;
}

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

// The bundled definitions and the kept cases, from the source folder.
fuzz::Inputs MakeInputs(const Options& o) {
  std::vector<std::string> seeds;
  WIN32_FIND_DATAW data;
  std::wstring defs = o.sourceDir + L"\\defs\\";
  broom::unique_hfind find(FindFirstFileW((defs + L"*.xml").c_str(), &data));
  if (find) {
    do seeds.push_back(ReadBytes(defs + data.cFileName));
    while (FindNextFileW(find.get(), &data));
  }
  std::sort(seeds.begin(), seeds.end());  // the order a search returns is not fixed
  return fuzz::Inputs(o.seed, seeds, fuzz::ReadCases(o.sourceDir + L"\\tests\\fuzz\\cases.txt"));
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

struct Hook : ILoadHook {
  explicit Hook(int mode) : m_mode(mode) {}
  void OnLoadComplete() override {}
  bool OnFileData(char*, unsigned long* size, bool) override {
    if (m_mode == 1) return false;
    if (m_mode == 2) *size -= std::min(*size, 7ul);
    return true;
  }
  int m_mode;
};

struct Localizer : ILocalizeStrings {
  CString Localize(const wchar_t* key, int) override {
    if (wcscmp(key, L"MANUAL_self") == 0) return CString(L"[$(self)]");
    if (wcscmp(key, L"MANUAL_a") == 0) return CString(L"$(");
    if (wcscmp(key, L"MANUAL_Browsers") == 0) return CString(L"Web browsers");
    return CString(L"?");
  }
};

// Every group of the tree, without recursion: the count, and the depth.
size_t Walk(IConfig* config, size_t& depth) {
  std::vector<CRefPtr<TIteratorIface<CScanGroup>>> stack(1);
  config->GetGroups(stack[0]);
  size_t groups = 0;
  depth = 0;
  while (!stack.empty()) {
    CRefPtr<TIteratorIface<CScanGroup>> it = stack.back();
    if (!it || it->AtEnd()) {
      stack.pop_back();
      continue;
    }
    CScanGroup* group = it->Current();
    it->Next();
    ++groups;
    depth = std::max(depth, stack.size());
    if (!group->GetName() || !group->GetDescription()) throw std::logic_error("a group without texts");
    stack.emplace_back();
    group->GetChildren(stack.back());
  }
  return groups;
}

int LoadOne(const std::wstring& folder, const fuzz::Input& in, std::string& text) {
  Hook hook(in.hook);
  Localizer localizer;
  CRefPtr<IConfig> config = IConfig::NewConfig();
  try {
    bool loaded = config->Load(folder.c_str(), &hook, in.localizer ? &localizer : nullptr);
    std::vector<SLoadNote> notes = CConfigStore::Of(config)->TakeLoadNotes();
    size_t depth = 0;
    size_t groups = Walk(config, depth);
    // a file is read whole, or not at all and with a reason
    if (!loaded && (groups || notes.size() != 1 || notes[0].reason.IsEmpty()))
      text = "a rejected file left " + std::to_string(groups) + " groups and " + std::to_string(notes.size()) + " notes";
    else if (loaded && !notes.empty())
      text = "an accepted file left the note '" + Narrow(notes[0].reason) + "'";
    else if (depth > XmlReader::kMaxGroupDepth)
      text = "the tree is " + std::to_string(depth) + " levels deep";
    if (!text.empty()) return kBroken;
    return loaded ? kAccepted : kRejected;
  } catch (const BufferOverflowException&) {
    return kBufferOverflow;
  } catch (const PositionOutOfStringException&) {
    return kPositionOutOfString;
  } catch (const InvalidSubstringException&) {
    return kInvalidSubstring;
  } catch (const Exception& e) {
    text = Narrow(e.m_message.c_str());
    return kOtherLibrary;
  } catch (const CAtlException& e) {
    if (e.m_hr == E_INVALIDARG) return kInvalidArgument;
    text = "HRESULT " + std::to_string(static_cast<unsigned long>(e.m_hr));
    return e.m_hr == E_OUTOFMEMORY ? kOutOfMemory : kOtherAtl;
  } catch (const std::bad_alloc&) {
    return kBadAlloc;
  } catch (const std::exception& e) {
    text = e.what();
    return kStd;
  } catch (...) {
    return kUnknown;
  }
}

int Work(Shared* shared, const fuzz::Inputs& inputs, uint64_t from, uint64_t to, const std::wstring& dir) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  SetUnhandledExceptionFilter(OnCrash);
  AddVectoredExceptionHandler(1, OnStackOverflow);
  std::wstring folder = dir + L"\\in";
  CreateDirectoryW(folder.c_str(), nullptr);
  // what a crashed worker left
  for (const wchar_t* extension : {L"xml", L"dat", L"da0", L"dat0", L"dat2"})
    DeleteFileW((folder + L"\\input." + extension).c_str());
  LONG64 warmHandles = -1;
  for (uint64_t i = from; i < to; ++i) {
    shared->current = static_cast<LONG64>(i);
    fuzz::Input in = inputs.Make(i);
    std::wstring file = folder + L"\\input." + in.extension;
    if (!WriteBytes(file, in.bytes)) {
      fprintf(stderr, "fuzz worker: cannot write %s\n", Narrow(file.c_str()).c_str());
      return 3;
    }
    ULONGLONG started = GetTickCount64();
    std::string text;
    int outcome = LoadOne(folder, in, text);
    DeleteFileW(file.c_str());
    LONG64 ms = static_cast<LONG64>(GetTickCount64() - started);
    if (ms > shared->slowestMs) {
      shared->slowestMs = ms;
      shared->slowestIndex = static_cast<LONG64>(i);
    }
    ++shared->counts[outcome];
    if (outcome >= kFirstFailure && shared->failureCount < kKept) {
      LONG k = shared->failureCount++;
      shared->failureIndex[k] = static_cast<LONG64>(i);
      snprintf(shared->failureText[k], sizeof shared->failureText[k], "%s%s%s", kOutcomeNames[outcome],
               text.empty() ? "" : ": ", text.c_str());
    }
    shared->reached = static_cast<LONG64>(i + 1);
    // Handles the first loads open for good (code pages, registry roots)
    // are in by now; after that every load must give back what it takes.
    if (i - from == 50) warmHandles = broomtest::ProcessHandleCount();
  }
  if (warmHandles >= 0 && static_cast<LONG64>(to - from) > shared->handleRun) {
    shared->handleRun = static_cast<LONG64>(to - from);
    shared->handlesAfterWarmUp = warmHandles;
    shared->handlesAtEnd = broomtest::ProcessHandleCount();
  }
  return 0;
}

// ---- the supervisor ----

struct Failure {
  uint64_t index;
  std::string kind;
};

std::wstring Quote(const std::wstring& arg) { return L"\"" + arg + L"\""; }

int Supervise(const Options& o, const fuzz::Inputs& inputs) {
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
  shared->slowestIndex = -1;

  wchar_t temp[MAX_PATH], exe[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  GetModuleFileNameW(nullptr, exe, MAX_PATH);
  std::wstring dir = std::wstring(temp) + L"broom-fuzz-" + std::to_wstring(GetCurrentProcessId());
  CreateDirectoryW(dir.c_str(), nullptr);

  const uint64_t total = inputs.CaseCount() + o.count;
  std::vector<Failure> failures;
  unsigned crashes = 0, hangs = 0, workers = 0;
  ULONGLONG began = GetTickCount64();
  for (uint64_t next = 0; next < total;) {
    shared->current = static_cast<LONG64>(next);
    shared->reached = static_cast<LONG64>(next);
    std::wstring command = Quote(exe) + L" --worker " +
                           std::to_wstring(reinterpret_cast<ULONG_PTR>(mapping.get())) + L" " +
                           std::to_wstring(next) + L" " + std::to_wstring(total) + L" --seed " +
                           std::to_wstring(o.seed) + L" --count " + std::to_wstring(o.count) + L" --dir " +
                           Quote(dir) + L" --source " + Quote(o.sourceDir);
    std::vector<wchar_t> line(command.begin(), command.end());
    line.push_back(0);
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessW(exe, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
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
  for (int k = 0; k < kOutcomes; ++k) finished += shared->counts[k];
  for (int k = kFirstFailure; k < kOutcomes; ++k) failed += shared->counts[k];
  bool leaked = shared->handlesAtEnd > shared->handlesAfterWarmUp;

  printf("fuzz: seed %llu, %llu kept cases and %llu generated inputs in %.1f s (%.0f per second), %u workers\n",
         static_cast<unsigned long long>(o.seed), static_cast<unsigned long long>(inputs.CaseCount()),
         static_cast<unsigned long long>(o.count), seconds, static_cast<double>(finished) / seconds, workers);
  printf("  accepted %lld, rejected %lld\n", shared->counts[kAccepted], shared->counts[kRejected]);
  std::string thrown;
  for (int k = kBufferOverflow; k < kOutcomes; ++k)
    if (shared->counts[k]) thrown += (thrown.empty() ? "" : ", ") + std::string(kOutcomeNames[k]) + " " + std::to_string(shared->counts[k]);
  printf("  exceptions: %s\n", thrown.empty() ? "none" : thrown.c_str());
  printf("  crashes %u, hangs %u (limit %lu s), undocumented exceptions and broken invariants %lld\n", crashes, hangs,
         o.limitSeconds, failed);
  if (shared->slowestIndex >= 0)
    printf("  slowest input #%lld: %lld ms (%s)\n", shared->slowestIndex, shared->slowestMs,
           inputs.Make(static_cast<uint64_t>(shared->slowestIndex)).what.c_str());
  printf("  handles of the longest worker: %lld after warm-up, %lld at the end\n", shared->handlesAfterWarmUp,
         shared->handlesAtEnd);

  std::sort(failures.begin(), failures.end(), [](const Failure& a, const Failure& b) { return a.index < b.index; });
  if (!o.save.empty() && !failures.empty()) CreateDirectoryW(o.save.c_str(), nullptr);
  for (const Failure& f : failures) {
    fuzz::Input in = inputs.Make(f.index);
    std::string where;
    if (!o.save.empty()) {
      std::wstring path = o.save + L"\\input-" + std::to_wstring(o.seed) + L"-" + std::to_wstring(f.index) + L"." + in.extension;
      if (WriteBytes(path, in.bytes)) where = ", saved as " + Narrow(path.c_str());
    }
    printf("  FAILED #%llu: %s; %zu bytes (%s)%s\n", static_cast<unsigned long long>(f.index), f.kind.c_str(),
           in.bytes.size(), in.what.c_str(), where.c_str());
  }
  if (leaked) printf("  FAILED: the worker's handles grew\n");
  return crashes || hangs || failed || leaked ? 1 : 0;
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
      else if (a == L"--dir") dir = next();
      else if (a == L"--worker") worker = next(), from = std::stoull(next()), to = std::stoull(next());
      else if (a == L"--write") write = true, writeIndex = std::stoull(next()), writeTo = next();
      else if (a.rfind(L"--gtest", 0) != 0) throw std::invalid_argument("unknown argument");
    }
  } catch (const std::exception&) {
    fprintf(stderr, "usage: test_fuzz [--count N] [--seed S] [--limit SECONDS] [--save DIR] | --write INDEX FILE\n");
    return 2;
  }
  if (o.sourceDir.empty()) {
    fprintf(stderr, "fuzz: set BROOM_SOURCE_DIR to the source folder (for defs\\ and tests\\fuzz\\cases.txt)\n");
    return 2;
  }
  try {
    fuzz::Inputs inputs = MakeInputs(o);
    if (write) {
      fuzz::Input in = inputs.Make(writeIndex);
      printf("%s\n", in.what.c_str());
      return WriteBytes(writeTo, in.bytes) ? 0 : 1;
    }
    if (!worker.empty()) {
      HANDLE mapping = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(std::stoull(worker)));
      auto* shared = static_cast<Shared*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, sizeof(Shared)));
      if (!shared) return 3;
      return Work(shared, inputs, from, to, dir);
    }
    return Supervise(o, inputs);
  } catch (const std::exception& e) {
    fprintf(stderr, "fuzz: %s\n", e.what());
    return 2;
  }
}
