#!/usr/bin/env bash
# Builds the three packages for people from a program folder (what
# scripts/package.sh assembles: the programs, their DLLs, defs\, winapp2\,
# the notices):
#   make-packages.sh --arch i686|x86_64 --version V --publisher P --icon ICO --out DIR APPDIR
# and writes, in DIR:
#   Broom-Setup-V.exe        NSIS setup (x86-unicode; amd64-unicode for x86_64)
#   Broom-V.msi              per-machine MSI (wixl, x86; x64 for x86_64)
#   Broom-V-portable.zip     the folder Broom\ with portable.txt beside broom.exe
# The x86_64 packages carry "-x64" after the version: they exist for the
# install tests, since only 64-bit Wine runs here; the product is i686.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)

arch= version= publisher= icon= out=
while [ $# -gt 1 ]; do
  case "$1" in
    --arch) arch=$2 ;;
    --version) version=$2 ;;
    --publisher) publisher=$2 ;;
    --icon) icon=$2 ;;
    --out) out=$2 ;;
    *) echo "make-packages: unknown option $1" >&2; exit 2 ;;
  esac
  shift 2
done
app=${1:-}
if [ -z "$arch" ] || [ -z "$version" ] || [ -z "$publisher" ] || [ -z "$icon" ] || [ -z "$out" ] || [ ! -d "$app" ]; then
  sed -n '2,12p' "$0" >&2
  exit 2
fi
app=$(cd "$app" && pwd)
icon=$(cd "$(dirname "$icon")" && pwd)/$(basename "$icon")
mkdir -p "$out"
out=$(cd "$out" && pwd)
for f in broom.exe broomw.exe broomcore.dll; do
  [ -f "$app/$f" ] || { echo "make-packages: $app holds no $f" >&2; exit 1; }
done

# Fixed for good: Windows Installer tells a newer MSI of the same product
# line by it. Each architecture is a product line of its own.
case "$arch" in
  i686)   nsis_target=x86-unicode;   wixl_arch=x86; win64=no;  program_files=ProgramFilesFolder;   suffix=;     upgrade_code=6F4B1B8E-2D57-4C39-9E0A-35C1A2B7D410 ;;
  x86_64) nsis_target=amd64-unicode; wixl_arch=x64; win64=yes; program_files=ProgramFiles64Folder; suffix=-x64; upgrade_code=B3E0C7A4-58F1-4F2D-8C6B-9A1D04E7F322 ;;
  *) echo "make-packages: --arch is i686 or x86_64" >&2; exit 2 ;;
esac
case "$version" in
  [0-9]*.[0-9]*.[0-9]*) ;;
  *) echo "make-packages: --version is MAJOR.MINOR.PATCH" >&2; exit 2 ;;
esac

work=$(mktemp -d "${TMPDIR:-/tmp}/broom-packages.XXXXXX")
trap 'rm -rf "$work"' EXIT

# The program folder's files and folders, relative, in a fixed order.
(cd "$app" && find . -type f | sed 's|^\./||' | LC_ALL=C sort) > "$work/files"
(cd "$app" && find . -mindepth 1 -type d | sed 's|^\./||' | LC_ALL=C sort) > "$work/dirs"
win() { printf '%s' "${1//\//\\}"; }
size_kb=$(cd "$app" && find . -type f -printf '%s\n' | awk '{ s += $1 } END { printf "%d", (s + 1023) / 1024 }')

# NSIS: File commands folder by folder, and for the uninstaller a Delete for
# each of those files and an RMDir for each folder, deepest first.
{
  current=
  while IFS= read -r f; do
    dir=$(dirname "$f")
    [ "$dir" = . ] && dir=
    if [ "$dir" != "$current" ]; then
      if [ -n "$dir" ]; then echo "SetOutPath \"\$INSTDIR\\$(win "$dir")\""; else echo 'SetOutPath "$INSTDIR"'; fi
      current=$dir
    fi
    echo "File \"$app/$f\""
  done < <(awk -F/ '{ print NF "\t" $0 }' "$work/files" | sort -t$'\t' -k1,1n -k2 | cut -f2)
} > "$work/files.nsh"
{
  while IFS= read -r f; do echo "Delete \"\$INSTDIR\\$(win "$f")\""; done < "$work/files"
  sort -r "$work/dirs" | while IFS= read -r d; do echo "RMDir \"\$INSTDIR\\$(win "$d")\""; done
} > "$work/unfiles.nsh"

setup=$out/Broom-Setup-$version$suffix.exe
rm -f "$setup"
makensis -V2 -NOCD \
  "-DVERSION=$version" "-DPUBLISHER=$publisher" "-DTARGET=$nsis_target" "-DICON=$icon" \
  "-DOUTFILE=$setup" "-DSIZE_KB=$size_kb" "-DFILES=$work/files.nsh" "-DUNFILES=$work/unfiles.nsh" \
  "-DMSI_UPGRADE_CODE={$upgrade_code}" \
  "$here/packaging/broom.nsi" > "$work/makensis.log" 2>&1 \
  || { cat "$work/makensis.log" >&2; echo "make-packages: makensis failed" >&2; exit 1; }

