#!/bin/bash
# Records this Mac as a replayable machine for the inventory scanner.
#
# Runs every reporting tool the scanner runs, with exactly the scanner's arguments, keeps
# each tool's standard output in its own file and writes manifest.plist, which maps each
# command (launch path + argument array) to its output file, exit status and how long it
# took (seconds, to the millisecond; a replay can take the same time) and holds the
# host facts (host name, computer name, IPv4 interface addresses, virtual-memory page
# counts). The folder can then be copied under testdata/machines/ and replayed anywhere.
#
# Usage: tools/record-mac.sh OUTPUT_FOLDER
#
# Run it on the Mac itself, best as an administrator (sudo), from a Terminal session of the
# logged-in user. A tool that is not installed is left out of the manifest, which is how a
# replay models "could not be launched". Written for the bash 3.2 that macOS ships.
#
# The recording identifies the Mac and its users (serial numbers, user names, addresses, the
# applications), so OUTPUT_FOLDER must not exist yet: the script creates it for the user it
# runs as only (folder 0700, files 0600) and never writes over or through anything in it.
#
# RECORD_MAC_TOOL_ROOT, when set, is a folder under which every tool's absolute path is looked
# up instead of under /, so that the script can be tested with stand-in tools; the manifest
# still names each tool by its real path.
set -u
set -o pipefail
set -o noclobber
umask 077
# The format of the "time" keyword: elapsed seconds with three decimals.
TIMEFORMAT=%3R

tool_root=${RECORD_MAC_TOOL_ROOT:-}

SP=/usr/sbin/system_profiler
SYSCTL=/usr/sbin/sysctl
SW_VERS=/usr/bin/sw_vers
USERS=/usr/bin/users
DISKUTIL=/usr/sbin/diskutil
PLISTBUDDY=/usr/libexec/PlistBuddy
PLUTIL=/usr/bin/plutil
UNAME=/usr/bin/uname
HOSTNAME_TOOL=/bin/hostname
SCUTIL=/usr/sbin/scutil
IFCONFIG=/sbin/ifconfig
VM_STAT=/usr/bin/vm_stat

usage() {
	echo "usage: $0 OUTPUT_FOLDER"
	echo "Records this Mac for replay by the inventory scanner into OUTPUT_FOLDER, a new folder"
	echo "the script creates (it must not exist yet)."
}

refuse() {
	usage >&2
	exit 2
}

case ${1-} in
-h | --help)
	usage
	exit 0
	;;
esac
[ $# -eq 1 ] || refuse
out=$1
case $out in
'' | -*) refuse ;;
esac

if [ -e "$out" ] || [ -L "$out" ]; then
	echo "record-mac.sh: $out already exists; give the path of a folder to create" >&2
	exit 2
fi
if [ "$("$tool_root$UNAME" -s 2>/dev/null)" != Darwin ]; then
	echo "record-mac.sh: this records the Mac it runs on; run it on macOS" >&2
	exit 2
fi
# mkdir fails when anything appeared at the path meanwhile. Everything is then written from
# inside the folder, after making sure it is the one just made (this user's, private, empty),
# so nobody can move another folder or a link into its place.
mkdir -m 700 -- "$out" || exit 1
cd -P -- "$out" || exit 1
if [ ! -O . ] || [ -z "$(find . -maxdepth 0 -perm 700)" ] || [ -n "$(ls -A)" ]; then
	echo "record-mac.sh: $out is not the private folder just created; stopping" >&2
	exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/record-mac.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
commands_xml=$work/commands.xml
host_xml=$work/host.xml
: >"$commands_xml"
: >"$host_xml"

# Text as XML character data: & < > escaped, control characters other than tab and line
# end dropped.
xml_escape() {
	printf '%s' "$1" | LC_ALL=C tr -d '\000-\010\013-\037\177' |
		LC_ALL=C sed -e 's/&/\&amp;/g' -e 's/</\&lt;/g' -e 's/>/\&gt;/g'
}

