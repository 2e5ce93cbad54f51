#!/usr/bin/env bash
# Checks what a host developer gets from `cmake --install` (CI runs it after
# the tests; it takes a minute or two):
#  1. the x86_64 build installs into a temporary prefix, with the versions of
#     the project, the CMake package and broom --version agreeing;
#  2. every installed header compiles on its own against that prefix alone;
#  3. every C++ and CMake fragment of docs/host-guide.md is, verbatim, a
#     [guide:...] region of the example, and every region is in the guide;
#  4. the installed examples/minimal-host configures and builds with the
#     installed toolchain file and package, without a path into the sources;
#  5. under Wine, on a generated folder, it prints exactly the expected hits
#     (a protected folder left out), writes them to its scan log, and with
#     --clean deletes them and nothing else.
# BROOM_BUILD_DIR picks the build folder (default: build/x86_64).
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
work=$(mktemp -d "${TMPDIR:-/tmp}/broom-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "check-package: FAILED: $*" >&2; exit 1; }
step() { echo "check-package: [${SECONDS}s] $*"; }
# Runs a command quietly; its output is shown when it fails.
quiet() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "$*"; }; }

step "installing $build into $prefix"
configure x86_64 "$build"
quiet cmake --build "$build" --target broomcore broom
quiet cmake --install "$build" --prefix "$prefix"
for f in bin/broomcore.dll bin/broom.exe bin/broomw.exe bin/libstdc++-6.dll bin/defs lib/libbroomcore.dll.a \
         lib/cmake/Broom/BroomConfig.cmake lib/cmake/Broom/BroomConfigVersion.cmake \
         include/broom/scandefs/ConfigStore.h include/broom/pugixml.hpp docs/host-guide.md \
         examples/minimal-host/CMakeLists.txt admx/broom.admx admx/en-US/broom.adml; do
  [ -e "$prefix/$f" ] || fail "$f is not installed"
done
[ ! -e "$prefix/include/broom/clean/FileOpsServer.h" ] || fail "an internal header is installed"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
grep -q "set(PACKAGE_VERSION \"$version\")" "$prefix/lib/cmake/Broom/BroomConfigVersion.cmake" \
  || fail "the CMake package does not say version $version"
toolchain=$prefix/lib/cmake/Broom/toolchain-x86_64-w64-mingw32.cmake

step "compiling each installed header on its own"
quiet cmake -S "$here/cmake/header-check" -B "$work/headers" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_PREFIX_PATH="$prefix"
echo "  $(grep -o '[0-9]* headers' "$work/log")"
quiet cmake --build "$work/headers"

