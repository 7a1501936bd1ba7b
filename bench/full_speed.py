"""One stream at full speed: weir compared with a minimal relay and with peers.

nginx on loopback serves a video, clear and encrypted. Each program fetches it and delivers it to a
player that discards the bytes; the installed peers write it to /dev/null. The programs alternate.
Prints a Markdown table of medians, spreads and ratios to the relay of the same round.
"""

import argparse
import os
import socket
import subprocess
import time
from pathlib import Path
from typing import NamedTuple

import common
from weirlab import client, procfs
from weirlab.lab import TOP, Lab, Process
from weirlab.network import own_network

ORIGIN, RELAY = 8090, 8091
BASE = f"http://127.0.0.1:{ORIGIN}"


class Run(NamedTuple):
    speed: float  # bytes a second
    cpu: float  # seconds
    peak: float  # MiB of RSS


def play(player: socket.socket) -> tuple[int, float]:
    """The number of bytes, and seconds from the first to the last. MSG_TRUNC discards them unread."""
    scratch, total, first, last = bytearray(1 << 20), 0, 0.0, 0.0
    with player:
        while count := player.recv_into(scratch, len(scratch), socket.MSG_TRUNC):
            last = time.monotonic()
            first = first or last
            total += count
    return total, last - first


def finish(process: Process) -> tuple[float, float]:
    """CPU time and peak memory of a program that exits by itself."""
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    assert process.returncode == 0, f"{process.args!r}: status {process.returncode}"
    return usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024


class Bench:
    def __init__(self, lab: Lab, options: argparse.Namespace) -> None:
        self.lab, self.options = lab, options
        sizes = common.make_noise(lab, BASE, options.segments)
        self.segments, self.size = len(sizes), sum(sizes)
        lab.origin(ORIGIN)

    def relay(self, kind: str) -> Run:
        process = self.lab.start([self.options.build / "bench/relay", RELAY, ORIGIN, f"/{kind}/",
                                  self.segments, *([self.lab.www / "key"] if kind == "aes" else [])])
        total, seconds = play(common.connect_soon(RELAY))
        assert total == self.size, f"relay: {total} of {self.size} bytes"
        return Run(total / seconds, *finish(process))

    def weir(self, kind: str) -> Run:
        process = self.lab.weir(self.options.build / "weir", self.options.buffer)
        before = procfs.cpu(process.pid)
        total, seconds = play(client.connect(client.stream_path(f"{BASE}/{kind}/master.m3u8")))
        assert total - self.size in range(1, 1000), f"weir: {total} of {self.size} bytes"
        result = Run(self.size / seconds, procfs.cpu(process.pid) - before, common.peak(process.pid))
        self.lab.end(process)
        return result

    def peer(self, command: str, kind: str) -> Run:
        """A peer has no player; it is measured from start to exit."""
        start = time.monotonic()
        process = self.lab.start(command.format(f"{BASE}/{kind}/master.m3u8").split(),
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        cpu, peak = finish(process)
        return Run(self.size / (time.monotonic() - start), cpu, peak)

    def report(self, kind: str) -> None:
        results = common.alternate({"relay": self.relay, "weir": self.weir}, self.peer,
                                   self.options.programs, self.options.rounds, kind)
        floor = next(iter(results.values()))
        for name, rows in results.items():
            speeds, floor_speeds = [[run.speed / 1e6 for run in runs] for runs in (rows, floor)]
            cpus, floor_cpus = [[run.cpu / self.size * 1e9 for run in runs] for runs in (rows, floor)]
            common.print_row(kind, name, common.spread(speeds, 0), common.ratio(speeds, floor_speeds),
                             common.spread(cpus, 2), common.ratio(cpus, floor_cpus),
                             f"{max(run.peak for run in rows):.0f}")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, default=TOP / "build/bench")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--segments", type=int, default=156, help="of five seconds and 5 MB")
    parser.add_argument("--programs", default=",".join(["relay", "weir", *common.PEERS]))
    parser.add_argument("--buffer", type=int, default=2_000_000_000, help="bytes, of weir")
    options = parser.parse_args()
    own_network()
    with Lab() as lab:
        bench = Bench(lab, options)
        common.print_head("media", "program", "MB/s", "ratio", "CPU s/GB", "ratio", "peak RSS MiB")
        for kind in ("clear", "aes"):
            bench.report(kind)


if __name__ == "__main__":
    main()
