#!/usr/bin/env bash
# Checks that this checkout's scanner produces what another build produces, byte for byte, on
# the benchmark's generated machines: the body the server receives, the snapshot, the state
# store and the access log of a full scan and of a difference scan, and the scan log. Times,
# process ids, scratch and temporary folder names and source line numbers are masked first;
# nothing else is. Prints one line per compared file and exits non-zero on any difference.
# Usage: bash bench/same_outputs.sh OTHER_SCANNER [SIZES]   (SIZES default 1000,5000,20000)
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -ge 1 ] || { echo "usage: bench/same_outputs.sh OTHER_SCANNER [SIZES]" >&2; exit 2; }
other=$(realpath "$1")
sizes=${2:-1000,5000,20000}
keep=$(mktemp -d /tmp/tarn-same-XXXXXX)
trap '[ -n "${KEEP_OUTPUTS:-}" ] || rm -rf "$keep"' EXIT
bash bench/run.sh --scanner "other=$other" --runs 1 --sizes "$sizes" --keep "$keep" >/dev/null

# Masks what differs between any two runs of the same build.
mask() {
  sed -E \
    -e 's#/tmp/tarn-bench-[A-Za-z0-9]+#/tmp/BENCH#g; s#agent-[A-Za-z0-9_-]+-[0-9]+#AGENT#g' \
    -e 's/[0-9]{4}-[0-9]{2}-[0-9]{2}[ T][0-9]{2}:[0-9]{2}:[0-9]{2}(\.[0-9]+)?/TIME/g' \
    -e 's/[0-9]{2}-[0-9]{2}-[0-9]{4}/DATE/g; s/[0-9]{2}:[0-9]{2}:[0-9]{2}/TIME/g' \
    -e 's/1[0-9]{9}/EPOCH/g' \
    -e 's/\[[0-9]+\]/[PID]/g; s/\[Line [0-9]+\]/[Line N]/g' \
    -e 's#tarninventory-[0-9]+-[A-Za-z0-9]{6}#SCRATCH#g' "$1"
}

status=0
IFS=, read -r -a list <<<"$sizes"
for size in "${list[@]}"; do
  for scan in full diff; do
    for file in body invFullData tarninventory_data.plist logs/tarndevicescanaccess.log \
        logs/tarndevicescan.log; do
      a="$keep/current/$size/$scan/$file"
      b="$keep/other/$size/$scan/$file"
      if [ ! -f "$a" ] || [ ! -f "$b" ]; then
        echo "MISSING  $size $scan $file"; status=1; continue
      fi
      if cmp -s <(mask "$a") <(mask "$b"); then
        echo "same     $size $scan $file ($(wc -c <"$a") bytes)"
      else
        echo "DIFFERS  $size $scan $file"
        diff <(mask "$b") <(mask "$a") | head -n 10 || true
        status=1
      fi
    done
  done
done
exit $status
