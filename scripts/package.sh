#!/usr/bin/env bash
# Builds the packages, for i686 (the product) and x86_64 (for the install
# tests: only 64-bit Wine runs here), or for the architectures named:
#   scripts/package.sh [i686] [x86_64]
# For each it builds broomcore, broom and broomw, installs them stripped into
# build/package/broom-<version>-<arch> and zips that as the host developer's
# package (build/broom-<version>-<arch>.zip, laid out as `cmake --install`
# lays it out). From the same installation it assembles the program folder
# build/package/app-<arch> (the programs, the runtime DLLs, defs\, the
# community rules in winapp2\, NOTICES.txt and licenses\, admx\ when
# packaging/admx holds a template) and makes from it, in build/packages/<arch>:
#   Broom-Setup-<version>.exe, Broom-<version>.msi, Broom-<version>-portable.zip
# ("-x64" after the version for x86_64; scripts/make-packages.sh). Then it
# checks that each package holds exactly the program folder and, when both
# were built, that the i686 packages hold the same files as the x86_64 ones.
#
# The community rules come from shared/winapp2/Winapp2.ini beside the
# checkout (beside the main checkout, for a git worktree; beside the local
# repository a clone came from) or from the file
# BROOM_WINAPP2 names. BROOM_BUILD_DIR_I686 and BROOM_BUILD_DIR pick the build
# folders (default: build/i686 and build/x86_64, shared with the other scripts).
set -euo pipefail
source "$(dirname "$0")/common.sh"
out=$here/build
arches=("$@")
[ ${#arches[@]} -gt 0 ] || arches=(i686 x86_64)

fail() { echo "package: FAILED: $*" >&2; exit 1; }

winapp2=${BROOM_WINAPP2:-}
if [ -z "$winapp2" ]; then
  # beside this checkout, beside the repository it is a worktree of, or
  # beside the local repository it was cloned from
  origin=$(git -C "$here" config remote.origin.url 2>/dev/null || true)
  [ -d "$origin" ] || origin=$here
  for root in "$here" "$(dirname "$(git -C "$here" rev-parse --path-format=absolute --git-common-dir 2>/dev/null || echo "$here/.git")")" "$origin"; do
    if [ -f "$root/../shared/winapp2/Winapp2.ini" ]; then winapp2=$root/../shared/winapp2/Winapp2.ini; break; fi
  done
fi
[ -n "$winapp2" ] && [ -f "$winapp2" ] \
  || fail "no Winapp2.ini: put shared/winapp2/Winapp2.ini beside the checkout or set BROOM_WINAPP2"
winapp2_version=$(sed -n '1,5s/^; *Version: *\([0-9A-Za-z.]*\).*/\1/p' "$winapp2" | tr -d '\r')
[ -n "$winapp2_version" ] || fail "$winapp2 has no '; Version:' line in its header"

# The file list of a package, one relative path a line, with / between folders.
list_zip() { unzip -Z1 "$1" | grep -v '/$' | sed 's|^Broom/||' | grep -vx portable.txt | LC_ALL=C sort; }
# msiextract names the folder above Broom after its Windows name when it
# knows it (Program Files), else leaves it out.
list_msi() { msiextract -l "$1" | tr '\\' / | sed -E 's|^([^/]*/)?Broom/||' | LC_ALL=C sort; }
# 7-Zip lists an NSIS setup's files as they land in $INSTDIR, beside the
# plug-ins the setup itself runs and the uninstaller it writes.
list_setup() { 7z l -slt "$1" | awk '/^----------$/ { on = 1 } on && sub(/^Path = /, "")' | tr '\\' / \
                 | grep -v -e '^\$PLUGINSDIR/' -e '^uninstall\.exe$' | LC_ALL=C sort; }

for arch in "${arches[@]}"; do
  case "$arch" in
    i686) build=${BROOM_BUILD_DIR_I686:-$here/build/i686} ;;
    x86_64) build=${BROOM_BUILD_DIR:-$here/build/x86_64} ;;
    *) fail "unknown architecture $arch (i686 or x86_64)" ;;
  esac
  configure "$arch" "$build"
  cmake --build "$build" --target broomcore broom broomw
  version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
  publisher=$(sed -n 's/^BROOM_PUBLISHER:INTERNAL=//p' "$build/CMakeCache.txt")

  # The host developer's package.
  name=broom-$version-$arch
  stage=$out/package/$name
  rm -rf "$stage" "$out/$name.zip"
  cmake --install "$build" --prefix "$stage" --strip >/dev/null
  (cd "$out/package" && zip -qr9 "$out/$name.zip" "$name")
  echo "$out/$name.zip: $(stat -c %s "$out/$name.zip") bytes, $(find "$stage" -type f | wc -l) files"

  # The program folder every package for people holds.
  app=$out/package/app-$arch
  rm -rf "$app"
  mkdir -p "$app/winapp2"
  cp -a "$stage/bin/." "$app/"
  cp -a "$stage/licenses" "$app/licenses"
  cp "$winapp2" "$app/winapp2/Winapp2.ini"
  # Policy templates, when there are any, ship as they lie in packaging/admx.
  if [ -n "$(find "$here/packaging/admx" -type f ! -name README.md 2>/dev/null)" ]; then
    mkdir -p "$app/admx"
    (cd "$here/packaging/admx" && find . -type f ! -name README.md -exec cp --parents {} "$app/admx/" \;)
  fi
  for notice in "$here"/packaging/notices/*.txt; do
    sed -e "s|@VERSION@|$version|g" -e "s|@PUBLISHER@|$publisher|g" -e "s|@WINAPP2_VERSION@|$winapp2_version|g" "$notice"
    echo
  done | sed 's/$/\r/' > "$app/NOTICES.txt"

  packages=$out/packages/$arch
  echo "$packages:"
  "$here/scripts/make-packages.sh" --arch "$arch" --version "$version" --publisher "$publisher" \
    --icon "$build/generated/broom.ico" --out "$packages" "$app"

  # Each package holds the program folder, no file more and none less.
  (cd "$app" && find . -type f | sed 's|^\./||' | LC_ALL=C sort) > "$packages/files.txt"
  suffix=; [ "$arch" = x86_64 ] && suffix=-x64
  list_setup "$packages/Broom-Setup-$version$suffix.exe" > "$packages/setup-files.txt"
  list_msi "$packages/Broom-$version$suffix.msi" > "$packages/msi-files.txt"
  list_zip "$packages/Broom-$version$suffix-portable.zip" > "$packages/zip-files.txt"
  for kind in setup msi zip; do
    diff -u "$packages/files.txt" "$packages/$kind-files.txt" >&2 \
      || fail "the $kind package of $arch does not hold the program folder's files (above: - missing, + extra)"
  done
  # grep -q would stop reading at the first match and, under pipefail, fail
  # the check whenever unzip was still writing the rest of the list.
  unzip -Z1 "$packages/Broom-$version$suffix-portable.zip" | grep -x Broom/portable.txt >/dev/null \
    || fail "the portable zip of $arch has no portable.txt"
  echo "  each holds the $(wc -l < "$packages/files.txt") files of $app"
done

# The product and the tested build ship the same files; only the name of
# GCC's runtime DLL differs (DWARF unwinding for i686, SEH for x86_64).
if [ -f "$out/packages/i686/files.txt" ] && [ -f "$out/packages/x86_64/files.txt" ] \
   && [[ " ${arches[*]} " == *" i686 "* ]] && [[ " ${arches[*]} " == *" x86_64 "* ]]; then
  norm() { sed -e 's/^libgcc_s_dw2-1\.dll$/libgcc_s.dll/' -e 's/^libgcc_s_seh-1\.dll$/libgcc_s.dll/' "$1"; }
  diff -u <(norm "$out/packages/x86_64/files.txt") <(norm "$out/packages/i686/files.txt") >&2 \
    || fail "the i686 packages do not hold the files of the x86_64 ones (above: - x86_64 only, + i686 only)"
  echo "package: the i686 and x86_64 packages hold the same $(wc -l < "$out/packages/i686/files.txt") files"
fi
