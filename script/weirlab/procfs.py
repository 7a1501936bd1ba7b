"""Figures of a process from /proc."""

import os
import re
import time
from pathlib import Path


def read(pid: int, name: str) -> str:
    return Path(f"/proc/{pid}/{name}").read_text(encoding="ascii", errors="replace")


def alive(pid: int) -> bool:
    try:
        return read(pid, "stat").rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def cpu(pid: int) -> float:
    """Seconds of CPU, to the nanosecond, by the process's own clock."""
    return time.clock_gettime((~pid << 3) | 2)


def children(pid: int) -> list[int]:
    return [int(word) for word in read(pid, f"task/{pid}/children").split()]


def threads(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/task"))


def descriptors(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/fd"))


def sample(pid: int) -> dict[str, float]:
    """RSS and PSS in MiB, threads, open descriptors."""
    sizes = {name.lower(): int(size) / 1024 for name, size in
             re.findall(r"^(Rss|Pss):\s+(\d+)", read(pid, "smaps_rollup"), re.M)}
    return sizes | {"threads": threads(pid), "descriptors": descriptors(pid)}


def can_reboot(pid: int) -> bool:
    """Returns True if the capability sets cannot be read."""
    sets = re.findall(r"^Cap(?:Eff|Prm):\s+(\w+)", read(pid, "status"), re.M)
    return len(sets) != 2 or any(int(mask, 16) >> 22 & 1 for mask in sets)
