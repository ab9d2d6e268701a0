#!/usr/bin/env bash
# Soak test (not part of CI): transmits a transport stream of at least 1 GB in
# the default configuration without the sample output, samples the resident
# memory of the process every second and checks that it stays flat and that
# the progress line reaches 100%.
#
#   tests/soak.sh [BUILD_DIR] [PACKETS]
#
# BUILD_DIR holds the built tervane and tsgen (default: build-rel, then build);
# PACKETS is the stream length in 188-byte packets (default 5712000, 1.07 GB).
# The stream, the log and the screen output live in a scratch directory under
# /tmp (or $TMPDIR) that is removed at the end. Tolerance of the RSS growth
# after the first 10 s: RSS_SLACK_KB (default 4096).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-}
if [ -z "$build" ]; then
  for b in build-rel build; do [ -x "$b/tervane" ] && { build=$b; break; }; done
fi
packets=${2:-5712000}
slack_kb=${RSS_SLACK_KB:-4096}
if [ -z "$build" ] || [ ! -x "$build/tervane" ] || [ ! -x "$build/tsgen" ]; then
  echo "soak: no built tervane and tsgen (give the build directory)" >&2
  exit 2
fi
tervane=$(realpath "$build/tervane")
tsgen=$(realpath "$build/tsgen")

work=$(mktemp -d "${TMPDIR:-/tmp}/tervane-soak.XXXXXX")
pid=
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

echo "soak: generating $packets packets ($((packets * 188)) bytes) ..."
"$tsgen" -o "$work/in.ts" -n "$packets" >/dev/null
size=$(stat -c %s "$work/in.ts")

echo "soak: transmitting (default configuration, no sample output) ..."
start=$(date +%s.%N)
"$tervane" -i "$work/in.ts" -l "$work/run.log" >"$work/screen.txt" 2>"$work/err.txt" &
pid=$!

# One VmRSS sample (kB) per second while the process lives.
samples=()
while kill -0 "$pid" 2>/dev/null; do
  rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status" 2>/dev/null || true)
  [ -n "$rss" ] && samples+=("$rss")
  sleep 1
done
status=0
wait "$pid" || status=$?
pid=
end=$(date +%s.%N)

elapsed=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.1f", b - a }')
last=$(grep '% done' "$work/screen.txt" | tail -n 1 || true)
lines=$(grep -c '% done' "$work/screen.txt" || true)
n=${#samples[@]}
if [ "$n" -eq 0 ]; then
  echo "soak: FAIL: the run ended before the first memory sample (status $status)"
  exit 1
fi
read -r min max <<<"$(printf '%s\n' "${samples[@]}" | sort -n | awk 'NR == 1 { min = $1 } { max = $1 } END { print min, max }')"
at10=${samples[$((n > 10 ? 10 : n - 1))]}
late_max=$(printf '%s\n' "${samples[@]:10}" | sort -n | tail -n 1)
late_max=${late_max:-$at10}
growth=$((late_max - at10))

echo "soak: input                 $size bytes"
echo "soak: exit status           $status"
echo "soak: wall time             $elapsed s"
echo "soak: RSS samples           $n (1 per second)"
echo "soak: RSS min / max         $min kB / $max kB"
echo "soak: RSS at 10 s           $at10 kB; growth after it: $growth kB (allowed $slack_kb kB)"
echo "soak: progress lines        $lines"
echo "soak: last progress line    $last"
grep -E 'Theoretical global rate|Elapsed time|real-time' "$work/screen.txt" | sed 's/^/soak: report              /'

fail=0
[ "$status" -eq 0 ] || { echo "soak: FAIL: exit status $status"; fail=1; }
[ -s "$work/err.txt" ] && { echo "soak: FAIL: standard error:"; head -n 20 "$work/err.txt"; fail=1; }
[ "$growth" -le "$slack_kb" ] || { echo "soak: FAIL: resident memory grows"; fail=1; }
# The payload counter behind the percentage is a single-precision float, so a
# long run may end slightly above 100%; it must not end below.
percent=${last%%%*}
if ! awk -v p="$percent" 'BEGIN { exit !(p != "" && p + 0 >= 100.0) }'; then
  echo "soak: FAIL: the progress line does not reach 100%"
  fail=1
fi
[ $fail -eq 0 ] && echo "soak: PASS"
exit $fail
