#!/usr/bin/env bash
# broom scan over the benchmark tree (100,000 files in 5,000 folders, one
# definition whose file operation's root is the tree) against the bare
# FindFirstFileW walk of the same tree, each run as a whole process under
# Wine. Prints wall time and peak memory (maximum resident set) of every run,
# the medians, and the ratios to the bare walk's median of the same run.
#   scripts/bench-scan.sh [ROUNDS]     (default 5)
set -euo pipefail
source "$(dirname "$0")/common.sh"
rounds=${1:-5}
build=${BROOM_BENCH_DIR:-$here/build/bench-x86_64}
configure x86_64 "$build" -DCMAKE_BUILD_TYPE=Release -DBROOM_TESTS=OFF >/dev/null
cmake --build "$build" >/dev/null
if [ ! -x /usr/bin/time ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends time >/dev/null
fi

runner=("$here/scripts/wine-run.sh" "$wine" "$build/wineprefix")
run() { "${runner[@]}" "$@"; }
run --start-server "$wineserver" >/dev/null

tree=$build/bench-tree
wtree="Z:${tree//\//\\}"
defs=$build/bench-defs
mkdir -p "$defs"
cat > "$defs/tree.xml" <<EOF
<?xml version="1.0" encoding="utf-8"?>
<ConfigItems>
  <group name="Bench" scan="yes" clean="no">
    <item name="Tree" desc="Every file of the benchmark tree"><clean kind="file">$wtree</clean></item>
  </group>
</ConfigItems>
EOF
wdefs="Z:${defs//\//\\}"
run "$build/bin/bench_bare_walk.exe" "$wtree" >/dev/null   # makes the tree, warms the caches

declare -A times mems
measure() {  # name, then the command
  local name=$1; shift
  local stats
  stats=$(mktemp)
  /usr/bin/time -f "%e %M" -o "$stats" "$@" >/dev/null 2>&1 || { echo "$name failed" >&2; exit 1; }
  read -r t m < "$stats"
  rm -f "$stats"
  times[$name]+="$t "
  mems[$name]+="$m "
  awk -v n="$name" -v t="$t" -v m="$m" 'BEGIN {printf "  %-12s %6.2f s  %7.1f MiB\n", n, t, m / 1024}'
}
median() { tr ' ' '\n' | grep -v '^$' | sort -g | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }

for i in $(seq 1 "$rounds"); do
  echo "round $i"
  measure bare "${runner[@]}" "$build/bin/bench_bare_walk.exe" "$wtree"
  measure scan "${runner[@]}" "$build/bin/broom.exe" --defs "$wdefs" scan
  measure scan-files "${runner[@]}" "$build/bin/broom.exe" --defs "$wdefs" scan --files
  measure scan-json "${runner[@]}" "$build/bin/broom.exe" --defs "$wdefs" scan --json
  measure scan-nolog "${runner[@]}" "$build/bin/broom.exe" --defs "$wdefs" --no-log scan
done
run --stop-server "$wineserver"

floor=$(echo "${times[bare]}" | median)
echo
printf '%-12s %10s %12s %8s\n' run "median s" "median MiB" ratio
for name in bare scan scan-files scan-json scan-nolog; do
  t=$(echo "${times[$name]}" | median)
  m=$(echo "${mems[$name]}" | median)
  awk -v n="$name" -v t="$t" -v m="$m" -v f="$floor" 'BEGIN {printf "%-12s %10.2f %12.1f %8.2f\n", n, t, m / 1024, t / f}'
done
echo "goals: scan <= 1.50, scan --files and --json <= 2.00 times the bare walk; scan <= 60 MiB"
