#!/usr/bin/env bash
# The scan benchmark in one command: builds the scanner and the benchmark (Release, in
# build-bench), generates recorded machines of 1,000, 5,000 and 20,000 applications and, in
# one run, measures replayed full and difference scans against a loopback server next to the
# libplist-only floor. Prints the table and writes it as CSV to build-bench/bench-results.csv.
# Extra arguments go to the driver, e.g.: bash bench/run.sh --runs 7 --sizes 5000
# Another build can be timed in the same run, its runs alternating with the current one:
#   bash bench/run.sh --scanner before=/path/to/older/tarninventory
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=bench/build.sh
. bench/build.sh
build=${BENCH_BUILD_DIR:-build-bench}
build_bench "$build" Release
work=$(mktemp -d /tmp/tarn-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
"$build/tarn_bench" --scanner "current=$build/tarninventory" \
  --floor "$build/tarn_bench_floor" --source . --work "$work" --csv "$build/bench-results.csv" "$@"
# Wall time of the tools run one after another and side by side, with the durations of a
# slow real Mac replayed (about 50 s; the same divided by 10: bench/gather_bench.sh --quick).
bash bench/gather_bench.sh "$build/tarninventory"
