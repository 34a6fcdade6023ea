# shellcheck shell=bash
# Shell helpers for the scripts that run real foreign peers against the phone
# (tests/browser/run.sh, tests/interop/run.sh, bench/call/run.sh): log waits, the
# web monitor's page server, baresip agents and their private network namespace.
#   . scripts/peers.sh       (bash; defines functions only)

peers_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# peers_wait_for FILE REGEX SECONDS: 0 once a line of FILE matches, else 1 and says so.
peers_wait_for() {
  local n=$(($3 * 10))
  while [ "$n" -gt 0 ]; do
    grep -Eq "$2" "$1" 2>/dev/null && return 0
    n=$((n - 1))
    sleep 0.1
  done
  echo "no '$2' in $1 within $3 s" >&2
  return 1
}

# peers_serve_page LOG: serves examples/web-monitor on a free port of 127.0.0.1;
# sets peers_page_pid and peers_page_url (ends with /). 1 when it does not start.
peers_serve_page() {
  node "$peers_root/examples/web-monitor/serve.js" 0 >"$1" 2>&1 &
  # shellcheck disable=SC2034  # the caller's, to stop it
  peers_page_pid=$!
  peers_page_url=""
  local _
  for _ in $(seq 1 100); do
    peers_page_url=$(sed -n 's/^web-monitor: serving on //p' "$1")
    [ -n "$peers_page_url" ] && return 0
    sleep 0.05
  done
  echo "the page server did not start:" >&2
  cat "$1" >&2
  return 1
}

# Why baresip cannot be run here in a private network namespace, or nothing.
peers_netns_missing() {
  if ! command -v baresip >/dev/null 2>&1; then
    echo "baresip is not installed (Debian package baresip-core)"
  elif [ "$(id -u)" -ne 0 ] || ! command -v unshare >/dev/null 2>&1 || ! command -v ip >/dev/null 2>&1; then
    echo "needs root, unshare and ip for a private network namespace"
  fi
}

# Inside `unshare -n`: loopback up with one more address for ICE, since baresip's
# ICE ignores 127.0.0.0/8 candidates. Nothing in the namespace is reachable from
# outside.
peers_netns_up() {
  ip link set lo up && ip addr add "$1/32" dev lo
}

# peers_baresip_config DIR SIP_PORT CTRL_PORT SIZE FPS MODULE...: a baresip
# configuration in DIR (its -f folder): SIP on 127.0.0.1:SIP_PORT, ctrl_tcp on
# 127.0.0.1:CTRL_PORT, a 440 Hz tone and fakevideo's picture at SIZE and FPS as
# sources, no sound card. MODULEs are the codec modules, in order of preference
# (e.g. g711 avcodec vp8); ice and dtls_srtp are always loaded (an account's
# medianat/mediaenc decides). The accounts file is the caller's.
peers_baresip_config() {
  local dir=$1 sip=$2 ctrl=$3 size=$4 fps=$5
  shift 5
  mkdir -p "$dir"
  {
    cat <<EOF
poll_method epoll
sip_listen 127.0.0.1:$sip
net_interface 127.0.0.1
audio_player aubridge,nil
audio_alert aubridge,nil
audio_source ausine,440
# ausine makes 48 kHz stereo only; baresip resamples for the codec (G.711: 8 kHz mono).
ausrc_srate 48000
ausrc_channels 2
video_source fakevideo,nil
video_display fakevideo,nil
video_size $size
video_fps $fps
module_path /usr/lib/baresip/modules
EOF
    local m
    for m in "$@"; do echo "module $m.so"; done
    cat <<EOF
module ausine.so
module aubridge.so
module fakevideo.so
module ice.so
module dtls_srtp.so
module_app account.so
module_app menu.so
module_app ctrl_tcp.so
ctrl_tcp_listen 127.0.0.1:$ctrl
EOF
  } >"$dir/config"
}

# peers_baresip_send PORT JSON: one ctrl_tcp command (a netstring), answer unread.
peers_baresip_send() {
  exec 3<>"/dev/tcp/127.0.0.1/$1" || return 1
  printf '%d:%s,' "${#2}" "$2" >&3
  exec 3<&-
}
