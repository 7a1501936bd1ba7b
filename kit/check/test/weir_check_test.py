#!/usr/bin/env python3
"""Compares weir-check's findings for each case of cases.txt with the expected ones and with weir.

weir_check_test.py WEIR [NAME...]: each case has a network, an origin and a weir of its own. Status 0
of the command must mean that weir delivers every byte, 1 some, 2 and 3 none.
"""

import contextlib
import io
import json
import multiprocessing
import os
import re
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ProcessPoolExecutor, ThreadPoolExecutor
from pathlib import Path

TOP = Path(__file__).resolve().parents[3]
sys.path[:0] = [str(TOP / "script"), str(TOP / "kit/check")]

from case import GRADES, Case, cases, make_certificate, serve  # noqa: E402
from weir_check.main import main as weir_check  # noqa: E402
from weirlab.client import connect, get, stream_path  # noqa: E402
from weirlab.lab import Lab, is_idle, wait_until  # noqa: E402
from weirlab.network import own_network  # noqa: E402

# weir-check and weir each use a server of their own, so that neither affects the other.
CHECKED, PLAYED = "127.0.0.2", "127.0.0.1"
AT_ONCE = 32  # cases; most only wait for weir to give up
BUSY = multiprocessing.Semaphore(8)  # the others
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


def check(case: Case, program: Path, certificate: str) -> str:
    """A complaint, empty if all is well."""
    own_network()
    subprocess.run(["ip", "route", "add", "10.0.0.0/8", "dev", "lo"], check=True)  # never answers
    for address in CHECKED, PLAYED:
        for port, proof in (8000, ""), (8001, ""), (8443, certificate):
            serve(case, address, port, proof)
    urls = [case.url.replace("$N", name) if "//" in case.url else f"http://{name}:8000{case.url}"
            for name in (CHECKED, PLAYED)]
    with Lab() as lab, ThreadPoolExecutor() as pool:
        with BUSY:
            weir = lab.weir(program, 1000000)
            if "--weir" in case.args:  # the command compares with weir by itself
                return said(case, urls[0])[1]
            maps = re.findall(r"--(chunk|playlist) (\S+)", case.args)
            get("/update-cache-map?" + "&".join(map("=".join, maps)))
            player = pool.submit(played, case, urls[1])
            status, text = said(case, urls[0])
        if player.result() != status:
            text += f"\nand its status is {status}, but weir's {player.result()}"
        if "10.0.0.1" not in str(case.texts):  # weir tries to reach that for 60 s
            wait_until("weir to be idle", lambda: is_idle(weir))
    return text


def check_installed(usr: str) -> None:
    """Runs the command as the package installs it."""
    shutil.copytree(TOP / "kit/check/weir_check", f"{usr}/share/weir/weir_check")
    os.mkdir(f"{usr}/bin")
    command = shutil.copy(TOP / "kit/check/weir-check", f"{usr}/bin")
    run = subprocess.run([command, "--json", "http://127.0.0.1:9/"], stdout=subprocess.PIPE)
    assert run.returncode == json.loads(run.stdout)["status"] == 3, run
    assert subprocess.run([command], capture_output=True).returncode == 64


def main(program: Path, names: list[str]) -> None:
    chosen = [case for case in cases() if not names or case.name in names]
    with tempfile.TemporaryDirectory() as folder:
        check_installed(folder)
        certificate = os.environ["SSL_CERT_FILE"] = make_certificate(f"{folder}/pem", f"IP:{CHECKED}")
        # Sessions of their own give the processes fair shares of a busy machine.
        with ProcessPoolExecutor(AT_ONCE, initializer=os.setsid) as pool:
            tasks = {case.name: pool.submit(check, case, program, certificate) for case in chosen}
            texts = [f"== {name}\n{text}" for name, task in tasks.items()
                     if (text := task.exception() or task.result())]
    print(*texts, f"{len(chosen) - len(texts)} of {len(chosen)} cases as expected", sep="\n\n")
    sys.exit(bool(texts) or not chosen)


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve(), sys.argv[2:])
