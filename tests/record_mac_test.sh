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

# A Mac of three tools; every other tool is "not installed".
root=$work/root
mkdir -p "$root/usr/bin"
stub() {
	printf '#!/bin/sh\necho %s\n' "$2" >"$root$1"
	chmod 755 "$root$1"
}
stub /usr/bin/uname Darwin
stub /usr/bin/sw_vers 14.5
stub /usr/bin/users alice

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
