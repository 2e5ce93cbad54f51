#!/bin/sh
# Runs a program that needs windows to exist, though nobody sees them, under
# Wine without an X server.
#   wine-null-run.sh [--gtest] WINE PREFIX PROGRAM [ARGS...]
#
# The headless tests share Wine's default desktop, which has no display
# driver at all: no window can be created there. This program runs in a Wine
# desktop of its own ("broom-null-PID") whose explorer is told on its command
# line to use Wine's null display driver, so windows exist, are visible to
# EnumWindows and get their messages; the processes the program starts share
# that desktop. Nothing in the prefix changes (no registry setting), so the
# default desktop and the window tests' X11 desktop are as before. The
# desktop and its explorer end once its last program has ended.
#
# As with wine-x11-run.sh, that explorer does not pass the program's exit
# code on: the output is printed once the program has ended, and with
# --gtest (a test program) the run passes when GoogleTest's summary says so.
gtest=
if [ "$1" = "--gtest" ]; then gtest=1; shift; fi
wine=$1; prefix=$2; shift 2
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY

out=$(mktemp "${TMPDIR:-/tmp}/broom-null.XXXXXX") || exit 1
trap 'rm -f "$out"' EXIT
trap 'exit 130' INT TERM

"$wine" explorer "/desktop=broom-null-$$,640x480,null" "$@" </dev/null >"$out" 2>&1
cat "$out"
[ -z "$gtest" ] || { grep -q '^\[  PASSED  \]' "$out" && ! grep -q '^\[  FAILED  \]' "$out"; }
