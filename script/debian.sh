# shellcheck shell=bash
# Minimal Debian systems, for script/check and script/release; sourced, needs root.
# A system is unpacked in memory with a clone of HEAD in /srv/weir. Nothing in it can restart
# the machine, and only its apt reaches the network. Archives of them are kept for a week.
# shellcheck source=script/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

readonly releases=(bookworm trixie)
readonly cache=${XDG_CACHE_HOME:-$HOME/.cache}/weir-debian
readonly selection=('trixie asked demo test' 'bookworm free demo test' 'trixie root package image')
readonly week=$((7 * 24 * 60)) limit=1800 # minutes, seconds
readonly isolation=(unshare --mount --pid --ipc --fork --kill-child)

# isolated FUNCTION [ARGUMENT...]: runs a function of this file in namespaces, so that its
# mounts and processes end with it.
isolated() {
  [ "$(id -u)" -eq 0 ] || die "This needs root, for namespaces and mounts."
  script/without-reboot "${isolation[@]}" --mount-proc bash -c '. script/debian.sh; "$@"' bash "$@"
}

# make_systems RELEASE...: archives of minimal systems, in the cache. They lack updates, which
# reach some architectures later, so that two architectures could not be installed together.
make_systems() {
  local name
  need git mmdebstrap debian-archive-keyring iproute2
  for name in "$@"; do
    [ -z "$(find "$cache/$name/system.tar" -mmin -$week 2>/dev/null)" ] || continue
    mkdir -p "$cache/$name"
    # apt reaches its mirrors with this machine's settings.
    apt-config dump | sed -n '/^Acquire::\(http\|https\|Check-.*\|Retries\)[: ].* "..*";$/p' >"$cache/$name/apt.conf"
    mmdebstrap --quiet --variant=apt --include=ca-certificates,git,passwd,sudo --aptopt="$cache/$name/apt.conf" \
      "$name" "$cache/$name/new.tar" "deb http://deb.debian.org/debian $name main"
    mv "$cache/$name/new.tar" "$cache/$name/system.tar"
  done
}

# unpack_system RELEASE ROOT: in a mount namespace of its own. apt gets the network namespace
# of this process.
unpack_system() {
  local name
  mkdir -p "$2"
  mount -t tmpfs -o mode=755 system "$2"
  tar -xf "$cache/$1/system.tar" -C "$2"
  touch "$2/run/outside"
  mount --bind /proc/self/ns/net "$2/run/outside"
  cp /etc/resolv.conf /etc/hosts "$2/etc/"
  for name in apt apt-get; do
    # shellcheck disable=SC2016 # for the inner shell
    printf '#!/bin/sh\n[ "$(id -u)" -ne 0 ] || outside="nsenter --net=/run/outside"\nexec $outside /usr/bin/%s "$@"\n' \
      $name >"$2/usr/local/bin/$name"
    chmod 755 "$2/usr/local/bin/$name"
  done
  git clone --quiet --no-hardlinks . "$2/srv/weir"
}

# in_system ROOT FUNCTION [ARGUMENT...]: runs a function of this file in that system.
network=(--net)
in_system() {
  timeout --signal=KILL $limit "${isolation[@]}" "${network[@]}" bash -c '. script/debian.sh; enter "$@"' bash "$@"
}

enter() {
  mount -t proc proc "$1/proc"
  mount -t sysfs -o ro sysfs "$1/sys"
  mount -t devpts -o newinstance,ptmxmode=666 devpts "$1/dev/pts"
  mount -t tmpfs -o mode=1777 shm "$1/dev/shm"
  ip link set lo up
  # In a mere chroot an ordinary user's tests could not make the user namespaces they need.
  cd "$1"
  mount --move . /
  # The shell stays as the first process of its namespace, which must reap orphans.
  exec env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    chroot . /srv/weir/script/without-reboot bash -c '. /srv/weir/script/debian.sh; "$@"; exit' bash "${@:2}"
}

# bare [--all | RELEASE USER COMMAND...]: the README's commands in new systems, by root, by a user
# ("free") whose sudo needs no password and by one ("asked") whose sudo asks for it. In a system
# for several commands, each needs all packages of those before. --all tries every user.
bare() {
  local plan=("${selection[@]}")
  case ${1:-} in
    '') ;;
    --all) mapfile -t plan < <(printf '%s\n' {bookworm,trixie}\ {root,free,asked}\ {demo\ test,package\ image}) ;;
    *) plan=("$*") ;;
  esac
  make_systems "${releases[@]}"
  printf '%s\n' "${plan[@]}" |
    xargs -P "$(nproc)" -L 1 bash -c '. script/debian.sh; isolated try "$@"' bash
}

