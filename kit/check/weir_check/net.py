"""Fetches as weir does: HTTP/1.x, IPv4, its time-outs, its rings. One attempt, without retries."""

import socket
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass, field, replace

from .findings import Finding, Grade
from .waiting import Deadline, begin
from .weir import DOCUMENT_MAX, HEAD_MAX, NO_DATA, Media, Rings, parse_media, take_apart

RESOLVE, CONNECT, STATUS, READ = 6, 2, 6, 2  # s
SEGMENT_TIME, SEGMENT_MAX = 8, 64 << 20  # s and bytes of a segment that are looked at
MAPS = {"@": "chunk", "~": "playlist"}
FAILS_OVER = ("unreachable", "timeout", "not-http")  # make weir try another cache


@dataclass(frozen=True)
class Answer:
    """A server's response; if weir cannot use it, the code and text of the finding."""
    server: str = ""
    code: str = ""
    what: str = ""
    http11: bool = True
    status: int = 0
    fields: list[tuple[str, str]] = field(default_factory=list)
    body: bytes = b""
    seconds: float = 0  # that the body took

    def value(self, name: str) -> str | None:
        """The value of a header field, by its name in exact case, as weir compares it."""
        return next((value for key, value in self.fields if key == name), None)

    @property
    def length(self) -> int | None:
        """Of the whole body, as the server says."""
        text = self.value("Content-Length") or ""
        return int(text) if text.isascii() and text.isdecimal() and len(text) < 19 else None

    def finding(self, url: str, where: str, kind: str, grade: Grade = Grade.LOSS) -> Finding:
        """`where`: the place that names the URL."""
        parts = take_apart(url)
        subject = self.server if parts and parts[0] in MAPS else url if url != where else ""
        return Finding(self.code, where, f"{subject} {self.what}".strip(), grade, kind)


@dataclass(frozen=True)
class Bounds:
    """Of one response: seconds and bytes; what is cut off there counts as whole if `parts` do."""
    seconds: float = NO_DATA
    most: int = DOCUMENT_MAX + 1
    parts: bool = False


SEGMENT, HEAD = Bounds(SEGMENT_TIME, SEGMENT_MAX, True), Bounds(STATUS, 0, True)


class Slow(Exception):
    """A response has not ended in time."""


class Net:
    """Fetches URLs; placeholder hosts through the cache maps."""

    def __init__(self, maps: dict[str, str]) -> None:
        self.rings = {kind: Rings(text) for kind, text in maps.items()}
        self.told: set[str] = set()  # caches already reported as dead
        self.waiting = "", ""  # for what: URL and state

    def get(self, url: str, start: int = 0, bounds: Bounds = Bounds()) -> Answer:
        def tell(state: str) -> None:
            self.waiting = url, state

        parts = take_apart(url)
        if parts is None:
            return Answer("", "relative-url", f"{url!r} is not an absolute http URL")
        host, port, path = parts
        if port is not None or host not in MAPS:
            return exchange(f"{host}:{80 if port is None else port}", path, start, bounds, tell)
        rings = self.rings.get(MAPS[host], Rings(""))
        answer = Answer(f"http://{host}", "no-map", f"has no server in the {MAPS[host]} map")
        while server := rings.select(path):
            answer = exchange(server, path, start, bounds, tell)
            if answer.code not in FAILS_OVER:
                break
            rings.dead.add(server)
        return answer

    def compare(self, url: str, answer: Answer, bounds: Bounds = Bounds()) -> Iterator[Finding]:
        """Compares the other servers of the map with the one that answered."""
        host, port, path = take_apart(url) or ("", 0, "")
        rings = self.rings.get(MAPS.get(host, "")) if port is None else None
        servers = {one for ring in rings.rings for one in ring} if rings else set()
        for server in sorted(servers - self.told):
            self.waiting = f"http://{server}{path}", "comparing caches"
            other = exchange(server, path, 0, bounds) if server != answer.server else answer
            if other.code and not other.status:
                self.told.add(server)
                yield Finding("dead-cache", server, other.what, Grade.NOTE)
            elif other.code != answer.code or not alike(other.body, answer.body):
                yield Finding("caches-differ", url, f"{server} serves other content than {answer.server}",
                              Grade.NOTE)


def alike(one: bytes, other: bytes) -> bool:
    """Whether two responses have the same content; a live playlist may be one segment behind."""
    if one == other:
        return True
    first, second = (parse_media(body.decode("utf-8", "surrogateescape"), "")
                     for body in (one, other))
    return (is_live(first) and is_live(second)
            and abs(first.segments[-1].number - second.segments[-1].number) <= 1)


def is_live(media: Media) -> bool:
    return not media.ended and "#EXTINF" in media.tags and bool(media.segments)


