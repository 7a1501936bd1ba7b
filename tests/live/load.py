"""Many live streams through weir at once, with every byte of them checked.

Prints a Markdown table, one row for each number of streams; docs/reliability.md says
what the columns mean. The status is 0 only when every stream was whole.
"""

import argparse
import asyncio
import os
import sys
import time
from collections.abc import Sequence
from pathlib import Path
from statistics import mean, median
from typing import Any

from weirlab import client, procfs, tables
from weirlab.lab import TOP, Lab, Process
from weirlab.live import Channels, Content
from weirlab.network import own_network
from weirlab.players import AT_ONCE, Player, open_stream, until
from weirlab.plots import plot
from weirlab.poller import Poller

ORIGIN = 9000
BASE = f"http://127.0.0.1:{ORIGIN}"
SAMPLE_EVERY = 2  # seconds
RETURN_LIMIT = 90  # seconds
OPEN_RATE = 100  # streams a second


class Row:
    """A weir of its own, streams, and nothing but them for a while."""

    def __init__(self, lab: Lab, options: argparse.Namespace, nginx: Process, channels: Channels,
                 content: Content) -> None:
        self.lab, self.options, self.nginx = lab, options, nginx
        self.channels, self.content = channels, content
        self.poller = Poller(0.2)
        self.weir = lab.weir(options.binary, options.buffer)
        self.idle = self.state()  # before anything
        self.quiet = self.left = self.gone = self.idle  # beside the silent; after the streams; after all
        self.samples: list[dict[str, float]] = []
        self.cpu: dict[str, float] = {}  # % of a core
        self.mbit = self.switches = 0.0
        self.early = 0
        self.lags: list[int] = []
        self.players: list[Player] = []
        self.polls: dict[str, Any] = {}

    def state(self) -> dict[str, float]:
        return procfs.sample(self.weir.pid)

    def seconds(self) -> dict[str, float]:
        """Of CPU so far, of everybody who works for the streams."""
        user, system = procfs.user_and_system(self.weir.pid)
        servers = [self.nginx.pid, *procfs.children(self.nginx.pid)]
        return {"weir": procfs.cpu(self.weir.pid), "user": user, "system": system,
                "nginx": sum(map(procfs.cpu, servers)), "players": time.process_time()}

    def total(self, name: str) -> int:
        values = [getattr(player.found, name) for player in self.players]
        return sum(len(value) if isinstance(value, list) else value for value in values)

    async def back_to(self, base: dict[str, float]) -> dict[str, float]:
        """What is left once the threads of the streams are gone, or time is up."""
        await until(lambda: procfs.threads(self.weir.pid) <= base["threads"], RETURN_LIMIT)
        return self.state()

    async def open_all(self, count: int) -> None:
        """Streams that begin evenly over at least one segment's duration."""
        pause, opening = max(1 / OPEN_RATE, self.options.segment_seconds / count), []
        for _ in range(count):
            opening.append(asyncio.create_task(open_stream(
                self.content, f"{BASE}/c0/master.m3u8", self.options.start_from)))
            await asyncio.sleep(pause)
        self.players = await asyncio.gather(*opening)

    async def measure(self) -> None:
        """Lets them play; the figures of that time only."""
        await asyncio.sleep(2 * self.options.segment_seconds)
        for player in self.players:
            player.longest_gap = 0.0
        began, before, received = time.monotonic(), self.seconds(), self.total("received")
        while time.monotonic() < began + self.options.seconds:
            self.samples.append(self.state())
            await asyncio.sleep(SAMPLE_EVERY)
        duration, after = time.monotonic() - began, self.seconds()
        self.cpu = {name: 100 * (after[name] - before[name]) / duration for name in after}
        self.mbit = (self.total("received") - received) * 8 / duration / 1e6
        newest = self.channels.newest()
        self.lags = [newest - player.found.sequence for player in self.players]

    async def run(self, count: int) -> None:
        silent = []  # connections that never say a word
        for _ in range(self.options.silent):
            async with AT_ONCE:
                silent.append((await asyncio.open_connection("127.0.0.1", client.WEIR))[1])
            await asyncio.sleep(0.001)
        await asyncio.sleep(1)
        self.quiet = self.state()
        self.poller.start()
        began = time.monotonic()
        await self.open_all(count)
        await self.measure()
        self.early = sum(player.ended.done() for player in self.players)
        for player in self.players:
            player.leave()
        stream_seconds = (time.monotonic() - began) * count
        self.left = await self.back_to(self.quiet)
        self.polls = self.poller.stop()
        for writer in silent:
            writer.close()
        self.gone = await self.back_to(self.idle)
        self.weir.terminate()
        _, self.weir.returncode, usage = os.wait4(self.weir.pid, 0)
        self.switches = (usage.ru_nvcsw + usage.ru_nivcsw) / stream_seconds

    def sound(self) -> bool:
        return (self.early == 0 and self.polls["failures"] == 0
                and not any(map(self.total, ("wrong", "missing", "shorts", "repeated")))
                and all(self.gone[name] <= self.idle[name] for name in ("threads", "descriptors")))

    def mean(self, name: str) -> float:
        return mean(sample[name] for sample in self.samples)

    def cells(self) -> dict[str, object]:
        streams = len(self.players)
        return {
            "streams": streams,
            "Mbit/s": f"{self.mbit:.0f}",
            "MB verified": f"{self.total('verified') / 1e6:,.0f}",
            "wrong bytes": self.total("wrong"),
            "missing / short / repeated": " / ".join(
                str(self.total(name)) for name in ("missing", "shorts", "repeated")),
            "ended early": self.early,
            "CPU %": f"{self.cpu['weir']:.1f}",
            "user / system": f"{self.cpu['user']:.1f} / {self.cpu['system']:.1f}",
            **{f"{name.upper()} a stream, MiB":
               f"{(self.mean(name) - self.quiet[name]) / streams:.2f}" for name in ("pss", "rss")},
            **{name: max(sample[name] for sample in self.samples)
               for name in ("threads", "descriptors")},
            "switches/s a stream": f"{self.switches:.0f}",
            "nginx / players CPU %": f"{self.cpu['nginx']:.1f} / {self.cpu['players']:.1f}",
        }

    def details(self) -> dict[str, object]:
        """Whether the streams kept up, how fast weir answered, and what it gave back."""
        times = " / ".join(f"{1000 * self.polls[name]:.1f}" for name in ("median", "99 %", "longest"))
        return {
            "streams": len(self.players),
            "segments behind the newest: median / most": f"{median(self.lags):.0f} / {max(self.lags)}",
            "longest pause, s": f"{max(player.longest_gap for player in self.players):.1f}",
            "answers: median / 99 % / longest, ms": times,
            "failed of": f"{self.polls['failures']} of {self.polls['polls']}",
            **{f"{name}: RSS, PSS, threads, descriptors":
               ", ".join(f"{value:.3g}" for value in state.values())
               for name, state in (("idle", self.idle), ("after the streams", self.left),
                                   ("after all", self.gone))},
        }


