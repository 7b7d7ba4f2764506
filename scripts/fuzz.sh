#!/usr/bin/env bash
# Builds the fuzz targets and runs each for a while on its corpus, as many at a time as there are cores.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]    (default: 60, all)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build fuzz
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

run_one() {
  local seconds=$1 target=$2
  local found=build/fuzz/found/$target log=build/fuzz/found/$target.log
  mkdir -p "$found"
  # New inputs go to the build folder; the seeds stay as they are.
  if build/fuzz/fuzz/"$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=20 -print_final_stats=1 \
      -artifact_prefix="$found/" "$found" "fuzz/corpus/$target" >"$log" 2>&1; then
    echo "$target: clean, $(sed -n 's/stat::number_of_executed_units: //p' "$log") runs in $seconds s"
  else
    echo "$target: FINDING, see $log"
    return 1
  fi
}
export -f run_one

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(cd fuzz && ls fuzz_*.cc | sed 's/\.cc$//')
printf '%s\n' "${targets[@]}" | xargs -P "$(nproc)" -I{} bash -c "run_one $seconds {}"
