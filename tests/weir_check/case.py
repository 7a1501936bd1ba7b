"""A case of cases.txt, and an origin that serves it, faults included."""

import functools
import random
import re
import socketserver
import ssl
import threading
import time
import zlib
from dataclasses import dataclass, field
from pathlib import Path

from weirlab.video import KEY, encrypt

GRADES = ("note", "loss", "fatal", "unreachable")  # by exit status
SHORT = {
    r"@variant (\d+) (\S+)": r"#EXT-X-STREAM-INF:BANDWIDTH=\1\n$H\2",
    r"@media (\d+)": r"#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:\1",
    r"@end": "#EXT-X-ENDLIST",
    r"@(\w+)": r"#EXTINF:2,\n$H/\1.ts",
}
USUAL = {"/master": "#EXTM3U\n@variant 2000 /low\n", "/low": "@media 1\n@1\n@2\n@end\n"}


def mirrored(data: bytes) -> bytes:
    return bytes(int(f"{byte:08b}"[::-1], 2) for byte in data)


def media(number: int) -> bytes:
    """A program table, and packets without sense."""
    table = bytes([0, 0xB0, 0x0D, 0, number, 0xC1, 0, 0, 0, 1, 0xF0, 0])
    table += mirrored((zlib.crc32(mirrored(table)) ^ 0xFFFFFFFF).to_bytes(4, "little"))
    packets = [b"G\x40\x00\x10\0" + table.ljust(183, b"\xff")]
    packets += [b"G" + random.Random(number * 10 + i).randbytes(187) for i in range(3)]
    return b"".join(packets)


@functools.cache
def files() -> dict[str, bytes]:
    return {f"/{i}.ts": media(i) for i in (1, 2, 3, 4, 5, 9)} | {
        f"/{name}{i}.ts": encrypt(media(i), i * (name == "numbered"))
        for name in ("zero", "numbered") for i in (1, 2)} | {
        "/init.mp4": b"\0\0\0\x18ftypinit", "/1.m4s": b"\0\0\0\x18moof" + bytes(400), "/key": KEY}


def written_out(text: str, host: str) -> bytes:
    for short, long in SHORT.items():
        text = re.sub(f"^{short}", long, text, flags=re.M)
    text = re.sub(r"^(\d+)\*(.*\n)", lambda found: found[2] * int(found[1]), text, flags=re.M)
    text = re.sub(r"^(\d+)\^(.*)", lambda found: found[2] * int(found[1]), text, flags=re.M)
    return text.replace("$H", f"http://{host}").replace("\\r", "\r").encode()


@dataclass
class Case:
    name: str
    url: str = "/master"
    args: str = ""
    plays: str = "1 2"
    expected: list[str] = field(default_factory=list)
    texts: dict[str, dict[float, str]] = field(default_factory=dict)  # by path and time
    faults: dict[str, set[str]] = field(default_factory=dict)

    @property
    def whole(self) -> bytes:
        """What a player that knows all of HLS gets."""
        names = ["/init.mp4", "/1.m4s"] if self.plays == "mp4" else [
            f"/{one}.ts" for one in self.plays.split()]
        return b"".join(files()[name] for name in names)

    def file(self, path: str, seconds: float, host: str) -> bytes:
        """As it is that long after the first request; empty where there is none."""
        versions = self.texts.get(path, {0: ""})
        text = versions[max(at for at in versions if at <= seconds)] or USUAL.get(path, "")
        return written_out(text, host) or files().get(path, b"")


def read_case(text: str) -> Case:
    name, *lines = text.split("\n")
    case, path, after = Case(name), "", 0.0
    for line in lines:
        word, _, rest = line.partition(" ")
        if word == "---":
            path, *faults = rest.split()
            case.faults.setdefault(path, set()).update(faults)
            after = next((float(fault[6:]) for fault in faults if fault[:6] == "after="), 0)
            case.texts.setdefault(path, {})[after] = ""
        elif word in GRADES:
            case.expected.append(line)
        elif word in ("url", "args", "plays"):
            setattr(case, word, rest)
        elif path:
            case.texts[path][after] += line + "\n"
    return case


def cases() -> list[Case]:
    path = Path(__file__).parent / "cases.txt"
    texts = path.read_text(encoding="utf-8").rstrip().split("\n\n== ")
    return [read_case(text) for text in texts[1:]]


class Origin(socketserver.ThreadingTCPServer):
    """Serves a case at a port; with TLS where there is a certificate."""
    daemon_threads = allow_reuse_address = True
    request_queue_size = 128

    def __init__(self, case: Case, port: int, certificate: str = "") -> None:
        super().__init__(("0.0.0.0", port), Handler)
        self.case, self.port = case, port
        self.began: dict[str, float] = {}  # by the name of the host, so that two clients
        self.broken: set[tuple[str, str]] = set()  # don't see what the other one does
        if certificate:
            tls = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
            tls.load_cert_chain(certificate)
            self.socket = tls.wrap_socket(self.socket, server_side=True)
        threading.Thread(target=self.serve_forever, daemon=True).start()


class Handler(socketserver.StreamRequestHandler):
    disable_nagle_algorithm = True
    server: Origin

    def handle(self) -> None:
        try:
            while line := self.rfile.readline():
                head = {name: value.strip() for name, _, value in
                        (text.partition(": ") for text in iter(self.read_field, ""))}
                if not self.answer(line.split()[1].decode(), head):
                    return
        except OSError:
            pass  # the client has dropped the connection

    def read_field(self) -> str:
        return self.rfile.readline().decode().strip()

    def answer(self, path: str, head: dict[str, str]) -> bool:
        """Whether another request may follow."""
        case, host = self.server.case, head["Host"]
        path = f":{self.server.port}{path}" if f":{self.server.port}{path}" in case.faults else path
        began = self.server.began.setdefault(host, time.monotonic())
        data, faults = case.file(path, time.monotonic() - began, host), case.faults.get(path, set())
        time.sleep(7 * ("silent" in faults))
        breaks = faults & {"short", "stall"} and (host, path) not in self.server.broken
        start = 0 if "no-range" in faults else int(head.get("Range", "bytes=0-")[6:-1])
        self.wfile.write(self.head_of(data, faults, start) + (data or b"no")[start:200 if breaks else None])
        if not breaks:
            return not faults & {"http10", "no-length"}
        if "stall" in faults:
            self.server.broken.add((host, path))
            time.sleep(4)
        return False

    @staticmethod
    def head_of(data: bytes, faults: set[str], start: int) -> bytes:
        version = "HTTP/1.0" if "http10" in faults else "ICY" if "icy" in faults else "HTTP/1.1"
        status = next((fault[7:] for fault in faults if fault[:7] == "status="), "206" if start else
                      "200" if data else "404")
        lines = [f"{version} {status} x", "X: " + "x" * (300 << 10) * ("long-head" in faults)]
        if start:
            lines.append(f"Content-Range: bytes {start}-{len(data) - 1}/{len(data)}")
        if "no-length" not in faults:
            name = "content-length" if "lower" in faults else "Content-Length"
            lines.append(f"{name}: {len(data or b'no') - start}")
        return "\r\n".join([*lines, "\r\n"]).encode()
