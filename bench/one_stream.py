#!/usr/bin/env python3
"""One stream of weir: when its first byte comes, and what memory a slow player costs.

Two Markdown tables: the time to the first byte of media over the delay of an origin
that answers each request late, beside the time that the fixed waits give; and the
highest RSS while a player takes far less than the origin offers, beside what the
buffer, one segment and two blocks come to, and the RSS after it has left.
"""

import argparse
import os
import socket
import statistics
import threading
import time
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

from film import encipher, write_playlists
from live import procfs
from live.rig import ORIGIN, TOP, WEIR, Rig

LATE = 9001
MIB = 1 << 20
BLOCK = 512 << 10
HEAD_END = b"\r\n\r\n"


def make_film(root, segments, size):
    """Segments of random bytes: nobody looks into them here."""
    for kind in ("clear", "aes"):
        (root / kind).mkdir()
        for port, prefix in ((ORIGIN, ""), (LATE, "late-")):
            write_playlists(root, kind, segments, f"http://127.0.0.1:{port}", prefix)
    clear = [root / f"clear/{number}.ts" for number in range(1, segments + 1)]
    for path in clear:
        path.write_bytes(os.urandom(size))
    encipher(root, clear)


class Late(ThreadingHTTPServer):
    """Answers each request after `delay` seconds."""
    daemon_threads, delay = True, 0.0

    def handle_error(self, *_):
        """weir closes in the middle of a segment when its player has left."""


def late_origin(root):
    class Handler(BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_GET(self):
            body = (root / self.path[1:]).read_bytes()
            time.sleep(self.server.delay)
            self.send_response(200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):
            pass

    server = Late(("127.0.0.1", LATE), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def ask(port, master):
    url = urllib.parse.quote(f"http://127.0.0.1:{port}/{master}", safe="")
    player = socket.create_connection(("127.0.0.1", WEIR))
    player.sendall(f"GET /stream?url={url} HTTP/1.1\r\n\r\n".encode())
    return player


def first_byte(kind):
    start = time.monotonic()
    with ask(LATE, f"late-{kind}-master.m3u8") as player:
        got = b""
        while not got.partition(HEAD_END)[2]:
            got += player.recv(65536)
        return time.monotonic() - start


def fixed_waits(delay, answers):
    """The master playlist; then the buffer is looked at after 100, 150, 250, 300 ms and so on."""
    due, look, wait = answers * delay, 0.1, 0.05
    while look < due:
        look, wait = look + wait, 0.15 - wait
    return delay + look


def first_bytes(origin, delays, rounds):
    print("| media | answers after, ms | first byte, ms | fixed waits, ms | ratio |")
    print("| --- | --- | --- | --- | --- |")
    for kind, answers in (("clear", 2), ("aes", 3)):  # playlist, key, segment
        for origin.delay in delays:
            times = [1000 * first_byte(kind) for _ in range(rounds)]
            fixed, middle = 1000 * fixed_waits(origin.delay, answers), statistics.median(times)
            print(f"| {kind} | {1000 * origin.delay:.0f} | {middle:.1f} ({min(times):.1f} to "
                  f"{max(times):.1f}) | {fixed:.0f} | {middle / fixed:.2f} |", flush=True)


def peak_and_rest(rig, kind, options):
    """MiB of RSS while idle before, at the highest, and after the player has left."""
    weir = rig.weir(options.buffer)
    idle = procfs.sample(weir.pid)["rss"]
    with ask(ORIGIN, f"{kind}-master.m3u8") as player:
        end = time.monotonic() + options.seconds
        while time.monotonic() < end:
            player.recv(options.pace // 20)
            time.sleep(0.05)
    peak = procfs.peak(weir.pid)
    while procfs.sample(weir.pid)["threads"] > 1:
        time.sleep(0.1)
    after = procfs.sample(weir.pid)["rss"]
    rig.end(weir)
    return idle, peak, after


def slow_player(rig, options):
    bound = (options.buffer + options.segment + 2 * BLOCK) / MIB
    print("\n| media | idle RSS, MiB | highest RSS | above idle | buffer, segment, two blocks | "
          "after the stream |\n| --- | --- | --- | --- | --- | --- |")
    for kind in ("clear", "aes"):
        idle, peak, after = peak_and_rest(rig, kind, options)
        print(f"| {kind} | {idle:.1f} | {peak:.1f} | {peak - idle:.1f} | {bound:.1f} | "
              f"{after:.1f} |", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--binary", type=Path, default=TOP / "build/bench/weir")
    parser.add_argument("--rounds", type=int, default=15, help="of each first byte")
    parser.add_argument("--delays", default="0,20,60,120", help="ms")
    parser.add_argument("--buffer", type=int, default=32 * MIB, help="bytes, weir's argument")
    parser.add_argument("--segment", type=int, default=5_000_000, help="bytes")
    parser.add_argument("--pace", type=int, default=1_000_000, help="bytes/s of the slow player")
    parser.add_argument("--seconds", type=float, default=20, help="with the slow player")
    options = parser.parse_args()
    with Rig(options.binary) as rig:
        make_film(rig.root, 30, options.segment)
        rig.origin()
        weir = rig.weir(options.buffer)
        first_bytes(late_origin(rig.root), [int(x) / 1000 for x in options.delays.split(",")],
                    options.rounds)
        rig.end(weir)
        slow_player(rig, options)


if __name__ == "__main__":
    main()
