"""Checks every byte of a stream against what its segments hold."""

import time
from dataclasses import dataclass, field

from live.content import HEADER, Content


@dataclass
class Short:
    """A segment that ended before its size, at that byte."""
    name: str
    at: int
    when: float
    restarted: bool = False  # it came once more, from its beginning


@dataclass
class Findings:
    received: int = 0
    verified: int = 0
    wrong: int = 0  # bytes that are not what the segment has at that place
    segments: int = 0
    repeated: int = 0  # segments that came again, though they were whole
    missing: list = field(default_factory=list)  # (channel, sequence)
    shorts: list = field(default_factory=list)
    variants: set = field(default_factory=set)
    first_wrong: str = ""


class StreamCheck:
    """Takes the bytes of one stream as they come."""

    def __init__(self, content):
        self.content = content
        self.found = Findings()
        self.name = ""
        self.size = self.left = self.at = 0
        self.channel, self.sequence = "", 0
        self.header = b""
        self.lost = False

    def feed(self, data):
        self.found.received += len(data)
        start = 0
        while start < len(data):
            if self.lost:
                start = self._find_header(data, start)
            elif self.left:
                start = self._body(data, start)
            else:
                start = self._header(data, start)

    def _body(self, data, start):
        count = min(self.left, len(data) - start)
        piece = memoryview(data)[start:start + count]
        if not self.content.pool.startswith(piece, self.at):
            return self._odd_body(data, start, count)
        self._advance(count)
        self.found.verified += count
        return start + count

    def _advance(self, count):
        self.at += count
        self.left -= count
        if self.left == 0:
            self.found.segments += 1

    def _odd_body(self, data, start, count):
        zero = data.find(0, start, start + count)
        end = zero if zero >= 0 else start + count
        truth = self.content.pool[self.at:self.at + end - start]
        wrong = sum(a != b for a, b in zip(data[start:end], truth))
        if wrong:
            self._note_wrong(wrong)
        self.found.verified += end - start - wrong
        self._advance(end - start)
        if zero >= 0:
            self.found.shorts.append(Short(self.name, self.size - self.left, time.time()))
            self.left = 0
        return end

    def _header(self, data, start):
        piece = data[start:start + HEADER - len(self.header)]
        zero = piece.find(0, 0 if self.header else 1)
        if zero >= 0:  # cut inside its header
            self.found.shorts.append(Short(self._name_in(self.header + piece[:zero]), 0, time.time()))
            self.header = b""
            return start + zero
        self.header += piece
        if self.header[0] != 0 or (len(self.header) == HEADER and not self._begin()):
            self._note_wrong(len(self.header))
            self.header, self.lost = b"", True
        return start + len(piece)

    @staticmethod
    def _name_in(header):
        words = header[1:].split(b" ")
        return words[0].decode("latin-1") if len(words) > 1 else ""

    def _begin(self):
        parsed = Content.parse_header(self.header)
        if parsed is None:
            return False
        name, size = parsed
        self.found.verified += HEADER
        self.header = b""
        self._note_sequence(name)
        self.name, self.size = name, size
        self.left, self.at = size - HEADER, Content.offset(name)
        return True

    def _note_sequence(self, name):
        channel, variant, number = name.split("/")
        sequence = int(number)
        self.found.variants.add(variant)
        last_short = self.found.shorts[-1] if self.found.shorts else None
        if last_short and last_short.name == name == self.name:
            last_short.restarted = True
        elif self.sequence and sequence <= self.sequence:
            self.found.repeated += 1
        elif self.sequence:
            self.found.missing += [(channel, s) for s in range(self.sequence + 1, sequence)]
        self.sequence = sequence

    def _note_wrong(self, count):
        self.found.wrong += count
        if not self.found.first_wrong:
            place = self.found.received
            self.found.first_wrong = f"{self.name or 'before the first segment'}, stream byte <= {place}"

    def _find_header(self, data, start):
        zero = data.find(0, start)
        if zero >= 0:
            self.lost = False
        end = zero if zero >= 0 else len(data)
        self.found.wrong += end - start
        return end
