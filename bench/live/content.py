"""What every segment holds: whoever knows its name can compute each of its bytes.

A segment is a header of one line and a slice of a pool of pseudo-random bytes.
The byte 0 stands at the beginning of every header and nowhere else, so the place
where a segment was cut short is where the next 0 stands.
"""

import random
import zlib

HEADER = 188
SLACK = 1 << 20
FIRST_SEQUENCE = 1000


def segment_size(rate, seconds):
    """Bytes, a multiple of the header's."""
    return max(2, int(rate * seconds / 8) // HEADER) * HEADER


def segment_name(channel, variant, sequence):
    """Of fixed width: a name cut short is never that of another segment."""
    return f"c{channel}/{variant}/{sequence:010d}"


class Content:
    """The pool of all segments up to a size; the same in every process."""

    def __init__(self, largest):
        raw = random.Random(7744).randbytes(SLACK + largest)
        self.pool = raw.translate(bytes([1, *range(1, 256)]))

    @staticmethod
    def offset(name):
        return zlib.crc32(name.encode()) % SLACK

    @staticmethod
    def header(name, size):
        text = f"\0{name} {size} "
        return f"{text}{zlib.crc32(text.encode()):08x} ".encode().ljust(HEADER, b".")

    def segment(self, name, size):
        start = self.offset(name)
        return self.header(name, size) + self.pool[start:start + size - HEADER]

    @classmethod
    def parse_header(cls, header):
        """The name and the size of the segment, or None when a byte is wrong."""
        words = header[1:].split(b" ")
        if len(words) != 4 or not words[1].isdigit():
            return None
        name, size = words[0].decode("latin-1"), int(words[1])
        return (name, size) if cls.header(name, size) == header else None
