#!/bin/bash
# Interop: the door phone against real foreign peers, both directions, media
# asserted both ways from each side's own figures.
#   tests/interop/run.sh PHONE OUTDIR [CASE[/in|/out]...]     (default: every case)
# Cases (peer, the profile it speaks, the video codec the door should pick):
#   standin        Chromium started with --disable-webrtc-encryption running the web
#                  monitor as a device stand-in (plain RTP/AVPF with ICE), H264
#   chromium       Chromium as a resident's browser (DTLS-SRTP), H264
#   chromium-vp8   the same page offering and answering VP8 only, as a browser
#                  without H264
#   baresip-plain  baresip 1.0 with ICE and plain RTP/AVP, H264 (avcodec)
#   baresip-dtls   baresip 1.0 with ICE and DTLS-SRTP, H264
# Directions: in (the peer calls the door, which answers by itself) and out (the
# door calls the peer, which answers by itself). Chromium runs on 127.0.0.1 as in
# tests/browser; baresip, its Kamailio and the phone run in a private network
# namespace (baresip's ICE ignores 127.0.0.0/8; 10.200.0.1 on its loopback).
# A call passes when the door decoded video and got audio (its own output and
# timeline), and the peer decoded video, got audio and sent both (its getStats() or
# baresip's own video_debug/audio_debug); anything else fails with what was missing.
# Prints one line per call and writes OUTDIR/interop.md (the matrix); per call,
# OUTDIR/CASE-DIRECTION/ keeps both sides' logs and the door's snapshots.
# Exit: 0 all passed, 1 a call failed, 77 none failed but some were skipped.
# ZARNRTC_INTEROP_SECONDS: seconds of media per call (default 6).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
# shellcheck source=scripts/peers.sh
. "$root/scripts/peers.sh"

all_cases="standin chromium chromium-vp8 baresip-plain baresip-dtls"
seconds=${ZARNRTC_INTEROP_SECONDS:-6}
netns_addr=10.200.0.1

# describe CASE: the case's peer and what it speaks (c_* variables); 1 if unknown.
describe() {
  c_plain=0 c_page="" c_menc=""
  case "$1" in
    standin)
      c_peer="Chromium without encryption (device stand-in)" c_kind=page
      c_profile="plain RTP/AVPF, ICE" c_codec=H264 c_plain=1 c_user=standin
      c_page="user=standin&password=standin123&plain=1" ;;
    chromium)
      c_peer="Chromium" c_kind=page c_profile="DTLS-SRTP, ICE" c_codec=H264 c_user=resident
      c_page="user=resident&password=resident123" ;;
    chromium-vp8)
      c_peer="Chromium, VP8 only" c_kind=page c_profile="DTLS-SRTP, ICE" c_codec=VP8 c_user=resident
      c_page="user=resident&password=resident123&codec=VP8" ;;
    baresip-plain)
      c_peer="baresip 1.0" c_kind=baresip c_profile="plain RTP/AVP, ICE" c_codec=H264 c_user=bob ;;
    baresip-dtls)
      c_peer="baresip 1.0" c_kind=baresip c_profile="DTLS-SRTP, ICE" c_codec=H264 c_user=bob
      c_menc=";mediaenc=dtls_srtp" ;;
    *) return 1 ;;
  esac
}

# The phone as the door, with the SIP wire trace and the media timeline (what the
# verdict reads), and ring bounds short enough for a test: a call nobody answers
# ends in 8 s with a reason instead of ringing for a minute.
door() {
  ZARNRTC_PASSWORD=door123 ZARNRTC_TEST_PATTERN=smpte ZARNRTC_SIP_LOG=1 ZARNRTC_TIMELINE=1 \
    ZARNRTC_SIP_OUTGOING_RING_S=8 ZARNRTC_SIP_INCOMING_RING_S=8 \
    exec timeout 60 "$phone" --registrar "$domain" --user door --display-name "Front door" \
    --snapshot-dir "$call_dir/snapshots" "$@"
}

