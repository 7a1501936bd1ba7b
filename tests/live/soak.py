"""weir for hours: players come and go, caches die, answers are cut, stalled and refused.

The status is 0 only when every byte was right, every short segment was cut on
purpose, weir is alive at the end and has given everything back.
"""

import argparse
import asyncio
import json
import random
import re
import signal
import statistics
import sys
import time
from collections import Counter
from collections.abc import Awaitable
from pathlib import Path
from typing import Any

from weirlab import client, procfs, tables
from weirlab.faults import FaultProxy, Journal
from weirlab.lab import TOP, Lab, Process
from weirlab.live import Channels, Content
from weirlab.network import own_network
from weirlab.players import Player, open_stream, until
from weirlab.plots import plot
from weirlab.poller import Poller

ORIGIN, ORIGIN_FRONT, CACHE, CACHE_FRONT = 9000, 9001, 9011, 9021
RATES = (750_000, 1_500_000, 3_000_000)
SECONDS = 2
CLEAR, ENCRYPTED = 2, 2
SEATS = 20
BUFFER = 4 << 20
MAP_EVERY = (10, 40)
SAMPLE_EVERY = 5
RETURN_LIMIT = 120  # seconds until the last stream has to be gone
KEPT = 16  # MiB of PSS that may stay above the base: the allocator's, not a stream's
# kind: how many in a hundred, and for how many seconds they stay
HABITS = {"viewer": (50, (15, 150)), "zapper": (25, (0.2, 6)), "slow": (15, (30, 120)),
          "faithful": (10, (300, 900))}
SLOW_RATE = 200_000  # bytes a second: less than the best variant has


class Audience:
    """Players that come and go at random, and what became of them."""

    def __init__(self, content: Content, journal: Journal) -> None:
        self.content, self.journal = content, journal
        self.masters = [f"http://~/c{number}/master.m3u8" for number in range(CLEAR + ENCRYPTED)]
        self.present: dict[Player, str] = {}  # and its kind
        self.served: Counter[str] = Counter()  # by kind
        self.ends: Counter[str] = Counter()  # by kind and cause
        self.totals = Counter({"wrong bytes": 0, "segments repeated": 0})
        self.unexplained: list[str] = []
        self.first_wrong = ""

    async def seat(self) -> None:
        """One seat: player after player, until cancelled."""
        while True:
            await asyncio.sleep(random.uniform(0, 5))
            kind = random.choices(list(HABITS), [share for share, _ in HABITS.values()])[0]
            try:
                player = await open_stream(self.content, random.choice(self.masters),
                                           random.choice([-1, -3, -3, -5, 0]),
                                           SLOW_RATE if kind == "slow" else None)
            except OSError:
                self.totals["connections refused"] += 1
                continue
            self.present[player] = kind
            self.served[kind] += 1
            try:
                await asyncio.wait([player.ended], timeout=random.uniform(*HABITS[kind][1]))
            finally:  # also where the seat is cancelled
                self.depart(player, self.present.pop(player))

    def depart(self, player: Player, kind: str) -> None:
        cause = "left"
        if player.ended.done():
            cause = "reset by weir" if player.error else "closed by weir"
            self.journal.note("end", kind, f"{cause} after {time.monotonic() - player.started:.0f} s")
        player.leave()
        self.ends[f"{kind}: {cause}"] += 1
        found, totals = player.found, self.totals
        totals.update({"bytes received": found.received, "bytes verified": found.verified,
                       "wrong bytes": found.wrong, "whole segments": found.segments,
                       "segments repeated": found.repeated,
                       "streams that changed the variant": int(len(found.variants) > 1)})
        self.first_wrong = self.first_wrong or found.first_wrong
        for short in found.shorts:
            if not self.journal.explains(short):
                self.unexplained.append(f"{kind} {short.name} at byte {short.at}")
            else:
                totals["segments begun anew after two faults" if short.restarted
                       else "short segments, explained by a cut"] += 1
        for channel, sequence in found.missing:
            touched = self.journal.touched(channel, sequence)
            totals["segments missing " + ("after a fault" if touched else
                                          f"since the window passed ({kind})")] += 1

    def received(self) -> int:
        return self.totals["bytes received"] + sum(player.found.received for player in self.present)


