#!/usr/bin/env bash
# Builds the benchmarks (optimised) and runs one, or all, under Wine.
#   scripts/bench.sh [NAME ...]     e.g. scripts/bench.sh scandefs_load
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BENCH_DIR:-$here/build/bench-x86_64}
configure x86_64 "$build" -DCMAKE_BUILD_TYPE=Release -DBROOM_TESTS=OFF >/dev/null
cmake --build "$build" >/dev/null
run() { "$here/scripts/wine-run.sh" "$wine" "$build/wineprefix" "$@"; }
export BROOM_SOURCE_DIR=$here   # benchmarks find ../shared beside the source tree, as tests do
run --start-server "$wineserver" >/dev/null   # makes the prefix when it is missing
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for exe in "$build"/bin/bench_*.exe; do names+=("$(basename "$exe" .exe | sed 's/^bench_//')"); done
fi
for name in "${names[@]}"; do
  echo "== $name"
  run "$build/bin/bench_$name.exe"
done
run --stop-server "$wineserver"
