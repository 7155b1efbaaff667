#!/usr/bin/env bash
# Builds the project and runs every test with CTest.
# --sanitize (or CI set in the environment) adds a second build with
# AddressSanitizer and UndefinedBehaviorSanitizer, which must run silently, and a short run
# of every fuzz target (fuzz/run.sh, a clang build in build-fuzz).
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=0
[ -n "${CI:-}" ] && sanitize=1
for arg in "$@"; do
  case "$arg" in
    --sanitize) sanitize=1 ;;
    *) echo "usage: scripts/test.sh [--sanitize]" >&2; exit 2 ;;
  esac
done

bash scripts/deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
werror=OFF
[ -n "${CI:-}" ] && werror=ON

build_and_test() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DTARN_WERROR="$werror" "$@"
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

# The normal build also has the benchmark, for its smoke test (a tiny generated machine).
build_and_test build -DTARN_BENCH=ON
if [ "$sanitize" -eq 1 ]; then
  export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  build_and_test build-sanitize -DTARN_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
  bash fuzz/run.sh --seconds 30
fi
