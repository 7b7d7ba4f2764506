#!/usr/bin/env bash
# One scenario of kel-dedup.
# Usage: dedup_test.sh PROGRAM SCENARIO SCALE SYNTHETIC
# SCALE: how much data, 1 to 4. SYNTHETIC: the program that makes a repository of many chunks.
set -euo pipefail
program=$(realpath "$1")
scale=$3
synthetic=$(realpath "$4")
work=$(mktemp -d)
trap 'kill -9 $(jobs -p) 2>/dev/null || true; chmod -R u+rwX "$work"; rm -rf "$work"' EXIT
cd "$work"
export LC_ALL=C XDG_CONFIG_HOME="$work/config"
key_file=config/kel-dedup/auth.key

fail() {
  echo "FAILED: $*" >&2
  [ ! -s log ] || sed 's/^/  /' log >&2
  exit 1
}

# expect STATUS ARGUMENT...: runs kel-dedup; what it prints is in `log`.
expect() {
  local wanted=$1 status=0
  shift
  "$program" "$@" >log 2>&1 || status=$?
  [ "$status" -eq "$wanted" ] || fail "kel-dedup $* gave $status instead of $wanted"
}

# says TEXT: the last run printed it.
says() { grep -qF -- "$1" log || fail "it did not print: $1"; }

# row NAME: the number in a row of the table that a store prints.
row() { awk -v name="$1" '$1 == name { print $2 }' log; }

# without_rights COMMAND...: runs it with the rights of its user and none of root's.
without_rights() {
  if [ "$(id -u)" -eq 0 ]; then setpriv --bounding-set -all "$@"; else "$@"; fi
}

random() { head -c "$1" /dev/urandom; }
fingerprints() { (cd "$1" && find . -printf '%y %m %U %G %T@ %l %p\0' | sort -z | sha256sum); }

expect_same() {
  diff -r --no-dereference "$1" "$2" >log 2>&1 || fail "$2 differs from $1"
  [ "$(fingerprints "$1")" = "$(fingerprints "$2")" ] || fail "modes, times or links differ"
}

# What is in the second folder is as in the first, which may have more.
expect_no_wrong_file() {
  ! diff -r --no-dereference "$1" "$2" | grep -v "^Only in $1" || fail "$2 has what $1 has not"
}

make_data_tree() {
  mkdir -p tree/sub
  random $((scale * 1500000)) >tree/random
  seq $((scale * 100000)) >tree/sub/numbers
  for i in $(seq 40); do random $((i * 97)) >"tree/sub/small$i"; done
}

BringsATreeBack() {
  mkdir tree && cd tree
  for size in 0 1 4095 4096 4097 65535 65536 65537 1048576 $((scale * 1300000)); do
    random $size >"size$size"
  done
  cp size65537 copy && ln copy hard-link
  truncate -s 30M sparse && echo end >>sparse && truncate -s 20M hole
  touch ./-dash ' space ' '...' $'new\nline' $'\xff\xfe' $'\e[31m' "$(printf '%0255d' 0)"
  ln -s nowhere dangling && ln -s / absolute && ln -s loop loop && ln -s . here
  ln -s "$(printf '%04000d' 0)" long-link
  mkdir -p empty a/b/c sticky locked/inside && echo x >locked/inside/file
  mkfifo pipe
  echo s >setuid && chmod 6755 setuid && chmod 1777 sticky && chmod 0400 size1
  touch -d '1901-12-14 01:02:03.123456789' size0 && touch -d '2100-01-01' empty
  touch -h -d '1999-09-09' dangling
  chmod 0555 locked/inside locked && touch -d '2001-01-01' a locked .
  cd ..
  # The repository lies in the tree and is left out.
  expect 0 store tree/repo tree && says 'pipe is neither file, folder nor link'
  expect 0 restore tree/repo latest out
  expect 0 verify tree/repo
  mv tree/repo . && rm tree/pipe && touch -d '2001-01-01' tree
  touch -d '2001-01-01' out
  expect_same tree out
  [ "$(du -k out/hole out/sparse | awk '{ n += $1 } END { print n }')" -lt 1000 ] || fail 'no holes'
  expect 1 restore repo latest out && says 'name a new or an empty folder'
  expect 1 restore repo 9 out9 && says 'no snapshot 9'
  expect 1 store repo repo && says 'it is the repository itself'
  expect 1 store tree/a/.. repo && says 'other things than a repository'

  # Deeper than any path may be long.
  mkdir deep && (
    cd -P deep
    for i in $(seq 30); do mkdir "$(printf '%0200d' "$i")" && cd -P ./0* && echo "$i" >file; done
  )
  expect 0 store repo deep && expect 0 restore repo latest deep-out
  [ "$(fingerprints deep)" = "$(fingerprints deep-out)" ] || fail 'the deep tree differs'
  [ "$(find deep-out -name file -execdir cat {} \; | sort -n | tail -n 1)" = 30 ] || fail 'no file 30'
}

