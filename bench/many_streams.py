"""Many live streams: one weir beside as many relays, and as many of each peer.

A channel of MPEG-TS in segments of two seconds is served from nginx on loopback.
Each program in turn plays it as often as asked: weir and the relays to a player
that throws the bytes away, a peer to /dev/null. Printed are the CPU and the memory
(PSS) of all of its processes, and the CPU in ratio to that of the relays, which do
nothing else than pass on a segment every two seconds, as a Markdown table.
"""

import argparse
import functools
import os
import selectors
import socket
import subprocess
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import NamedTuple

from programs import PEERS
from weirlab import client, procfs, tables
from weirlab.lab import TOP, Lab, Process
from weirlab.network import own_network
from weirlab.video import make_noise, media_playlist, replace

SECONDS = 2  # a segment
WINDOW = 10  # segments
ORIGIN, RELAYS = 9000, 9100  # the relays' first port; all below those of connections
BASE = f"http://127.0.0.1:{ORIGIN}"


class Run(NamedTuple):
    cpu: float  # % of a core
    memory: float  # MiB of PSS


class Channel(threading.Thread):
    """Moves the window of the live playlist on."""

    def __init__(self, lab: Lab, kind: str, segments: int) -> None:
        super().__init__(daemon=True)
        self.path = lab.www / kind / "list.m3u8"
        self.urls = [f"{BASE}/{kind}/{number}.ts" for number in range(1, segments + 1)]
        self.key = f"{BASE}/key" if kind == "aes" else ""
        self.done = threading.Event()
        self.publish(0)
        self.start()

    def publish(self, first: int) -> None:
        replace(self.path, media_playlist(self.urls[first:first + WINDOW], SECONDS, first + 1,
                                          self.key, over=False))

    def run(self) -> None:
        began, first = time.monotonic(), 0
        while (first + WINDOW < len(self.urls)
               and not self.done.wait(began + (first + 1) * SECONDS - time.monotonic())):
            first += 1
            self.publish(first)


class Players(threading.Thread):
    """Connections whose bytes are thrown away unread."""

    def __init__(self) -> None:
        super().__init__(daemon=True)
        self.selector, self.received, self.left = selectors.DefaultSelector(), 0, False
        self.began = time.monotonic()
        self.start()

    def add(self, player: socket.socket) -> None:
        self.selector.register(player, selectors.EVENT_READ)

    def run(self) -> None:
        scratch = bytearray(1 << 18)
        while not self.left:
            for key, _ in self.selector.select(0.5):
                assert isinstance(key.fileobj, socket.socket)
                count = key.fileobj.recv_into(scratch, len(scratch), socket.MSG_TRUNC)
                if count == 0:
                    self.selector.unregister(key.fileobj)
                self.received += count

    def leave(self) -> tuple[int, float]:
        """How many still played, and the bits a second of all."""
        rate = 8 * self.received / (time.monotonic() - self.began)
        self.left = True
        self.join()
        players = [key.fileobj for key in self.selector.get_map().values()]
        for player in players:
            assert isinstance(player, socket.socket)
            player.close()
        return len(players), rate


class Bench:
    def __init__(self, lab: Lab, options: argparse.Namespace) -> None:
        self.lab, self.options = lab, options
        self.segments = len(make_noise(lab, BASE, WINDOW + 8 + options.seconds // SECONDS + 10,
                                       SECONDS, int(options.mbit * 1e6)))
        lab.origin(ORIGIN)

    def measure(self, kind: str, add: Callable[[int], object], processes: list[Process]) -> Run:
        """`add` adds the stream of that number."""
        channel = Channel(self.lab, kind, self.segments)
        for number in range(self.options.streams):
            add(number)
            time.sleep(2 * SECONDS / self.options.streams)
        time.sleep(2 * SECONDS)
        began, before = time.monotonic(), cpu(processes)
        time.sleep(self.options.seconds)
        used = 100 * (cpu(processes) - before) / (time.monotonic() - began)
        memory = sum(procfs.sample(process.pid)["pss"] for process in processes)
        assert channel.is_alive(), "the video is too short"
        channel.done.set()
        channel.join()
        return Run(used, memory)

    def measure_played(self, kind: str, connect: Callable[[int], socket.socket],
                       processes: list[Process]) -> Run:
        players = Players()
        result = self.measure(kind, lambda number: players.add(connect(number)), processes)
        playing, rate = players.leave()
        self.end(processes, playing)
        assert rate > 0.8e6 * self.options.mbit * playing, f"only {rate:.0f} bit/s"
        return result

    def end(self, processes: list[Process], playing: int) -> None:
        for process in processes:
            process.terminate()
        for process in processes:
            self.lab.end(process)
        assert playing == self.options.streams, f"{playing} streams are left"

    def weir(self, kind: str) -> Run:
        path = client.stream_path(f"{BASE}/{kind}/master.m3u8", -3)
        return self.measure_played(kind, lambda _: client.connect(path),
                                   [self.lab.weir(self.options.build / "weir", 32 << 20)])

    def relay(self, kind: str) -> Run:
        processes: list[Process] = []
        key = self.lab.www / "key" if kind == "aes" else ""

        def connect(number: int) -> socket.socket:
            processes.append(self.lab.start([self.options.build / "bench/relay", RELAYS + number,
                                             ORIGIN, f"/{kind}/", 1000, key, SECONDS]))
            return client.connect_soon("/", RELAYS + number)

        return self.measure_played(kind, connect, processes)

    def peer(self, command: str, kind: str) -> Run:
        words, processes = command.format(f"{BASE}/{kind}/master.m3u8").split(), list[Process]()
        result = self.measure(kind, lambda _: processes.append(self.lab.start(
            words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)), processes)
        self.end(processes, sum(process.poll() is None for process in processes))
        return result

    def report(self, kind: str) -> None:
        every = {"relay": self.relay, "weir": self.weir}
        every |= {name: functools.partial(self.peer, PEERS[name]) for name in PEERS}
        results = tables.in_turn({name: functools.partial(every[name], kind)
                                  for name in self.options.programs.split(",")}, self.options.rounds)
        floor = [run.cpu for run in next(iter(results.values()))]
        for name, rows in results.items():
            cpus = [run.cpu for run in rows]
            tables.print_row(kind, f"{self.options.streams} x {name}", tables.spread(cpus, 1),
                             tables.ratio(cpus, floor), f"{max(run.memory for run in rows):.0f}")


def cpu(processes: list[Process]) -> float:
    return sum(procfs.cpu(process.pid) for process in processes)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, default=TOP / "build/bench")
    parser.add_argument("--streams", type=int, default=200)
    parser.add_argument("--mbit", type=float, default=4, help="of each stream")
    parser.add_argument("--seconds", type=int, default=20, help="of measuring")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--kinds", default="clear,aes")
    parser.add_argument("--programs", default="relay,weir,ffmpeg",
                        help="streamlink takes 50 MiB a stream")
    options = parser.parse_args()
    own_network()
    os.nice(19 - os.nice(0))  # as weir's threads, so that no side pushes the other away
    with Lab("/dev/shm") as lab:
        bench = Bench(lab, options)
        tables.print_head("media", "program", "CPU, % of a core", "ratio", "PSS, MiB")
        for kind in options.kinds.split(","):
            bench.report(kind)


if __name__ == "__main__":
    main()
