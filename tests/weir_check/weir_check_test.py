#!/usr/bin/env python3
"""What weir-check says of each case of cases.txt, and whether the real weir agrees.

weir_check_test.py WEIR [NAME...]. Each case runs in a process and a network of its own, with an
origin and a weir, side by side with all others. Status 0 of the command is to mean that every
byte arrives, 1 that some do, 2 and 3 that none does.
"""

import contextlib
import ctypes
import io
import json
import os
import random
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import zlib
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import quote

TOP = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tools"))

from weir_check.main import main  # noqa: E402

# Two names of one origin: what weir-check asks for changes nothing for weir.
CHECKED, PLAYED = "127.0.0.2:8000", "127.0.0.1:8000"
DEADLINE = 17.5  # s; weir closes a stream that delivers nothing after 16
KEY = bytes(range(16))
SHORT = {
    r"@variant (\d+) (\S+)": r"#EXT-X-STREAM-INF:BANDWIDTH=\1\n$H\2",
    r"@media (\d+)": r"#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:\1",
    r"@end": "#EXT-X-ENDLIST",
    r"@(\w+)": r"#EXTINF:2,\n$H/\1.ts",
    r"(\d+)\*(.*\n)": lambda found: found[2] * int(found[1]),
    r"(\d+)\^(.*)": lambda found: found[2] * int(found[1]),
}


def mirrored(data):
    return bytes(int(f"{byte:08b}"[::-1], 2) for byte in data)


def media(number):
    """A program table, and packets without sense."""
    table = bytes([0, 0xB0, 0x0D, 0, number, 0xC1, 0, 0, 0, 1, 0xF0, 0])
    table += mirrored((zlib.crc32(mirrored(table)) ^ 0xFFFFFFFF).to_bytes(4, "little"))
    packets = [b"G\x40\x00\x10\0" + table.ljust(183, b"\xff")]
    packets += [b"G" + random.Random(number * 10 + i).randbytes(187) for i in range(3)]
    return b"".join(packets)


def enciphered(data, vector):
    return subprocess.run(["openssl", "enc", "-aes-128-cbc", "-K", KEY.hex(), "-iv",
                           f"{vector:032x}"], input=data, capture_output=True, check=True).stdout


FILES = {f"/{i}.ts": media(i) for i in (1, 2, 3, 4, 5, 9)} | {
    f"/{name}{i}.ts": enciphered(media(i), i * (name == "numbered"))
    for name in ("zero", "numbered") for i in (1, 2)} | {
    "/init.mp4": b"\0\0\0\x18ftypinit", "/1.m4s": b"\0\0\0\x18moof" + bytes(400), "/key": KEY}
USUAL = {"/master": "#EXTM3U\n@variant 2000 /low\n", "/low": "@media 1\n@1\n@2\n@end\n"}


class Case:
    def __init__(self, lines):
        self.name, *lines = lines.split("\n")
        self.expected, self.files, self.faults = [], {}, {}
        self.url, self.args, self.plays, body = "/master", "", "1 2", []
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

    def file(self, port, path, seconds, host):
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

    def log_message(self, *_):
        pass

    def do_GET(self):
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
            self.send_header(length, len(data))
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
    def __init__(self, case, port):
        super().__init__(("", port), Handler)
        self.case, self.began, self.broken = case, {}, set()
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def handle_error(self, *_):
        pass  # a client that closes


def ask(path, seconds=5):
    """The body of weir's answer, as far as it comes in time."""
    data, end = b"", time.monotonic() + seconds
    with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", 7744)) as weir:
        weir.sendall(f"GET {path} HTTP/1.1\r\n\r\n".encode())
        more = b"\n"
        while more:
            data += more
            weir.settimeout(max(0.01, end - time.monotonic()))
            more = weir.recv(1 << 20)
    return data.partition(b"\r\n\r\n")[2]


def played(case, url):
    """The status that weir's own answer is worth."""
    got = ask(f"/stream.ts?url={quote(url, safe='')}", DEADLINE)
    size = 188 if case.whole[:1] == b"G" else len(case.whole)
    parts = [case.whole[i:i + size] for i in range(0, len(case.whole), size)]
    return 0 if got == case.whole else 1 if any(part in got for part in parts) else 2


def said(case, url, args):
    """The status of the command, and what it should not have said."""
    output = io.StringIO()
    with contextlib.redirect_stdout(output):
        status = main([url, *args])
    text = output.getvalue()
    lines = [line.split(": ")[0].replace(f"http://{CHECKED}", "")
             for line in text.splitlines()[:-1]]
    return min(status, 2), "" if lines == case.expected else f"it says\n{text}"


def check(case, weir):
    """Complaints about one case."""
    ctypes.CDLL(None).unshare(0x40000000)  # a network of its own
    subprocess.run("ip link set lo up; ip route add 10.0.0.0/8 dev lo", shell=True, check=True)
    for port in (8000, 8001):
        Origin(case, port)
    program = subprocess.Popen([TOP / "script/without-reboot", weir, "1000000"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        while not ask("/stats.json"):
            time.sleep(0.05)
        words, real = case.args.split(), []
        maps = [f"{name[2:]}={value}" for name, value in zip(words, words[1:])
                if name in ("--chunk", "--playlist")]
        urls = [case.url if "//" in case.url else f"http://{host}{case.url}"
                for host in (CHECKED, PLAYED)]
        if "--weir" in words:  # has the comparison in it, with a weir that has no maps
            return said(case, urls[0], words)[1]
        ask("/update-cache-map?" + "&".join(maps))
        player = threading.Thread(target=lambda: real.append(played(case, urls[1])))
        player.start()
        status, complaint = said(case, urls[0], words)
        player.join()
        return complaint + (f"\nand is worth {status}, but weir {real}" if [status] != real else "")
    finally:
        program.kill()


def in_child(case, weir):
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


def installed():
    """Complaints about the command as it is installed."""
    with tempfile.TemporaryDirectory() as usr:
        shutil.copytree(TOP / "tools/weir_check", f"{usr}/share/weir/weir_check")
        command = shutil.copy(TOP / "tools/weir-check", usr)
        os.renames(command, f"{usr}/bin/weir-check")
        status, text = zip(*((done.returncode, done.stdout) for done in (
            subprocess.run([f"{usr}/bin/weir-check", *args], capture_output=True)
            for args in ([], ["--json", "http://127.0.0.1:9/"]))))
        return (status, json.loads(text[1])["status"]) != ((64, 3), 3) and f"{status} {text}"


def run(weir, names):
    os.nice(19)  # as weir's threads, which are to get their share
    texts = (Path(__file__).parent / "cases.txt").read_text().split("\n== ")[1:]
    cases = [case for case in map(Case, texts) if not names or case.name in names]
    failed, count = cases, len(cases)
    for _ in range(2):  # so many at once may starve each other
        complaints = [(case, in_child(case, weir)) for case in failed]
        complaints = [(case, text) for case, child in complaints if (text := child.read())]
        failed = [case for case, _ in complaints]
    for case, text in complaints:
        print(f"== {case.name}\n{text}\n")
    if text := installed():
        print(f"installed, it says {text}")
    print(f"{count - len(failed)} of {count} cases as expected")
    return bool(failed or text or not cases)


if __name__ == "__main__":
    if os.getuid() != 0:
        os.execvp("unshare", ["unshare", "-r", sys.executable, *sys.argv])
    sys.exit(run(sys.argv[1], sys.argv[2:]))
