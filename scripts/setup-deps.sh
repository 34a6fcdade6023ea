#!/bin/sh
# Installs the Debian 12 packages the build, the tests and the demo need, if any is
# missing. Run as root (or through sudo). Usage: scripts/setup-deps.sh [core|all]
#   core: SDK, unit tests and the ARM cross build
#   all:  core plus the host engines, the SIP server, the test peers and the
#         browser test's Chromium and node (default)
set -eu

set_name=${1:-all}

core="cmake g++ make pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev
      g++-arm-linux-gnueabihf qemu-user binutils-arm-linux-gnueabihf file dpkg-dev"
engines="libsofia-sip-ua-dev kamailio sip-tester
         libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstreamer-plugins-bad1.0-dev
         gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
         gstreamer1.0-plugins-ugly gstreamer1.0-libav gstreamer1.0-nice gstreamer1.0-tools
         libnice-dev libpng-dev iproute2 procps baresip-core
         kamailio-tls-modules openssl libssl-dev"
# The lossy-network benchmark (bench/lossy): packet loss made with nftables inside a
# private network namespace (unshare and setsid from util-linux).
lossy="nftables util-linux"
# Foreign peers of the interop test (tests/interop): baresip's H264 (avcodec module).
interop="baresip-ffmpeg"
# The web monitor and its browser test: Kamailio's WebSocket transport, the
# system's Chromium (driven headless, never downloaded), node and npm for the
# page's server and the packages of scripts/npm-deps.sh, curl for the test's checks.
browser="chromium kamailio-websocket-modules nodejs curl"
# A node from elsewhere brings its own npm; Debian's would conflict with it.
command -v npm >/dev/null 2>&1 || browser="$browser npm"

case "$set_name" in
  core) wanted=$core ;;
  all) wanted="$core $engines $browser $interop $lossy" ;;
  *) echo "usage: $0 [core|all]" >&2; exit 2 ;;
esac

missing=""
for p in $wanted; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done

if [ -z "$missing" ]; then
  echo "setup-deps: all packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then
    exec sudo "$0" "$@"
  fi
  echo "setup-deps: missing packages:$missing" >&2
  echo "setup-deps: run this script as root to install them" >&2
  exit 1
fi

echo "setup-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing
