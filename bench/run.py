#!/usr/bin/env python3
"""One stream at full speed: weir beside a relay that does nothing else.

Serves a film from nginx on loopback, clear and enciphered, and lets each program
fetch and deliver it to a player that throws the bytes away; peers that are
installed write it to /dev/null. All take turns in every round; printed are
medians, spreads and ratios to the relay of the same round, as a Markdown table.
"""

import argparse
import os
import shutil
import socket
import statistics
import subprocess
import tempfile
import time
import urllib.parse
from pathlib import Path

from film import make_film
from live import procfs
from peers import PEERS

ORIGIN, RELAY, WEIR = 8090, 8091, 7744
HERE = Path(__file__).resolve().parent

NGINX = """daemon off; worker_processes 1; pid nginx.pid; error_log error.log; events {{}}
http {{ access_log off; sendfile on; keepalive_requests 1000000; client_body_temp_path t/b;
proxy_temp_path t/p; fastcgi_temp_path t/f; uwsgi_temp_path t/u; scgi_temp_path t/s;
server {{ listen 127.0.0.1:{port}; root {root}; }} }}
"""


def wait_for(port):
    for _ in range(200):
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            return
        except OSError:
            time.sleep(0.05)
    raise SystemExit(f"nothing listens on {port}")


def play(port, path):
    """Bytes, and seconds from the first to the last of them. MSG_TRUNC throws them away unread."""
    with socket.create_connection(("127.0.0.1", port)) as player:
        player.sendall(f"GET {path} HTTP/1.1\r\n\r\n".encode())
        scratch, total, first, last = bytearray(1 << 20), 0, None, 0.0
        while count := player.recv_into(scratch, len(scratch), socket.MSG_TRUNC):
            last = time.monotonic()
            first = first or last
            total += count
    return total, last - (first or last)


class Bench:
    def __init__(self, build, work, film, weir_buffer):
        self.build, self.work, self.buffer = build, work, weir_buffer
        self.segments, self.size = film

    def relay(self, kind):
        key = [str(self.work / "www/key")] if kind == "aes" else []
        command = [self.build / "bench/relay", str(RELAY), str(ORIGIN), f"/{kind}/",
                   str(self.segments), *key]
        # It accepts one player only, so its port must not be tried with another connection.
        process = subprocess.Popen(command)
        time.sleep(0.3)
        total, seconds = play(RELAY, "/")
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = status
        assert total == self.size, f"relay: {total} of {self.size} bytes"
        return total / seconds, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024

    def peer(self, command):
        """A run of one of the peers, for a kind of media: it has no player, only an end."""
        def run(kind):
            url = f"http://127.0.0.1:{ORIGIN}/{kind}-master.m3u8"
            start = time.monotonic()
            process = subprocess.Popen(command(url), stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            assert process.returncode == 0, f"{command(url)[0]}: status {process.returncode}"
            seconds = time.monotonic() - start
            return self.size / seconds, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024
        return run

    def weir(self, kind):
        command = [HERE.parent / "script/without-reboot", self.build / "weir", str(self.buffer)]
        with open(self.work / "weir.log", "wb") as log:
            process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=log)
        try:
            wait_for(WEIR)
            assert not procfs.can_reboot(process.pid), "weir could reboot"
            before = sum(procfs.cpu(process.pid))
            url = urllib.parse.quote(f"http://127.0.0.1:{ORIGIN}/{kind}-master.m3u8", safe="")
            total, seconds = play(WEIR, f"/stream?url={url}")
            used = sum(procfs.cpu(process.pid)) - before
            assert total - self.size in range(1, 1000), f"weir: {total} of {self.size} bytes"
            return self.size / seconds, used, procfs.peak(process.pid)
        finally:
            process.terminate()
            process.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, default=HERE.parent / "build/bench")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--segments", type=int, default=156, help="of five seconds and 5 MB")
    parser.add_argument("--no-peers", action="store_true")
    parser.add_argument("--buffer", type=int, default=2_000_000_000, help="bytes, of weir")
    options = parser.parse_args()
    work = Path(tempfile.mkdtemp())
    (work / "www").mkdir()
    (work / "t").mkdir()
    work.chmod(0o755)
    film = make_film(work / "www", options.segments, f"http://127.0.0.1:{ORIGIN}")
    (work / "nginx.conf").write_text(NGINX.format(port=ORIGIN, root=work / "www"))
    nginx = subprocess.Popen(["nginx", "-p", work, "-e", work / "error.log", "-c",
                              work / "nginx.conf"])
    try:
        wait_for(ORIGIN)
        bench = Bench(options.build, work, film, options.buffer)
        programs = {"relay": bench.relay, "weir": bench.weir}
        if not options.no_peers:
            programs |= {name: bench.peer(command) for name, command in PEERS.items()}
        report(bench, programs, options.rounds)
    finally:
        nginx.terminate()
        nginx.wait()
        shutil.rmtree(work)


def report(bench, programs, rounds):
    print("| media | program | MB/s | ratio | CPU s/GB | ratio | peak RSS MiB |")
    print("| --- | --- | --- | --- | --- | --- | --- |")
    for kind in ("clear", "aes"):
        results = {name: [] for name in programs}
        for _ in range(rounds):
            for name, run in programs.items():
                results[name].append(run(kind))
        for name, rows in results.items():
            speeds = [row[0] / 1e6 for row in rows]
            cpus = [row[1] / bench.size * 1e9 for row in rows]
            against = results["relay"]
            speed_ratio = statistics.median(r[0] / f[0] for r, f in zip(rows, against))
            cpu_ratio = statistics.median(r[1] / f[1] for r, f in zip(rows, against))
            print(f"| {kind} | {name} | {spread(speeds, 0)} | {speed_ratio:.2f} | "
                  f"{spread(cpus, 2)} | {cpu_ratio:.2f} | {max(row[2] for row in rows):.0f} |",
                  flush=True)


def spread(values, digits):
    return (f"{statistics.median(values):.{digits}f} "
            f"({min(values):.{digits}f} to {max(values):.{digits}f})")


if __name__ == "__main__":
    main()
