#!/usr/bin/env bash
# Installs what building and testing Broom needs on a Debian machine, as root.
# Does nothing for what is already there. Usage: scripts/setup.sh [BUILD_DIR]
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
third=$build/third_party
mkdir -p "$third"

sudo_() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

# The packages line draws the icon and makes the packages (scripts/package.sh):
# NSIS, wixl and msitools, and 7-Zip and unzip to list what they hold; tcl,
# gcc, make and libc6-dev run SQLite's own tools that make its amalgamation.
packages=(g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix wine64 cmake ninja-build
          googletest dpkg-dev libcli11-dev nlohmann-json3-dev zip xvfb
          librsvg2-bin icoutils nsis wixl msitools p7zip-full unzip tcl gcc make libc6-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

# pugixml and SQLite come from their source packages, so apt needs a deb-src
# entry. It is derived from the machine's own deb entries rather than naming a
# mirror here.
src_list=/etc/apt/sources.list.d/broom-deb-src.sources
src_list_classic=/etc/apt/sources.list.d/broom-deb-src.list
need_pugixml=0 need_sqlite=0
ls "$third"/pugixml-*/src/pugixml.cpp >/dev/null 2>&1 || need_pugixml=1
ls "$third"/sqlite3-*/amalgamation/sqlite3.c >/dev/null 2>&1 || need_sqlite=1
need_src=$(( need_pugixml | need_sqlite ))
if [ $need_src = 1 ] && [ ! -f "$src_list" ] && [ ! -f "$src_list_classic" ] \
   && ! grep -rqsE '^\s*(deb-src|Types:.*deb-src)' /etc/apt/sources.list /etc/apt/sources.list.d/; then
  tmp=$(mktemp)
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    # deb822 stanzas: keep those of type deb that serve Debian's archive keyring
    awk 'BEGIN{RS="";ORS="\n\n"} /Types:[^\n]*deb/ && /debian-archive-keyring/ {sub(/Types:[^\n]*/,"Types: deb-src"); print}' "$f" >> "$tmp"
  done
  if [ -s "$tmp" ]; then
    sudo_ install -m 644 "$tmp" "$src_list"
  else
    grep -hE '^\s*deb\s' /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null \
      | sed -E 's/^\s*deb\s/deb-src /' > "$tmp" || true
    [ -s "$tmp" ] && sudo_ install -m 644 "$tmp" "$src_list_classic"
  fi
  rm -f "$tmp"
  updated=0
fi

if [ ${#missing[@]} -gt 0 ] || [ $need_src = 1 ]; then
  export DEBIAN_FRONTEND=noninteractive
  sudo_ apt-get update -qq
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_ apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [ $need_pugixml = 1 ]; then
  echo "setup: fetching pugixml sources"
  (cd "$third" && apt-get source -qq pugixml >/dev/null 2>&1)
  ls "$third"/pugixml-*/src/pugixml.cpp >/dev/null
fi

# SQLite's amalgamation (sqlite3.c, sqlite3.h) is made by the source package's
# own configure and tools, with the Debian patches applied; CMake cross-builds it.
if [ $need_sqlite = 1 ]; then
  echo "setup: fetching SQLite sources and making the amalgamation"
  ls -d "$third"/sqlite3-*/ >/dev/null 2>&1 || (cd "$third" && apt-get source -qq sqlite3 >/dev/null 2>&1)
  src=$(ls -d "$third"/sqlite3-[0-9]*/ | head -n 1)
  rm -rf "$src/amalgamation" "$src/amalgamation.tmp"
  mkdir "$src/amalgamation.tmp"
  (cd "$src/amalgamation.tmp" && ../configure --disable-tcl --disable-readline >configure.log 2>&1 \
     && make sqlite3.c >make.log 2>&1) \
    || { echo "setup: making the SQLite amalgamation failed; see $src/amalgamation.tmp" >&2; exit 1; }
  mkdir "$src/amalgamation"
  cp "$src/amalgamation.tmp/sqlite3.c" "$src/amalgamation.tmp/sqlite3.h" "$src/amalgamation/"
  rm -rf "$src/amalgamation.tmp"
fi
echo "setup: ready"