step "comparing the guide's fragments with the example"
example=$here/examples/minimal-host
mkdir -p "$work/regions" "$work/fragments"
# Regions: the lines between "// [guide:NAME]" (or "# [guide:NAME]") and
# "[guide:end]", less their common indentation.
awk -v dir="$work/regions" '
  function flush(   i, pad, n) {
    pad = 1000
    for (i = 1; i <= count; i++) if (lines[i] ~ /[^ ]/) { match(lines[i], /^ */); if (RLENGTH < pad) pad = RLENGTH }
    for (i = 1; i <= count; i++) print substr(lines[i], pad + 1) > (dir "/" name)
    close(dir "/" name)
  }
  function bad(text) { print FILENAME ": " text > "/dev/stderr"; failed = 1; exit 1 }
  /^ *(\/\/|#) \[guide:end\]$/ { if (name == "") bad("[guide:end] without a start"); flush(); name = ""; next }
  /^ *(\/\/|#) \[guide:[a-z-]+\]$/ { if (name != "") bad(name " not ended")
                                     name = $0; sub(/^.*\[guide:/, "", name); sub(/\].*$/, "", name); count = 0; next }
  name != "" { lines[++count] = $0 }
  END { if (!failed && name != "") { print "region " name " not ended" > "/dev/stderr"; exit 1 } }
' "$example/main.cpp" "$example/CMakeLists.txt" || fail "unbalanced [guide:...] markers"
# Fragments: the fenced cpp and cmake blocks of the guide.
awk -v dir="$work/fragments" '
  /^```(cpp|cmake)$/ { n++; inside = 1; file = sprintf("%s/%02d", dir, n); printf "" > file; next }
  /^```/ && inside { inside = 0; close(file); next }
  inside { print > file }
' "$here/docs/host-guide.md"
used=" "
for fragment in "$work"/fragments/*; do
  match=
  for region in "$work"/regions/*; do
    if cmp -s "$fragment" "$region"; then match=$(basename "$region"); break; fi
  done
  [ -n "$match" ] || fail "a fragment of the guide is not a region of the example: $(grep -m1 . "$fragment")"
  used+="$match "
done
for region in "$work"/regions/*; do
  case "$used" in *" $(basename "$region") "*) ;; *) fail "region $(basename "$region") is not in the guide" ;; esac
done
echo "  $(ls "$work/fragments" | wc -l) fragments, $(ls "$work/regions" | wc -l) regions"

step "building the installed example against the package alone"
quiet cmake -S "$prefix/examples/minimal-host" -B "$work/example" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_PREFIX_PATH="$prefix"
quiet cmake --build "$work/example"
if grep -q "$here" "$work/example/build.ninja" "$work/example/CMakeCache.txt"; then
  fail "the example's build refers to the source tree $here"
fi
[ -f "$work/example/broomcore.dll" ] || fail "broomcore.dll was not copied beside the example"

step "running it under Wine"
win() { printf 'Z:%s' "${1//\//\\}"; }
run() { "$here/scripts/wine-run.sh" "$wine" "$build/wineprefix" "$@"; }
run --start-server "$wineserver" >/dev/null
trap 'run --stop-server "$wineserver"; rm -rf "$work"' EXIT
mkdir -p "$work/tree/sub" "$work/tree/keep" "$work/defs"
head -c 10 /dev/zero > "$work/tree/a.log"
head -c 2000 /dev/zero > "$work/tree/sub/b.log"
head -c 30 /dev/zero > "$work/tree/keep/c.log"
cat > "$work/defs/demo.xml" <<EOF
<?xml version="1.0" encoding="utf-8"?>
<ConfigItems>
  <group name="\$(Demo)" scan="yes" clean="yes">
    <item name="Old files"><clean kind="file">$(win "$work/tree")\\*</clean></item>
  </group>
</ConfigItems>
EOF
host=$work/example/minimal-host.exe
args=("$(win "$work/defs")" "$(win "$work/data")" "Demo/Old files" --protect "$(win "$work/tree/keep")")
expected=$(printf 'hit %s 10 bytes\nhit %s 2000 bytes\n' "$(win "$work/tree/a.log")" "$(win "$work/tree/sub/b.log")")
out=$(run "$host" "${args[@]}") || fail "minimal-host exited with $?"
out=${out//$'\r'/}
[ "$(sort <<<"$out")" = "$expected" ] || fail "unexpected output:"$'\n'"$out"$'\n'"expected:"$'\n'"$expected"
log=$(iconv -f UTF-16LE -t UTF-8 "$work/data/Logs/scan1.log" 2>/dev/null) || fail "no scan log"
for f in a.log sub/b.log; do
  grep -qF "File: $(win "$work/tree/$f")" <<<"$log" || fail "the scan log does not list $f"
done
out=$(run "$host" "${args[@]}" --clean) || fail "minimal-host --clean exited with $?"
out=${out//$'\r'/}
grep -qx 'cleaned a.log 0x00000000' <<<"$out" && grep -qx 'cleaned b.log 0x00000000' <<<"$out" \
  || fail "unexpected output of --clean:"$'\n'"$out"
[ ! -e "$work/tree/a.log" ] && [ ! -e "$work/tree/sub/b.log" ] || fail "--clean left a hit"
[ -e "$work/tree/keep/c.log" ] || fail "--clean deleted a protected file"
[ "$(run "$prefix/bin/broom.exe" --version | tr -d '\r')" = "broom $version" ] \
  || fail "the installed broom --version does not say $version"
step "passed (version $version)"
