"""A proxy that does harm: a relay for GET requests that now and then fails one."""

import asyncio
import fcntl
import random
import re
import socket
import struct
import termios
import time
from collections import Counter, defaultdict

# Seconds, longer than weir waits in a body (2) and before a head (6), and by so much
# that it has given up even where it, at the lowest priority, gets no processor for a while.
STALL, SILENCE = 8, 12
TRICKLE = (20, 0.3)  # pieces, and seconds between them
SEGMENT_FAULTS = {"stall": 4, "cut": 3, "reset": 2, "error": 3, "trickle": 2, "silence": 1}
PLAYLIST_FAULTS = {"error": 3, "cut": 1, "reset": 1, "stall": 1}
CUTTING = {"cut", "reset", "kill"}
NEAR = 15  # seconds around a kill, or a lack of servers, in which it may play a part


class Journal:
    """All harm that was done."""

    def __init__(self):
        self.began = time.time()
        self.events = []  # (seconds since the beginning, kind, where, what)
        self.of_segment = defaultdict(list)  # name: [(time, kind)]
        self.second_causes = []  # when a cache died, or weir knew no living one

    def note(self, kind, where, what):
        now = time.time()
        self.events.append((now - self.began, kind, where, what))
        if what.endswith(".ts"):
            self.of_segment[what.strip("/").removesuffix(".ts")].append((now, kind))
        if kind in ("kill", "no server"):
            self.second_causes.append(now)

    def counts(self):
        return Counter(kind for _, kind, _, _ in self.events)

    def explains_short(self, short):
        """A cut does, and so do two causes: weir begins anew, or gives the segment up."""
        faults = self.of_segment.get(short.name, [])
        if not short.name:
            return any(0 <= short.when - self.began - t < 120 and kind in CUTTING
                       for t, kind, _, _ in self.events)
        if len(faults) >= 2 or any(kind in CUTTING for _, kind in faults):
            return True
        return bool(faults) and any(abs(when - faults[0][0]) < NEAR for when in self.second_causes)

    def touched(self, channel, sequence):
        """Whether any variant of that segment had a fault."""
        return any(f"{channel}/{variant}/{sequence:010d}" in self.of_segment
                   for variant in range(3))


class FaultProxy:
    """Listens on `port` before the server on `upstream`."""

    def __init__(self, name, port, upstream, journal, chances):
        self.name, self.port, self.upstream, self.journal = name, port, upstream, journal
        self.segment_chance, self.playlist_chance = chances
        self.server = None
        self.open_connections = {}  # writer: the path that is being answered or was last
        self.answering = set()  # writers

    async def listen(self):
        self.server = await asyncio.start_server(self._serve, "127.0.0.1", self.port,
                                                 backlog=512, reuse_address=True)

    def kill(self):
        """Refuses connections from now on, and resets those that are open."""
        self.server.close()
        self.server = None
        self.journal.note("kill", self.name, "")
        for writer, path in self.open_connections.items():
            if path.endswith(".ts") and (writer in self.answering or unsent(writer)):
                self.journal.note("kill", self.name, path)
            reset(writer)

    async def _serve(self, reader, writer):
        self.open_connections[writer] = ""
        try:
            while await self._answer(reader, writer):
                pass
        except (OSError, asyncio.IncompleteReadError):
            pass  # either side has gone
        finally:
            del self.open_connections[writer]
            self.answering.discard(writer)
            writer.close()

    def _fault_for(self, path):
        """Its kind, or nothing. Keys and master playlists are left in peace."""
        if path.endswith(".ts"):
            chance, kinds = self.segment_chance, SEGMENT_FAULTS
        elif re.search(r"/\d[.]m3u8$", path):
            chance, kinds = self.playlist_chance, PLAYLIST_FAULTS
        else:
            return None
        if random.random() >= chance:
            return None
        return random.choices(list(kinds), kinds.values())[0]

    async def _answer(self, reader, writer):
        head = await reader.readuntil(b"\r\n\r\n")
        path = head.split(b" ", 2)[1].decode()
        self.open_connections[writer] = path
        self.answering.add(writer)
        fault = self._fault_for(path)
        if fault is not None:
            self.journal.note(fault, self.name, path)
        if fault == "error":
            writer.write(b"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n")
            await writer.drain()
            return False
        if fault == "silence":
            await asyncio.sleep(SILENCE)
            return False
        source, request = await asyncio.open_connection("127.0.0.1", self.upstream)
        try:
            request.write(head.replace(b"keep-alive", b"close"))
            whole = await self._relay(source, writer, fault)
            if whole:
                self.answering.discard(writer)
            return whole and b"keep-alive" in head
        finally:
            request.close()

    async def _relay(self, source, writer, fault):
        """Whether the body has arrived whole."""
        head = await source.readuntil(b"\r\n\r\n")
        match = re.search(rb"\r\nContent-Length: (\d+)", head)
        length = int(match[1]) if match else 0
        writer.write(head.replace(b"Connection: close", b"Connection: keep-alive"))
        sound = random.randrange(max(1, length)) if fault else length
        if not await copy(source, writer, sound):
            return False
        if fault == "reset":
            reset(writer)
        elif fault == "stall":
            await asyncio.sleep(STALL)
        elif fault == "trickle":
            return await trickle(source, writer, length - sound)
        return fault is None


async def copy(source, writer, count):
    while count > 0:
        piece = await source.read(min(count, 65536))
        if not piece:
            return False
        writer.write(piece)
        await writer.drain()
        count -= len(piece)
    return True


async def trickle(source, writer, count):
    pieces, pause = TRICKLE
    for left in range(pieces, 0, -1):
        piece = count // left
        if not await copy(source, writer, piece):
            return False
        count -= piece
        await asyncio.sleep(pause)
    return True


def unsent(writer):
    """Whether bytes are left that the other side's kernel does not have."""
    queued = fcntl.ioctl(writer.get_extra_info("socket").fileno(), termios.TIOCOUTQ, bytes(4))
    return writer.transport.get_write_buffer_size() > 0 or any(queued)


def reset(writer):
    """Ends the connection with RST in place of FIN."""
    connection = writer.get_extra_info("socket")
    if connection.fileno() >= 0:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    writer.transport.abort()
