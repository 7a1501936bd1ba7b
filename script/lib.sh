# shellcheck shell=bash
# Sourced by the scripts in this folder: they all run from the top of the tree.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
PATH+=:/usr/sbin:/sbin # nginx and others are there, where an ordinary user does not look

die() {
  echo "$*" >&2
  exit 1
}

# as_root COMMAND...: by sudo where that is not who runs this.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# need PACKAGE...: installs with apt the Debian packages that are missing.
# As root, or where sudo needs no password; otherwise it says what to install.
need() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  [ "$(id -u)" -eq 0 ] || sudo -n true 2>/dev/null || die "Please install first: sudo apt-get install ${missing[*]}"
  apt_get install "${missing[@]}"
}

# apt_get COMMAND [PACKAGE...]: one at a time.
apt_get() {
  echo "installing ${*:2} ..." >&2
  # A policy that denies starting keeps a package such as nginx from opening its ports.
  # shellcheck disable=SC2016 # for the inner shell
  as_root flock /var/lib/dpkg sh -c '
    set -e
    export DEBIAN_FRONTEND=noninteractive RUNLEVEL=1
    apt-get update -qq
    apt-get "$@" -y -qq --no-install-recommends >/dev/null' sh "$@"
}

# Where there is a compiler's cache it serves all clones, wherever they lie.
if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=yes
fi

# configure PRESET
configure() {
  mkdir -p build
  cmake --preset "$1" >"build/configure-$1.log" 2>&1 || {
    cat "build/configure-$1.log"
    die "configuring $1 failed"
  }
}

# configure_and_build PRESET [TARGET...]: one at a time in a folder, which "test" shares
# with "release".
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
