"""Live channels whose every byte follows from the name of its segment.

A segment is a header of one line and a slice of a pool of pseudo-random bytes. Every header begins
with the byte 0, which occurs nowhere else, so a 0 inside a segment shows where it was cut short.
"""

import random
import time
import zlib
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

from weirlab.lab import in_background, wait_until
from weirlab.video import KEY, encrypt, master_playlist, media_playlist, replace

HEADER = 188
SLACK = 1 << 20
FIRST_SEQUENCE = 1000
WINDOW = 10  # segments
KEPT = 12  # segments available after they have left the playlist


def segment_size(rate: int, seconds: float) -> int:
    """Bytes, a multiple of the header's."""
    return max(2, int(rate * seconds / 8) // HEADER) * HEADER


def segment_name(channel: int | str, variant: int | str, sequence: int) -> str:
    """Has a fixed width, so that a truncated name is never another segment's."""
    return f"{channel}/{variant}/{sequence:010d}"


class Content:
    """The pool of all segments up to a size; the same in every process."""

    def __init__(self, largest: int) -> None:
        raw = random.Random(7744).randbytes(SLACK + largest)
        self.pool = raw.translate(bytes([1, *range(1, 256)]))

    @staticmethod
    def offset(name: str) -> int:
        return zlib.crc32(name.encode()) % SLACK

    @staticmethod
    def header(name: str, size: int) -> bytes:
        text = f"\0{name} {size} "
        return f"{text}{zlib.crc32(text.encode()):08x} ".encode().ljust(HEADER, b".")

    def segment(self, name: str, size: int) -> bytes:
        start = self.offset(name)
        return self.header(name, size) + self.pool[start:start + size - HEADER]

    @classmethod
    def parse_header(cls, header: bytes) -> tuple[str, int] | None:
        """The name and the size of the segment, or None if a byte is wrong."""
        words = header[1:].split(b" ")
        if len(words) != 4 or not words[1].isdigit():
            return None
        name, size = words[0].decode("latin-1"), int(words[1])
        return (name, size) if cls.header(name, size) == header else None


@dataclass
class Channels:
    """Publishes channels c0, c1 and so on below a web root, the clear ones first.

    All variants share their numbering. `playlists`, `segments` and `keys` are the scheme and host
    of each kind of URL.
    """
    root: Path
    rates: Sequence[int]  # bits a second, one for each variant
    seconds: float  # a segment
    clear: int
    encrypted: int
    playlists: str
    segments: str
    keys: str

    def start(self) -> Content:
        """Publishes from a separate process, which ends with this one."""
        content = Content(segment_size(max(self.rates), self.seconds))
        in_background(self._run, content)
        wait_until("the channels", lambda: len(list(self.root.glob("c0/0/*.ts"))) >= WINDOW, 60)
        return content

    def _run(self, content: Content) -> None:
        for channel in range(self.clear + self.encrypted):
            folder = self.root / f"c{channel}"
            for variant in range(len(self.rates)):
                (folder / str(variant)).mkdir(parents=True)
            (folder / "key").write_bytes(KEY)
            replace(folder / "master.m3u8", master_playlist(
                {f"{self.playlists}/c{channel}/{variant}.m3u8": rate
                 for variant, rate in enumerate(self.rates)}))
        began, sequence = time.monotonic(), FIRST_SEQUENCE
        while True:
            for channel in range(self.clear + self.encrypted):
                for variant in range(len(self.rates)):
                    self._publish(content, channel, variant, sequence)
            sequence += 1
            due = began + max(0, sequence - FIRST_SEQUENCE - WINDOW) * self.seconds
            time.sleep(max(0, due - time.monotonic()))

    def _publish(self, content: Content, channel: int, variant: int, last: int) -> None:
        """Adds the segment of that number, drops an old one and moves the playlist on."""
        def path(sequence: int) -> str:
            return f"{segment_name(f'c{channel}', variant, sequence)}.ts"

        data = content.segment(segment_name(f"c{channel}", variant, last),
                               segment_size(self.rates[variant], self.seconds))
        secret = channel >= self.clear
        replace(self.root / path(last), encrypt(data) if secret else data)
        (self.root / path(last - WINDOW - KEPT)).unlink(missing_ok=True)
        first = max(FIRST_SEQUENCE, last + 1 - WINDOW)
        replace(self.root / f"c{channel}/{variant}.m3u8", media_playlist(
            [f"{self.segments}/{path(sequence)}" for sequence in range(first, last + 1)],
            self.seconds, first, f"{self.keys}/c{channel}/key" if secret else "", over=False))