# add_command OUTPUT_NAME EXIT_STATUS SECONDS LAUNCH_PATH [ARGUMENT...]
add_command() {
	local name=$1 status=$2 seconds=$3 launch=$4 argument
	shift 4
	{
		printf '\t\t<dict>\n'
		printf '\t\t\t<key>launchPath</key>\n\t\t\t<string>%s</string>\n' "$(xml_escape "$launch")"
		printf '\t\t\t<key>arguments</key>\n'
		if [ $# -eq 0 ]; then
			printf '\t\t\t<array/>\n'
		else
			printf '\t\t\t<array>\n'
			for argument in "$@"; do
				printf '\t\t\t\t<string>%s</string>\n' "$(xml_escape "$argument")"
			done
			printf '\t\t\t</array>\n'
		fi
		printf '\t\t\t<key>output</key>\n\t\t\t<string>%s</string>\n' "$(xml_escape "$name")"
		printf '\t\t\t<key>exitCode</key>\n\t\t\t<integer>%d</integer>\n' "$status"
		printf '\t\t\t<key>seconds</key>\n\t\t\t<real>%s</real>\n' "$seconds"
		printf '\t\t</dict>\n'
	} >>"$commands_xml"
}

# record OUTPUT_NAME LAUNCH_PATH [ARGUMENT...]
# Runs the tool directly (no shell in between), its standard output into OUTPUT_NAME in the
# output folder (the working directory); its standard error stays on the terminal. The time
# it took is measured by the shell itself.
record() {
	local name=$1 launch=$2 status=0 seconds
	shift 2
	if [ ! -x "$tool_root$launch" ]; then
		echo "  not installed, left out: $launch" >&2
		return 1
	fi
	printf 'Running %s\n' "$launch $*"
	{ time "$tool_root$launch" "$@" >"./$name" 2>&3; } 3>&2 2>|"$work/seconds" || status=$?
	seconds=$(tail -n 1 "$work/seconds")
	# A locale with a decimal comma; anything else is not a time.
	seconds=${seconds/,/.}
	case $seconds in
	[0-9]*.[0-9][0-9][0-9]) ;;
	*) seconds=0 ;;
	esac
	add_command "$name" "$status" "$seconds" "$launch" "$@"
	printf '  -> %s (exit %d, %s s)\n' "$name" "$status" "$seconds"
	return 0
}

# The value at PATH (keys and indexes joined by ":") of a property list as text ("true"/"false"
# for Booleans); fails when there is none.
plist_value() {
	local file=$1 path=$2
	if [ -x "$tool_root$PLISTBUDDY" ]; then
		"$tool_root$PLISTBUDDY" -c "Print :$path" "$file" 2>/dev/null
	else
		"$tool_root$PLUTIL" -extract "${path//:/.}" raw -o - "$file" 2>/dev/null
	fi
}

echo "Recording this Mac into $out"

# The installed-applications report (the scanner puts the type name before -xml here).
echo "The applications report comes first; on a Mac with many applications it takes minutes."
record system_profiler-SPApplicationsDataType.xml "$SP" SPApplicationsDataType -xml

record sysctl-hw.memsize.txt "$SYSCTL" hw.memsize
record sysctl-hw.ncpu.txt "$SYSCTL" hw.ncpu
record sysctl-kern.hostname.txt "$SYSCTL" kern.hostname

record sw_vers.txt "$SW_VERS"
record sw_vers-productName.txt "$SW_VERS" -productName
record sw_vers-productVersion.txt "$SW_VERS" -productVersion
record sw_vers-buildVersion.txt "$SW_VERS" -buildVersion

for type in SPHardwareDataType SPDisplaysDataType SPDiscBurningDataType SPSerialATADataType \
	SPSASDataType SPUSBDataType SPNetworkDataType SPPrintersDataType SPMemoryDataType; do
	record "system_profiler-$type.xml" "$SP" -xml "$type"
done
# Read by the scanner with REPORT_MODERN_DISKS on, when no Serial-ATA or SAS disk is found.
record system_profiler-SPNVMeDataType.xml "$SP" -xml SPNVMeDataType

# The logged-on users: the scanner passes one argument that is a single blank.
record users.txt "$USERS" " "

# Disks: the list, then one info per entry of VolumesFromDisks (volume names on macOS).
# Info files are numbered by position; a volume name never becomes part of a file name.
volumes=0
if record diskutil-list.plist "$DISKUTIL" list -plist && [ -s diskutil-list.plist ]; then
	while volume=$(plist_value diskutil-list.plist "VolumesFromDisks:$volumes"); do
		volumes=$((volumes + 1))
		record "diskutil-info-$volumes.plist" "$DISKUTIL" info -plist "$volume"
	done
fi

# Then, as the scanner asks with REPORT_MODERN_DISKS on, one info per whole disk of the
# volumes diskutil calls external or removable (not a disk image), each whole disk once.
index=0
whole_disks=" "
whole=0
while [ "$index" -lt "$volumes" ]; do
	index=$((index + 1))
	info=diskutil-info-$index.plist
	[ -s "$info" ] || continue
	[ "$(plist_value "$info" BusProtocol)" != "Disk Image" ] || continue
	if [ "$(plist_value "$info" Internal)" != false ] &&
		[ "$(plist_value "$info" RemovableMediaOrExternalDevice)" != true ]; then
		continue
	fi
	parent=$(plist_value "$info" ParentWholeDisk) || continue
	[ -n "$parent" ] || continue
	case $whole_disks in
	*" $parent "*) continue ;;
	esac
	whole_disks="$whole_disks$parent "
	whole=$((whole + 1))
	record "diskutil-info-whole-$whole.plist" "$DISKUTIL" info -plist "$parent"
