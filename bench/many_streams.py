"""Many live streams: one weir, compared with one relay and one of each peer per stream.

nginx on loopback serves a channel of MPEG-TS in segments of two seconds. Each program in turn plays
it several times: weir and the relays to players that compare every byte with the video, a peer to
/dev/null. A relay only passes on a segment every two seconds. Prints Markdown tables: CPU and memory
(PSS) of each program's processes and the ratio of its CPU to that of the first program; for weir also
the cost per stream, the response times of the statistics and what was left afterwards. The status is
0 only if every stream was whole and weir has given everything back.
"""

import argparse
import os
import selectors
import socket
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from itertools import accumulate
from pathlib import Path

import common
from poller import Poller
from weirlab import client, procfs
from weirlab.lab import TOP, Lab, Process, is_idle, wait_until
from weirlab.network import own_network
from weirlab.video import media_playlist, replace, segments_in

SECONDS = 2  # a segment
WINDOW = 10  # segments
ORIGIN, RELAYS = 9000, 9100  # the relays' first port; all below those of connections
BASE = f"http://127.0.0.1:{ORIGIN}"
BUFFER = 32 << 20  # bytes, weir's argument
OPEN_RATE = 100  # streams a second
RETURN_LIMIT = 90  # seconds
TELLING = 20 * 188  # bytes at the beginning of a segment that no other segment has

Figures = dict[str, float]


class Channel(threading.Thread):
    """Advances the window of the live playlist."""

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


class Video:
    """The bytes that players must get, from the beginning of some segment on."""

    def __init__(self, lab: Lab) -> None:
        segments = [path.read_bytes() for path in segments_in(lab.www / "clear")]
        self.bytes, self.starts = b"".join(segments), [0, *accumulate(map(len, segments))]

    def place(self, beginning: bytes) -> int:
        """The offset of the segment that begins so; 0, which does not match, if there is none."""
        return next((start for start in self.starts if self.bytes.startswith(beginning, start)), 0)


class Player:
    """One connection: how many bytes it received, and whether they were right."""

    def __init__(self, connection: socket.socket, video: Video) -> None:
        self.connection, self.video = connection, video
        self.place, self.beginning = -1, b""  # of the next byte; the bytes before that is known
        self.received, self.right = 0, True

    def take(self, piece: bytes) -> None:
        self.received += len(piece)
        if self.place < 0:
            self.beginning += piece
            head, end, media = self.beginning.partition(b"\r\n\r\n")
            piece = media if end and head.startswith(b"HTTP/") else self.beginning
            if len(piece) < TELLING:
                return
            self.place = self.video.place(piece[:TELLING])
        self.right = self.right and self.video.bytes.startswith(piece, self.place)
        self.place += len(piece)


class Players(threading.Thread):
    """All connections to one program or to its many processes."""

    def __init__(self, video: Video) -> None:
        super().__init__(daemon=True)
        self.selector, self.left, self.video = selectors.DefaultSelector(), False, video
        self.all: list[Player] = []
        self.complete = time.monotonic()
        self.before = 0  # bytes received when the last stream began
        self.start()

    def received(self) -> int:
        return sum(player.received for player in self.all)

    def add(self, connection: socket.socket) -> None:
        self.complete, self.before = time.monotonic(), self.received()
        self.all.append(Player(connection, self.video))
        self.selector.register(connection, selectors.EVENT_READ, self.all[-1])

    def run(self) -> None:
        while not self.left:
            for key, _ in self.selector.select(0.5):
                if piece := key.data.connection.recv(1 << 18):
                    key.data.take(piece)
                else:
                    self.selector.unregister(key.fileobj)

    def leave(self, mbit: float) -> tuple[int, Figures]:
        """The number of players that got every byte in time until now; and the bytes of all."""
        now, received = time.monotonic(), self.received()
        self.left = True
        self.join()
        due = (now - self.complete - SECONDS) * mbit * 1e6 / 8
        playing = [key.data for key in self.selector.get_map().values()]
        for player in self.all:
            player.connection.close()
        return (sum(player.right and player.received > 0.8 * due for player in playing),
                {"mbit": (received - self.before) * 8 / (now - self.complete) / 1e6,
                 "mb": received / 1e6})


