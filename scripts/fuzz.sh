#!/usr/bin/env bash
# The long fuzz run of the definition loader: COUNT generated definition
# files (default 100000) after the kept cases, loaded under Wine by
# test_fuzz.exe, which prints how many were accepted, rejected or raised
# which exceptions, and every crash and hang. Inputs that failed are saved
# in build/fuzz-failures; `test_fuzz.exe --write INDEX FILE --seed SEED`
# writes one input again.
#   scripts/fuzz.sh [COUNT] [SEED]
# BROOM_BUILD_DIR picks the build folder (default: build/x86_64).
set -euo pipefail
source "$(dirname "$0")/common.sh"
count=${1:-100000}
seed=${2:-1}
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
configure x86_64 "$build"
cmake --build "$build" --target test_fuzz

run() { "$here/scripts/wine-run.sh" "$wine" "$build/wineprefix" "$@"; }
run --start-server "$wineserver" >/dev/null   # makes the prefix when it is missing
status=0
BROOM_SOURCE_DIR="$here" run "$build/bin/test_fuzz.exe" --count "$count" --seed "$seed" \
  --save "Z:$(echo "$here/build/fuzz-failures" | tr / '\\')" || status=$?
run --stop-server "$wineserver"
exit $status
