#!/usr/bin/env python3
"""Every fallible call of a short stream fails once; nothing but the rules may follow.

Workers, each in a network of its own with an origin, a player and a weir, share the
calls among them: for every function and every n that a session reaches, the n-th call
fails (shim.cpp). Then weir must have answered as the table of faults promises, be as it
was before to the last thread, descriptor and allocation, and serve a session whole; or
have ended in the one way allowed.
"""

import argparse
import bisect
import collections
import errno
import multiprocessing
import os
import re
import resource
import signal
import subprocess
import time
from collections.abc import Sequence
from multiprocessing.connection import Connection
from pathlib import Path
from typing import Any, NamedTuple

from target import (ARMED, CALLS, CLEAR, DEPTH, FILES, FIRED, HEAD, ORIGIN, PLAIN, SECRET, TRACE,
                    WHOLE, Target, session)
from weirlab.lab import Lab
from weirlab.network import own_network
from weirlab.origin import Origin


class Fault(NamedTuple):
    """What fails, how, what the player is promised, and how the process may end: status and text.

    whole:    every byte, since the program tries again or has no need to.
    gone:     a beginning, of the body also without its head.
    nothing:  all or no body: a thread is started when nothing was sent. All where
              it is the timer that starts one, since that tries again.
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
    caller: str
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
TIMER = "MasterPlaylist::timer_thread_entry"
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


class Symbols:
    """The program's functions, to say where a call came from."""

    def __init__(self, program: Path) -> None:
        table = subprocess.run(["nm", "-C", "--defined-only", program], capture_output=True,
                               text=True, check=True).stdout
        self.table = sorted((int(line[:16], 16), line[19:]) for line in table.splitlines()
                            if line[17] in "tTwW")
        self.end = max(address for address, _ in self.table) + 4096

    def callers(self, weir: Target) -> list[str]:
        """The functions of weir's own on the stack of the failure, the innermost first."""
        names = []
        for address in weir.page[TRACE:TRACE + weir.page[DEPTH]]:
            if 0 < address - weir.base < self.end:
                name = self.table[bisect.bisect(self.table, (address - weir.base, "~")) - 1][1]
                if name.startswith("weir::"):
                    names.append(re.sub(r"\(anonymous namespace\)::|weir::|[(\[<].*", "", name))
        return names or ["a thread's start"]


def strike(weir: Target, symbols: Symbols, fault: Fault, nth: int) -> tuple[bool, str]:
    """One failure. Returns whether it was reached, and what became of it."""
    weir.arm(CALLS.index(fault.call), fault.error, nth)
    promise, complaint, survived = fault.promise, "", "whole"
    try:
        media = session()
        weir.page[ARMED] = -1
        fired = bool(weir.page[FIRED])
        survived = "whole" if media == WHOLE else "cut"
        if not fired or (promise == "nothing" and TIMER in symbols.callers(weir)):
            promise = "whole"
        if not kept(promise, media):
            complaint = f"{promise} broken: {len(media)} bytes"
        elif not weir.settled():
            complaint = f"threads, descriptors, allocations {weir.last}, not {weir.idle}"
        elif session() != WHOLE or not weir.settled():
            complaint = "the second stream is wrong"
    except TimeoutError:
        fired, complaint = bool(weir.page[FIRED]), "hangs"
    if not complaint:
        return fired, survived
    status = weir.ended()
    if status is not None:
        text = weir.lab.log.read_text(errors="replace")
        if (fired and fault.text and fault.text in text and status == fault.status
                and "broken" not in complaint):
            return fired, "ended"
        complaint += f", ended with {status}: {text[-200:]!r}"
    weir.stop()
    return fired, f"FAULT: {complaint}"


def work_off(options: argparse.Namespace, tasks: Sequence[tuple[Fault, int]], turn: Any,
             results: Connection) -> None:
    """A worker: takes the next task as long as there is one, then sends its outcomes."""
    own_network()
    Origin(ORIGIN, FILES.__getitem__)
    symbols, outcomes = Symbols(options.program), []
    with Lab() as lab:
        weir = Target(lab, options.program, options.shim, warm=not options.cold)
        while True:
            with turn.get_lock():
                number, turn.value = turn.value, turn.value + 1
            if number >= len(tasks):
                break
            if options.cold or weir.process.poll() is not None:
                weir.restart()
            fault, nth = tasks[number]
            fired, text = strike(weir, symbols, fault, nth)
            if fired or text != "whole":
                outcomes.append(Outcome(fault, nth, symbols.callers(weir)[0], text))
    results.send(outcomes)


def find_tasks(options: argparse.Namespace) -> list[tuple[Fault, int]]:
    """Every fault with the number of every call that a session reaches."""
    Origin(ORIGIN, FILES.__getitem__)
    with Lab() as lab:
        reach = Target(lab, options.program, options.shim, warm=False).reach()
    # It differs a little from session to session.
    tasks = [(fault, nth) for fault in FAULTS if fault.call in (options.only or CALLS)
             for nth in range(1, reach[CALLS.index(fault.call)] + 4, options.every)]
    # First those that make weir wait, up to 16 s.
    return sorted(tasks, key=lambda task: task[0].call not in ("thread", "upstream-read"))


def run_workers(options: argparse.Namespace, tasks: Sequence[tuple[Fault, int]]) -> list[Outcome]:
    turn, workers = multiprocessing.Value("i", 0), []
    for _ in range(options.jobs):
        receiver, sender = multiprocessing.Pipe(duplex=False)
        worker = multiprocessing.Process(target=work_off, args=(options, tasks, turn, sender))
        worker.start()
        sender.close()
        workers.append(receiver)
    try:
        return [outcome for receiver in workers for outcome in receiver.recv()]
    except EOFError:
        raise SystemExit("a worker fell over") from None


def report(outcomes: Sequence[Outcome], seconds: float) -> bool:
    """A line for each fault and each way to end. Returns whether all is well."""
    rows: dict[str, collections.Counter[str]] = collections.defaultdict(collections.Counter)
    ends: dict[str, collections.Counter[str]] = collections.defaultdict(collections.Counter)
    for fault, nth, caller, text in sorted(outcomes, key=lambda outcome: FAULTS.index(outcome.fault)):
        name = f"{fault.call} {errno.errorcode.get(fault.error, 'time-out')}"
        rows[name][text.split(":")[0]] += 1
        if text == "ended":
            ends[fault.call][caller] += 1
        elif text.startswith("FAULT"):
            print(f"{name} number {nth} in {caller}: {text}")
    for name, row in rows.items():
        print(f"{name:25} {sum(row.values()):5} times: {row['whole']:4} whole, {row['cut']:3} cut, "
              f"{row['ended']:4} ended as allowed, {row['FAULT']:3} faults")
    for call, callers in ends.items():
        places = (f"{caller} {number}" for caller, number in callers.most_common())
        print(f"{call} ends it in:", ", ".join(places))
    faults = sum(row["FAULT"] for row in rows.values())
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
    own_network()
    if not report(run_workers(options, find_tasks(options)), time.monotonic() - started):
        raise SystemExit("not in order")


if __name__ == "__main__":
    main()
