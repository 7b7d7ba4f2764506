#!/usr/bin/env bash
# Shows the library at work on real data: sets up, builds, stores a folder in a deduplicating repository,
# stores it again (nothing new), verifies, restores and compares. Ends with 0 only when all is the same.
# Usage: scripts/demo.sh [DIRECTORY]    (default: /usr/include)
set -euo pipefail
source_dir=$(realpath -e "${1:-/usr/include}")
cd "$(dirname "$0")/.."

echo "== Set up and build (the first time takes a minute or two)"
scripts/setup.sh build
cmake --preset release >/dev/null
cmake --build --preset release --target kel-dedup kel-dedup-walk-speed

dedup=build/release/examples/dedup/kel-dedup
work=$(mktemp -d)
export XDG_CONFIG_HOME="$work/config"  # where key files are made
trap 'chmod -R u+rwX "$work"; rm -rf "$work"' EXIT

echo
echo "== Options: defaults, a configuration file over them, the command line over both"
cat >"$work/dedup.ini" <<END
[Repository]
ChunkSize = 32KiB
Compression = zlib
KeyFile = $work/auth.key
[Logging]
LogPath = $work/logs
MaxSize = 1MiB
Retention = 30
END
cat "$work/dedup.ini"
"$dedup" --config="$work/dedup.ini" --chunk-size=8KiB --quiet store "$work/repo" "$source_dir"
echo "-- the settings that the repository keeps:"
cat "$work/repo/settings.ini"
echo "-- the log file:"
tail "$work"/logs/*
echo "-- the repository's key, which only the key file opens:"
cat "$work/repo/key"
rm -r "$work/repo"

echo
echo "== Walk: the library's, as kel-dedup uses it, beside the one that kel-dedup had before, in turns"
build/release/examples/dedup/kel-dedup-walk-speed "$source_dir"

echo
echo "== Store $source_dir: cut into chunks, each kept once, compressed and encrypted"
"$dedup" store "$work/repo" "$source_dir"
echo
echo "== Store it again: every chunk is known, nothing is added"
"$dedup" store "$work/repo" "$source_dir"
echo
echo "== The snapshots in the repository"
"$dedup" list "$work/repo"
echo "-- and as JSON, through jq:"
"$dedup" list "$work/repo" --json |
  jq -r '.snapshots[] | "snapshot \(.number): \(.files) files, \(.bytes) bytes, \(.new_bytes) of them new"'
echo
echo "== Verify: read everything, compute every fingerprint anew"
"$dedup" verify "$work/repo"
echo
echo "== Restore the latest snapshot and compare it with the original"
"$dedup" restore "$work/repo" latest "$work/restored"
if ! diff -r --no-dereference "$source_dir" "$work/restored"; then
  echo "FAILED: the restored copy differs from $source_dir" >&2
  exit 1
fi
echo "identical: $source_dir and its restored copy"
echo "on disk: $(du -sh "$source_dir" | cut -f1) the folder, $(du -sh "$work/repo" | cut -f1) the repository"
