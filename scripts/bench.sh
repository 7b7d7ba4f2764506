#!/usr/bin/env bash
# Installs the peers, builds and runs every benchmark, and prints how the library compares with them.
# Usage: scripts/bench.sh [FILTER]    (a regular expression over benchmark names)
# REPETITIONS (default 5) is how often each benchmark runs, in turns with its peers; medians count.
set -euo pipefail
cd "$(dirname "$0")/.."
filter=${1:-.}
scripts/setup.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench

results=build/bench/results
rm -rf "$results"
mkdir -p "$results"
for program in build/bench/bench/*_bench; do
  name=$(basename "$program")
  # A program in which the filter leaves nothing to run is passed over.
  [ -n "$("$program" --benchmark_list_tests --benchmark_filter="$filter" 2>/dev/null)" ] || continue
  echo "running $name" >&2
  "$program" --benchmark_filter="$filter" --benchmark_repetitions="${REPETITIONS:-5}" \
    --benchmark_enable_random_interleaving=true --benchmark_out="$results/$name.json" \
    --benchmark_out_format=json >"$results/$name.log" 2>&1 || {
    echo "bench.sh: $name failed with status $?; its last lines:" >&2
    tail -n 5 "$results/$name.log" >&2
    exit 1
  }
done
python3 scripts/bench_ratios.py "$results"/*.json
