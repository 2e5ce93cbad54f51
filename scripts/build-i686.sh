#!/usr/bin/env bash
# Builds every target for i686, the architecture Broom ships as.
# The tests are built too (so a 32-bit break anywhere fails) but not run:
# only 64-bit Wine is available to run them here.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh" "$here/build"
build=${BROOM_BUILD_DIR_I686:-$here/build/i686}
cmake -S "$here" -B "$build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$here/cmake/toolchain-i686-w64-mingw32.cmake" \
  -DBROOM_THIRD_PARTY_DIR="$here/build/third_party" >/dev/null
cmake --build "$build"
