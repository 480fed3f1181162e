#!/bin/bash
# SR policies advertised by a controller's BGP speaker, received by the router's, decoded and
# replayed into srte: the input table must hold what tests/bgp/speaker/expected.srte types by hand,
# whether followed live (adds, a change, a withdrawal) or read from the initial snapshot, and the
# refusals must be the expected ones.
#
#    speaker-replay.sh BUILD_DIR
set -eu
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/speaker-replay.XXXXXX")
trap 'rm -rf "$work"' EXIT

"$here/gobgp-pair.sh" bash -c '
   set -eu
   build=$1 data=$2 work=$3
   "$build/bgp-watch" --gobgp "$GOBGP_ROUTER" --scenario --idle 3 --timeout 40 >"$work/live" &
   watcher=$!
   # The watcher must hold its stream before the first advertisement.
   sleep 0.5
   "$build/bgp-inject" --gobgp "$GOBGP_CONTROLLER" "$data/advertise.txt"
   sleep 1
   "$build/bgp-inject" --gobgp "$GOBGP_CONTROLLER" "$data/change.txt"
   wait "$watcher"
   "$build/bgp-watch" --gobgp "$GOBGP_ROUTER" --scenario --idle 1 --timeout 20 >"$work/snapshot"
' _ "$build" "$here/speaker" "$work"

table() { # SCRIPT...: the bgp input table srte holds after the scripts
   { echo "input-table bgp"; cat "$@"; echo "show input json"; } | "$build/srte" -
}
table "$here/speaker/expected.srte" >"$work/expected.json"
status=0
for got in live snapshot; do
   table "$work/$got" >"$work/$got.json"
   if ! diff -u "$work/expected.json" "$work/$got.json"; then
      echo "speaker-replay: the $got input table differs from the expected one" >&2
      status=1
   fi
   grep '^# refused' "$work/$got" | sort -u >"$work/$got.refused"
   if ! diff -u <(grep '^# refused' "$here/speaker/refused.txt" | sort) "$work/$got.refused"; then
      echo "speaker-replay: the $got refusals differ from the expected ones" >&2
      status=1
   fi
done
# Live, the change and the withdrawal arrive as such.
grep -q '^no input bgp 2001:db8::7 color 3 discriminator 8$' "$work/live" ||
   { echo "speaker-replay: no withdrawal seen live" >&2; status=1; }
[ "$(grep -c '^input bgp 10.0.0.3 ' "$work/live")" = 2 ] ||
   { echo "speaker-replay: the change was not seen live" >&2; status=1; }
exit $status
