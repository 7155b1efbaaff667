#!/usr/bin/env bash
# Builds the scanner and runs one scan in a temporary agent folder, with the
# reporting tools' output replayed from a recorded Mac (testdata/machines), then
# shows the access log, the scan log and the scan state store the run left.
# Usage: scripts/demo.sh [scan-type word] [machine]   (default: assetscan macbook-sample)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
word=${1:-assetscan}
machine=${2:-macbook-sample}

bash scripts/deps.sh
cmake -S . -B build-demo -DTARN_TESTS=OFF >/dev/null
cmake --build build-demo -j "$(nproc 2>/dev/null || echo 2)" --target tarninventory

agent=$(mktemp -d /tmp/tarn-demo-XXXXXX)
mkdir -p "$agent/bin" "$agent/data"
cp data/*.xml data/serverinfo.plist "$agent/data/"
cat > "$agent/data/agent-conf.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>Loglevel</key>
	<integer>3</integer>
	<key>TOOL_REPLAY_DIRECTORY</key>
	<string>$root/testdata/machines/$machine</string>
</dict>
</plist>
PLIST
cat > "$agent/data/resource.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>RESOURCEID</key>
	<string>42</string>
</dict>
</plist>
PLIST

status=0
(cd "$agent/bin" && "$root/build-demo/tarninventory" "$word") || status=$?
echo
echo "== exit code: $status (agent folder: $agent)"
echo "== logs/tarndevicescanaccess.log"
cat "$agent/logs/tarndevicescanaccess.log"; echo
echo "== logs/tarndevicescan.log (last 40 lines)"
tail -n 40 "$agent/logs/tarndevicescan.log"
if [ -f "$agent/data/tarninventory_data.plist" ]; then
  echo "== data/tarninventory_data.plist"
  cat "$agent/data/tarninventory_data.plist"
fi
