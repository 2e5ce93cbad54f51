#!/usr/bin/env bash
# Builds every target for i686, the architecture Broom ships as.
# The tests are built too (so a 32-bit break anywhere fails) but not run:
# only 64-bit Wine is available to run them here.
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BUILD_DIR_I686:-$here/build/i686}
configure i686 "$build"
cmake --build "$build"
