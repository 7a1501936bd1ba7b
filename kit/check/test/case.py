"""A case of cases.txt, and how it is served."""

import functools
import random
import re
import sys
import threading
import time
import zlib
from dataclasses import dataclass, field
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parents[2] / "script"), str(HERE.parent)]

from weir_check.media import mirrored  # noqa: E402
from weirlab.origin import Origin  # noqa: E402
from weirlab.video import KEY, encrypt  # noqa: E402

SHORT = {
    r"@variant (\d+) (\S+)": r"#EXT-X-STREAM-INF:BANDWIDTH=\1\n$H\2",
    r"@media (\d+)": r"#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:\1",
    r"@key ": "#EXT-X-KEY:METHOD=AES-128,",
    r"@at (\S+)": r"#EXTINF:2,\n\1",
    r"@end": "#EXT-X-ENDLIST",
    r"@(\w+)": r"#EXTINF:2,\n$H/\1.ts",
}
AS_IS = {"$H": "http://$O", "\\r": "\r", "\\e": "\x1b", "\\ufeff": "\ufeff"}
PACKET, NULL = 188, b"G\x1f\xff"
WHOLE = {"master": "#EXTM3U\n{}\n"} | dict.fromkeys(("low", "high"), "@media 1\n{}\n@end\n")
USUAL = {"/master": "#EXTM3U\n@variant 3000 /low\n", "/low": "@media 1\n@1\n@2\n@end\n"}


def media(number: int) -> bytes:
    """A valid PAT followed by random TS packets, more of them in segment 8."""
    table = bytes([0, 0xB0, 0x0D, 0, number, 0xC1, 0, 0, 0, 1, 0xF0, 0])
    table += mirrored((zlib.crc32(mirrored(table)) ^ 0xFFFFFFFF).to_bytes(4, "little"))
    return b"G\x40\x00\x10\0" + table.ljust(183, b"\xff") + b"".join(
        b"G" + random.Random(number * 10 + i).randbytes(187) for i in range(3000 if number == 8 else 3))


@functools.cache
def usual(path: str) -> bytes:
    """/2.ts, /2x1f.ts (encrypted with that vector) and keys, in any folder."""
    if found := re.fullmatch(r"/(?:.*/)?(\d)(?:x(\w+))?\.ts(?:\?.*)?", path):
        clear = media(int(found[1]))
        return encrypt(clear, int(found[2], 16)) if found[2] else clear
    if re.fullmatch(r"/.*key(\?.*)?", path):
        return KEY
    return {"/init.mp4": b"\0\0\0\x18ftypinit", "/1.m4s": b"\0\0\0\x18moof" + bytes(400)}.get(path, b"")


def written_out(text: str, host: str) -> bytes:
    for short, long in SHORT.items():
        text = re.sub(f"^{short}", long, text, flags=re.M)
    text = re.sub(r"^(\d+)(?:\*(.*\n)|\^(.*))", lambda found: (found[2] or found[3]) * int(found[1]), text,
                  flags=re.M)
    for name, value in AS_IS.items():
        text = text.replace(name, value)
    return text.replace("$O", host).encode()


@dataclass
class Case:
    name: str
    url: str = "/master"
    args: str = ""
    plays: str = "1 2"
    finds: str = ""
    texts: dict[str, dict[float, str]] = field(default_factory=dict)  # by path and time
    faults: dict[str, set[str]] = field(default_factory=dict)
    adapter: str = ""
    adapted: dict[str, str] = field(default_factory=dict)  # by path
    away: str = ""
    ffmpeg: str = ""

    @property
    def whole(self) -> bytes:
        """What a player that supports all of HLS gets."""
        names = "init.mp4 1.m4s" if self.plays == "mp4" else re.sub(r"\S+", r"\g<0>.ts", self.plays)
        return b"".join(usual(f"/{name}") for name in names.split())

    def loss(self, got: bytes) -> int:
        """0 if all was received, 1 if some, 2 if nothing. The adapter may add null packets."""
        whole, size = self.whole, PACKET if self.whole[:1] == b"G" else len(self.whole)
        parts = [whole[at:at + size] for at in range(0, len(whole), size)]
        packets = [got[at:at + PACKET] for at in range(0, len(got), PACKET)]
        clean = b"".join(packet for packet in packets if not packet.startswith(NULL))
        return 0 if clean == whole else 1 if any(part in got for part in parts) else 2

    def file(self, path: str, seconds: float, host: str) -> bytes:
        """Its version that many seconds after its first request; empty if there is none."""
        versions = self.texts.get(path, {0: ""})
        text = versions[max(at for at in versions if at <= seconds)] or USUAL.get(path, "")
        return written_out(text, host) or usual(path)


def read_case(line: str) -> Case:
    name, finds, *parts = line.split(" ; ")
    case = Case(name, finds=finds.strip("-"))
    for part in parts:
        word, _, rest = part.partition(" ")
        written, _, text = rest.replace("|", "\n").partition("= ")
        faults, text = set(written.split()), text and text + "\n"
        if word in WHOLE:
            case.texts[f"/{word}"] = {0: WHOLE[word].format(rest.replace("|", "\n"))}
        elif word[0] == "+":
            case.adapted[word[1:]] = text
        elif word[0] in "/:":
            after = max((float(fault[6:]) for fault in faults if fault.startswith("after=")), default=0.0)
            case.texts.setdefault(word, {})[after] = text
            case.faults.setdefault(word, set()).update(faults)
        else:
            setattr(case, word, rest)
    return case


def cases(path: Path = HERE / "cases.txt") -> dict[str, Case]:
    """By name."""
    found = [read_case(line) for line in re.findall("^== (.*)", path.read_text("utf-8"), re.MULTILINE)]
    assert len({case.name for case in found}) == len(found), "two cases have one name"
    return {case.name: case for case in found}


def serve(case: Case, address: str, port: int, certificate: str = "") -> None:
    """Serves the case on one address."""
    began: dict[str, float] = {}  # the first request of each path

    def at(path: str) -> str:
        return f":{port}{path}" if f":{port}{path}" in case.faults else path

    def read(path: str) -> bytes:
        now = time.monotonic()
        return case.file(at(path), now - began.setdefault(path, now), f"{address}:{port}")

    arguments = port, read, lambda path: case.faults.get(at(path), ()), address, certificate
    if case.away:
        threading.Timer(float(case.away), Origin, arguments).start()
    else:
        Origin(*arguments)
