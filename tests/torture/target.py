"""The real program under the shim, and a session with it: maps, a stream, the statistics."""

import contextlib
import mmap
import random
import signal
import subprocess
import time
from pathlib import Path

from weirlab import client, procfs
from weirlab.lab import Lab, Process
from weirlab.video import KEY, encrypt

ORIGIN = 8000
BOUND = 40  # s; no wait of the program for one failure is longer than 16
SETTLING = 10  # s, for threads to end after the answer; a join waits for 2 s at most

# A clear segment that needs two blocks of the buffer, and an encrypted one that needs several
# reads and a third block. No byte stands in both.
SOURCE = random.Random(1)
CLEAR = SOURCE.randbytes(530_000).translate(bytes(i & 127 for i in range(256)))
PLAIN = SOURCE.randbytes(420_000).translate(bytes(i | 128 for i in range(256)))
SECRET = encrypt(PLAIN)
HEAD = (b"HTTP/1.0 200 Streaming...\r\nContent-Type: application/octet-stream\r\n"
        b"Connection: close\r\nAllow: GET, HEAD\r\n"
        b"Cache-Control: no-cache\r\nAccess-Control-Allow-Origin: *\r\n\r\n")
WHOLE = HEAD + CLEAR + PLAIN
VARIANT = f"""#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:1
#EXTINF:5,\nhttp://@/video/one/clear.ts
#EXT-X-KEY:METHOD=AES-128,URI="http://localhost:{ORIGIN}/key"
#EXTINF:5,\nhttp://@/video/one/secret.ts\n#EXT-X-ENDLIST\n""".encode()
FILES = {"/video/one/clear.ts": CLEAR, "/video/one/secret.ts": SECRET, "/key": KEY,
         "/video/a.m3u8": VARIANT, "/video/b.m3u8": VARIANT, "/video/master.m3u8":
         b"#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000\n"
         b"http://~/video/a.m3u8\nhttp://~/video/b.m3u8\n"}
MAPS = client.maps_path(f"127.0.0.1:{ORIGIN},127.0.0.2:{ORIGIN}")
STREAM = client.stream_path("http://~/video/master.m3u8")

# The order of the calls and the layout of the page, in words of 8 bytes, are the shim's.
CALLS = ("malloc calloc realloc memalign socket connect accept setsockopt fcntl select poll sleep "
         "client-read client-write upstream-read upstream-write log-write thread resolve").split()
ARMED, NTH, ERROR, FIRED, ALIVE, COUNTS = range(6)

State = tuple[int, int, int]  # threads, descriptors, live allocations


def session() -> bytes:
    """What the player got."""
    client.ask(MAPS, timeout=BOUND)
    media = client.ask(STREAM, timeout=BOUND)
    client.ask("/stats.json", timeout=BOUND)
    return media


class Target:
    """A running weir; start() gives another when it has ended."""

    def __init__(self, lab: Lab, program: Path, shim: Path, warm: bool) -> None:
        """A warm one has done already what is done only once."""
        page = lab.work / "page"
        page.write_bytes(bytes((COUNTS + len(CALLS)) * 8))
        with open(page, "r+b") as file:
            self.page = memoryview(mmap.mmap(file.fileno(), 0)).cast("q")
        # Stacks that are kept would be allocations that stay.
        self.prefix = ["env", f"LD_PRELOAD={shim}", f"WEIR_TORTURE={page}",
                       "GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0"]
        self.lab, self.program, self.warm = lab, program, warm
        self.last = (0, 0, 0)
        self.process, self.idle = self.launch()

    def launch(self) -> tuple[Process, State]:
        """The process, and what it has when idle."""
        self.page[ARMED], self.page[ALIVE] = -1, 0
        self.lab.log.write_bytes(b"")
        process = self.lab.weir(self.program, 1_000_000, self.prefix)
        if self.warm:
            session()
        idle = (0, 0, 0)
        while idle[0] != 1 or idle != self.state(process):
            client.ask("/stats.json")  # see settled()
            idle = self.state(process)
            time.sleep(0.02)
        return process, idle

    def restart(self) -> None:
        self.stop()
        self.process, self.idle = self.launch()

    def stop(self) -> None:
        self.lab.end(self.process, signal.SIGKILL)

    def state(self, process: Process) -> State:
        return procfs.threads(process.pid), procfs.descriptors(process.pid), self.page[ALIVE]

    def arm(self, call: int, error: int = 0, nth: int = 0) -> None:
        self.page[FIRED] = 0
        for i in range(COUNTS, len(self.page)):
            self.page[i] = 0
        self.page[NTH], self.page[ERROR], self.page[ARMED] = nth, error, call

    def reach(self) -> list[int]:
        """How often a session calls what."""
        self.arm(-1)
        session()
        return self.page[COUNTS:].tolist()

    def settled(self) -> bool:
        """Whether it is again what it was; a cold one only in threads and descriptors."""
        compared = 3 if self.warm else 2
        deadline = time.monotonic() + SETTLING
        while self.process.poll() is None and time.monotonic() < deadline:
            with contextlib.suppress(FileNotFoundError, PermissionError):  # it is just ending
                self.last = self.state(self.process)
                if self.last[:compared] == self.idle[:compared]:
                    return True
                if self.last[:2] == self.idle[:2]:
                    client.ask("/stats.json")  # a thread that ends alone frees what two at once left
            time.sleep(0.005)
        return False

    def ended(self) -> int | None:
        """How, or None; one that answers no more may still be on its way out."""
        try:
            return self.process.wait(1)
        except subprocess.TimeoutExpired:
            return None
