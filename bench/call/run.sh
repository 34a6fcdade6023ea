#!/bin/bash
# Call set-up: ZarnRtc (bench_call) against two baresip user agents, same figures,
# one table that says what each side carries (codecs, picture size, trickle ICE or
# not): the two do not run the same codecs. Builds nothing. A failed call is left out
# of the figures; the exit status is 1 when a ZarnRtc call failed (a baresip run
# that cannot be made is reported in the table, not as a failure).
#   bench/call/run.sh PATH/TO/bench_call [--calls N]     (default 5 calls each)
# Needs root for the baresip part: baresip's ICE ignores 127.0.0.0/8 candidates, so
# its two agents and their Kamailio run in a private network namespace whose only
# device is loopback, with one extra address (10.200.0.1) for ICE. Nothing of that
# namespace is reachable from outside. Debian packages: baresip-core, kamailio,
# iproute2, util-linux.
set -u

here=$(cd "$(dirname "$0")" && pwd)
# What the baresip agents carry: their configuration below and the table use these.
# ZARNRTC_BENCH_BARESIP_FAIR=1 gives baresip our audio codec and frame rate (PCMA,
# 15 fps; video stays VP8), to see whether those favour either side.
bs_video=VP8 bs_audio=opus bs_size=640x480 bs_fps=30 bs_audio_module=opus
if [ "${ZARNRTC_BENCH_BARESIP_FAIR:-0}" = 1 ]; then
  bs_audio=PCMA bs_fps=15 bs_audio_module=g711
fi
root=$(cd "$here/../.." && pwd)
kam="$root/scripts/kamailio"
# shellcheck source=scripts/peers.sh
. "$root/scripts/peers.sh"

