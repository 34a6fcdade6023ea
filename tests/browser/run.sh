#!/bin/bash
# Calls between the door phone and the web monitor in headless Chromium, through
# Kamailio on 127.0.0.1 (SIP over TCP for the phone, over WebSocket for the page).
#   run.sh PHONE OUTDIR [incoming|outgoing|both]
# incoming: the door calls the page, answered with a click (page over WebSocket);
# outgoing: the page calls the door phone in --auto-answer (page over secure
# WebSocket, Kamailio's certificate from a CA made for the run).
# Each call passes only when the page's getStats() shows video decoded from the
# door and video sent to it, and the phone reports a first remote frame.
# ZARNRTC_BROWSER_DURATION: seconds of the door's call to the page (default 10).
# Exits 0 when every call passed, 77 when Chromium or npm's packages are missing.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
phone=${1:?usage: run.sh PHONE OUTDIR [incoming|outgoing|both]}
out=${2:?usage: run.sh PHONE OUTDIR [incoming|outgoing|both]}
which=${3:-both}
phone=$(cd "$(dirname "$phone")" && pwd)/$(basename "$phone")

chromium=${CHROMIUM:-/usr/bin/chromium}
if [ ! -x "$chromium" ] || [ ! -d "$root/tests/browser/node_modules/puppeteer-core" ] ||
   [ ! -d "$root/examples/web-monitor/node_modules/sip.js" ]; then
  echo "browser test: SKIPPED (needs chromium and scripts/npm-deps.sh)" >&2
  exit 77
fi
export CHROMIUM=$chromium
# Media on loopback: the phone's engine offers 127.0.0.1 only.
export ZARNRTC_MEDIA_ADDRESSES=${ZARNRTC_MEDIA_ADDRESSES:-127.0.0.1}

rm -rf "$out"
mkdir -p "$out/run"
out=$(cd "$out" && pwd)
port=${ZARNRTC_BROWSER_PORT:-$((20000 + RANDOM % 20000))}
tls_port=$((port + 1))
ws_port=$((port + 2))
wss_port=$((port + 3))
duration=${ZARNRTC_BROWSER_DURATION:-10}
domain="127.0.0.1:$port"

pids=()
cleanup() {
  for p in "${pids[@]:-}"; do [ -n "$p" ] && kill "$p" 2>/dev/null || true; done
  bash "$root/scripts/kamailio/stop.sh" "$out/run" || true
}
trap cleanup EXIT

KAMAILIO_WS_PORT=$ws_port KAMAILIO_TLS_PORT=$tls_port KAMAILIO_WSS_PORT=$wss_port \
  KAMAILIO_TLS_CERTS="$out/run/certs" bash "$root/scripts/kamailio/start.sh" "$port" "$out/run" $$
node "$root/examples/web-monitor/serve.js" 0 >"$out/serve.log" 2>&1 &
pids+=("$!")
web=""
for _ in $(seq 1 100); do
  web=$(sed -n 's/^web-monitor: serving on //p' "$out/serve.log")
  [ -n "$web" ] && break
  sleep 0.05
done
[ -n "$web" ] || { echo "browser test: the page server did not start" >&2; cat "$out/serve.log" >&2; exit 1; }
# The page server gives out the page and the library's modules, nothing else.
for path in /sip.js/..%2f..%2fpackage.json /..%2fserve.js /sip.js/%00.js /package-lock.json; do
  code=$(curl -s -o /dev/null -w '%{http_code}' "${web%/}$path" || echo none)
  [ "$code" = 404 ] || { echo "browser test: the page server answered $path with $code" >&2; exit 1; }
done
query="domain=$domain&user=resident&password=resident123"
url="${web}?ws=ws://127.0.0.1:$ws_port&$query"
secure_url="${web}?ws=wss://127.0.0.1:$wss_port&$query&answer=auto"
echo "browser: page $web, Kamailio $domain (ws://127.0.0.1:$ws_port, wss://127.0.0.1:$wss_port)"

wait_for() {  # wait_for FILE TEXT SECONDS
  for _ in $(seq 1 $(($3 * 10))); do
    grep -q "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "browser test: no '$2' in $1 within $3 s" >&2
  return 1
}

failed=0
phone_as_door() {
  ZARNRTC_PASSWORD=door123 ZARNRTC_TEST_PATTERN=smpte exec "$phone" --registrar "$domain" \
    --user door --display-name "Front door" --snapshot-dir "$out/snapshots" "$@"
}

# The door calls the page; Answer is clicked and the door hangs up after $duration s.
incoming() {
  echo "browser: the door calls the page"
  node "$root/tests/browser/browser_call.js" --url "$url" --direction incoming --seconds 2 \
    --hold "$duration" --screenshot "$out/page-incoming.png" >"$out/page-incoming.log" 2>&1 &
  local page=$!
  pids+=("$page")
  wait_for "$out/page-incoming.log" "page: registered" 20 || { cat "$out/page-incoming.log"; return 1; }
  local rc=0
  (phone_as_door --call "sip:resident@$domain" --duration "$duration") >"$out/door-calls.log" 2>&1 || rc=$?
  wait "$page" || rc=$?
  cat "$out/door-calls.log" "$out/page-incoming.log"
  grep -q "first remote frame" "$out/door-calls.log" || { echo "browser test: the door got no frame" >&2; rc=1; }
  return "$rc"
}

# The page calls the door phone, which answers by itself; the page hangs up.
outgoing() {
  echo "browser: the page calls the door"
  (phone_as_door --auto-answer --calls 1 --duration 20) >"$out/door-answers.log" 2>&1 &
  local door=$!
  pids+=("$door")
  wait_for "$out/door-answers.log" "registered as" 10 || { cat "$out/door-answers.log"; return 1; }
  local rc=0
  node "$root/tests/browser/browser_call.js" --url "$secure_url" --direction outgoing --seconds 2 \
    --screenshot "$out/page-outgoing.png" >"$out/page-outgoing.log" 2>&1 || rc=$?
  timeout 20 tail --pid="$door" -f /dev/null || true
  kill "$door" 2>/dev/null || true
  wait "$door" || rc=$?
  cat "$out/door-answers.log" "$out/page-outgoing.log"
  grep -q "first remote frame" "$out/door-answers.log" || { echo "browser test: the door got no frame" >&2; rc=1; }
  return "$rc"
}

if [ "$which" = incoming ] || [ "$which" = both ]; then incoming || failed=1; fi
if [ "$which" = outgoing ] || [ "$which" = both ]; then outgoing || failed=1; fi
if [ "$failed" -ne 0 ]; then
  echo "browser test: FAILED; logs in $out" >&2
  exit 1
fi
echo "browser test: passed ($which); screenshots in $out"
