"""Players: each opens a stream and has every byte of it checked as it comes."""

import asyncio
import time
import urllib.parse

from live.rig import WEIR
from live.verify import StreamCheck

AT_ONCE = asyncio.Semaphore(3)  # weir's queue of connections to accept has room for 5


class Player(asyncio.Protocol):
    """Reads what comes, or no more than `rate` bytes a second."""

    def __init__(self, content, rate=None):
        self.check = StreamCheck(content)
        self.rate = rate
        self.head = b""
        self.started = self.last = time.monotonic()
        self.longest_gap = 0.0  # seconds between two arrivals
        self.left = False
        self.error = None
        self.ended = asyncio.get_running_loop().create_future()
        self.transport = None
        self.timer = None

    def connection_made(self, transport):
        self.transport = transport

    def data_received(self, data):
        now = time.monotonic()
        self.longest_gap = max(self.longest_gap, now - self.last)
        self.last = now
        if self.head is not None:
            self.head += data
            head, separator, data = self.head.partition(b"\r\n\r\n")
            if not separator:
                return
            self.head = None
        self.check.feed(data)
        if self.rate is not None:
            self.transport.pause_reading()
            loop = asyncio.get_running_loop()
            self.timer = loop.call_later(len(data) / self.rate, self._go_on)

    def _go_on(self):
        if not self.transport.is_closing():
            self.transport.resume_reading()

    def connection_lost(self, exc):
        if self.timer is not None:
            self.timer.cancel()
        self.error = exc
        if not self.ended.done():
            self.ended.set_result(None)

    def leave(self):
        """As a player that is switched off: what is on the way is refused."""
        self.left = True
        self.transport.abort()

    @property
    def found(self):
        return self.check.found


async def open_stream(content, master, start_from=-3, rate=None):
    async with AT_ONCE:
        _, player = await asyncio.get_running_loop().create_connection(
            lambda: Player(content, rate), "127.0.0.1", WEIR)
    url = urllib.parse.quote(master, safe="")
    player.transport.write(f"GET /stream.ts?url={url}&startFrom={start_from} HTTP/1.1\r\n\r\n"
                           .encode())
    return player


async def open_silent(count):
    """Connections that never say a word."""
    writers = []
    for _ in range(count):
        async with AT_ONCE:
            writers.append((await asyncio.open_connection("127.0.0.1", WEIR))[1])
        await asyncio.sleep(0.001)
    return writers
