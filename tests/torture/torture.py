#!/usr/bin/env python3
"""Every fallible call of a short stream fails once; nothing but the rules may follow.

Workers, each in a network of its own with an origin, a player and a weir, share the
calls among them: for every function and every n that a session reaches, the n-th call
fails (shim.cpp). Then weir must have answered as the table of faults promises, be as it
was before to the last thread, descriptor and allocation, and serve a session whole; or
have ended in the one way allowed.
"""

import argparse
import errno
import multiprocessing.util
import os
import resource
import signal
import time
from collections.abc import Sequence
from concurrent.futures import ProcessPoolExecutor
from pathlib import Path
from typing import NamedTuple

from target import (ARMED, CALLS, CLEAR, FILES, FIRED, HEAD, ORIGIN, PLAIN, SECRET, WHOLE, Target,
                    session)
from weirlab.lab import Lab
from weirlab.network import own_network
from weirlab.origin import Origin

ONCE = 3  # threads: of the request for maps, of that for the stream, and the stream's timer


class Fault(NamedTuple):
    """What fails, how, what the player is promised, and how the process may end: status and text.

    whole:    every byte, since the program tries again or has no need to.
    gone:     a beginning, of the body also without its head.
    nothing:  all or no body: a thread is started when nothing was sent. All where it
              is the timer that starts one, since that tries again.
    document: one that falls silent isn't asked for again: without its key the
              second segment comes as it was served. A segment is resumed.
    parts:    a beginning of each segment: a broken read is a segment's end.
    """
    call: str
    error: int
    promise: str
    status: int = 0
    text: str = ""


class Outcome(NamedTuple):
    fault: Fault
    nth: int
    fired: bool
    text: str


FAULTS = [
    Fault("malloc", errno.ENOMEM, "parts", -signal.SIGABRT,
          "terminate called after throwing an instance of 'std::bad_alloc'"),
    Fault("calloc", errno.ENOMEM, "nothing"),
    Fault("realloc", errno.ENOMEM, "parts"),
    Fault("memalign", errno.ENOMEM, "parts"),
    Fault("socket", errno.EMFILE, "whole"),
    Fault("connect", errno.ECONNREFUSED, "whole"),
    Fault("connect", errno.ETIMEDOUT, "whole"),
    Fault("accept", errno.EMFILE, "gone", 0, "Error calling accept()"),
    Fault("setsockopt", errno.EINVAL, "gone", 0, "setsockopt failed SO_"),
    Fault("fcntl", errno.EINVAL, "whole"),
    Fault("select", errno.EINTR, "whole"),
    Fault("poll", errno.ENOMEM, "document"),
    Fault("poll", 0, "document"),
    Fault("sleep", errno.EINTR, "whole"),
    Fault("client-read", errno.ECONNRESET, "gone"),
    Fault("client-read", errno.EAGAIN, "whole"),
    Fault("client-write", errno.EPIPE, "gone"),
    Fault("client-write", errno.EAGAIN, "gone"),
    Fault("upstream-read", errno.ECONNRESET, "parts"),
    Fault("upstream-read", errno.ENOMEM, "parts"),
    Fault("upstream-write", errno.EPIPE, "whole"),
    Fault("log-write", errno.EIO, "whole"),
    Fault("thread", errno.EAGAIN, "nothing"),
    Fault("resolve", errno.EAGAIN, "whole"),
]
ENDS = {"whole": "whole", "cut": "cut", "ended": "ended as allowed", "FAULT": "faults"}
EXACTLY = {"nothing": [WHOLE, b"", HEAD], "document": [WHOLE, HEAD, HEAD + CLEAR + SECRET]}


def kept(promise: str, media: bytes) -> bool:
    """Whether the player got what was promised."""
    body = media.removeprefix(HEAD)
    if media in EXACTLY.get(promise, [WHOLE]):
        return True
    if promise == "gone":
        return WHOLE.startswith(media) or (CLEAR + PLAIN).startswith(body)
    split = len(os.path.commonprefix([CLEAR, body]))
    rests = body[max(split - 1, 0):], body[split:]  # the clear segment may go on by chance
    return promise == "parts" and any(
        whole.startswith(rest) for whole in (PLAIN, SECRET) for rest in rests)


