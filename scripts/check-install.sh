#!/usr/bin/env bash
# Installs the x86_64 packages that scripts/package.sh made under Wine, in a
# prefix of their own (HOME and XDG_DATA_HOME too), and checks what lands on
# the disk and in the registry:
#   1. the setup for the current user (/S /PATH) of an older build (the same
#      programs as version 0.0.1 with a definition file more), then this
#      version over it (/S): every file, nothing left of the older one, the
#      shortcut, the uninstall entry in HKCU with its values, the PATH kept,
#      broom.exe --version; its uninstaller (/S) removes the files, the
#      shortcut, the entry and the PATH entry and leaves the data folder with
#      a quarantine in it;
#   2. the setup for every user (/S /ALLUSERS): Program Files, HKLM, the
#      common Start menu; the MSI refuses to install beside it; its
#      uninstaller, run as QuietUninstallString says, removes it;
#   3. the MSI: the older one, then this one over it (msiexec /i /qn), the
#      setup for every user refusing to install beside it, then msiexec /x /qn;
#   4. the portable zip unpacked into a folder: portable.txt beside broom.exe,
#      its data written into Data beside it and none into %LOCALAPPDATA%\Broom.
# The installed and the portable broom.exe list the shipped winapp2 items
# without being told (and not with --no-winapp2).
# It takes about two minutes, most of it for Wine to make the prefix.
#   scripts/check-install.sh     (after scripts/package.sh x86_64)
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${BROOM_BUILD_DIR:-$here/build/x86_64}
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
publisher=$(sed -n 's/^BROOM_PUBLISHER:INTERNAL=//p' "$build/CMakeCache.txt")
packages=$here/build/packages/x86_64
app=$here/build/package/app-x86_64
setup=$packages/Broom-Setup-$version-x64.exe
msi=$packages/Broom-$version-x64.msi
portable=$packages/Broom-$version-x64-portable.zip
old_version=0.0.1

fail() { echo "check-install: FAILED: $*" >&2; exit 1; }
step() { echo "check-install: [${SECONDS}s] $*"; }
for f in "$setup" "$msi" "$portable" "$app/broom.exe"; do
  [ -e "$f" ] || fail "$f is missing: run scripts/package.sh x86_64 first"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/broom-install.XXXXXX")
