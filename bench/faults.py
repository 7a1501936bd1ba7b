"""A fault-injecting proxy: sits in front of a server and occasionally breaks a response."""

import asyncio
import fcntl
import random
import re
import socket
import struct
import termios
import time
from asyncio import StreamReader, StreamWriter
from collections import Counter, defaultdict
from typing import NamedTuple

from live import segment_name
from players import Short

# Seconds, longer than weir waits in a body (2) and before a head (6), with a margin for weir's
# low priority on a busy machine.
STALL, SILENCE = 8, 12
TRICKLE = (20, 0.3)  # pieces, and seconds between them
SEGMENT_FAULTS = {"stall": 4, "cut": 3, "reset": 2, "error": 3, "trickle": 2, "silence": 1}
PLAYLIST_FAULTS = {"error": 3, "cut": 1, "reset": 1, "stall": 1}
CUTTING = {"cut", "reset", "kill"}
NEAR = 15  # seconds around a kill, or a lack of servers, in which it may be a cause


class Event(NamedTuple):
    when: float  # seconds since the beginning
    kind: str
    where: str
    what: str = ""


class Journal:
    """All injected faults and other events."""

    def __init__(self) -> None:
        self.began = time.time()
        self.events: list[Event] = []
        self.of_segment: dict[str, list[Event]] = defaultdict(list)  # by name

    def note(self, kind: str, where: str, what: str = "") -> None:
        event = Event(time.time() - self.began, kind, where, what)
        self.events.append(event)
        if what.endswith(".ts"):
            self.of_segment[what.strip("/").removesuffix(".ts")].append(event)

    def counts(self) -> Counter[str]:
        """A kill counts once, not for each segment that it cut."""
        return Counter(event.kind for event in self.events
                       if event.kind != "kill" or not event.what)

    def explains(self, short: Short) -> bool:
        """A cut explains it, and so do two faults, after which weir restarts or abandons the segment."""
        if not short.name:
            age = short.when - self.began
            return any(0 <= age - event.when < 120 and event.kind in CUTTING for event in self.events)
        faults = self.of_segment.get(short.name, [])
        if len(faults) >= 2 or any(event.kind in CUTTING for event in faults):
            return True
        return bool(faults) and any(abs(event.when - faults[0].when) < NEAR for event in self.events
                                    if event.kind in ("kill", "no server"))

    def touched(self, channel: str, sequence: int) -> bool:
        """Whether any variant of that segment had a fault."""
        return any(segment_name(channel, variant, sequence) in self.of_segment for variant in range(3))


class FaultProxy:
    """Listens on `port` and forwards to `upstream`. `chances` of a fault: per request for a segment, and
    for a media playlist."""

    def __init__(self, name: str, port: int, upstream: int, journal: Journal,
                 chances: tuple[float, float]) -> None:
        self.name, self.port, self.upstream, self.journal = name, port, upstream, journal
        self.faults = ((r".*\.ts$", chances[0], SEGMENT_FAULTS),
                       (r".*/\d\.m3u8$", chances[1], PLAYLIST_FAULTS))
        self.server: asyncio.Server | None = None
        # The path of the last request, and whether that is being answered.
        self.connections: dict[StreamWriter, tuple[str, bool]] = {}

    async def listen(self) -> None:
        self.server = await asyncio.start_server(self._serve, "127.0.0.1", self.port,
                                                 backlog=512, reuse_address=True)

    def kill(self) -> None:
        """Refuses connections from now on, and resets those that are open."""
        assert self.server is not None
        self.server.close()
        self.server = None
        self.journal.note("kill", self.name)
        for writer, (path, answering) in self.connections.items():
            if path.endswith(".ts") and (answering or unsent(writer)):
                self.journal.note("kill", self.name, path)
            reset(writer)

    async def _serve(self, reader: StreamReader, writer: StreamWriter) -> None:
        self.connections[writer] = ("", False)
        try:
            while await self._answer(reader, writer):
                pass
        except (OSError, asyncio.IncompleteReadError, asyncio.CancelledError):
            pass  # either side has disconnected, or this process ends
        finally:
            del self.connections[writer]
            writer.close()

    def _fault_for(self, path: str) -> str:
        """The kind of fault, or "". Keys and master playlists have none."""
        for pattern, chance, kinds in self.faults:
            if re.match(pattern, path) and random.random() < chance:
                kind = random.choices(list(kinds), list(kinds.values()))[0]
                self.journal.note(kind, self.name, path)
                return kind
        return ""

    async def _answer(self, reader: StreamReader, writer: StreamWriter) -> bool:
        """Whether the connection can go on."""
        head = await reader.readuntil(b"\r\n\r\n")
        path = head.split(b" ", 2)[1].decode()
        self.connections[writer] = (path, True)
        fault = self._fault_for(path)
        if fault == "error":
            writer.write(b"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n")
            await writer.drain()
            return False
        if fault == "silence":
            await asyncio.sleep(SILENCE)
            return False
        source, upstream = await asyncio.open_connection("127.0.0.1", self.upstream)
        try:
            upstream.write(head.replace(b"keep-alive", b"close"))
            whole = await relay(source, writer, fault)
        finally:
            upstream.close()
        self.connections[writer] = (path, not whole)
        return whole and b"keep-alive" in head


async def relay(source: StreamReader, writer: StreamWriter, fault: str) -> bool:
    """Whether the answer has been passed on whole."""
    head = await source.readuntil(b"\r\n\r\n")
    match = re.search(rb"\r\nContent-Length: (\d+)", head)
    length = int(match[1]) if match else 0
    writer.write(head.replace(b"Connection: close", b"Connection: keep-alive"))
    sound = random.randrange(max(1, length)) if fault else length
    await copy(source, writer, sound)
    if fault == "reset":
        reset(writer)
    elif fault == "stall":
        await asyncio.sleep(STALL)
    elif fault == "trickle":
        pieces, pause = TRICKLE
        for number in range(pieces):
            await asyncio.sleep(pause)
            await copy(source, writer, (length - sound) * (number + 1) // pieces
                       - (length - sound) * number // pieces)
    return fault in ("", "trickle")


async def copy(source: StreamReader, writer: StreamWriter, count: int) -> None:
    while count > 0:
        piece = await source.read(min(count, 65536))
        if not piece:
            raise ConnectionError("the server closed early")
        writer.write(piece)
        await writer.drain()
        count -= len(piece)


def unsent(writer: StreamWriter) -> bool:
    """Whether bytes are left that the peer's kernel has not received."""
    queued = fcntl.ioctl(writer.get_extra_info("socket").fileno(), termios.TIOCOUTQ, bytes(4))
    return writer.transport.get_write_buffer_size() > 0 or any(queued)


def reset(writer: StreamWriter) -> None:
    """Closes the connection with RST instead of FIN."""
    connection = writer.get_extra_info("socket")
    if connection.fileno() >= 0:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    writer.transport.abort()
