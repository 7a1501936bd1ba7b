"""An origin within this process that can misbehave, which nginx cannot."""

import contextlib
import gzip
import socketserver
import ssl
import subprocess
import threading
import time
from collections.abc import Callable, Collection
from pathlib import Path

BROKEN_AT = 200  # bytes
STALL, SILENCE = 4, 7  # seconds: longer than weir waits in a body (2) and before a head (6)
TRICKLE = 0.5  # seconds between two bytes


def make_certificate(pem: Path, name: str) -> Path:
    """With its key; any user may read it."""
    subprocess.run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=origin "
                   f"-addext subjectAltName={name} -keyout {pem} -out {pem}".split(), check=True,
                   stderr=subprocess.DEVNULL)
    pem.chmod(0o644)
    return pem


class Origin(socketserver.ThreadingTCPServer):
    """Answers requests, also for ranges, with the bytes that `read` returns, or with 404 if none.

    It listens on all addresses or on one, uses TLS if it has a certificate, waits `delay` seconds
    before each response, and runs in daemon threads. `faults` returns the faults of a path: short,
    stall (once), silent, trickle=BYTE (from there on); status=NUMBER, http10, icy, long-head, lower
    (field names), no-length, chunked, gzip, NAME:VALUE (a field); no-range.
    """
    daemon_threads = allow_reuse_address = True
    request_queue_size = 128

    def __init__(self, port: int, read: Callable[[str], bytes],
                 faults: Callable[[str], Collection[str]] = lambda _: (),
                 address: str = "0.0.0.0", certificate: str = "") -> None:
        super().__init__((address, port), Handler)
        self.read, self.faults, self.delay = read, faults, 0.0
        self.stalled: set[str] = set()
        if certificate:
            tls = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
            tls.load_cert_chain(certificate)
            self.socket = tls.wrap_socket(self.socket, server_side=True)
        threading.Thread(target=self.serve_forever, daemon=True).start()


class Handler(socketserver.StreamRequestHandler):
    disable_nagle_algorithm = True
    server: Origin

    def handle(self) -> None:
        with contextlib.suppress(OSError):  # the client has dropped the connection
            while line := self.rfile.readline():
                fields = dict(text.partition(": ")[::2] for text in iter(self.read_field, ""))
                method, path, _ = line.decode().split()
                if not self.answer(method, path, fields.get("Range", "bytes=0-")[6:]):
                    return

    def read_field(self) -> str:
        return self.rfile.readline().decode().strip()

    def answer(self, method: str, path: str, wanted: str) -> bool:
        """Whether another request may follow."""
        faults, data = self.server.faults(path), self.server.read(path)
        data = gzip.compress(data) if "gzip" in faults else data
        time.sleep(SILENCE if "silent" in faults else self.server.delay)
        first, _, last = wanted.partition("-")
        start = int(first) if first else max(0, len(data) - int(last))
        if "no-range" in faults or "chunked" in faults:
            start = 0
        stalls = "stall" in faults and path not in self.server.stalled
        body = (data or b"no")[start:]
        head = head_of(data, start, faults)
        if "chunked" in faults:
            body = b"%x\r\n%s\r\n0\r\n\r\n" % (len(body), body)
        if stalls or "short" in faults:
            body = body[:BROKEN_AT]
        self.send(head if method == "HEAD" else head + body, faults)
        if stalls:
            self.server.stalled.add(path)
            time.sleep(STALL)
        return not stalls and not {"short", "http10", "no-length"}.intersection(faults)

    def send(self, data: bytes, faults: Collection[str]) -> None:
        start = next((int(fault[8:]) for fault in faults if fault.startswith("trickle=")), len(data))
        self.wfile.write(data[:start])
        for byte in data[start:]:
            time.sleep(TRICKLE)
            self.wfile.write(bytes([byte]))


def head_of(data: bytes, start: int, faults: Collection[str]) -> bytes:
    version = "HTTP/1.0" if "http10" in faults else "ICY" if "icy" in faults else "HTTP/1.1"
    status = next((fault[7:] for fault in faults if fault.startswith("status=")),
                  "206" if start else "200" if data else "404")
    lines = [f"{version} {status} x"]
    if "gzip" in faults:
        lines.append("Content-Encoding: gzip")
    if "long-head" in faults:
        lines.append("X: " + "x" * (300 << 10))
    lines += [fault for fault in faults if ":" in fault]
    if start:
        lines.append(f"Content-Range: bytes {start}-{len(data) - 1}/{len(data)}")
    if "chunked" in faults:
        lines.append("Transfer-Encoding: chunked")
    elif "no-length" not in faults:
        name = "content-length" if "lower" in faults else "Content-Length"
        lines.append(f"{name}: {len(data or b'no') - start}")
    return "\r\n".join([*lines, "\r\n"]).encode("latin-1")
