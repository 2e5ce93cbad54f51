#!/usr/bin/env bash
# The main job: installs what is missing, builds broom.exe and runs
# `broom scan` with the bundled definitions under Wine, in the build folder's
# private Wine prefix. Arguments go to `broom scan` (e.g. --files, --json).
# BROOM_BUILD_DIR picks the build folder (default: build/x86_64).
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
configure x86_64 "$build"
cmake --build "$build" --target broom

run() { "$here/scripts/wine-run.sh" "$wine" "$build/wineprefix" "$@"; }
run --start-server "$wineserver" >/dev/null   # makes the prefix when it is missing
status=0
run "$build/bin/broom.exe" scan "$@" || status=$?
run --stop-server "$wineserver"
exit $status
