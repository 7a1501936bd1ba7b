"""Playlists and keys: whether weir can fetch them, and their content even if it cannot."""

import http.client
import urllib.request
from dataclasses import dataclass
from urllib.parse import urljoin

from .findings import Finding, Grade
from .net import MAPS, STATUS, Answer, Net
from .weir import DELAY, DOCUMENT_MAX, beyond_bounds, take_apart

UNREACHABLE = ("unreachable", "timeout", "silent", "reset", "no-map")


@dataclass
class Page:
    url: str
    body: bytes
    findings: list[Finding]

    @property
    def text(self) -> str:
        return self.body.decode("utf-8", "surrogateescape")

    @property
    def codes(self) -> list[str]:
        """Why weir cannot fetch it."""
        return [one.code for one in self.findings if one.grade >= Grade.LOSS]

    @property
    def loads(self) -> bool:
        return not self.codes

    @property
    def delay(self) -> int:
        """Seconds that weir wastes on it."""
        return max((DELAY.get(code, 0) for code in self.codes), default=0)

    @property
    def reachable(self) -> bool:
        return bool(self.body) or not any(code in UNREACHABLE for code in self.codes)


def address_findings(url: str, where: str, answer: Answer) -> list[Finding]:
    if take_apart(url) is None:
        return [Finding("relative-url", where, f"{url!r} is not an absolute http URL")]
    if url.startswith("https:"):
        return [Finding("https", where, f"{url} requires TLS",
                        Grade.LOSS if answer.code else Grade.NOTE)]
    return []


def page_of(net: Net, url: str, where: str, kind: str, base: str = "") -> Page:
    """`where`: the place that names the URL, which is resolved even if weir would reject it."""
    address = urljoin(base, url)
    answer = net.get(address)
    found = address_findings(url, where, answer)
    if answer.code == "short":
        found.append(answer.finding(address, where, kind, Grade.NOTE))  # weir uses the part
    elif answer.code and answer.code not in [one.code for one in found]:
        found.append(answer.finding(address, where if kind == "key" else address, kind))
    found += net.compare(address, answer)
    body = answer.body if answer.code in ("", "short") else read_on(address, answer)
    if over := beyond_bounds(body, kind):
        found.append(Finding("too-large", address, over, kind=kind))
    return Page(address, body, found)


def read_on(url: str, answer: Answer) -> bytes:
    """Fetches it with TLS, redirects and chunked coding, which weir does not support."""
    parts = take_apart(url)
    if parts and answer.server and parts[0] in MAPS:
        url = f"http://{answer.server}{parts[2]}"
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        with opener.open(url, timeout=STATUS) as response:
            return bytes(response.read(DOCUMENT_MAX))
    except (OSError, ValueError, http.client.HTTPException):
        return b""
