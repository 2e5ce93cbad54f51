#!/usr/bin/env bash
# Builds broom.exe and broom_damage.exe and runs the damage drive under Wine:
# hundreds of damaged quarantine manifests and whitelist files made from real
# ones, each driven through broom, with the counts of lost files, lost
# protected paths and untruthful exits at the end. Takes a few minutes.
#   scripts/damage.sh [PATH\broom.exe]      (another build's broom, to compare)
# BROOM_BUILD_DIR picks the build folder (default: build/x86_64).
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
configure x86_64 "$build"
cmake --build "$build" --target broom broom_damage

run() { "$here/scripts/wine-run.sh" "$wine" "$build/wineprefix" "$@"; }
run --start-server "$wineserver" >/dev/null
status=0
run "$build/bin/broom_damage.exe" "$@" || status=$?
run --stop-server "$wineserver"
exit $status
