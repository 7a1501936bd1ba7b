"""Players of live channels that compare every byte of their streams on arrival."""

import asyncio
import threading
import time
from dataclasses import dataclass, field

from live import HEADER, Content
from weirlab import client

AT_ONCE = asyncio.Semaphore(3)  # weir's queue of connections to accept has room for 5


@dataclass
class Short:
    """A segment that ended early, after that many bytes."""
    name: str
    at: int
    restarted: bool = False  # it came again, from its beginning
    when: float = field(default_factory=time.time)


class StreamCheck:
    """Compares the bytes of one stream as they arrive, and counts."""

    def __init__(self, content: Content) -> None:
        self.content = content
        self.received = self.verified = self.segments = 0
        self.wrong = 0  # bytes in pieces that differ from the segment
        self.repeated = 0  # segments that came again although they were whole
        self.missing: list[tuple[str, int]] = []  # channel and sequence
        self.shorts: list[Short] = []
        self.variants: set[str] = set()
        self.first_wrong = ""
        self.header = b""  # until it is whole
        self.name, self.first, self.sequence = "", 0, 0
        self.size = self.left = self.at = 0

    def feed(self, data: bytes) -> None:
        self.received += len(data)
        for number, piece in enumerate(data.split(b"\0")):
            if number > 0:
                self._end_segment()
                self.header = b"\0"
            if self.header:
                count = HEADER - len(self.header)
                self.header, piece = self.header + piece[:count], piece[count:]
                if len(self.header) == HEADER:
                    self._begin_segment(self.header)
                    self.header = b""
            if piece:
                self._compare(piece)

    def _end_segment(self) -> None:
        if self.header:
            name, *more = self.header[1:].decode("latin-1").split(" ")
            self.shorts.append(Short(name if more else "", 0))
        elif self.left:
            self.shorts.append(Short(self.name, self.size - self.left))
        self.left = 0

    def _begin_segment(self, header: bytes) -> None:
        parsed = Content.parse_header(header)
        if parsed is None:
            return self._count(HEADER, False)
        name, self.size = parsed
        channel, variant, number = name.split("/")
        sequence = int(number)
        self.variants.add(variant)
        if self.shorts and self.shorts[-1].name == name == self.name:
            self.shorts[-1].restarted = True
        elif self.sequence and sequence <= self.sequence:
            self.repeated += 1
        elif self.sequence:
            self.missing += [(channel, s) for s in range(self.sequence + 1, sequence)]
        self.name, self.sequence, self.first = name, sequence, self.first or sequence
        self.left, self.at = self.size - HEADER, Content.offset(name)
        self._count(HEADER, True)

    def _compare(self, piece: bytes) -> None:
        right = len(piece) <= self.left and self.content.pool.startswith(piece, self.at)
        self.at += len(piece)
        self.left = max(0, self.left - len(piece))
        self.segments += right and self.left == 0
        self._count(len(piece), right)

    def _count(self, size: int, right: bool) -> None:
        self.verified += size if right else 0
        self.wrong += 0 if right else size
        if not right and not self.first_wrong:
            self.first_wrong = f"{self.name or 'before the first segment'}, stream byte <= {self.received}"


class Player(asyncio.Protocol):
    """Reads what arrives, or at most `rate` bytes a second."""

    def __init__(self, content: Content, rate: float | None = None) -> None:
        self.found = StreamCheck(content)
        self.rate = rate
        self.head: bytes | None = b""
        self.started = self.last = time.monotonic()
        self.first = 0.0  # when the first media arrived
        self.longest_gap = 0.0  # seconds between two arrivals
        self.error: Exception | None = None
        self.ended = asyncio.get_running_loop().create_future()
        self.transport: asyncio.Transport

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        assert isinstance(transport, asyncio.Transport)
        self.transport = transport

    def data_received(self, data: bytes) -> None:
        now = time.monotonic()
        self.longest_gap, self.last = max(self.longest_gap, now - self.last), now
        if self.head is not None:
            self.head, separator, data = (self.head + data).partition(b"\r\n\r\n")
            self.head = None if separator else self.head
        if data:
            self.first = self.first or now
            self.found.feed(data)
        if self.rate is not None:
            self.transport.pause_reading()
            asyncio.get_running_loop().call_later(len(data) / self.rate, self.transport.resume_reading)

    def connection_lost(self, exc: Exception | None) -> None:
        self.error = exc
        if not self.ended.done():
            self.ended.set_result(None)

    def leave(self) -> None:
        """Refuses what is on the way, like a player that is switched off."""
        self.transport.abort()


async def open_stream(content: Content, master: str, start_from: int = -3, rate: float | None = None,
                      host: str = "127.0.0.1", port: int = client.WEIR) -> Player:
    async with AT_ONCE:
        _, player = await asyncio.get_running_loop().create_connection(
            lambda: Player(content, rate), host, port)
    player.transport.write(client.request(client.stream_path(master, start_from)))
    return player


class Seat:
    """A player that reconnects at once when its stream ends."""

    def __init__(self) -> None:
        self.players: list[Player] = []
        self.lost: list[float] = []  # when each but the last one ended

    async def watch(self, content: Content, master: str, host: str, port: int) -> None:
        while True:
            try:
                self.players.append(await open_stream(content, master, host=host, port=port))
            except OSError:
                await asyncio.sleep(0.1)
                continue
            await self.players[-1].ended
            self.lost.append(time.monotonic())
            if not self.players[-1].first:
                await asyncio.sleep(0.1)

    def playing(self) -> bool:
        return len(self.players) > len(self.lost) and self.players[-1].found.first > 0

    def pause(self) -> float:
        """The longest time without media since `longest_gap` was set to 0."""
        return max(self.players[-1].longest_gap, time.monotonic() - self.players[-1].last)


class Audience:
    """Seats in a thread of their own, so that nothing else delays the players."""

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
        """How many streams have ended so far."""
        return sum(len(seat.lost) for seat in self.seats)

    def total(self, name: str) -> int:
        """The sum of that attribute of all checks."""
        values = [getattr(player.found, name) for seat in self.seats for player in seat.players]
        return sum(len(value) if isinstance(value, list) else value for value in values)
