#!/bin/bash
# A policy reflected on its way (controller -> reflector -> router, iBGP): its originator is the
# controller, named by the ORIGINATOR_ID, not the reflector that sent it to the router.
#
#    speaker-reflector.sh BUILD_DIR
set -eu
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/speaker-reflector.XXXXXX")
trap 'rm -rf "$work"' EXIT

GOBGP_PAIR_REFLECTOR=1 "$here/gobgp-pair.sh" bash -c '
   set -eu
   "$1/bgp-watch" --gobgp "$GOBGP_ROUTER" --scenario --count 2 --timeout 30 >"$2/got" &
   watcher=$!
   sleep 0.5
   "$1/bgp-inject" --gobgp "$GOBGP_CONTROLLER" <<EOF
add 10.0.0.3 color 7 distinguisher 12 preference 300 bsid 900200 segment-list labels 16003
add 2001:db8::1 color 9 distinguisher 1 segment-list weight 5 labels 16001 16002
EOF
   wait "$watcher"
' _ "$build" "$work"

sort "$work/got" >"$work/got.sorted"
diff -u - "$work/got.sorted" <<EOF
input bgp 10.0.0.3 color 7 discriminator 12 originator 65000 192.0.2.1 preference 300 bsid 900200 segment-list weight 1 labels 16003
input bgp 2001:db8::1 color 9 discriminator 1 originator 65000 192.0.2.1 preference 100 segment-list weight 5 labels 16001 16002
EOF
