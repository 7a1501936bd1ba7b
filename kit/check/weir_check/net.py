"""Fetches as weir does: HTTP/1.x, IPv4, its time-outs, its rings. One attempt, without retries."""

import socket
import time
from collections.abc import Iterator
from dataclasses import dataclass, field, replace

from .findings import Finding, Grade
from .weir import HEAD_MAX, Media, Rings, parse_media, take_apart

CONNECT, STATUS, READ = 2, 6, 2  # s
ENDLESS, BODY_MAX = 60, 256 << 20  # s and bytes; a longer response is not a segment
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

    def value(self, name: str) -> str | None:
        """The value of a header field, by its name in exact case, as weir compares it."""
        return next((value for key, value in self.fields if key == name), None)

    def finding(self, url: str, where: str, kind: str, grade: Grade = Grade.LOSS) -> Finding:
        """`where`: the place that names the URL."""
        parts = take_apart(url)
        subject = self.server if parts and parts[0] in MAPS else url if url != where else ""
        return Finding(self.code, where, f"{subject} {self.what}".strip(), grade, kind)


class Net:
    """Fetches URLs; placeholder hosts through the cache maps."""

    def __init__(self, maps: dict[str, str]) -> None:
        self.rings = {kind: Rings(text) for kind, text in maps.items()}
        self.told: set[str] = set()  # caches already reported as dead

    def get(self, url: str, start: int = 0) -> Answer:
        parts = take_apart(url)
        if parts is None:
            return Answer("", "relative-url", f"{url!r} is not an absolute http URL")
        host, port, path = parts
        if port is not None or host not in MAPS:
            return exchange(f"{host}:{80 if port is None else port}", path, start)
        rings = self.rings.get(MAPS[host], Rings(""))
        answer = Answer(f"http://{host}", "no-map", f"has no server in the {MAPS[host]} map")
        while server := rings.select(path):
            answer = exchange(server, path, start)
            if answer.code not in FAILS_OVER:
                break
            rings.dead.add(server)
        return answer

    def compare(self, url: str, answer: Answer) -> Iterator[Finding]:
        """Compares the other servers of the map with the one that answered."""
        host, port, path = take_apart(url) or ("", 0, "")
        rings = self.rings.get(MAPS.get(host, "")) if port is None else None
        servers = {one for ring in rings.rings for one in ring} if rings else set()
        for server in sorted(servers - self.told):
            other = exchange(server, path) if server != answer.server else answer
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


def exchange(server: str, path: str, start: int = 0) -> Answer:
    """Makes one GET request, from the byte `start` on."""
    host, _, port = server.partition(":")
    answer = Answer(server)
    ranged = f"Range: bytes={start}-\r\n" if start else ""
    request = (f"GET {path} HTTP/1.1\r\nHost: {server.removesuffix(':80')}\r\n"
               f"Connection: close\r\n{ranged}\r\n")
    try:
        if not host or not port.isdigit():
            raise OSError("no host and port")
        address = socket.gethostbyname(host), int(port) & 0xFFFF
        with socket.create_connection(address, CONNECT) as connection:
            connection.sendall(request.encode("utf-8", "surrogateescape"))
            return receive(connection, answer)
    except TimeoutError:
        return replace(answer, code="timeout", what=f"can't be reached within {CONNECT} s")
    except (OSError, UnicodeError) as error:
        reason = getattr(error, "strerror", None) or error
        return replace(answer, code="unreachable", what=f"can't be reached ({reason})")


def receive(connection: socket.socket, answer: Answer) -> Answer:
    """Reads the response as weir does."""
    connection.settimeout(STATUS)
    data = b""
    try:
        data = connection.recv(4096)
        line, ended, fields = data.partition(b"\r\n")
        data = ended + fields
        words = line.decode("latin-1").split(" ")
        if not ended or words[0] not in ("HTTP/1.0", "HTTP/1.1"):
            return replace(answer, code="not-http", what=f"answers {line[:20]!r}")
        connection.settimeout(READ)
        while b"\r\n\r\n" not in data:
            more = connection.recv(4096)
            if len(data) > HEAD_MAX:
                return replace(answer, code="too-large", what="sends a header block of more than 256 KiB")
            if not more:
                return replace(answer, code="silent", what="closes inside its header block")
            data += more
    except TimeoutError:
        return replace(answer, code="silent", what="does not answer")
    except ConnectionError:
        return replace(answer, code="reset", what="resets the connection")
    head, _, body = data.partition(b"\r\n\r\n")
    named = [text.partition(":") for text in head.decode("latin-1").split("\n") if ":" in text]
    answer = replace(answer, http11=words[0] == "HTTP/1.1", body=body,
                     status=int(words[1]) if len(words) > 1 and words[1].isdigit() else 0,
                     fields=[(name, value.strip()) for name, _, value in named])
    if answer.status // 100 != 2:
        target = answer.value("Location") or answer.value("location")
        reason = answer.value("X-Weir-Adapter")
        return replace(answer, code="status", body=b"", what=f"answers {' '.join(words[1:])}"
                       + (f" to {target}" if target else "") + (f" ({reason})" if reason else ""))
    return receive_body(connection, answer)


def receive_body(connection: socket.socket, answer: Answer) -> Answer:
    length, body = answer.value("Content-Length"), bytearray(answer.body)
    if answer.http11 and length is None:
        other = next((name for name, _ in answer.fields if name.lower() == "content-length"), "")
        if other:
            return replace(answer, code="header-case", what=f"sends {other}, not Content-Length")
        return replace(answer, code="no-length", what="sends no Content-Length")
    end = int(length) if answer.http11 and length and length.isdigit() else None
    began = time.monotonic()
    try:
        while end is None or len(body) < end:
            if len(body) > BODY_MAX or time.monotonic() - began > ENDLESS:
                return replace(answer, code="stall", what=f"does not end after {len(body)} bytes")
            if not (more := connection.recv(131071)):
                break
            body += more
    except TimeoutError:
        return replace(answer, body=bytes(body), code="stall",
                       what=f"stalls for more than {READ} s at byte {len(body)}")
    except ConnectionError:
        pass  # counts as the end
    short = end is not None and len(body) < end
    return replace(answer, body=bytes(body), code="short" if short else "",
                   what=f"sends {len(body)} of {end} bytes" if short else "")
