#!/usr/bin/env bash
# The main job: installs what is missing, builds broom.exe and runs
# `broom scan` with the bundled definitions under Wine, in the build folder's
# private Wine prefix. Arguments go to `broom scan` (e.g. --files, --json).
# BROOM_BUILD_DIR picks the build folder (default: build/x86_64).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh" "$here/build"
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
cmake -S "$here" -B "$build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$here/cmake/toolchain-x86_64-w64-mingw32.cmake" \
  -DBROOM_THIRD_PARTY_DIR="$here/build/third_party" >/dev/null
cmake --build "$build" --target broom

wine=$(command -v /usr/lib/wine/wine64 || command -v wine64 || command -v wine)
wineserver=$(command -v /usr/lib/wine/wineserver || command -v wineserver)
prefix=$build/wineprefix
run() { "$here/scripts/wine-run.sh" "$wine" "$prefix" "$@"; }

run wineboot --init >/dev/null 2>&1   # does nothing when the prefix exists
status=0
run "$build/bin/broom.exe" scan "$@" || status=$?
"$here/scripts/wine-run.sh" "$wine" "$prefix" --stop-server "$wineserver"
exit $status
