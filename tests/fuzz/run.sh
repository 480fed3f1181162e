#!/usr/bin/env bash
# Runs the fuzz targets built in BUILD (make fuzz): first every regression input and seed once,
# then each target for SECONDS seconds from its seeds. Seeds are the committed corpus
# (tests/fuzz/corpus/<target>) plus, for the scenario targets, every golden scenario and the demo:
# whole for `script`, cut into groups of logical lines for `script_line`. What a run learns goes
# to BUILD/fuzz-work/<target> (not committed); a crash leaves its input there as crash-*.
#
#    tests/fuzz/run.sh BUILD SECONDS [target...]
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:?build dir}
seconds=${2:?seconds per target}
shift 2
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(input_record script_line script)

work=$build/fuzz-work
seeds() { # target -> a directory of seeds made from the scenarios
   local dir=$work/$1/scenario-seeds
   rm -rf "$dir" && mkdir -p "$dir"
   local scripts=(tests/scenarios/*.srte examples/demo.srte)
   case $1 in
   script)
      for s in "${scripts[@]}"; do cp "$s" "$dir/$(basename "$s")"; done
      ;;
   script_line)
      # Logical lines (continuations joined), without comments and blanks, 8 to a seed.
      for s in "${scripts[@]}"; do
         sed -e ':a' -e '/\\$/N; s/\\\n//; ta' "$s" | sed -e 's/[[:space:]]*#.*//' -e '/^[[:space:]]*$/d' |
            split -l 8 - "$dir/$(basename "$s" .srte)-"
      done
      ;;
   esac
   echo "$dir"
}

declare -A maxLen=([input_record]=1024 [script_line]=2048 [script]=8192)
# The entropic schedule keeps a list of rare features and searches it for every feature an input
# reaches while they are still rare; the scenario targets reach tens of thousands per input, and
# that search took most of their time (libFuzzer's own work, not the target's). They use the plain
# schedule.
declare -A entropic=([input_record]=1 [script_line]=0 [script]=0)
status=0
failed=0
for t in "${targets[@]}"; do
   bin=$build/fuzz_$t
   corpus=tests/fuzz/corpus/$t
   mkdir -p "$work/$t/learned"
   extra=$(seeds "$t")
   # Regressions: each input once (a directory of inputs is run file by file), every line's
   # state compared in full (the timed run compares a sample, see script_line.cpp).
   inputs=$(find "$corpus" "$extra" -type f | sort)
   n=$(echo "$inputs" | grep -c . || true)
   echo "== fuzz_$t: $n regression inputs and seeds"
   if ! echo "$inputs" | SRTE_FUZZ_SNAPSHOT_EVERY_LINE=1 xargs -r "$bin" -runs=0 \
      >"$work/$t/regressions.log" 2>&1; then
      # -runs=0 on files executes each; a failure prints the input and the report.
      tail -40 "$work/$t/regressions.log"
      status=1
      failed=$((failed + 1))
      continue
   fi
   if [ "$seconds" -gt 0 ]; then
      log=$work/$t/fuzz.log
      if "$bin" "$work/$t/learned" "$corpus" "$extra" -max_total_time="$seconds" \
         -entropic="${entropic[$t]}" \
         -max_len="${maxLen[$t]}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
         -artifact_prefix="$work/$t/" >"$log" 2>&1; then
         echo "   $(grep -E 'stat::number_of_executed_units' "$log" | awk '{print $2}') executions in ${seconds} s," \
            "$(grep -E 'stat::new_units_added' "$log" | awk '{print $2}') new units; coverage" \
            "$(grep -oE 'cov: [0-9]+' "$log" | tail -1)"
      else
         echo "   fuzz_$t FAILED; its input is in $work/$t/:"
         ls "$work/$t" | grep -E '^(crash|leak|timeout|oom)-' || true
         grep -B2 -A30 -E 'ERROR|FUZZ FAILURE|runtime error' "$log" | head -60
         status=1
         failed=$((failed + 1))
      fi
   fi
done
echo "fuzz: $((${#targets[@]} - failed)) passed, $failed failed"
exit $status
