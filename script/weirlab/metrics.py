"""What examples/mtail makes of weir's log."""

import re
import subprocess
from pathlib import Path

from weirlab.lab import TOP

MTAIL = ("mtail", "--progs", TOP / "examples/mtail", "--logtostderr", "--emit_prog_label=false")


def parse(text: str) -> dict[str, float]:
    """Metrics by their name and labels, those of 0 left out: 'weir_retries_total kind=segment'."""
    found = re.findall(r"^weir_(\w+?)(?:_total)?(?:\{(.*)\})? (\S+)$", text, re.MULTILINE)
    return {f"{name} {labels}".strip().replace('"', ""): float(value)
            for name, labels, value in found if float(value)}


def of_log(log: Path) -> dict[str, float]:
    run = subprocess.run([*MTAIL, "--one_shot", "--one_shot_format=prometheus", "--logs", log],
                         capture_output=True, text=True, check=True)
    return parse(run.stdout)