StoresEachChunkOnce() {
  make_data_tree
  expect 0 store repo tree
  [ "$(row new)" -gt $((scale * 50)) ] || fail 'too few chunks'
  expect 0 store repo tree
  [ "$(row new)" -eq 0 ] && [ "$(row chunks)" -gt 0 ] || fail 'a second store added chunks'
  local size=$((scale * 1500000))
  { head -c $((size / 3)) tree/random && echo inserted && tail -c +$((size / 3 + 1)) tree/random; } >t
  mv t tree/random
  expect 0 store repo tree
  [ "$(row new)" -ge 1 ] && [ "$(row new)" -le 4 ] || fail "an insertion made $(row new) new chunks"
  expect 0 restore repo 3 out && expect_same tree out
  cmp -s out/random <(head -c 1000000000 tree/random) || fail 'the changed file differs'
  expect 0 list repo && [ "$(wc -l <log)" -eq 4 ] || fail 'there should be three snapshots'
  expect 1 store repo /nowhere && says 'could not store /nowhere'
  local odd=$'odd\n\xff' && mkdir "$odd" && expect 0 store repo "$odd" && expect 0 list repo --json
  [ "$(jq -r '.snapshots[2:] | map(.number, .files, .problems) | @csv' log)" = 3,42,0,4,0,0 ] || fail 'wrong JSON'
  [ "$(jq -r '.snapshots[3].source' log)" = "$work/odd\\x0a\\xff" ] || fail 'another source'
  cmp -s <(printf %s "$work/$odd") <(jq -r '.snapshots[3].source_base64' log | base64 -d) || fail 'other bytes'
}

