#!/usr/bin/env bash
# Builds the benchmarks (optimised) and runs one, or all, under Wine.
#   scripts/bench.sh [NAME ...]     e.g. scripts/bench.sh scandefs_load
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh" "$here/build" >/dev/null
build=${BROOM_BENCH_DIR:-$here/build/bench-x86_64}
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBROOM_TESTS=OFF \
  -DCMAKE_TOOLCHAIN_FILE="$here/cmake/toolchain-x86_64-w64-mingw32.cmake" \
  -DBROOM_THIRD_PARTY_DIR="$here/build/third_party" >/dev/null
cmake --build "$build" >/dev/null
wine=/usr/lib/wine/wine64; [ -x "$wine" ] || wine=$(command -v wine64)
run="$here/scripts/wine-run.sh $wine $build/wineprefix"
$run wineboot --init
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for exe in "$build"/bin/bench_*.exe; do names+=("$(basename "$exe" .exe | sed 's/^bench_//')"); done
fi
for name in "${names[@]}"; do
  echo "== $name"
  $run "$build/bin/bench_$name.exe"
done
$here/scripts/wine-run.sh $wine $build/wineprefix --stop-server /usr/lib/wine/wineserver
