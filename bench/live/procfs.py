"""What the kernel says about a process."""

import os
import re
from pathlib import Path

TICKS = os.sysconf("SC_CLK_TCK")


def alive(pid):
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def cpu(pid):
    """Seconds in user mode and in the kernel."""
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return int(fields[11]) / TICKS, int(fields[12]) / TICKS


def children(pid):
    return [int(x) for x in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def cpu_with_children(pid):
    return sum(sum(cpu(p)) for p in [pid, *children(pid)])


def sample(pid):
    """RSS and PSS in MiB, threads, open descriptors."""
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    sizes = {name: int(re.search(rf"^{name}:\s+(\d+)", text, re.M)[1]) / 1024
             for name in ("Rss", "Pss")}
    return {"rss": sizes["Rss"], "pss": sizes["Pss"],
            "threads": len(os.listdir(f"/proc/{pid}/task")),
            "descriptors": len(os.listdir(f"/proc/{pid}/fd"))}


def peak(pid):
    """The highest RSS so far, MiB."""
    text = Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^VmHWM:\s+(\d+)", text, re.M)[1]) / 1024


def can_reboot(pid):
    text = Path(f"/proc/{pid}/status").read_text()
    return any(int(mask, 16) >> 22 & 1
               for mask in re.findall(r"^Cap(?:Eff|Prm|Bnd):\s+(\w+)", text, re.M))
