"""Runs weir's log through mtail with the program and filter of kit/metrics."""

import re
import subprocess
import tempfile
from pathlib import Path

from weirlab.lab import TOP

UNIT = (TOP / "kit/metrics/mtail.service.d/weir.conf").read_text(encoding="utf-8")
MTAIL = ("mtail", "--progs", TOP / "kit/metrics", "--logtostderr", "--emit_prog_label=false",
         "--one_shot", "--one_shot_format=prometheus", "--logs")


def parse(text: str) -> dict[str, float]:
    """Values other than 0 by name and labels, such as 'retries kind=segment anew'."""
    found = re.findall(r"^weir_(\w+?)(?:_total)?(?:\{(.*)\})? (\S+)$", text, re.MULTILINE)
    return {f"{name} {labels}".strip().replace('"', ""): float(value)
            for name, labels, value in found if float(value)}


def of_log(log: Path) -> dict[str, float]:
    """The metrics of a log, after the filter of the unit."""
    printable = re.findall(r"^ *(.* tr .*); ", UNIT, re.MULTILINE)[0]
    with log.open("rb") as raw, tempfile.NamedTemporaryFile() as filtered:
        subprocess.run(printable, shell=True, stdin=raw, stdout=filtered, check=True)
        run = subprocess.run([*MTAIL, filtered.name], capture_output=True, text=True, check=True)
    return parse(run.stdout)
