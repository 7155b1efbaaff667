#!/usr/bin/env bash
# Wall time of one scan with the tools run one after another and side by side, on a recorded
# machine whose tools take as long as on a slow real Mac: the applications report 20 s, the
# hardware report 2 s, the USB report 1 s, every other report 0.2 to 1 s, each diskutil info
# 0.1 s, the small tools (sysctl, sw_vers, users, diskutil list) 0.05 s. The replay takes those
# times ("TOOL_REPLAY_TIMING"); the scan writes its documents locally (--local), so no server
# is involved.
#
# Usage: bench/gather_bench.sh SCANNER [--quick] [--machine NAME]
#   --quick   every duration divided by 10
# Prints both wall times, their sum of tool times, the slowest report and the ratio.
set -euo pipefail
scanner=$(realpath "$1")
shift
scale=1
machine=imac-fusion
while [ $# -gt 0 ]; do
	case $1 in
	--quick) scale=10 ;;
	--machine)
		machine=$2
		shift
		;;
	*)
		echo "usage: $0 SCANNER [--quick] [--machine NAME]" >&2
		exit 2
		;;
	esac
	shift
done
source=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d /tmp/tarn-gather-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT

# The machine with a "seconds" entry after each command's output name.
cp -r "$source/testdata/machines/$machine" "$work/machine"
awk -v scale="$scale" '
	function seconds(args, n) {
		if (args ~ /SPApplicationsDataType/) return 20
		if (args ~ /SPHardwareDataType/) return 2
		if (args ~ /SPUSBDataType/) return 1
		if (args ~ /^ -xml SP/) { n = reports++ % 5; return 0.2 + n * 0.2 }
		if (args ~ /^ info/) return 0.1
		return 0.05
	}
	/<key>arguments<\/key>/ { args = ""; inargs = 1 }
	inargs && /<string>/ { s = $0; gsub(/^[ \t]*<string>|<\/string>[ \t]*$/, "", s); args = args " " s }
	/<\/array>|<array\/>/ { inargs = 0 }
	{ print }
	/<key>output<\/key>/ { wantoutput = 1; next }
	wantoutput && /<string>/ {
		printf "\t\t\t<key>seconds</key>\n\t\t\t<real>%.3f</real>\n", seconds(args) / scale
		total += seconds(args) / scale
		wantoutput = 0
	}
	END { printf "%.3f\n", total > "/dev/stderr" }
' "$source/testdata/machines/$machine/manifest.plist" >"$work/machine/manifest.plist" \
	2>"$work/total"

# An agent folder: the scanner, the data files, a resource id and the replay settings.
mkdir -p "$work/agent/bin" "$work/agent/data"
chmod 755 "$work/agent/data"
ln -s "$scanner" "$work/agent/bin/tarninventory"
for file in data-dictionary.xml data-dictionary-inv.xml data-dictionary-framework.xml \
	data-dictionary-onpremise.xml Mac_InvClasses.xml serverinfo.plist; do
	cp "$source/data/$file" "$work/agent/data/"
done

settings() {
	cat >"$work/agent/data/agent-conf.plist" <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>Loglevel</key><integer>3</integer>
	<key>TOOL_REPLAY_DIRECTORY</key><string>$work/machine</string>
	<key>TOOL_REPLAY_TIMING</key><string>1</string>
	$1
</dict>
</plist>
EOF
}

# Wall seconds of one local full scan.
scan() {
	local start end
	rm -rf "$work/out"
	start=$(date +%s.%N)
	(cd "$work/agent/bin" && ./tarninventory --local "$work/out" assetscan >/dev/null 2>&1) ||
		{ echo "the scan failed; its log:" >&2; tail -n 20 "$work/agent/logs/tarndevicescan.log" >&2; exit 1; }
	end=$(date +%s.%N)
	echo "$start $end" | awk '{ printf "%.2f", $2 - $1 }'
}

settings '<key>TOOL_GATHER_SERIAL</key><string>1</string>'
serial=$(scan)
settings ''
side=$(scan)
slowest=$(awk -v scale="$scale" 'BEGIN { printf "%.2f", 20 / scale }')
echo "machine $machine, tool times divided by $scale: sum of tool times $(cat "$work/total") s"
echo "serial gather:       $serial s"
echo "side-by-side gather: $side s (slowest report $slowest s; ratio $(awk -v a="$side" \
	-v b="$slowest" 'BEGIN { printf "%.2f", a / b }'))"
