# shellcheck shell=bash
# Sourced by the bench scripts, from the repository's root: builds the scanner and the
# benchmark programs into DIR with the build type (exits, showing the build's end, on a failure).
# Usage: build_bench DIR TYPE
build_bench() {
  local dir=$1 type=$2
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DTARN_BENCH=ON -DTARN_TESTS=OFF >/dev/null
  cmake --build "$dir" -j "$(nproc 2>/dev/null || echo 2)" \
    --target tarninventory tarn_bench tarn_bench_floor >"$dir/build.log" 2>&1 ||
    { tail -n 40 "$dir/build.log" >&2; exit 1; }
}
