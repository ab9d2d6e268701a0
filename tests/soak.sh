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
build=${1:-$( [ -x build-rel/tervane ] && echo build-rel || echo build )}
packets=${2:-5712000}
slack_kb=${RSS_SLACK_KB:-4096}
[ -x "$build/tervane" ] && [ -x "$build/tsgen" ] || { echo "soak: no built tervane and tsgen (give the build directory)" >&2; exit 2; }
work=$(mktemp -d "${TMPDIR:-/tmp}/tervane-soak.XXXXXX")
pid=
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT

echo "soak: generating $packets packets ($((packets * 188)) bytes), then transmitting them ..."
"$build/tsgen" -o "$work/in.ts" -n "$packets" >/dev/null
"$build/tervane" -i "$work/in.ts" -l "$work/run.log" >"$work/screen.txt" 2>"$work/err.txt" &
pid=$!
rss=()  # one VmRSS sample (kB) per second while the process lives
while kill -0 "$pid" 2>/dev/null; do
  r=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status" 2>/dev/null || true)
  [ -n "$r" ] && rss+=("$r")
  sleep 1
done
status=0
wait "$pid" || status=$?
pid=
n=${#rss[@]}
[ "$n" -gt 0 ] || { echo "soak: FAIL: the run ended before the first memory sample (status $status)"; exit 1; }
at10=${rss[$((n > 10 ? 10 : n - 1))]}
late_max=$(printf '%s\n' "$at10" "${rss[@]:10}" | sort -n | tail -n 1)
last=$(grep '% done' "$work/screen.txt" | tail -n 1 || true)
echo "soak: exit status $status; $n RSS samples, $at10 kB at 10 s, growth after it $((late_max - at10)) kB (allowed $slack_kb)"
echo "soak: last progress line: $last"
grep -E 'Theoretical global rate|Elapsed time|real-time' "$work/screen.txt" | sed 's/^/soak: /'

fail=0
[ "$status" -eq 0 ] || { echo "soak: FAIL: exit status $status"; fail=1; }
[ ! -s "$work/err.txt" ] || { echo "soak: FAIL: standard error:"; head -n 20 "$work/err.txt"; fail=1; }
[ $((late_max - at10)) -le "$slack_kb" ] || { echo "soak: FAIL: resident memory grows"; fail=1; }
# The payload counter behind the percentage is a single-precision float, so a
# long run may end slightly above 100%; it must not end below.
awk -v p="${last%%%*}" 'BEGIN { exit !(p != "" && p + 0 >= 100.0) }' || { echo "soak: FAIL: the progress line does not reach 100%"; fail=1; }
[ $fail -eq 1 ] || echo "soak: PASS"
exit $fail
