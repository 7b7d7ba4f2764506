#!/usr/bin/env bash
# Sets up, builds and runs all tests.
# Usage: scripts/test.sh [PRESET...]    (release, debug, asan, tsan, coverage; default: release)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build

for preset in "${@:-release}"; do
  echo "== $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" -j "$(nproc)"
done