def exchange(server: str, path: str, start: int = 0, bounds: Bounds = Bounds(),
             tell: Callable[[str], None] = lambda _: None) -> Answer:
    """Makes one GET request, from the byte `start` on; `tell` learns what it is waiting for."""
    host, _, port = server.partition(":")
    answer, reached = Answer(server), RESOLVE
    ranged = f"Range: bytes={start}-\r\n" if start else ""
    request = (f"GET {path} HTTP/1.1\r\nHost: {server.removesuffix(':80')}\r\n"
               f"Connection: close\r\n{ranged}\r\n")
    try:
        if not host or not (port.isascii() and port.isdecimal()):
            raise OSError("no host and port")
        tell(f"resolving the name {host}")
        address = begin(lambda: socket.gethostbyname(host))(RESOLVE), int(port[-9:]) & 0xFFFF
        tell("connecting")
        reached = CONNECT
        with socket.create_connection(address, CONNECT) as connection:
            connection.sendall(request.encode("utf-8", "surrogateescape"))
            return Reader(connection, bounds, tell).receive(answer)
    except TimeoutError:
        what = f"can't be reached within {CONNECT} s" if reached == CONNECT else (
            f"can't be found: resolving the name takes more than {RESOLVE} s")
        return replace(answer, code="timeout", what=what)
    except (OSError, ValueError) as error:
        reason = getattr(error, "strerror", None) or error
        return replace(answer, code="unreachable", what=f"can't be reached ({reason})")


class Reader:
    """Reads one response as weir does."""

    def __init__(self, connection: socket.socket, bounds: Bounds, tell: Callable[[str], None]) -> None:
        self.connection, self.bounds, self.tell = connection, bounds, tell
        self.deadline = Deadline(bounds.seconds)

    def read(self, size: int, patience: float) -> bytes:
        left = self.deadline.left()
        if not left:
            raise Slow
        self.connection.settimeout(min(patience, left))
        try:
            return self.connection.recv(size)
        except TimeoutError:
            raise (Slow if left < patience else TimeoutError) from None

    def receive(self, answer: Answer) -> Answer:
        data = b""
        self.tell("no answer so far")
        try:
            data = self.read(4096, STATUS)
            line, ended, fields = data.partition(b"\r\n")
            data = ended + fields
            words = line.decode("latin-1").split(" ")
            if not ended or words[0] not in ("HTTP/1.0", "HTTP/1.1"):
                return replace(answer, code="not-http", what=f"answers {line[:20]!r}")
            while b"\r\n\r\n" not in data:
                self.tell(f"{len(data)} bytes of its header block so far")
                more = self.read(4096, READ)
                if len(data) > HEAD_MAX:
                    return replace(answer, code="too-large",
                                   what="sends a header block of more than 256 KiB")
                if not more:
                    return replace(answer, code="silent", what="closes inside its header block")
                data += more
        except Slow:
            return replace(answer, code="slow", what=f"sends {len(data)} bytes of its header block in "
                           f"{self.bounds.seconds:g} s")
        except TimeoutError:
            return replace(answer, code="silent", what="does not answer")
        except ConnectionError:
            return replace(answer, code="reset", what="resets the connection")
        head, _, body = data.partition(b"\r\n\r\n")
        named = [text.partition(":") for text in head.decode("latin-1").split("\n") if ":" in text]
        status = words[1] if len(words) > 1 and words[1].isascii() else ""
        answer = replace(answer, http11=words[0] == "HTTP/1.1", body=body,
                         status=int(status[:3]) if status[:3].isdecimal() else 0,
                         fields=[(name, value.strip()) for name, _, value in named])
        return self.receive_body(answer) if answer.status // 100 == 2 else failed(answer, words)

    def receive_body(self, answer: Answer) -> Answer:
        if answer.http11 and answer.value("Content-Length") is None:
            other = next((name for name, _ in answer.fields if name.lower() == "content-length"), "")
            if other:
                return replace(answer, code="header-case", what=f"sends {other}, not Content-Length")
            return replace(answer, code="no-length", what="sends no Content-Length")
        body, began = bytearray(answer.body), time.monotonic()
        end = answer.length if answer.http11 else None
        code = what = ""
        try:
            while (end is None or len(body) < end) and len(body) < self.bounds.most:
                self.tell(f"{len(body)} bytes so far")
                if not (more := self.read(131071, READ)):
                    if end is not None:
                        code, what = "short", f"sends {len(body)} of {end} bytes"
                    break
                body += more
        except Slow:
            if not self.bounds.parts:
                code, what = "slow", f"sends {len(body)} bytes in {self.bounds.seconds:g} s"
        except TimeoutError:
            code, what = "stall", f"stalls for more than {READ} s at byte {len(body)}"
        except ConnectionError:  # counts as the end
            if end is not None:
                code, what = "short", f"sends {len(body)} of {end} bytes"
        return replace(answer, body=bytes(body), code=code, what=what, seconds=time.monotonic() - began)


def failed(answer: Answer, words: list[str]) -> Answer:
    """With the finding of a response that is no success."""
    what = f"answers {' '.join(words[1:])}"
    target = answer.value("Location") or answer.value("location")
    reason = answer.value("X-Weir-Adapter")
    if reason:
        code = "unlisted" if answer.status == 403 else "refused"
        return replace(answer, code=code, body=b"", what=f"{what}: {reason}")
    if answer.status // 100 == 3 and target:
        return replace(answer, code="redirect", body=b"", what=f"{what} to {target}")
    return replace(answer, code="status", body=b"", what=what)
