#!/bin/sh
# Runs a Windows program under Wine with the build folder's private prefix.
#   wine-run.sh WINE PREFIX PROGRAM [ARGS...]
#   wine-run.sh WINE PREFIX --stop-server WINESERVER
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
exec "$wine" "$@"
