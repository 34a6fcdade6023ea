#!/bin/bash
# The demo: a door station calls an indoor monitor through a real SIP server, on
# this machine. Installs what is missing (as root), builds in release, starts
# Kamailio on 127.0.0.1, runs the call, stops everything it started.
#   scripts/demo.sh [--forward] [--duration S] [--out DIR]
#   --forward   the door station rings two monitors at once; the first to answer
#               wins and the other is cancelled
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
duration=10
scenario=single
out="$root/build/demo"
while [ $# -gt 0 ]; do
  case "$1" in
    --forward) scenario=forward ;;
    --duration) duration=${2:?}; shift ;;
    --out) out=${2:?}; shift ;;
    -h|--help) sed -n '2,8p' "$0"; exit 0 ;;
    *) echo "demo: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done

bash scripts/setup-deps.sh all
if [ -z "${ZARNRTC_DEMO_BUILD:-}" ]; then
  cmake --preset release >/dev/null
  cmake --build build/release -j"$(nproc)" --target zarnrtc-phone
  phone=build/release/examples/zarnrtc-phone/zarnrtc-phone
else
  phone=$ZARNRTC_DEMO_BUILD/examples/zarnrtc-phone/zarnrtc-phone
fi

# shellcheck source=scripts/gst-env.sh
. scripts/gst-env.sh build/demo-env

port=${ZARNRTC_DEMO_PORT:-$((20000 + RANDOM % 20000))}
run="$out/run"
rm -rf "$out"
mkdir -p "$out/snapshots" "$run"
registrar="127.0.0.1:$port"

pids=()
cleanup() {
  for p in "${pids[@]:-}"; do [ -n "$p" ] && kill "$p" 2>/dev/null || true; done
  bash scripts/kamailio/stop.sh "$run" || true
}
trap cleanup EXIT

echo "demo: starting Kamailio on $registrar"
bash scripts/kamailio/start.sh "$port" "$run" $$

common=(--registrar "$registrar" --snapshot-dir "$out/snapshots")
status=0
if [ "$scenario" = single ]; then
  ZARNRTC_TEST_PATTERN=ball "$phone" "${common[@]}" --user monitor --password monitor123 \
    --display-name "Indoor monitor" --auto-answer >"$out/monitor.log" 2>&1 &
  monitor=$!
  pids+=("$monitor")
  sleep 0.5
  echo "demo: the door station calls the indoor monitor for $duration s"
  ZARNRTC_TEST_PATTERN=smpte "$phone" "${common[@]}" --user door --password door123 \
    --display-name "Front door" --call "sip:monitor@$registrar" --duration "$duration" | tee "$out/door.log" || status=$?
  wait "$monitor" || status=$?
  echo "----- indoor monitor -----"
  cat "$out/monitor.log"
else
  "$phone" "${common[@]}" --user monitor --password monitor123 --display-name "Monitor 1" \
    --auto-answer >"$out/monitor.log" 2>&1 &
  m1=$!
  "$phone" "${common[@]}" --user monitor2 --password monitor123 --display-name "Monitor 2" \
    --auto-answer --answer-delay 3000 --expect-cancel >"$out/monitor2.log" 2>&1 &
  m2=$!
  pids+=("$m1" "$m2")
  sleep 0.5
  echo "demo: the door station rings two monitors; monitor 1 answers first"
  ZARNRTC_TEST_PATTERN=smpte "$phone" "${common[@]}" --user door --password door123 \
    --display-name "Front door" --forward "sip:monitor@$registrar,sip:monitor2@$registrar" --duration "$duration" \
    | tee "$out/door.log" || status=$?
  wait "$m1" || status=$?
  wait "$m2" || status=$?
  echo "----- monitor 1 -----"; cat "$out/monitor.log"
  echo "----- monitor 2 -----"; cat "$out/monitor2.log"
fi

echo
if [ "$status" -eq 0 ]; then
  echo "demo: success. Snapshots (first and last local and remote frame of each side):"
  ls -1 "$out/snapshots"/*.png | sed 's/^/  /'
else
  echo "demo: FAILED (status $status); logs in $out" >&2
fi
exit "$status"
