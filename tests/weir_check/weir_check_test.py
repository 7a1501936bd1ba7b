#!/usr/bin/env python3
"""What weir-check says of each case of cases.txt, and whether the real weir agrees.

weir_check_test.py WEIR [NAME...]. Each case runs in a process and a network of its own, with an
origin and a weir, side by side with all others. Status 0 of the command is to mean that every
byte arrives, 1 that some do, 2 and 3 that none does.
"""

import contextlib
import io
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import zlib
from collections.abc import Callable, Sequence
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import TextIO

TOP = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP / "script"), str(TOP / "tools")]

from weir_check.main import main  # noqa: E402
from weirlab import client  # noqa: E402
from weirlab.lab import Lab  # noqa: E402
from weirlab.network import own_network  # noqa: E402
from weirlab.video import KEY, encrypt  # noqa: E402

# Two names of one origin: what weir-check asks for changes nothing for weir.
CHECKED, PLAYED = "127.0.0.2:8000", "127.0.0.1:8000"
DEADLINE = 17.5  # s; weir closes a stream that delivers nothing after 16
SHORT: dict[str, str | Callable[[re.Match[str]], str]] = {
    r"@variant (\d+) (\S+)": r"#EXT-X-STREAM-INF:BANDWIDTH=\1\n$H\2",
    r"@media (\d+)": r"#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:\1",
    r"@end": "#EXT-X-ENDLIST",
    r"@(\w+)": r"#EXTINF:2,\n$H/\1.ts",
    r"(\d+)\*(.*\n)": lambda found: found[2] * int(found[1]),
    r"(\d+)\^(.*)": lambda found: found[2] * int(found[1]),
}


def mirrored(data: bytes) -> bytes:
    return bytes(int(f"{byte:08b}"[::-1], 2) for byte in data)


def media(number: int) -> bytes:
    """A program table, and packets without sense."""
    table = bytes([0, 0xB0, 0x0D, 0, number, 0xC1, 0, 0, 0, 1, 0xF0, 0])
    table += mirrored((zlib.crc32(mirrored(table)) ^ 0xFFFFFFFF).to_bytes(4, "little"))
    packets = [b"G\x40\x00\x10\0" + table.ljust(183, b"\xff")]
    packets += [b"G" + random.Random(number * 10 + i).randbytes(187) for i in range(3)]
    return b"".join(packets)


FILES = {f"/{i}.ts": media(i) for i in (1, 2, 3, 4, 5, 9)} | {
    f"/{name}{i}.ts": encrypt(media(i), i * (name == "numbered"))
    for name in ("zero", "numbered") for i in (1, 2)} | {
    "/init.mp4": b"\0\0\0\x18ftypinit", "/1.m4s": b"\0\0\0\x18moof" + bytes(400), "/key": KEY}
USUAL = {"/master": "#EXTM3U\n@variant 2000 /low\n", "/low": "@media 1\n@1\n@2\n@end\n"}


class Case:
    def __init__(self, text: str) -> None:
        self.name, *lines = text.split("\n")
        self.expected: list[str] = []
        self.files: dict[str, dict[float, list[str]]] = {}
        self.faults: dict[str, list[str]] = {}
        self.url, self.args, self.plays = "/master", "", "1 2"
        body: list[str] = []
        for line in lines:
            word, _, rest = line.partition(" ")
            if word == "---":
                path, *faults = rest.split()
                after = sum(float(fault[6:]) for fault in faults if fault[:6] == "after=")
                self.faults.setdefault(path, []).extend(faults)
                body = self.files.setdefault(path, {}).setdefault(after, [])
            elif word in ("note", "loss", "fatal", "unreachable"):
                self.expected.append(line)
            elif word in ("url", "args", "plays"):
                setattr(self, word, rest)
            else:
                body.append(line + "\n")
        self.whole = (FILES["/init.mp4"] + FILES["/1.m4s"] if self.plays == "mp4" else
                      b"".join(FILES[f"/{one}.ts"] for one in self.plays.split()))

    def file(self, port: int, path: str, seconds: float, host: str) -> tuple[bytes | None, list[str]]:
        """Its bytes at that time, and what goes wrong with it."""
        path = f":{port}{path}" if f":{port}{path}" in self.files else path
        versions = self.files.get(path, {0: []})
        lines = list(versions[max(at for at in versions if at <= seconds)])
        while lines and lines[-1] == "\n":  # before the next case
            lines.pop()
        text = "".join(lines) or USUAL.get(path, "")
        for short, long in SHORT.items():
            text = re.sub(f"^{short}", long, text, flags=re.M)
        text = text.replace("$H", f"http://{host}").replace("\\r", "\r")
        return text.encode() or FILES.get(path), self.faults.get(path, [])


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server: "Origin"

    def log_message(self, *_: object) -> None:
        pass

    def do_GET(self) -> None:
        server, host = self.server, self.headers["Host"]
        began = server.began.setdefault(host, time.monotonic())
        data, faults = server.case.file(server.server_port, self.path, time.monotonic() - began,
                                        host)
        status, start = 200 if data else 404, int(self.headers["Range"][6:-1]
                                                  if "Range" in self.headers else 0)
        status = next((int(one[7:]) for one in faults if one[:7] == "status="), status)
        data, length = data or b"no", "content-length" if "lower" in faults else "Content-Length"
        self.protocol_version = ("HTTP/1.0" if "http10" in faults else
                                 "ICY" if "icy" in faults else "HTTP/1.1")
        if "silent" in faults:
            time.sleep(7)
        if start and "no-range" not in faults:
            self.send_response(206)
            self.send_header("Content-Range", f"bytes {start}-{len(data) - 1}/{len(data)}")
            data = data[start:]
        else:
            self.send_response(status)
        if "long-head" in faults:
            self.send_header("X", "x" * (300 << 10))
        if "no-length" not in faults:
            self.send_header(length, str(len(data)))
        self.end_headers()
        self.close_connection |= bool({"http10", "no-length", "short", "stall"} & set(faults))
        if not {"short", "stall"} & set(faults) or (host, self.path) in server.broken:
            self.wfile.write(data)
            return
        self.wfile.write(data[:200])
        if "stall" in faults:
            server.broken.add((host, self.path))
            time.sleep(4)


