"""Playlists and keys: whether weir can fetch them, and their content even if it cannot."""

from dataclasses import dataclass

from .findings import Finding, Grade
from .net import MAPS, Answer, Net
from .origin import Origins, Reply, resolve, titled
from .weir import DELAY, beyond_bounds, take_apart

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


class Pages:
    def __init__(self, net: Net, origins: Origins) -> None:
        self.net, self.origins = net, origins
        self.adapted = False  # a page comes from the adapter
        self.refusal = ""  # why it does not

    def get(self, url: str, where: str, kind: str, base: str = "") -> Page:
        """`where`: the place that names the URL, which is resolved even if weir would reject it."""
        address = resolve(base, url)
        answer = self.net.get(address)
        found = address_findings(url, where, answer)
        if answer.code == "short":
            found.append(answer.finding(address, where, kind, Grade.NOTE))  # weir uses the part
        elif answer.code and answer.code not in [one.code for one in found]:
            found.append(answer.finding(address, where if kind == "key" else address, kind))
        found += self.net.compare(address, answer)
        if reason := answer.value("X-Weir-Adapter"):
            self.adapted, self.refusal = True, self.refusal or (reason if answer.code else "")
            if not answer.code:
                found.append(Finding("left-out", address, reason, Grade.NOTE))
        body = self.read(address, answer)
        if over := beyond_bounds(body, kind):
            found.append(Finding("too-large", address, over, kind=kind))
            body = b""
        return Page(address, body, found)

    def read(self, url: str, answer: Answer) -> bytes:
        """The body, even if weir can't have it; none if it takes too long."""
        if not answer.code:
            self.origins.known[url] = Reply(answer.status, dict(map(titled, answer.fields)), answer.body)
        if answer.code in ("", "short", "slow"):
            return b"" if answer.code == "slow" else answer.body
        parts = take_apart(url)
        if parts and answer.server and parts[0] in MAPS:
            url = f"http://{answer.server}{parts[2]}"
        self.net.waiting = url, "reading what weir can't"
        return self.origins.read(url)
