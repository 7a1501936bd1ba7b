"""weir for hours: players come and go, caches die, answers are cut, stalled and refused.

The status is 0 only if every byte was right, every short segment was cut on purpose, weir is alive
at the end and has given everything back. With --sanitized any report of a sanitizer counts, too;
what depends on the speed of the machine, short segments and memory, does not.
"""

import argparse
import asyncio
import json
import random
import signal
import sys
import time
from collections import Counter
from collections.abc import Awaitable, Callable
from pathlib import Path
from typing import Any

import common
from faults import FaultProxy, Journal
from live import Channels, Content
from players import Player, open_stream
from poller import Poller
from weirlab import client, procfs
from weirlab.lab import TOP, Lab, Process
from weirlab.network import own_network

ORIGIN, ORIGIN_FRONT, CACHE, CACHE_FRONT = 9000, 9001, 9011, 9021
SECONDS = 2  # per segment
CLEAR, ENCRYPTED = 2, 2  # channels
BUFFER = 4 << 20
MAP_EVERY = (10, 40)
SAMPLE_EVERY = 5
OUT = TOP / "build/soak"
PATIENCE = 120  # seconds without any progress
PLAYLIST_FAULTS = 0.003  # chance of each request
KEPT = 16  # MiB of PSS that the allocator may keep
# kind: share in percent, and how many seconds they stay
HABITS = {"viewer": (50, (15, 150)), "zapper": (25, (0.2, 6)), "slow": (15, (30, 120)),
          "faithful": (10, (300, 900))}


class Audience:
    """Players that come and go at random, and how their streams ended."""

    def __init__(self, content: Content, journal: Journal, slow_rate: float) -> None:
        self.content, self.journal, self.slow_rate = content, journal, slow_rate
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
                                           self.slow_rate if kind == "slow" else None)
            except OSError:
                self.totals["connections refused"] += 1
                continue
            self.present[player] = kind
            self.served[kind] += 1
            try:
                await asyncio.wait([player.ended], timeout=random.uniform(*HABITS[kind][1]))
            finally:  # also if the seat is cancelled
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
                totals["segments restarted after two faults" if short.restarted
                       else "short segments, explained by a cut"] += 1
        for channel, sequence in found.missing:
            touched = self.journal.touched(channel, sequence)
            totals["segments missing " + ("after a fault" if touched else
                                          f"because the window moved on ({kind})")] += 1

    def sum(self, name: str, of_player: str) -> int:
        return self.totals[name] + sum(int(getattr(player.found, of_player)) for player in self.present)

    def received(self) -> int:
        return self.sum("bytes received", "received")

    def segments(self) -> int:
        return self.sum("whole segments", "segments")


class Soak:
    """An origin, three caches, a fault-injecting proxy in front of each, and weir."""

    def __init__(self, lab: Lab, options: argparse.Namespace) -> None:
        self.lab, self.options = lab, options
        self.journal = Journal()
        chances = (options.segment_faults, PLAYLIST_FAULTS)
        lab.origin(ORIGIN)
        self.origin = FaultProxy("origin", ORIGIN_FRONT, ORIGIN, self.journal, chances)
        self.fronts = [FaultProxy(f"cache{number}", CACHE_FRONT + number, CACHE + number, self.journal,
                                  chances) for number in range(3)]
        rates = [int(rate) for rate in options.rates.split(",")]
        content = Channels(lab.www, rates, SECONDS, CLEAR, ENCRYPTED, "http://~", "http://@",
                           f"http://127.0.0.1:{ORIGIN}").start()
        self.audience = Audience(content, self.journal, max(rates) / 15)
        self.caches: list[Process] = []
        self.poller = Poller(0.5)
        self.idle_threads = 2 if options.sanitized else 1
        self.weir = lab.weir(options.binary, BUFFER, threads=self.idle_threads)
        self.stopped = asyncio.Event()
        self.samples: list[dict[str, float]] = []
        self.base = self.left = procfs.sample(self.weir.pid)
        self.broken: list[str] = []  # errors of the run itself
        self.polls: dict[str, Any] = {"failures": 0}

    def start_cache(self, number: int) -> Process:
        return self.lab.cache(f"cache{number}", CACHE + number, ORIGIN_FRONT)

    async def push_map(self, dead_too: bool = False) -> None:
        """The caches in random order, which changes what each has to serve."""
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
        while True:
            self.samples.append({"seconds": time.time() - self.journal.began,
                                 **procfs.sample(self.weir.pid), "bytes": self.audience.received(),
                                 "players": len(self.audience.present)})
            await asyncio.sleep(SAMPLE_EVERY)

    async def progress(self, amount: Callable[[], float], enough: Callable[[], bool]) -> None:
        """Waits until it is enough; raises if weir ends or the amount stays the same for too long."""
        last, changed = amount(), time.monotonic()
        while not enough():
            await asyncio.sleep(0.2)
            if not procfs.alive(self.weir.pid):
                raise RuntimeError("weir ended")
            if amount() != last:
                last, changed = amount(), time.monotonic()
            elif time.monotonic() - changed > PATIENCE:
                raise RuntimeError(f"no progress for {PATIENCE} s")

    async def play(self) -> None:
        """For the time asked for, and until there were enough segments to check."""
        end, enough = time.monotonic() + self.options.hours * 3600, 5 * int(self.options.players)
        await self.progress(self.audience.received, lambda: time.monotonic() > end and
                            self.audience.segments() >= enough)

    async def settle(self) -> None:
        """Waits until weir has given back its threads and descriptors."""
        def gave_back() -> bool:
            self.left = procfs.sample(self.weir.pid)
            return all(self.left[name] <= self.base[name] for name in ("threads", "descriptors"))

        await self.progress(lambda: self.left["threads"] + self.left["descriptors"], gave_back)

    async def warm_up(self) -> None:
        """Plays one stream first, so that one-time initialisation is not taken for a leak."""
        player = await open_stream(self.audience.content, self.audience.masters[0])
        await self.progress(lambda: player.found.received, lambda: player.found.segments > 1)
        player.leave()
        self.base["threads"] = self.idle_threads
        await self.settle()
        self.base = procfs.sample(self.weir.pid)

    async def run(self) -> None:
        for number in (signal.SIGINT, signal.SIGTERM):
            asyncio.get_running_loop().add_signal_handler(number, self.stopped.set)
        for proxy in (self.origin, *self.fronts):
            await proxy.listen()
        self.caches = [self.start_cache(number) for number in range(3)]
        await self.push_map(dead_too=True)
        try:
            await self.warm_up()
            await self.load()
            await self.settle()
        except (OSError, RuntimeError) as error:
            self.broken.append(repr(error))

    async def load(self) -> None:
        """Runs all actors until the time is over or one of them fails."""
        self.poller.start()
        self.journal.began = time.time()
        work: list[Awaitable[object]] = [self.audience.seat() for _ in range(self.options.players)]
        work += [self.kill_and_revive(), self.update_maps(), self.watch_for_dead_maps(), self.sample()]
        tasks = [asyncio.ensure_future(each) for each in work]
        ends = [asyncio.ensure_future(each) for each in (self.stopped.wait(), self.play())]
        ended, _ = await asyncio.wait([*ends, *tasks], return_when=asyncio.FIRST_COMPLETED)
        self.broken = [repr(task.exception()) for task in ended if task.exception()]
        for task in [*ends, *tasks]:
            task.cancel()
        await asyncio.gather(*ends, *tasks, return_exceptions=True)
        self.polls = self.poller.stop()


