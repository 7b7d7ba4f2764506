#!/usr/bin/env bash
# Installs the peers, builds and runs every benchmark, and prints how the library compares with them.
# Usage: scripts/bench.sh [FILTER]    (a regular expression over benchmark names)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench

results=build/bench/results
mkdir -p "$results"
rm -f "$results"/*.json
for program in build/bench/bench/*_bench; do
  "$program" --benchmark_filter="${1:-.}" --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
    --benchmark_out="$results/$(basename "$program").json" --benchmark_out_format=json >/dev/null
done
python3 scripts/bench_ratios.py "$results"/*.json
