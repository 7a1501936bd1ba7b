#!/usr/bin/env python3
"""Every fallible call of a short stream fails once; nothing but the rules may follow.

Workers, each in a network of its own with an origin, a player and a weir of its
own, share the calls among them: for every function and every n that a session
reaches, the n-th call fails (shim.cpp). Then weir must have answered as the
table of faults promises, be as it was before to the last thread, descriptor and
allocation, and serve a session whole; or have ended in the one way allowed.
"""

import argparse
import bisect
import collections
import errno
import json
import os
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from film import CLEAR, HEAD, PLAIN, SECRET, WHOLE, serve, session
from running import ARMED, CALLS, DEPTH, FIRED, TRACE, Weir

ABORTED = (-signal.SIGABRT, "terminate called after throwing an instance of 'std::bad_alloc'")
# What fails, how, what the player is promised, and how the process may end.
#   whole:    every byte, since the program tries again or has no need to.
#   gone:     a beginning, of the body also without its head.
#   nothing:  all or no body: a thread is started when nothing was sent. All where
#             it is the timer that starts one, since that tries again.
#   document: one that falls silent isn't asked for again: without its key the
#             second segment comes as it was served. A segment is resumed.
#   parts:    a beginning of each segment: a broken read is a segment's end.
FAULTS = [
    ("malloc", errno.ENOMEM, "parts", ABORTED),
    ("calloc", errno.ENOMEM, "nothing", None),
    ("realloc", errno.ENOMEM, "parts", None),
    ("memalign", errno.ENOMEM, "parts", None),
    ("socket", errno.EMFILE, "whole", None),
    ("connect", errno.ECONNREFUSED, "whole", None),
    ("connect", errno.ETIMEDOUT, "whole", None),
    ("accept", errno.EMFILE, "gone", (0, "Error calling accept()")),
    ("setsockopt", errno.EINVAL, "gone", (0, "setsockopt failed SO_")),
    ("fcntl", errno.EINVAL, "whole", None),
    ("select", errno.EINTR, "whole", None),
    ("poll", errno.ENOMEM, "document", None),
    ("poll", 0, "document", None),
    ("sleep", errno.EINTR, "whole", None),
    ("client-read", errno.ECONNRESET, "gone", None),
    ("client-read", errno.EAGAIN, "whole", None),
    ("client-write", errno.EPIPE, "gone", None),
    ("client-write", errno.EAGAIN, "gone", None),
    ("upstream-read", errno.ECONNRESET, "parts", None),
    ("upstream-read", errno.ENOMEM, "parts", None),
    ("upstream-write", errno.EPIPE, "whole", None),
    ("log-write", errno.EIO, "whole", None),
    ("thread", errno.EAGAIN, "nothing", None),
    ("resolve", errno.EAGAIN, "whole", None),
]
TIMER = "MasterPlaylist::timer_thread_entry"
EXACTLY = {"nothing": [WHOLE, b"", HEAD],
           "document": [WHOLE, HEAD, HEAD + CLEAR + SECRET]}


def kept(promise, film):
    """Whether the player got what was promised."""
    body = film.removeprefix(HEAD)
    if film in EXACTLY.get(promise, [WHOLE]):
        return True
    if promise == "gone":
        return WHOLE.startswith(film) or (CLEAR + PLAIN).startswith(body)
    split = len(os.path.commonprefix([CLEAR, body]))
    rests = body[max(split - 1, 0):], body[split:]  # the clear segment may go on by chance
    return promise == "parts" and any(
        whole.startswith(rest) for whole in (PLAIN, SECRET) for rest in rests)


def strike(weir, symbols, fault, nth, warm):
    """One failure. Returns whether it was reached, and what became of it."""
    call, error, promise, end = fault
    weir.arm(CALLS.index(call), error, nth)
    complaint, survived = "", "whole"
    try:
        film = session()
        weir.page[ARMED] = -1
        fired = bool(weir.page[FIRED])
        survived = "whole" if film == WHOLE else "cut"
        if not fired or (promise == "nothing" and TIMER in symbols.callers(weir)):
            promise = "whole"
        if not kept(promise, film):
            complaint = f"{promise} broken: {len(film)} bytes"
        elif not weir.settled(warm):
            complaint = f"threads, descriptors, allocations {weir.last}, not {weir.idle}"
        elif session() != WHOLE or not weir.settled(warm):
            complaint = "the second stream is wrong"
    except TimeoutError:
        fired, complaint = bool(weir.page[FIRED]), "hangs"
    status = weir.ended() if complaint else None
    if status is not None:
        text = weir.errors.read_text(errors="replace")
        if fired and end and status == end[0] and end[1] in text and "broken" not in complaint:
            return fired, "ended"
        complaint += f", ended with {status}: {text[-200:]!r}"
    if complaint:
        weir.stop()
    return fired, f"FAULT: {complaint}" if complaint else survived


