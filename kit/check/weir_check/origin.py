"""Fetches as the adapter does: with TLS, redirects, chunked coding and gzip."""

import http.client
import ssl
import zlib
from dataclasses import dataclass, field
from functools import partial
from urllib.parse import urljoin, urlsplit

from .waiting import begin

HOPS = 5  # redirections
TIME, IDLE = 10, 6  # s, for a whole reply and without any byte
DOCUMENT, MOST = 9 << 20, 32 << 20  # bytes of a playlist, and of anything


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


def request(url: str) -> Reply:
    try:
        parts = urlsplit(url)
        kind = http.client.HTTPSConnection if parts.scheme == "https" else http.client.HTTPConnection
        connection = kind(parts.netloc, timeout=IDLE)
        path = (parts.path or "/") + (f"?{parts.query}" if parts.query else "")
        fields = {"Accept-Encoding": "identity", "Connection": "close", "User-Agent": "weir-check"}
        connection.request("GET", path, headers=fields)
        with connection.getresponse() as response:
            named, body = dict(map(titled, response.getheaders())), response.read(MOST)
        if named.pop("Content-Encoding", "") == "gzip":
            body = zlib.decompressobj(31).decompress(body, MOST)
        return Reply(response.status, named, body)
    except ssl.SSLCertVerificationError as error:
        return Reply(why=f"its certificate is not trusted: {error.verify_message}")
    except TimeoutError:
        return Reply(why="it does not answer in time")
    except (OSError, ValueError, http.client.HTTPException, zlib.error) as error:
        return Reply(why=str(getattr(error, "strerror", None) or error or type(error).__name__))


def titled(field_: tuple[str, str]) -> tuple[str, str]:
    """With the usual spelling of its name, by which nginx knows it."""
    return field_[0].title(), field_[1]


class Origins:
    """Replies that have been fetched, each once."""

    def __init__(self) -> None:
        self.known: dict[str, Reply] = {}

    def ask(self, urls: list[str], seconds: float = TIME) -> list[Reply]:
        """Asks for several at once."""
        new = [url for url in urls if url not in self.known]
        for url, wait in [(url, begin(partial(request, url))) for url in new]:
            try:
                self.known[url] = wait(seconds)
            except TimeoutError:
                self.known[url] = Reply(why=f"it takes more than {TIME} s")
        return [self.known[url] for url in urls]

    def read(self, url: str) -> bytes:
        """The body behind all redirections; empty if there is none."""
        for _ in range(HOPS):
            reply, = self.ask([url])
            target = reply.fields.get("Location")
            if reply.status // 100 != 3 or not target:
                return reply.body if reply.status // 100 == 2 else b""
            url = resolve(url, target)
        return b""
