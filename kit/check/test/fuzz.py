#!/usr/bin/env python3
"""fuzz.py [SEED]: runs weir-check on randomly changed streams of cases.txt for FUZZ_SECONDS.

It must not fail, print anything raw or compute for long. Nothing is waited for: its clock is ahead.
"""

import io
import json
import os
import random
import re
import shutil
import sys
import time
from http.client import HTTPConnection
from unittest import mock

from case import Case, cases
from weir_check import main
from weirlab.origin import head_of

PIECES = (b"\xb2\xb3", b"\x1b[2J", b"\0", b"\r", b"\n", b"\r\n\r\n", b"9" * 5000, b"-1", b"http://[",
          b"//\xff:x/", b":", b"=", b'"', b"#EXT-X-KEY:", b"#EXTINF:", b"#EXT-X-STREAM-INF:",
          b"HTTP/1.1 302 x\r\nLocation: ")
CASES = [case for case in cases().values() if not re.search(r"--weir|\d{4}[*^]", str(case))]
ASK_NJS = 0.02  # of the streams


class Connection(io.BytesIO):
    """To a server that has the files of a case."""

    def __init__(self, case: Case, dice: random.Random) -> None:
        super().__init__()
        self.case, self.dice = case, dice

    def sendall(self, request: bytes) -> None:
        path = (request.decode("utf-8", "replace").split(" ") + ["", ""])[1]
        body = self.changed(self.case.file(path, self.dice.randrange(20), "origin"))
        self.write(self.changed(head_of(body, 0, self.case.faults.get(path, ()))) + body)
        self.seek(0)

    def changed(self, data: bytes) -> bytes:
        for _ in range(self.dice.choice((0, 0, 1, 2, 5))):
            places = [place.end() for place in re.finditer(rb"[:=, /\n]|^", data[:400])]
            start = self.dice.choice(places) + self.dice.choice((0, 0, 0, 1, 9))
            end = start + self.dice.choice((0, 0, 1, 3, 99))
            pieces = b"", self.dice.randbytes(1), 2 * data[start:end], *PIECES
            data = data[:start] + self.dice.choice(pieces) + data[end:]
        return data

    def recv(self, size: int) -> bytes:
        if self.dice.random() < 0.01:
            raise self.dice.choice((TimeoutError, ConnectionResetError))
        return self.read(min(size, self.dice.choice((1, 100, size, size))))

    def makefile(self, *_: object) -> io.BytesIO:
        return self

    settimeout = setsockopt = makefile


def attempt(seed: int) -> None:
    dice, now, which, ahead = random.Random(seed), time.monotonic, shutil.which, [0.0]
    case, njs = dice.choice(CASES), dice.random() < ASK_NJS
    url = case.url.replace("$N", "origin") if "//" in case.url else f"http://origin{case.url}"
    with mock.patch("socket.gethostbyname"), mock.patch("http.client.HTTPSConnection", HTTPConnection), \
            mock.patch("socket.create_connection", lambda *_: Connection(case, dice)), \
            mock.patch("shutil.which", lambda name: which(name) if njs else None), \
            mock.patch("time.sleep", ahead.append), mock.patch("time.monotonic", lambda: now() + sum(ahead)):
        began = time.process_time()
        result = json.loads(json.dumps(main.check(main.arguments([url, *case.args.split()]))))
    assert main.text_of(result).replace("\n", "").isprintable(), result
    assert "can't be run" not in result["adapter"]["why"], result
    assert result["status"] in range(4) and time.process_time() - began < main.LIMIT, result


if __name__ == "__main__":
    count, end = 0, time.monotonic() + float(os.environ.get("FUZZ_SECONDS", "20"))
    first = int(sys.argv[1]) if sys.argv[1:] else random.randrange(1 << 32)
    try:
        while time.monotonic() < end and (not count or not sys.argv[1:]):
            attempt(first + count)
            count += 1
    finally:
        print(f"weir-check: {count} streams without a failure; the next seed is {first + count}")
