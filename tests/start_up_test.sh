#!/usr/bin/env bash
# How the real program starts and refuses to. Takes the program; runs in a
# network of its own, since the port is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${2:-}" != inside ]; then
  if [ "$(id -u)" -eq 0 ]; then exec unshare -n "$0" "$1" inside; fi
  exec unshare -rn "$0" "$1" inside
fi

ip link set lo up
program=$1
work=$(mktemp -d)
first=
trap '[ -z "$first" ] || kill "$first"; rm -rf "$work"' EXIT

fail() {
  echo "$*" >&2
  exit 1
}

# Waits until something listens on the port.
listens() {
  local turn
  for turn in $(seq 200); do
    ! grep -q ':1E40 .* 0A ' /proc/net/tcp || return 0 # 7744, listening
    sleep 0.1
  done
  fail "nothing listens after $turn turns"
}

# expect STATUS TEXT ARGUMENT...: the program ends so, with that on its error stream.
expect() {
  local wanted=$1 text=$2 status=0
  shift 2
  script/without-reboot timeout 20 "$program" "$@" >/dev/null 2>"$work/err" || status=$?
  [ $status -eq "$wanted" ] || fail "status $status instead of $wanted"
  [ "$(cat "$work/err")" = "$text" ] || fail "said '$(cat "$work/err")' instead of '$text'"
}

expect 2 "Specify maximal buffer size"

ulimit -Sn 100
# Not a number: 0. Without standard descriptors, which must not become sockets.
script/without-reboot "$program" abc <&- >&- 2>&- &
first=$!
listens
for fd in 0 1 2; do
  [ "$(readlink "/proc/$first/fd/$fd")" = /dev/null ] || fail "descriptor $fd is not /dev/null"
done
read -r _ _ _ soft hard _ < <(grep '^Max open files' "/proc/$first/limits")
[ "$soft" = "$hard" ] || fail "the descriptor limit is $soft of $hard"

expect 0 "Couldn't bind listening socket." 1000000

# lasts SECONDS URL: how long a stream takes to fail, by the real clock and the real network.
# The simulation of the other tests has these times, too.
lasts() {
  local start=$EPOCHREALTIME took
  exec 3<>/dev/tcp/127.0.0.1/7744
  printf 'GET /stream?url=%s HTTP/1.1\r\n\r\n' "$2" >&3
  cat <&3 >/dev/null
  exec 3>&-
  took=$(((${EPOCHREALTIME/./} - ${start/./}) / 1000))
  ((took >= $1 * 1000 - 20 && took < $1 * 1000 + 5000)) || fail "$2 lasted $took ms instead of $1 s"
}
python3 -c 'import socket, time; s = socket.create_server(("127.0.0.1", 8001)); time.sleep(30)' &
mute=$!
lasts 12 http://127.0.0.1:8002/refuses &
refused=$!
sleep 1
lasts 6 http://127.0.0.1:8001/says/nothing
wait "$refused"
kill "$first" "$mute"
wait "$first" "$mute" || true

# With too few descriptors it ends, with threads and connections still there.
ulimit -n 14
script/without-reboot timeout 20 "$program" 1000 >/dev/null 2>"$work/err" &
first=$!
listens
for _ in $(seq 12); do
  bash -c 'exec 3<>/dev/tcp/127.0.0.1/7744; sleep 5' &
done
wait "$first" || fail "status $? when it could not accept"
first=
[ "$(cat "$work/err")" = "Error calling accept()" ] || fail "said '$(cat "$work/err")'"
