"""Findings from the text of a playlist alone."""

import re
from collections.abc import Iterator

from .findings import Finding, Grade
from .weir import (FAILED_IN_A_ROW, WHITE, Media, Segment, is_hls, lines_of, number, patience,
                   reload_pause)


def attributes(line: str) -> dict[str, str]:
    return {name: value.strip('"') for name, value in
            re.findall(r'([A-Z0-9-]+)=("[^"]*"|[^,\s]*)', line.partition(":")[2])}


def master_findings(text: str, url: str) -> Iterator[Finding]:
    if not is_hls(text):
        yield Finding("not-hls", url, f"begins with {text[:20]!r}")
    if re.search("^#EXTINF:", text, re.M):
        yield Finding("media-playlist", url, "is the playlist of a single variant")
        return
    for line, content in lines_of(text):
        where, named = f"{url}:{line}", attributes(content)
        if content.startswith("#EXT-X-STREAM-INF:"):
            if "BANDWIDTH=" not in content:
                yield Finding("no-bandwidth", where, "a stream tag without bandwidth", Grade.NOTE)
                return
            taken = number(content.partition("BANDWIDTH=")[2])
            if taken != number(named.get("BANDWIDTH", "")):
                yield Finding("wrong-bandwidth", where, f"{taken} comes first, BANDWIDTH is "
                              + named.get("BANDWIDTH", "missing"), Grade.NOTE)
        elif content.startswith("#EXT-X-MEDIA:") and named.get("TYPE") == "AUDIO":
            if "URI" in named:
                yield Finding("separate-audio", where, f"separate audio in {named['URI']}")


def media_findings(media: Media) -> Iterator[Finding]:
    """All findings of a media playlist except those about keys and addresses."""
    last = gaps = 0
    for segment in media.segments:
        where = f"{media.url}:{segment.line}"
        if segment.number == 0:
            yield Finding("number-zero", where, "a segment is numbered 0")
        elif segment.number <= last:
            yield Finding("numbers-jump", where, f"{segment.number} follows {last}")
        last = max(last, segment.number)
        gaps = gaps + 1 if segment.missing() else 0
        if gaps:
            yield Finding("gap", where, "a segment is marked as missing",
                          Grade.LOSS if gaps >= FAILED_IN_A_ROW else Grade.NOTE)
        for tag in segment.tags:
            if tag.startswith("#EXT-X-BYTERANGE:"):
                yield Finding("byte-range", where, "a segment is part of a file")
            elif tag.rstrip(WHITE) == "#EXT-X-DISCONTINUITY":
                yield Finding("discontinuity", where, "timestamps restart", Grade.NOTE)
    yield from duration_findings(media)


def duration_findings(media: Media) -> Iterator[Finding]:
    durations = [segment.duration() for segment in media.segments]
    longest, live = max(durations), not media.ended
    starves = live and longest > patience(media.target)
    if longest > media.target + 0.5:
        named = media.target if "#EXT-X-TARGETDURATION" in media.tags else "missing, which means 1"
        yield Finding("target-duration", media.url, f"a segment lasts {longest:g} s, the target "
                      f"duration is {named}", Grade.LOSS if starves else Grade.NOTE)
    elif starves:
        yield Finding("long-segments", media.url, f"a segment lasts {longest:g} s")
    if live and "#EXT-X-MEDIA-SEQUENCE" not in media.tags:
        yield Finding("no-number", media.url, "every reload renumbers the segments")
    if live and sum(durations) < reload_pause(media.target):
        yield Finding("window", media.url, f"{sum(durations):g} s are listed, and weir reloads "
                      f"after {reload_pause(media.target)} s")


def numbering_findings(first: Media, other: Media) -> Iterator[Finding]:
    """Compares the numbers of two variants. A live one may be up to two segments ahead."""
    ranges = [(media.segments[0].number, media.segments[-1].number) for media in (other, first)]
    apart = abs(ranges[0][0] - ranges[1][0])
    if apart > 2 or (first.ended and other.ended and ranges[0] != ranges[1]):
        yield Finding("numbers-differ", other.url, "numbers go from {} to {}, and from {} to {} in "
                      .format(*ranges[0], *ranges[1]) + first.url)


def key_cause(segment: Segment) -> tuple[str, str] | None:
    """Why weir cannot decrypt a segment, according to its key tag."""
    named = attributes(segment.key_line)
    method = named.get("METHOD", "missing")
    if method == "NONE":
        return "key-none", "media is clear from here on"
    if method != "AES-128":
        return "sample-aes", f"the method is {method}"
    if segment.key_url != named.get("URI", ""):
        return "uri-not-last", f"weir reads the key's address as {segment.key_url}"
    return None
