"""Findings by code: their effect on weir and the fix."""

import re
from dataclasses import dataclass, replace
from enum import IntEnum


class Grade(IntEnum):
    """How much a finding matters; the worst one is the exit status."""
    NOTE = 0
    LOSS = 1
    FATAL = 2
    UNREACHABLE = 3


VERDICTS = ("playable", "playable with loss", "not playable", "not reachable")
ADAPTER = "put the adapter of docs/sources.md in front"

# What weir does when it cannot fetch a document or segment.
WITHOUT = {
    "master": "ends the stream before it begins",
    "variant": "skips this variant",
    "key": "cannot decrypt the segments of this key",
    "segment": "tries it four times, then skips it; four failures in a row end the stream",
}
# What weir does (if empty: as above), and the fix.
ADVICE = {
    "blank-line": ("treats it as a segment without a name, and ends the stream there",
                   "remove it"),
    "byte-range": ("plays the whole file for each of its ranges",
                   f"store each segment in a file of its own, or {ADAPTER}"),
    "caches-differ": ("plays the copy of the cache that it selects", "purge or refill the caches"),
    "dead-cache": ("skips it after the first failure until the map is sent again",
                   "repair it, or remove it from the map"),
    "discontinuity": ("passes the media on unchanged; players may stumble",
                      "encode with continuous timestamps"),
    "fragmented-mp4": ("never fetches the initialisation section", "use MPEG-TS segments"),
    "gap": ("requests the missing segment anyway", f"remove it from the playlist, or {ADAPTER}"),
    "header-case": ("", "use that spelling (HTTP/2 proxies often send lower case), or " + ADAPTER),
    "http-1.0": ("does not decrypt HTTP/1.0 responses", f"serve over HTTP/1.1, or {ADAPTER}"),
    "https": ("fetches it as plain HTTP, on port 80 unless the URL names another", ADAPTER),
    "key-none": ("treats it as a key, retries it for 12 s and continues with the previous key",
                 ADAPTER),
    "key-size": ("pads the key with zeros", "serve a key of 16 bytes"),
    "long-segments": ("closes a stream after 15 s without data", "make segments shorter than that"),
    "media-playlist": ("treats each of its lines as a variant",
                       f"list it in a master playlist, or {ADAPTER}"),
    "no-bandwidth": ("ignores the rest of the playlist", "give every stream tag a BANDWIDTH"),
    "no-cipher": ("decrypts it; that was not checked", "install libcrypto (libssl3)"),
    "no-length": ("", f"send Content-Length instead of chunked coding, or {ADAPTER}"),
    "no-map": ("", "send that map to weir, and pass it here with --chunk or --playlist"),
    "no-number": ("plays only segments numbered above all earlier ones, then ends the stream",
                  f"add EXT-X-MEDIA-SEQUENCE, or {ADAPTER}"),
    "no-range": ("repeats a segment from its start if the download stalls",
                 "answer Range with 206 and Content-Range"),
    "no-segments": ("skips this variant", "list segments"),
    "no-variants": ("ends the stream before it begins", "list variants"),
    "not-hls": ("ignores its content",
                "make #EXTM3U the first line, without a byte order mark"),
    "not-http": ("", "serve it over HTTP/1.1"),
    "not-media": ("passes it on unchanged", "serve MPEG-TS segments"),
    "number-zero": ("never fetches segment 0", f"number segments from 1, or {ADAPTER}"),
    "numbers-differ": ("repeats or skips media, or ends, when it changes the variant",
                       f"give a segment the same number in all variants, or {ADAPTER}"),
    "numbers-jump": ("skips segments not numbered above the last one played",
                     "number segments in ascending order"),
    "relative-url": ("accepts only absolute http URLs and wastes at least 12 s retrying this one",
                     f"write the whole URL, or {ADAPTER}"),
    "reset": ("", "check the server's log and any firewall"),
    "sample-aes": ("decrypts it as AES-128", "encrypt with AES-128, or not at all"),
    "separate-audio": ("plays the video without sound", "put the audio into the segments"),
    "short": ("treats it as complete and plays that part", "check the server's log"),
    "silent": ("", "make the server answer within 6 s, and continue within 2 s"),
    "stall": ("resumes there with a Range request", "check the server and the network"),
    "status": ("", "correct the URL or the server; weir follows no redirects"),
    "tag-as-variant": ("treats it as a variant, and wastes 12 s if it tries that one first",
                       f"leave only stream tags and URLs, or {ADAPTER}"),
    "target-duration": ("reloads too often, and ends a live stream after six reloads without a new segment",
                        "set it to the duration of the longest segment"),
    "timeout": ("", "open the firewall for weir, or use the address of a live server"),
    "too-large": ("", "stay within weir's bounds"),
    "too-late": ("closes a stream after 15 s without data", "remove the cause of the delay"),
    "unreachable": ("", "start the server, correct its address, or open the firewall for weir"),
    "uri-not-last": ("treats everything after URI= as the address",
                     f"make URI the last attribute, or {ADAPTER}"),
    "vector": ("uses a zero vector, which corrupts the first 16 bytes of each segment",
               f"encrypt with a zero vector, or {ADAPTER}"),
    "weir-differs": ("uses other maps or another network than this check",
                     "send it the maps, and read its journal"),
    "window": ("misses segments that appear and disappear between two reloads",
               "list at least three target durations"),
    "wrong-bandwidth": ("reads the number after the first BANDWIDTH=", "put BANDWIDTH first"),
    "wrong-key": ("delivers media that no player can decode",
                  "serve the key that the media was encrypted with"),
}


@dataclass(frozen=True)
class Finding:
    code: str
    where: str  # a URL, with a line
    what: str
    grade: Grade = Grade.LOSS
    kind: str = ""  # of the document: a key of WITHOUT

    def texts(self) -> dict[str, str]:
        weir, mend = ADVICE[self.code]
        return {"grade": self.grade.name.lower(), "code": self.code, "where": self.where,
                "what": self.what, "weir": weir or WITHOUT[self.kind], "mend": mend}

    def __str__(self) -> str:
        return ("{grade} {code} {where}: {what}; weir {weir}. Fix: {mend}."
                .format_map(self.texts()))


def capped(findings: list[Finding], grade: Grade) -> list[Finding]:
    return [replace(one, grade=min(one.grade, grade)) for one in findings]


def raised(findings: list[Finding]) -> list[Finding]:
    """Makes every loss fatal."""
    return [replace(one, grade=max(one.grade, Grade.FATAL)) if one.grade else one
            for one in findings]


def merged(findings: list[Finding]) -> list[Finding]:
    """One finding for each code and document, the worst first."""
    groups: dict[tuple[str, str, str], list[Finding]] = {}
    for one in findings:
        document = re.sub(r"(/[^/]*):\d+$", r"\1", one.where)
        groups.setdefault((one.code, one.kind, document), []).append(one)
    result = []
    for group in groups.values():
        more = f" (and {len(group) - 1} more)" if len(group) > 1 else ""
        result.append(replace(group[0], grade=max(one.grade for one in group),
                              what=group[0].what + more))
    return sorted(result, key=lambda one: -one.grade)
