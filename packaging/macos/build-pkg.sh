#!/usr/bin/env bash
# Builds the macOS installer package of the scanner, on a Mac (pkgbuild comes with the Xcode
# command line tools):
#   packaging/macos/build-pkg.sh [--build DIR] [--identity "Developer ID Installer: ..."]
# It builds the scanner (Release, in DIR, default build-macos), installs the agent folder into
# a payload root at /opt/tarninventory (bin/tarninventory, data/, logs/ with mode 0700), adds the
# LaunchDaemon org.tarn.tarninventory (a daily "scheduled" scan) and writes
# DIR/tarninventory-VERSION.pkg. A postinstall script loads the daemon. Signing is optional.
set -euo pipefail
cd "$(dirname "$0")/../.."

build="build-macos"
identity=
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=${2:?--build needs a folder}; shift ;;
    --identity) identity=${2:?--identity needs a name}; shift ;;
    *) echo "usage: packaging/macos/build-pkg.sh [--build DIR] [--identity NAME]" >&2; exit 2 ;;
  esac
  shift
done

if ! command -v pkgbuild >/dev/null; then
  echo "pkgbuild not found: the package is built on a Mac" >&2
  exit 1
fi

base=/opt/tarninventory
label=org.tarn.tarninventory
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTARN_TESTS=OFF -DCMAKE_INSTALL_PREFIX="$base"
cmake --build "$build" --target tarninventory -j "$(sysctl -n hw.ncpu 2>/dev/null || echo 2)"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")

payload=$build/pkg-root
scripts=$build/pkg-scripts
rm -rf "$payload" "$scripts"
mkdir -p "$payload/Library/LaunchDaemons" "$scripts"
DESTDIR="$payload" cmake --install "$build" --component scanner
install -d -m 0700 "$payload$base/logs"
install -m 0644 "packaging/macos/$label.plist" "$payload/Library/LaunchDaemons/$label.plist"

cat >"$scripts/postinstall" <<SCRIPT
#!/bin/sh
# Loads the daily scan; an earlier version's is unloaded first.
launchctl bootout system/$label 2>/dev/null || true
launchctl bootstrap system /Library/LaunchDaemons/$label.plist
exit 0
SCRIPT
chmod 0755 "$scripts/postinstall"

package=$build/tarninventory-$version.pkg
sign=()
if [ -n "$identity" ]; then
  sign=(--sign "$identity")
fi
pkgbuild --root "$payload" --scripts "$scripts" --identifier "$label" --version "$version" \
  --ownership recommended ${sign[@]+"${sign[@]}"} "$package"
echo "$package"
