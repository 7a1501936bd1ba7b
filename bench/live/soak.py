"""weir for hours: players come and go, caches die, answers are cut, stalled and refused.

The status is 0 only when every byte was right, every short segment was cut on
purpose, weir is alive at the end and has given everything back.
"""

import argparse
import asyncio
import csv
import random
import signal
import sys
import time
from pathlib import Path

from live import procfs, soak_report
from live.audience import Audience
from live.content import Content, segment_size
from live.faults import FaultProxy, Journal
from live.players import open_stream
from live.poller import ask
from live.rig import ORIGIN, TOP, Rig

RATES = (750_000, 1_500_000, 3_000_000)
SECONDS = 2
CLEAR, ENCRYPTED = 2, 2
SEATS = 20
BUFFER = 4 << 20
MAP_EVERY = (10, 40)
SAMPLE_EVERY = 5
RETURN_LIMIT = 120  # seconds until the last stream has to be gone
ORIGIN_FRONT, CACHE, CACHE_FRONT = 9001, 9011, 9021


class Soak:
    def __init__(self, rig, options):
        self.rig, self.out = rig, options.out
        self.chances = (options.segment_faults, options.playlist_faults)
        self.kill_every = options.kill_every
        self.journal = Journal()
        content = Content(segment_size(max(RATES), SECONDS))
        masters = [f"http://~/c{number}/master.m3u8" for number in range(CLEAR + ENCRYPTED)]
        self.audience = Audience(content, masters, self.journal)
        self.stopped = asyncio.Event()
        self.samples = []
        self.fronts = []
        self.caches = []
        self.dead = None
        self.channels = self.weir = self.poller = None

    async def start(self):
        self.rig.origin()
        origin_front = FaultProxy("origin", ORIGIN_FRONT, ORIGIN, self.journal, self.chances)
        await origin_front.listen()
        for number in range(3):
            front = FaultProxy(f"cache{number}", CACHE_FRONT + number, CACHE + number,
                               self.journal, self.chances)
            await front.listen()
            self.fronts.append(front)
            self.caches.append(self.start_cache(number))
        self.channels = self.rig.channels(
            RATES, SECONDS, "--clear", CLEAR, "--encrypted", ENCRYPTED, "--playlists", "http://~",
            "--segments", "http://@", "--keys", f"http://127.0.0.1:{ORIGIN}")
        self.weir = self.rig.weir(BUFFER)
        await self.push_map()

    def start_cache(self, number):
        return self.rig.cache(f"cache{number}", CACHE + number, ORIGIN_FRONT)

    async def push_map(self, what="all"):
        """The living caches, in an order that changes what each has to serve."""
        alive = [f.port for f in self.fronts if f.server is not None or what == "all"]
        random.shuffle(alive)
        ring = ",".join(f"127.0.0.1:{port}" for port in alive)
        await asyncio.to_thread(ask, f"/update-cache-map?chunk={ring}&playlist={ring}")
        self.journal.note("map", what, ring)

    async def kill_and_revive(self):
        while True:
            await asyncio.sleep(self.kill_every)
            revived, victim = self.dead, random.choice([n for n in range(3) if n != self.dead])
            if revived is not None:
                self.caches[revived] = self.start_cache(revived)
                await self.fronts[revived].listen()
                self.journal.note("revival", self.fronts[revived].name, "")
                await self.push_map()
                await asyncio.sleep(5)
            self.rig.kill_nginx(self.caches[victim])
            self.fronts[victim].kill()
            self.dead = victim

    async def update_maps(self):
        while True:
            await asyncio.sleep(random.uniform(*MAP_EVERY))
            await self.push_map("alive")

    async def watch_for_dead_maps(self):
        """Notes each second in which weir found every cache of its maps marked dead."""
        with open(self.rig.work / "weir.err", encoding="utf-8", errors="replace") as file:
            while True:
                count = file.read().count("no valid ring found")
                if count:
                    self.journal.note("no server", "weir", f"{count} times")
                await asyncio.sleep(1)

    async def sample(self):
        with open(self.out / "soak.csv", "w", newline="", encoding="ascii") as file:
            table = csv.writer(file)
            table.writerow(["seconds", "rss", "pss", "threads", "descriptors", "players", "bytes"])
            while procfs.alive(self.weir.pid):
                row = procfs.sample(self.weir.pid)
                row |= {"seconds": time.time() - self.journal.began,
                        "players": len(self.audience.present), "bytes": self.audience.received()}
                self.samples.append(row)
                table.writerow([round(row[name], 2) for name in
                                ("seconds", "rss", "pss", "threads", "descriptors", "players", "bytes")])
                file.flush()
                await asyncio.sleep(SAMPLE_EVERY)
        self.stopped.set()  # it must not end

    async def warm_up(self):
        """One stream, so that what is loaded once is there; what is left then is the base."""
        player = await open_stream(self.audience.content, self.audience.masters[0])
        await asyncio.sleep(6)
        player.leave()
        await self.returned({"threads": 1, "descriptors": 99})
        return procfs.sample(self.weir.pid)

    async def returned(self, base):
        """What weir still has when its streams are over, or when it has taken too long."""
        deadline = time.monotonic() + RETURN_LIMIT
        while True:
            left = procfs.sample(self.weir.pid)
            if (time.monotonic() > deadline or left["threads"] <= base["threads"]
                    and left["descriptors"] <= base["descriptors"]):
                return left
            await asyncio.sleep(0.2)

    async def run(self, hours):
        loop = asyncio.get_running_loop()
        for number in (signal.SIGINT, signal.SIGTERM):
            loop.add_signal_handler(number, self.stopped.set)
        await self.start()
        base = await self.warm_up()
        self.poller = self.rig.python("live.poller", "--interval", "0.5",
                                      stdout=open(self.rig.work / "poller.json", "wb"))
        self.journal.began = time.time()
        work = [self.audience.seat() for _ in range(SEATS)]
        work += [self.kill_and_revive(), self.update_maps(), self.watch_for_dead_maps(),
                 self.sample()]
        tasks = [asyncio.create_task(coroutine) for coroutine in work]
        stopped = asyncio.create_task(self.stopped.wait())
        await asyncio.wait([stopped, *tasks], timeout=hours * 3600,
                           return_when=asyncio.FIRST_COMPLETED)
        broken = [task for task in tasks if task.done()]
        duration = time.time() - self.journal.began
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
        for task in broken:
            if not task.cancelled() and task.exception():
                print(f"the run itself failed: {task.exception()!r}", file=sys.stderr)
        crashed = not procfs.alive(self.weir.pid)
        left = base if crashed else await self.returned(base)
        self.rig.end(self.poller)
        return soak_report.write(self, duration, base, left, crashed, bool(broken))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("hours", type=float)
    parser.add_argument("--out", type=Path, default=TOP / "build/soak", help="folder of the results")
    parser.add_argument("--binary", type=Path, default=TOP / "build/release/weir")
    parser.add_argument("--segment-faults", type=float, default=0.02, help="chance of each request")
    parser.add_argument("--playlist-faults", type=float, default=0.003)
    parser.add_argument("--kill-every", type=float, default=120, help="seconds between dying caches")
    options = parser.parse_args()
    options.out.mkdir(parents=True, exist_ok=True)
    with Rig(options.binary) as rig:
        return asyncio.run(Soak(rig, options).run(options.hours))


if __name__ == "__main__":
    sys.exit(main())
