"""Findings by code: their effect on weir and the mend."""

import re
from dataclasses import dataclass, replace
from enum import IntEnum
from typing import NamedTuple


class Grade(IntEnum):
    """How much a finding matters; the worst one is the exit status."""
    NOTE = 0
    LOSS = 1
    FATAL = 2
    UNREACHABLE = 3


class Advice(NamedTuple):
    weir: str  # what weir does; if empty, see WITHOUT
    mend: str
    helps: bool = False  # the adapter or remux, if it plays the stream


VERDICTS = ("playable", "playable with loss", "not playable", "not reachable")
LONGEST_TEXT = 1000  # characters

# What weir does when it cannot fetch a document or segment.
WITHOUT = {
    "master": "ends the stream before it begins",
    "variant": "skips this variant",
    "key": "cannot decrypt the segments of this key",
    "segment": "tries it four times, then skips it; four failures in a row end the stream",
}
ADVICE = {
    "bandwidth": Advice("compares the speed of the network with the declared rate",
                        "declare the peak rate in BANDWIDTH"),
    "blank-line": Advice("treats it as a segment without a name, and ends the stream there",
                         "remove it", True),
    "byte-range": Advice("plays the whole file for each of its ranges",
                         "store each segment in a file of its own", True),
    "caches-differ": Advice("plays the copy of the cache that it selects",
                            "purge or refill the caches"),
    "dead-cache": Advice("skips it after the first failure until the map is sent again",
                         "repair it, or remove it from the map"),
    "discontinuity": Advice("passes the media on unchanged; players may stumble",
                            "encode with continuous timestamps"),
    "fragmented-mp4": Advice("never fetches the initialisation section", "use MPEG-TS segments", True),
    "gap": Advice("requests the missing segment anyway", "remove it from the playlist"),
    "header-case": Advice("", "use that spelling (HTTP/2 proxies often send lower case)", True),
    "http-1.0": Advice("does not decrypt HTTP/1.0 responses", "serve over HTTP/1.1", True),
    "https": Advice("fetches it as plain HTTP, on port 80 unless the URL names another",
                    "serve it over plain HTTP", True),
    "key-none": Advice("treats it as a key, retries it for 12 s and continues with the previous key",
                       "encrypt all segments, or none", True),
    "key-size": Advice("pads the key with zeros", "serve a key of 16 bytes"),
    "left-out": Advice("never sees that variant", "remedy what the adapter names"),
    "long-segments": Advice("closes a stream after 15 s without data", "make segments shorter than that"),
    "media-playlist": Advice("treats each of its lines as a variant", "list it in a master playlist", True),
    "no-bandwidth": Advice("ignores the rest of the playlist", "give every stream tag a BANDWIDTH", True),
    "no-cipher": Advice("decrypts it; that was not checked", "install libcrypto (libssl3)"),
    "no-length": Advice("", "send Content-Length instead of chunked coding", True),
    "no-map": Advice("", "send that map to weir, and pass it here with --chunk or --playlist"),
    "no-number": Advice("plays only segments numbered above all earlier ones, then ends the stream",
                        "add EXT-X-MEDIA-SEQUENCE: 1 at first, and 1 more for each segment removed", True),
    "no-range": Advice("repeats a segment from its start if the download stalls",
                       "answer Range with 206 and Content-Range", True),
    "no-segments": Advice("skips this variant", "list segments"),
    "no-time": Advice("closes a stream after 15 s without data",
                      "check that server, or allow more time with --seconds"),
    "no-variants": Advice("ends the stream before it begins", "list variants"),
    "not-hls": Advice("ignores its content", "make #EXTM3U the first line, without a byte order mark", True),
    "not-http": Advice("", "serve it over HTTP/1.1"),
    "not-media": Advice("passes it on unchanged", "serve MPEG-TS segments"),
    "number-zero": Advice("never fetches segment 0", "number segments from 1", True),
    "numbers-differ": Advice("repeats or skips media, or ends, when it changes the variant",
                             "give a segment the same number in all variants", True),
    "numbers-jump": Advice("skips segments not numbered above the last one played",
                           "number segments in ascending order", True),
    "redirect": Advice("", "name the address that it redirects to", True),
    "refused": Advice("", "remedy what the adapter names; its README lists what it refuses"),
    "relative-url": Advice("accepts only absolute http URLs and wastes at least 12 s retrying this one",
                           "write the whole URL", True),
    "reset": Advice("", "check the server's log and any firewall"),
    "sample-aes": Advice("decrypts it as AES-128", "encrypt with AES-128, or not at all"),
    "separate-audio": Advice("plays the video without sound", "put the audio into the segments", True),
    "short": Advice("treats it as complete and plays that part", "check the server's log"),
    "silent": Advice("", "make the server answer within 6 s, and continue within 2 s"),
    "slow": Advice("closes a stream after 15 s without data", "check the server and the network"),
    "stall": Advice("resumes there with a Range request", "check the server and the network"),
    "stalled": Advice("ends the stream", "restart the encoder, or add EXT-X-ENDLIST"),
    "status": Advice("", "correct the URL or the server"),
    "tag-as-variant": Advice("treats it as a variant, and wastes 12 s if it tries that one first",
                             "leave only stream tags and URLs", True),
    "target-duration": Advice("reloads too often, and ends a live stream after six reloads without a new "
                              "segment", "set it to the duration of the longest segment"),
    "timeout": Advice("", "open the firewall for weir, or use the address of a live server"),
    "too-large": Advice("", "stay within weir's bounds"),
    "too-late": Advice("closes a stream after 15 s without data", "remove the cause of the delay"),
    "unlisted": Advice("", "add the origin to the adapter's settings.conf, and reload its nginx"),
    "unreachable": Advice("", "start the server, correct its address, or open the firewall for weir"),
    "uri-not-last": Advice("treats everything after URI= as the address",
                           "make URI the last attribute", True),
    "vector": Advice("uses a zero vector, which corrupts the first 16 bytes of each segment",
                     "encrypt with a zero vector", True),
    "weir-differs": Advice("uses other maps or another network than this check",
                           "send it the maps, and read its journal"),
    "window": Advice("misses segments that appear and disappear between two reloads",
                     "list at least three target durations"),
    "wrong-bandwidth": Advice("reads the number after the first BANDWIDTH=", "put BANDWIDTH first", True),
    "wrong-key": Advice("delivers media that no player can decode",
                        "serve the key that the media was encrypted with"),
}


def printable(text: object) -> str:
    """Text of a server, without control characters or bytes that are not UTF-8."""
    return "".join(char if char.isprintable() else char.encode("unicode_escape").decode()
                   for char in str(text)[:LONGEST_TEXT])


@dataclass(frozen=True)
class Finding:
    code: str
    where: str  # a URL, with a line
    what: str
    grade: Grade = Grade.LOSS
    kind: str = ""  # of the document: a key of WITHOUT

    def texts(self, help_: str) -> dict[str, str]:
        """`help_`: how the adapter or remux would help, if at all."""
        weir, mend, helps = ADVICE[self.code]
        return {"grade": self.grade.name.lower(), "code": self.code, "where": printable(self.where),
                "what": printable(self.what), "weir": weir or WITHOUT[self.kind],
                "mend": f"{mend}, or {help_}" if helps and help_ else mend}


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
