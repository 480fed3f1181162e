#!/bin/bash
# Throughput of the BGP adapter and the agent behind it against a plain watcher of the same
# speaker, in the same run: N policies injected at the controller, timed until the plain watcher
# (bgp-watch) has seen them all, until the adapter's table holds them all, and until the agent's
# outputs are converged on them: all N paths held, its core idle and what it published written to
# shared memory, as its control socket's `status` says when asked (agent-wait). The agent's own
# converged line, which it prints at most once a second while input keeps coming, is shown beside
# for comparison only. Then the adapter's resident memory per route, and its restart over the
# full table (killed, started again: time to synchronised and records written). Run by hand:
#
#    tools/bgp-bench.sh BUILD_DIR [N]...     (default: 10000 100000)
#
# Each N gets a fresh speaker pair, on ports of its own (BGP 10279, APIs 50261 and 50262 unless
# GOBGP_PAIR_* say otherwise), so that it can run beside the tests. Completion is polled every
# 50 ms, the agent's with one short request on one connection. Needs the targets srte, agent-wait,
# bgp-inject, bgp-watch and bgp-table built.
set -eu
export GOBGP_PAIR_BGP_PORT=${GOBGP_PAIR_BGP_PORT:-10279}
export GOBGP_PAIR_CONTROLLER_API=${GOBGP_PAIR_CONTROLLER_API:-50261}
export GOBGP_PAIR_ROUTER_API=${GOBGP_PAIR_ROUTER_API:-50262}
build=$(cd "${1:?usage: bgp-bench.sh BUILD_DIR [N]...}" && pwd)
shift
here=$(cd "$(dirname "$0")" && pwd)
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(10000 100000)

if [ "${BGP_BENCH_INSIDE:-}" = 1 ]; then
   n=${sizes[0]}
   router=bgpbench$$
   work=$(mktemp -d "${TMPDIR:-/tmp}/bgp-bench.XXXXXX")
   pids=()
   cleanup() {
      for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
      for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
      rm -f /dev/shm/srte."$router".* /dev/shm/srte-agent."$router".lock
      rm -rf "$work"
   }
   trap cleanup EXIT
   /usr/bin/python3 "$here/bgp-policies.py" "$n" --seed 1 >"$work/policies"
   "$build/srte" agent --router "$router" --srlb 900000-949999 2>"$work/agent.log" &
   pids+=($!)
   "$build/srte" bgp --router "$router" --gobgp "$GOBGP_ROUTER" --capacity $((2 * n)) \
      2>"$work/adapter.log" &
   adapter=$!
   pids+=("$adapter")
   "$build/bgp-watch" --gobgp "$GOBGP_ROUTER" --count "$n" --timeout 600 >/dev/null &
   watcher=$!
   pids+=("$watcher")
   until grep -q synchronised "$work/adapter.log"; do sleep 0.1; done
   sleep 1
   rss() { sed -n "s/^$1:[[:space:]]*\([0-9]*\) kB/\1/p" "/proc/$adapter/status"; }
   rss0=$(rss VmRSS) anon0=$(rss RssAnon) shm0=$(rss RssShmem)
   now() { date +%s.%N; }
   # Before the start: it prints the time of the first status that says converged on N paths.
   "$build/agent-wait" --router "$router" --paths "$n" --timeout 600 >"$work/agent-wait" &
   waiter=$!
   pids+=("$waiter")
   t0=$(now)
   "$build/bgp-inject" --gobgp "$GOBGP_CONTROLLER" "$work/policies"
   t_inject=$(now)
   t_watch= t_adapter= t_agent= t_line=
   while [ -z "$t_watch" ] || [ -z "$t_adapter" ] || [ -z "$t_agent" ] || [ -z "$t_line" ]; do
      [ -z "$t_watch" ] && ! kill -0 "$watcher" 2>/dev/null && t_watch=$(now)
      if [ -z "$t_adapter" ] && [ "$("$build/bgp-table" --router "$router" --status |
         sed -n 's/^recordsHeld //p')" = "$n" ]; then
         t_adapter=$(now)
      fi
      if [ -z "$t_agent" ] && ! kill -0 "$waiter" 2>/dev/null; then
         if ! wait "$waiter"; then
            echo "N=$n: the agent did not converge; its log:" >&2
            cat "$work/agent.log" >&2
            exit 1
         fi
         t_agent=$(head -n 1 "$work/agent-wait")
      fi
      [ -z "$t_line" ] && grep -q "converged: $n paths" "$work/agent.log" && t_line=$(now)
      sleep 0.05
   done
   rate() { awk -v n="$n" -v t="$1" -v t0="$t0" 'BEGIN { printf "%.0f", n / (t - t0) }'; }
   secs() { awk -v t="$1" -v t0="$t0" 'BEGIN { printf "%.2f", t - t0 }'; }
   echo "N=$n injected in $(secs "$t_inject") s;" \
      "plain watcher $(secs "$t_watch") s ($(rate "$t_watch")/s);" \
      "adapter table $(secs "$t_adapter") s ($(rate "$t_adapter")/s);" \
      "agent converged $(secs "$t_agent") s ($(rate "$t_agent")/s);" \
      "its converged line $(secs "$t_line") s"
   echo "N=$n adapter RSS +$(($(rss VmRSS) - rss0)) kB" \
      "(anonymous +$(($(rss RssAnon) - anon0)) kB, shared table pages +$(($(rss RssShmem) - shm0)) kB):" \
      "$(((($(rss VmRSS) - rss0) * 1024) / n)) B/route," \
      "$(((($(rss RssAnon) - anon0) * 1024) / n)) B/route of its own"
   # The adapter killed and started again over its full table: time to synchronised, and what it
   # wrote (nothing, when it reconciles without churn).
   kill -KILL "$adapter"
   wait "$adapter" 2>/dev/null || true
   t0=$(now)
   "$build/srte" bgp --router "$router" --gobgp "$GOBGP_ROUTER" 2>"$work/adapter2.log" &
   adapter=$!
   pids+=("$adapter")
   until grep -q synchronised "$work/adapter2.log"; do sleep 0.05; done
   t_sync=$(now)
   status=$("$build/bgp-table" --router "$router" --status)
   echo "N=$n adapter restart: synchronised $(secs "$t_sync") s after start (settle 1 s included);" \
      "records written $(echo "$status" | sed -n 's/^recordsWritten //p')," \
      "unchanged $(echo "$status" | sed -n 's/^recordsUnchanged //p')," \
      "erased $(echo "$status" | sed -n 's/^recordsErased //p')"
   exit 0
fi

for n in "${sizes[@]}"; do
   BGP_BENCH_INSIDE=1 "$here/../tests/bgp/gobgp-pair.sh" "$0" "$build" "$n"
done