# flip_bit FILE AT: another byte AT that place.
flip_bit() {
  local byte
  byte=$(od -An -tu1 -j "$2" -N 1 "$1")
  # shellcheck disable=SC2059
  printf "\\x$(printf %x $((byte ^ (1 << RANDOM % 8))))" |
    dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

# damage_one FILE: FILE of the repository is damaged; that is found and leads to nothing wrong.
damage_one() {
  expect 1 verify repo && says "$1"
  rm -rf out && expect 1 restore repo 1 out && says "$1"
  [ ! -d out ] || expect_no_wrong_file tree out
}

ReportsDamage() {
  make_data_tree
  expect 0 store repo tree
  cp -a repo whole
  local file size at
  for file in whole/containers/*; do
    file=${file#whole/}
    size=$(stat -c %s "whole/$file")
    for at in 0 14 30 66 $((RANDOM * 31 % size)) $((size - 20)); do
      flip_bit "repo/$file" "$at"
      damage_one "repo/$file"
      cp -a "whole/$file" "repo/$file"
    done
    for at in 0 20 $((size / 2)) $((size - 1)); do
      truncate -s "$at" "repo/$file" && damage_one "repo/$file"
      cp -a "whole/$file" "repo/$file"
    done
    echo more >>"repo/$file" && damage_one "repo/$file"
    cp -a "whole/$file" "repo/$file"
  done

  # A database has room that nothing is kept in: what is not found there does no harm.
  file=repo/snapshots/00000001.kds
  size=$(stat -c %s $file)
  for at in 17 18 19 $(for _ in $(seq $((scale * 5))); do echo $(((RANDOM << 15 | RANDOM) % size)); done); do
    flip_bit $file "$at"
    if "$program" verify repo >log 2>&1; then
      rm -rf out && expect 0 restore repo 1 out && expect_same tree out
    else
      says $file
      rm -rf out && { "$program" restore repo 1 out >log 2>&1 || says $file; } && expect_no_wrong_file tree out
    fi
    cp -a "whole/${file#repo/}" $file
  done
  for at in 0 20 100 5000 $((size - 1)); do
    truncate -s "$at" $file && damage_one $file
    cp -a "whole/${file#repo/}" $file
  done
  # What rows hold is found wherever it is changed, left out, repeated or moved, and in other files.
  expect 0 store repo tree && cp repo/snapshots/00000002.kds whole/2
  for sql in 'DELETE FROM segments WHERE number = 1' 'DELETE FROM segments WHERE number = 2' \
    'UPDATE segments SET number = 8 - number; UPDATE segments SET number = number - 5' 'DROP TABLE segments' \
    'INSERT INTO segments SELECT 3, size, seal, stream FROM segments WHERE number = 2' \
    "UPDATE segments SET stream = substr(stream, 1, 100) || 'AAAA' || substr(stream, 105) WHERE number = 1" \
    'UPDATE segments SET size = size + 1' 'UPDATE segments SET seal = substr(seal, 5)' \
    "UPDATE registry SET value = 'other' WHERE name = 'Format'" 'DROP TABLE registry' \
    "UPDATE registry SET value = '9' WHERE name = 'Version'" \
    'ATTACH "whole/2" AS other; REPLACE INTO segments SELECT * FROM other.segments WHERE number = 1'; do
    sqlite3 $file "$sql" && damage_one $file
    cp -a "whole/${file#repo/}" $file
  done
  expect 0 verify repo
  [ "$(ls repo/snapshots)" = $'00000001.kds\n00000002.kds' ] || fail 'SQLite left files there'

  # The advice: what is moved away is stored again.
  mv repo/containers/00000001.kdc away
  expect 1 verify repo && says 'cannot be restored'
  rm -rf out && expect 1 restore repo 1 out && expect_no_wrong_file tree out
  expect 0 store repo tree && [ "$(row new)" -gt 0 ] || fail 'nothing was stored again'
  expect 0 verify repo
  rm -rf out && expect 0 restore repo 1 out && expect_same tree out
}

SurvivesBeingKilled() {
  make_data_tree
  for round in $(seq $((scale * 6))); do
    random 1200000 >"tree/round$((round % 3))"
    "$program" store repo tree >/dev/null 2>&1 &
    sleep "0.$(printf %03d $((RANDOM % 100 + 1)))"
    kill -9 $! 2>/dev/null || true
    wait $! 2>/dev/null || true
    # Before the first store came far there is no repository; afterwards it is always whole.
    [ ! -e repo/settings.ini ] || expect 0 verify repo
  done
  expect 0 store repo tree
  [ -z "$(ls repo/tmp)" ] || fail 'something was left in tmp'
  expect 0 verify repo && expect 0 restore repo latest out && expect_same tree out

  # A file cannot grow beyond the limit, as on a full disk.
  random 3000000 >tree/more
  (trap '' XFSZ && ulimit -f 400 && expect 1 store repo tree && says 'make room and store again')
  expect 0 verify repo && expect 0 store repo tree
  rm -rf out && expect 0 restore repo latest out && expect_same tree out
}

# A repository of so many containers that it has an index file.
make_indexed_repository() {
  make_data_tree
  for i in $(seq 10); do random 9000 >"tree/day$i" && expect 0 store repo tree; done
  [ -s repo/index ] || fail 'there is no index file'
}

# expect_whole: a restore brings the tree back, a store finds all its chunks and makes the index
# good.
expect_whole() {
  rm -rf out && expect 0 restore repo latest out && expect_same tree out
  expect 0 store repo tree
  [ "$(row new)" -eq 0 ] || fail 'known chunks were stored again'
  expect 0 verify repo && ! grep -q repo/index log || fail 'the index is still not good'
}

TrustsNoIndex() {
  make_indexed_repository && mv repo other
  make_indexed_repository
  local size blocks at chunks
  chunks=$(row chunks)
  size=$(stat -c %s repo/index)
  cp -a repo whole
  rm repo/index && expect 0 verify repo && expect_whole
  for at in 3 9 20 25 50 $((size / 4096 * 4096 - 4096)) $((size - 100)) $((size - 1)); do
    rm -rf repo && cp -a whole repo
    flip_bit repo/index "$at"
    expect 1 verify repo && says 'repo/index is damaged'
    # In a block it is found only by those who look there; at worst chunks are stored again.
    [ "$at" -le 50 ] || [ "$at" -ge $((size - 100)) ] || rm repo/index
    expect_whole
  done
  for index in other/index whole/containers/00000001.kdc /dev/null; do
    cat $index >repo/index && expect 1 verify repo && expect_whole
  done
  truncate -s $((size - 1)) repo/index && expect_whole

  # Blocks of zeros: a store finds nothing there, a restore all.
  rm -rf repo && cp -a whole repo
  blocks=$((size / 4096 - 1))
  dd if=/dev/zero of=repo/index bs=4096 seek=1 count=$blocks conv=notrunc status=none
  rm -rf out && expect 0 restore repo latest out && expect_same tree out
  expect 0 store repo tree && [ "$(row new)" -gt $((chunks / 2)) ] || fail 'zeros were believed'
  expect_whole
  cp whole/index repo/index && expect_whole

  # A container that is gone, and comes back.
  rm -rf repo && cp -a whole repo
  mv repo/containers/00000001.kdc away
  expect 1 verify repo && says 'of other containers' && says 'cannot be restored'
  expect 0 store repo tree && [ "$(row new)" -gt 0 ] || fail 'the index hid what is gone'
  mv away repo/containers/00000001.kdc && expect_whole
  # One that was cut off, and one whose table is damaged.
  for size in 5000 +0; do
    rm -rf repo && cp -a whole repo
    dd if=whole/key of=repo/containers/00000001.kdc bs=1 seek=90 conv=notrunc status=none
    truncate -s $size repo/containers/00000001.kdc
    expect 1 store repo tree && says 'repo/containers/00000001.kdc'
    [ "$(row new)" -gt 0 ] || fail 'the index hid what is damaged'
  done
}

UsesNoNumberTwice() {
  make_indexed_repository
  local last=10
  next() {
    random 9000 >tree/next && expect 0 store repo tree && last=$((last + 1))
    [ -e "repo/containers/$(printf %08d $last).kdc" ] || fail "there is no container $last"
  }
  next
  rm repo/last-container && next
  echo damaged-file >repo/last-container && next && says 'repo/last-container is damaged'
  head -c 3 /dev/zero >repo/last-container && next
  # Behind, as from an old copy.
  head -c 8 /dev/zero >repo/last-container && next
  mv "repo/containers/$(printf %08d $last).kdc" . && next
}

# The hash tree of all chunks would take 80 bytes for each.
OpensMoreThanMemoryHolds() {
  local chunks=2000000
  "$synthetic" repo $chunks
  make_data_tree
  ulimit -d 90000
  for _ in 1 2; do expect 0 store repo tree; done
  [ "$(row new)" -eq 0 ] || fail 'known chunks were stored again'
  expect 0 restore repo latest out && expect_same tree out
  # Without rights to write there, and no index.
  rm repo/index && chmod -R a-w repo && rm -rf out && mkdir temporary
  export TMPDIR=$PWD/temporary
  without_rights "$program" restore repo latest out >log 2>&1 || fail 'restore needs an index'
  expect_same tree out
  [ -z "$(ls temporary)" ] || fail 'something was left in TMPDIR'
}

RefusesAWrongKey() {
  make_data_tree
  expect 0 store repo tree && expect 0 store other tree
  [ "$(stat -c %a repo/key)" = 600 ] || fail 'others may read the key'
  ! grep -rqF -e small1 -e "$work" repo || fail 'a name can be read in the repository'
  cp repo/key key
  cut=$(head -c 165 key) digits=$(head -c 64 other/key | tr X 0)
  for wrong in "$(cat other/key)" "$(tr 0-9A 1-9A0 <key)" "X10000${cut:6}0" "$cut" "$digits" ''; do
    echo "$wrong" >repo/key
    for command in 'verify repo' 'list repo' 'restore repo 1 out' 'store repo tree'; do
      # shellcheck disable=SC2086
      expect 1 $command && says 'repo/key'
    done
  done
  rm repo/key && expect 1 store repo tree && says 'repo/key'
  [ ! -e out ] && [ ! -e repo/key ] || fail 'something was made without the key'
  cp key repo/key && chmod 600 repo/key && expect 0 verify repo
  sed -i 's/^Version=.*/Version=9/' repo/settings.ini
  expect 1 verify repo && says 'reads version 2' && expect 1 store repo tree
  rm repo/settings.ini && expect 1 store repo tree && says 'settings.ini is missing'
}

NeedsItsKeyFile() {
  make_data_tree
  expect 1 --key-file=repo/key.kf store repo tree && says 'lies in the repository'
  expect 1 --key-file=nowhere/key.kf store repo tree && says 'could not make the key file'
  HOME='' XDG_CONFIG_HOME='' expect 1 store repo tree && says 'name one with --key-file'
  # Killed at any moment, a first store leaves a whole key file or none.
  for _ in $(seq $((scale * 2))); do
    rm -rf repo config
    "$program" store repo tree >/dev/null 2>&1 &
    sleep "0.0$(printf %02d $((RANDOM % 40)))"
    kill -9 $! 2>/dev/null || true
    wait $! 2>/dev/null || true
    expect 0 store repo tree
  done
  [ "$(stat -c %a $key_file)" = 600 ] && [ "$(stat -c %a config/kel-dedup)" = 700 ] ||
    fail 'others may read the key file'
  cp $key_file whole && expect 0 --key-file=mine.kf store mine tree && says 'made the key file mine.kf'
  printf '[Repository]\nKeyFile = mine.kf\n' >conf && expect 0 -c conf verify mine
  ! "$program" list mine 2>&1 | grep -qF "$(sed -n 3p whole)" || fail 'the key was printed'
  ! "$program" list mine >log 2>&1 && says 'does not open mine/key' || fail 'a wrong key file opened it'

  for damaged in 's/^version=0/version=1/' '3s/^..../AAAA/' '4d' 'd'; do
    sed "$damaged" whole >$key_file
    for command in 'verify repo' 'restore repo 1 out' 'store repo tree'; do
      # shellcheck disable=SC2086
      expect 1 $command && says 'auth.key does not open repo/key'
    done
  done
  cp $key_file damaged && expect 1 store other tree && says 'is no key file' && cmp damaged $key_file
  rm $key_file && expect 1 store repo tree && says 'could not read the key file' && says --key-file
  [ ! -e out ] && [ ! -e $key_file ] || fail 'something was made without the key file'
  # One that somebody else has made: another number, and more keys than one.
  printf '%s\n' version=7 count=2 "$(printf %032d 7)" other >other.kf
  printf 'self=%s\n' "$(tr -d '\n' <other.kf | python3 -c 'import sys, zlib
print(zlib.adler32(sys.stdin.buffer.read()))')" >>other.kf
  rm -rf other && chmod 644 other.kf && expect 0 -k other.kf store other tree
  expect 0 -k other.kf verify other
  says 'others may read other.kf' && [ "$(head -c 6 other/key)" = X70000 ] || fail 'not under its number'
  cp whole $key_file && expect 0 verify repo && expect 0 restore repo latest out && expect_same tree out
}

SharesARepository() {
  make_data_tree
  expect 0 store repo tree
  # A store waits for the one that runs, and goes on when that is killed.
  mkdir endless && truncate -s 1T endless/zeros
  "$program" store repo endless >/dev/null 2>&1 &
  local first=$!
  until [ -n "$(ls repo/tmp)" ]; do sleep 0.01; done
  "$program" store repo tree >waiting 2>&1 &
  local second=$!
  until grep -q "another store is running on repo (process $first)" waiting; do sleep 0.01; done
  expect 0 verify repo && expect 0 list repo && [ "$(wc -l <log)" -eq 2 ] || fail 'it did not wait'
  kill -9 $first && wait $second || fail 'it did not go on'
  expect 0 list repo && [ "$(wc -l <log)" -eq 3 ] || fail 'there should be two snapshots'
  chmod -R a-w repo
  without_rights "$program" list repo >log || fail 'list needs to write'
  without_rights "$program" verify repo >log || fail 'verify needs to write'
  without_rights "$program" restore repo 1 out >log || fail 'restore needs to write'
  expect_same tree out
  ! "$program" list repo >/dev/full 2>log || fail 'lost output was not noticed'
}

ReportsWhatItCannotStore() {
  make_data_tree
  mkdir tree/closed && chmod 000 tree/closed tree/sub/small7
  ! without_rights "$program" store repo tree >log 2>&1 || fail 'unreadable files went unnoticed'
  says 'could not read' && says 'tree/closed' && says 'tree/sub/small7'
  expect 0 list repo && says 'incomplete: 2 problems'
  expect 0 restore repo latest out && [ ! -e out/sub/small7 ] && [ -d out/closed ] || fail 'odd result'
  cmp -s tree/random out/random || fail 'the rest is not there'
  chmod 755 tree/closed && chmod 644 tree/sub/small7

  # A folder that cannot be read to its end takes no other with it.
  mkdir tree/sub-way && echo last >tree/sub-way/last
  if strace -o log true; then
    ! ASAN_OPTIONS=detect_leaks=0 strace -f -qq -o /dev/null -P "$PWD/tree/sub" \
      -e inject=getdents64:error=EIO "$program" store repo tree >log 2>&1 || fail 'it went unnoticed'
    says 'tree/sub: Input/output error'
    rm -rf out && expect 0 restore repo latest out && expect_no_wrong_file tree out
    cmp -s tree/random out/random && [ -s out/sub-way/last ] || fail 'the rest is not there'
  fi

  random $((scale * 5000000)) >tree/growing
  (while :; do echo more >>tree/growing; done) &
  local writer=$! seen=
  for _ in $(seq 20); do
    "$program" store repo tree >log 2>&1 || true
    if grep -q 'growing changed while it was read' log; then seen=yes && break; fi
  done
  kill $writer && wait $writer 2>/dev/null || true
  [ -n "$seen" ] || fail 'a file that grew was not noticed'
  expect 0 verify repo
}

TakesOptionsFromFileAndCommandLine() {
  make_data_tree
  printf '[Repository]\nChunkSize = 64KiB\nCompression = zlib\n' >conf
  expect 0 -c conf store file-repo tree
  local large=$(row new) zlib=$(du -k file-repo/containers | cut -f 1)
  expect 0 --config=conf --chunk-size=4KiB --compression=none store repo tree
  local small=$(row new)
  [ "$small" -gt $((large * 5)) ] && [ "$small" -lt $((large * 32)) ] || fail "$small and $large chunks"
  [ "$zlib" -lt "$(du -k repo/containers | cut -f 1)" ] || fail 'zlib takes no less than nothing'
  # A repository keeps its settings, so that its chunks are found again.
  expect 0 --chunk-size=1MiB store repo tree && says 'keeps the chunk size 4KiB and the compression none'
  [ "$(row new)" -eq 0 ] || fail 'the chunks were cut in another way'
  for repo in file-repo repo; do
    expect 0 verify $repo && expect 0 restore $repo latest $repo.out && expect_same tree $repo.out
  done
  for refused in --chunk-size=5000 --chunk-size=2MiB --compression=best --nothing; do
    expect 1 $refused store other tree && [ ! -e other ] || fail "$refused was taken"
  done
  sed -i 's/^ChunkSize=.*/ChunkSize=5KiB/' repo/settings.ini && expect 1 list repo && says 'BadValue'
  expect 1 -c conf --help && says '(default: 64KiB (configuration default))'
}

LogsToFilesThatRotate() {
  # A line with the name of each pipe, of some 2,000 bytes: over 1 MiB in each store.
  local folder=tree second i
  for i in $(seq 7); do folder+=/$(printf '%0250d' "$i"); done
  mkdir -p "$folder" logs && (cd "$folder" && mkfifo $(seq -f 'pipe%g.' 100 699))
  printf '[Logging]\nLogPath = logs\nMaxSize = 1MiB\nRetention = 3\n' >conf
  touch logs/kel-dedup.log.20010101000000 logs/kel-dedup.log.mine logs/kel-dedup.log.20010101000001
  touch -d '4 days ago' logs/kel-dedup.log.20010101000000 logs/kel-dedup.log.mine
  for _ in 1 2 3; do
    expect 0 -c conf store repo tree && says 'is neither file' && ! grep -q Info: log || fail 'it talks'
    # Files that are moved away within one second have one name.
    second=$(date +%s)
    until [ "$(date +%s)" -gt "$second" ]; do sleep 0.05; done
  done
  : >log
  [ "$(ls logs | wc -l)" -ge 5 ] || fail 'the log was not rotated'
  [ "$(stat -c %s logs/* | sort -n | tail -n 1)" -lt $((1048576 + 4096)) ] || fail 'a log is too large'
  [ "$(cat logs/* | grep -c ' INFO: .*kel-dedup store of repo: done$')" -eq 3 ] || fail 'no line of the end'
  cat logs/* | grep -o 'pipe[0-9]*\. is neither file' | sort | uniq -c | awk '$1 != 3' >log
  [ "$(cat logs/* | grep -c 'is neither file')" -eq 1800 ] && [ ! -s log ] || fail 'lines were lost'
  [ ! -e logs/kel-dedup.log.20010101000000 ] && [ -e logs/kel-dedup.log.mine ] &&
    [ -e logs/kel-dedup.log.20010101000001 ] || fail 'not the old files were removed'
  # Without a file, and what cannot be.
  printf '[Repository]\nChunkSize = 16KiB\n' >conf
  expect 0 -c conf list repo && ! grep -q Info: log || fail 'it talks'
  printf '[Logging]\nLogging = long\n' >conf && expect 0 -c conf list repo && says 'Info: kel-dedup list'
  for wrong in Logging=loud MaxSize=5KiB MaxSize=large LogPath=conf; do
    printf '[Logging]\n%s\n' $wrong >conf && expect 1 -c conf list repo && says BadValue
  done
}

ShowsProgressOnTerminals() {
  make_data_tree
  "$program" store repo tree 2>log >/dev/null
  [ ! -s log ] || fail 'a line of progress in a pipe'
  for command in 'store repo tree' 'verify repo' 'restore repo latest out'; do
    script -qec "$program $command" /dev/null </dev/null >log || fail "$command failed on a terminal"
    grep -qE '(storing|verifying|restoring) [0-9]+ files, .*/s' log || fail "no progress of $command"
    grep -qF $'\r\e[K' log || fail "the line of $command stays"
  done
  script -qec "$program --quiet verify repo" /dev/null </dev/null >log && ! grep -q verifying log ||
    fail 'not quiet'
}

"$2"
