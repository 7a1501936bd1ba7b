#!/usr/bin/env bash
# How the real program starts and refuses to. Takes the program; runs in a
# network of its own, since the port is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${2:-}" != inside ]; then
  if [ "$(id -u)" -eq 0 ]; then exec unshare -n "$0" "$1" inside; fi
  exec unshare -rn "$0" "$1" inside
fi

program=$1
work=$(mktemp -d)
first=
trap '[ -z "$first" ] || kill "$first"; rm -rf "$work"' EXIT

fail() {
  echo "$*" >&2
  exit 1
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
for _ in $(seq 100); do
  grep -q ':1E40 .* 0A ' /proc/net/tcp && break # 7744, listening
  sleep 0.1
done
grep -q ':1E40 .* 0A ' /proc/net/tcp || fail "does not listen"
for fd in 0 1 2; do
  [ "$(readlink "/proc/$first/fd/$fd")" = /dev/null ] || fail "descriptor $fd is not /dev/null"
done
read -r _ _ _ soft hard _ < <(grep '^Max open files' "/proc/$first/limits")
[ "$soft" = "$hard" ] || fail "the descriptor limit is $soft of $hard"

expect 0 "Couldn't bind listening socket." 1000000
kill -0 "$first" || fail "ended by itself"
