// The floor of the scan benchmarks: one process that walks a benchmark tree
// with FindFirstFileW and nothing else, on one thread or several.
//   bench_bare_walk.exe [ROOT] [--threads N] [--items]
// ROOT defaults to the tree in the temporary folder; the tree (the items
// tree with --items) is made when missing. --threads N lists on N threads.
#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include "bench/BenchTree.h"

int main() {
  int argc = 0;
  wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  std::wstring root = benchtree::DefaultRoot();
  unsigned threads = 1;
  bool items = false;
  for (int i = 1; i < argc; ++i) {
    if (wcscmp(argv[i], L"--threads") == 0 && i + 1 < argc)
      threads = static_cast<unsigned>(wcstoul(argv[++i], nullptr, 10));
    else if (wcscmp(argv[i], L"--items") == 0)
      items = true;
    else
      root = argv[i];
  }
  LocalFree(argv);
  if (items)
    benchtree::GenerateItems(root);
  else
    benchtree::Generate(root);
  auto t0 = std::chrono::steady_clock::now();
  long long files = threads > 1 ? benchtree::ThreadedBareWalk(root, threads) : benchtree::BareWalk(root);
  std::printf("bare walk on %u thread%s: %lld files in %.3f s\n", threads, threads > 1 ? "s" : "", files,
              benchtree::Seconds(t0));
  return files > 0 ? 0 : 1;
}
