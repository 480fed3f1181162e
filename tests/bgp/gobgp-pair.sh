#!/bin/bash
# Two BGP speakers on loopback, no root needed: a controller (AS 65000, 127.0.0.1) and the
# router's BGP process (AS 65001, 127.0.0.2), with an SR Policy session (IPv4 and IPv6) between
# them. Both are stopped on exit, whatever happens.
#
#    gobgp-pair.sh [COMMAND [ARG]...]
#
# With a command: starts the pair, waits for the session, runs the command with
# GOBGP_CONTROLLER and GOBGP_ROUTER (HOST:PORT of each API) and GOBGP_PAIR_DIR in its
# environment, stops the pair and exits with the command's status. Without one: starts the pair, prints the two API addresses and
# keeps it up until interrupted (a lab).
#
# GOBGP_PAIR_REFLECTOR=1 puts a route reflector between them instead (iBGP, all in AS 65000:
# controller 127.0.0.1 -> reflector 127.0.0.3 -> router 127.0.0.2), its API in GOBGP_REFLECTOR.
#
# Ports (defaults in brackets) and the folder for configurations and logs can be set:
#    GOBGP_PAIR_BGP_PORT [10179]  GOBGP_PAIR_CONTROLLER_API [50161]  GOBGP_PAIR_ROUTER_API [50162]
#    GOBGP_PAIR_REFLECTOR_API [50163]
#    GOBGP_PAIR_DIR [a fresh temporary folder, removed on exit]  GOBGP_PAIR_WAIT [60 seconds]
set -u

bgp_port=${GOBGP_PAIR_BGP_PORT:-10179}
controller_api=127.0.0.1:${GOBGP_PAIR_CONTROLLER_API:-50161}
router_api=127.0.0.1:${GOBGP_PAIR_ROUTER_API:-50162}
reflector_api=127.0.0.1:${GOBGP_PAIR_REFLECTOR_API:-50163}
reflector=${GOBGP_PAIR_REFLECTOR:-0}
wait_seconds=${GOBGP_PAIR_WAIT:-60}
gobgpd=${GOBGPD:-/usr/bin/gobgpd}
gobgp=${GOBGP:-/usr/bin/gobgp}

