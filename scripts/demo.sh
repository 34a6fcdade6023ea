#!/bin/bash
# The demo: a door station calls an indoor monitor through a real SIP server, on
# this machine. Installs what is missing (as root), builds in release, starts
# Kamailio on 127.0.0.1, runs the call, stops everything it started.
#   scripts/demo.sh [--forward] [--tls] [--duration S] [--out DIR]
#   --forward   the door station rings two monitors at once; the first to answer
#               wins and the other is cancelled
#   --serve     the indoor monitor answers two visitors in a row and keeps serving
#               until it is stopped
#   --tls       the phones reach Kamailio over TLS (sips:), trusting a CA made for
#               this run
#   --browser   the door station calls the web monitor (examples/web-monitor) in
#               headless Chromium; prints the phone's timeline and the page's time to
#               its first decoded frame, and writes the page's screenshot
#   --browser --by-hand
#               serves the web monitor and prints its address: open it in a browser
#               on this machine, then press Enter to have the door call it
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
duration=10
scenario=single
tls=0
by_hand=0
out="$root/build/demo"
while [ $# -gt 0 ]; do
  case "$1" in
    --forward) scenario=forward ;;
    --serve) scenario=serve ;;
    --tls) tls=1 ;;
    --browser) scenario=browser ;;
    --by-hand) by_hand=1 ;;
    --duration) duration=${2:?}; shift ;;
    --out) out=${2:?}; shift ;;
    -h|--help) sed -n '2,17p' "$0"; exit 0 ;;
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
# Everything runs on loopback: media offers 127.0.0.1 only, as SIP binds there.
export ZARNRTC_MEDIA_ADDRESSES=${ZARNRTC_MEDIA_ADDRESSES:-127.0.0.1}

if [ "$scenario" = browser ]; then
  bash scripts/npm-deps.sh
  if [ "$by_hand" = 1 ]; then
    exec bash scripts/web-monitor.sh "$phone" "$out"
  fi
  [ "$duration" -ge 5 ] || duration=5  # the page needs a few seconds of video
  echo "demo: the door station calls the web monitor in headless Chromium for $duration s"
  status=0
  ZARNRTC_BROWSER_DURATION=$duration bash tests/browser/run.sh "$phone" "$out" incoming \
    | tee "$out.log" || status=$?
  echo
  if [ "$status" -eq 0 ]; then
    echo "demo: success. $(grep -o 'first decoded door frame.*' "$out.log" | head -1)"
    echo "demo: the page's screenshot: $out/page-incoming.png"
    echo "demo: the door's snapshots of the browser's camera: $out/snapshots/"
  else
    echo "demo: FAILED (status $status); logs in $out" >&2
  fi
  exit "$status"
fi

port=${ZARNRTC_DEMO_PORT:-$((20000 + RANDOM % 20000))}
run="$out/run"
rm -rf "$out"
mkdir -p "$out/snapshots" "$run"
domain="127.0.0.1:$port"
registrar=$domain
if [ "$tls" = 1 ]; then
  tls_port=$((port + 1))
  export KAMAILIO_TLS_PORT=$tls_port KAMAILIO_TLS_CERTS="$run/certs"
  export ZARNRTC_SIP_CA_FILE="$run/certs/ca.pem"
  domain="127.0.0.1:$tls_port"
  registrar="sips:$domain"
fi

pids=()
cleanup() {
  for p in "${pids[@]:-}"; do [ -n "$p" ] && kill "$p" 2>/dev/null || true; done
  bash scripts/kamailio/stop.sh "$run" || true
}
trap cleanup EXIT

echo "demo: starting Kamailio on $registrar"
bash scripts/kamailio/start.sh "$port" "$run" $$

# A phone takes its password from the environment, not from its command line.
phone_as() {
  local password=$1
  shift
  ZARNRTC_PASSWORD=$password exec "$phone" "$@"  # only ever run in a subshell (& or |)
}

# The door calls only once every monitor is registered.
wait_registered() {
  for log in "$@"; do
    for _ in $(seq 1 100); do
      grep -q "registered as" "$log" 2>/dev/null && break
      sleep 0.1
    done
  done
}

common=(--registrar "$registrar" --snapshot-dir "$out/snapshots")
status=0
if [ "$scenario" = single ]; then
  ZARNRTC_TEST_PATTERN=ball phone_as monitor123 "${common[@]}" --user monitor \
    --display-name "Indoor monitor" --auto-answer --calls 1 >"$out/monitor.log" 2>&1 &
  monitor=$!
  pids+=("$monitor")
  wait_registered "$out/monitor.log"
  echo "demo: the door station calls the indoor monitor for $duration s"
  ZARNRTC_TEST_PATTERN=smpte phone_as door123 "${common[@]}" --user door \
    --display-name "Front door" --call "sip:monitor@$domain" --duration "$duration" | tee "$out/door.log" || status=$?
  wait "$monitor" || status=$?
  echo "----- indoor monitor -----"
  cat "$out/monitor.log"
elif [ "$scenario" = serve ]; then
  ZARNRTC_TEST_PATTERN=ball phone_as monitor123 "${common[@]}" --user monitor \
    --display-name "Indoor monitor" --auto-answer >"$out/monitor.log" 2>&1 &
  monitor=$!
  pids+=("$monitor")
  wait_registered "$out/monitor.log"
  for visitor in 1 2; do
    echo "demo: visitor $visitor rings the indoor monitor for $duration s"
    ZARNRTC_TEST_PATTERN=smpte phone_as door123 "${common[@]}" --user door --quiet \
      --display-name "Front door" --call "sip:monitor@$domain" --duration "$duration" \
      | tee "$out/door$visitor.log" || status=$?
  done
  # Still serving after both calls: it stops only when asked to.
  kill -0 "$monitor" 2>/dev/null || status=5
  kill -TERM "$monitor" 2>/dev/null || true
  wait "$monitor" || status=$?
  echo "----- indoor monitor -----"
  cat "$out/monitor.log"
  grep -q "calls: 2 (answered 2, not as expected 0)" "$out/monitor.log" || status=6
  # Each served call has its own first frame and its own summary.
  [ "$(grep -c 'first remote frame' "$out/monitor.log")" -eq 2 ] || status=7
  [ "$(grep -c '^call [0-9]* summary: the far end hung up' "$out/monitor.log")" -eq 2 ] || status=7
else
  phone_as monitor123 "${common[@]}" --user monitor --display-name "Monitor 1" \
    --auto-answer --calls 1 >"$out/monitor.log" 2>&1 &
  m1=$!
  phone_as monitor123 "${common[@]}" --user monitor2 --display-name "Monitor 2" \
    --auto-answer --calls 1 --answer-delay 3000 --expect-cancel >"$out/monitor2.log" 2>&1 &
  m2=$!
  pids+=("$m1" "$m2")
  wait_registered "$out/monitor.log" "$out/monitor2.log"
  echo "demo: the door station rings two monitors; monitor 1 answers first"
  ZARNRTC_TEST_PATTERN=smpte phone_as door123 "${common[@]}" --user door \
    --display-name "Front door" --forward "sip:monitor@$domain,sip:monitor2@$domain" --duration "$duration" \
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
