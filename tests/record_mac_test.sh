#!/bin/bash
# Tests tools/record-mac.sh on Linux with stand-in tools (RECORD_MAC_TOOL_ROOT): the output
# folder it accepts, the modes of what it writes, what it prints, and that it passes the
# shell linter.
#
# Usage: tests/record_mac_test.sh PATH_TO_record-mac.sh
set -u

script=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
failures=0

fail() {
	echo "FAIL: $*" >&2
	failures=$((failures + 1))
}

# expect_in FILE TEXT: FILE holds TEXT.
expect_in() {
	grep -qF -- "$2" "$1" || fail "$1 does not hold \"$2\": $(cat "$1")"
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A Mac of a few tools; every other tool is "not installed".
root=$work/root
mkdir -p "$root/usr/bin" "$root/usr/sbin"
stub() {
	printf '#!/bin/sh\necho %s\n' "$2" >"$root$1"
	chmod 755 "$root$1"
}
stub /usr/bin/uname Darwin
stub /usr/bin/sw_vers 14.5
stub /usr/bin/users alice
stub /usr/sbin/system_profiler '"report $*"'
# diskutil: an internal volume, two volumes of one USB stick, a mounted disk image.
cat >"$root/usr/sbin/diskutil" <<'STUB'
#!/bin/sh
volume() { printf '<dict>\n<key>%s</key>\n<%s/>\n<key>ParentWholeDisk</key>\n<string>%s</string>\n<key>BusProtocol</key>\n<string>%s</string>\n</dict>\n' "$@"; }
case "$1 $3" in
"list ") printf '<dict>\n<key>VolumesFromDisks</key>\n<array>\n<string>HD</string>\n<string>A</string>\n<string>B</string>\n<string>Image</string>\n</array>\n</dict>\n' ;;
"info HD") volume Internal true disk3 "Apple Fabric" ;;
"info A" | "info B") volume Internal false disk4 USB ;;
"info Image") volume RemovableMediaOrExternalDevice true disk5 "Disk Image" ;;
"info disk4") printf '<dict>\n<key>MediaName</key>\n<string>Flash Drive</string>\n</dict>\n' ;;
*) exit 1 ;;
esac
STUB
# plutil: -extract of a top-level key or of VolumesFromDisks.N from such lists; -lint passes.
cat >"$root/usr/bin/plutil" <<'STUB'
#!/bin/sh
[ "$1" = -lint ] && exit 0
awk -v key="$2" '
	BEGIN { n = split(key, part, "."); name = part[1]; want = n > 1 ? part[2] + 0 : -1 }
	function text(line) { gsub(/.*<string>|<\/string>.*/, "", line); return line }
	found && want < 0 {
		if ($0 ~ /<true\/>/) print "true"; else if ($0 ~ /<false\/>/) print "false"; else print text($0)
		ok = 1; exit
	}
	found && /<\/array>/ { exit }
	found && /<string>/ { if (index_++ == want) { print text($0); ok = 1; exit } }
	$0 == "<key>" name "</key>" { found = 1 }
	END { exit ok ? 0 : 1 }' "$6"
STUB
chmod 755 "$root/usr/sbin/diskutil" "$root/usr/bin/plutil"

# run NAME ARGUMENT...: runs the script, output in $work/NAME.out and .err; gives its status.
run() {
	local name=$1
	shift
	RECORD_MAC_TOOL_ROOT=$root bash "$script" "$@" >"$work/$name.out" 2>"$work/$name.err"
}

# A recording into a new folder: private folder and files, real tool paths, progress, warning.
recording=$work/my-mac
run new "$recording" || fail "a new folder: exit $?: $(cat "$work/new.err")"
[ "$(stat -c %a "$recording")" = 700 ] || fail "folder mode $(stat -c %a "$recording")"
for output in manifest.plist sw_vers-productVersion.txt users.txt; do
	[ -f "$recording/$output" ] || fail "$output missing: $(ls "$recording")"
done
open=$(find "$recording" -type f ! -perm 600)
[ -z "$open" ] || fail "files not 0600: $open"
expect_in "$recording/manifest.plist" "<string>/usr/bin/sw_vers</string>"
grep -qF "$root" "$recording/manifest.plist" && fail "the manifest names the stand-in root"
expect_in "$recording/sw_vers-productVersion.txt" "14.5"
expect_in "$work/new.out" "Running /usr/bin/sw_vers -productVersion"
# Every command carries the seconds it took, with three decimals, as a real number.
commands=$(grep -c "<key>launchPath</key>" "$recording/manifest.plist")
timed=$(grep -A1 "<key>seconds</key>" "$recording/manifest.plist" |
	grep -cE "^[[:space:]]*<real>[0-9]+\.[0-9]{3}</real>$")
{ [ "$commands" -gt 0 ] && [ "$timed" -eq "$commands" ]; } ||
	fail "$timed of $commands commands have their seconds: $(cat "$recording/manifest.plist")"
expect_in "$work/new.out" "takes minutes"
expect_in "$work/new.out" "Warning: $recording identifies this Mac and its users"
# The NVMe report, the volumes, and the stick's whole disk once (not the disk image's).
expect_in "$recording/manifest.plist" "<string>SPNVMeDataType</string>"
expect_in "$recording/system_profiler-SPNVMeDataType.xml" "report -xml SPNVMeDataType"
expect_in "$recording/diskutil-info-4.plist" "Disk Image"
expect_in "$recording/diskutil-info-whole-1.plist" "Flash Drive"
[ "$(grep -c "Running /usr/sbin/diskutil info -plist disk" "$work/new.out")" = 1 ] ||
	fail "whole disks asked for: $(grep "diskutil info" "$work/new.out")"
[ -e "$recording/diskutil-info-whole-2.plist" ] && fail "a second whole disk was recorded"
expect_in "$recording/manifest.plist" "<string>disk4</string>"

# A folder that already exists, even empty, is refused: a link planted in it is not followed.
echo "root only" >"$work/precious"
mkdir "$work/prepared"
ln -s "$work/precious" "$work/prepared/manifest.plist"
run prepared "$work/prepared"
[ $? -eq 2 ] || fail "an existing folder was not refused"
expect_in "$work/prepared.err" "already exists"
[ "$(cat "$work/precious")" = "root only" ] || fail "written through a planted link"
[ "$(ls -A "$work/prepared")" = manifest.plist ] || fail "wrote into an existing folder"
ln -s "$work/nowhere" "$work/dangling"
run dangling "$work/dangling"
[ $? -eq 2 ] || fail "a dangling link was not refused"
[ -e "$work/nowhere" ] && fail "created the target of a dangling link"

# Usage: --help on standard output; a path that looks like an option, or none, refused.
run help --help || fail "--help: exit $?"
expect_in "$work/help.out" "usage: "
[ -s "$work/help.err" ] && fail "--help wrote to standard error"
for arguments in -x "" "a b"; do
	# shellcheck disable=SC2086 # "a b" is two arguments on purpose
	(cd "$work" && run refused $arguments)
	[ $? -eq 2 ] || fail "arguments \"$arguments\" not refused with status 2"
	expect_in "$work/refused.err" "usage: "
done
for path in -x a b; do
	[ -e "$work/$path" ] && fail "a refused run created $path"
done

if command -v shellcheck >/dev/null; then
	shellcheck "$script" "$0" || fail "shellcheck"
else
	echo "shellcheck is not installed: not checked"
fi

[ "$failures" -eq 0 ] || exit 1
echo "record-mac.sh: all checks passed"
