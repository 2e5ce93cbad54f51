#!/usr/bin/env bash
# broom scan against the bare FindFirstFileW walk of the same folders, each
# run as a whole process under Wine, alternating in every round:
#   bare         the walk on one thread
#   bare-N       the walk listing on N threads, as many as broom lists on
#                (the engine's default: the processor count, at most 8)
#   scan         broom scan (scan log on), folders listed ahead on the pool
#   scan-1       broom scan with the engine setting ScanThreads = 1 (written
#                to HKCU\Software\Broom\Engine before the run, removed after):
#                every folder listed on the scanning thread
# on two trees: the benchmark tree (100,000 files in 5,000 folders, one item
# whose root is the tree) and the items tree (20 folders of 5,000 files,
# each the root of an item of its own; the definitions are made here).
# Prints wall time and peak memory (maximum resident set) of every run, the
# medians, the ratios to the bare walks (each round's, then their median),
# the machine's processor count and its load.
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
cores=$(nproc)
threads=$(( cores < 8 ? cores : 8 ))
key='HKCU\Software\Broom\Engine'
run reg delete "$key" /v ScanThreads /f >/dev/null 2>&1 || true

windows() { local p="Z:${1//\//\\}"; echo "$p"; }
tree=$build/bench-tree
items=$build/bench-items
defs=$build/bench-defs
itemdefs=$build/bench-item-defs
mkdir -p "$defs" "$itemdefs"
cat > "$defs/tree.xml" <<EOF
<?xml version="1.0" encoding="utf-8"?>
<ConfigItems>
  <group name="Bench" scan="yes" clean="no">
    <item name="Tree" desc="Every file of the benchmark tree"><clean kind="file">$(windows "$tree")</clean></item>
  </group>
</ConfigItems>
EOF
{
  echo '<?xml version="1.0" encoding="utf-8"?>'
  echo '<ConfigItems>'
  echo '  <group name="Items" scan="yes" clean="no">'
  for i in $(seq 0 19); do
    echo "    <item name=\"Item $i\" desc=\"One folder of 5,000 files\"><clean kind=\"file\">$(windows "$items")\\item$i</clean></item>"
  done
  echo '  </group>'
  echo '</ConfigItems>'
} > "$itemdefs/items.xml"
# makes the trees when missing, and warms the caches
run "$build/bin/bench_bare_walk.exe" "$(windows "$tree")" >/dev/null
run "$build/bin/bench_bare_walk.exe" "$(windows "$items")" --items >/dev/null

load_before=$(uptime | sed 's/.*load average: //')
declare -A times mems
measure() {  # name, then the command
  local name=$1; shift
  local stats
  stats=$(mktemp)
  /usr/bin/time -f "%e %M" -o "$stats" "$@" >/dev/null 2>&1 || { echo "$name failed" >&2; exit 1; }
  local secs kib
  read -r secs kib < "$stats"
  rm -f "$stats"
  times[$name]+="$secs "
  mems[$name]+="$kib "
  awk -v n="$name" -v t="$secs" -v m="$kib" 'BEGIN {printf "  %-16s %6.2f s  %7.1f MiB\n", n, t, m / 1024}'
}
median() { tr ' ' '\n' | grep -v '^$' | sort -g | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }
one_thread() { run reg add "$key" /v ScanThreads /t REG_DWORD /d 1 /f >/dev/null; }
pool() { run reg delete "$key" /v ScanThreads /f >/dev/null; }

for i in $(seq 1 "$rounds"); do
  echo "round $i"
  for t in tree items; do
    if [ $t = tree ]; then root=$(windows "$tree"); d=$(windows "$defs"); extra=(); else
      root=$(windows "$items"); d=$(windows "$itemdefs"); extra=(--items); fi
    measure "$t bare" "${runner[@]}" "$build/bin/bench_bare_walk.exe" "$root" "${extra[@]}"
    measure "$t bare-$threads" "${runner[@]}" "$build/bin/bench_bare_walk.exe" "$root" "${extra[@]}" --threads "$threads"
    measure "$t scan" "${runner[@]}" "$build/bin/broom.exe" --defs "$d" scan
    one_thread
    measure "$t scan-1" "${runner[@]}" "$build/bin/broom.exe" --defs "$d" scan
    pool
  done
done
run --stop-server "$wineserver"

# Ratios are taken within each round (its runs follow each other, so they
# meet much the same load from the machine's other users), then the median.
ratios() {  # the median of a/b over the rounds
  paste <(echo "$1" | tr ' ' '\n' | grep -v '^$') <(echo "$2" | tr ' ' '\n' | grep -v '^$') |
    awk '{print $1 / $2}' | median
}
echo
printf '%-16s %10s %12s %10s %10s\n' run "median s" "median MiB" "/bare" "/bare-$threads"
for t in tree items; do
  for name in "$t bare" "$t bare-$threads" "$t scan" "$t scan-1"; do
    s=$(echo "${times[$name]}" | median)
    m=$(echo "${mems[$name]}" | median)
    r1=$(ratios "${times[$name]}" "${times[$t bare]}")
    rN=$(ratios "${times[$name]}" "${times[$t bare-$threads]}")
    awk -v n="$name" -v t="$s" -v m="$m" -v a="$r1" -v b="$rN" \
      'BEGIN {printf "%-16s %10.2f %12.1f %10.2f %10.2f\n", n, t, m / 1024, a, b}'
  done
done
echo "ratios: the median over the rounds of each round's ratio"
echo "$cores processors, broom lists on $threads pool threads; load before: $load_before, after: $(uptime | sed 's/.*load average: //')"
echo "goals: tree scan <= 0.75 x bare and <= 1.3 x bare-$threads, <= 64 MiB; items scan <= 0.7 x bare"
