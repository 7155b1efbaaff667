#!/usr/bin/env bash
# Every shell script of the repository passes shellcheck: the *.sh files and the Debian
# maintainer scripts. Skipped (77) when shellcheck is not installed.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v shellcheck >/dev/null; then
  echo "shellcheck is not installed (scripts/deps.sh installs it)"
  exit 77
fi

scripts=()
while IFS= read -r -d '' file; do
  scripts+=("$file")
done < <(find . \( -path ./.git -o -path './build*' \) -prune -o \
  \( -name '*.sh' -o -path './packaging/deb/refserver/*' \) -type f -print0 | sort -z)

echo "shellcheck: ${#scripts[@]} scripts"
shellcheck "${scripts[@]}"
