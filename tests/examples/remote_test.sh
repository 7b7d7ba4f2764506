#!/usr/bin/env bash
# kel-dedup with a copy of its repository on an nginx, over HTTPS with client certificates.
# Usage: remote_test.sh PROGRAM HTTPS_SERVER
# Ends with 77 where there is no nginx.
set -euo pipefail
program=$(realpath "$1")
server=$(realpath "$2")
export LC_ALL=C PATH=$PATH:/usr/sbin
for tool in nginx microsocks openssl jq; do
  command -v $tool >/dev/null || { echo "skipped: there is no $tool"; exit 77; }
done
work=$(mktemp -d)
trap '[ ! -e web/nginx.pid ] || "$server" stop web; rm -rf "$work"' EXIT
cd "$work"
export XDG_CONFIG_HOME=$work/config  # of the key file

fail() {
  echo "FAILED: $*" >&2
  [ ! -s log ] || sed 's/^/  /' log >&2
  exit 1
}

# expect STATUS ARGUMENT...: runs kel-dedup with the remote; what it prints is in `log`.
expect() {
  local wanted=$1 status=0
  shift
  "$program" -c conf "$@" >log 2>&1 || status=$?
  [ "$status" -eq "$wanted" ] || fail "kel-dedup $* gave $status instead of $wanted"
}
says() { grep -qF -- "$1" log || fail "it did not print: $1"; }
pushed() { awk '$1 == "pushed" { print $2 }' log; }
count() { find "$1" -name '*.kd?' -o -name settings.ini | wc -l; }
random() { head -c "$1" /dev/urandom; }

# expect_lost_disk_back: what is on the remote suffices, with the key, to restore the tree.
expect_lost_disk_back() {
  rm -rf new out && mkdir new && cp -p repo/key new/key
  expect 0 restore new latest out && diff -r tree out >log || fail 'the restored tree differs'
  expect 0 verify new
  diff -r -x index -x last-container repo new >log || fail 'the copy differs'
}

read -r _ https _ < <("$server" start "$work/web")
files=web/files/backup
cat >conf <<CONF
[Remote]
URL = https://localhost:$https/files/backup/
Certificate = $work/web/client.pem
Key = $work/web/client.key
CA = $work/web/ca.pem
CONF
mkdir tree && random 9000000 >tree/large && seq 20000 >tree/numbers

# Everything goes there but the key, then only what is new.
expect 0 store repo tree
[ "$(pushed)" -eq "$(count repo)" ] && [ "$(pushed)" -ge 5 ] || fail 'not everything was pushed'
[ ! -e $files/key ] && ! grep -rqF "$(cat repo/key)" web || fail 'the key was pushed'
[ "$(jq '.files | length' $files/manifest.json)" -eq "$(count repo)" ] || fail 'another manifest'
random 1000 >tree/more && expect 0 store repo tree
[ "$(pushed)" -eq 2 ] || fail "$(pushed) files instead of a container and a snapshot"
expect_lost_disk_back
expect 0 list new --json && jq -e '.snapshots | length == 2' log >/dev/null || fail 'no two snapshots'

# A file that was lost comes back, one that is only here is not taken away.
rm new/containers/00000001.kdc && expect 0 verify new && says 'verified 4 containers'
[ -z "$(ls new/tmp)" ] || fail 'something was left in tmp'

# Wrong certificates, on either side, and wrong addresses.
for refused in "--remote-cert=web/stranger.pem --remote-key=web/stranger.key|look at --remote-cert" \
  "--remote-cert=web/expired.pem --remote-key=web/expired.key|look at --remote-cert" \
  "--remote-ca=web/eca.pem|could not reach" "--remote-ca=|could not reach" \
  "--remote-cert=nowhere|could not reach" "--remote=https://localhost:$https/files/empty|there is no repository" \
  "--remote=https://localhost:$https/who|is damaged, or no manifest" \
  "--remote=http://localhost/files|is no remote"; do
  rm -rf empty && mkdir empty && cp -p repo/key empty/key
  # shellcheck disable=SC2086
  expect 1 ${refused%|*} list empty && says "${refused#*|}"
  [ "$(count empty)" -eq 0 ] || fail "something was fetched with $refused"
done
expect 1 --remote="https://localhost:$https/moved" store other tree && says 'refused with status'
expect 1 store other tree && says 'that of another repository' && expect 1 verify other

# Two that went on from the same snapshot do not overwrite each other's.
random 1000 >tree/even-more && expect 0 store new tree
cp $files/manifest.json manifest && random 1000 >tree/even-more
expect 1 store repo tree && says 'differs from' && says 'the next store goes on'
cmp -s manifest $files/manifest.json || fail 'the manifest has changed'
rm -r repo && cp -a new repo

# A manifest that somebody else has changed, and files that are damaged there.
sed 's/00000001.kds/00000009.kds/' manifest >$files/manifest.json
expect 1 list empty && says 'manifest.json is damaged' && cp manifest $files/manifest.json
cp $files/containers/00000001.kdc damaged && printf x | dd of=damaged bs=1 seek=4000 conv=notrunc status=none
cp damaged $files/containers/00000001.kdc && rm $files/snapshots/00000001.kds
rm -rf out empty && mkdir empty && cp -p repo/key empty/key
expect 1 restore empty latest out && says '00000001.kdc is missing or damaged' && says '00000001.kds is missing'
says 'large is not restored' && cmp -s tree/numbers out/numbers || fail 'the rest is not there'
# The advice: they are pushed again, with snapshots, settings and what is new, but no whole container.
rm $files/containers/00000001.kdc $files/manifest.json
expect 0 store repo tree && [ "$(pushed)" -eq 7 ] || fail "$(pushed) files instead of seven"
expect_lost_disk_back

# A server that goes away in the middle leaves a whole older copy, and the next store goes on.
random 40000000 >tree/larger
before=$(count $files)
cp $files/manifest.json manifest
"$program" -c conf store repo tree >log 2>&1 &
store=$!
until [ "$(count $files)" -ge $((before + 2)) ] || ! kill -0 $store; do :; done
kill -STOP $store
# shellcheck disable=SC2046
kill -9 $(pgrep -P "$(cat web/nginx.pid)") "$(cat web/nginx.pid)" && kill -CONT $store
! wait $store || fail 'nobody noticed'
says 'could not reach' && says 'the next store goes on' && cmp manifest $files/manifest.json
expect 1 list repo && says 'could not reach'
nginx -p "$work/web" -e error.log -c nginx.conf
there=$(count $files)
expect 0 list empty --json && jq -e '.snapshots | length == 4' log >/dev/null || fail 'not as before'
expect 0 store repo tree && [ "$(pushed)" -eq $(($(count repo) - there)) ] || fail 'pushed again'
expect_lost_disk_back