class Bench:
    def __init__(self, lab: Lab, options: argparse.Namespace) -> None:
        self.lab, self.options = lab, options
        self.counts = [int(count) for count in options.streams.split(",")]
        opening = max(self.counts) / OPEN_RATE
        self.segments = len(common.make_noise(
            lab, BASE, WINDOW + int(opening + options.seconds) // SECONDS + 18, SECONDS,
            int(options.mbit * 1e6)))
        self.video = Video(lab)
        self.weirs: list[dict[str, object]] = []
        self.sound = True
        lab.origin(ORIGIN)

    def measure(self, kind: str, count: int, add: Callable[[int], object],
                processes: list[Process]) -> Figures:
        """`add` starts the stream of that number."""
        channel = Channel(self.lab, kind, self.segments)
        for number in range(count):
            add(number)
            time.sleep(max(1 / OPEN_RATE, 2 * SECONDS / count))
        time.sleep(2 * SECONDS)
        before, began = total_cpu(processes), time.monotonic()
        time.sleep(self.options.seconds)
        result = {"cpu": 100 * (total_cpu(processes) - before) / (time.monotonic() - began)}
        samples = [procfs.sample(process.pid) for process in processes]
        result |= {name: sum(sample[name] for sample in samples) for name in samples[0]}
        assert channel.is_alive(), "the video is too short"
        channel.done.set()
        channel.join()
        return result

    def measure_played(self, kind: str, count: int, connect: Callable[[int], socket.socket],
                       processes: list[Process]) -> Figures:
        players = Players(self.video)
        result = self.measure(kind, count, lambda number: players.add(connect(number)), processes)
        whole, got = players.leave(self.options.mbit)
        self.expect(whole, count)
        return result | got

    def expect(self, whole: int, count: int) -> None:
        if whole != count:
            self.sound = False
            print(f"only {whole} of {count} streams were whole", file=sys.stderr)

    def weir(self, kind: str, count: int) -> Figures:
        poller = Poller(0.2)
        process = self.lab.weir(self.options.build / "weir", BUFFER)
        idle = procfs.sample(process.pid)
        silent = [socket.create_connection(("127.0.0.1", client.WEIR))
                  for _ in range(self.options.silent)]
        wait_until("the silent connections", lambda: procfs.threads(process.pid) > len(silent))
        quiet, began = procfs.sample(process.pid), time.monotonic()
        poller.start()
        path = client.stream_path(f"{BASE}/{kind}/master.m3u8", -3)
        cost = self.measure_played(kind, count, lambda _: client.connect(path), [process])
        stream_seconds = (time.monotonic() - began) * count
        polls = poller.stop()
        for connection in silent:
            connection.close()
        wait_until("weir to be idle", lambda: is_idle(process), RETURN_LIMIT)
        after = procfs.sample(process.pid)
        self.sound &= polls["failures"] == 0
        process.terminate()
        _, process.returncode, usage = os.wait4(process.pid, 0)
        self.weirs.append({
            "streams": count, "media": kind, "Mbit/s": f"{cost['mbit']:.0f}", "MB": f"{cost['mb']:,.0f}",
            "CPU %": f"{cost['cpu']:.1f}",
            "PSS a stream, MiB": f"{(cost['pss'] - quiet['pss']) / count:.2f}",
            "threads, descriptors": f"{cost['threads']:.0f}, {cost['descriptors']:.0f}",
            "switches/s a stream": f"{(usage.ru_nvcsw + usage.ru_nivcsw) / stream_seconds:.0f}",
            "longest answer, ms": f"{1000 * polls['longest']:.1f}",
            "failed of": f"{polls['failures']} of {polls['polls']}",
            "PSS before, after": f"{idle['pss']:.1f}, {after['pss']:.1f}"})
        return cost

    def relay(self, kind: str, count: int) -> Figures:
        processes = list[Process]()
        key = self.lab.www / "key" if kind == "aes" else ""

        def connect(number: int) -> socket.socket:
            processes.append(self.lab.start([self.options.build / "bench/relay", RELAYS + number,
                                             ORIGIN, f"/{kind}/", 1000, key, SECONDS]))
            return common.connect_soon(RELAYS + number)

        result = self.measure_played(kind, count, connect, processes)
        self.end(processes)
        return result

    def peer(self, command: str, kind: str, count: int) -> Figures:
        words, processes = command.format(f"{BASE}/{kind}/master.m3u8").split(), list[Process]()
        result = self.measure(kind, count, lambda _: processes.append(self.lab.start(
            words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)), processes)
        self.expect(sum(process.poll() is None for process in processes), count)
        self.end(processes)
        return result

    def end(self, processes: list[Process]) -> None:
        for process in processes:
            process.terminate()
        for process in processes:
            self.lab.end(process)

    def report(self, kind: str, count: int) -> None:
        results = common.alternate({"relay": self.relay, "weir": self.weir}, self.peer,
                                   self.options.programs, self.options.rounds, kind, count)
        floor = [run["cpu"] for run in next(iter(results.values()))]
        for name, rows in results.items():
            cpus = [run["cpu"] for run in rows]
            common.print_row(kind, f"{count} x {name}", common.spread(cpus, 1),
                             common.ratio(cpus, floor), f"{max(run['pss'] for run in rows):.0f}")


def total_cpu(processes: list[Process]) -> float:
    """Seconds."""
    return sum(procfs.cpu(process.pid) for process in processes)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, default=TOP / "build/bench")
    parser.add_argument("--streams", default="200", help="or several numbers: 10,50,100")
    parser.add_argument("--silent", type=int, default=0, help="connections that never send anything")
    parser.add_argument("--mbit", type=float, default=4, help="of each stream")
    parser.add_argument("--seconds", type=int, default=20, help="of measuring")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--kinds", default="clear,aes")
    parser.add_argument("--programs", default="relay,weir,ffmpeg",
                        help="streamlink takes 50 MiB a stream")
    options = parser.parse_args()
    own_network()
    os.nice(19 - os.nice(0))  # as weir's threads, so that neither side starves the other
    with Lab("/dev/shm") as lab:
        bench = Bench(lab, options)
        common.print_head("media", "program", "CPU, % of a core", "ratio", "PSS, MiB")
        for kind in options.kinds.split(","):
            for count in bench.counts:
                bench.report(kind, count)
        if bench.weirs:
            print()
            common.print_head(*bench.weirs[0])
        for row in bench.weirs:
            common.print_row(*row.values())
    sys.exit(not bench.sound)


if __name__ == "__main__":
    main()
