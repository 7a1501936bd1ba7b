#!/usr/bin/env bash
# start_up_test.sh PROGRAM: starts the real program in its own network, because its port is fixed.
set -euo pipefail
cd "$(dirname "$0")/../.."

if [ "${2:-}" != inside ]; then
  if [ "$(id -u)" -eq 0 ]; then exec unshare -n "$0" "$1" inside; fi
  exec unshare -rn "$0" "$1" inside
fi

ip link set lo up
program=$1
work=$(mktemp -d)
started=()
trap 'rm -rf "$work"; kill "${started[@]}"' EXIT

fail() {
  echo "$*" >&2
  exit 1
}

# listens PORT PID: waits until the port is open, as long as the process runs.
listens() {
  until grep -q "$(printf ':%X .* 0A ' "$1")" /proc/net/tcp; do
    kill -0 "$2" || fail "the process that should listen at $1 has ended"
    sleep 0.1
  done
}

# expect STATUS TEXT ARGUMENT...: the program exits with the status and that text on its stderr.
expect() {
  local wanted=$1 text=$2 status=0
  shift 2
  script/without-reboot "$program" "$@" >/dev/null 2>"$work/err" || status=$?
  [ $status -eq "$wanted" ] || fail "status $status instead of $wanted"
  [ "$(cat "$work/err")" = "$text" ] || fail "said '$(cat "$work/err")' instead of '$text'"
}

expect 2 "Specify maximal buffer size"

ulimit -Sn 100
# Started without standard descriptors: no socket may take their numbers.
script/without-reboot "$program" 1000000 <&- >&- 2>&- &
first=$!
started+=("$first")
listens 7744 "$first"
for fd in 0 1 2; do
  [ "$(readlink "/proc/$first/fd/$fd")" = /dev/null ] || fail "descriptor $fd is not /dev/null"
done
[ "$(ss -ltnH 'sport = 7744' | awk '{ print $3 }')" = 5 ] || fail "the backlog is not 5"
read -r _ _ _ soft hard _ < <(grep '^Max open files' "/proc/$first/limits")
[ "$soft" = "$hard" ] || fail "the descriptor limit is $soft of $hard"

expect 0 "Couldn't bind listening socket." 1000000

# A stream with real threads and sockets. Each segment is one write of the origin: weir cuts a
# segment short if nothing arrives for two seconds, which a busy machine could cause between two.
for number in 1 2; do head -c 60000 /dev/urandom >"$work/$number.ts"; done
origin=http://127.0.0.1:8001
printf '#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n%s\n' $origin/list >"$work/master"
printf '#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:1\n%s\n%s\n#EXT-X-ENDLIST\n' \
  $origin/1.ts $origin/2.ts >"$work/list"
python3 -m http.server --protocol HTTP/1.1 -b 127.0.0.1 -d "$work" 8001 >/dev/null 2>&1 &
started+=("$!")
listens 8001 "$!"
exec 3<>/dev/tcp/127.0.0.1/7744
printf 'GET /stream?url=%s HTTP/1.1\r\n\r\n' $origin/master >&3
LC_ALL=C sed '1,/^\r$/d' <&3 | cmp - <(cat "$work"/[12].ts) || fail "the stream is not whole"
