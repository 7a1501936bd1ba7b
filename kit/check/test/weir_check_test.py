#!/usr/bin/env python3
"""What weir-check says of each case of cases.txt, and whether the real weir agrees.

Each case runs in a process and a network of its own, with an origin and a weir, side by side
with all others. Status 0 of the command is to mean that every byte arrives, 1 that some do,
2 and 3 that none does.
"""

import contextlib
import functools
import io
import json
import multiprocessing
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

TOP = Path(__file__).resolve().parents[3]
sys.path[:0] = [str(TOP / "script"), str(TOP / "kit/check")]

from case import GRADES, Case, cases, serve  # noqa: E402
from weir_check.main import main as weir_check  # noqa: E402
from weirlab.client import connect, get, stream_path  # noqa: E402
from weirlab.lab import Lab  # noqa: E402
from weirlab.network import own_network  # noqa: E402

# Two names of one origin: what weir-check asks for changes nothing for weir.
CHECKED, PLAYED = "127.0.0.2", "127.0.0.1"
DEADLINE = 17.5  # s; weir closes a stream that delivers nothing after 16


def played(case: Case, url: str) -> int:
    """The status that weir's own answer is worth."""
    got, end = b"", time.monotonic() + DEADLINE
    with contextlib.suppress(OSError), connect(stream_path(url)) as weir:
        more = b"\n"
        while more:
            got += more
            weir.settimeout(max(0.01, end - time.monotonic()))
            more = weir.recv(1 << 20)
    got, whole = got.partition(b"\r\n\r\n")[2], case.whole
    size = 188 if whole[:1] == b"G" else len(whole)
    parts = [whole[i:i + size] for i in range(0, len(whole), size)]
    return 0 if got == whole else 1 if any(part in got for part in parts) else 2


def said(case: Case, url: str) -> tuple[int, str]:
    """The status of the command, and what it should not have said."""
    output = io.StringIO()
    with contextlib.redirect_stdout(output):
        status = weir_check([url, *case.args.split()])
    lines = [line.split(": ")[0].replace(f"http://{CHECKED}:8000", "")
             for line in output.getvalue().splitlines()[:-1]]
    worst = max((GRADES.index(line.split()[0]) for line in lines), default=0)
    right = lines == case.expected and status == worst
    return min(status, 2), "" if right else f"it says\n{output.getvalue()}"


def complaint(case: Case, program: Path, certificate: str) -> str:
    """About one case; empty if all is well."""
    own_network()
    subprocess.run(["ip", "route", "add", "10.0.0.0/8", "dev", "lo"], check=True)  # a wall
    for address in CHECKED, PLAYED:
        for port, proof in (8000, ""), (8001, ""), (8443, certificate):
            serve(case, address, port, proof)
    urls = [case.url.replace("$N", name) if "//" in case.url else f"http://{name}:8000{case.url}"
            for name in (CHECKED, PLAYED)]
    words, real = case.args.split(), list[int]()
    maps = [f"{option[2:]}={value}" for option, value in zip(words, words[1:])
            if option in ("--chunk", "--playlist")]
    with Lab() as lab:
        lab.weir(program, 1000000)
        if "--weir" in words:  # is such a comparison itself, with a weir that has no maps
            return said(case, urls[0])[1]
        get("/update-cache-map?" + "&".join(maps))
        player = threading.Thread(target=lambda: real.append(played(case, urls[1])))
        player.start()
        status, text = said(case, urls[0])
        player.join()
    return text + (f"\nand is worth {status}, but weir {real}" if [status] != real else "")


def certificate_in(folder: str) -> str:
    """Of an authority of our own, which this process trusts."""
    pem = os.environ["SSL_CERT_FILE"] = f"{folder}/pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                    "-nodes", "-keyout", f"{folder}/key", "-out", pem, "-subj", "/CN=origin",
                    "-addext", f"subjectAltName=IP:{CHECKED}"], check=True, capture_output=True)
    with open(pem, "ab") as file:
        file.write(Path(folder, "key").read_bytes())
    return pem


def installed(usr: str) -> str:
    """Complaints about the command as the package has it."""
    shutil.copytree(TOP / "kit/check/weir_check", f"{usr}/share/weir/weir_check")
    os.mkdir(f"{usr}/bin")
    command = shutil.copy(TOP / "kit/check/weir-check", f"{usr}/bin")
    wrong = subprocess.run([command], capture_output=True)
    right = subprocess.run([command, "--json", "http://127.0.0.1:9/"], capture_output=True)
    if (wrong.returncode, right.returncode) == (64, 3) == (64, json.loads(right.stdout)["status"]):
        return ""
    return f"installed, it says {wrong} and {right}\n"


def main(program: Path, names: list[str]) -> None:
    os.nice(19)  # as weir's threads, which are to get their share
    left = [case for case in cases() if not names or case.name in names]
    count = len(left)
    with tempfile.TemporaryDirectory() as folder:
        complain = functools.partial(complaint, program=program, certificate=certificate_in(folder))
        for _ in range(2):  # so many at once may starve each other
            with multiprocessing.Pool(max(len(left), 1), maxtasksperchild=1) as pool:
                texts = pool.map(complain, left, chunksize=1)
            told = {case.name: text for case, text in zip(left, texts) if text}
            left = [case for case in left if case.name in told]
        for name, text in told.items():
            print(f"== {name}\n{text}\n")
        print(about := installed(folder), end="")
    print(f"{count - len(left)} of {count} cases as expected")
    sys.exit(bool(left or about or not count))


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve(), sys.argv[2:])
