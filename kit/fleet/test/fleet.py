"""The fleet of kit/fleet/README.md on one machine: each weir, cache, HAProxy and etcd has a network
of its own; the players are in that of this process."""

import csv
import os
import re
import shlex
import shutil
import signal
import subprocess
from collections.abc import Callable
from pathlib import Path
from string import Template
from typing import Any

from weirlab import client
from weirlab.lab import AS_NOBODY, TOP, Lab, Process, wait_until
from weirlab.network import Host, make_bridge

HAPROXY, SPARE, ETCD = "192.0.2.2", "192.0.2.3", "192.0.2.31"
PLAYERS, GUEST, STRANGER = "192.0.2.100", "192.0.2.101", "192.0.2.102"
WEIRS = {f"weir{number}": f"192.0.2.1{number}" for number in (1, 2, 3)}
CACHES = CACHE1, CACHE2 = "192.0.2.21:8080", "192.0.2.22:8080"
KIT, CONFIGURATION = TOP / "kit", Path("/etc/haproxy/haproxy.cfg")
DROP_IN = "service/weir.service.d/fleet.conf"


def settings(file: str, **more: object) -> dict[str, str]:
    """The environment that EnvironmentFile= makes of a file."""
    own = dict(re.findall(r"^(\w+)=(.*)", (KIT / "fleet" / file).read_text(), re.MULTILINE))
    return {"PATH": os.environ["PATH"], **own, **{name: str(value) for name, value in more.items()}}


class Weir:
    """On a host of its own, as its units run it."""

    def __init__(self, lab: Lab, binary: Path, name: str) -> None:
        self.lab, self.binary, self.host = lab, binary, Host(WEIRS[name])
        self.log, self.said = lab.work / f"{name}.log", (lab.work / "said").open("ab")
        self.environment = settings("weir-fleet", COPY=lab.work / name / "maps")
        self.process: Process

    def run(self, unit: str, key: str, start: Callable[..., object] = subprocess.check_call,
            **more: Any) -> None:
        """Starts the commands that the unit has for the key."""
        lines = re.findall(rf"^{key}=\+?(.*)", (KIT / unit).read_text(), re.MULTILINE)
        environment = self.environment | more
        with self.host:
            for line in lines:
                words = [Template(word).substitute(environment) for word in shlex.split(line)]
                start(words, env=environment, stdout=subprocess.DEVNULL, stderr=self.said)

    def start(self) -> None:
        """Without its maps."""
        self.run(DROP_IN, "ExecStartPre")
        self.lab.log = self.log
        with self.host:
            self.process = self.lab.weir(self.binary, 4 << 20, progress=True)

    def get_ready(self, **other: Any) -> None:
        self.run(DROP_IN, "ExecStartPost", **other)

    def kill(self) -> None:
        self.lab.end(self.process, signal.SIGKILL)
        self.run(DROP_IN, "ExecStopPost")

    def follow(self) -> Callable[[str], list[str]]:
        """A function that finds a pattern in what is logged from now on."""
        start = self.log.stat().st_size

        def find(pattern: str) -> list[str]:
            with self.log.open("rb") as log:
                log.seek(start)
                return re.findall(pattern, log.read().decode("latin-1"), re.MULTILINE)

        return find


class Fleet:
    """Everything but the players, once own_network(mounts=True) is called."""

    def __init__(self, lab: Lab, binary: Path) -> None:
        self.lab, self.said = lab, (lab.work / "said").open("ab")
        make_bridge(PLAYERS)
        self.cache_hosts = [Host(cache.split(":")[0]) for cache in CACHES]
        self.weirs = {name: Weir(lab, binary, name) for name in WEIRS}
        self.install()
        with Host(ETCD):
            self.etcd = lab.start(["etcd"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  env=settings("etcd", ETCD_DATA_DIR=lab.work / "etcd"))
        self.caches = [self.start_cache(number) for number in range(len(CACHES))]
        wait_until("etcd to take the maps", lambda: self.put_maps(CACHE1))
        for weir in self.weirs.values():
            weir.start()
            weir.get_ready()
            weir.run("fleet/weir-maps-watch.service", "ExecStart", lab.start)
        self.start_haproxy(HAPROXY)
        wait_until("HAProxy to know all weirs", lambda: set(self.column("check_status").values()) == {"L7OK"})

    def install(self) -> None:
        """Copies the files to where users do, on file systems of this process."""
        for target in "/etc/haproxy", "/usr/local/sbin", "/run":
            subprocess.run(["mount", "-t", "tmpfs", "tmpfs", target], check=True)
        Path("/run/haproxy").mkdir()
        for name in "weir-maps", "weir-gate":
            shutil.copy(KIT / "fleet" / name, "/usr/local/sbin")
        text = (KIT / "fleet/haproxy.cfg").read_text()
        # Root in a user namespace has no other uid to switch to.
        CONFIGURATION.write_text(text if AS_NOBODY else re.sub(r"(?m)^    (user|group) .*\n", "", text))

    def start_cache(self, number: int) -> Process:
        with self.cache_hosts[number] as host:
            return self.lab.nginx(f"cache{number + 1}", 8080,
                                  f"listen {host.address}:8080; root {self.lab.www};")

    def start_haproxy(self, address: str, **options: str) -> None:
        with Host(address):
            process = self.lab.start(["haproxy", "-Ws", "-f", CONFIGURATION], stdout=subprocess.DEVNULL,
                                     stderr=self.said, env={"PATH": os.environ["PATH"], **options})
            wait_until("HAProxy to answer", lambda: client.answers(80) or process.poll() is not None)
        if process.poll() is not None:
            raise SystemExit("HAProxy did not start")

    def put_maps(self, servers: str) -> bool:
        return subprocess.run(["etcdctl", "put", "/weir/maps", f"chunk={servers}&playlist={servers}"],
                              env=settings("weir-fleet"), capture_output=True).returncode == 0

    def admin(self, command: str) -> str:
        return subprocess.run(["socat", "-", "UNIX-CONNECT:/run/haproxy/admin.sock"], text=True, check=True,
                              input=command + "\n", stdout=subprocess.PIPE).stdout

    def column(self, name: str) -> dict[str, str]:
        """Of HAProxy's statistics, by weir."""
        rows = csv.DictReader(self.admin("show stat").removeprefix("# ").splitlines())
        return {row["svname"]: row[name] for row in rows if row["svname"] in WEIRS}

    def streams(self) -> dict[str, int]:
        return {name: int(count) for name, count in self.column("scur").items()}