export WINEPREFIX=$work/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
export HOME=$work/home XDG_DATA_HOME=$work/home/.local/share XDG_CONFIG_HOME=$work/home/.config
unset DISPLAY WAYLAND_DISPLAY
mkdir -p "$HOME"
cleanup() { "$wineserver" -k 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT

# Runs a Windows program and waits until every process it started has ended
# (uninstallers go on in a copy of themselves, msiexec in its service): the
# server ends with the last of them and writes the registry to the prefix.
# Sets $status and $output.
# A program that hangs (a question a silent run should never ask) fails the
# check instead of holding it up.
win() {
  status=0
  timeout 300 "$wine" "$@" </dev/null >"$work/out" 2>&1 || status=$?
  timeout 120 "$wineserver" -w || fail "$* left Windows processes running"
  output=$(tr -d '\r' < "$work/out")
  [ $status != 124 ] || fail "$* did not end within 300 s"
}
# Runs it and fails unless it exits with 0.
win_ok() { win "$@"; [ $status -eq 0 ] || fail "$* exited with $status: $output"; }

# reg_value FILE KEY NAME: a value from the prefix's user.reg (HKCU) or
# system.reg (HKLM), strings unescaped, dwords in decimal; nothing when absent.
reg_value() {
  local v
  v=$(KEY=${2//\\/\\\\} NAME=$3 awk '
    BEGIN { key = "[" tolower(ENVIRON["KEY"]) "]"; name = "\"" tolower(ENVIRON["NAME"]) "\"=" }
    /^\[/ { inside = tolower(substr($0, 1, length(key))) == key && substr($0, length(key) + 1, 1) ~ /^( |$)/; next }
    inside && index(tolower($0), name) == 1 {
      v = substr($0, length(name) + 1)
      if (v ~ /^dword:/) { print v; exit }
      sub(/^str\([0-9]+\):/, "", v)
      v = substr(v, 2, length(v) - 2)
      gsub(/\\\\/, "\001", v); gsub(/\\"/, "\"", v); gsub(/\001/, "\\", v)
      print v; exit
    }' "$1")
  case "$v" in
    dword:*) echo $((16#${v#dword:})) ;;
    *) printf '%s\n' "$v" ;;
  esac
}
reg_has_key() { KEY=${2//\\/\\\\} awk 'BEGIN { key = "[" tolower(ENVIRON["KEY"]) "]" }
                  tolower(substr($0, 1, length(key))) == key && substr($0, length(key) + 1, 1) ~ /^( |$)/ { found = 1 }
                  END { exit !found }' "$1"; }
uninst='Software\Microsoft\Windows\CurrentVersion\Uninstall\Broom'
user_reg=$WINEPREFIX/user.reg
system_reg=$WINEPREFIX/system.reg

# expect_files DIR FOLDER [EXTRA...]: DIR holds exactly FOLDER's files, byte
# for byte, and the EXTRA ones.
expect_files() {
  local dir=$1 from=$2 f
  shift 2
  diff -u <( (cd "$from" && find . -type f | sed 's|^\./||'; [ $# = 0 ] || printf '%s\n' "$@") | LC_ALL=C sort) \
          <(cd "$dir" && find . -type f | sed 's|^\./||' | LC_ALL=C sort) >&2 \
    || fail "$dir does not hold the program folder's files (above: - missing, + extra)"
  while IFS= read -r f; do
    cmp -s "$from/$f" "$dir/$f" || fail "$dir/$f differs from the package's"
  done < <(cd "$from" && find . -type f | sed 's|^\./||')
}
# expect_entry FILE DIR_WINDOWS VERSION: the setup's uninstall entry.
expect_entry() {
  local reg=$1 dir=$2 want=$3 name value expected
  for name in DisplayName DisplayVersion Publisher DisplayIcon InstallLocation UninstallString \
              QuietUninstallString NoModify NoRepair; do
    case $name in
      DisplayName) expected=Broom ;;
      DisplayVersion) expected=$want ;;
      Publisher) expected=$publisher ;;
      DisplayIcon) expected="$dir\\broomw.exe,0" ;;
      InstallLocation) expected=$dir ;;
      UninstallString) expected="\"$dir\\uninstall.exe\"" ;;
      QuietUninstallString) expected="\"$dir\\uninstall.exe\" /S" ;;
      NoModify|NoRepair) expected=1 ;;
    esac
    value=$(reg_value "$reg" "$uninst" $name)
    [ "$value" = "$expected" ] || fail "the uninstall entry's $name is '$value', not '$expected'"
  done
  value=$(reg_value "$reg" "$uninst" EstimatedSize)
  [ "${value:-0}" -gt 1000 ] || fail "the uninstall entry's EstimatedSize is '$value' KB"
}
expect_version() {
  win "$1/broom.exe" --version
  [ $status -eq 0 ] && [ "$output" = "broom $version" ] \
    || fail "the installed broom.exe --version said '$output' (exit $status), not 'broom $version'"
}
expect_shortcut() {
  [ -f "$1/Broom.lnk" ] || fail "no shortcut Broom.lnk in $1"
  grep -qa 'broomw\.exe' "$1/Broom.lnk" || fail "$1/Broom.lnk does not point at broomw.exe"
}
# The installed broom.exe loads the shipped winapp2.ini without being told,
# and leaves it out with --no-winapp2.
expect_winapp2() {
  win "$1/broom.exe" list
  [ $status -eq 0 ] || fail "the installed broom.exe list exited with $status: $output"
  grep -qx 'winapp2' <<<"$output" || fail "the installed broom.exe list shows no winapp2 group: $(tail -n 3 <<<"$output")"
  win "$1/broom.exe" --no-winapp2 list
  [ $status -eq 0 ] && ! grep -qx 'winapp2' <<<"$output" || fail "broom.exe --no-winapp2 list still shows the winapp2 group"
}
path_has() { tr ';' '\n' <<<"$1" | grep -cixF "$2" || true; }

step "making a Wine prefix of its own in $WINEPREFIX"
win_ok wineboot --init
users=$WINEPREFIX/drive_c/users
user=$(cd "$users" && ls | grep -vx Public | head -n1)
[ -n "$user" ] || fail "the new prefix has no user profile"
profile=$users/$user
profile_win="C:\\users\\$user"
local_data=$profile/AppData/Local
user_programs="$profile/AppData/Roaming/Microsoft/Windows/Start Menu/Programs"
common_programs="$WINEPREFIX/drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs"
program_files="$WINEPREFIX/drive_c/Program Files"

step "making the older build ($old_version, with a definition file this one has not)"
cp -a "$app" "$work/old-app"
echo '<ConfigItems/>' > "$work/old-app/defs/retired.xml"
"$here/scripts/make-packages.sh" --arch x86_64 --version $old_version --publisher "$publisher" \
  --icon "$build/generated/broom.ico" --out "$work/old" "$work/old-app" >/dev/null

step "setup for the current user: $old_version with /PATH, then $version over it"
dir=$local_data/Programs/Broom
dir_win="$profile_win\\AppData\\Local\\Programs\\Broom"
win_ok "$work/old/Broom-Setup-$old_version-x64.exe" /S /PATH
expect_files "$dir" "$work/old-app" uninstall.exe
expect_entry "$user_reg" "$dir_win" $old_version
[ "$(path_has "$(reg_value "$user_reg" Environment Path)" "$dir_win")" = 1 ] || fail "/PATH did not put $dir_win on the user's PATH"
win_ok "$setup" /S
expect_files "$dir" "$app" uninstall.exe
expect_entry "$user_reg" "$dir_win" "$version"
expect_shortcut "$user_programs"
! reg_has_key "$system_reg" "$uninst" || fail "a setup for the current user wrote the machine's uninstall entry"
[ "$(path_has "$(reg_value "$user_reg" Environment Path)" "$dir_win")" = 1 ] \
  || fail "the upgrade did not keep $dir_win on the user's PATH once"
expect_version "$dir"
expect_winapp2 "$dir"

step "its uninstaller keeps the user's data"
mkdir -p "$local_data/Broom/Quarantine/20240101-120000" "$local_data/Broom/Logs"
echo "the only copy" > "$local_data/Broom/Quarantine/20240101-120000/report.docx"
echo 'C:\keep' > "$local_data/Broom/whitelist.txt"
win_ok "$dir/uninstall.exe" /S
[ ! -e "$dir" ] || fail "the uninstaller left $dir: $(cd "$dir" && find . | head)"
[ ! -e "$user_programs/Broom.lnk" ] || fail "the uninstaller left the shortcut"
! reg_has_key "$user_reg" "$uninst" || fail "the uninstaller left its entry in HKCU"
[ "$(path_has "$(reg_value "$user_reg" Environment Path)" "$dir_win")" = 0 ] || fail "the uninstaller left $dir_win on the PATH"
[ "$(cat "$local_data/Broom/Quarantine/20240101-120000/report.docx")" = "the only copy" ] \
  || fail "the uninstaller touched the quarantine"
[ -f "$local_data/Broom/whitelist.txt" ] || fail "the uninstaller removed whitelist.txt"

step "setup for every user (/S /ALLUSERS)"
dir=$program_files/Broom
dir_win='C:\Program Files\Broom'
win_ok "$setup" /S /ALLUSERS
expect_files "$dir" "$app" uninstall.exe
expect_entry "$system_reg" "$dir_win" "$version"
! reg_has_key "$user_reg" "$uninst" || fail "a setup for every user wrote the user's uninstall entry"
expect_shortcut "$common_programs"
expect_version "$dir"
win msiexec /i "$msi" /qn
[ $status -ne 0 ] || fail "the MSI installed over the setup's installation for every user"
expect_files "$dir" "$app" uninstall.exe
win_ok "$dir/uninstall.exe" /S
[ ! -e "$dir" ] || fail "the uninstaller for every user left $dir"
[ ! -e "$common_programs/Broom.lnk" ] || fail "the uninstaller for every user left the shortcut"
! reg_has_key "$system_reg" "$uninst" || fail "the uninstaller for every user left its entry"

step "MSI: $old_version, then $version over it, then msiexec /x"
win_ok msiexec /i "$work/old/Broom-$old_version-x64.msi" /qn
expect_files "$dir" "$work/old-app"
win_ok msiexec /i "$msi" /qn
expect_files "$dir" "$app"
# Windows Installer resolves ProgramMenuFolder to the common Start menu when
# ALLUSERS is 1, as this MSI sets it; Wine's resolves it to the user's.
if [ -f "$common_programs/Broom.lnk" ]; then expect_shortcut "$common_programs"; else expect_shortcut "$user_programs"; fi
expect_version "$dir"
win "$setup" /S /ALLUSERS
[ $status = 2 ] || fail "the setup for every user exited with $status beside the MSI, not 2"
! reg_has_key "$system_reg" "$uninst" || fail "the setup for every user installed beside the MSI"
codes=$(grep -o '^\[Software\\\\Microsoft\\\\Windows\\\\CurrentVersion\\\\Uninstall\\\\{[0-9A-Fa-f-]*}\]' "$system_reg" | sed 's/.*\\\\{/{/; s/\]$//')
entries=0
for code in $codes; do
  key="Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\$code"
  [ "$(reg_value "$system_reg" "$key" DisplayName)" = Broom ] || continue
  entries=$((entries + 1))
  [ "$(reg_value "$system_reg" "$key" DisplayVersion)" = "$version" ] || fail "the MSI's entry $code says version $(reg_value "$system_reg" "$key" DisplayVersion)"
  [ "$(reg_value "$system_reg" "$key" Publisher)" = "$publisher" ] || fail "the MSI's entry names another publisher"
done
[ $entries = 1 ] || fail "$entries Add/Remove entries named Broom after the MSI upgrade, not 1"
win_ok msiexec /x "$msi" /qn
[ ! -e "$dir" ] || fail "msiexec /x left $dir: $(cd "$dir" && find . | head)"
[ ! -e "$common_programs/Broom.lnk" ] && [ ! -e "$user_programs/Broom.lnk" ] || fail "msiexec /x left the shortcut"
for code in $codes; do
  ! reg_has_key "$system_reg" "Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\$code" \
    || [ "$(reg_value "$system_reg" "Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\$code" DisplayName)" != Broom ] \
    || fail "msiexec /x left the entry $code"
done

step "portable zip unpacked into a folder"
mkdir -p "$work/usb"
(cd "$work/usb" && unzip -q "$portable")
[ -f "$work/usb/Broom/portable.txt" ] && [ ! -s "$work/usb/Broom/portable.txt" ] || fail "no empty portable.txt in the zip's Broom folder"
expect_files "$work/usb/Broom" "$app" portable.txt
expect_version "$work/usb/Broom"
# its data goes into Data beside the programs, none into the user's data folder
rm -rf "$local_data/Broom"
win "$work/usb/Broom/broom.exe" protect 'C:\portable-check'
[ $status -eq 0 ] || fail "the portable broom.exe protect exited with $status: $output"
grep -q 'PORTABLE-CHECK' "$work/usb/Broom/Data/whitelist.txt" 2>/dev/null \
  || fail "the portable broom.exe did not write Data\\whitelist.txt beside itself"
[ -d "$work/usb/Broom/Data/Logs" ] || fail "the portable broom.exe made no Data\\Logs"
[ ! -e "$local_data/Broom" ] || fail "the portable broom.exe wrote into %LOCALAPPDATA%\\Broom: $(cd "$local_data/Broom" && find . | head)"
expect_winapp2 "$work/usb/Broom"
step "passed"