class Soak:
    """An origin and three caches, each behind a proxy that does harm, and weir."""

    def __init__(self, lab: Lab, options: argparse.Namespace) -> None:
        self.lab, self.options = lab, options
        self.journal = Journal()
        chances = (options.segment_faults, options.playlist_faults)
        lab.origin(ORIGIN)
        self.origin = FaultProxy("origin", ORIGIN_FRONT, ORIGIN, self.journal, chances)
        self.fronts = [FaultProxy(f"cache{number}", CACHE_FRONT + number, CACHE + number, self.journal,
                                  chances) for number in range(3)]
        content = Channels(lab.www, RATES, SECONDS, CLEAR, ENCRYPTED, "http://~", "http://@",
                           f"http://127.0.0.1:{ORIGIN}").start()
        self.audience = Audience(content, self.journal)
        self.caches: list[Process] = []
        self.poller = Poller(0.5)
        self.weir = lab.weir(options.binary, BUFFER)
        self.stopped = asyncio.Event()
        self.samples: list[dict[str, float]] = []
        self.base = self.left = procfs.sample(self.weir.pid)
        self.broken: list[str] = []  # what went wrong with the run itself
        self.polls: dict[str, Any] = {}

    def start_cache(self, number: int) -> Process:
        return self.lab.cache(f"cache{number}", CACHE + number, ORIGIN_FRONT)

    async def push_map(self, dead_too: bool = False) -> None:
        """The caches in an order that changes what each has to serve."""
        servers = [f"127.0.0.1:{front.port}" for front in self.fronts if front.server or dead_too]
        random.shuffle(servers)
        await asyncio.to_thread(client.get, client.maps_path(",".join(servers)))
        self.journal.note("map", "all" if dead_too else "alive", ",".join(servers))

    async def kill_and_revive(self) -> None:
        dead = None
        while True:
            await asyncio.sleep(self.options.kill_every)
            victim = random.choice([number for number in range(3) if number != dead])
            if dead is not None:
                self.caches[dead] = self.start_cache(dead)
                await self.fronts[dead].listen()
                self.journal.note("revival", self.fronts[dead].name)
                await self.push_map(dead_too=True)
                await asyncio.sleep(5)
            self.lab.kill_with_children(self.caches[victim])
            self.fronts[victim].kill()
            dead = victim

    async def update_maps(self) -> None:
        while True:
            await asyncio.sleep(random.uniform(*MAP_EVERY))
            await self.push_map()

    async def watch_for_dead_maps(self) -> None:
        """Notes each second in which weir found every cache of its maps marked dead."""
        with open(self.lab.log, encoding="utf-8", errors="replace") as file:
            while True:
                if count := file.read().count("no valid ring found"):
                    self.journal.note("no server", "weir", f"{count} times")
                await asyncio.sleep(1)

    async def sample(self) -> None:
        while procfs.alive(self.weir.pid):
            self.samples.append({"seconds": time.time() - self.journal.began,
                                 **procfs.sample(self.weir.pid), "bytes": self.audience.received(),
                                 "players": len(self.audience.present)})
            await asyncio.sleep(SAMPLE_EVERY)
        raise RuntimeError("weir ended")

    def gave_back(self) -> bool:
        self.left = procfs.sample(self.weir.pid)
        return all(self.left[name] <= self.base[name] for name in ("threads", "descriptors"))

    async def warm_up(self) -> None:
        """One stream, so that what is loaded once is there; what is left then is the base."""
        player = await open_stream(self.audience.content, self.audience.masters[0])
        await asyncio.sleep(6)
        player.leave()
        await until(lambda: procfs.threads(self.weir.pid) == 1, RETURN_LIMIT)
        self.base = procfs.sample(self.weir.pid)

    async def run(self) -> None:
        for number in (signal.SIGINT, signal.SIGTERM):
            asyncio.get_running_loop().add_signal_handler(number, self.stopped.set)
        for proxy in (self.origin, *self.fronts):
            await proxy.listen()
        self.caches = [self.start_cache(number) for number in range(3)]
        await self.push_map(dead_too=True)
        await self.warm_up()
        self.poller.start()
        self.journal.began = time.time()
        work: list[Awaitable[object]] = [self.audience.seat() for _ in range(SEATS)]
        work += [self.kill_and_revive(), self.update_maps(), self.watch_for_dead_maps(), self.sample()]
        tasks = [asyncio.ensure_future(each) for each in work]
        stopped = asyncio.ensure_future(self.stopped.wait())
        ended, _ = await asyncio.wait([stopped, *tasks], timeout=self.options.hours * 3600,
                                      return_when=asyncio.FIRST_COMPLETED)
        self.broken = [repr(task.exception()) for task in ended - {stopped}]
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
        if procfs.alive(self.weir.pid):
            await until(self.gave_back, RETURN_LIMIT)
        self.polls = self.poller.stop()


