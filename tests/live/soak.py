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
from weirlab.faults import PLAYLIST_FAULTS, SEGMENT_FAULTS, FaultProxy, Journal
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


class Report:
    """What came of a soak: a table on the standard output, and a file with all of it."""

    def __init__(self, soak: Soak, seconds: float) -> None:
        self.soak, self.seconds = soak, seconds
        totals, left, base = soak.audience.totals, soak.left, soak.base
        self.failures = [name for name, holds in {
            "the run itself failed": soak.broken,
            "wrong bytes": totals["wrong bytes"], "segments repeated": totals["segments repeated"],
            "unexplained short segments": soak.audience.unexplained,
            "threads not returned": left["threads"] > base["threads"],
            "descriptors not returned": left["descriptors"] > base["descriptors"],
            "memory not returned": left["pss"] > base["pss"] + KEPT}.items() if holds]

    def slope(self, name: str, since: float) -> float:
        """MiB an hour, by least squares."""
        rows = [row for row in self.soak.samples if row["seconds"] > since]
        if len(rows) < 3:
            return 0.0
        hours = [row["seconds"] / 3600 for row in rows]
        return round(statistics.linear_regression(hours, [row[name] for row in rows]).slope, 2)

    def course(self, name: str) -> str:
        values = [row[name] for row in self.soak.samples]
        return f"{values[0]:.0f} / {values[-1]:.0f} / {max(values):.0f}"

    def complaints(self) -> dict[str, int]:
        """weir's own words, by kind."""
        lines = (re.sub(r"http\S+|\d+|HTTP/.*", "", line).strip()
                 for line in self.soak.lab.log.read_text(errors="replace").splitlines())
        return dict(Counter(lines).most_common(20))

    def figures(self) -> dict[str, object]:
        soak, audience, warm = self.soak, self.soak.audience, min(300, self.seconds / 5)
        counts = soak.journal.counts()
        return {
            "result": "failed: " + ", ".join(self.failures) if self.failures else "passed",
            "what failed of the run itself": soak.broken,
            "duration, minutes": round(self.seconds / 60, 1),
            **audience.totals,
            "first wrong byte": audience.first_wrong,
            "short segments, unexplained": audience.unexplained,
            "faults injected": {name: counts[name] for name in
                                sorted({*SEGMENT_FAULTS, *PLAYLIST_FAULTS, "kill", "revival", "map"})},
            "seconds in which weir knew no living cache": counts["no server"],
            "players served": dict(audience.served),
            "ends of streams": dict(sorted(audience.ends.items())),
            "RSS slope after warm-up, MiB/h": self.slope("rss", warm),
            "RSS slope of the second half, MiB/h": self.slope("rss", self.seconds / 2),
            "PSS slope after warm-up, MiB/h": self.slope("pss", warm),
            **{f"{name} first / last / max": self.course(name)
               for name in ("rss", "threads", "descriptors")},
            "before the first player": soak.base,
            "after the last player": soak.left,
            "statistics": soak.polls,
            "weir's complaints": self.complaints(),
        }

    def write(self, path: Path) -> None:
        figures = self.figures()
        path.write_text(json.dumps({"figures": figures, "samples": self.soak.samples,
                                    "events": self.soak.journal.events}, indent=1))
        tables.print_head("", "")
        for name, value in figures.items():
            tables.print_row(name, cell(value))

    def plot(self, path: Path) -> None:
        """Memory and descriptors over time, and below them every fault, in a row for each kind."""
        events = self.soak.journal.events
        minutes = [row["seconds"] / 60 for row in self.soak.samples]
        panels = {label: {name: (minutes, [row[name] for row in self.soak.samples]) for name in names}
                  for label, names in (("MiB", ("rss", "pss")),
                                       ("number", ("descriptors", "threads", "players")))}
        panels["faults"] = {}
        for row, kind in enumerate([*SEGMENT_FAULTS, "no server"]):
            times = [event.when / 60 for event in events if event.kind == kind]
            panels["faults"][kind] = (times, [row] * len(times))
        colours = {"kill": "red", "revival": "green"}
        plot(path, "minutes; red: a cache is killed, green: one is revived", panels, ".-", [
            (event.when / 60, colours[event.kind]) for event in events
            if event.kind in colours and not event.what])


def cell(value: object) -> str:
    if isinstance(value, dict):
        return ", ".join(f"{name} {cell(each)}" for name, each in value.items()) or "none"
    if isinstance(value, (list, str)):
        return str(value) if value else "none"
    return f"{value:,}" if isinstance(value, int) else f"{value:.4g}"


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
        report = Report(soak, time.time() - soak.journal.began)
        report.write(options.out / "soak.json")
        if options.plot:
            report.plot(options.out / "soak.svg")
    sys.exit(bool(report.failures))


if __name__ == "__main__":
    main()
