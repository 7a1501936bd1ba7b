#!/usr/bin/env bash
# start_up_test.sh PROGRAM: starts the real program in its own network, because its port is fixed.
set -euo pipefail
cd "$(dirname "$0")/../.."
[ "${2:-}" = inside ] || exec unshare "-n$([ "$(id -u)" -eq 0 ] || echo r)" "$0" "$1" inside

ip link set lo up
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

# Started without standard descriptors: no socket may take their numbers.
ulimit -Sn 100
script/without-reboot "$1" 1000000 <&- >&- 2>&- 3>&- &
started+=("$!")
listens 7744 "$!"
[ "$(readlink "/proc/$!/fd/"{0,1,2,3} | cut -d : -f 1 | paste -sd' ')" = '/dev/null /dev/null /dev/null socket' ] ||
  fail "the first four descriptors are not three times /dev/null and the socket"
[ "$(ss -ltnH 'sport = 7744' | awk '{ print $3, $4 }')" = '5 0.0.0.0:7744' ] ||
  fail "the backlog is not 5, or not every address is bound"
awk '/^Max open files/ && $4 != $5 { exit 1 }' "/proc/$!/limits" || fail "not all descriptors"

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
