#!/usr/bin/env bash
# What linking Brivet costs an app: builds the small app of both models (examples/app/both_models.cc) the way a
# mobile app is built (Clang, -Os, libc++ as a shared library, no exceptions, no RTTI, one section per function
# and per datum, unused sections dropped at link time), and the same program without Brivet, strips both, and
# prints the bytes Brivet adds and the largest symbols it brings. Exits 1 when the bytes added exceed
# SIZE_BUDGET_KB (default 450).
#
#   scripts/size_report.sh            (or: make size)
#   SIZE_SYMBOLS=40 scripts/size_report.sh
set -euo pipefail
cd "$(dirname "$0")/.."
build=${SIZE_BUILD:-build-size}
budget_kb=${SIZE_BUDGET_KB:-450}
symbols=${SIZE_SYMBOLS:-25}

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=MinSizeRel \
  -DCMAKE_CXX_FLAGS="-stdlib=libc++ -fno-exceptions -fno-rtti -ffunction-sections -fdata-sections" \
  -DCMAKE_EXE_LINKER_FLAGS="-Wl,--gc-sections" \
  -DBRIVET_BUILD_TESTS=OFF -DBRIVET_BUILD_TOOLS=OFF -DBRIVET_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" --target brivet_both_models brivet_both_models_baseline >/dev/null

app="$build/examples/app/brivet_both_models"
baseline="$build/examples/app/brivet_both_models_baseline"
"$app" >/dev/null  # the measured program must work
mkdir -p "$build/stripped"
strip -o "$build/stripped/with" "$app"
strip -o "$build/stripped/without" "$baseline"
with=$(stat -c %s "$build/stripped/with")
without=$(stat -c %s "$build/stripped/without")
added=$((with - without))

echo "Largest symbols in the app ($symbols):"
nm -C -t d --size-sort --reverse-sort --print-size "$app" >"$build/stripped/symbols.txt"
head -n "$symbols" "$build/stripped/symbols.txt" |
  awk '{ size = $2 + 0; $1 = ""; $2 = ""; $3 = ""; sub(/^ +/, ""); printf "  %8d  %s\n", size, substr($0, 1, 150) }'
echo "Stripped sizes: with Brivet $with bytes, without $without bytes"
printf 'Brivet adds %d bytes (%d KB); budget %d KB\n' "$added" $(((added + 1023) / 1024)) "$budget_kb"
if [ "$added" -gt $((budget_kb * 1024)) ]; then
  echo "size_report: over the budget" >&2
  exit 1
fi
