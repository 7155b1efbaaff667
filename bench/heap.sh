#!/usr/bin/env bash
# Heap use of one replayed full scan and one difference scan at 5,000 applications, under
# heaptrack: the number of calls to allocation functions, the peak heap and the peak resident
# memory. Measures this checkout's scanner and, when given, another build the same way.
# Usage: bash bench/heap.sh [OTHER_SCANNER] [SIZE]   (needs heaptrack; builds like bench/run.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
command -v heaptrack >/dev/null || { echo "bench/heap.sh: heaptrack is not installed" >&2; exit 2; }
build=${BENCH_BUILD_DIR:-build-bench}
size=${2:-5000}
# shellcheck source=bench/build.sh
. bench/build.sh
build_bench "$build" Release
work=$(mktemp -d /tmp/tarn-heap-XXXXXX)
trap 'rm -rf "$work"' EXIT

# Prints the heap figures of one scanner's full and difference scan.
measure() {
  local name=$1 scanner=$2 traces="$work/traces-$1"
  mkdir -p "$traces"
  # One trace file per scan, named by when it started.
  # shellcheck disable=SC2016 # the date and "$@" are the wrapper's, expanded when it runs
  printf '#!/bin/sh\nexec heaptrack -o "%s/$(date +%%s%%N)" "$@"\n' "$traces" >"$work/wrap-$name"
  chmod +x "$work/wrap-$name"
  "$build/tarn_bench" --scanner "$name=$scanner" --floor "$build/tarn_bench_floor" --source . \
    --work "$work/bench-$name" --csv "$work/$name.csv" --runs 1 --sizes "$size" \
    --wrap "$work/wrap-$name" >/dev/null 2>&1
  # The scans in the order they ran: the warm-up full scan, then the measured full and
  # difference scans.
  mapfile -t files < <(ls -tr "$traces")
  local kinds=(warm-up full diff)
  for i in 1 2; do
    heaptrack_print --print-peaks 0 --print-allocators 0 --print-temporary 0 --print-leaks 0 \
        "$traces/${files[$i]}" 2>/dev/null |
      awk -v who="$name" -v scan="${kinds[$i]}" '
        /^calls to allocation functions:/ { calls = $5 }
        /^peak heap memory consumption:/ { heap = $5 }
        /^peak RSS/ { rss = $NF }
        END { printf "%-8s %-5s allocations %12s  peak heap %10s  peak RSS %10s\n", who, scan, calls, heap, rss }'
  done
}

echo "heaptrack, $size applications (peak RSS includes heaptrack's own)"
measure current "$build/tarninventory"
if [ $# -ge 1 ]; then measure other "$(realpath "$1")"; fi
