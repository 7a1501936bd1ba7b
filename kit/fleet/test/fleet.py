"""The fleet of kit/fleet/README.md on one machine, and its players: each weir, cache, HAProxy and etcd has
a network of its own; the players use that of this process. The control weir and its cache always run."""

import argparse
import csv
import os
import re
import shutil
import signal
import subprocess
import time
from collections.abc import Callable
from functools import lru_cache
from pathlib import Path

from live import Channels
from players import Audience, Seat
from weirlab import client, procfs
from weirlab.lab import AS_NOBODY, TOP, Lab, Process, wait_until
from weirlab.network import Host, ip, make_bridge, own_network

HAPROXY, SPARE, ETCD = "192.0.2.2", "192.0.2.3", "192.0.2.31"
PLAYERS, CONTROL = "192.0.2.100", "192.0.2.14"
WEIRS = {f"weir{number}": f"192.0.2.1{number}" for number in (1, 2, 3)}
CACHES = CACHE1, CACHE2, CONTROL_CACHE = [f"192.0.2.2{number}:8080" for number in (1, 2, 3)]
KIT, CONFIGURATION, ADMIN = TOP / "kit", Path("/etc/haproxy/haproxy.cfg"), "/run/haproxy/admin.sock"
# Answers without a length, and none at all.
CACHE = """listen {listen}; root {root};
location = /chunked.m3u8 {{ alias {root}/c0/master.m3u8; ssi on; ssi_types *; }}
location = /closed.m3u8 {{ return 444; }}"""
BINARY = Path(os.environ.get("WEIR_BINARY", TOP / "build/release/weir"))
WEIR_FLEET, DROP_IN = KIT / "fleet/weir-fleet", "service/weir.service.d/fleet.conf"
CHANNELS, SECONDS = 4, 1  # of a segment
# Seconds, for what takes less than one on an idle machine; and of the players.
SLACK, READ_TIMEOUT = 10, 4
Act = Callable[[str], object]  # to the host of an address
host = lru_cache(None)(Host)


def check(good: object, what: str) -> None:
    if not good:
        raise SystemExit(what)


def power(state: str) -> Act:
    return lambda address: ip(f"link set host{address.split(':')[0].rpartition('.')[2]} {state}")


def send(number: int, processes: dict[str, Process]) -> Act:
    """Sends the signal to all processes of that kind, children first."""
    def act(address: str) -> None:
        for pid in (*procfs.children(processes[address].pid), processes[address].pid):
            os.kill(pid, number)
    return act


def settings(file: Path, **more: object) -> dict[str, str]:
    """The environment that EnvironmentFile= makes of a file."""
    own = dict(re.findall(r'^(\w+)="?([^"\n]*)', file.read_text(), re.MULTILINE))
    return {"PATH": os.environ["PATH"], **own, **{name: str(value) for name, value in more.items()}}


def configure(source: str, target: Path, **replaced: object) -> None:
    text = (KIT / source).read_text()
    for old, new in replaced.items():
        text = text.replace(old, str(new))
    if not AS_NOBODY:  # root in a user namespace has no other uid to switch to
        text = re.sub(r"(?m)^    (user|group) .*\n", "", text).replace("nobody", "root")
    target.write_text(text)


def ask_haproxy(command: str, socket: object = ADMIN) -> str:
    return subprocess.run(["socat", "-", f"UNIX-CONNECT:{socket}"], text=True, check=True,
                          input=command + "\n", stdout=subprocess.PIPE).stdout


def statistics(socket: object = ADMIN) -> list[dict[str, str]]:
    return list(csv.DictReader(ask_haproxy("show stat", socket).removeprefix("# ").splitlines()))


def column(name: str) -> dict[str, str]:  # of HAProxy's statistics, by weir
    return {row["svname"]: row[name] for row in statistics()
            if row["pxname"] == "weirs" and row["svname"] in WEIRS}


