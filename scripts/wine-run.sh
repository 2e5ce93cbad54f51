#!/bin/sh
# Runs a Windows program under Wine with the build folder's private prefix.
#   wine-run.sh [--capture] WINE PREFIX PROGRAM [ARGS...]
#   wine-run.sh WINE PREFIX --stop-server WINESERVER
#
# --capture (used by ctest): the program writes to a file that is printed once
# it has ended. The Wine server and the system processes it starts keep the
# standard handles of whichever program started them, and they outlive it;
# writing straight to ctest's pipe would hold that test open until the
# server ends.
capture=
if [ "$1" = "--capture" ]; then capture=1; shift; fi
wine=$1; prefix=$2; shift 2
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY
if [ "$1" = "--stop-server" ]; then
  "$2" -k 2>/dev/null
  exit 0
fi
if [ "$1" = "wineboot" ] && [ -f "$prefix/system.reg" ]; then
  exit 0   # already made
fi
if [ -z "$capture" ]; then
  exec "$wine" "$@"
fi
out=$(mktemp "${TMPDIR:-/tmp}/broom-wine.XXXXXX") || exit 1
trap 'rm -f "$out"' EXIT
trap 'exit 130' INT TERM
status=0
"$wine" "$@" </dev/null >"$out" 2>&1 || status=$?
cat "$out"
exit $status
