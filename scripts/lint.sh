#!/usr/bin/env bash
# Holds the tree against its formatter, its linter and the compiler's warnings.
# Usage: scripts/lint.sh
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build lint

mapfile -t sources < <(git ls-files '*.cc' '*.h' '*.c')
echo "== clang-format"
clang-format --dry-run --Werror "${sources[@]}"

# The release preset turns warnings into errors and writes the compilation database.
echo "== warnings"
cmake --preset release >/dev/null
cmake --build --preset release

echo "== clang-tidy"
mapfile -t checked < <(git ls-files 'src/*.cc' 'examples/*.cc')
printf '%s\n' "${checked[@]}" |
  xargs -P "$(nproc)" -n 4 clang-tidy -p build/release --quiet --extra-arg=-Wno-unknown-warning-option 2> >(grep -v 'warnings generated' >&2)
