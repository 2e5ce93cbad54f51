#!/usr/bin/env bash
# Installs what building and testing Broom needs on a Debian machine, as root.
# Does nothing for what is already there. Usage: scripts/setup.sh [BUILD_DIR]
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
third=$build/third_party
mkdir -p "$third"

sudo_() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

# The last line draws the icon and makes the packages (scripts/package.sh):
# NSIS, wixl and msitools, and 7-Zip and unzip to list what they hold.
packages=(g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix wine64 cmake ninja-build
          googletest dpkg-dev libcli11-dev nlohmann-json3-dev zip xvfb
          librsvg2-bin icoutils nsis wixl msitools p7zip-full unzip)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

# pugixml comes from its source package, so apt needs a deb-src entry. It is
# derived from the machine's own deb entries rather than naming a mirror here.
src_list=/etc/apt/sources.list.d/broom-deb-src.sources
src_list_classic=/etc/apt/sources.list.d/broom-deb-src.list
need_src=0
if ! ls "$third"/pugixml-*/src/pugixml.cpp >/dev/null 2>&1; then need_src=1; fi
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

if [ $need_src = 1 ]; then
  echo "setup: fetching pugixml sources"
  (cd "$third" && apt-get source -qq pugixml >/dev/null 2>&1)
  ls "$third"/pugixml-*/src/pugixml.cpp >/dev/null
fi
echo "setup: ready"
