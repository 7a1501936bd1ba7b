"""Network namespaces: isolation, and a free port 7744."""

import ctypes
import os
import subprocess
from pathlib import Path

NEW_MOUNTS, NEW_USER, NEW_NETWORK = 0x20000, 0x10000000, 0x40000000
LIBC = ctypes.CDLL(None, use_errno=True)
HERE = "/proc/thread-self/ns/net"


def own_network(mounts: bool = False) -> None:
    """Moves this process to a new one. Call it before anything starts or listens.

    An ordinary user becomes root of a user namespace first, if the system allows it. With `mounts`
    this process also gets a mount namespace.
    """
    uid, gid = os.geteuid(), os.getegid()
    if LIBC.unshare(NEW_NETWORK | (NEW_MOUNTS if mounts else 0) | (NEW_USER if uid else 0)) != 0:
        raise SystemExit(f"no network of its own: {os.strerror(ctypes.get_errno())}; try it as root")
    if uid:
        for name, text in (("setgroups", "deny"), ("uid_map", f"0 {uid} 1"), ("gid_map", f"0 {gid} 1")):
            Path("/proc/self", name).write_text(text, encoding="ascii")
    if mounts:
        subprocess.run(["mount", "--make-rprivate", "/"], check=True)
    ip("link set lo up")
    # Thousands of connections at once, and ports below them for servers.
    Path("/proc/sys/net/ipv4/ip_local_port_range").write_text("10240 65000", encoding="ascii")


def ip(command: str) -> None:
    subprocess.run(["ip", *command.split()], check=True)


def make_bridge(address: str) -> None:
    """Connects this thread's network to the hosts that it creates from now on."""
    ip("link add bridge type bridge")
    ip(f"address add {address}/24 dev bridge")
    ip("link set bridge up")


class Host:
    """A network namespace with an address on the bridge; `with host:` moves this thread into it."""

    def __init__(self, address: str) -> None:
        self.address = address
        self.outside: list[int] = []
        port = "host" + address.rpartition(".")[2]
        home = os.open(HERE, os.O_RDONLY)
        LIBC.unshare(NEW_NETWORK)
        self.there = os.open(HERE, os.O_RDONLY)
        for command in ("link set lo up",
                        f"link add eth0 type veth peer name {port} netns /proc/{os.getpid()}/fd/{home}",
                        f"address add {address}/24 dev eth0", "link set eth0 up"):
            ip(command)
        LIBC.setns(home, NEW_NETWORK)
        os.close(home)
        ip(f"link set {port} up master bridge")

    def __enter__(self) -> "Host":
        self.outside.append(os.open(HERE, os.O_RDONLY))
        LIBC.setns(self.there, NEW_NETWORK)
        return self

    def __exit__(self, *_: object) -> None:
        LIBC.setns(self.outside[-1], NEW_NETWORK)
        os.close(self.outside.pop())
