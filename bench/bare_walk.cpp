// The floor of the scan benchmarks: one process that walks the benchmark
// tree with FindFirstFileW and nothing else.
//   bench_bare_walk.exe [ROOT]   (default: the tree in the temporary folder,
//                                 made when missing)
#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <cwchar>

#include "bench/BenchTree.h"

int main() {
  int argc = 0;
  wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  std::wstring root = argc > 1 ? argv[1] : benchtree::DefaultRoot();
  LocalFree(argv);
  benchtree::Generate(root);
  auto t0 = std::chrono::steady_clock::now();
  long long files = benchtree::BareWalk(root);
  std::printf("bare walk: %lld files in %.3f s\n", files, benchtree::Seconds(t0));
  return files > 0 ? 0 : 1;
}
