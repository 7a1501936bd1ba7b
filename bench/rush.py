"""Simulates rushes on a fleet with measured costs: players that reconnect at once, and weirs that all
fetch new maps. kit/fleet/README.md has the results.

The kernel drops a SYN if BACKLOG + 1 connections wait for weir. HAProxy then tries the weir with the
fewest connections again, after TRY. Everything that runs on a host gets an equal share of its cores.
"""

import heapq
import random
from dataclasses import dataclass, field

BACKLOG = 5
TRY = 250  # ms, HAProxy's timeout connect
STEP = 1  # ms

# CPU in ms, measured at f85802f on busy cores of 2.8 GHz: a connection, the first segments of a stream of
# 4 Mbit/s, a full TLS handshake (EC P-256; RSA 2048: 1.1), a get and a watch of etcdctl at the server.
ACCEPT, START, HANDSHAKE, GET, WATCH = 0.2, 4.9, 0.7, 4.0, 2.6
RUNNING = 0.00045  # cores, a stream that runs


@dataclass
class Weir:
    cores: float  # those that its running streams leave
    streams: int
    waiting: list[int] = field(default_factory=list)  # arrivals of the players to be accepted
    starting: list[tuple[float, int]] = field(default_factory=list)  # work done when it has started, arrival
    done = 0.0  # work that each stream has got so far
    credit = 0.0  # of the accepting thread

    def step(self, now: int, waits: list[int]) -> None:
        runnable = len(self.starting) + bool(self.waiting)
        share = STEP * min(1, self.cores / runnable) if runnable else 0
        self.done += share
        self.credit = self.credit + share if self.waiting else 0.0
        while self.starting and self.starting[0][0] <= self.done:
            waits.append(now - heapq.heappop(self.starting)[1])
        while self.waiting and self.credit >= ACCEPT:
            self.credit -= ACCEPT
            heapq.heappush(self.starting, (self.done + START, self.waiting.pop(0)))


def rush(players: int, weirs: int, running: int, retries: int, cores: int = 2, balancer: int = 4,
         tls: bool = True) -> tuple[list[int], int, int]:
    """Players who reconnect to weirs that serve `running` others each: their waits for media in ms, the
    503s and the most tries of one player. Who gets a 503 asks again after a second."""
    fleet = [Weir(cores - running * RUNNING, running) for _ in range(weirs)]
    arrivals = [int(number * (HANDSHAKE if tls else 0.1) / balancer) for number in range(players)]
    tries = [(arrival, number, 0, -1) for number, arrival in enumerate(arrivals)]  # time, player, count, weir
    heapq.heapify(tries)
    waits: list[int] = []
    refused = most = now = 0
    while len(waits) < players:
        while tries and tries[0][0] <= now:
            due, player, count, last = heapq.heappop(tries)
            if last >= 0:
                fleet[last].streams -= 1
            if count > retries:
                refused += 1
                heapq.heappush(tries, (now + 1000, player, 0, -1))
                continue
            most = max(most, count)
            least = min(weir.streams for weir in fleet)
            chosen = random.choice([n for n, weir in enumerate(fleet) if weir.streams == least])
            fleet[chosen].streams += 1
            if len(fleet[chosen].waiting) <= BACKLOG:
                fleet[chosen].waiting.append(arrivals[player])
            else:
                heapq.heappush(tries, (now + TRY, player, count + 1, chosen))
        now += STEP
        for weir in fleet:
            weir.step(now, waits)
    return sorted(waits), refused, most


def main() -> None:
    random.seed(1)
    print("players weirs TLS retries | media after, s: median, last | 503s, most tries")
    # One of six full weirs dies; all players of ten weirs come at once; what was measured: 34 and 0 503s.
    for players, weirs, running, tls, cores in (
            (1700, 5, 1666, True, 2), (1700, 5, 1666, False, 2), (17000, 10, 0, True, 2),
            (17000, 10, 0, False, 2), (682, 2, 341, False, 1)):
        for retries in 10, 40:
            waits, refused, most = rush(players, weirs, running, retries, cores, 4 if cores > 1 else 1, tls)
            print(f"{players:7} {weirs:5} {tls!s:5} {retries:5} | {waits[len(waits) // 2] / 1000:.1f} "
                  f"{waits[-1] / 1000:.1f} | {refused} {most}")
    # New maps: weir-maps-watch and weir-maps ask etcd once each. Without a change, one watch every 10 s.
    for cores in 2, 6:
        print(f"600 weirs, etcd with {cores} cores: new maps after {600 * 2 * GET / cores / 1000:.1f} s; "
              f"otherwise {600 / 10 * (GET + WATCH) / 1000 / cores:.0%} busy")


if __name__ == "__main__":
    main()
