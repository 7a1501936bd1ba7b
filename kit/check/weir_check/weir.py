"""weir's parsing of URLs, cache maps and playlists, oddities included."""

import re
import time
import zlib
from collections.abc import Iterator
from dataclasses import dataclass, field

WHITE = " \t\n\v\f\r"
NO_DATA = 15  # s without data, after which a stream is closed
FAILED_IN_A_ROW = 4  # segments; they end the stream
DOCUMENT_MAX, HEAD_MAX, LINE_MAX = 16 << 20, 256 << 10, 64 << 10  # bytes
SEGMENTS_MAX, VARIANTS_MAX = 50_000, 4_096
# s wasted on a document, by the code of its finding; 0 for other codes
DELAY = {"relative-url": 12, "unreachable": 12, "not-http": 12, "no-map": 12, "timeout": 60,
         "silent": 6, "slow": NO_DATA + 1}
DIGITS = 20  # more than any number has that weir holds


def number(text: str) -> int:
    """The number at the start of the text, as strtoll reads it."""
    found = re.match(r"[ \t\n\v\f\r]*([+-]?[0-9]+)", text)
    return min(max(int(found[1][:DIGITS]), -2**63), 2**63 - 1) if found else 0


def pieces(text: str, separator: str) -> list[str]:
    return text.removesuffix(separator).split(separator) if text else []


def lines_of(text: str) -> list[tuple[int, str]]:
    return list(enumerate(pieces(text, "\n"), 1))


def take_apart(url: str) -> tuple[str, int | None, str] | None:
    """Host, port (None if the URL has none) and path; None if weir rejects the URL."""
    scheme, found, rest = url.partition("://")
    if not found or scheme not in ("http", "https"):
        return None
    authority, _, path = rest.partition("/")
    host, colon, port = authority.partition(":")
    return host, number(port) if colon else None, "/" + path


class Rings:
    """A cache map and its failed servers."""

    def __init__(self, text: str) -> None:
        self.rings = [pieces(ring, ",") for ring in pieces(text, ";")]
        self.dead: set[str] = set()

    def select(self, path: str) -> str:
        path = path.removeprefix("/_live") if path.startswith("/_live/") else path
        key = "/".join(path.split("/")[1:3]).split("?")[0]
        for ring in self.rings:
            if alive := [server for server in ring if server not in self.dead]:
                hashed = zlib.crc32(key.encode("utf-8", "surrogateescape"))
                return alive[(hashed >> 16 & 0x7FFF) % len(alive)]
        return ""


@dataclass(frozen=True)
class Segment:
    line: int
    number: int
    url: str
    key_url: str = ""
    key_line: str = ""
    tags: tuple[str, ...] = ()  # the lines since the previous segment

    def missing(self) -> bool:
        return any(tag.startswith("#EXT-X-GAP") for tag in self.tags)

    def duration(self) -> float:
        return max((float(found[1]) for tag in self.tags
                    if (found := re.match(r"#EXTINF:([0-9]{1,9}(\.[0-9]*)?)", tag))), default=0.0)


@dataclass
class Media:
    """The playlist of a variant."""
    url: str
    target: int = 1
    last: Segment | None = None  # the segment before EXT-X-ENDLIST
    tags: set[str] = field(default_factory=set)
    segments: list[Segment] = field(default_factory=list)
    read_at: float = field(default_factory=time.monotonic)

    @property
    def ended(self) -> bool:
        return self.last is not None


@dataclass(eq=False)
class Variant:
    """A line of a master playlist that weir treats as a variant."""
    line: int
    bandwidth: int
    url: str
    media: Media | None = None  # None if weir cannot load it
    delay: int = 0  # s wasted if it cannot be loaded

    def is_tag(self) -> bool:
        return not self.url or self.url.startswith("#")


def is_hls(text: str) -> bool:
    return not text or text.partition("\n")[0].strip(WHITE) == "#EXTM3U"


def parse_master(text: str) -> Iterator[Variant]:
    bandwidth = 0
    for line, content in lines_of(text)[1:] if is_hls(text) else ():
        if not content.startswith("#EXT-X-STREAM-INF:"):
            yield Variant(line, bandwidth, content.strip(WHITE))
        elif "BANDWIDTH=" in content:
            bandwidth = number(content.partition("BANDWIDTH=")[2].partition(",")[0]) % 2**64
        else:
            return


def parse_media(text: str, url: str) -> Media:
    media, running, key_url, key_line = Media(url), 0, "", ""
    tags: list[str] = []
    for line, content in lines_of(text)[1:] if is_hls(text) else ():
        tag, _, value = content.partition(":")
        if content.startswith("#EXT-X-MEDIA-SEQUENCE:"):
            running = number(value) % 2**64
        elif content.startswith("#EXT-X-TARGETDURATION:"):
            media.target = number(value) % 2**32
        elif content.startswith("#EXT-X-KEY:"):
            start = content.find("URI=")
            key_line, key_url = content, content[4 if start < 0 else start + 5:].strip(WHITE)[:-1]
        elif content.startswith("#EXT-X-ENDLIST"):
            media.last = media.segments[-1] if media.segments else None
        if content.startswith("#"):
            media.tags.add(tag.strip(WHITE))
            tags.append(content)
            continue
        media.segments.append(Segment(line, running, content.strip(WHITE), key_url, key_line,
                                      tuple(tags)))
        running, tags = running + 1, []
    return media


def beyond_bounds(document: bytes, kind: str) -> str:
    """The bound of weir that the document exceeds, or nothing."""
    if len(document) > DOCUMENT_MAX:
        return f"more than {DOCUMENT_MAX >> 20} MiB"
    text = document.decode("utf-8", "replace") if kind != "key" else ""
    if kind != "key" and max(map(len, document.split(b"\n"))) > LINE_MAX:
        return f"a line of more than {LINE_MAX >> 10} KiB"
    if kind == "master":
        over, count = VARIANTS_MAX, sum(1 for _ in parse_master(text))
    else:
        over, listed = SEGMENTS_MAX, lines_of(text) if is_hls(text) else ()
        count = sum(not line.startswith("#") for _, line in listed)
    return f"{count} {'variants' if kind == 'master' else 'segments'}" if count > over else ""


def order_of_trial(variants: list[Variant], average: int) -> Iterator[Variant]:
    """The order in which weir tries the variants, each after the previous one failed.

    `average` is the average speed in kbps.
    """
    left = list(variants)
    while left:
        best = min(left, key=lambda variant: variant.bandwidth)
        for variant in left:
            if variant.bandwidth > best.bandwidth and variant.bandwidth >> 10 <= average:
                best = variant
        yield best
        left.remove(best)


def patience(target: int) -> int:
    """Seconds without a new segment after which weir ends a live stream."""
    return min(NO_DATA, reload_pause(target) + 5 * (target // 4 + 1))


def reload_pause(target: int) -> int:
    return int(target * 0.65) + 1
