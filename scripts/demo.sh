#!/usr/bin/env bash
# Shows the library at work: stores /usr/include in a deduplicating repository, stores it again (nothing
# new), restores it and compares.
# Usage: scripts/demo.sh [DIRECTORY]    (default: /usr/include)
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$(realpath "${1:-/usr/include}")
scripts/setup.sh build
cmake --preset release >/dev/null
cmake --build --preset release --target kel-dedup

dedup=build/release/examples/dedup/kel-dedup
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "== store $source_dir"
"$dedup" store "$work/repo" "$source_dir"
echo "== store it again"
"$dedup" store "$work/repo" "$source_dir"
echo "== snapshots"
"$dedup" list "$work/repo"
echo "== verify"
"$dedup" verify "$work/repo"
echo "== restore and compare"
"$dedup" restore "$work/repo" latest "$work/restored"
diff -r --no-dereference "$source_dir" "$work/restored"
echo "identical: $source_dir and its restored copy"
echo "on disk: $(du -sh "$source_dir" | cut -f1) in the tree, $(du -sh "$work/repo" | cut -f1) in the repository"
