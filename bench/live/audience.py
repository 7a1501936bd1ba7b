"""Players that come and go at random, and what became of them."""

import asyncio
import random
import time
from collections import Counter

from live.players import open_stream

# kind: how many in a hundred, and for how many seconds they stay
HABITS = {"viewer": (50, (15, 150)), "zapper": (25, (0.2, 6)), "slow": (15, (30, 120)),
          "faithful": (10, (300, 900))}
SLOW_RATE = 200_000  # bytes a second: less than the best variant has


class Audience:
    def __init__(self, content, masters, journal):
        self.content, self.masters, self.journal = content, masters, journal
        self.present = {}  # player: its kind
        self.served = Counter()  # by kind
        self.ends = Counter()  # by kind and cause
        self.totals = Counter()
        self.unexplained = []
        self.first_wrong = ""
        self.failed_opens = 0

    async def seat(self):
        """One seat: player after player, until cancelled."""
        while True:
            await asyncio.sleep(random.uniform(0, 5))
            kind = random.choices(list(HABITS), [share for share, _ in HABITS.values()])[0]
            await self.watch(kind)

    async def watch(self, kind):
        start_from = random.choice([-1, -3, -3, -5, 0])
        rate = SLOW_RATE if kind == "slow" else None
        try:
            player = await open_stream(self.content, random.choice(self.masters), start_from, rate)
        except OSError:
            self.failed_opens += 1
            return
        self.present[player] = kind
        self.served[kind] += 1
        try:
            await asyncio.wait_for(asyncio.shield(player.ended), random.uniform(*HABITS[kind][1]))
        except asyncio.TimeoutError:
            pass
        finally:
            self._depart(player)

    def _depart(self, player):
        """Also of a player whose seat is cancelled."""
        kind = self.present.pop(player)
        if player.ended.done():
            cause = "reset by weir" if player.error else "closed by weir"
            age = time.monotonic() - player.started
            self.journal.note("end", kind, f"{cause} after {age:.0f} s")
        else:
            cause = "left"
            player.leave()
        self.ends[f"{kind}: {cause}"] += 1
        self._count(player, kind)

    def _count(self, player, kind):
        found = player.found
        for name in ("received", "verified", "wrong", "segments", "repeated"):
            self.totals[name] += getattr(found, name)
        self.totals["more than one variant"] += len(found.variants) > 1
        self.first_wrong = self.first_wrong or found.first_wrong
        for short in found.shorts:
            if not self.journal.explains_short(short):
                self.unexplained.append(f"{kind} {short.name} at byte {short.at}")
            elif short.restarted:
                self.totals["restarted"] += 1
            else:
                self.totals["short, explained"] += 1
        for channel, sequence in found.missing:
            touched = self.journal.touched(channel, sequence)
            self.totals["missing after a fault" if touched else f"missing, window passed ({kind})"] += 1

    def received(self):
        return self.totals["received"] + sum(p.found.received for p in self.present)
