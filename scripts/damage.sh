#!/usr/bin/env bash
# Builds broom.exe and broom_damage.exe and runs the damage drive under Wine:
# hundreds of damaged quarantine manifests and whitelist files made from real
# ones, and hostile winapp2 files aimed at the folders the guard protects,
# each driven through broom, with the counts of lost files, lost protected
# paths, untruthful exits and files deleted outside the test folder at the
# end. Takes a few minutes.
#   scripts/damage.sh [PATH\broom.exe] [--part manifests|whitelists|winapp2]...
# BROOM_BUILD_DIR picks the build folder (default: build/x86_64).
#
# The hostile files aim at the profile, Documents, the Windows folder and
# links, and a new prefix links Documents, Desktop and the like to the Unix
# home: the drive runs on a prefix of its own, made afresh in BUILD/damage
# with a home, data and config folders of its own, never the real home nor
# the tests' prefix.
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
configure x86_64 "$build"
cmake --build "$build" --target broom broom_damage

damage=$build/damage
if [ -d "$damage/wineprefix" ]; then
  WINEPREFIX="$damage/wineprefix" "$wineserver" -k 2>/dev/null || true
fi
rm -rf "$damage"
mkdir -p "$damage/data" "$damage/config" "$damage/outside"
for folder in Desktop Documents Downloads Music Pictures Videos; do mkdir -p "$damage/home/$folder"; done
export HOME="$damage/home" XDG_DATA_HOME="$damage/data" XDG_CONFIG_HOME="$damage/config"
export BROOM_DAMAGE_HOME="$HOME" BROOM_DAMAGE_OUTSIDE="$damage/outside"

run() { "$here/scripts/wine-run.sh" "$wine" "$damage/wineprefix" "$@"; }
run --start-server "$wineserver" >/dev/null
status=0
run "$build/bin/broom_damage.exe" "$@" || status=$?
run --stop-server "$wineserver"
exit $status
