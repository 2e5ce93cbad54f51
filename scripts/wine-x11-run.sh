#!/bin/sh
# Runs a program that drives windows under Wine on a virtual X display.
#   wine-x11-run.sh [--gtest] WINE PREFIX PROGRAM [ARGS...]
#
# Starts Xvfb on a free display, runs the program with DISPLAY set and the
# build folder's private prefix, prints its output once it has ended (as
# wine-run.sh --capture does) and stops that Xvfb.
#
# The other tests run headless against the same Wine server, whose default
# desktop then has no display. The program therefore runs in a Wine desktop
# of its own ("broom-x11", 1280x1024, a window on the X display in which
# Wine draws every frame), started here with DISPLAY set; the processes it
# starts share it. That desktop's explorer does not pass the program's exit
# code on; with --gtest (a test program) the run passes when GoogleTest's
# summary says so.
gtest=
if [ "$1" = "--gtest" ]; then gtest=1; shift; fi
wine=$1; prefix=$2; shift 2
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset WAYLAND_DISPLAY

out=$(mktemp "${TMPDIR:-/tmp}/broom-x11.XXXXXX") || exit 1
fd=$(mktemp "${TMPDIR:-/tmp}/broom-x11-display.XXXXXX") || exit 1
xvfb=
cleanup() {
  if [ -n "$xvfb" ]; then kill "$xvfb" 2>/dev/null; wait "$xvfb" 2>/dev/null; fi
  rm -f "$out" "$fd"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# -displayfd lets Xvfb pick a free display and say which one it took.
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3>"$fd" >/dev/null 2>&1 &
xvfb=$!
n=0
while [ ! -s "$fd" ]; do
  n=$((n + 1))
  if [ $n -gt 100 ] || ! kill -0 "$xvfb" 2>/dev/null; then
    echo "wine-x11-run.sh: Xvfb did not start (is the xvfb package installed? run scripts/setup.sh)" >&2
    exit 1
  fi
  sleep 0.1
done
export DISPLAY=":$(head -n1 "$fd" | tr -d ' \n')"

"$wine" explorer "/desktop=broom-x11,1280x1024" "$@" </dev/null >"$out" 2>&1
grep -v '^X connection to .* broken' "$out"
[ -z "$gtest" ] || { grep -q '^\[  PASSED  \]' "$out" && ! grep -q '^\[  FAILED  \]' "$out"; }
