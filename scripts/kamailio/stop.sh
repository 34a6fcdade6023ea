#!/bin/bash
# Stop the Kamailio started by start.sh with the same RUNDIR and wait until it is gone.
#   stop.sh RUNDIR
set -u
RUNDIR=${1:?usage: stop.sh RUNDIR}
PIDFILE=$RUNDIR/kamailio.pid
[ -f "$PIDFILE" ] || exit 0
PID=$(cat "$PIDFILE")
rm -f "$PIDFILE"
[ -n "$PID" ] && kill -0 "$PID" 2>/dev/null || exit 0
kill -TERM "$PID" 2>/dev/null
for _ in $(seq 1 100); do
    kill -0 "$PID" 2>/dev/null || exit 0
    sleep 0.05
done
kill -KILL "$PID" 2>/dev/null
# Children follow their main process; give them a moment.
sleep 0.2
exit 0