verdict() {  # verdict CASE DIRECTION PEER_FIGURES PEER_LOG
  describe "$1"
  node "$here/verdict.js" call --case "$1" --peer "$c_peer" --direction "$2" --profile "$c_profile" \
    --codec "$c_codec" --door "$call_dir/door.log" --peer-kind "$c_kind" --peer-figures "$3" \
    --peer-log "$4" --results "$out/results.jsonl"
}

note() {  # note skipped|FAILED CASE DIRECTION WHY: a call that could not be made
  describe "$2"
  node "$here/verdict.js" note --result "$1" --case "$2" --peer "$c_peer" --direction "$3" \
    --profile "$c_profile" --codec "$c_codec" --why "$4" --results "$out/results.jsonl"
}

pids=()
stop_pids() {
  local p
  for p in "${pids[@]:-}"; do [ -n "$p" ] && kill "$p" 2>/dev/null; done
  pids=()
}

# ------------------------------------------------------------------ Chromium --
# page_call CASE DIRECTION: the page in headless Chromium (tests/browser's driver)
# and the door through Kamailio's WebSocket.
page_call() {
  local c=$1 d=$2 url page door_pid
  describe "$c"
  url="${peers_page_url}?ws=ws://127.0.0.1:$ws_port&domain=$domain&$c_page"
  local drive=(timeout 60 node "$root/tests/browser/browser_call.js" --plain "$c_plain" --wait 12)
  if [ "$d" = out ]; then
    "${drive[@]}" --url "$url&answer=auto" --direction incoming --seconds 3 --hold "$seconds" \
      --expect-rings 1 --screenshot "$call_dir/page.png" >"$call_dir/peer.log" 2>&1 &
    page=$!
    pids+=("$page")
    if peers_wait_for "$call_dir/peer.log" 'page: registered|FAILED' 20 &&
       grep -q 'page: registered' "$call_dir/peer.log"; then
      (door --call "sip:$c_user@$domain" --duration "$seconds") >"$call_dir/door.log" 2>&1
    fi
    wait "$page"
  else
    (door --auto-answer --calls 1 --duration 20) >"$call_dir/door.log" 2>&1 &
    door_pid=$!
    pids+=("$door_pid")
    if peers_wait_for "$call_dir/door.log" 'registered as' 10; then
      "${drive[@]}" --url "$url" --direction outgoing --seconds 4 --screenshot "$call_dir/page.png" \
        >"$call_dir/peer.log" 2>&1
    fi
    # The door ends when the page hangs up; a page that never called leaves it waiting.
    timeout 25 tail --pid="$door_pid" -f /dev/null || kill "$door_pid" 2>/dev/null
    wait "$door_pid" 2>/dev/null
  fi
  sed -n 's/^RESULT //p' "$call_dir/peer.log" | tail -n 1 >"$call_dir/peer.json"
  verdict "$c" "$d" "$call_dir/peer.json" "$call_dir/peer.log"
  return 0
}

host_cases() {
  local port ws_port
  port=$((20000 + RANDOM % 20000))
  ws_port=$((port + 2))
  domain="127.0.0.1:$port"
  export ZARNRTC_MEDIA_ADDRESSES=127.0.0.1
  trap 'stop_pids; bash "$root/scripts/kamailio/stop.sh" "$out/kamailio-host"' EXIT
  trap 'exit 130' INT TERM
  KAMAILIO_WS_PORT=$ws_port bash "$root/scripts/kamailio/start.sh" "$port" "$out/kamailio-host" $$ ||
    return 1
  peers_serve_page "$out/page-server.log" || return 1
  pids+=("$peers_page_pid")
  local item
  for item in "$@"; do
    call_dir="$out/${item%/*}-${item#*/}"
    mkdir -p "$call_dir"
    page_call "${item%/*}" "${item#*/}"
  done
}

# ------------------------------------------------------------------- baresip --
# Inside the namespace: Kamailio on 127.0.0.1:5060, baresip as bob (auto-answer,
# SIP 5080, ctrl_tcp 5085), the phone as door; media on 10.200.0.1.
bs_ctrl=5085

