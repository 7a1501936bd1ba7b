#!/usr/bin/env python3
"""Compares weir-check's findings for each case of cases.txt with the expected ones and with weir.

weir_check_test.py WEIR [NAME...]: each case has a network, an origin and a weir of its own. Status 0
of the command must mean that weir delivers every byte, 1 some, 2 and 3 none.
"""

import contextlib
import json
import multiprocessing
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ProcessPoolExecutor, ThreadPoolExecutor
from pathlib import Path
from unittest import mock

from case import Case, cases, serve
from weir_check import main as weir_check
from weirlab.client import get, receive, stream_path
from weirlab.lab import TOP, Lab, is_idle, wait_until
from weirlab.network import own_network
from weirlab.origin import make_certificate

# weir-check and weir each use a server of their own, so that neither affects the other.
CHECKED, PLAYED = "127.0.0.2", "127.0.0.1"
AT_ONCE = 32  # cases; most only wait for weir to give up
BUSY = multiprocessing.Semaphore(8)  # the others


def look_up(name: str) -> str:
    time.sleep(2 * weir_check.LIMIT if name == "slow.test" else 0)
    return name


def played(case: Case, url: str) -> int:
    """The exit status that would describe weir's response."""
    got = b""
    with contextlib.suppress(OSError):
        for got in receive(stream_path(url), 30):  # s; weir sends nothing after 15 without data
            pass
    return case.loss(got)


def said(case: Case, url: str) -> tuple[int, str]:
    """The exit status of the command, and its output if that is not the expected one."""
    began = time.monotonic()
    result = json.loads(json.dumps(weir_check.check(weir_check.arguments([url, *case.args.split()]))))
    took, adapter, text = time.monotonic() - began, result["adapter"], weir_check.text_of(result)
    expected, _, reason = case.adapter.partition(" ")
    right = (sorted({one["code"] for one in result["findings"]}) == sorted(case.finds.split())
             and took < 2 * weir_check.LIMIT and text.replace("\n", "").isprintable()
             and (adapter["plays"] or "put the adapter" not in text)
             and (not expected or adapter["plays"] is (expected == "plays") and reason in adapter["why"]))
    return min(result["status"], 2), "" if right else f"after {took:.0f} s it says\n{text}"


def check(case: Case, program: Path, certificate: str) -> str:
    """A complaint, empty if all is well."""
    own_network()
    subprocess.run(["ip", "route", "add", "10.0.0.0/8", "dev", "lo"], check=True)  # never answers
    for address in CHECKED, PLAYED:
        for port, proof in (8000, ""), (8001, ""), (8443, certificate):
            serve(case, address, port, proof)
    urls = [case.url.replace("$N", name) if "//" in case.url else f"http://{name}:8000{case.url}"
            for name in (CHECKED, PLAYED)]
    with mock.patch("socket.gethostbyname", look_up), Lab() as lab, ThreadPoolExecutor() as pool, \
            socket.create_server(("", 8444)):  # does not answer
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
        if not re.search(r"10\.0\.0\.1|slow\.test|trickle", str(case)):  # after which weir is busy
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
    chosen = [case for name, case in cases().items() if not names or name in names]
    with tempfile.TemporaryDirectory() as folder:
        check_installed(folder)
        pem = os.environ["SSL_CERT_FILE"] = str(make_certificate(Path(folder, "pem"), f"IP:{CHECKED}"))
        # Sessions of their own give the processes fair shares of a busy machine.
        with ProcessPoolExecutor(AT_ONCE, initializer=os.setsid) as pool:
            tasks = {case.name: pool.submit(check, case, program, pem) for case in chosen}
    texts = [f"== {name}\n{text}" for name, task in tasks.items()
             if (text := task.exception() or task.result())]
    print(*texts, f"{len(chosen) - len(texts)} of {len(chosen)} cases as expected", sep="\n\n")
    sys.exit(bool(texts) or not chosen)


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve(), sys.argv[2:])
