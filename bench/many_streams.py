#!/usr/bin/env python3
"""Many live streams: one weir beside as many relays, and as many of each peer.

A channel of MPEG-TS in segments of two seconds is served from nginx on loopback.
Each program in turn plays it as often as asked: weir and the relays to a player
that throws the bytes away, a peer to /dev/null. Printed are the CPU and the memory
(PSS) of all of its processes, and the CPU in ratio to that of the relays, which do
nothing else than pass on a segment every two seconds, as a Markdown table.
"""

import argparse
import os
import selectors
import socket
import statistics
import threading
import time
import urllib.parse
from pathlib import Path

from film import make_film
from live import procfs
from live.channel import replace
from live.rig import ORIGIN, TOP, WEIR, Rig
from peers import PEERS
from run import spread

SECONDS = 2  # a segment
WINDOW = 10  # segments
RELAYS = 9100  # the first port, below those of connections
BASE = f"http://127.0.0.1:{ORIGIN}"


class Channel(threading.Thread):
    """Moves the window of the live playlist on."""

    def __init__(self, root, kind):
        super().__init__(daemon=True)
        self.path = root / f"{kind}.m3u8"
        self.head, *entries = self.path.read_text().split("#EXTINF")
        self.entries = [f"#EXTINF{entry}".replace("#EXT-X-ENDLIST\n", "") for entry in entries]
        self.done = threading.Event()
        self.publish(0)

    def publish(self, first):
        head = self.head.replace("SEQUENCE:1\n", f"SEQUENCE:{first + 1}\n")
        replace(self.path, (head + "".join(self.entries[first:first + WINDOW])).encode())

    def run(self):
        began, first = time.monotonic(), 0
        while (first + WINDOW < len(self.entries)
               and not self.done.wait(began + (first + 1) * SECONDS - time.monotonic())):
            first += 1
            self.publish(first)


class Players(threading.Thread):
    """Connections whose bytes are thrown away unread."""

    def __init__(self):
        super().__init__(daemon=True)
        self.selector, self.received, self.left = selectors.DefaultSelector(), 0, False

    def join_in(self, port, path):
        player = socket.create_connection(("127.0.0.1", port))
        player.sendall(f"GET {path} HTTP/1.1\r\n\r\n".encode())
        self.selector.register(player, selectors.EVENT_READ)

    def run(self):
        scratch = bytearray(1 << 18)
        while not self.left:
            for key, _ in self.selector.select(0.5):
                count = key.fileobj.recv_into(scratch, len(scratch), socket.MSG_TRUNC)
                if count == 0:
                    self.selector.unregister(key.fileobj)
                self.received += count

    def leave(self):
        self.left = True
        self.join()
        for key in list(self.selector.get_map().values()):
            key.fileobj.close()


class Bench:
    def __init__(self, rig, options):
        self.rig, self.options = rig, options

    def measure(self, kind, join, processes):
        """CPU, % of a core, and PSS, MiB. `join` adds the stream of that number."""
        channel = Channel(self.rig.root, kind)
        channel.start()
        for number in range(self.options.streams):
            join(number)
            time.sleep(2 * SECONDS / self.options.streams)
        time.sleep(2 * SECONDS)
        began, before = time.monotonic(), cpu(processes)
        time.sleep(self.options.seconds)
        used = 100 * (cpu(processes) - before) / (time.monotonic() - began)
        memory = sum(procfs.sample(process.pid)["pss"] for process in processes)
        assert channel.is_alive(), "the film is too short"
        channel.done.set()
        channel.join()
        return used, memory

    def measure_played(self, kind, join, processes):
        """The same with players; `join` gets them, too."""
        players = Players()
        players.start()
        began = time.monotonic()
        result = self.measure(kind, lambda number: join(players, number), processes)
        rate = 8 * players.received / (time.monotonic() - began) / self.options.streams
        playing = len(players.selector.get_map())
        players.leave()
        self.end(processes, playing)
        assert rate > 0.8 * self.options.mbit * 1e6, f"only {rate:.0f} bit/s a stream"
        return result

    def end(self, processes, playing):
        for process in processes:
            process.terminate()
        for process in processes:
            self.rig.end(process)
        assert playing == self.options.streams, f"{playing} streams are left"

    def weir(self, kind):
        url = urllib.parse.quote(f"{BASE}/{kind}-master.m3u8", safe="")
        return self.measure_played(
            kind, lambda players, _: players.join_in(WEIR, f"/stream?url={url}&startFrom=-3"),
            [self.rig.weir(32 << 20)])

    def relay(self, kind):
        processes = []
        key = self.rig.root / "key" if kind == "aes" else ""

        def join(players, number):
            port = RELAYS + number
            processes.append(self.rig.start([self.options.binary.parent / "bench/relay", port,
                                             ORIGIN, f"/{kind}/", 1000, key, SECONDS]))
            # It accepts one player only, so the port can't be tried before.
            for _ in range(100):
                try:
                    return players.join_in(port, "/")
                except ConnectionRefusedError:
                    time.sleep(0.002)
            raise SystemExit("a relay does not listen")

        return self.measure_played(kind, join, processes)

    def peer(self, command):
        def run(kind):
            processes = []
            with open("/dev/null", "r+b") as nothing:
                result = self.measure(
                    kind, lambda _: processes.append(
                        self.rig.start(command(f"{BASE}/{kind}-master.m3u8"), stdin=nothing,
                                       stdout=nothing, stderr=nothing)), processes)
            self.end(processes, sum(process.poll() is None for process in processes))
            return result
        return run


def cpu(processes):
    return sum(sum(procfs.cpu(process.pid)) for process in processes)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--binary", type=Path, default=TOP / "build/bench/weir")
    parser.add_argument("--streams", type=int, default=200)
    parser.add_argument("--mbit", type=float, default=4, help="of each stream")
    parser.add_argument("--seconds", type=int, default=20, help="of measuring")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--kinds", default="clear,aes")
    parser.add_argument("--programs", default="relay,weir,ffmpeg",
                        help="streamlink takes 50 MiB a stream")
    options = parser.parse_args()
    os.nice(19 - os.nice(0))  # as weir's threads, so that no side pushes the other away
    with Rig(options.binary) as rig:
        segments = WINDOW + 8 + options.seconds // SECONDS + 10
        make_film(rig.root, segments, BASE, SECONDS, int(options.mbit * 1e6))
        rig.origin()
        bench = Bench(rig, options)
        every = {"relay": bench.relay, "weir": bench.weir}
        every |= {name: bench.peer(command) for name, command in PEERS.items()}
        programs = {name: every[name] for name in options.programs.split(",") if name in every}
        print("| media | program | CPU, % of a core | ratio | PSS, MiB |")
        print("| --- | --- | --- | --- | --- |")
        for kind in options.kinds.split(","):
            results = play_in_turns(rig.root / f"{kind}.m3u8", kind, programs, options.rounds)
            report(kind, results, options.streams)


def play_in_turns(playlist, kind, programs, rounds):
    whole = playlist.read_bytes()
    results = {name: [] for name in programs}
    for _ in range(rounds):
        for name, run in programs.items():
            playlist.write_bytes(whole)
            results[name].append(run(kind))
    return results


def report(kind, results, streams):
    floor = next(iter(results.values()))
    for name, rows in results.items():
        ratio = statistics.median(row[0] / first[0] for row, first in zip(rows, floor))
        print(f"| {kind} | {streams} x {name} | {spread([row[0] for row in rows], 1)} "
              f"| {ratio:.2f} | {max(row[1] for row in rows):.0f} |", flush=True)


if __name__ == "__main__":
    main()
