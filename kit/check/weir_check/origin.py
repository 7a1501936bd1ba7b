"""Fetches as the adapter does: with TLS, redirects, chunked coding and gzip."""

import http.client
import ssl
import zlib
from dataclasses import dataclass, field, replace
from functools import partial
from urllib.parse import urljoin, urlsplit

from .waiting import begin

HOPS = 5  # redirections
TIME, IDLE = 10, 6  # s, for a whole reply and without any byte
DOCUMENT, WHOLE = 9 << 20, 32 << 20  # bytes of a playlist, and of all else


@dataclass(frozen=True)
class Reply:
    status: int = 0  # 0: there is none
    fields: dict[str, str] = field(default_factory=dict)
    body: bytes = b""
    why: str = ""  # there is none


def resolve(base: str, url: str) -> str:
    try:
        return urljoin(base, url)
    except ValueError:  # e.g. half an IPv6 address
        return url


def request(url: str, method: str = "GET", part: str = "", most: int = WHOLE) -> Reply:
    """One request. `part` is the value of a Range field."""
    try:
        parts = urlsplit(url)
        kind = http.client.HTTPSConnection if parts.scheme == "https" else http.client.HTTPConnection
        connection = kind(parts.netloc, timeout=IDLE)
        path = (parts.path or "/") + (f"?{parts.query}" if parts.query else "")
        fields = {"Accept-Encoding": "identity", "Connection": "close", "User-Agent": "weir-check"}
        connection.request(method, path, headers={**fields, **({"Range": part} if part else {})})
        with connection.getresponse() as response:
            named = {name.title(): value for name, value in response.getheaders()}
            return unpacked(Reply(response.status, named, response.read(most)), most)
    except ssl.SSLCertVerificationError as error:
        return Reply(why=f"its certificate is not trusted: {error.verify_message}")
    except (OSError, ValueError, http.client.HTTPException, zlib.error) as error:
        return Reply(why=str(getattr(error, "strerror", None) or error or type(error).__name__))


def unpacked(reply: Reply, most: int) -> Reply:
    if reply.fields.get("Content-Encoding") != "gzip":
        return reply
    body = zlib.decompressobj(31).decompress(reply.body, most)
    return replace(reply, body=body, fields={**reply.fields, "Content-Encoding": "identity"})


class Origins:
    """Replies that have been fetched, each once."""

    def __init__(self) -> None:
        self.known: dict[tuple[str, ...], Reply] = {}

    def ask(self, wanted: list[tuple[str, ...]], seconds: float = TIME) -> list[Reply]:
        """Asks for several at once: URL, and method and Range if not the usual ones."""
        new = [one for one in wanted if one not in self.known]
        waits = [begin(partial(request, *one)) for one in new]
        for one, wait in zip(new, waits):
            try:
                self.known[one] = wait(seconds)
            except TimeoutError:
                self.known[one] = Reply(why=f"it takes more than {TIME} s")
        return [self.known[one] for one in wanted]

    def read(self, url: str) -> bytes:
        """The body behind all redirections; empty if there is none."""
        for _ in range(HOPS):
            reply, = self.ask([(url,)])
            target = reply.fields.get("Location")
            if reply.status // 100 != 3 or not target:
                return reply.body if reply.status // 100 == 2 else b""
            url = resolve(url, target)
        return b""
