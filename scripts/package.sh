#!/usr/bin/env bash
# Builds broomcore.dll and broom.exe for i686 (the product) and x86_64,
# installs each into a staging folder (stripped of debug information) and
# zips it: build/broom-<version>-i686.zip and build/broom-<version>-x86_64.zip,
# each holding one folder broom-<version>-<arch> laid out as `cmake --install`
# lays it out. BROOM_BUILD_DIR_I686 and BROOM_BUILD_DIR pick the build folders
# (default: build/i686 and build/x86_64, shared with the other scripts).
set -euo pipefail
source "$(dirname "$0")/common.sh"
out=$here/build
for arch in i686 x86_64; do
  if [ "$arch" = i686 ]; then build=${BROOM_BUILD_DIR_I686:-$here/build/i686}; else build=${BROOM_BUILD_DIR:-$here/build/x86_64}; fi
  configure "$arch" "$build"
  cmake --build "$build" --target broomcore broom
  version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
  name=broom-$version-$arch
  stage=$out/package/$name
  rm -rf "$stage" "$out/$name.zip"
  cmake --install "$build" --prefix "$stage" --strip >/dev/null
  (cd "$out/package" && zip -qr9 "$out/$name.zip" "$name")
  echo "$out/$name.zip: $(stat -c %s "$out/$name.zip") bytes, $(find "$stage" -type f | wc -l) files"
done
