#!/usr/bin/env bash
# kel-lineserver from its start to its end, with a repository that grows meanwhile.
# Usage: lineserver_test.sh SERVER CLIENT DEDUP
set -euo pipefail
server=$(realpath "$1") client=$(realpath "$2") dedup=$(realpath "$3")
work=$(mktemp -d)
trap '[ ! -s "$work/kel-lineserver.pid" ] || kill -9 "$(cat "$work/kel-lineserver.pid")" || true
      rm -rf "$work"' EXIT
cd "$work"
export XDG_CONFIG_HOME=$work  # of the key file
pid=$work/kel-lineserver.pid log=$work/log/lineserver.log

fail() {
  echo "FAILED: $*" >&2
  cat "$log" out >&2 || true
  exit 1
}
eventually() { for _ in $(seq 100); do ! "$@" || return 0; sleep 0.1; done; fail "never: $*"; }

# A file this small is one chunk, named by its SHA-512/256.
add() { mkdir -p tree && echo "$1" >"tree/$1" && "$dedup" store repo tree >out; }
name_of() { printf '%s\n' "$1" | openssl dgst -sha512-256 -r | cut -d' ' -f1; }
# begun: the port is in the log. The system chooses it.
begun() {
  eventually grep -qs 'on port' "$log"
  port=$(sed -n 's/.*on port \([0-9]*\).*/\1/p' "$log")
}
# asks STATUS LINE...: what the client prints is in `out`.
asks() {
  local wanted=$1 status=0
  shift
  "$client" --port="$port" "$@" >out 2>&1 || status=$?
  [ "$status" -eq "$wanted" ] || fail "the client gave $status instead of $wanted for $*"
}
says() { grep -qF -- "$1" out || fail "it did not print: $1"; }
knows() { "$client" --port="$port" "$(name_of "$1")" >out 2>&1; }

cat >ini <<END
[LineServer]
Repository = $work/repo
Port = 0
PidDir = $work
LogPath = $work/log
LogSize = 4000
IdleTimeout = 2
MaxPeers = 2
[Logging]
Logging = long, date
END

add one
"$server" --config=ini --foreground >served 2>&1 &
begun
asks 1 "$(name_of one)" "$(name_of none)"
says "$(name_of one) known"
says "$(name_of none) unknown"
add two
eventually knows two
known=$(name_of one)
! "$server" --config=ini >out 2>&1 || fail "a second one started"

# What is no line of a fingerprint; two peers are enough; a rotated log; and a stop in the middle, with a line in work.
python3 - "$port" "$(cat "$pid")" "$known" <<'END' || fail "peers at once"
import os, signal, socket, sys, time
port, pid, known = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3].encode() + b"\n"
def all_of(s): return b"".join(iter(lambda: s.recv(4096), b""))
def connect(): return socket.create_connection(("127.0.0.1", port), 9)
def talk(sent): s = connect(); s.sendall(sent); return all_of(s)
error = b"ERROR  Not a fingerprint of 64 hexadecimal digits"
mixed = talk(known + b"\n" + known.upper().replace(b"\n", b"\r\n") + b"half")
assert mixed == b"KNOWN\r\n" + error + b"\r\nKNOWN\r\nBYE  Idle for too long\n", mixed
assert talk(b"x" * 2000) == b"BYE  Line too long\n"
for _ in range(60):
    with connect() as s: s.sendall(known); s.shutdown(socket.SHUT_WR); assert all_of(s) == b"KNOWN\r\n"
first, second, third = connect(), connect(), connect()
assert all_of(third).startswith(b"BYE  Too Many"), "third"
first.sendall(known * 5000)
os.kill(pid, signal.SIGTERM)
time.sleep(0.2)
late = connect()
assert all_of(late) == b"BYE  Service Shutting Down, try again later\n", "late"
assert all_of(second) == b"BYE  Service Shutting Down, try again later\n", "second"
answers = all_of(first)
assert answers.replace(b"KNOWN\r\n", b"") == b"BYE  Service Shutting Down, try again later\n", answers[-200:]
END
wait %1 || { cat served; fail "it ended with $?"; }
[ ! -e "$pid" ] || fail "its pid file is still there"
ls "$log".* >/dev/null || fail "no log was rotated"

mv log log1
"$server" --config=ini --allowed-peers=10.0.0.0/8 >out 2>&1 || fail "no daemon"
begun
asks 2 "$known"
says "ABRT  Access Denied"
kill -INT "$(cat "$pid")"
eventually test ! -e "$pid"
grep -q 'kel-lineserver ends' "$log" || fail "it did not end well"