class Symbols:
    """The program's functions, to say where a call came from."""

    def __init__(self, program):
        table = subprocess.run(["nm", "-C", "--defined-only", program], capture_output=True,
                               text=True, check=True).stdout
        self.table = sorted((int(line[:16], 16), line[19:]) for line in table.splitlines()
                            if line[17] in "tTwW")
        self.end = max(address for address, _ in self.table) + 4096

    def callers(self, weir):
        """The functions of weir's own on the stack of the failure, the innermost first."""
        names = []
        for address in weir.page[TRACE:TRACE + weir.page[DEPTH]]:
            if 0 < address - weir.base < self.end:
                name = self.table[bisect.bisect(self.table, (address - weir.base, "~")) - 1][1]
                if name.startswith("weir::"):
                    names.append(re.sub(r"\(anonymous namespace\)::|weir::|[(\[<].*", "", name))
        return names or ["a thread's start"]


def shares(reach, options):
    """The faults and the numbers of the calls that are this worker's."""
    for fault in FAULTS:
        if not options.only or fault[0] in options.only.split(","):
            last = reach[CALLS.index(fault[0])] + 3  # it differs a little from session to session
            first, step = 1 + options.worker * options.every, options.jobs * options.every
            yield from ((fault, nth) for nth in range(first, last + 1, step))


def work_off(options):
    """A worker: its share of the strikes, a line of JSON for each."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    serve()
    symbols, warm = Symbols(options.program), not options.cold
    with tempfile.TemporaryDirectory() as work:
        weir = Weir(options.program, options.shim, Path(work))
        try:
            for fault, nth in shares(weir.reach(), options):
                if weir.process.poll() is not None:
                    weir.start(warm)
                fired, outcome = strike(weir, symbols, fault, nth, warm)
                if fired or outcome != "whole":
                    caller = symbols.callers(weir)[0]
                    print(json.dumps([fault[:2], nth, caller, outcome]), flush=True)
                if options.cold:
                    weir.stop()
        finally:
            weir.stop()


def run_workers(arguments, options):
    """Starts them, each in a network of its own, and gathers their results."""
    network = ["unshare", "-n"] if os.geteuid() == 0 else ["unshare", "-rn"]
    workers, results = [], []
    for i in range(options.jobs):
        output = tempfile.TemporaryFile("w+")
        command = [*network, "sh", "-c", 'ip link set lo up && exec "$@"', "sh", sys.executable,
                   __file__, *arguments, "--worker", str(i)]
        workers.append((subprocess.Popen(command, stdout=output), output))
    for process, output in workers:
        if process.wait() != 0:
            raise SystemExit("a worker fell over")
        output.seek(0)
        results += [json.loads(line) for line in output]
    return results


def report(results, seconds):
    """A line for each fault and each way to end. Returns whether all is well."""
    rows = collections.defaultdict(collections.Counter)
    ends = collections.defaultdict(collections.Counter)
    for (call, error), nth, caller, outcome in results:
        name = f"{call} {errno.errorcode.get(error, 'time-out')}"
        rows[name][outcome.split(":")[0]] += 1
        if outcome == "ended":
            ends[call][caller] += 1
        elif outcome.startswith("FAULT"):
            print(f"{name} number {nth} in {caller}: {outcome}")
    for name, row in rows.items():
        print(f"{name:25} {sum(row.values()):5} times: {row['whole']:4} whole, {row['cut']:3} cut, "
              f"{row['ended']:4} ended as allowed, {row['FAULT']:3} faults")
    for call, callers in ends.items():
        places = (f"{caller} {number}" for caller, number in callers.most_common())
        print(f"{call} ends it in:", ", ".join(places))
    faults = sum(row["FAULT"] for row in rows.values())
    print(f"{len(results)} failures in {seconds:.0f} s, {faults} faults")
    return results and not faults


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program")
    parser.add_argument("shim")
    parser.add_argument("--jobs", type=int, default=16)
    parser.add_argument("--every", type=int, default=1, help="only every so many calls")
    parser.add_argument("--only", help="functions, separated by commas")
    parser.add_argument("--cold", action="store_true", help="a fresh process for each failure")
    parser.add_argument("--worker", type=int, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.worker is not None:
        return work_off(options)
    started = time.monotonic()
    if not report(run_workers(sys.argv[1:], options), time.monotonic() - started):
        raise SystemExit("not in order")


main()
