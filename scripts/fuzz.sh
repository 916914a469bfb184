#!/usr/bin/env bash
# Builds every libFuzzer target (Clang, AddressSanitizer + UndefinedBehaviorSanitizer) and runs
# each one for FUZZ_SECONDS. A run first replays the target's seed corpus (corpus/<name>/ beside
# its source) and whatever earlier runs kept in build-fuzz/corpus/<name>/, then fuzzes. A crash,
# a leak, a hang (an input slower than FUZZ_INPUT_TIMEOUT seconds) or an input that needs more
# than FUZZ_RSS_MB of memory fails the run; the input is kept in build-fuzz/artifacts/<name>/.
#
#   FUZZ_SECONDS=60 scripts/fuzz.sh                 every target, 60 s each (the default)
#   FUZZ_TARGETS="json_text path" scripts/fuzz.sh   only these targets (separated by spaces or commas)
#   FUZZ_RUNS=10000000 scripts/fuzz.sh              stop each target after that many executions
set -euo pipefail
cd "$(dirname "$0")/.."

build=${FUZZ_BUILD:-build-fuzz}
seconds=${FUZZ_SECONDS:-60}
runs=${FUZZ_RUNS:--1}
input_timeout=${FUZZ_INPUT_TIMEOUT:-10}
rss_mb=${FUZZ_RSS_MB:-2048}
only=${FUZZ_TARGETS:-}
only=${only//,/ }

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBRIVET_WERROR=ON -DBRIVET_SANITIZE=address,undefined -DBRIVET_BUILD_FUZZERS=ON \
  -DBRIVET_BUILD_TESTS=OFF -DBRIVET_BUILD_BENCHMARKS=OFF -DBRIVET_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build"

list="$build/fuzzers.txt"
if [ ! -s "$list" ] || ! grep -q . "$list"; then
  echo "fuzz: no fuzz targets were built" >&2
  exit 1
fi

export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_init_order=1
failed=0
ran=0
printf '%-22s %14s %10s %8s  %s\n' target executions exec/s corpus result
while read -r name binary seed; do
  [ -n "$name" ] || continue
  if [ -n "$only" ] && ! [[ " $only " == *" $name "* ]]; then continue; fi
  work="$build/corpus/$name"
  artifacts="$build/artifacts/$name/"
  log="$build/logs/$name.log"
  mkdir -p "$work" "$artifacts" "$(dirname "$log")"
  dict=()
  [ -f "$seed.dict" ] && dict=("-dict=$seed.dict")
  result=ok
  if ! "$binary" "$work" "$seed" "${dict[@]}" -max_total_time="$seconds" -runs="$runs" \
       -timeout="$input_timeout" -rss_limit_mb="$rss_mb" -artifact_prefix="$artifacts" \
       -print_final_stats=1 >"$log" 2>&1; then
    result="FAILED (see $log)"
    failed=1
  fi
  execs=$(awk '/stat::number_of_executed_units/ {print $2}' "$log" | tail -n 1)
  rate=$(awk '/stat::average_exec_per_sec/ {print $2}' "$log" | tail -n 1)
  size=$(find "$work" -type f | wc -l)
  printf '%-22s %14s %10s %8s  %s\n' "$name" "${execs:-?}" "${rate:-?}" "$size" "$result"
  if [ "$result" != ok ]; then tail -n 40 "$log" >&2; fi
  ran=$((ran + 1))
done <"$list"

if [ "$ran" -eq 0 ]; then
  echo "fuzz: FUZZ_TARGETS named no built target" >&2
  exit 1
fi
exit "$failed"
