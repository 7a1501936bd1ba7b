#!/usr/bin/env python3
"""Compares weir-check's findings for each case of cases.txt with the expected ones and with weir.

weir_check_test.py WEIR [NAME...]: each case has a process, a network, an origin and a weir of its
own. Status 0 of the command must mean that weir delivers every byte, 1 some, 2 and 3 none.
"""

import contextlib
import io
import json
import os
import re
import select
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from multiprocessing import Pipe, Process
from multiprocessing.connection import Connection
from pathlib import Path

TOP = Path(__file__).resolve().parents[3]
sys.path[:0] = [str(TOP / "script"), str(TOP / "kit/check")]

from case import GRADES, Case, cases, serve  # noqa: E402
from weir_check.main import main as weir_check  # noqa: E402
from weirlab.client import connect, get, stream_path  # noqa: E402
from weirlab.lab import Lab, is_idle, wait_until  # noqa: E402
from weirlab.network import own_network  # noqa: E402

# weir-check and weir each use a server of their own, so that neither affects the other.
CHECKED, PLAYED = "127.0.0.2", "127.0.0.1"
AT_ONCE = 8  # cases, apart from those that only wait for weir to give up
SILENCE = 30  # s; weir sends no more after 15 without data, even if it closes later


def played(case: Case, url: str) -> int:
    """The exit status that would describe weir's response."""
    got, whole = b"", case.whole
    with contextlib.suppress(OSError), connect(stream_path(url), timeout=SILENCE) as weir:
        while more := weir.recv(1 << 20):
            got += more
    got = got.partition(b"\r\n\r\n")[2]
    size = 188 if whole[:1] == b"G" else len(whole)
    parts = [whole[i:i + size] for i in range(0, len(whole), size)]
    return 0 if got == whole else 1 if any(part in got for part in parts) else 2


def said(case: Case, url: str) -> tuple[int, str]:
    """The exit status of the command, and its output if that is not the expected one."""
    output = io.StringIO()
    with contextlib.redirect_stdout(output):
        status = weir_check([url, *case.args.split()])
    lines = [line.split(": ")[0].replace(f"http://{CHECKED}:8000", "")
             for line in output.getvalue().splitlines()[:-1]]
    worst = max((GRADES.index(line.split()[0]) for line in lines), default=0)
    right = (lines, status) == (case.expected, worst)
    return min(status, 2), "" if right else f"it says\n{output.getvalue()}"


def check(case: Case, program: Path, certificate: str, pipe: Connection) -> None:
    """Sends None once only weir has to finish, then a complaint, empty if all is well."""
    os.setsid()  # for a fair share of a busy machine
    own_network()
    subprocess.run(["ip", "route", "add", "10.0.0.0/8", "dev", "lo"], check=True)  # never answers
    for address in CHECKED, PLAYED:
        for port, proof in (8000, ""), (8001, ""), (8443, certificate):
            serve(case, address, port, proof)
    urls = [case.url.replace("$N", name) if "//" in case.url else f"http://{name}:8000{case.url}"
            for name in (CHECKED, PLAYED)]
    with Lab() as lab, ThreadPoolExecutor() as pool:
        weir = lab.weir(program, 1000000)
        if "--weir" in case.args:  # the command compares with weir by itself
            return pipe.send(said(case, urls[0])[1])
        maps = re.findall(r"--(chunk|playlist) (\S+)", case.args)
        get("/update-cache-map?" + "&".join(map("=".join, maps)))
        player = pool.submit(played, case, urls[1])
        status, text = said(case, urls[0])
        pipe.send(None)
        if player.result() != status:
            text += f"\nand its status is {status}, but weir's {player.result()}"
        if "10.0.0.1" not in str(case.texts):  # weir tries to reach that for 60 s
            wait_until("weir to be idle", lambda: is_idle(weir))
    pipe.send(text)


def complaints(left: list[Case], *given: object) -> dict[str, str]:
    """Complaints by case. A process that ends without a result counts as one."""
    running, busy, texts = dict[Connection, str](), set[Connection](), dict[str, str]()
    while left or running:
        while left and len(busy) < AT_ONCE:
            case, (reader, writer) = left.pop(), Pipe(duplex=False)
            Process(target=check, args=(case, *given, writer), daemon=True).start()
            writer.close()
            running[reader] = case.name
            busy.add(reader)
        for pipe in select.select(list(running), [], [])[0]:
            busy.discard(pipe)
            try:
                text = pipe.recv()
            except EOFError:
                text = "its process ended early"
            if text is not None:
                texts[running.pop(pipe)] = text
    return texts


def certificate_in(folder: str) -> str:
    """Makes a certificate and key; this process trusts it."""
    pem = os.environ["SSL_CERT_FILE"] = f"{folder}/pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                    "-nodes", "-keyout", pem, "-out", pem, "-subj", "/CN=origin",
                    "-addext", f"subjectAltName=IP:{CHECKED}"], check=True, capture_output=True)
    return pem


def installed(usr: str) -> str:
    """A complaint about the command as the package installs it, empty if all is well."""
    shutil.copytree(TOP / "kit/check/weir_check", f"{usr}/share/weir/weir_check")
    os.mkdir(f"{usr}/bin")
    command = shutil.copy(TOP / "kit/check/weir-check", f"{usr}/bin")
    wrong = subprocess.run([command], capture_output=True)
    right = subprocess.run([command, "--json", "http://127.0.0.1:9/"], capture_output=True)
    if (wrong.returncode, right.returncode) == (64, 3) == (64, json.loads(right.stdout)["status"]):
        return ""
    return f"installed, it says {wrong} and {right}\n"


def main(program: Path, names: list[str]) -> None:
    chosen = [case for case in cases() if not names or case.name in names]
    with tempfile.TemporaryDirectory() as folder:
        texts = complaints(chosen[:], program, certificate_in(folder))
        print(*(f"== {name}\n{text}\n\n" for name, text in texts.items() if text), sep="", end="")
        print(about := installed(folder), end="")
    print(f"{list(texts.values()).count('')} of {len(chosen)} cases as expected")
    sys.exit(any(texts.values()) or bool(about) or not chosen)


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve(), sys.argv[2:])
