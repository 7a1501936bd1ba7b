"""What kit/metrics makes of weir's log."""

import re
import subprocess
import tempfile
from pathlib import Path

from weirlab.lab import TOP

UNIT = (TOP / "kit/metrics/mtail.service.d/weir.conf").read_text(encoding="utf-8")
MTAIL = ("mtail", "--progs", TOP / "kit/metrics", "--logtostderr", "--emit_prog_label=false",
         "--one_shot", "--one_shot_format=prometheus", "--logs")


def parse(text: str) -> dict[str, float]:
    """Metrics by their name and labels, those of 0 left out: 'weir_retries_total kind=segment'."""
    found = re.findall(r"^weir_(\w+?)(?:_total)?(?:\{(.*)\})? (\S+)$", text, re.MULTILINE)
    return {f"{name} {labels}".strip().replace('"', ""): float(value)
            for name, labels, value in found if float(value)}


def of_log(log: Path) -> dict[str, float]:
    """Through the filter of the unit."""
    printable = re.findall(r"^ *(.* tr .*); ", UNIT, re.MULTILINE)[0]
    with log.open("rb") as raw, tempfile.NamedTemporaryFile() as filtered:
        subprocess.run(printable, shell=True, stdin=raw, stdout=filtered, check=True)
        run = subprocess.run([*MTAIL, filtered.name], capture_output=True, text=True, check=True)
    return parse(run.stdout)