if [ -n "${GOBGP_PAIR_DIR:-}" ]; then
   dir=$GOBGP_PAIR_DIR
   mkdir -p "$dir"
   keep_dir=1
   rm -f "$dir"/*.pid
else
   dir=$(mktemp -d "${TMPDIR:-/tmp}/gobgp-pair.XXXXXX")
   keep_dir=0
fi

# Each speaker's process id is kept in $dir/NAME.pid, so that tests may stop and start one
# (tests/bgp/gobgp-speaker.sh) and the pair still stops whatever runs at the end.
speaker_pid() { # PIDFILE: the id in it, if that process is still the speaker it names
   local pid
   pid=$(cat "$1" 2>/dev/null) || return 1
   [ -n "$pid" ] && grep -qaF "${1%.pid}.toml" "/proc/$pid/cmdline" 2>/dev/null && echo "$pid"
}
alive() { # PID: running, not merely a zombie waiting to be reaped
   local st
   st=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
   st=${st##*) }
   [ "${st%% *}" != Z ]
}
stop() {
   local f pid running=()
   # Names are checked once, before any signal: a speaker on its way out has no command line.
   for f in "$dir"/*.pid; do
      pid=$(speaker_pid "$f") && running+=("$pid")
   done
   for pid in "${running[@]}"; do kill -TERM "$pid" 2>/dev/null; done
   for pid in "${running[@]}"; do
      # A speaker that ignores TERM for 5 s is killed.
      for _ in $(seq 50); do alive "$pid" || break; sleep 0.1; done
      kill -KILL "$pid" 2>/dev/null
      while alive "$pid"; do sleep 0.1; done
      wait "$pid" 2>/dev/null
   done
   [ "$keep_dir" = 1 ] || rm -rf "$dir"
}
trap stop EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# global FILE AS ROUTER_ID LOCAL
global() {
   cat >"$1" <<EOF
[global.config]
  as = $2
  router-id = "$3"
  port = $bgp_port
  local-address-list = ["$4"]
EOF
}
# neighbor FILE LOCAL PEER PEER_AS [CLUSTER_ID [passive]]: with a cluster id, the peer is a
# reflector client; passive, this side waits for the peer to connect. One side of each session
# is passive: when both connect at once, each may close the connection it accepted, again and
# again (a session between reflector and controller once stayed down for a minute so).
neighbor() {
   cat >>"$1" <<EOF

[[neighbors]]
  [neighbors.config]
    neighbor-address = "$3"
    peer-as = $4
  [neighbors.timers.config]
    connect-retry = 2
    hold-time = 30
    keepalive-interval = 10
  [neighbors.transport.config]
    local-address = "$2"
    remote-port = $bgp_port
    passive-mode = $([ "${6:-}" = passive ] && echo true || echo false)
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "ipv4-srpolicy"
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "ipv6-srpolicy"
EOF
   if [ -n "${5:-}" ] && [ "$5" != - ]; then
      cat >>"$1" <<EOF
  [neighbors.route-reflector.config]
    route-reflector-client = true
    route-reflector-cluster-id = "$5"
EOF
   fi
}

start() { # NAME API
   echo "$2" >"$dir/$1.api"
   "$gobgpd" -f "$dir/$1.toml" --api-hosts "$2" --pprof-disable -p -l info \
      >>"$dir/$1.log" 2>&1 &
   echo $! >"$dir/$1.pid"
   # The stop recognises a speaker by its command line, which is ours until the exec.
   for _ in $(seq 100); do speaker_pid "$dir/$1.pid" >/dev/null && return; sleep 0.02; done
}

# established API PEER: the speaker at API has its session with PEER up.
established() {
   "$gobgp" -u "${1%:*}" -p "${1##*:}" neighbor "$2" 2>/dev/null |
      grep -qi "BGP state = established"
}

if [ "$reflector" = 1 ]; then
   # iBGP in AS 65000: controller 127.0.0.1 -> reflector 127.0.0.3 -> router 127.0.0.2.
   global "$dir/controller.toml" 65000 192.0.2.1 127.0.0.1
   neighbor "$dir/controller.toml" 127.0.0.1 127.0.0.3 65000
   global "$dir/reflector.toml" 65000 192.0.2.3 127.0.0.3
   neighbor "$dir/reflector.toml" 127.0.0.3 127.0.0.1 65000 192.0.2.3 passive
   neighbor "$dir/reflector.toml" 127.0.0.3 127.0.0.2 65000 192.0.2.3 passive
   global "$dir/router.toml" 65000 192.0.2.2 127.0.0.2
   neighbor "$dir/router.toml" 127.0.0.2 127.0.0.3 65000
   start reflector "$reflector_api"
   sessions=("$router_api 127.0.0.3" "$reflector_api 127.0.0.1")
else
   global "$dir/controller.toml" 65000 192.0.2.1 127.0.0.1
   neighbor "$dir/controller.toml" 127.0.0.1 127.0.0.2 65001 - passive
   global "$dir/router.toml" 65001 192.0.2.2 127.0.0.2
   neighbor "$dir/router.toml" 127.0.0.2 127.0.0.1 65000
   sessions=("$router_api 127.0.0.1")
fi
start controller "$controller_api"
start router "$router_api"

up() {
   local s
   for s in "${sessions[@]}"; do established $s || return 1; done
}
deadline=$((SECONDS + wait_seconds))
until up; do
   for f in "$dir"/*.pid; do
      if ! speaker_pid "$f" >/dev/null; then
         echo "gobgp-pair: a speaker stopped at start-up; its log:" >&2
         tail -n 20 "$dir"/*.log >&2
         exit 1
      fi
   done
   if [ "$SECONDS" -ge "$deadline" ]; then
      echo "gobgp-pair: no session after ${wait_seconds}s; logs in $dir" >&2
      tail -n 20 "$dir"/*.log >&2
      keep_dir=1
      exit 1
   fi
   sleep 0.5
done

export GOBGP_CONTROLLER=$controller_api GOBGP_ROUTER=$router_api GOBGP_PAIR_DIR=$dir
[ "$reflector" = 1 ] && export GOBGP_REFLECTOR=$reflector_api
if [ $# -gt 0 ]; then
   "$@"
   exit $?
fi
echo "session established; controller API $GOBGP_CONTROLLER, router API $GOBGP_ROUTER"
echo "logs and configurations in $dir; Ctrl-C stops both speakers"
# Short sleeps: the traps run between them, and no sleeper outlives the pair.
while :; do sleep 1; done
