"""A stream of kit/remux, with the commands of its units."""

import re
import shlex
import subprocess
from pathlib import Path

from weirlab.lab import TOP, Lab, Process, wait_until

KIT = TOP / "kit/remux"
RUN = Path("/run/remux")
# What systemd does with the units: as long as the proxy runs, ffmpeg is restarted if it fails.
SYSTEMD = """mkdir {folder}
(cd {folder}; while {ffmpeg[ExecStartPre]}; ! {ffmpeg[ExecStart]}; do sleep {ffmpeg[RestartSec]}; done) &
(tail --pid=$$ -f /dev/null; rm -rf {folder}; kill -KILL 0) &
{proxy[ExecStartPre]}
exec {proxy[ExecStart]}"""


def make_folder() -> None:
    """Once own_network(mounts=True) is called."""
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
    RUN.mkdir()


class Channel:
    """`changes` are made to the texts of the units and settings."""

    def __init__(self, lab: Lab, name: str, url: str, changes: dict[str, str]) -> None:
        self.lab, self.name, self.changes, self.folder = lab, name, changes, RUN / name
        probe = subprocess.run([KIT / "weir-remux", url], check=True, stdout=subprocess.PIPE, text=True)
        self.settings = dict(line.split("=", 1) for line in probe.stdout.splitlines())
        self.units = {kind: self.read(f"weir-remux{unit}") for kind, unit in (
            ("ffmpeg", "-ffmpeg@.service"), ("proxy", "@.service"), ("socket", "@.socket"))}
        self.listen()

    def read(self, unit: str) -> dict[str, str]:
        """The settings of the unit; its commands as a shell takes them."""
        text = (KIT / unit).read_text().replace("\\\n", "").replace("%i", self.name).replace("%%", "%")
        text = re.sub(r"\$\{(\w+)\}", lambda found: shlex.quote(self.settings[found[1]]), text)
        text = re.sub(r"(?<!\$)\$(\w+)", lambda found: self.settings[found[1]], text).replace("$$", "$")
        for old, new in self.changes.items():
            text = text.replace(old, new)
        # A shell needs quotes where systemd does not.
        text = re.sub(r" ([()*][^' ]*)(?= )", r" '\1'", text)
        return dict(re.findall(r"^(\w+)=-?(.*)", text, re.MULTILINE))

    def listen(self) -> None:
        """The first request starts the rest."""
        socket = Path(self.units["socket"]["ListenStream"])
        socket.unlink(missing_ok=True)
        command = SYSTEMD.format(folder=self.folder, **self.units)
        self.process: Process = self.lab.start(
            ["systemd-socket-activate", "-E", f"SOURCE={self.settings['SOURCE']}", "-l", socket, "sh", "-c",
             command], stderr=(self.lab.work / "remux.log").open("ab"))
        wait_until("the socket", socket.exists)
        socket.chmod(0o666)
