"""A network namespace, in which weir's fixed port is free and nobody else is."""

import ctypes
import os
import subprocess
from pathlib import Path

NEW_USER, NEW_NETWORK = 0x10000000, 0x40000000


def own_network() -> None:
    """Moves this process there. To be called before anything is started or listens.

    An ordinary user becomes root of a user namespace first, where the system allows it.
    """
    uid, gid = os.geteuid(), os.getegid()
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(NEW_NETWORK | (NEW_USER if uid else 0)) != 0:
        raise SystemExit(f"no network of its own: {os.strerror(ctypes.get_errno())}; try it as root")
    if uid:
        for name, text in (("setgroups", "deny"), ("uid_map", f"0 {uid} 1"), ("gid_map", f"0 {gid} 1")):
            Path("/proc/self", name).write_text(text, encoding="ascii")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    # Thousands of connections at once, and ports below them for servers.
    Path("/proc/sys/net/ipv4/ip_local_port_range").write_text("10240 65000", encoding="ascii")
