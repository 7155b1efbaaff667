#!/usr/bin/env bash
# `cmake --install` into a fresh prefix lays out exactly the agent folder and the reference
# server: every file and folder with its mode, nothing more; the installed server, moved
# elsewhere, still finds its catalogue beside itself.
# Usage: tests/install_layout_test.sh BUILD_DIR
set -euo pipefail
# shellcheck source=tests/server_wait.sh
. "$(dirname "$0")/server_wait.sh"

build=$(cd "${1:?build folder}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log"; exit 1; }

expected='drwxr-xr-x bin
-rwxr-xr-x bin/tarn-refserver
-rwxr-xr-x bin/tarninventory
drwxr-xr-x data
-rw-r--r-- data/Mac_InvClasses.xml
-rw------- data/agent-conf.plist
-rw-r--r-- data/data-dictionary-framework.xml
-rw-r--r-- data/data-dictionary-inv.xml
-rw-r--r-- data/data-dictionary-onpremise.xml
-rw-r--r-- data/data-dictionary.xml
-rw------- data/serverinfo.plist
drwxr-xr-x share
drwxr-xr-x share/tarninventory
-rw-r--r-- share/tarninventory/Mac_InvClasses.xml'
# Modes as installed, whatever the umask the test runs under.
actual=$(cd "$work/prefix" && find . -mindepth 1 -printf '%M %P\n' | LC_ALL=C sort -k2)
if [ "$actual" != "$expected" ]; then
  echo "FAILED: the installed files differ from the agent folder's layout"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi

# Moved elsewhere, the server starts with the catalogue beside it.
mv "$work/prefix" "$work/moved"
"$work/moved/bin/tarn-refserver" --db "$work/db.sqlite" --port 0 >"$work/server.log" 2>&1 &
server=$!
trap 'kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT
wait_until_listening "$work/server.log" "$server" || true
if ! grep -qF "classes from $work/moved/share/tarninventory/Mac_InvClasses.xml" "$work/server.log" ||
  ! grep -q '^listening on ' "$work/server.log"; then
  echo "FAILED: the moved server did not start on its own catalogue"
  cat "$work/server.log"
  exit 1
fi
echo "PASSED"
