#!/usr/bin/env bash
# The two Debian packages in a fresh Debian 12 root:
#  1. makes them (cpack -G DEB in the build folder);
#  2. unpacks a minimal Debian 12 root (debootstrap --variant=minbase with the packages'
#     dependencies, made once per list of dependencies and kept as a tarball in the build
#     folder);
#  3. installs both packages there with dpkg (maintainer scripts included: the server's
#     system user and database folder);
#  4. in private mount and network namespaces, starts the installed server through its
#     systemd unit's ExecStart command line, as the unit's user, chrooted;
#  5. runs the installed scanner (replaying the recorded machine imac-fusion, all other
#     settings as installed) and checks its last line, then the server's /api/computers.
# Usage: tests/deb_install_test.sh BUILD_DIR SOURCE_DIR PREFIX
#   PREFIX: the install prefix the packages were made for (the agent folder)
# Exits 77 (skipped) when not root, without debootstrap, or without namespaces.
set -euo pipefail
# shellcheck source=tests/server_wait.sh
. "$(dirname "$0")/server_wait.sh"

build=$(cd "${1:?build folder}" && pwd)
source_dir=$(cd "${2:?source folder}" && pwd)
base=${3:?install prefix}
work=$build/deb-install-test
root=$work/root
mirror=${TARN_DEBIAN_MIRROR:-http://deb.debian.org/debian}

if [ -z "${TARN_IN_NAMESPACE:-}" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root (debootstrap, dpkg and chroot in a Debian root)"
    exit 77
  fi
  if ! command -v debootstrap >/dev/null; then
    echo "skipped: debootstrap is not installed (scripts/deps.sh installs it)"
    exit 77
  fi
  if ! unshare --mount --net true 2>/dev/null; then
    echo "skipped: cannot make mount and network namespaces here"
    exit 77
  fi
  mkdir -p "$work"
  started=$SECONDS

  echo "== packages (cpack -G DEB)"
  rm -rf "$build/packages"
  if ! (cd "$build" && cpack -G DEB) >"$work/cpack.log" 2>&1; then
    cat "$work/cpack.log"
    exit 1
  fi
  packaged=$SECONDS

  echo "== Debian 12 root"
  # What the packages depend on, without versions: debootstrap installs it with the root.
  depends=$(for deb in "$build"/packages/*.deb; do dpkg-deb -f "$deb" Depends; done |
    tr ',' '\n' | sed 's/[[:space:]]*(.*//; s/^[[:space:]]*//' | grep -v '^$' | sort -u |
    paste -sd, -)
  cache=$work/bookworm-minbase-$(printf '%s' "$depends" | md5sum | cut -c1-12).tar
  if [ ! -f "$cache" ]; then
    rm -rf "$work/bootstrap" "$work"/bookworm-minbase-*.tar
    echo "   debootstrap (once; with $depends)"
    if ! debootstrap --variant=minbase --include="$depends" \
      bookworm "$work/bootstrap" "$mirror" >"$work/debootstrap.log" 2>&1; then
      tail -n 30 "$work/debootstrap.log"
      echo "debootstrap failed (whole output in $work/debootstrap.log)"
      exit 1
    fi
    tar -C "$work/bootstrap" -cf "$cache.part" . && mv "$cache.part" "$cache"
    rm -rf "$work/bootstrap"
    echo "   made $cache in $((SECONDS - packaged)) s"
  fi
  rm -rf "$root"
  mkdir -p "$root"
  tar -C "$root" -xf "$cache"
  rooted=$SECONDS

  # The rest runs in namespaces of its own: /proc mounted for the chroot and a loopback of
  # its own go away with it, whatever happens.
  status=0
  TARN_IN_NAMESPACE=1 unshare --mount --net --fork "$0" "$@" || status=$?
  echo "== times: packages $((packaged - started)) s, root $((rooted - packaged)) s," \
    "install and run $((SECONDS - rooted)) s, total $((SECONDS - started)) s"
  rm -rf "$root"
  exit "$status"
fi

fail() {
  echo "FAILED: $*"
  exit 1
}

mount --make-rprivate /
mount -t proc proc "$root/proc"
ip link set lo up

echo "== installing the packages with dpkg"
cp "$build"/packages/*.deb "$root/tmp/"
chroot "$root" sh -c 'dpkg -i /tmp/tarninventory_*.deb /tmp/tarn-refserver_*.deb' \
  >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i"; }

echo "== checking the installed files"
[ -x "$root$base/bin/tarninventory" ] || fail "no $base/bin/tarninventory"
[ -x "$root$base/bin/tarn-refserver" ] || fail "no $base/bin/tarn-refserver"
[ -f "$root$base/share/tarninventory/Mac_InvClasses.xml" ] || fail "no catalogue under share/"
for file in data-dictionary.xml data-dictionary-inv.xml data-dictionary-framework.xml \
  data-dictionary-onpremise.xml Mac_InvClasses.xml; do
  [ -f "$root$base/data/$file" ] || fail "no $base/data/$file"
done
for file in serverinfo.plist agent-conf.plist; do
  mode=$(stat -c %a "$root$base/data/$file")
  [ "$mode" = 600 ] || fail "$base/data/$file has mode $mode, not 600"
done
unit=$root/lib/systemd/system/tarn-refserver.service
[ -f "$unit" ] || fail "no /lib/systemd/system/tarn-refserver.service"
user=$(sed -n 's/^User=//p' "$unit")
chroot "$root" getent passwd "$user" >/dev/null || fail "postinst made no user $user"
owner=$(chroot "$root" stat -c %U /var/lib/tarn-refserver)
[ "$owner" = "$user" ] || fail "/var/lib/tarn-refserver belongs to $owner, not $user"

echo "== starting the server as its unit does"
exec_start=$(sed -n 's/^ExecStart=//p' "$unit")
read -r -a command <<<"$exec_start"
chroot --userspec="$user:$user" "$root" "${command[@]}" >"$work/server.log" 2>&1 &
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
wait_until_listening "$work/server.log" "$server" ||
  { cat "$work/server.log"; fail "server did not start"; }
address=$(sed -n 's/^listening on //p' "$work/server.log")
echo "   $address, as $user"

echo "== running the installed scanner (recorded machine imac-fusion)"
cp -r "$source_dir/testdata/machines/imac-fusion" "$root$base/data/machine"
cat >"$root$base/data/agent-conf.plist" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>Loglevel</key>
	<integer>3</integer>
	<key>TOOL_REPLAY_DIRECTORY</key>
	<string>machine</string>
</dict>
</plist>
PLIST
scan_status=0
chroot "$root" sh -c "cd $base/bin && exec ./tarninventory assetscan" \
  >"$work/scanner.out" 2>"$work/scanner.err" || scan_status=$?
last=$(tail -n 1 "$work/scanner.err")
echo "   exit code $scan_status: $last"
expected="tarninventory: FullData Success; see $base/logs/tarndevicescan.log"
if [ "$scan_status" -ne 0 ] || [ "$last" != "$expected" ]; then
  tail -n 30 "$root$base/logs/tarndevicescan.log" || true
  fail "the scan did not land: expected \"$expected\""
fi

echo "== the server's JSON (/api/computers)"
json=$(curl -sS --max-time 10 "$address/api/computers")
echo "   $json"
case "$json" in
  *'"name":"studio-imac"'*'"uploadCount":1,'*'"lastKind":"full"'*) ;;
  *) fail "the computer and its full upload are not in /api/computers" ;;
esac
[ -s "$root/var/lib/tarn-refserver/inventory.sqlite" ] || fail "no database in /var/lib/tarn-refserver"
echo "PASSED"
