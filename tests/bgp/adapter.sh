#!/bin/bash
# The BGP adapter process between a real BGP speaker and a real agent, with one speaker set-up
# (controller -> route reflector -> router, iBGP) for every case:
#  - 1,000 policies (IPv4 and IPv6, 1 to 16 lists, weights, binding SIDs in and out of the SRLB,
#    some without), then 100 changed and 100 withdrawn, plus content the router cannot fully use
#    (an SRv6 binding SID, an SRv6 segment, 17 lists): the bgp input table holds exactly the
#    records the rules give (tests/bgp/expected-records.py), refusals are reported, and what the
#    agent publishes in its shared tables means what the in-process core publishes for those
#    records over the same labels' routes (tests/bgp/published_meaning.cpp);
#  - the originator of a reflected route is the controller, not the reflector;
#  - the router's speaker killed and started again (a policy withdrawn meanwhile), then the
#    adapter killed and started again: the table comes back the same, less the withdrawn record
#    once the speaker's table is whole, with no record rewritten, as a reader following it counts;
#  - the controller stopped: every record goes, and the agent follows.
#
#    adapter.sh BUILD_DIR
set -eu
started=$SECONDS
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)

if [ "${2:-}" != --inside ]; then
   work=$(mktemp -d "${TMPDIR:-/tmp}/bgp-adapter.XXXXXX")
   trap 'rm -rf "$work"' EXIT
   GOBGP_PAIR_REFLECTOR=1 "$here/gobgp-pair.sh" "$0" "$build" --inside "$work"
   exit $?
fi

work=$3
router=bgpadapter$$
python=/usr/bin/python3
pids=()
cleanup() {
   local p
   for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
   for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
   rm -f /dev/shm/srte."$router".* /dev/shm/srte-agent."$router".lock
}
trap cleanup EXIT

fail() {
   echo "adapter: $*" >&2
   echo "--- adapter log" >&2
   cat "$work"/adapter*.log >&2 || true
   echo "--- agent log (tail)" >&2
   tail -n 5 "$work/agent.log" >&2 || true
   exit 1
}
# until SECONDS DESCRIPTION COMMAND...: polls the command until it succeeds.
until_true() {
   local deadline=$((SECONDS + $1)) what=$2
   shift 2
   until "$@"; do
      [ "$SECONDS" -lt "$deadline" ] || fail "timed out waiting for $what"
      sleep 0.2
   done
}
table() { "$build/bgp-table" --router "$router" "$@"; }
status() { table --status | sed -n "s/^$1 //p"; }
# Asked again on every try: an argument like "$(status x)" would be read once, before the wait.
status_is() { [ "$(status "$1")" = "$2" ]; }
records_are() { table --records >"$work/got" 2>/dev/null && cmp -s "$work/got" "$1"; }
synchronised_after() { # CONNECTS: the adapter took that many snapshots and is synchronised
   [ "$(status connects)" = "$1" ] && [ "$(status connection)" = synchronised ]
}
# The agent's last report is of N paths.
agent_holds() {
   grep 'converged:' "$work/agent.log" | tail -n 1 | grep -q "converged: $1 paths"
}
start_adapter() { # LOG
   "$build/srte" bgp --router "$router" --gobgp "$GOBGP_ROUTER" --settle 0.5 --stale-hold 30 \
      2>"$1" &
   adapter=$!
   pids+=("$adapter")
}
start_churn_watch() {
   "$build/bgp-table" --router "$router" --changes 120 >"$work/churn" &
   churn=$!
   pids+=("$churn")
   sleep 0.3
}
stop_churn_watch() { # WHAT [CHANGES]: a reader saw exactly that many records change (0)
   kill -TERM "$churn"
   wait "$churn" || true
   grep -q "^changed ${2:-0}$" "$work/churn" && grep -q "^records $held$" "$work/churn" ||
      fail "$1: a reader saw records change: $(cat "$work/churn")"
}
inject() { "$build/bgp-inject" --gobgp "$GOBGP_CONTROLLER" >/dev/null; }

# Every label the policies use resolves (--resolve), so that paths become active and publish.
"$build/srte" agent --router "$router" --srlb 900000-900499 --resolve 16000-24000 \
   2>"$work/agent.log" &
pids+=($!)
start_adapter "$work/adapter.log"
# One writer per table: a second adapter is refused, naming the first.
sleep 0.3
if "$build/srte" bgp --router "$router" --gobgp "$GOBGP_ROUTER" 2>"$work/second"; then
   fail "a second adapter ran"
fi
grep -q "written by process $adapter" "$work/second" || fail "the refusal: $(cat "$work/second")"

# ---- 1,000 policies, then 100 changed and 100 withdrawn, and content the router cannot fully use
"$python" "$here/../../tools/bgp-policies.py" 1000 --seed 28 --change 100 --withdraw 100 \
   >"$work/policies"
head -n 1000 "$work/policies" >"$work/first"
cat >>"$work/first" <<'EOF2'
add 10.200.0.4 color 9 distinguisher 2 srv6-bsid 2001:db8::99 segment-list weight 3 labels 16001
add 10.200.0.5 color 9 distinguisher 3 bsid 901500 segment-list weight 4 labels 16002 segment-list weight 1 labels 16001 srv6 2001:db8::42
add 10.200.0.6 color 1 distinguisher 1 segment-list weight 1 labels 16001 segment-list weight 1 labels 16002 segment-list weight 1 labels 16003 segment-list weight 1 labels 16004 segment-list weight 1 labels 16005 segment-list weight 1 labels 16006 segment-list weight 1 labels 16007 segment-list weight 1 labels 16008 segment-list weight 1 labels 16009 segment-list weight 1 labels 16010 segment-list weight 1 labels 16011 segment-list weight 1 labels 16012 segment-list weight 1 labels 16013 segment-list weight 1 labels 16014 segment-list weight 1 labels 16015 segment-list weight 1 labels 16016 segment-list weight 9 labels 16017
EOF2
cp "$work/first" "$work/all"
tail -n +1001 "$work/policies" >>"$work/all"
"$here/expected-records.py" 65000 192.0.2.1 <"$work/first" >"$work/expected-first"
"$here/expected-records.py" 65000 192.0.2.1 <"$work/all" >"$work/expected"
[ "$(wc -l <"$work/expected-first")" = 1003 ] || fail "the policies are not 1,003 distinct ones"

