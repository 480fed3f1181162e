#!/bin/bash
# The router's speaker killed and started again under a follower: the follower says it lost the
# speaker, connects again with back-off, gets a new snapshot and then the routes again as the
# session comes back, and goes on following changes.
#
#    speaker-restart.sh BUILD_DIR
set -eu
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/speaker-restart.XXXXXX")
trap 'rm -rf "$work"' EXIT

"$here/gobgp-pair.sh" bash -c '
   set -eu
   build=$1 here=$2 out=$3/follow
   "$build/bgp-inject" --gobgp "$GOBGP_CONTROLLER" <<EOF
add 10.0.0.1 color 1 distinguisher 1 segment-list labels 16001
add 10.0.0.2 color 1 distinguisher 1 segment-list labels 16002
add 2001:db8::3 color 1 distinguisher 1 segment-list labels 16003
EOF
   "$build/bgp-watch" --gobgp "$GOBGP_ROUTER" --follow --scenario --timeout 60 >"$out" &
   follower=$!
   # until N PATTERN: wait (up to 30 s) until PATTERN occurs N times in the output.
   until_seen() {
      for _ in $(seq 300); do
         [ "$(grep -c -- "$2" "$out" || true)" -ge "$1" ] && return 0
         sleep 0.1
      done
      echo "speaker-restart: never saw $1 x \"$2\"" >&2
      cat "$out" >&2
      kill "$follower"
      return 1
   }
   until_seen 3 "^input bgp"
   "$here/gobgp-speaker.sh" stop router --kill
   until_seen 1 "^# disconnected"
   # Down long enough for a few refused attempts.
   sleep 1
   "$here/gobgp-speaker.sh" start router
   until_seen 6 "^input bgp"
   echo "withdraw 10.0.0.2 color 1 distinguisher 1" | "$build/bgp-inject" --gobgp "$GOBGP_CONTROLLER"
   until_seen 1 "^no input bgp 10.0.0.2 color 1 discriminator 1$"
   kill "$follower"
   wait "$follower" || true
' _ "$build" "$here" "$work"

out=$work/follow
status=0
check() { # DESCRIPTION COMMAND...
   if ! "${@:2}"; then
      echo "speaker-restart: $1" >&2
      status=1
   fi
}
check "not two snapshots" [ "$(grep -c '^# snapshot' "$out")" = 2 ]
check "the first snapshot is not the three routes" grep -q '^# snapshot: 3 paths' "$out"
# After the second snapshot, each route comes back once, whatever the snapshot held.
after=$(sed -n '/^# snapshot/{x;s/^/x/;/^xx$/{x;b print};x};d;:print;p;:loop;n;p;b loop' "$out" |
   grep '^input bgp' | sort -u | wc -l)
check "the routes did not all come back ($after)" [ "$after" = 3 ]
check "back-off did not grow" grep -q 'again in 200 ms' "$out"
[ $status = 0 ] || cat "$out" >&2
exit $status
