#!/bin/sh
# Runs a Windows program under Wine with the build folder's private prefix.
#   wine-run.sh [--capture] WINE PREFIX PROGRAM [ARGS...]
#   wine-run.sh [--capture] WINE PREFIX --start-server WINESERVER
#   wine-run.sh WINE PREFIX --stop-server WINESERVER
#
# --capture (used by ctest): the program writes to a file that is printed once
# it has ended. The Wine server and the system processes it starts keep the
# standard handles of whichever program started them, and they outlive it;
# writing straight to ctest's pipe would hold that test open until the
# server ends.
#
# --start-server makes the prefix if it is missing or incomplete and then
# starts a server that stays up between programs (see start_server).
capture=
if [ "$1" = "--capture" ]; then capture=1; shift; fi
wine=$1; prefix=$2; shift 2
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY

out=
if [ -n "$capture" ]; then
  out=$(mktemp "${TMPDIR:-/tmp}/broom-wine.XXXXXX") || exit 1
  trap 'rm -f "$out"' EXIT
  trap 'echo "wine-run.sh: stopped by a signal" >&2; exit 130' INT TERM
fi

# Runs a command with its output captured or not, as asked.
#
# Every program the tests run prints something, so one that fails within a
# second having printed nothing most likely never ran under Wine (once on
# CI, a program ended after 0.01 s with nothing to show). Such a start is
# reported and made once more; a program that fails that way twice fails.
run() {
  if [ -z "$capture" ]; then
    "$@" </dev/null
    return
  fi
  for attempt in 1 2; do
    status=0
    started=$(cut -d' ' -f1 /proc/uptime)
    "$@" </dev/null >"$out" 2>&1 || status=$?
    cat "$out"
    if [ $status -eq 0 ] || [ -s "$out" ]; then
      return $status
    fi
    took=$(awk -v from="$started" '{ printf "%.2f", $1 - from }' /proc/uptime)
    echo "wine-run.sh: $* ended with status $status after $took s and printed nothing" >&2
    df -h "${TMPDIR:-/tmp}" "$prefix" >&2 2>/dev/null
    if [ $attempt -eq 2 ] || ! awk -v t="$took" 'BEGIN { exit !(t < 1) }'; then
      return $status
    fi
    echo "wine-run.sh: too soon for Wine to have run it; starting it once more" >&2
  done
}

# A prefix is complete once its registry is on disk: the server writes it
# only when it ends.
complete() { grep -q '"windir"' "$prefix/system.reg" 2>/dev/null; }

# Makes the prefix and starts its server.
#
# The server keeps the registry in memory and writes it to the prefix when it
# ends, and Debian's server ends as soon as its last program has. Waiting for
# the first server of a new prefix to end puts the registry on disk before any
# test starts: a server that is started later (after a crash, say) reads a
# complete registry instead of an empty one, where programs run without
# WINDIR, HKCR or fixed drives. One server that stays up for 60 s after its
# last program then serves the whole run instead of stopping and starting
# again between two tests.
start_server() {
  wineserver=$1
  "$wineserver" -k 2>/dev/null   # one left by an earlier run
  "$wineserver" -w
  if ! complete; then
    case "$prefix" in
      */wineprefix) rm -rf "$prefix" ;;
    esac
    run "$wine" wineboot --init || return 1
    "$wineserver" -w
    if ! complete; then
      echo "wine-run.sh: wineboot left $prefix without a registry" >&2
      return 1
    fi
  fi
  "$wineserver" -p60 </dev/null >/dev/null 2>&1
}

case "$1" in
  --stop-server)
    "$2" -k 2>/dev/null
    exit 0 ;;
  --start-server)
    start_server "$2"
    exit $? ;;
esac

if [ -z "$capture" ]; then
  exec "$wine" "$@"
fi
run "$wine" "$@"
