"""Bounds in time, also for what has none of its own, such as a look-up of a name."""

import threading
import time
from collections.abc import Callable
from concurrent.futures import Future
from typing import TypeVar

Result = TypeVar("Result")


def begin(function: Callable[[], Result]) -> Callable[[float], Result]:
    """Starts it in the background. The returned function waits up to that many seconds for its result;
    TimeoutError then leaves it running, and nothing waits for it at exit."""
    future = Future[Result]()

    def run() -> None:
        try:
            future.set_result(function())
        except BaseException as error:  # raised again by result()
            future.set_exception(error)

    threading.Thread(target=run, daemon=True).start()
    return future.result


class Deadline:
    def __init__(self, seconds: float) -> None:
        self.end = time.monotonic() + seconds

    def left(self) -> float:
        return max(self.end - time.monotonic(), 0)
