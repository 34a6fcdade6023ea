#!/bin/bash
# Start the project's Kamailio on 127.0.0.1:PORT (UDP and TCP).
#   start.sh PORT RUNDIR [OWNER_PID]
# With KAMAILIO_TLS_PORT set it also listens for TLS on 127.0.0.1:KAMAILIO_TLS_PORT,
# with a CA and server certificate made by make-certs.sh in RUNDIR/certs (or in
# KAMAILIO_TLS_CERTS when that names a folder that already holds them).
# With KAMAILIO_WS_PORT set it also serves SIP over WebSocket to browsers on
# 127.0.0.1:KAMAILIO_WS_PORT, and, with TLS on and KAMAILIO_WSS_PORT set, secure
# WebSocket on 127.0.0.1:KAMAILIO_WSS_PORT (Debian: kamailio-websocket-modules).
# RUNDIR receives kamailio.pid and kamailio.log. With OWNER_PID, Kamailio is also
# stopped when that process ends (a crashed test leaves nothing behind).
# Exits 0 once the TCP port accepts connections, 1 on failure, 77 when kamailio is
# not installed.
set -u
PORT=${1:?usage: start.sh PORT RUNDIR [OWNER_PID]}
RUNDIR=${2:?usage: start.sh PORT RUNDIR [OWNER_PID]}
OWNER=${3:-}
HERE=$(cd "$(dirname "$0")" && pwd)

KAMAILIO=$(command -v kamailio || ls /usr/sbin/kamailio 2>/dev/null || true)
if [ -z "$KAMAILIO" ]; then
    echo "kamailio is not installed (Debian package: kamailio)" >&2
    exit 77
fi

MODPATH=""
MULTIARCH=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch 2>/dev/null || true)
for dir in ${MULTIARCH:+/usr/lib/$MULTIARCH/kamailio/modules} /usr/lib/*/kamailio/modules \
           /usr/lib/kamailio/modules /usr/local/lib/kamailio/modules; do
    if [ -f "$dir/tm.so" ]; then MODPATH=$dir; break; fi
done
if [ -z "$MODPATH" ]; then
    echo "kamailio modules not found" >&2
    exit 1
fi

mkdir -p "$RUNDIR"
RUNDIR=$(cd "$RUNDIR" && pwd)  # Kamailio resolves relative paths against its config
PIDFILE=$RUNDIR/kamailio.pid
LOG=$RUNDIR/kamailio.log
if [ -f "$PIDFILE" ] && kill -0 "$(cat "$PIDFILE")" 2>/dev/null; then
    "$HERE/stop.sh" "$RUNDIR"
fi

tls_args=()
if [ -n "${KAMAILIO_TLS_PORT:-}" ]; then
    CERTS=${KAMAILIO_TLS_CERTS:-$RUNDIR/certs}
    mkdir -p "$CERTS" && CERTS=$(cd "$CERTS" && pwd)
    if [ ! -f "$CERTS/server.pem" ]; then
        "$HERE/make-certs.sh" "$CERTS" 127.0.0.1 localhost || exit 1
    fi
    if [ ! -f "$MODPATH/tls.so" ]; then
        echo "kamailio's TLS module is not installed (Debian package: kamailio-tls-modules)" >&2
        exit 1
    fi
    cat >"$RUNDIR/tls.cfg" <<EOT
[server:default]
method = TLSv1.2+
certificate = $CERTS/server.pem
private_key = $CERTS/server.key
verify_certificate = no
require_certificate = no

[client:default]
method = TLSv1.2+
verify_certificate = no
EOT
    tls_args=(-A WITH_TLS -A "TLS_CFG=\"$RUNDIR/tls.cfg\"" -l "tls:127.0.0.1:$KAMAILIO_TLS_PORT")
fi

ws_args=()
if [ -n "${KAMAILIO_WS_PORT:-}" ]; then
    if [ ! -f "$MODPATH/websocket.so" ] || [ ! -f "$MODPATH/xhttp.so" ]; then
        echo "kamailio's WebSocket modules are not installed (Debian package: kamailio-websocket-modules)" >&2
        exit 1
    fi
    ws_args=(-A WITH_WEBSOCKET -l "tcp:127.0.0.1:$KAMAILIO_WS_PORT")
    if [ ${#tls_args[@]} -gt 0 ] && [ -n "${KAMAILIO_WSS_PORT:-}" ]; then
        ws_args+=(-l "tls:127.0.0.1:$KAMAILIO_WSS_PORT")
    fi
fi

# -DD: the main process stays in the foreground, so $! is the one to signal.
"$KAMAILIO" -f "$HERE/kamailio.cfg" -L "$MODPATH" -Y "$RUNDIR" -w "$RUNDIR" \
    -l "udp:127.0.0.1:$PORT" -l "tcp:127.0.0.1:$PORT" "${tls_args[@]}" "${ws_args[@]}" -m 32 -M 4 -DD -E >"$LOG" 2>&1 &
PID=$!
echo "$PID" >"$PIDFILE"

if [ -n "$OWNER" ]; then
    (
        trap '' HUP
        while kill -0 "$OWNER" 2>/dev/null && kill -0 "$PID" 2>/dev/null; do sleep 0.5; done
        kill "$PID" 2>/dev/null
    ) </dev/null >/dev/null 2>&1 &
    disown
fi

for _ in $(seq 1 100); do
    if ! kill -0 "$PID" 2>/dev/null; then
        echo "kamailio exited during start-up; see $LOG:" >&2
        tail -n 20 "$LOG" >&2
        rm -f "$PIDFILE"
        exit 1
    fi
    if (exec 3<>"/dev/tcp/127.0.0.1/$PORT") 2>/dev/null; then
        exit 0
    fi
    sleep 0.05
done
echo "kamailio did not listen on 127.0.0.1:$PORT within 5 s" >&2
"$HERE/stop.sh" "$RUNDIR"
exit 1
