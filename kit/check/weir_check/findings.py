"""What is found: by code, what weir does because of it and how to mend it."""

import re
from dataclasses import dataclass, replace
from enum import IntEnum


class Grade(IntEnum):
    """What a finding costs; the worst one is the exit status."""
    NOTE = 0
    LOSS = 1
    FATAL = 2
    UNREACHABLE = 3


VERDICTS = ("playable", "playable with loss", "not playable", "not reachable")
ADAPTER = "put the adapter of docs/sources.md in front"

# What comes of a document or a segment that weir can't have.
WITHOUT = {
    "master": "ends the stream before it began",
    "variant": "leaves this variant out",
    "key": "plays what it enciphers undecrypted",
    "segment": "tries it four times and skips it; four in a row end the stream",
}
# What weir does (where it says nothing: as above), and how to mend it.
ADVICE = {
    "blank-line": ("takes it for a segment without a name, and ends the stream there",
                   "remove it"),
    "byte-range": ("plays the whole file for each of its ranges",
                   f"cut the media into one file a segment, or {ADAPTER}"),
    "caches-differ": ("plays what the one has that it picks", "purge or refill the caches"),
    "dead-cache": ("leaves it out, once it has failed, until the map is sent again",
                   "repair it, or take it out of the map"),
    "discontinuity": ("sends the media on as it is; players may stumble",
                      "encode with timestamps that go on"),
    "fragmented-mp4": ("never fetches the initialisation section", "use MPEG-TS segments"),
    "gap": ("asks for the segment that is not there", f"leave it out of the list, or {ADAPTER}"),
    "header-case": ("", "spell it so (proxies for HTTP/2 often lower the case), or " + ADAPTER),
    "http-1.0": ("does not decrypt what comes over HTTP/1.0", f"serve with HTTP/1.1, or {ADAPTER}"),
    "https": ("speaks plain HTTP all the same, to port 80 where no other is given", ADAPTER),
    "key-none": ("takes it for a key, tries that for 12 s and goes on with the one before",
                 ADAPTER),
    "key-size": ("pads the key with zeros", "serve a key of 16 bytes"),
    "long-segments": ("closes a stream that had nothing to send for 15 s",
                      "make them shorter than that"),
    "media-playlist": ("takes each of its lines for a variant",
                       f"name it in a master playlist, or {ADAPTER}"),
    "no-bandwidth": ("reads no further", "give every stream tag a BANDWIDTH"),
    "no-cipher": ("decrypts, which was not checked", "install libcrypto (libssl3)"),
    "no-length": ("", f"send Content-Length instead of chunks, or {ADAPTER}"),
    "no-map": ("", "send that map to weir, and name it here with --chunk or --playlist"),
    "no-number": ("plays only what is numbered above all before, and then ends the stream",
                  f"name EXT-X-MEDIA-SEQUENCE, or {ADAPTER}"),
    "no-range": ("repeats a segment from its start where the download stalls",
                 "answer Range with 206 and Content-Range"),
    "no-segments": ("leaves this variant out", "list segments"),
    "no-variants": ("ends the stream before it began", "list variants"),
    "not-hls": ("finds nothing in it",
                "let it begin with a line #EXTM3U, without a byte order mark"),
    "not-http": ("", "serve it with HTTP/1.1"),
    "not-media": ("sends it on as it is", "serve MPEG-TS segments"),
    "number-zero": ("never fetches segment 0", f"number them from 1, or {ADAPTER}"),
    "numbers-differ": ("repeats or skips media, or ends, where it changes the variant",
                       f"give a segment the same number in all variants, or {ADAPTER}"),
    "numbers-jump": ("skips segments numbered below what it has played", "number them upwards"),
    "relative-url": ("takes absolute http URLs only, and loses its time with this one",
                     f"write the whole URL, or {ADAPTER}"),
    "reset": ("", "look at the server's log, or for a firewall"),
    "sample-aes": ("decrypts it as AES-128", "encipher with AES-128, or not at all"),
    "separate-audio": ("plays the pictures alone", "put the sound into the segments"),
    "short": ("believes the server and plays a part", "look at the server's log"),
    "silent": ("", "make the server answer within 6 s, and go on within 2 s"),
    "stall": ("goes on from there, by Range", "look at the server and the network"),
    "status": ("", "correct the URL or the server; weir follows no redirects"),
    "tag-as-variant": ("takes it for a variant, and loses 12 s where it tries that one first",
                       f"leave only stream tags and URLs, or {ADAPTER}"),
    "target-duration": ("reloads too often, and ends a live stream after six reloads without news",
                        "name the duration of the longest segment"),
    "timeout": ("", "let weir through to it, or take a name that leads to a live server"),
    "too-large": ("", "stay within weir's bounds"),
    "too-late": ("closes a stream that had nothing to send for 15 s", "mend what costs the time"),
    "unreachable": ("", "start the server, correct its address, or let weir through to it"),
    "uri-not-last": ("takes all of the line behind URI for the address",
                     f"let URI be the last attribute, or {ADAPTER}"),
    "vector": ("starts from zeros, so that 16 bytes of each segment come out wrong",
               f"encipher with a vector of zero, or {ADAPTER}"),
    "weir-differs": ("does not have the maps or the network that were looked at",
                     "send it the maps, and look at its journal"),
    "window": ("misses what comes and goes between two reloads",
               "list at least three target durations"),
    "wrong-bandwidth": ("goes by what stands behind the first BANDWIDTH=", "put BANDWIDTH first"),
    "wrong-key": ("makes nothing of it that plays", "serve the key that it was enciphered with"),
}


@dataclass(frozen=True)
class Finding:
    code: str
    where: str  # a URL, with a line
    what: str
    grade: Grade = Grade.LOSS
    kind: str = ""  # of the document, for WITHOUT

    def texts(self) -> dict[str, str]:
        weir, mend = ADVICE[self.code]
        return {"grade": self.grade.name.lower(), "code": self.code, "where": self.where,
                "what": self.what, "weir": weir or WITHOUT[self.kind], "mend": mend}

    def __str__(self) -> str:
        return ("{grade} {code} {where}: {what}; weir {weir}. Mend: {mend}."
                .format_map(self.texts()))


def capped(findings: list[Finding], grade: Grade) -> list[Finding]:
    return [replace(one, grade=min(one.grade, grade)) for one in findings]


def raised(findings: list[Finding]) -> list[Finding]:
    """Losses that leave nothing."""
    return [replace(one, grade=max(one.grade, Grade.FATAL)) if one.grade else one
            for one in findings]


def merged(findings: list[Finding]) -> list[Finding]:
    """One of each code a document, the worst first."""
    groups: dict[tuple[str, str, str], list[Finding]] = {}
    for one in findings:
        document = re.sub(r"(/[^/]*):\d+$", r"\1", one.where)
        groups.setdefault((one.code, one.kind, document), []).append(one)
    result = []
    for group in groups.values():
        more = f" (and {len(group) - 1} more such)" if len(group) > 1 else ""
        result.append(replace(group[0], grade=max(one.grade for one in group),
                              what=group[0].what + more))
    return sorted(result, key=lambda one: -one.grade)