def strike(weir: Target, fault: Fault, nth: int) -> tuple[bool, str]:
    """One failure. Returns whether it was reached, and what became of it."""
    weir.arm(CALLS.index(fault.call), fault.error, nth)
    complaint, survived = "", "whole"
    try:
        media = session()
        weir.page[ARMED] = -1
        fired = bool(weir.page[FIRED])
        promise = "whole" if not fired or (fault.call == "thread" and nth > ONCE) else fault.promise
        survived = "whole" if media == WHOLE else "cut"
        if not kept(promise, media):
            complaint = f"stream not {promise}: {len(media)} bytes"
        elif not weir.settled() or ((second := session()) and not weir.settled()):
            complaint = f"threads, descriptors, allocations {weir.last}, not {weir.idle}"
        elif second != WHOLE:
            complaint = "stream after it not whole"
    except TimeoutError:
        fired, complaint = bool(weir.page[FIRED]), "hangs"
    if not complaint:
        return fired, survived
    status = weir.ended()
    if status is not None:
        text = weir.lab.log.read_text(errors="replace")
        if (fired and fault.text and fault.text in text and status == fault.status
                and "stream not" not in complaint):
            return fired, "ended"
        complaint = f"ended with {status}, {complaint}: {text[-200:]!r}"
    weir.stop()
    return fired, f"FAULT: {complaint}"


class Worker:
    """One of many processes: in a network of its own, with an origin and a weir, until it ends."""
    weir: Target

    @classmethod
    def start(cls, options: argparse.Namespace) -> None:
        own_network()
        Origin(ORIGIN, FILES.__getitem__)
        lab = Lab()
        multiprocessing.util.Finalize(None, lab.__exit__, exitpriority=1)
        cls.weir = Target(lab, options.program, options.shim, warm=not options.cold)

    @classmethod
    def reach(cls) -> list[int]:
        return cls.weir.reach()

    @classmethod
    def work(cls, task: tuple[Fault, int]) -> Outcome:
        if not cls.weir.warm or cls.weir.process.poll() is not None:
            cls.weir.restart()
        fired, text = strike(cls.weir, *task)
        if text.startswith("FAULT: stream"):  # as on a machine that stands still
            print(f"{task}: {text}", flush=True)
            cls.weir.restart()
            fired, text = strike(cls.weir, *task)
        return Outcome(*task, fired, text)


def run(options: argparse.Namespace) -> list[Outcome]:
    """Every fault with the number of every call that a session reaches."""
    with ProcessPoolExecutor(options.jobs, initializer=Worker.start, initargs=(options,)) as workers:
        reach = workers.submit(Worker.reach).result()
        # It differs a little from session to session.
        tasks = [(fault, nth) for fault in FAULTS if fault.call in (options.only or CALLS)
                 for nth in range(1, reach[CALLS.index(fault.call)] + 4, options.every)]
        # First those that make weir wait, up to 16 s.
        tasks.sort(key=lambda task: task[0].call not in ("thread", "upstream-read"))
        return [outcome for outcome in workers.map(Worker.work, tasks)
                if outcome.fired or outcome.text != "whole"]


def report(outcomes: Sequence[Outcome], seconds: float) -> bool:
    """A line for each fault. Returns whether all is well."""
    for fault in FAULTS:
        name = f"{fault.call} {errno.errorcode.get(fault.error, 'time-out')}"
        texts = [outcome.text.split(":")[0] for outcome in outcomes if outcome.fault == fault]
        print(f"{name:25}" + ", ".join(f"{texts.count(end):4} {said}" for end, said in ENDS.items()))
    for outcome in outcomes:
        if outcome.text.startswith("FAULT"):
            print(*outcome)
    faults = sum(outcome.text.startswith("FAULT") for outcome in outcomes)
    print(f"{len(outcomes)} failures in {seconds:.0f} s, {faults} faults")
    return bool(outcomes) and not faults


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", type=Path)
    parser.add_argument("shim", type=Path)
    parser.add_argument("--jobs", type=int, default=16)
    parser.add_argument("--every", type=int, default=1, help="only every so many calls")
    parser.add_argument("--only", type=lambda text: text.split(","), help="functions")
    parser.add_argument("--cold", action="store_true", help="a fresh process for each failure")
    options = parser.parse_args()
    started = time.monotonic()
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    if not report(run(options), time.monotonic() - started):
        raise SystemExit("not in order")


if __name__ == "__main__":
    main()
