#!/usr/bin/env bash
# Installs what is missing, builds Broom for x86_64 and runs every test under Wine.
#   scripts/test.sh [ctest arguments...]
# BROOM_BUILD_DIR picks the build folder (default: build/x86_64).
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
configure x86_64 "$build"
cmake --build "$build"
cd "$build"
ctest --output-on-failure -j2 "$@"