def failures(soak: Soak) -> list[str]:
    totals, left, base = soak.audience.totals, soak.left, soak.base
    return [name for name, holds in {
        "the run itself failed": soak.broken,
        "wrong bytes": totals["wrong bytes"], "segments repeated": totals["segments repeated"],
        "unexplained short segments": soak.audience.unexplained,
        "threads not returned": left["threads"] > base["threads"],
        "descriptors not returned": left["descriptors"] > base["descriptors"],
        "memory not returned": left["pss"] > base["pss"] + KEPT}.items() if holds]


def slope(rows: list[dict[str, float]], name: str) -> float:
    """MiB an hour, by least squares."""
    hours = [row["seconds"] / 3600 for row in rows]
    return statistics.linear_regression(hours, [row[name] for row in rows]).slope if rows[2:] else 0


def figures(soak: Soak) -> dict[str, object]:
    """What there is to tell; weir's own words are put together by kind."""
    audience, samples = soak.audience, soak.samples
    said = (re.sub(r"http\S+|\d+|HTTP/.*", "", line).strip()
            for line in soak.lab.log.read_text(errors="replace").splitlines())
    return {
        "failures": failures(soak), "of the run itself": soak.broken,
        "minutes": round(samples[-1]["seconds"] / 60, 1) if samples else 0,
        **audience.totals,
        "first wrong byte": audience.first_wrong, "unexplained": audience.unexplained,
        "faults and other events": soak.journal.counts(),
        "players": audience.served, "ends of streams": audience.ends,
        **{f"{name}, MiB/h after the first quarter":
           round(slope(samples[len(samples) // 4:], name), 2) for name in ("rss", "pss")},
        "before the first player": soak.base, "after the last player": soak.left,
        "most": {name: max((row[name] for row in samples), default=0) for name in soak.base},
        "statistics": soak.polls, "what weir said": dict(Counter(said).most_common(20))}


def plot_course(soak: Soak, path: Path) -> None:
    """Memory, descriptors and threads over time."""
    minutes = [row["seconds"] / 60 for row in soak.samples]
    panels = {label: {name: (minutes, [row[name] for row in soak.samples]) for name in names}
              for label, names in (("MiB", ("rss", "pss")),
                                   ("number", ("descriptors", "threads", "players")))}
    plot(path, "minutes; red: a cache is killed", panels, ".-",
         [(event.when / 60, "red") for event in soak.journal.events
          if event.kind == "kill" and not event.what])


def main() -> None:
    parser = argparse.ArgumentParser(prog="script/soak", description=__doc__)
    parser.add_argument("hours", type=float)
    parser.add_argument("--out", type=Path, default=TOP / "build/soak", help="folder of the results")
    parser.add_argument("--binary", type=Path, default=TOP / "build/release/weir")
    parser.add_argument("--segment-faults", type=float, default=0.02, help="chance of each request")
    parser.add_argument("--playlist-faults", type=float, default=0.003)
    parser.add_argument("--kill-every", type=float, default=120, help="seconds between dying caches")
    parser.add_argument("--plot", action="store_true", help="soak.svg; needs python3-matplotlib")
    options = parser.parse_args()
    options.out.mkdir(parents=True, exist_ok=True)
    own_network()
    with Lab("/dev/shm") as lab:
        soak = Soak(lab, options)
        asyncio.run(soak.run())
        told = figures(soak)
        (options.out / "soak.json").write_text(json.dumps(
            {"figures": told, "samples": soak.samples, "events": soak.journal.events}, indent=1))
        for name, value in told.items():
            tables.print_row(name, json.dumps(value))
        if options.plot:
            plot_course(soak, options.out / "soak.svg")
    sys.exit(bool(told["failures"]))


if __name__ == "__main__":
    main()
