# Sourced by the other scripts: the repository root, Wine's programs, and the
# step that installs what is missing and configures a build folder.
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver

# configure ARCH BUILD_DIR [CMAKE ARGS...]   (ARCH: x86_64 or i686)
configure() {
  local arch=$1 build=$2
  shift 2
  "$here/scripts/setup.sh" "$here/build"
  cmake -S "$here" -B "$build" -G Ninja "$@" \
    -DCMAKE_TOOLCHAIN_FILE="$here/cmake/toolchain-$arch-w64-mingw32.cmake" \
    -DBROOM_THIRD_PARTY_DIR="$here/build/third_party" >/dev/null
}