baresip_start() {  # baresip_start CASE
  describe "$1"
  bs_dir="$out/baresip-$1"
  # G.711 for audio; H264 first, then VP8 for video.
  peers_baresip_config "$bs_dir" 5080 "$bs_ctrl" 640x480 15 g711 avcodec vp8
  echo "<sip:bob@127.0.0.1:5060;transport=tcp>;auth_pass=bob123;medianat=ice${c_menc};answermode=auto;regint=600" \
    >"$bs_dir/accounts"
  timeout 120 stdbuf -oL -eL baresip -f "$bs_dir" </dev/null >"$bs_dir/baresip.log" 2>&1 &
  bs_pid=$!
  pids+=("$bs_pid")
  peers_wait_for "$bs_dir/baresip.log" '200 OK.*binding' 10
}

baresip_stop() {
  kill "$bs_pid" 2>/dev/null
  wait "$bs_pid" 2>/dev/null
}

bs_established() {  # bs_established FROM_LINE: 0 once established, 1 if ended or 10 s passed
  local _ lines
  for _ in $(seq 1 100); do
    lines=$(tail -n +"$1" "$bs_dir/baresip.log")
    grep -q 'Call established' <<<"$lines" && return 0
    grep -q 'terminated' <<<"$lines" && return 1
    sleep 0.1
  done
  return 1
}

# baresip_call CASE DIRECTION: baresip's figures are polled during the call.
baresip_call() {
  local c=$1 d=$2 from watch door_pid
  from=$(($(wc -l <"$bs_dir/baresip.log") + 1))
  node "$here/baresip.js" watch "$bs_ctrl" "$call_dir/peer.json" &
  watch=$!
  pids+=("$watch")
  if [ "$d" = out ]; then
    (door --call "sip:bob@127.0.0.1:5060" --duration "$seconds") >"$call_dir/door.log" 2>&1
  else
    (door --auto-answer --calls 1 --duration 20) >"$call_dir/door.log" 2>&1 &
    door_pid=$!
    pids+=("$door_pid")
    if peers_wait_for "$call_dir/door.log" 'registered as' 10; then
      node "$here/baresip.js" send "$bs_ctrl" dial "sip:door@127.0.0.1:5060" >/dev/null
      # Media for $seconds once established within the ring bound; else give up.
      bs_established "$from" && sleep "$seconds"
      node "$here/baresip.js" send "$bs_ctrl" hangup >/dev/null
    fi
    timeout 25 tail --pid="$door_pid" -f /dev/null || kill "$door_pid" 2>/dev/null
    wait "$door_pid" 2>/dev/null
  fi
  sleep 0.5
  kill "$watch" 2>/dev/null
  wait "$watch" 2>/dev/null
  # baresip's log for this call, without its status line and the watcher's polls
  # before the call began.
  tail -n +"$from" "$bs_dir/baresip.log" | sed 's/\x1b\[[0-9;]*m//g; s/\r/\n/g' |
    grep -v -e '^\[0:' -e '^ctrl_tcp: error processing command' >"$call_dir/peer.log"
  verdict "$c" "$d" "$call_dir/peer.json" "$call_dir/peer.log"
}

