#!/bin/bash
# Calls between the door phone and the web monitor in headless Chromium, through
# Kamailio on 127.0.0.1 (SIP over TCP for the phone, over WebSocket for the page).
#   run.sh PHONE OUTDIR [incoming|outgoing|refusals|both]
# incoming: the door calls the page, answered with a click (page over WebSocket);
# the page must ring exactly once;
# outgoing: the page calls the door phone in --auto-answer (page over secure
# WebSocket, Kamailio's certificate from a CA made for the run);
# refusals: a plain RTP offer (sipp) for a browser is refused with 488 and a Warning
# before anything rings: by Kamailio for the resident's page, and by the page itself
# where Kamailio lets it through (an account exempt from Kamailio's check).
# Each call passes only when the page's getStats() shows video decoded from the
# door, video sent to it and audio both ways, and the phone reports a first remote
# frame. both: all three.
# ZARNRTC_BROWSER_DURATION: seconds of the door's call to the page (default 10).
# Exits 0 when every call passed, 77 when Chromium, sipp or npm's packages are missing.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=scripts/peers.sh
. "$root/scripts/peers.sh"
phone=${1:?usage: run.sh PHONE OUTDIR [incoming|outgoing|refusals|both]}
out=${2:?usage: run.sh PHONE OUTDIR [incoming|outgoing|refusals|both]}
which=${3:-both}
phone=$(cd "$(dirname "$phone")" && pwd)/$(basename "$phone")

chromium=${CHROMIUM:-/usr/bin/chromium}
if [ ! -x "$chromium" ] || ! command -v sipp >/dev/null || [ ! -d "$root/tests/browser/node_modules/puppeteer-core" ] ||
   [ ! -d "$root/examples/web-monitor/node_modules/sip.js" ]; then
  echo "browser test: SKIPPED (needs chromium, sipp and scripts/npm-deps.sh)" >&2
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
sipp_port=$((port + 4))
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
peers_serve_page "$out/serve.log" || exit 1
pids+=("$peers_page_pid")
web=$peers_page_url
# The page server gives out the page and the library's modules, nothing else.
for path in /sip.js/..%2f..%2fpackage.json /..%2fserve.js /sip.js/%00.js /package-lock.json; do
  code=$(curl -s -o /dev/null -w '%{http_code}' "${web%/}$path" || echo none)
  [ "$code" = 404 ] || { echo "browser test: the page server answered $path with $code" >&2; exit 1; }
done
query="domain=$domain&user=resident&password=resident123"
url="${web}?ws=ws://127.0.0.1:$ws_port&$query"
secure_url="${web}?ws=wss://127.0.0.1:$wss_port&$query&answer=auto"
echo "browser: page $web, Kamailio $domain (ws://127.0.0.1:$ws_port, wss://127.0.0.1:$wss_port)"

failed=0
phone_as_door() {
  ZARNRTC_PASSWORD=door123 ZARNRTC_TEST_PATTERN=smpte exec "$phone" --registrar "$domain" \
    --user door --display-name "Front door" --snapshot-dir "$out/snapshots" "$@"
}

# The door calls the page; Answer is clicked and the door hangs up after $duration s.
# One ring: a resident hears the door once, whatever the door had to try first.
incoming() {
  echo "browser: the door calls the page"
  node "$root/tests/browser/browser_call.js" --url "$url" --direction incoming --seconds 2 \
    --hold "$duration" --expect-rings 1 --screenshot "$out/page-incoming.png" >"$out/page-incoming.log" 2>&1 &
  local page=$!
  pids+=("$page")
  peers_wait_for "$out/page-incoming.log" "page: registered" 20 || { cat "$out/page-incoming.log"; return 1; }
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
  peers_wait_for "$out/door-answers.log" "registered as" 10 || { cat "$out/door-answers.log"; return 1; }
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

# refused ACCOUNT PAGE_QUERY WARNING_RE: the page registered as ACCOUNT; a plain
# offer for it must get 488 with a Warning matching WARNING_RE, no ring.
refused() {
  local account=$1 query=$2 expect=$3 page rc=0 warning
  node "$root/tests/browser/browser_call.js" --url "${web}?ws=ws://127.0.0.1:$ws_port&domain=$domain&$query" \
    --direction none --hold 20 >"$out/page-refuses-$account.log" 2>&1 &
  page=$!
  pids+=("$page")
  peers_wait_for "$out/page-refuses-$account.log" "page: registered" 20 || { cat "$out/page-refuses-$account.log"; return 1; }
  # sipp fails the call on anything but 100 and 488 (a 180 included).
  (cd "$out" && timeout 20 sipp "$domain" -t u1 -i 127.0.0.1 -p "$sipp_port" -m 1 -nostdin \
    -sf "$root/tests/browser/sipp/plain_offer.xml" -s "$account" -key caller door -au door -ap door123 \
    -trace_logs -log_file "$out/sipp-$account.log" -trace_err -error_file "$out/sipp-$account-errors.log" \
    >/dev/null 2>&1) || { echo "browser test: sipp's plain offer to $account was not refused at once" >&2; rc=1; }
  kill -TERM "$page" 2>/dev/null
  wait "$page" || rc=1
  cat "$out/page-refuses-$account.log"
  warning=$(sed -n 's/^warning: *//p' "$out/sipp-$account.log" 2>/dev/null)
  echo "browser: plain offer to $account: Warning: ${warning:-none}"
  grep -Eq "$expect" <<<"$warning" || { echo "browser test: expected a Warning like /$expect/" >&2; rc=1; }
  grep -q 'page: INVITEs [0-9]*, rang 0,' "$out/page-refuses-$account.log" || {
    echo "browser test: the page rang for a plain offer" >&2; rc=1; }
  return "$rc"
}

refusals() {
  echo "browser: plain offers for browsers are refused before they ring"
  # The resident's page: Kamailio refuses, the page never sees the INVITE.
  refused resident "user=resident&password=resident123" '^399 127\.0\.0\.1:[0-9]+ "browsers need DTLS-SRTP"$' &&
    grep -q 'page: INVITEs 0,' "$out/page-refuses-resident.log" || return 1
  # An account Kamailio lets through (the stand-in's) on the resident's page: the
  # page refuses by itself.
  refused standin "user=standin&password=standin123" '^399 web-monitor "browsers need DTLS-SRTP \(offer is RTP/AVPF\)"$' &&
    grep -q 'page: INVITEs 1,' "$out/page-refuses-standin.log"
}

if [ "$which" = incoming ] || [ "$which" = both ]; then incoming || failed=1; fi
if [ "$which" = outgoing ] || [ "$which" = both ]; then outgoing || failed=1; fi
if [ "$which" = refusals ] || [ "$which" = both ]; then refusals || failed=1; fi
if [ "$failed" -ne 0 ]; then
  echo "browser test: FAILED; logs in $out" >&2
  exit 1
fi
echo "browser test: passed ($which); screenshots in $out"