class Weir:
    """On a host of its own, with an edge, as its units run it."""

    def __init__(self, fleet: "Fleet", name: str, address: str) -> None:
        self.fleet, self.address, self.folder = fleet, address, fleet.lab.work / name
        self.folder.mkdir()
        self.log, self.socket = self.folder / "log", self.folder / "admin.sock"
        self.environment = settings(WEIR_FLEET, **fleet.MORE, COPY=self.folder / "maps", EDGE=self.socket)

    def start_edge(self) -> None:
        file = self.folder / "haproxy.cfg"
        configure("edge/haproxy.cfg", file, **{ADMIN: self.socket, "/var/lib/weir-maps": self.folder})
        self.fleet.start_haproxy(self.address, file, 7745)

    def caches(self) -> dict[str, int]:
        """How many requests each cache in use by the edge has answered, for one of the maps."""
        rows = [row for row in statistics(self.socket) if row["status"] == "UP" and row["addr"]]
        return {address: count for count, address in sorted((int(row["stot"]), row["addr"]) for row in rows)}

    def run(self, unit: str, key: str, **more: str) -> Process:
        """Starts the commands that the unit has for the key."""
        commands = re.findall(rf"^{key}=\+?(.*)", (KIT / unit).read_text(), re.MULTILINE)
        with host(self.address):
            return self.fleet.lab.start(["bash", "-c", " && ".join(commands)], env=self.environment | more,
                                        stdout=subprocess.DEVNULL, stderr=self.fleet.said)

    def start(self) -> None:  # without its maps
        self.run(DROP_IN, "ExecStartPre").wait()
        self.fleet.lab.log = self.log
        with host(self.address):
            self.process = self.fleet.lab.weir(BINARY, 4 << 20, progress=True)

    def get_ready(self, **more: str) -> bool:
        return self.run(DROP_IN, "ExecStartPost", **more).wait() == 0

    def kill(self) -> None:
        self.fleet.lab.end(self.process, signal.SIGKILL)
        self.run(DROP_IN, "ExecStopPost").wait()

    def follow(self) -> Callable[[str], list[str]]:
        """A function that finds a pattern in what is logged from now on."""
        start = self.log.stat().st_size
        return lambda pattern: re.findall(pattern, self.log.read_bytes()[start:].decode("latin-1"), re.M)


