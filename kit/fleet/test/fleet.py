"""The fleet of kit/fleet/README.md on one machine: each weir, cache, HAProxy and etcd has a network
of its own; the players are in that of this process. Nothing happens to the control weir and its cache."""

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

from weirlab import client, procfs
from weirlab.lab import AS_NOBODY, TOP, Lab, Process, wait_until
from weirlab.network import Host, ip, make_bridge

HAPROXY, SPARE, ETCD = "192.0.2.2", "192.0.2.3", "192.0.2.31"
PLAYERS, GUEST, STRANGER = "192.0.2.100", "192.0.2.101", "192.0.2.102"
WEIRS = {f"weir{number}": f"192.0.2.1{number}" for number in (1, 2, 3)}
CONTROL = "192.0.2.14"
CACHES = CACHE1, CACHE2, CONTROL_CACHE = [f"192.0.2.2{number}:8080" for number in (1, 2, 3)]
KIT, CONFIGURATION = TOP / "kit", Path("/etc/haproxy/haproxy.cfg")
# Answers without a length, and none at all.
CACHE = """listen {listen}; root {root};
location = /chunked.m3u8 {{ alias {root}/c0/master.m3u8; ssi on; ssi_types *; }}
location = /closed.m3u8 {{ return 444; }}"""
DROP_IN = "service/weir.service.d/fleet.conf"


def settings(file: str, **more: object) -> dict[str, str]:
    """The environment that EnvironmentFile= makes of a file."""
    own = dict(re.findall(r'^(\w+)="?([^"\n]*)', (KIT / "fleet" / file).read_text(), re.MULTILINE))
    return {"PATH": os.environ["PATH"], **own, **{name: str(value) for name, value in more.items()}}


def write_configuration(source: str, target: Path, **replaced: object) -> None:
    text = (KIT / source).read_text()
    for old, new in replaced.items():
        text = text.replace(old, str(new))
    # Root in a user namespace has no other uid to switch to.
    target.write_text(text if AS_NOBODY else re.sub(r"(?m)^    (user|group) .*\n", "", text))


def start_haproxy(lab: Lab, host: Host, file: Path, port: int, **options: str) -> Process:
    with host, open(lab.work / "said", "ab") as said:
        process = lab.start(["haproxy", "-Ws", "-f", file], stdout=subprocess.DEVNULL, stderr=said,
                            env={"PATH": os.environ["PATH"], **options})
        wait_until("HAProxy to answer", lambda: client.answers(port) or process.poll() is not None)
    if process.poll() is not None:
        raise SystemExit("HAProxy did not start")
    return process


def ask_haproxy(socket: object, command: str) -> str:
    return subprocess.run(["socat", "-", f"UNIX-CONNECT:{socket}"], text=True, check=True,
                          input=command + "\n", stdout=subprocess.PIPE).stdout


def statistics(socket: object) -> list[dict[str, str]]:
    return list(csv.DictReader(ask_haproxy(socket, "show stat").removeprefix("# ").splitlines()))


class Weir:
    """On a host of its own, with an edge, as its units run it."""

    def __init__(self, lab: Lab, binary: Path, name: str, address: str) -> None:
        self.lab, self.binary, self.host = lab, binary, Host(address)
        self.log, self.said = lab.work / f"{name}.log", (lab.work / "said").open("ab")
        self.folder = lab.work / name
        self.folder.mkdir()
        self.socket = self.folder / "admin.sock"
        self.environment = settings("weir-fleet", COPY=self.folder / "maps", EDGE=self.socket)
        self.process: Process
        self.edge: Process

    def start_edge(self) -> None:
        file = self.folder / "haproxy.cfg"
        write_configuration("edge/haproxy.cfg", file, **{
            "/run/haproxy/admin.sock": self.socket, "/var/lib/weir-maps": self.folder})
        self.edge = start_haproxy(self.lab, self.host, file, 7745)

    def caches(self) -> dict[str, int]:
        """How many requests each cache in use by the edge has answered."""
        rows = [row for row in statistics(self.socket) if row["status"] == "UP" and row["addr"]]
        return {row["addr"]: sum(int(other["stot"]) for other in rows if other["addr"] == row["addr"])
                for row in rows}

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
        self.hosts: dict[str, Host] = {}
        make_bridge(PLAYERS)
        self.weirs = {name: Weir(lab, binary, name, address) for name, address in WEIRS.items()}
        self.install()
        self.etcds = {ETCD: self.start_etcd(ETCD)}
        self.caches = {cache: self.start_cache(cache) for cache in CACHES}
        wait_until("etcd to take the maps", lambda: self.put_maps(CACHE1))
        for weir in self.weirs.values():
            weir.start_edge()
            weir.start()
            weir.get_ready()
            weir.run("fleet/weir-maps-watch.service", "ExecStart", lab.start)
        self.start_control(Weir(lab, binary, "control", CONTROL))
        self.start_haproxy(HAPROXY)
        wait_until("HAProxy to know all weirs", lambda: set(self.column("check_status").values()) == {"L7OK"})

    def start_control(self, weir: Weir) -> None:
        """Its maps come from a file; it has no edge and no HAProxy."""
        (weir.folder / "file").write_text(f"chunk={CONTROL_CACHE}&playlist={CONTROL_CACHE}")
        weir.start()
        weir.get_ready(MAPS_FILE=str(weir.folder / "file"), EDGE="", BALANCERS=PLAYERS)

    def install(self) -> None:
        """Copies the files to where users do, on file systems of this process."""
        for target in "/etc/haproxy", "/usr/local/sbin", "/run":
            subprocess.run(["mount", "-t", "tmpfs", "tmpfs", target], check=True)
        Path("/run/haproxy").mkdir()
        for file in (KIT / "fleet").glob("weir-*"):
            if os.access(file, os.X_OK):
                shutil.copy(file, "/usr/local/sbin")
        write_configuration("fleet/haproxy.cfg", CONFIGURATION)

    def host(self, address: str) -> Host:
        if address not in self.hosts:
            self.hosts[address] = Host(address)
        return self.hosts[address]

    def start_etcd(self, address: str, file: str = "etcd") -> Process:
        with self.host(address):
            return self.lab.start(["etcd"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  env=settings(file, ETCD_DATA_DIR=self.lab.work / address))

    def start_cache(self, cache: str) -> Process:
        with self.host(cache.split(":")[0]):
            return self.lab.nginx(f"cache-{cache}", 8080, CACHE.format(listen=cache, root=self.lab.www))

    def start_haproxy(self, address: str, **options: str) -> Process:
        return start_haproxy(self.lab, self.host(address), CONFIGURATION, 80, **options)

    def signal_cache(self, cache: str, number: int) -> None:
        for worker in procfs.children(self.caches[cache].pid):
            os.kill(worker, number)

    def set_power(self, cache: str, state: str) -> None:
        ip(f"link set host{cache.split(':')[0].rpartition('.')[2]} {state}")

    def put_maps(self, servers: str) -> bool:
        return subprocess.run(["etcdctl", "put", "/weir/maps", f"chunk={servers}&playlist={servers}"],
                              env=settings("weir-fleet"), capture_output=True).returncode == 0

    def admin(self, command: str) -> str:
        return ask_haproxy("/run/haproxy/admin.sock", command)

    def column(self, name: str) -> dict[str, str]:
        """Of HAProxy's statistics, by weir."""
        return {row["svname"]: row[name] for row in statistics("/run/haproxy/admin.sock")
                if row["pxname"] == "weirs" and row["svname"] in WEIRS}

    def streams(self) -> dict[str, int]:
        return {name: int(count) for name, count in self.column("scur").items()}