def print_table(rows: Sequence[dict[str, object]]) -> None:
    tables.print_head(*rows[0])
    for row in rows:
        tables.print_row(*row.values())


def main() -> None:
    parser = argparse.ArgumentParser(prog="script/load", description=__doc__)
    parser.add_argument("--streams", default="500", help="a number, or several, a row each: 10,50,100")
    parser.add_argument("--silent", type=int, default=0, help="connections that never say a word")
    parser.add_argument("--seconds", type=float, default=60, help="of measuring")
    parser.add_argument("--mbit", type=float, default=2, help="of each stream")
    parser.add_argument("--segment-seconds", type=float, default=2)
    parser.add_argument("--encrypted", action="store_true", help="AES-128")
    parser.add_argument("--start-from", type=int, default=-3, help="as the parameter of a stream")
    parser.add_argument("--buffer", type=int, default=32 << 20, help="bytes, weir's argument")
    parser.add_argument("--binary", type=Path, default=TOP / "build/release/weir")
    parser.add_argument("--plot", type=Path, help="SVG of the rows; needs python3-matplotlib")
    options = parser.parse_args()
    own_network()
    os.nice(19 - os.nice(0))  # as weir's threads, so that no side starves the other
    rows = []
    with Lab("/dev/shm") as lab:
        nginx = lab.origin(ORIGIN)
        channels = Channels(lab.www, [int(options.mbit * 1e6)], options.segment_seconds,
                            0 if options.encrypted else 1, 1 if options.encrypted else 0, BASE, BASE, BASE)
        content = channels.start()
        for count in options.streams.split(","):
            rows.append(Row(lab, options, nginx, channels, content))
            asyncio.run(rows[-1].run(int(count)))
    print(f"{options.mbit:g} Mbit/s each, segments of {options.segment_seconds:g} s, "
          f"{'AES-128' if options.encrypted else 'clear'}, {options.silent} silent connections, "
          f"{options.seconds:g} s measured\n")
    print_table([row.cells() for row in rows])
    print()
    print_table([row.details() for row in rows])
    if options.plot:
        streams = [len(row.players) for row in rows]
        plot(options.plot, "live streams", {
            "% of a core": {"user and system": (streams, [row.cpu["weir"] for row in rows]),
                            "system": (streams, [row.cpu["system"] for row in rows])},
            "MiB, whole process": {name.upper(): (streams, [row.mean(name) for row in rows])
                                   for name in ("rss", "pss")}}, "o-")
    sys.exit(not all(row.sound() for row in rows))


if __name__ == "__main__":
    main()