# ---------------------------------------------------------------- baresip part --
# Runs inside the namespace: Kamailio on 127.0.0.1:5060, alice (caller) and bob
# (auto-answer), each with ICE (candidates in the SDP, no trickle) and DTLS-SRTP,
# $bs_video from fakevideo, $bs_audio from ausine, sound to aubridge (no sound card). Times are taken from the agents' log lines,
# stamped as they are read; the dial time is taken just before the ctrl_tcp command.
baresip_inner() {
  local result=$1 calls=$2
  # Global: the EXIT trap runs after this function has returned.
  dir=$(mktemp -d /tmp/zarnrtc-baresip-XXXXXX)
  pids=()
  # shellcheck disable=SC2317  # called through the EXIT trap
  cleanup_inner() {
    for p in "${pids[@]:-}"; do [ -n "$p" ] && kill "$p" 2>/dev/null; done
    bash "$kam/stop.sh" "$dir/kamailio" >/dev/null 2>&1
    wait 2>/dev/null
    if [ -n "${ZARNRTC_BENCH_KEEP_LOGS:-}" ]; then
      echo "baresip logs kept in $dir" >&2
    else
      rm -rf "$dir"
    fi
  }
  trap cleanup_inner EXIT
  trap 'exit 130' INT TERM

  peers_netns_up 10.200.0.1 || return 1
  bash "$kam/start.sh" 5060 "$dir/kamailio" $$ || { echo "kamailio did not start" >&2; return 1; }

  local user pass sip ctrl
  for entry in alice:alice123:5070:5075 bob:bob123:5080:5085; do
    IFS=: read -r user pass sip ctrl <<<"$entry"
    peers_baresip_config "$dir/$user" "$sip" "$ctrl" "$bs_size" "$bs_fps" "$bs_audio_module" "${bs_video,,}"
    echo "<sip:$user@127.0.0.1:5060;transport=tcp>;auth_pass=$pass;medianat=ice;mediaenc=dtls_srtp;answermode=auto;regint=600" \
      >"$dir/$user/accounts"
  done

  stamp() { while IFS= read -r line; do echo "$EPOCHREALTIME $line"; done; }
  local limit=$((calls * 20 + 60))
  for user in bob alice; do
    timeout "$limit" stdbuf -oL -eL baresip -f "$dir/$user" </dev/null > >(stamp >"$dir/$user.log") 2>&1 &
    pids+=($!)
  done

  # wait_line LOG FROM REGEX TIMEOUT_S: prints the stamp of the first matching line
  # after line FROM, or nothing on timeout.
  wait_line() {
    local n=$(($4 * 20)) t
    while [ "$n" -gt 0 ]; do
      t=$(tail -n +"$(($2 + 1))" "$1" 2>/dev/null | grep -m1 -E "$3" | cut -d' ' -f1)
      if [ -n "$t" ]; then echo "$t"; return 0; fi
      n=$((n - 1))
      sleep 0.05
    done
    return 1
  }
  lines() { wc -l <"$1"; }
  ms() { awk -v a="$1" -v b="$2" 'BEGIN { if (a == "" || b == "") print -1; else printf "%.1f", (b - a) * 1000 }'; }

  for user in alice bob; do
    if ! wait_line "$dir/$user.log" 0 '200 OK.*binding' 10 >/dev/null; then
      echo "baresip $user did not register" >&2
      tail -n 20 "$dir/$user.log" >&2
      return 1
    fi
  done

  local i failed=0 a0 b0 t0 tin test tframe trtp
  local invite=() established=() frame=() rtp=()
  for i in $(seq 1 "$calls"); do
    a0=$(lines "$dir/alice.log")
    b0=$(lines "$dir/bob.log")
    t0=$EPOCHREALTIME
    peers_baresip_send 5075 '{"command":"dial","params":"sip:bob@127.0.0.1:5060","token":"dial"}' || {
      echo "ctrl_tcp of alice is not reachable" >&2
      return 1
    }
    tin=$(wait_line "$dir/bob.log" "$b0" 'using AF from sdp offer|Incoming call' 10)
    test=$(wait_line "$dir/alice.log" "$a0" 'Call established' 10)
    # The first decoded picture is the first "receiving with resolution" line.
    tframe=$(wait_line "$dir/alice.log" "$a0" 'video: receiving with resolution' 5)
    trtp=$(tail -n +"$((a0 + 1))" "$dir/alice.log" | grep -m1 "incoming rtp for 'video'" | cut -d' ' -f1)
    sleep 0.3
    peers_baresip_send 5075 '{"command":"hangup","token":"hangup"}'
    wait_line "$dir/bob.log" "$b0" 'terminated|session closed' 5 >/dev/null ||
      echo "  call $i: bob did not see the end" >&2
    sleep 0.3
    echo "  call $i: INVITE at callee $(ms "$t0" "$tin") ms, established $(ms "$t0" "$test") ms," \
      "first video RTP $(ms "$t0" "$trtp") ms, first decoded frame $(ms "$t0" "$tframe") ms"
    # A call without an answer or a picture is left out of every figure.
    if [ -n "$tin" ] && [ -n "$test" ] && [ -n "$tframe" ]; then
      invite+=("$(ms "$t0" "$tin")")
      established+=("$(ms "$t0" "$test")")
      frame+=("$(ms "$t0" "$tframe")")
      [ -z "$trtp" ] || rtp+=("$(ms "$t0" "$trtp")")
    else
      failed=$((failed + 1))
      echo "  call $i: FAILED, left out of the figures"
    fi
  done

  median() { printf '%s\n' "$@" | awk '$1 != "" && $1 >= 0' | sort -n | awk '{ v[NR] = $1 } END {
      if (NR == 0) print -1; else if (NR % 2) print v[(NR + 1) / 2]; else printf "%.1f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
  echo "RESULT invite_ms=$(median "${invite[@]}") answered_ms=$(median "${established[@]}")" \
    "frame_ms=$(median "${frame[@]}") rtp_ms=$(median "${rtp[@]}") failed=$failed" >"$result"
  return 0
}

if [ "${1:-}" = "--baresip-inner" ]; then
  baresip_inner "$2" "$3"
  exit $?
fi

# ------------------------------------------------------------------ main part --
usage() { echo "usage: $0 PATH/TO/bench_call [--calls N]" >&2; exit 2; }
bench=${1:-}
[ -n "$bench" ] || usage
shift
calls=5
while [ $# -gt 0 ]; do
  case "$1" in
    --calls) calls=${2:?}; shift ;;
    *) usage ;;
  esac
  shift
done
[ -x "$bench" ] || { echo "run.sh: $bench is not an executable (build bench_call first)" >&2; exit 2; }
# shellcheck source=scripts/gst-env.sh
. "$root/scripts/gst-env.sh" "$root/build/bench-env"
# Everything runs on loopback: media offers 127.0.0.1 only, as SIP binds there.
export ZARNRTC_MEDIA_ADDRESSES=${ZARNRTC_MEDIA_ADDRESSES:-127.0.0.1}

