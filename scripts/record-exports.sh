#!/usr/bin/env bash
# Records the exported symbols of the release build as the library's binary interface.
set -euo pipefail
cd "$(dirname "$0")/.."
tests/package/exports_test.sh build/release/libkel.so tests/package/exports.txt --record
git diff --stat -- tests/package/exports.txt