netns_cases() {
  domain="127.0.0.1:5060"
  export ZARNRTC_MEDIA_ADDRESSES=$netns_addr ZARNRTC_SIP_BIND=127.0.0.1
  trap 'stop_pids; bash "$root/scripts/kamailio/stop.sh" "$out/kamailio-netns"' EXIT
  trap 'exit 130' INT TERM
  peers_netns_up "$netns_addr" || return 1
  bash "$root/scripts/kamailio/start.sh" 5060 "$out/kamailio-netns" $$ || return 1
  local c d item
  for c in $all_cases; do
    local mine=()
    for item in "$@"; do [ "${item%/*}" = "$c" ] && mine+=("${item#*/}"); done
    [ ${#mine[@]} -gt 0 ] || continue
    if ! baresip_start "$c"; then
      for d in "${mine[@]}"; do note FAILED "$c" "$d" "baresip did not register (see $bs_dir/baresip.log)"; done
      baresip_stop
      continue
    fi
    for d in "${mine[@]}"; do
      call_dir="$out/$c-$d"
      mkdir -p "$call_dir"
      baresip_call "$c" "$d"
    done
    baresip_stop
  done
}

# ---------------------------------------------------------------------- main --
# The two groups run as their own invocations under timeout, each in its own process
# group, so that stopping this script stops all of theirs.
case "${1:-}" in
  --host | --netns)  # run.sh --host|--netns PHONE OUTDIR CASE/DIR...
    group=$1 phone=$2 out=$3
    shift 3
    if [ "$group" = --host ]; then host_cases "$@"; else netns_cases "$@"; fi
    exit $? ;;
esac

usage() { echo "usage: run.sh PHONE OUTDIR [CASE[/in|/out]...]  (cases: $all_cases)" >&2; exit 2; }
[ $# -ge 2 ] || usage
phone=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
out=$2
shift 2
[ -x "$phone" ] || { echo "interop: $phone is not an executable" >&2; exit 2; }
items=()
for arg in "${@:-$all_cases}"; do
  for c in $arg; do
    case "$c" in
      */in|*/out) describe "${c%/*}" || usage; items+=("$c") ;;
      *) describe "$c" || usage; items+=("$c/in" "$c/out") ;;
    esac
  done
done

rm -rf "$out"
mkdir -p "$out"
out=$(cd "$out" && pwd)
# shellcheck source=scripts/gst-env.sh
. "$root/scripts/gst-env.sh" "$root/build/interop-env"

page_items=() bs_items=()
no_page=""
if [ ! -x "${CHROMIUM:-/usr/bin/chromium}" ] || [ ! -d "$root/tests/browser/node_modules/puppeteer-core" ] ||
   [ ! -d "$root/examples/web-monitor/node_modules/sip.js" ]; then
  no_page="needs chromium (scripts/setup-deps.sh) and the npm packages (scripts/npm-deps.sh)"
fi
no_netns=$(peers_netns_missing)
for item in "${items[@]}"; do
  describe "${item%/*}"
  if [ "$c_kind" = page ]; then
    if [ -n "$no_page" ]; then note skipped "${item%/*}" "${item#*/}" "$no_page"; else page_items+=("$item"); fi
  else
    if [ -n "$no_netns" ]; then note skipped "${item%/*}" "${item#*/}" "$no_netns"; else bs_items+=("$item"); fi
  fi
done

echo "interop: ${#items[@]} calls, $seconds s of media each; logs in $out"
child=""
# timeout passes the signal to its whole process group.
trap '[ -n "$child" ] && kill -TERM "$child" 2>/dev/null; wait; exit 130' INT TERM
run_group() {  # run_group WHAT COMMAND...
  local what=$1
  shift
  timeout 300 "$@" &
  child=$!
  wait "$child" || echo "interop: the $what could not be set up, or ran out of time" >&2
  child=""
}
[ ${#page_items[@]} -eq 0 ] || run_group "Chromium cases" bash "$0" --host "$phone" "$out" "${page_items[@]}"
[ ${#bs_items[@]} -eq 0 ] || run_group "baresip cases" unshare -n -- bash "$0" --netns "$phone" "$out" "${bs_items[@]}"
# A call that never got a verdict (its set-up failed) is a failure, not a pass.
for item in "${items[@]}"; do
  c=${item%/*} d=${item#*/}
  grep -q "\"case\":\"$c\",\"peer\":\"[^\"]*\",\"direction\":\"$d\"" "$out/results.jsonl" 2>/dev/null && continue
  note FAILED "$c" "$d" "not run: its set-up failed (see the log above)"
done
echo
node "$here/verdict.js" matrix --results "$out/results.jsonl" --markdown "$out/interop.md"