tmp=$(mktemp -d /tmp/zarnrtc-bench-call-XXXXXX)
child=""
# shellcheck disable=SC2317  # called through the EXIT trap
cleanup() {
  [ -n "$child" ] && kill "$child" 2>/dev/null
  wait 2>/dev/null
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

echo "== ZarnRtc: $bench --calls $calls"
timeout $((calls * 30 + 60)) "$bench" --calls "$calls" >"$tmp/zarnrtc.out" 2>&1 &
child=$!
wait "$child"
zstatus=$?
child=""
cat "$tmp/zarnrtc.out"
zres=$(grep '^RESULT ' "$tmp/zarnrtc.out" | tail -n 1)
zsetup=$(grep '^SETUP ' "$tmp/zarnrtc.out" | tail -n 1)
[ "$zstatus" -eq 0 ] || echo "(bench_call exited with status $zstatus)"

# The same calls to a callee that takes DTLS-SRTP only: Kamailio refuses the plain
# offers (RTP/AVPF, then RTP/AVP) at once and the door sends the call again in
# DTLS-SRTP, as it does for a browser.
echo
echo "== ZarnRtc, fallback: $bench --calls $calls --fallback"
timeout $((calls * 30 + 60)) "$bench" --calls "$calls" --fallback >"$tmp/fallback.out" 2>&1 &
child=$!
wait "$child"
fstatus=$?
child=""
cat "$tmp/fallback.out"
fres=$(grep '^RESULT ' "$tmp/fallback.out" | tail -n 1)
[ "$fstatus" -eq 0 ] || echo "(bench_call --fallback exited with status $fstatus)"

echo
echo "== baresip: two agents through Kamailio, ICE + DTLS-SRTP, $bs_video + $bs_audio, $calls calls"
bres=""
why=$(peers_netns_missing)
if [ -z "$why" ]; then
  timeout $((calls * 30 + 90)) unshare -n -- bash "$0" --baresip-inner "$tmp/baresip.result" "$calls" &
  child=$!
  wait "$child"
  child=""
  bres=$(cat "$tmp/baresip.result" 2>/dev/null)
  [ -n "$bres" ] || why="the baresip run failed (see above)"
fi
[ -z "$why" ] || echo "baresip not measured: $why"

field() { sed -n "s/.*\b$2=\([-0-9.]*\).*/\1/p" <<<"$1"; }
cell() { awk -v v="$1" 'BEGIN { if (v == "" || v < 0) printf "%10s", "n/a"; else printf "%7.1f ms", v }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a == "" || b == "" || a < 0 || b <= 0) printf "%8s", "n/a"; else printf "%8.2f", a / b }'; }

setup() { sed -n "s/.*\b$2=\([^ ]*\).*/\1/p" <<<"$1"; }
trickle() { [ "$1" = yes ] && echo "trickle ICE" || echo "no trickle ICE (all candidates in the SDP)"; }
measured() {  # measured RESULT_LINE: "N of CALLS calls worked"
  local f
  f=$(field "$1" failed)
  if [ -z "$1" ] || [ -z "$f" ]; then echo "not measured"; else echo "$((calls - f)) of $calls calls worked"; fi
}

echo
echo "Call set-up on loopback, from dial; median of the calls that worked. The sides"
echo "differ in what they carry:"
echo "  ZarnRtc: $(setup "$zsetup" video) $(setup "$zsetup" size) at $(setup "$zsetup" fps) fps +" \
  "$(setup "$zsetup" audio), $(trickle "$(setup "$zsetup" trickle)"), plain RTP (as the SDK" \
  "configures it); $(measured "$zres")"
echo "  ZarnRtc, fallback: the same to a callee that takes DTLS-SRTP only: two offers refused" \
  "with 488 by Kamailio, then DTLS-SRTP; $(measured "$fres")"
echo "  baresip: $bs_video $bs_size at $bs_fps fps + $bs_audio, $(trickle no), DTLS-SRTP;" \
  "$(measured "$bres")"
printf '%-58s %10s  %10s  %8s  %s\n' "figure" "ZarnRtc" "baresip" "ratio" "target"
row() {
  local za ba
  za=$(field "$zres" "$2")
  ba=$(field "$bres" "$3")
  printf '%-58s %s  %s  %s  %s\n' "$1" "$(cell "$za")" "$(cell "$ba")" "$(ratio "$za" "$ba")" "$4"
}
row "INVITE at callee (through Kamailio)" invite_ms invite_ms ""
row "answered at caller (ZarnRtc 6 / baresip 'Call established')" answered_ms answered_ms "< 300 ms"
row "first remote frame at caller (baresip: first decoded)" frame_ms frame_ms "< 1000 ms"
if [ -n "$bres" ]; then
  printf '%-58s %10s  %s\n' "  baresip: first video RTP at caller" "" "$(cell "$(field "$bres" rtp_ms)")"
fi
zres=$fres
row "fallback: INVITE at callee (the DTLS-SRTP one)" invite_ms invite_ms ""
row "fallback: answered at caller" answered_ms answered_ms "< 300 ms"
row "fallback: first remote frame at caller" frame_ms frame_ms "< 1000 ms"
echo "ratio = ZarnRtc / baresip (below 1: ZarnRtc is faster; different codecs, see above)"
[ "$zstatus" -eq 0 ] && [ -n "$zres" ] && [ "$fstatus" -eq 0 ] || exit 1
exit 0
