# shellcheck shell=bash
# Sourced by the commands in this folder, which all run from the top of the tree.
set -euo pipefail
self=$(realpath "$0")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
PATH+=:/usr/sbin:/sbin # nginx and others are there; an ordinary user's PATH lacks it

# The Debian packages that each command needs, including those of the commands it calls.
# A command calls "need" once, before anything else, so that one message names them all.
# shellcheck disable=SC2034
{
  build_needs=(g++ cmake ninja-build libssl-dev)
  demo_needs=("${build_needs[@]}" ffmpeg iproute2 nginx openssl python3)
  test_needs=("${demo_needs[@]}" libgtest-dev binutils curl libnginx-mod-http-js mount mtail njs systemd)
  fleet_needs=("${build_needs[@]}" curl etcd-client etcd-server haproxy iproute2 keepalived mount nftables
    nginx openssl python3 socat)
  npm_needs=(npm) # which may come from elsewhere
  ! command -v npm >/dev/null || npm_needs=()
}

die() {
  echo "$*" >&2
  exit 1
}

# usage [ARGUMENT...]: prints the comment at the top of the command and exits, with status 2
# unless the first argument asks for help.
usage() {
  local status=2
  [[ ${1:-} != @(-h|--help) ]] || status=0
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$self" >&$((status ? 2 : 1))
  exit $status
}

# check_options PROGRAM ARGUMENT...: shows the usage unless the Python program, which reads
# the arguments, has these options. Other words may only follow an option.
check_options() {
  local argument previous=''
  for argument in "${@:2}"; do
    case $argument in
      -h | --help) usage --help ;;
      -*) grep -qF "add_argument(\"${argument%%=*}\"" "$1" || usage ;;
      *) [[ $previous == -* && $previous != *=* ]] || usage ;;
    esac
    previous=$argument
  done
}

# can_be_root: asks for sudo's password once if there is a terminal.
can_be_root() {
  [ "$(id -u)" -eq 0 ] || { command -v sudo >/dev/null &&
    { sudo -n true 2>/dev/null || { [ -t 0 ] && [ -t 2 ] && sudo -v; }; }; }
}

# as_root COMMAND...: without a terminal sudo must not wait for a password.
as_root() {
  local sudo=(sudo -n)
  [ ! -t 0 ] || sudo=(sudo)
  [ "$(id -u)" -ne 0 ] || sudo=()
  "${sudo[@]}" "$@"
}

# need PACKAGE...: installs with apt the Debian packages that are missing, or names them.
need() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      [[ " ${missing[*]} " == *" $package "* ]] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  can_be_root || die "Please install first: sudo apt-get install ${missing[*]}"
  echo "installing Debian packages (${#missing[@]}): ${missing[*]}" >&2
  apt_get install "${missing[@]}"
}

# apt_get COMMAND [PACKAGE...]: runs one at a time. RUNLEVEL keeps a package such as nginx
# from starting its service.
apt_get() {
  # shellcheck disable=SC2016 # for the inner shell
  as_root flock /var/lib/dpkg sh -c '
    set -e
    export DEBIAN_FRONTEND=noninteractive DEBCONF_NOWARNINGS=yes RUNLEVEL=1
    set -- "$@" -y -qq --no-install-recommends
    apt-get update -qq -o APT::Status-Fd=3 3>&1 >/dev/null
    apt-get "$@" -o APT::Status-Fd=3 3>&1 >/dev/null' sh "$@" |
    sed -u 's/^[^:]*:[^:]*:\([0-9]*\)[^:]*:/\1 % /' | show_progress
}

# show_progress: on a terminal shows the last line of its input.
show_progress() {
  local line columns
  [ -t 2 ] || { cat >/dev/null; return; }
  columns=$(tput cols 2>/dev/null || echo 80)
  while IFS= read -r line; do printf '\r\033[K%s' "${line:0:columns-1}" >&2; done
  printf '\r\033[K' >&2
}

# If there is a compiler cache, all clones share it.
if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=yes
fi

# configure PRESET
configure() {
  mkdir -p build
  cmake --preset "$1" >"build/configure-$1.log" 2>&1 ||
    { cat "build/configure-$1.log"; die "configuring $1 failed"; }
}

# configure_and_build PRESET [TARGET...]: locks the build folder, which "test" shares with
# "release".
configure_and_build() {
  local preset=$1 targets=() lock
  shift
  [ $# -eq 0 ] || targets=(--target "$@")
  mkdir -p "build/${preset/#test/release}"
  exec {lock}<"build/${preset/#test/release}"
  flock "$lock"
  configure "$preset"
  cmake --build --preset "$preset" "${targets[@]}"
  exec {lock}<&-
}