def failures(soak: Soak) -> list[str]:
    totals, left, base = soak.audience.totals, soak.left, soak.base
    found = {
        "the run itself failed": soak.broken,
        "wrong bytes": totals["wrong bytes"], "segments repeated": totals["segments repeated"],
        "the statistics were not answered": soak.polls["failures"],
        "threads not returned": left["threads"] > base["threads"],
        "descriptors not returned": left["descriptors"] > base["descriptors"]}
    if soak.options.sanitized:
        found["a sanitizer reported"] = "Sanitizer" in soak.lab.log.read_text(errors="replace")
    else:
        found |= {"unexplained short segments": soak.audience.unexplained,
                  "memory not returned": left["pss"] > base["pss"] + KEPT}
    return [name for name, holds in found.items() if holds]


def figures(soak: Soak) -> dict[str, object]:
    audience, samples = soak.audience, soak.samples
    return {
        "failures": failures(soak), "of the run itself": soak.broken,
        "minutes": round(samples[-1]["seconds"] / 60, 1) if samples else 0,
        **audience.totals,
        "first wrong byte": audience.first_wrong, "unexplained": audience.unexplained,
        "faults and other events": soak.journal.counts(),
        "players": audience.served, "ends of streams": audience.ends,
        "before the first player": soak.base, "after the last player": soak.left,
        "most": {name: max((row[name] for row in samples), default=0) for name in soak.base},
        "statistics": soak.polls}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("hours", type=float)
    parser.add_argument("--players", type=int, default=20, help="at a time")
    parser.add_argument("--rates", default="750000,1500000,3000000", help="of the variants, bit/s")
    parser.add_argument("--sanitized", action="store_true", help="the binary has a sanitizer")
    parser.add_argument("--binary", type=Path, default=TOP / "build/release/weir")
    parser.add_argument("--segment-faults", type=float, default=0.02, help="chance of each request")
    parser.add_argument("--kill-every", type=float, default=120, help="seconds between dying caches")
    options = parser.parse_args()
    OUT.mkdir(parents=True, exist_ok=True)
    own_network()
    with Lab("/dev/shm") as lab:
        soak = Soak(lab, options)
        asyncio.run(soak.run())
        results = figures(soak)
        (OUT / "soak.json").write_text(json.dumps(
            {"figures": results, "samples": soak.samples, "events": soak.journal.events}, indent=1))
        (OUT / "weir.log").write_bytes(lab.log.read_bytes())
        for name, value in results.items():
            common.print_row(name, json.dumps(value))
        if results["failures"]:
            print(lab.log.read_text(errors="replace")[-5000:])
    sys.exit(bool(results["failures"]))


if __name__ == "__main__":
    main()