class Fleet:
    """Everything but the players, once own_network(mounts=True) is called."""
    MORE: dict[str, str] = {}  # in the environment

    def __init__(self, lab: Lab) -> None:
        self.lab, self.said = lab, (lab.work / "said").open("ab")
        self.haproxies: dict[str, Process] = {}
        make_bridge(PLAYERS)
        self.install()
        self.etcds = {ETCD: self.start_etcd(ETCD)}
        self.caches = {}
        for cache in CACHES:
            with host(cache.split(":")[0]):
                self.caches[cache] = lab.nginx(cache, 8080, CACHE.format(listen=cache, root=lab.www))
        self.put_maps(CACHE1)
        self.weirs = {name: Weir(self, name, address) for name, address in WEIRS.items()}
        for weir in self.weirs.values():
            weir.start_edge()
            weir.start()
            weir.get_ready()
            weir.run("fleet/weir-maps-watch.service", "ExecStart")
        # The control weir has no edge and no HAProxy; its maps come from a file.
        control, file = Weir(self, "control", CONTROL), lab.work / "control/file"
        file.write_text(f"chunk={CONTROL_CACHE}&playlist={CONTROL_CACHE}")
        control.start()
        control.get_ready(MAPS_FILE=str(file), EDGE="", BALANCERS=PLAYERS)
        self.start_haproxy(HAPROXY)
        wait_until("HAProxy to know all weirs", lambda: set(column("check_status").values()) == {"L7OK"})

    def install(self) -> None:
        """Copies the files to where users do, on file systems of this process."""
        for target in "/etc/haproxy", "/usr/local/sbin", "/run", "/etc/default":
            subprocess.run(["mount", "-t", "tmpfs", "tmpfs", target], check=True)
        Path("/run/haproxy").mkdir()
        for program in "weir-gate", "weir-maps", "weir-maps-watch":
            shutil.copy(KIT / "fleet" / program, "/usr/local/sbin")
        configure("fleet/haproxy.cfg", CONFIGURATION)
        shutil.copy(KIT / "fleet/etcd", self.lab.work / f"{ETCD}.conf")

    def start_etcd(self, address: str) -> Process:
        folder = self.lab.work / address
        with host(address):
            return self.lab.start(["etcd"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  env=settings(Path(f"{folder}.conf"), ETCD_DATA_DIR=folder))

    def start_haproxy(self, address: str, file: Path = CONFIGURATION, port: int = 80, **options: str) -> None:
        with host(address):
            self.haproxies[address] = self.lab.start(
                ["haproxy", "-Ws", "-f", file], stdout=subprocess.DEVNULL, stderr=self.said,
                env={"PATH": os.environ["PATH"], **self.MORE, **options})
            wait_until("HAProxy to answer", lambda: client.answers(port))

    def etcdctl(self, *words: str) -> str:  # the output, or nothing if it fails
        return subprocess.run(["etcdctl", "--command-timeout=1s", *words], text=True, stdout=subprocess.PIPE,
                              stderr=self.said, env=settings(WEIR_FLEET, **self.MORE)).stdout

    def put_maps(self, servers: str) -> None:
        maps = f"chunk={servers}&playlist={servers}"
        wait_until("etcd to take the maps", lambda: "OK" in self.etcdctl("put", "/weir/maps", maps))


class Story:
    """The players of an address, and undisturbed ones that show how busy this machine is."""

    def __init__(self, fleet: Fleet, address: str, options: argparse.Namespace) -> None:
        # `left`: how many streams failures have ended.
        self.began, self.fleet, self.weirs, self.left = time.monotonic(), fleet, fleet.weirs, 0
        self.rates = [options.kbit * share for share in (500, 1000)]
        media = Channels(fleet.lab.www, self.rates, SECONDS, 2, 2, "http://~", "http://@", "http://@").start()
        self.audiences = [Audience(media, address, 80), Audience(media, CONTROL, client.WEIR)]
        self.audience, self.undisturbed = self.audiences
        self.undisturbed.loop = self.audience.loop  # they share a semaphore
        self.come(CHANNELS, self.undisturbed)
        self.come(options.players)

    def say(self, text: str) -> None:
        print(f"{time.monotonic() - self.began:3.0f} s  {text}", flush=True)

    def come(self, count: int, audience: Audience | None = None) -> list[Seat]:
        audience = audience or self.audience
        for number in range(count):
            audience.add(f"http://~/c{number % CHANNELS}/master.m3u8")
        self.wait_for(audience.seats)
        return audience.seats[-count:]

    def wait_for(self, seats: list[Seat], since: float = 0) -> None:
        wait_until("players to get media", lambda: all(
            seat.playing() and seat.players[-1].last > since for seat in seats), 3 * SLACK)

    def lost(self) -> int:
        return sum(audience.lost() for audience in self.audiences)

    def total(self, name: str) -> int:
        return sum(audience.total(name) for audience in self.audiences)

    def control(self) -> float:  # the longest pause of an undisturbed player, in seconds
        return max(SECONDS, *(seat.pause() for seat in self.undisturbed.seats))

    def unnoticed(self, what: str, act: Callable[..., int | None], *more: object, longest: float = 2) -> None:
        """No stream may end but those in self.left, and no player pause for `longest` seconds more than a
        segment, or than the undisturbed players; but as many as `act` returns may."""
        self.say(what)
        seats, everyone = list(self.audience.seats), self.audience.seats + self.undisturbed.seats
        for seat in everyone:
            seat.players[-1].longest_gap = 0.0
        stopped = act(*more) or 0
        self.wait_for(everyone, time.monotonic() + SECONDS)
        check(self.lost() == self.left, f"{self.lost()} streams have ended instead of {self.left}")
        pause = ([0] * (stopped + 1) + sorted(seat.pause() for seat in seats))[-stopped - 1]
        self.say(f"  players pause for {pause:.1f} s at most (undisturbed ones: {self.control():.1f} s)")
        check(pause < self.control() + longest, "that is too long")

    def recover(self, seats: list[Seat], since: float, limit: float = SLACK) -> None:
        """They must have media of streams that began since then; older, silent streams are left."""
        def again() -> bool:
            old = [seat for seat in seats if not seat.playing() or seat.players[-1].started < since]
            for seat in old:
                if seat.playing() and seat.players[-1].last < time.monotonic() - READ_TIMEOUT:
                    self.audience.loop.call_soon_threadsafe(seat.players[-1].leave)
            return not old

        wait_until("players to get media again", again, 60)
        self.left = self.lost()
        pairs = [[player for player in seat.players if player.first][-2:] for seat in seats]
        silence = max(new.first - old.last for old, new in pairs)
        self.say(f"  {len(seats)} players are without media for {silence:.1f} s at most")
        check(silence < limit + self.control(), f"that is too long; undisturbed ones: {self.control():.1f} s")

    def everywhere(self, servers: str, act: Callable[[], object], limit: float = SLACK) -> None:
        """All weirs must log these servers for both maps."""
        logs, began = [weir.follow() for weir in self.weirs.values()], time.monotonic()
        act()
        wait_until("all weirs to have the maps", lambda: all(
            len(find(f"^setting map to: .*;{servers}$")) >= 2 for find in logs))
        self.say("  all weirs have the maps")
        check(time.monotonic() - began < limit, "that is too late")


def main(tell: Callable[[Lab, argparse.Namespace], object], players: int) -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--players", type=int, default=players)
    parser.add_argument("--kbit", type=int, default=200)
    parser.add_argument("--all", action="store_true")
    options = parser.parse_args()
    own_network(mounts=True)
    with Lab("/dev/shm") as lab:
        try:
            tell(lab, options)
        except SystemExit:
            subprocess.run("tail -n 30 said; grep -aE 'FAILED|^Excep|invalid|should_finish|^no |^too many|"
                           "failed' weir?/log | tail -n 40", shell=True, cwd=lab.work)
            raise