done

# Host facts. A fact that cannot be read is left out, as the live platform reports failure.
add_host_text() {
	printf '\t\t<key>%s</key>\n\t\t<string>%s</string>\n' "$1" "$(xml_escape "$2")" >>"$host_xml"
}

host_name=$("$tool_root$HOSTNAME_TOOL" 2>/dev/null) && [ -n "$host_name" ] &&
	add_host_text hostName "$host_name"
computer_name=$("$tool_root$SCUTIL" --get ComputerName 2>/dev/null) && [ -n "$computer_name" ] &&
	add_host_text localizedName "$computer_name"

# IPv4 addresses (family 2) in the order ifconfig lists the interfaces.
addresses=$work/addresses.txt
"$tool_root$IFCONFIG" 2>/dev/null | awk '
	/^[^ \t]/ { name = $1; sub(/:$/, "", name) }
	$1 == "inet" { print name "\t" $2 }' >"$addresses"
if [ -s "$addresses" ]; then
	{
		printf '\t\t<key>interfaces</key>\n\t\t<array>\n'
		while IFS="$(printf '\t')" read -r interface address; do
			printf '\t\t\t<dict>\n'
			printf '\t\t\t\t<key>name</key>\n\t\t\t\t<string>%s</string>\n' "$(xml_escape "$interface")"
			printf '\t\t\t\t<key>family</key>\n\t\t\t\t<integer>2</integer>\n'
			printf '\t\t\t\t<key>address</key>\n\t\t\t\t<string>%s</string>\n' "$(xml_escape "$address")"
			printf '\t\t\t</dict>\n'
		done <"$addresses"
		printf '\t\t</array>\n'
	} >>"$host_xml"
fi

# Page counts as the host statistics call gives them. vm_stat prints "Pages free" without
# the speculative pages, which the statistics record counts as free, so they are added back.
statistics=$("$tool_root$VM_STAT" 2>/dev/null | awk '
	function count(text) { sub(/\.$/, "", text); return text + 0 }
	/page size of/ { for (i = 1; i <= NF; i++) if ($i == "of") size = $(i + 1) }
	/^Pages free:/ { free = count($3) }
	/^Pages speculative:/ { speculative = count($3) }
	/^Pages active:/ { active = count($3) }
	/^Pages inactive:/ { inactive = count($3) }
	/^Pages wired down:/ { wired = count($4) }
	END {
		if (size != "" && free != "" && active != "" && inactive != "" && wired != "")
			printf "%d %d %d %d %d\n", size, free + speculative, active, inactive, wired
	}')
if [ -n "$statistics" ]; then
	# shellcheck disable=SC2086 # five numbers, split on purpose
	set -- $statistics
	{
		printf '\t\t<key>vmStatistics</key>\n\t\t<dict>\n'
		printf '\t\t\t<key>pageSize</key>\n\t\t\t<integer>%s</integer>\n' "$1"
		printf '\t\t\t<key>free</key>\n\t\t\t<integer>%s</integer>\n' "$2"
		printf '\t\t\t<key>active</key>\n\t\t\t<integer>%s</integer>\n' "$3"
		printf '\t\t\t<key>inactive</key>\n\t\t\t<integer>%s</integer>\n' "$4"
		printf '\t\t\t<key>wired</key>\n\t\t\t<integer>%s</integer>\n' "$5"
		printf '\t\t</dict>\n'
	} >>"$host_xml"
fi

manifest=manifest.plist
{
	printf '<?xml version="1.0" encoding="UTF-8"?>\n'
	printf '<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">\n'
	printf '<plist version="1.0">\n<dict>\n'
	printf '\t<key>commands</key>\n\t<array>\n'
	cat "$commands_xml"
	printf '\t</array>\n'
	printf '\t<key>host</key>\n\t<dict>\n'
	cat "$host_xml"
	printf '\t</dict>\n'
	printf '</dict>\n</plist>\n'
} >"$manifest"

if [ -x "$tool_root$PLUTIL" ] && ! "$tool_root$PLUTIL" -lint -s "$manifest"; then
	echo "record-mac.sh: the manifest written is not a valid property list: $out/$manifest" >&2
	exit 1
fi
echo "Done: $out/$manifest"
echo "Warning: $out identifies this Mac and its users (serial numbers, user names, network"
echo "addresses, the installed applications). Only $(id -un) can read it; hand it on only to"
echo "those who need it, and delete it when the work is done."
