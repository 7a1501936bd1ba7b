"""Many live streams through weir at once, with every byte of them checked.

Prints a Markdown table, one row for each number of streams; see docs/reliability.md
for what the columns mean.
"""

import argparse
import asyncio
import os
import sys
import time
from dataclasses import dataclass
from pathlib import Path

from live import load_report, procfs
from live.channel import newest_sequence
from live.content import Content, segment_size
from live.players import open_silent, open_stream
from live.rig import ORIGIN, TOP, Rig

SAMPLE_EVERY = 2  # seconds
RETURN_LIMIT = 90  # seconds
OPEN_RATE = 100  # streams a second
BASE = f"http://127.0.0.1:{ORIGIN}"
MASTER = f"{BASE}/c0/master.m3u8"


@dataclass
class Cpu:
    """Seconds so far, of everybody who works for the streams."""
    user: float
    system: float
    nginx: float
    players: float
    when: float


class Run:
    """One row: weir afresh, streams, and nothing but them for a while."""

    def __init__(self, rig, options, nginx, content):
        self.rig, self.options, self.nginx, self.content = rig, options, nginx, content
        self.weir = self.poller = None
        self.samples = []

    def cpu(self):
        user, system = procfs.cpu(self.weir.pid)
        own = os.times()
        return Cpu(user, system, procfs.cpu_with_children(self.nginx.pid), own.user + own.system,
                   time.monotonic())

    def sample(self):
        return procfs.sample(self.weir.pid)

    async def until_back(self, base):
        """What is left once the threads of the streams are gone, or time is up."""
        deadline = time.monotonic() + RETURN_LIMIT
        while self.sample()["threads"] > base["threads"] and time.monotonic() < deadline:
            await asyncio.sleep(0.2)
        return self.sample()

    async def open_all(self, count):
        """Streams that begin evenly over at least one segment's duration."""
        pause = max(1 / OPEN_RATE, self.options.segment_seconds / count)
        opening = []
        for _ in range(count):
            opening.append(asyncio.create_task(
                open_stream(self.content, MASTER, self.options.start_from)))
            await asyncio.sleep(pause)
        return await asyncio.gather(*opening)

    async def measure(self, players):
        """Lets them play; the figures of that time only."""
        await asyncio.sleep(2 * self.options.segment_seconds)
        for player in players:
            player.longest_gap = 0.0
        before, bytes_before = self.cpu(), sum(p.found.received for p in players)
        while time.monotonic() < before.when + self.options.seconds:
            self.samples.append(self.sample())
            await asyncio.sleep(SAMPLE_EVERY)
        after, bytes_after = self.cpu(), sum(p.found.received for p in players)
        newest = newest_sequence(self.rig.root)
        return before, after, bytes_after - bytes_before, [newest - p.check.sequence for p in players]

    async def run(self, count):
        self.weir = self.rig.weir(self.options.buffer)
        idle = self.sample()
        silent = await open_silent(self.options.silent)
        await asyncio.sleep(1)
        quiet = self.sample()
        output = self.rig.work / "poller.json"
        with open(output, "wb") as file:
            self.poller = self.rig.python("live.poller", stdout=file)
        began = time.monotonic()
        players = await self.open_all(count)
        before, after, received, lags = await self.measure(players)
        early = sum(p.ended.done() for p in players)
        for player in players:
            player.leave()
        stream_seconds = (time.monotonic() - began) * count
        left = await self.until_back(quiet)
        self.rig.end(self.poller)
        for writer in silent:
            writer.close()
        gone = await self.until_back(idle)
        usage = self.rig.end(self.weir)
        return load_report.Row(
            count, before, after, received, lags, early, players, self.samples, idle, quiet, left,
            gone, (usage.ru_nvcsw + usage.ru_nivcsw) / stream_seconds, output.read_text())


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--streams", type=int, default=500)
    parser.add_argument("--curve", help="several numbers of streams, one row each: 10,50,100")
    parser.add_argument("--silent", type=int, default=0, help="connections that never say a word")
    parser.add_argument("--seconds", type=float, default=60, help="of measuring")
    parser.add_argument("--mbit", type=float, default=2, help="of each stream")
    parser.add_argument("--segment-seconds", type=float, default=2)
    parser.add_argument("--encrypted", action="store_true", help="AES-128")
    parser.add_argument("--start-from", type=int, default=-3, help="as the parameter of a stream")
    parser.add_argument("--buffer", type=int, default=32 << 20, help="bytes, weir's argument")
    parser.add_argument("--binary", type=Path, default=TOP / "build/release/weir")
    parser.add_argument("--plot", type=Path, help="SVG of the rows")
    return parser.parse_args()


def main():
    options = arguments()
    os.nice(19 - os.nice(0))  # as weir's threads, so that no side starves the other
    rate = int(options.mbit * 1e6)
    content = Content(segment_size(rate, options.segment_seconds))
    counts = [int(x) for x in options.curve.split(",")] if options.curve else [options.streams]
    rows = []
    with Rig(options.binary) as rig:
        nginx = rig.origin()
        kind = ("--clear", 0, "--encrypted", 1) if options.encrypted else ()
        rig.channels([rate], options.segment_seconds, "--playlists", BASE, "--segments", BASE,
                     "--keys", BASE, *kind)
        load_report.print_head(options)
        for count in counts:
            rows.append(asyncio.run(Run(rig, options, nginx, content).run(count)))
            load_report.print_row(rows[-1])
    load_report.print_details(rows)
    if options.plot:
        load_report.plot(rows, options.plot)
    return 0 if all(row.sound() for row in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