inject <"$work/first"
until_true 30 "the first 1,003 records" records_are "$work/expected-first"
tail -n +1001 "$work/policies" | inject
until_true 30 "the changed and withdrawn records" records_are "$work/expected"
held=$(wc -l <"$work/expected")

# Refusals are counted and told with their reasons (the status follows the table within 0.2 s).
until_true 5 "3 routes refused" status_is routesRefused 3
table --status >"$work/status"
for reason in "SRv6 binding SID is not supported" "type B (SRv6 SID) is not supported" \
   "at most 16 segment lists"; do
   grep -q "^reason .*$reason" "$work/status" || fail "no reason '$reason' told"
done

# The agent against the in-process core given the same records and the platform state that the
# agent's --resolve sets: 16 adjacencies of two vias, each label over adjacency 1 + label % 16.
{
   echo "label-range srlb base 900000 size 500"
   for a in $(seq 16); do
      echo "adjacency $a via 11.0.0.$((2 * a)) Ethernet$((2 * a)) action swap label $((17000 + a))" \
         "via 11.0.0.$((2 * a + 1)) Ethernet$((2 * a + 1)) action swap label $((17000 + a))"
   done
   for l in $(seq 16000 24000); do echo "lfib route $l adjacency $((1 + l % 16))"; done
   echo "input-table bgp"
   cat "$work/expected"
   echo "run"
} >"$work/inprocess.srte"
"$build/bgp-published-meaning" --script "$work/inprocess.srte" >"$work/inprocess.meaning"
{ cat "$work/inprocess.srte"; echo "show selection-input json"; } | "$build/srte" \
   >"$work/inprocess.json"
candidates=$(grep -c '"endpoint"' "$work/inprocess.json")
# The agent reports at most once a second while its input changes: its last report counts.
agent_matches() {
   grep 'converged:' "$work/agent.log" | tail -n 1 |
      grep -q "converged: $held paths in 1 input table, $candidates candidates for selection"
}
until_true 30 "the agent's $held paths and the in-process core's $candidates candidates" \
   agent_matches
# What it published, read from the shared tables, means what the in-process core published.
published_matches() {
   "$build/bgp-published-meaning" --router "$router" >"$work/agent.meaning" &&
      cmp -s "$work/agent.meaning" "$work/inprocess.meaning"
}
until_true 10 "the agent's published tables to be the in-process core's" published_matches
[ "$(grep -c '^policyStatus: ' "$work/inprocess.meaning")" -gt 100 ] ||
   fail "too few active policies to compare: $(grep -c '^policyStatus: ' "$work/inprocess.meaning")"

compared=$held

# ---- the router's speaker killed and started again, one policy withdrawn meanwhile: its record
# goes once the speaker's table is whole again, and no other record is rewritten
written=$(status recordsWritten) erased=$(status recordsErased)
start_churn_watch
"$here/gobgp-speaker.sh" stop router --kill
until_true 10 "the adapter to lose the speaker" status_is connection disconnected
records_are "$work/expected" || fail "records changed while the speaker was away"
read -r _ _ gone_endpoint _ gone_color _ gone_discriminator _ <"$work/expected"
echo "withdraw $gone_endpoint color $gone_color distinguisher $gone_discriminator" | inject
"$here/gobgp-speaker.sh" start router
until_true 40 "the adapter to resynchronise" synchronised_after 2
tail -n +2 "$work/expected" >"$work/expected-after"
records_are "$work/expected-after" || fail "the records after the speaker's restart differ"
[ "$(status recordsWritten)" = "$written" ] || fail "records rewritten after the speaker restarted"
[ "$(status recordsErased)" = $((erased + 1)) ] ||
   fail "not only the withdrawn record erased: $(table --status)"
[ "$(status recordsUnchanged)" -ge $((held - 1)) ] || fail "the routes did not all come back"
held=$((held - 1))
stop_churn_watch "the speaker's restart" 1

# ---- the adapter killed and started again: it takes its table over, no record rewritten
start_churn_watch
kill -KILL "$adapter"
wait "$adapter" 2>/dev/null || true
start_adapter "$work/adapter2.log"
until_true 20 "the new adapter to synchronise" synchronised_after 1
grep -q "taken over" "$work/adapter2.log" || fail "the new adapter did not take the table over"
records_are "$work/expected-after" || fail "the records after the adapter's restart differ"
[ "$(status recordsWritten)" = 0 ] && [ "$(status recordsErased)" = 0 ] ||
   fail "the restarted adapter wrote: $(table --status)"
stop_churn_watch "the adapter's restart"

# ---- the controller stopped: every route is withdrawn
"$here/gobgp-speaker.sh" stop controller
until_true 30 "every record to go" records_are /dev/null
until_true 10 "the agent to hold no path" agent_holds 0
echo "adapter: $compared records and $candidates candidates as in process; restarts without" \
   "churn; stale record deleted; all withdrawn;" \
   "$((SECONDS - started)) s"
