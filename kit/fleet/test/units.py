"""What systemd makes of the files in kit/, as far as tests need it."""

import os
import re
import shlex
from pathlib import Path
from string import Template

from weirlab.lab import TOP

KIT = TOP / "kit"


def settings(file: str, **more: object) -> dict[str, str]:
    """The environment that a file for EnvironmentFile= makes."""
    lines = (KIT / file).read_text().splitlines()
    own = dict(line.split("=", 1) for line in lines if line and not line.startswith("#"))
    return {"PATH": os.environ["PATH"], **own, **{name: str(value) for name, value in more.items()}}


def commands(unit: str, key: str, environment: dict[str, str]) -> list[list[str]]:
    """Those that the settings of that name have."""
    lines: list[str] = re.findall(rf"^{key}=\+?(.*)", (KIT / unit).read_text(), re.MULTILINE)
    return [[Template(word).substitute(environment) for word in shlex.split(line)] for line in lines]


def copy(file: str, folder: str) -> None:
    """As users do, mode included."""
    target = Path(folder, Path(file).name)
    target.write_bytes((KIT / file).read_bytes())
    target.chmod((KIT / file).stat().st_mode)