# try RELEASE USER COMMAND...: shows the output if one fails.
try() {
  local trial="$*" verdict=passed
  local root=build/bare/${trial// /-}
  # An ordinary user's mmdebstrap downloads by itself; it starts no server.
  [[ $trial != *\ image ]] || network=()
  unpack_system "$1" "$root"
  in_system "$root" first_commands "${@:2}" >"$root.log" 2>&1 || verdict=FAILED
  [ $verdict = passed ] || tail -n 100 "$root.log"
  echo "$trial: $verdict after $SECONDS s"
  [ $verdict = passed ]
}

# first_commands USER COMMAND...: in the system.
first_commands() {
  local user=$1 command line
  if [ "$user" != root ]; then
    useradd --create-home --shell /bin/bash "$user"
    [ "$user" = asked ] || echo "$user ALL=(ALL) NOPASSWD: ALL" >"/etc/sudoers.d/$user"
    chown -R "$user" .
  fi
  for command in "${@:2}"; do
    line="cd /srv/weir && script/$command"
    [ "$command" != image ] || line="cd /srv/weir && kit/image/build"
    [ "$user" != asked ] || obey_refusal "$line"
    su -l "$user" -c "$line"
    [ "$command" != package ] || install_and_purge
  done
}

# obey_refusal COMMAND: without a terminal the user gets one list of all packages to install.
obey_refusal() {
  local said packages
  ! said=$(su -l asked -c "$1" 2>&1) || die "not refused"
  echo "$said"
  read -ra packages < <(sed -n 's/^Please install first: sudo apt-get install //p' <<<"$said")
  [ ${#packages[@]} -gt 0 ] || die "not told what to install"
  apt_get install "${packages[@]}"
}

# install_and_purge: the package streams once installed, and leaves nothing when purged.
install_and_purge() {
  apt-get install -y --no-install-recommends ./build/weir_*.deb
  [ -e /etc/systemd/system/multi-user.target.wants/weir.service ] || die "the service is not enabled"
  need curl openssl python3
  /usr/sbin/weir 33554432 >/dev/null &
  debian/tests/streams
  kill $!
  apt-get purge -y weir
  ! find / -xdev -name '*weir*' -not -path '/srv/weir*' | grep . || die "the package left these behind"
}

# booted [RELEASE...]: the package of HEAD under a systemd that boots in a container, whose only
# network is its own.
booted() {
  local name
  [ $# -gt 0 ] || set -- "${releases[@]}"
  need systemd-container
  for name in "$@"; do
    script/release "$name" "$(dpkg --print-architecture)"
    isolated try_booted "$name"
  done
}

try_booted() {
  local root=build/booted/$1 log=build/booted/$1.log
  unpack_system "$1" "$root"
  cp build/packages/weir_*~deb"$(. "$root/etc/os-release" && echo "$VERSION_ID")_$(dpkg --print-architecture).deb" "$root/root"
  # On a host with control groups v1 the container still gets v2, like every Debian.
  if in_system "$root" prepare_boot >"$log" 2>&1 &&
    SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1 systemd-nspawn --quiet --boot --private-network --register=no --keep-unit \
      --drop-capability=CAP_SYS_BOOT --console=pipe --directory="$root" </dev/null >>"$log" 2>&1; then
    echo "$1: passed"
  else
    tail -n 100 "$log"
    die "$1: failed"
  fi
}

# prepare_boot: installs what the container needs, since it has no network, and the service whose
# exit status becomes the container's.
prepare_boot() {
  local depends unit=/etc/systemd/system/booted.service
  depends=$(dpkg-deb -f /root/weir_*.deb Depends | sed 's/ ([^)]*)//g; s/,//g')
  # shellcheck disable=SC2086 # a list
  need systemd-sysv dbus curl openssl procps python3 mtail $depends
  printf '%s\n' '[Unit]' After=multi-user.target SuccessAction=exit FailureAction=exit '[Service]' Type=exec \
    StandardOutput=journal+console "ExecStart=/srv/weir/debian/tests/booted $(echo /root/weir_*.deb)" >$unit
  ln -s $unit /etc/systemd/system/multi-user.target.wants/
}

# release RELEASE ARCHITECTURE: the package of HEAD, in build/packages.
release() {
  local root=build/packages/$1-$2
  unpack_system "$1" "$root"
  in_system "$root" build_for "$2" >"$root.log" 2>&1 || { tail -n 50 "$root.log"; die "$1, $2: failed"; }
  grep -E '^(size:|[0-9]+% tests passed)' "$root.log"
  cp "$root"/srv/weir/build/*.deb build/packages
}

# build_for ARCHITECTURE: in the system. Unit tests of another architecture run under qemu.
build_for() {
  local foreign='' size
  [ "$1" = "$(dpkg --print-architecture)" ] || foreign=$1
  [ -z "$foreign" ] || dpkg --add-architecture "$1"
  script/package --for "$1"
  dpkg-deb -x build/weir_*.deb build/files
  size=$(stat -c %s build/files/usr/sbin/weir)
  echo "size: $size bytes"
  ((size < 300000)) || die "the program has grown beyond 300,000 bytes"
  [ -z "$foreign" ] || emulate "$1"
}

# emulate ARCHITECTURE: runs its unit tests, except those that start a program without qemu,
# or ask the compiler.
emulate() {
  local cpu triplet
  cpu=$(dpkg-architecture -a "$1" -qDEB_HOST_GNU_CPU 2>/dev/null)
  triplet=$(dpkg-architecture -a "$1" -qDEB_HOST_GNU_TYPE 2>/dev/null)
  need qemu-user "libgtest-dev:$1"
  cmake -S . -B build/tests -G Ninja -DCMAKE_BUILD_TYPE=Release -DWEIR_TESTS=ON -DCMAKE_SYSTEM_NAME=Linux \
    -DCMAKE_SYSTEM_PROCESSOR="$cpu" -DCMAKE_CXX_COMPILER="$triplet-g++" -DCMAKE_CROSSCOMPILING_EMULATOR="qemu-$cpu"
  cmake --build build/tests
  ctest --test-dir build/tests --parallel "$(nproc)" --output-on-failure --no-tests=error \
    --label-exclude system --exclude-regex '^(start_up|modules_see_only.*|conversations_in_other_orders)$'
}
