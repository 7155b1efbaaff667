#!/usr/bin/env bash
# The scanner and the reference management server, end to end on this computer:
#  1. installs the Debian packages the demo needs (scripts/deps.sh --demo) and builds the
#     scanner and the server (Release, in build-demo/), showing the build's progress;
#  2. lays out an agent folder (build-demo/agent) from data/ and starts the reference
#     server on a free loopback port with a new database;
#  3. runs a full scan ("assetscan") of the recorded iMac testdata/machines/imac-fusion;
#  4. switches the agent to imac-fusion-changed (the same iMac a week later: applications
#     installed, removed and upgraded, a volume unmounted) and runs a "scheduled" scan,
#     which sends only the differences;
#  5. shows the access logs, what the server now holds for the computer, and the address
#     of its web page; then stops the server.
# Usage: scripts/demo.sh [--keep] [--port N]
#   --keep    leave the server running (its address and process id are printed)
#   --port N  serve on port N instead of a free one
# Exits non-zero when a scan did not land on the server.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

keep=0
port=0
while [ $# -gt 0 ]; do
  case "$1" in
    --keep) keep=1 ;;
    --port) port=${2:?--port needs a number}; shift ;;
    *) echo "usage: scripts/demo.sh [--keep] [--port N]" >&2; exit 2 ;;
  esac
  shift
done

machine=imac-fusion
changed=imac-fusion-changed
build="build-demo"
work=$root/$build/agent
server_pid=

stop_server() {
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill "$server_pid"
    wait "$server_pid" 2>/dev/null || true
  fi
  server_pid=
}
trap 'stop_server' EXIT

echo "== Installing what the demo needs (scripts/deps.sh --demo)"
bash scripts/deps.sh --demo

echo "== Building the scanner and the reference server (Release, $build/; output in $build/build.log)"
mkdir -p "$build"
# The build's progress lines are shown as they come; everything is in build.log.
if ! { cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTARN_TESTS=OFF &&
       cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" \
         --target tarninventory tarn-refserver; } 2>&1 | tee "$build/build.log" |
     awk '/^\[ *[0-9]+%\]/ { print "   " $0; fflush() }'; then
  tail -n 40 "$build/build.log" >&2
  echo "the build failed (whole output in $build/build.log)" >&2
  exit 1
fi

echo "== Laying out the agent folder $work"
rm -rf "$work"
mkdir -p "$work/bin" "$work/data" "$work/server"
cp data/*.xml "$work/data/"
ln -s "$root/$build/tarninventory" "$work/bin/tarninventory"

echo "== Starting the reference server"
db=$work/server/refserver.sqlite
server_log=$work/server/access.log
"$root/$build/tools/refserver/tarn-refserver" --db "$db" --port "$port" --bind 127.0.0.1 \
  --catalogue "$root/data/Mac_InvClasses.xml" >"$server_log" 2>&1 &
server_pid=$!
for _ in $(seq 1 100); do
  grep -q '^listening on ' "$server_log" && break
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.1
done
if ! grep -q '^listening on ' "$server_log"; then
  echo "the reference server did not start:" >&2
  cat "$server_log" >&2
  exit 1
fi
address=$(sed -n 's/^listening on //p' "$server_log")
port=${address##*:}
echo "   $address (process $server_pid, database $db)"

# The agent's server details: the reference server on loopback, over plain HTTP.
cat >"$work/data/serverinfo.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>tarnlastaccessname</key>
	<string>127.0.0.1</string>
	<key>SERVERPROTOCOL</key>
	<string>http</string>
	<key>SERVERPORT</key>
	<string>$port</string>
	<key>SERVERSECUREPORT</key>
	<string>$port</string>
	<key>CUSTOMERID</key>
	<string>1</string>
	<key>CUSTOMERNAME</key>
	<string>Example Customer</string>
	<key>MSPNAME</key>
	<string>Example MSP</string>
	<key>REMOTEOFFICEID</key>
	<string>301</string>
	<key>MAC_DOMAIN</key>
	<string>macosgroup</string>
</dict>
</plist>
PLIST

# Replays a recorded machine: the scanner answers its tool runs from the recording.
use_machine() {
  cat >"$work/data/agent-conf.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>Loglevel</key>
	<integer>3</integer>
	<key>TOOL_REPLAY_DIRECTORY</key>
	<string>$root/testdata/machines/$1</string>
</dict>
</plist>
PLIST
}

# Runs one scan and checks that the server accepted it as the expected kind.
scan() {
  local word=$1 kind=$2 status=0 line
  # The scanner's last line on standard error says what happened.
  (cd "$work/bin" && ./tarninventory "$word" >/dev/null 2>"$work/scanner-stderr.txt") || status=$?
  echo "   $(tail -n 1 "$work/scanner-stderr.txt")"
  line=$(tail -n 1 "$work/logs/tarndevicescanaccess.log" 2>/dev/null || true)
  echo "   scanner exit code $status; access-log line:"
  echo "   $line"
  if [ "$status" -ne 0 ] || [[ "$line" != *"$kind"*Success* ]]; then
    echo "the $word scan did not land on the server as $kind; last lines of the scan log:" >&2
    tail -n 30 "$work/logs/tarndevicescan.log" >&2 || true
    exit 1
  fi
}

echo "== Full scan (assetscan) of $machine"
use_machine "$machine"
scan assetscan FullData

echo "== Scheduled scan of $changed (the same iMac a week later): a difference"
use_machine "$changed"
scan scheduled DiffData

echo "== The scanner's access log (logs/tarndevicescanaccess.log)"
cat "$work/logs/tarndevicescanaccess.log"
echo
echo "== The server's access log"
grep -v '^listening on \|^tarn-refserver: ' "$server_log" || true

echo "== Did both scans land in this server? (its own records: $address/api/computers)"
computers=$(curl -fsS "$address/api/computers")
if [[ "$computers" != *'"uploadCount":2'* || "$computers" != *'"lastKind":"difference"'* ]]; then
  echo "the server started by this demo does not hold the full upload and the difference:" >&2
  echo "$computers" >&2
  exit 1
fi
echo "   yes: one computer, a full upload and a difference"

echo "== What the server holds"
report=$("$root/$build/tools/refserver/tarn-refserver" --db "$db" --report \
  --catalogue "$root/data/Mac_InvClasses.xml")
echo "$report"
id=$(sed -n 's/^Computer .* (resource id \([0-9]*\),.*/\1/p' <<<"$report" | head -n 1)

echo "== Web pages"
echo "   computers:     $address/"
echo "   the computer:  $address/computers/$id   (JSON: $address/computers/$id.json)"

if [ "$keep" -eq 1 ]; then
  echo "== The server keeps running (process $server_pid); stop it with: kill $server_pid"
  server_pid=
  trap - EXIT
else
  echo "== Stopping the server (scripts/demo.sh --keep leaves it running)"
  stop_server
fi
