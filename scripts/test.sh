#!/usr/bin/env bash
# Installs what is missing, builds Broom for x86_64 and runs every test under Wine.
#   scripts/test.sh [ctest arguments...]
# BROOM_BUILD_DIR picks the build folder (default: build/x86_64).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh" "$here/build"
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
cmake -S "$here" -B "$build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$here/cmake/toolchain-x86_64-w64-mingw32.cmake" \
  -DBROOM_THIRD_PARTY_DIR="$here/build/third_party" >/dev/null
cmake --build "$build"
cd "$build"
status=0
ctest --output-on-failure -j2 "$@" || status=$?
exit $status
