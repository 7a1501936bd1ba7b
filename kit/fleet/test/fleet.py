"""The fleet of kit/fleet/README.md on one machine, with the files of kit/fleet/: each weir, cache,
HAProxy and etcd has a network of its own, the players are where this process is."""

import csv
import os
import re
import signal
import subprocess
from pathlib import Path

from weirlab import client
from weirlab.lab import AS_NOBODY, Lab, Process, wait_until
from weirlab.network import Host, make_bridge
from units import commands, copy, settings

HAPROXY, SPARE, ETCD, PLAYERS, STRANGER = (f"192.0.2.{number}" for number in (2, 3, 31, 100, 101))
WEIRS = {f"weir{number}": f"192.0.2.1{number}" for number in (1, 2, 3)}
CACHES = CACHE1, CACHE2 = "192.0.2.21:8080", "192.0.2.22:8080"
BUFFER = 4 << 20
DROP_IN, CONFIGURATION = "service/weir.service.d/fleet.conf", Path("/etc/haproxy/haproxy.cfg")


class Weir:
    """On a host of its own, as its units run it."""

    def __init__(self, lab: Lab, binary: Path, name: str) -> None:
        self.lab, self.binary, self.host = lab, binary, Host(WEIRS[name])
        self.log, self.said = lab.work / f"{name}.log", (lab.work / "said").open("ab")
        self.environment = settings("fleet/weir-fleet", COPY=lab.work / name / "maps")
        self.process: Process

    def run(self, unit: str, key: str = "ExecStart", **more: str) -> None:
        with self.host:
            for command in commands(unit, key, self.environment):
                subprocess.run(command, env=self.environment | more, check=True, stderr=self.said)

    def start(self) -> None:
        """Up to where its maps are sent."""
        self.run(DROP_IN, "ExecStartPre")
        self.lab.log = self.log
        with self.host:
            self.process = self.lab.weir(self.binary, BUFFER, progress=True)

    def get_ready(self, **other: str) -> None:
        self.run(DROP_IN, "ExecStartPost", **other)

    def watch(self) -> None:
        with self.host:
            self.lab.start(*commands("fleet/weir-maps-watch.service", "ExecStart", self.environment),
                           env=self.environment, stdout=subprocess.DEVNULL, stderr=self.said)

    def kill(self) -> None:
        self.lab.end(self.process, signal.SIGKILL)
        self.run(DROP_IN, "ExecStopPost")

    def lines(self, pattern: str, since: int) -> list[str]:
        """What it has logged from that byte on."""
        with self.log.open("rb") as log:
            log.seek(since)
            return re.findall(pattern, log.read().decode("latin-1"), re.MULTILINE)

    def position(self) -> int:
        return self.log.stat().st_size


class Fleet:
    """Everything but the players. To be made once own_network(mounts=True) is called."""

    def __init__(self, lab: Lab, binary: Path) -> None:
        self.lab, self.said = lab, (lab.work / "said").open("ab")
        make_bridge(PLAYERS)
        self.etcd_host, *self.cache_hosts = (Host(each.split(":")[0]) for each in (ETCD, *CACHES))
        self.weirs = {name: Weir(lab, binary, name) for name in WEIRS}
        self.install()
        with self.etcd_host:
            self.etcd = lab.start(["etcd"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  env=settings("fleet/etcd", ETCD_DATA_DIR=lab.work / "etcd"))
        self.caches = [self.start_cache(number) for number in range(len(CACHES))]
        wait_until("etcd to answer", lambda: self.etcdctl("endpoint", "health") == 0)
        self.put_maps(CACHE1)
        for weir in self.weirs.values():
            weir.start()
            weir.get_ready()
            weir.watch()
        self.haproxy = self.start_haproxy(HAPROXY)
        wait_until("HAProxy to know all weirs", lambda: set(self.column("check_status").values()) == {"L7OK"})

    def install(self) -> None:
        """Where users copy the files to, seen by nobody but what this starts."""
        for target in ("/etc/haproxy", "/usr/local/sbin", "/run"):
            subprocess.run(["mount", "-t", "tmpfs", "tmpfs", target], check=True)
        Path("/run/haproxy").mkdir()
        for name in ("weir-maps", "weir-gate"):
            copy(f"fleet/{name}", "/usr/local/sbin")
        copy("fleet/haproxy.cfg", "/etc/haproxy")
        if not AS_NOBODY:  # the root of a user namespace has no other users
            CONFIGURATION.write_text(re.sub(r"(?m)^    (user|group) .*\n", "", CONFIGURATION.read_text()))

    def start_cache(self, number: int) -> Process:
        with self.cache_hosts[number] as host:
            return self.lab.nginx(f"cache{number + 1}", 8080,
                                  f"listen {host.address}:8080; root {self.lab.www};")

    def start_haproxy(self, address: str, **options: str) -> Process:
        with Host(address):
            process = self.lab.start(["haproxy", "-Ws", "-f", CONFIGURATION], stdout=subprocess.DEVNULL,
                                     stderr=self.said, env={"PATH": os.environ["PATH"], **options})
            wait_until("HAProxy to answer", lambda: client.answers(80) or process.poll() is not None)
        if process.poll() is not None:
            raise SystemExit("HAProxy did not start")
        return process

    def etcdctl(self, *words: str) -> int:
        return subprocess.run(["etcdctl", *words], env=settings("fleet/weir-fleet"), check=False,
                              capture_output=True).returncode

    def put_maps(self, servers: str) -> None:
        if self.etcdctl("put", "/weir/maps", f"chunk={servers}&playlist={servers}") != 0:
            raise SystemExit("etcd does not take the maps")

    def admin(self, command: str) -> str:
        return subprocess.run(["socat", "-", "UNIX-CONNECT:/run/haproxy/admin.sock"], text=True, check=True,
                              input=command + "\n", stdout=subprocess.PIPE).stdout

    def column(self, name: str) -> dict[str, str]:
        """Of HAProxy's statistics, by weir."""
        rows = csv.DictReader(self.admin("show stat").removeprefix("# ").splitlines())
        return {row["svname"]: row[name] for row in rows if row["svname"] in WEIRS}

    def streams(self) -> dict[str, int]:
        return {name: int(count) for name, count in self.column("scur").items()}
