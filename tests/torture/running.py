"""The real program, run with the shim."""

import contextlib
import mmap
import os
import re
import subprocess
import time
from pathlib import Path

from film import ask, session

HERE = Path(__file__).resolve().parent
# The order of the calls and the layout of the page, in words of 8 bytes, are the shim's.
CALLS = ("malloc calloc realloc memalign socket connect accept setsockopt fcntl select poll sleep "
         "client-read client-write upstream-read upstream-write log-write thread resolve").split()
ARMED, NTH, ERROR, FIRED, ALIVE, DEPTH, COUNTS, TRACE, PAGE = 0, 1, 2, 3, 4, 5, 6, 32, 64
SETTLING = 10  # s, for threads to end after the answer; a join waits for 2 s at most


class Weir:
    """A running weir; start() gives another when it has ended."""

    def __init__(self, program, shim, work):
        self.command = ["script/without-reboot", "env", f"LD_PRELOAD={shim}",
                        f"WEIR_TORTURE={work}/page",
                        # Kept stacks would be allocations that stay.
                        "GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0",
                        program, "1000000"]
        self.errors, self.process, self.base = work / "errors", None, 0
        self.idle = self.last = None
        (work / "page").write_bytes(bytes(PAGE * 8))
        with open(work / "page", "r+b") as file:
            self.page = memoryview(mmap.mmap(file.fileno(), 0)).cast("q")

    def start(self, warm):
        self.page[ARMED], self.page[ALIVE] = -1, 0
        with open(self.errors, "wb") as errors:
            self.process = subprocess.Popen(self.command, cwd=HERE.parents[1], stderr=errors,
                                            stdout=subprocess.DEVNULL)
        while not ask("/stats.json"):
            assert self.process.poll() is None, self.errors.read_text()
            time.sleep(0.01)
        capabilities = re.search(r"CapEff:\s*(\w+)", self.proc("status").read_text())
        assert not int(capabilities[1], 16) >> 22 & 1, "weir could reboot"
        self.base = int(self.proc("maps").read_text().split("-")[0], 16)
        if warm:
            session()  # what is done only once is done now
        self.idle = None
        while self.idle is None or self.idle[0] != 1 or self.idle != self.state():
            ask("/stats.json")  # see settled()
            self.idle = self.state()
            time.sleep(0.05)

    def proc(self, name):
        return Path(f"/proc/{self.process.pid}/{name}")

    def state(self):
        """Threads, descriptors, live allocations."""
        return (len(os.listdir(self.proc("task"))), len(os.listdir(self.proc("fd"))),
                self.page[ALIVE])

    def arm(self, call, error=0, nth=0):
        for i in (FIRED, DEPTH, *range(COUNTS, TRACE)):
            self.page[i] = 0
        self.page[NTH], self.page[ERROR], self.page[ARMED] = nth, error, call

    def reach(self):
        """How often a session calls what. The first of a process must not do more than others."""
        self.start(warm=False)
        counts = []
        for _ in range(2):
            self.arm(-1)
            session()
            counts.append(self.page[COUNTS:TRACE].tolist())
        self.stop()
        first, later = (count[CALLS.index("malloc")] for count in counts)
        assert first < later + 50, f"{first} allocations in the first stream, {later} in the next"
        return counts[1]

    def settled(self, warm):
        """Whether it is again what it was; a cold one only in threads and descriptors."""
        compared = 3 if warm else 2
        deadline = time.monotonic() + SETTLING
        while self.process.poll() is None and time.monotonic() < deadline:
            with contextlib.suppress(FileNotFoundError, PermissionError):  # it is just ending
                self.last = self.state()
                if self.last[:compared] == self.idle[:compared]:
                    return True
                if self.last[:2] == self.idle[:2]:
                    ask("/stats.json")  # a thread that ends alone frees what two at once left
            time.sleep(0.005)
        return False

    def stop(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()

    def ended(self):
        """How, or None; one that answers no more may still be on its way out."""
        try:
            return self.process.wait(1)
        except subprocess.TimeoutExpired:
            return None
