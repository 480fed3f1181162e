#!/bin/bash
# Stops or starts one speaker of a running gobgp-pair.sh (inside its command, GOBGP_PAIR_DIR set).
#
#    gobgp-speaker.sh stop NAME [--kill]   TERM (or KILL) and wait until it is gone
#    gobgp-speaker.sh start NAME           again, with its configuration and API address
#
# NAME is controller, router or reflector. The pair stops whatever runs at its end.
set -eu
dir=${GOBGP_PAIR_DIR:?run inside gobgp-pair.sh}
action=${1:?stop or start}
name=${2:?controller, router or reflector}
[ -f "$dir/$name.toml" ] || { echo "gobgp-speaker: no speaker '$name' in $dir" >&2; exit 64; }
gobgpd=${GOBGPD:-/usr/bin/gobgpd}

running_pid() {
   local pid
   pid=$(cat "$dir/$name.pid" 2>/dev/null) || return 1
   [ -n "$pid" ] && grep -qaF "$dir/$name.toml" "/proc/$pid/cmdline" 2>/dev/null && echo "$pid"
}

case $action in
stop)
   signal=TERM
   [ "${3:-}" = --kill ] && signal=KILL
   pid=$(running_pid) || exit 0
   kill -"$signal" "$pid"
   for _ in $(seq 100); do
      # Gone, or a zombie its parent (the pair) has yet to reap.
      st=$(cat "/proc/$pid/stat" 2>/dev/null) || exit 0
      st=${st##*) }
      [ "${st%% *}" = Z ] && exit 0
      sleep 0.1
   done
   echo "gobgp-speaker: $name ($pid) did not stop" >&2
   exit 1
   ;;
start)
   if running_pid >/dev/null; then
      echo "gobgp-speaker: $name already runs" >&2
      exit 1
   fi
   "$gobgpd" -f "$dir/$name.toml" --api-hosts "$(cat "$dir/$name.api")" --pprof-disable -p \
      -l info >>"$dir/$name.log" 2>&1 &
   echo $! >"$dir/$name.pid"
   # Until the exec the child's command line is this script's: wait, so that the pair's stop
   # recognises it from the moment we return.
   for _ in $(seq 100); do running_pid >/dev/null && exit 0; sleep 0.02; done
   echo "gobgp-speaker: $name did not start" >&2
   exit 1
   ;;
*)
   echo "usage: gobgp-speaker.sh stop NAME [--kill] | start NAME" >&2
   exit 64
   ;;
esac
