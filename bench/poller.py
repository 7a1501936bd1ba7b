"""Polls /stats.json continuously and pings the watchdog."""

import json
import multiprocessing
import time
from multiprocessing.connection import Connection
from typing import Any

from weirlab import client
from weirlab.lab import in_background

PING_EVERY = 10  # seconds


class Poller:
    """Runs in a process of its own, so that only weir and the machine delay it.

    Create it before any connections: that process would keep them open.
    """

    def __init__(self, interval: float) -> None:
        self.pipe, other = multiprocessing.Pipe()
        in_background(poll, other, interval)

    def start(self) -> None:
        self.pipe.send(None)

    def stop(self) -> dict[str, Any]:
        """The numbers of polls and failures, and the longest response time in seconds."""
        self.pipe.send(None)
        result: dict[str, Any] = self.pipe.recv()
        return result


def poll(pipe: Connection, interval: float) -> None:
    polls, longest, failures = 0, 0.0, list[str]()
    next_ping = wait = 0.0
    pipe.recv()  # start
    while not pipe.poll(wait):
        began = time.monotonic()
        try:
            json.loads(client.get("/stats.json"))
            polls, longest = polls + 1, max(longest, time.monotonic() - began)
            if began >= next_ping:
                client.get("/watchdog")
                next_ping = began + PING_EVERY
        except (OSError, ValueError) as error:
            failures.append(str(error))
        wait = max(0, began + interval - time.monotonic())
    pipe.send({"polls": polls, "longest": longest, "failures": len(failures), "first failure": failures[:1]})