class Origin(ThreadingHTTPServer):
    def __init__(self, case: Case, port: int) -> None:
        super().__init__(("", port), Handler)
        self.case = case
        self.began: dict[str, float] = {}
        self.broken: set[tuple[str, str]] = set()
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def handle_error(self, *_: object) -> None:
        pass  # a client that closes


def within(seconds: float, path: str) -> bytes:
    """The body of weir's answer, as far as it comes in time."""
    data, end = b"", time.monotonic() + seconds
    with contextlib.suppress(OSError), client.connect(path) as weir:
        more = b"\n"
        while more:
            data += more
            weir.settimeout(max(0.01, end - time.monotonic()))
            more = weir.recv(1 << 20)
    return data.partition(b"\r\n\r\n")[2]


def played(case: Case, url: str) -> int:
    """The status that weir's own answer is worth."""
    got = within(DEADLINE, client.stream_path(url))
    size = 188 if case.whole[:1] == b"G" else len(case.whole)
    parts = [case.whole[i:i + size] for i in range(0, len(case.whole), size)]
    return 0 if got == case.whole else 1 if any(part in got for part in parts) else 2


def said(case: Case, url: str, args: Sequence[str]) -> tuple[int, str]:
    """The status of the command, and what it should not have said."""
    output = io.StringIO()
    with contextlib.redirect_stdout(output):
        status = main([url, *args])
    text = output.getvalue()
    lines = [line.split(": ")[0].replace(f"http://{CHECKED}", "")
             for line in text.splitlines()[:-1]]
    return min(status, 2), "" if lines == case.expected else f"it says\n{text}"


def check(case: Case, weir: Path) -> str:
    """Complaints about one case."""
    own_network()
    subprocess.run(["ip", "route", "add", "10.0.0.0/8", "dev", "lo"], check=True)
    for port in (8000, 8001):
        Origin(case, port)
    words, real = case.args.split(), list[int]()
    maps = [f"{name[2:]}={value}" for name, value in zip(words, words[1:])
            if name in ("--chunk", "--playlist")]
    urls = [case.url if "//" in case.url else f"http://{host}{case.url}"
            for host in (CHECKED, PLAYED)]
    with Lab() as lab:
        lab.weir(weir, 1_000_000)
        if "--weir" in words:  # has the comparison in it, with a weir that has no maps
            return said(case, urls[0], words)[1]
        client.get("/update-cache-map?" + "&".join(maps))
        player = threading.Thread(target=lambda: real.append(played(case, urls[1])))
        player.start()
        status, complaint = said(case, urls[0], words)
        player.join()
        return complaint + (f"\nand is worth {status}, but weir {real}" if [status] != real else "")


def in_child(case: Case, weir: Path) -> TextIO:
    reader, writer = os.pipe()
    if os.fork() == 0:
        try:
            complaint = check(case, weir)
        except BaseException:
            complaint = traceback.format_exc()
        os.write(writer, complaint.encode()[:60000])
        os._exit(0)
    os.close(writer)
    return os.fdopen(reader)


def installed() -> str:
    """Complaints about the command as it is installed."""
    with tempfile.TemporaryDirectory() as usr:
        shutil.copytree(TOP / "tools/weir_check", f"{usr}/share/weir/weir_check")
        command = shutil.copy(TOP / "tools/weir-check", usr)
        os.renames(command, f"{usr}/bin/weir-check")
        bare, dead = (subprocess.run([f"{usr}/bin/weir-check", *args], capture_output=True)
                      for args in (list[str](), ["--json", "http://127.0.0.1:9/"]))
    found = [bare.returncode, dead.returncode, json.loads(dead.stdout)["status"]]
    return "" if found == [64, 3, 3] else f"{found} {dead.stdout!r}"


def run(weir: Path, names: Sequence[str]) -> bool:
    os.nice(19)  # as weir's threads, which are to get their share
    texts = (Path(__file__).parent / "cases.txt").read_text().split("\n== ")[1:]
    cases = [case for case in map(Case, texts) if not names or case.name in names]
    failed, count = cases, len(cases)
    for _ in range(2):  # so many at once may starve each other
        children = [(case, in_child(case, weir)) for case in failed]
        complaints = [(case, text) for case, child in children if (text := child.read())]
        failed = [case for case, _ in complaints]
    for case, text in complaints:
        print(f"== {case.name}\n{text}\n")
    if text := installed():
        print(f"installed, it says {text}")
    print(f"{count - len(failed)} of {count} cases as expected")
    return bool(failed or text or not cases)


if __name__ == "__main__":
    sys.exit(run(Path(sys.argv[1]), sys.argv[2:]))
