#!/usr/bin/env bash
# Builds the reference into build/docs/html; any warning fails it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh docs
mkdir -p build/docs
doxygen docs/Doxyfile
echo "build/docs/html/index.html"
