#!/bin/bash
# Answer the door by hand from a browser on this machine: starts Kamailio on
# 127.0.0.1 with SIP over WebSocket, serves the web monitor, prints its address,
# and has the door station call the page each time Enter is pressed.
#   scripts/web-monitor.sh PHONE OUTDIR      (demo.sh --browser --by-hand runs it)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
phone=${1:?usage: web-monitor.sh PHONE OUTDIR}
out=${2:?usage: web-monitor.sh PHONE OUTDIR}
export ZARNRTC_MEDIA_ADDRESSES=${ZARNRTC_MEDIA_ADDRESSES:-127.0.0.1}
port=${ZARNRTC_DEMO_PORT:-$((20000 + RANDOM % 20000))}
ws_port=$((port + 2))
web_port=${WEB_MONITOR_PORT:-$((port + 3))}
domain="127.0.0.1:$port"
rm -rf "$out"
mkdir -p "$out/run"

pids=()
cleanup() {
  for p in "${pids[@]:-}"; do [ -n "$p" ] && kill "$p" 2>/dev/null || true; done
  bash "$root/scripts/kamailio/stop.sh" "$out/run" || true
}
trap cleanup EXIT

KAMAILIO_WS_PORT=$ws_port bash "$root/scripts/kamailio/start.sh" "$port" "$out/run" $$
node "$root/examples/web-monitor/serve.js" "$web_port" >"$out/serve.log" 2>&1 &
pids+=("$!")
sleep 0.5
cat <<EOT
web-monitor: open this address in Chromium or Firefox on this machine (127.0.0.1
counts as a secure origin, so camera and microphone work without TLS):

  http://127.0.0.1:$web_port/?ws=ws://127.0.0.1:$ws_port&domain=$domain&user=resident

  password: resident123   (add &answer=auto to answer by itself)

Press Enter to have the door station call the page (Ctrl-C ends everything).
EOT
n=0
while read -r _; do
  n=$((n + 1))
  echo "web-monitor: the door calls the page (call $n, 30 s at most; hang up in the page)"
  ZARNRTC_PASSWORD=door123 ZARNRTC_TEST_PATTERN=smpte "$phone" --registrar "$domain" --user door \
    --display-name "Front door" --call "sip:resident@$domain" --duration 30 \
    --snapshot-dir "$out/snapshots" || true
  echo "web-monitor: press Enter for another call, Ctrl-C to stop"
done
