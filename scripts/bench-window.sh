#!/usr/bin/env bash
# Builds broomw.exe and its responsiveness benchmark (optimised) and runs it
# on a virtual X display: the longest wait for the window's answer while it
# scans the 100,000-file benchmark tree.
#   scripts/bench-window.sh [TREE_ROOT]
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BENCH_DIR:-$here/build/bench-x86_64}
configure x86_64 "$build" -DCMAKE_BUILD_TYPE=Release -DBROOM_TESTS=OFF >/dev/null
cmake --build "$build" --target bench_window_responsive >/dev/null
"$here/scripts/wine-run.sh" "$wine" "$build/wineprefix" --start-server "$wineserver" >/dev/null
"$here/scripts/wine-x11-run.sh" "$wine" "$build/wineprefix" "$build/bin/bench_window_responsive.exe" "$@"
"$here/scripts/wine-run.sh" "$wine" "$build/wineprefix" --stop-server "$wineserver"
