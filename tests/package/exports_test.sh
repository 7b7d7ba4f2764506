#!/usr/bin/env bash
# Holds the library's exported symbols against the recorded list, so that none comes or goes unnoticed.
# Usage: exports_test.sh LIBRARY RECORDED [--record]
set -euo pipefail
current() { nm -D --defined-only --format=posix "$1" | awk '{print $1}' | LC_ALL=C sort; }
if [ "${3:-}" = --record ]; then
  current "$1" >"$2"
else
  diff <(current "$1") "$2" || { echo "exports changed: if meant, record them with scripts/record-exports.sh"; exit 1; }
fi
