#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer)
# in build-fuzz, replays each target's large seeds whole (made by fuzz/large_inputs.sh), then
# runs it for a while on its seeds: fuzz/corpus/TARGET and the project's own test data. A
# crash, a sanitizer report or an input that takes longer than the per-input limit fails
# the run and leaves the input in build-fuzz/artifacts/.
# Usage: bash fuzz/run.sh [--seconds N] [TARGET...]   (default: 30 seconds, every target)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=30
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds=$2; shift 2 ;;
    -*) echo "usage: fuzz/run.sh [--seconds N] [TARGET...]" >&2; exit 2 ;;
    *) targets+=("$1"); shift ;;
  esac
done
[ ${#targets[@]} -gt 0 ] || targets=(criteria datadict xml_rows resource_document plist_collectors snapshot json)

# Seconds one input may take; every real input takes well under one.
per_input=5

# Seed folders of each target besides fuzz/corpus/TARGET.
seeds() {
  case "$1" in
    datadict) echo data testdata/datadict ;;
    xml_rows) echo data testdata/imds ;;
    plist_collectors) echo fuzz/corpus/plist fuzz/corpus/snapshot testdata/machines/* ;;
    snapshot) echo fuzz/corpus/plist ;;
    *) ;;
  esac
}

build="build-fuzz"
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_FUZZ=ON -DTARN_TESTS=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target "${targets[@]/#/fuzz_}" >/dev/null

mkdir -p "$build/artifacts"
large=$(mktemp -d /tmp/tarn-fuzz-large-XXXXXX)
trap 'rm -rf "$large"' EXIT
bash fuzz/large_inputs.sh "$large"
export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
for target in "${targets[@]}"; do
  if [ -d "$large/$target" ] && ! "$build/fuzz_$target" -timeout="$per_input" -rss_limit_mb=2560 \
      -close_fd_mask=3 -artifact_prefix="$build/artifacts/$target-" "$large/$target"/* \
      >"$build/artifacts/$target-large.log" 2>&1; then
    echo "fuzz_$target: FAILED on a large seed (see $build/artifacts/$target-large.log)" >&2
    tail -n 40 "$build/artifacts/$target-large.log" >&2
    status=1
    continue
  fi
  work=$(mktemp -d /tmp/tarn-fuzz-XXXXXX)
  corpus=(fuzz/corpus/"$target")
  [ -d "${corpus[0]}" ] || corpus=()
  # shellcheck disable=SC2046
  if ! "$build/fuzz_$target" -max_total_time="$seconds" -timeout="$per_input" -rss_limit_mb=2560 \
      -max_len=131072 -close_fd_mask=3 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$target-" "$work" "${corpus[@]}" $(seeds "$target") \
      >"$build/artifacts/$target.log" 2>&1; then
    echo "fuzz_$target: FAILED (see $build/artifacts/$target.log)" >&2
    tail -n 40 "$build/artifacts/$target.log" >&2
    status=1
  else
    echo "fuzz_$target: $(grep -m1 'stat::number_of_executed_units' "$build/artifacts/$target.log" | awk '{print $2}') inputs in ${seconds}s, no finding"
  fi
  rm -rf "$work"
done
exit $status
