#!/usr/bin/env bash
# Where a replayed full scan of 5,000 applications at log level 0 spends its time: samples
# one scan with perf (the cpu-clock event, so it works without hardware counters) and prints
# the share of each library and of the busiest functions.
# Usage: bash bench/profile.sh [SIZE]   (needs perf; builds like bench/run.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
command -v perf >/dev/null || { echo "bench/profile.sh: perf is not installed" >&2; exit 2; }
# A build of its own: symbols and line tables, optimised as the benchmark's.
build=${PROFILE_BUILD_DIR:-build-profile}
size=${1:-5000}
# shellcheck source=bench/build.sh
. bench/build.sh
build_bench "$build" RelWithDebInfo
work=$(mktemp -d /tmp/tarn-profile-XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/samples"
# shellcheck disable=SC2016 # the date and "$@" are the wrapper's, expanded when it runs
printf '#!/bin/sh\nexec perf record -e cpu-clock -F 2000 -g -q -o "%s/$(date +%%s%%N)" "$@"\n' \
  "$work/samples" >"$work/wrap"
chmod +x "$work/wrap"
"$build/tarn_bench" --scanner "current=$build/tarninventory" --floor "$build/tarn_bench_floor" \
  --source . --work "$work/bench" --csv "$work/bench.csv" --runs 1 --sizes "$size" \
  --log-level 0 --wrap "$work/wrap" >/dev/null 2>&1
# The scans in the order they ran: the warm-up full scan, then the measured full scan.
mapfile -t samples < <(ls -tr "$work/samples")
full="$work/samples/${samples[1]}"
echo "== share by library (full scan, $size applications, log level 0)"
perf report -i "$full" --no-children --sort dso --stdio 2>/dev/null | grep -E '^ +[0-9]' | head -n 12
echo "== busiest functions"
perf report -i "$full" --no-children --sort dso,symbol --stdio 2>/dev/null | grep -E '^ +[0-9]' | head -n 25
