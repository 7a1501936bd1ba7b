"""Players of live channels: each has every byte of its stream checked as it comes."""

import asyncio
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass, field

from weirlab import client
from weirlab.live import HEADER, Content

AT_ONCE = asyncio.Semaphore(3)  # weir's queue of connections to accept has room for 5


@dataclass
class Short:
    """A segment that ended before its size, at that byte."""
    name: str
    at: int
    restarted: bool = False  # it came once more, from its beginning
    when: float = field(default_factory=time.time)


class StreamCheck:
    """Takes the bytes of one stream as they come, and counts."""

    def __init__(self, content: Content) -> None:
        self.content = content
        self.received = self.verified = self.segments = 0
        self.wrong = 0  # bytes that are not what the segment has at that place
        self.repeated = 0  # segments that came again, though they were whole
        self.missing: list[tuple[str, int]] = []  # channel and sequence
        self.shorts: list[Short] = []
        self.variants: set[str] = set()
        self.first_wrong = ""
        self.header: bytes | None = None  # what has come of it, until it is whole
        self.name, self.sequence = "", 0
        self.first = 0  # sequence
        self.size = self.left = self.at = 0

    def feed(self, data: bytes) -> None:
        before, *begun = data.split(b"\0")
        self.received += len(data)
        self._take(before)
        for piece in begun:
            self._begin_header()
            self._take(piece)

    def _begin_header(self) -> None:
        if self.header is not None:  # the last one was cut short
            words = self.header[1:].split(b" ")
            self.shorts.append(Short(words[0].decode("latin-1") if len(words) > 1 else "", 0))
        elif self.left:
            self.shorts.append(Short(self.name, self.size - self.left))
        self.header, self.left = b"\0", 0

    def _take(self, piece: bytes) -> None:
        """Bytes of a header, of its segment, and then of nothing that could be told."""
        if self.header is not None:
            count = HEADER - len(self.header)
            self.header, piece = self.header + piece[:count], piece[count:]
            if len(self.header) < HEADER:
                return
            self._begin_segment(self.header)
            self.header = None
        count = sound = min(len(piece), self.left)
        if not self.content.pool.startswith(piece[:count], self.at):
            truth = self.content.pool[self.at:self.at + count]
            sound = sum(a == b for a, b in zip(piece, truth))
        self.verified += sound
        self.at += count
        self.left -= count
        self.segments += count > 0 and self.left == 0
        self._note_wrong(len(piece) - sound)

    def _begin_segment(self, header: bytes) -> None:
        parsed = Content.parse_header(header)
        if parsed is None:
            self._note_wrong(HEADER)
            return
        name, self.size = parsed
        self.verified += HEADER
        channel, variant, number = name.split("/")
        sequence = int(number)
        self.variants.add(variant)
        if self.shorts and self.shorts[-1].name == name == self.name:
            self.shorts[-1].restarted = True
        elif self.sequence and sequence <= self.sequence:
            self.repeated += 1
        elif self.sequence:
            self.missing += [(channel, s) for s in range(self.sequence + 1, sequence)]
        self.name, self.sequence = name, sequence
        self.first = self.first or sequence
        self.left, self.at = self.size - HEADER, Content.offset(name)

    def _note_wrong(self, count: int) -> None:
        self.wrong += count
        if count and not self.first_wrong:
            place = self.name or "before the first segment"
            self.first_wrong = f"{place}, stream byte <= {self.received}"


class Player(asyncio.Protocol):
    """Reads what comes, or no more than `rate` bytes a second."""

    def __init__(self, content: Content, rate: float | None = None) -> None:
        self.found = StreamCheck(content)
        self.rate = rate
        self.head: bytes | None = b""
        self.started = self.last = time.monotonic()
        self.first = 0.0  # when media came for the first time
        self.longest_gap = 0.0  # seconds between two arrivals
        self.error: Exception | None = None
        self.ended = asyncio.get_running_loop().create_future()
        self.transport: asyncio.Transport

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        assert isinstance(transport, asyncio.Transport)
        self.transport = transport

    def data_received(self, data: bytes) -> None:
        now = time.monotonic()
        self.longest_gap = max(self.longest_gap, now - self.last)
        self.last = now
        if self.head is not None:
            self.head, separator, data = (self.head + data).partition(b"\r\n\r\n")
            if not separator:
                return
            self.head = None
        if data:
            self.first = self.first or now
        self.found.feed(data)
        if self.rate is not None:
            self.transport.pause_reading()
            asyncio.get_running_loop().call_later(len(data) / self.rate, self._go_on)

    def _go_on(self) -> None:
        if not self.transport.is_closing():
            self.transport.resume_reading()

    def connection_lost(self, exc: Exception | None) -> None:
        self.error = exc
        if not self.ended.done():
            self.ended.set_result(None)

    def leave(self) -> None:
        """As a player that is switched off: what is on the way is refused."""
        self.transport.abort()


async def open_stream(content: Content, master: str, start_from: int = -3,
                      rate: float | None = None, host: str = "127.0.0.1",
                      port: int = client.WEIR) -> Player:
    async with AT_ONCE:
        _, player = await asyncio.get_running_loop().create_connection(
            lambda: Player(content, rate), host, port)
    player.transport.write(client.request(client.stream_path(master, start_from)))
    return player


async def until(condition: Callable[[], object], seconds: float) -> None:
    """Waits for it, but no longer than that."""
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        await asyncio.sleep(0.2)


class Seat:
    """A player that begins again at once when its stream ends."""

    def __init__(self) -> None:
        self.players: list[Player] = []
        self.lost: list[float] = []  # when each but the last one ended

    async def watch(self, content: Content, master: str, host: str, port: int) -> None:
        while True:
            self.players.append(await open_stream(content, master, host=host, port=port))
            await self.players[-1].ended
            self.lost.append(time.monotonic())
            if not self.players[-1].first:
                await asyncio.sleep(0.1)

    def playing(self) -> bool:
        return len(self.players) > len(self.lost) and self.players[-1].found.first > 0

    def pause(self) -> float:
        """The longest without media, since that was set to 0."""
        return max(self.players[-1].longest_gap, time.monotonic() - self.players[-1].last)


class Audience:
    """Seats in a thread of their own, so that nobody else holds the players up."""

    def __init__(self, content: Content, host: str, port: int) -> None:
        self.content, self.host, self.port = content, host, port
        self.seats: list[Seat] = []
        self.loop = asyncio.new_event_loop()
        threading.Thread(target=self.loop.run_forever, daemon=True).start()

    def add(self, master: str) -> None:
        self.seats.append(Seat())
        asyncio.run_coroutine_threadsafe(
            self.seats[-1].watch(self.content, master, self.host, self.port), self.loop)

    def lost(self) -> int:
        """Streams so far."""
        return sum(len(seat.lost) for seat in self.seats)

    def total(self, name: str) -> int:
        """Of what the checks of all streams have found."""
        values = [getattr(player.found, name) for seat in self.seats for player in seat.players]
        return sum(len(value) if isinstance(value, list) else value for value in values)