# WiX: a component per file (its GUID derived from its path by wixl), in
# Directory elements that nest as the folders do, all in one group.
xml() { sed -e 's/&/\&amp;/g' -e 's/</\&lt;/g' -e 's/>/\&gt;/g' -e 's/"/\&quot;/g' <<<"$1"; }
ident() { printf '%s' "$1" | tr -c 'A-Za-z0-9_.\n' '_'; }
emit_dir() {   # emit_dir RELATIVE_DIR INDENT: the components of one folder, then its subfolders
  local dir=$1 pad=$2 f sub name
  while IFS= read -r f; do
    [ "$(dirname "$f")" = "${dir:-.}" ] || continue
    name=$(basename "$f")
    echo "$pad<Component Id=\"c_$(ident "$f")\" Guid=\"*\" Win64=\"$win64\">"
    echo "$pad  <File Id=\"f_$(ident "$f")\" Name=\"$(xml "$name")\" Source=\"$(xml "app/$f")\" KeyPath=\"yes\">"
    if [ "$f" = broomw.exe ]; then
      echo "$pad    <Shortcut Id=\"StartMenuShortcut\" Directory=\"ProgramMenuFolder\" Name=\"Broom\" Description=\"Clean up files and registry entries programs leave behind\" WorkingDirectory=\"INSTALLDIR\" Icon=\"broom.ico\" Advertise=\"no\"/>"
    fi
    echo "$pad  </File>"
    echo "$pad</Component>"
    echo "c_$(ident "$f")" >> "$work/components"
  done < "$work/files"
  while IFS= read -r sub; do
    [ "$(dirname "$sub")" = "${dir:-.}" ] || continue
    echo "$pad<Directory Id=\"d_$(ident "$sub")\" Name=\"$(xml "$(basename "$sub")")\">"
    emit_dir "$sub" "$pad  "
    echo "$pad</Directory>"
  done < "$work/dirs"
}
: > "$work/components"
{
  echo '<?xml version="1.0" encoding="utf-8"?>'
  echo '<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">'
  echo '  <Fragment>'
  echo '    <DirectoryRef Id="INSTALLDIR">'
  emit_dir "" "      "
  echo '    </DirectoryRef>'
  echo '    <ComponentGroup Id="ProgramFiles">'
  while IFS= read -r c; do echo "      <ComponentRef Id=\"$c\"/>"; done < "$work/components"
  echo '    </ComponentGroup>'
  echo '  </Fragment>'
  echo '</Wix>'
} > "$work/files.wxs"

# A product code of its own for each version and architecture, derived from
# both, so that building the same version twice gives the same MSI identity.
hash=$(printf 'Broom product code\n%s\n%s\n' "$arch" "$version" | sha1sum | cut -c1-32)
product_code=$(printf '%s-%s-5%s-%x%s-%s' "${hash:0:8}" "${hash:8:4}" "${hash:13:3}" \
  $(( (0x${hash:16:1} & 0x3) | 0x8 )) "${hash:17:3}" "${hash:20:12}" | tr a-f A-F)

# wixl finds sources only relative to the folders of its input files.
ln -s "$app" "$work/app"
ln -s "$icon" "$work/broom.ico"
msi=$out/Broom-$version$suffix.msi
rm -f "$msi"
wixl -a "$wixl_arch" -o "$msi" \
  -D "Version=$version" -D "Publisher=$publisher" -D "ProductCode=$product_code" \
  -D "UpgradeCode=$upgrade_code" -D "ProgramFilesFolder=$program_files" -D "Win64=$win64" -D "Icon=broom.ico" \
  "$here/packaging/broom.wxs" "$work/files.wxs" > "$work/wixl.log" 2>&1 \
  || { cat "$work/wixl.log" >&2; echo "make-packages: wixl failed" >&2; exit 1; }

# Portable: one folder, Broom\, whatever the version, so that a newer zip
# unpacks over an older one and the Data folder beside the programs stays.
zipfile=$out/Broom-$version$suffix-portable.zip
rm -f "$zipfile"
mkdir -p "$work/portable"
cp -a "$app" "$work/portable/Broom"
: > "$work/portable/Broom/portable.txt"
(cd "$work/portable" && find Broom -exec touch -h -d "@${SOURCE_DATE_EPOCH:-$(stat -c %Y "$app/broom.exe")}" {} + \
  && LC_ALL=C find Broom | LC_ALL=C sort | zip -qX9 "$zipfile" -@)

for f in "$setup" "$msi" "$zipfile"; do
  echo "  $(basename "$f"): $(stat -c %s "$f") bytes"
done
