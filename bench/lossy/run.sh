#!/bin/bash
# Media under packet loss: bench_lossy (a zarnrtc-phone door calls the benchmark's own
# SDK engine through Kamailio, then Chromium talks to itself) at each loss rate, in a
# private network namespace whose only device is loopback, nftables dropping a share
# of every UDP datagram. Builds nothing.
#   bench/lossy/run.sh PATH/TO/zarnrtc-phone PATH/TO/bench_lossy [--rates 0,2,5,10,20] [--seconds 15]
#     [--variants H264,VP8,H264/dtls,VP8/dtls] [--max-damaged N]
# A short run: --rates 0,10 --seconds 5 --variants H264,VP8/dtls. Needs root (the namespace and nftables):
# exits 77 when not root or when a tool is missing. Every process it starts runs in
# one process group, stopped at the end. Debian packages: nftables, kamailio,
# util-linux, iproute2, chromium, nodejs (puppeteer-core from scripts/npm-deps.sh).
set -u

root=$(cd "$(dirname "$0")/../.." && pwd)
usage() { echo "usage: $0 PATH/TO/zarnrtc-phone PATH/TO/bench_lossy [--rates LIST] [--seconds S] [--variants LIST] [--max-damaged N]" >&2; exit 2; }
phone=${1:-}
bench=${2:-}
if [ -z "$phone" ] || [ -z "$bench" ]; then usage; fi
shift 2
rates=0,2,5,10,20
seconds=15
variants=H264,VP8,H264/dtls,VP8/dtls
more=()
while [ $# -gt 0 ]; do
  case "$1" in
    --rates) rates=${2:?}; shift ;;
    --seconds) seconds=${2:?}; shift ;;
    --variants) variants=${2:?}; shift ;;
    --max-damaged) more+=(--max-damaged "${2:?}"); shift ;;
    *) usage ;;
  esac
  shift
done
for f in "$phone" "$bench"; do
  [ -x "$f" ] || { echo "run.sh: $f is not an executable (build the release preset first)" >&2; exit 2; }
done
phone=$(cd "$(dirname "$phone")" && pwd)/$(basename "$phone")
bench=$(cd "$(dirname "$bench")" && pwd)/$(basename "$bench")

if [ "$(id -u)" -ne 0 ]; then
  echo "lossy benchmark: SKIPPED: needs root (a private network namespace and nftables)" >&2
  exit 77
fi
missing=""
for tool in unshare ip nft kamailio node setsid; do
  command -v "$tool" >/dev/null 2>&1 || missing="$missing $tool"
done
chromium=${CHROMIUM:-/usr/bin/chromium}
[ -x "$chromium" ] || missing="$missing chromium"
[ -d "$root/tests/browser/node_modules/puppeteer-core" ] || missing="$missing puppeteer-core(scripts/npm-deps.sh)"
if [ -n "$missing" ]; then
  echo "lossy benchmark: SKIPPED: missing$missing (scripts/setup-deps.sh, scripts/npm-deps.sh)" >&2
  exit 77
fi
export CHROMIUM=$chromium

# shellcheck source=scripts/gst-env.sh
. "$root/scripts/gst-env.sh" "$root/build/bench-env"
export ZARNRTC_MEDIA_ADDRESSES=127.0.0.1 ZARNRTC_AUDIO_OUTPUT=none

# Per rate: a call per variant, and Chromium's two codecs; plus start-up.
n_rates=$(tr ',' '\n' <<<"$rates" | grep -c .)
n_variants=$(tr ',' '\n' <<<"$variants" | grep -c .)
limit=$((n_rates * ((n_variants + 2) * seconds + 40 * n_variants + 60) + 60))

group=""
# shellcheck disable=SC2317  # called through the EXIT trap
cleanup() {
  if [ -n "$group" ] && kill -0 -- "-$group" 2>/dev/null; then
    kill -TERM -- "-$group" 2>/dev/null
    for _ in $(seq 1 50); do kill -0 -- "-$group" 2>/dev/null || break; sleep 0.1; done
    kill -KILL -- "-$group" 2>/dev/null
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# A session (and process group) of its own: the benchmark, the phones, Kamailio,
# node and Chromium all belong to it, so the cleanup reaches every one of them.
setsid timeout --kill-after=10 "$limit" unshare -n -- bash -c 'ip link set lo up && exec "$@"' lossy \
  "$bench" --phone "$phone" --rates "$rates" --seconds "$seconds" --variants "$variants" "${more[@]}" \
  --chromium "$root/bench/lossy/chromium_pair.js" &
group=$!
wait "$group"
status=$?
[ "$status" -eq 124 ] && echo "lossy benchmark: timed out after $limit s" >&2
exit "$status"
