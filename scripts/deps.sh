#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with.
#   scripts/deps.sh          everything: building, the tests, the fuzz targets, packaging
#   scripts/deps.sh --demo   only what the demo needs (building the scanner and the server)
# As root, missing packages are installed (one `apt-get update`, then one install).
# Otherwise the missing ones are listed and the script fails.
set -euo pipefail

demo_packages=(
  cmake g++ make pkg-config
  curl            # the demo asks the reference server what it holds
  libxml2-dev libplist-dev libcurl4-openssl-dev libcpp-httplib-dev libssl-dev
  libsqlite3-dev  # the reference server's database (tools/refserver)
  nlohmann-json3-dev libcli11-dev  # the reference server's JSON reader and command line
)
test_packages=(
  libgtest-dev libgmock-dev
  openssl         # certificates made by the HTTPS tests
  zlib1g-dev      # the reference server's test of compressed uploads
  chromium        # headless browser of the reference server's page test
  clang libclang-rt-14-dev  # the fuzz targets (fuzz/run.sh): clang with libFuzzer
  dpkg-dev        # dpkg-shlibdeps: the Debian packages' dependencies (cpack)
  debootstrap iproute2  # the package test: a Debian 12 root, its server asked over loopback
  shellcheck      # every shell script is checked
)

packages=("${demo_packages[@]}")
case "${1:-}" in
  --demo) ;;
  "") packages+=("${test_packages[@]}") ;;
  *) echo "usage: scripts/deps.sh [--demo]" >&2; exit 2 ;;
esac

missing=()
for pkg in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$pkg")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "missing Debian packages: ${missing[*]}" >&2
  echo "install them with: apt-get install -y --no-install-recommends ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
