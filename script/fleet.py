"""Three weirs behind HAProxy, two caches, the maps in etcd, and players that check every byte.

Each has a network of its own and runs with the files of examples/fleet/. A weir is killed, another
one drained, the first one brought back; the maps change; a cache is killed and comes back; a weir
starts while etcd is away. In the end HAProxy's options are tried.
"""

import argparse
import csv
import hmac
import os
import re
import signal
import socket
import ssl
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from statistics import median

from weirlab import client
from weirlab.lab import AS_NOBODY, TOP, Lab, Process, wait_until
from weirlab.live import Channels
from weirlab.network import Host, ip, make_bridge, own_network
from weirlab.players import Audience, Seat
from weirlab.units import commands, copy, settings

HAPROXY, SPARE, ETCD, PLAYERS, STRANGER = (f"192.0.2.{number}" for number in (2, 3, 31, 100, 101))
WEIRS = {f"weir{number}": f"192.0.2.1{number}" for number in (1, 2, 3)}
CACHE1, CACHE2 = "192.0.2.21:8080", "192.0.2.22:8080"
CHANNELS, SECONDS, BUFFER = 4, 1, 4 << 20
SLACK = 10  # seconds, for what takes less than one on an idle machine
DROP_IN, CONFIGURATION = "weir.service.d/fleet.conf", Path("/etc/haproxy/haproxy.cfg")
ASKED = "^Request::start 3 << (.*)"
STREAM, SECRET = client.stream_path("http://~/c0/master.m3u8", -3), "not a good one"


def check(good: object, what: str) -> None:
    if not good:
        raise SystemExit(what)


def status(path: str, host: str = HAPROXY, source: str = PLAYERS, tls: bool = False) -> int:
    with socket.create_connection((host, 443 if tls else 80), SLACK, (source, 0)) as connection:
        if tls:
            context = ssl.create_default_context(cafile=CONFIGURATION.with_name("fleet.pem"))
            connection = context.wrap_socket(connection, server_hostname="fleet")
        connection.sendall(client.request(path))
        return int(connection.recv(1 << 10).split()[1])


class Weir:
    """On a host of its own, as its units run it."""

    def __init__(self, lab: Lab, binary: Path, name: str) -> None:
        self.lab, self.binary, self.host = lab, binary, Host(WEIRS[name])
        self.log, self.said = lab.work / f"{name}.log", (lab.work / "said").open("ab")
        self.environment = settings("fleet/weir-fleet", COPY=lab.work / name / "maps")
        self.process: Process

    def run(self, unit: str, key: str = "ExecStart") -> None:
        with self.host:
            for command in commands(unit, key, self.environment):
                subprocess.run(command, env=self.environment, check=True, stderr=self.said)

    def start(self) -> None:
        """Up to where its maps are sent."""
        self.run(DROP_IN, "ExecStartPre")
        self.lab.log = self.log
        with self.host:
            self.process = self.lab.weir(self.binary, BUFFER, progress=True)

    def get_ready(self) -> None:
        self.run(DROP_IN, "ExecStartPost")

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
    """Everything, and what happens to it."""

    def __init__(self, lab: Lab, options: argparse.Namespace) -> None:
        self.lab, self.options, self.began = lab, options, time.monotonic()
        self.said = (lab.work / "said").open("ab")
        self.etcd_host, *self.cache_hosts = map(Host, (ETCD, CACHE1.split(":")[0], CACHE2.split(":")[0]))
        self.weirs = {name: Weir(lab, options.binary, name) for name in WEIRS}
        self.audience: Audience

    def say(self, text: str, more: str = "") -> None:
        print(f"{time.monotonic() - self.began:3.0f} s  {text}" if text else f"{'':9}{more}", flush=True)

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

    def start_haproxy(self, address: str, **options: str) -> None:
        with Host(address):
            process = self.lab.start(["haproxy", "-Ws", "-f", CONFIGURATION], stdout=subprocess.DEVNULL,
                                     stderr=self.said, env={"PATH": os.environ["PATH"], **options})
            wait_until("HAProxy to answer", lambda: client.answers(80) or process.poll() is not None)
        check(process.poll() is None, "HAProxy did not start")

    def etcdctl(self, *words: str) -> int:
        return subprocess.run(["etcdctl", *words], env=settings("fleet/weir-fleet"), check=False,
                              capture_output=True).returncode

    def put_maps(self, servers: str) -> None:
        check(self.etcdctl("put", "/weir/maps", f"chunk={servers}&playlist={servers}") == 0, "etcd fails")

    def start(self) -> None:
        self.say("starting etcd, two caches, three weirs and HAProxy")
        self.install()
        with self.etcd_host:
            self.etcd = self.lab.start(["etcd"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                       env=settings("fleet/etcd", ETCD_DATA_DIR=self.lab.work / "etcd"))
        self.caches = [self.start_cache(number) for number in range(2)]
        channels = Channels(self.lab.www, [self.options.kbit * 1000], SECONDS, CHANNELS // 2,
                            CHANNELS // 2, "http://~", "http://@", "http://@")
        self.audience = Audience(channels.start(), HAPROXY, 80)
        wait_until("etcd to answer", lambda: self.etcdctl("endpoint", "health") == 0)
        self.put_maps(CACHE1)
        for weir in self.weirs.values():
            weir.start()
            weir.get_ready()
            weir.watch()
        self.start_haproxy(HAPROXY)
        self.come(self.options.players)
        self.say(f"{self.options.players} players of {self.options.kbit} kbit/s each: {self.streams()}")

    def come(self, count: int) -> None:
        for number in range(count):
            self.audience.add(f"http://~/c{number % CHANNELS}/master.m3u8")
        self.wait_for_players()

    def wait_for_players(self) -> None:
        wait_until("all players to get media", lambda: all(seat.playing() for seat in self.audience.seats),
                   3 * SLACK)

    def admin(self, command: str) -> str:
        return subprocess.run(["socat", "-", "UNIX-CONNECT:/run/haproxy/admin.sock"], text=True, check=True,
                              input=command + "\n", stdout=subprocess.PIPE).stdout

    def column(self, name: str) -> dict[str, str]:
        """Of HAProxy's statistics, by weir."""
        rows = csv.DictReader(self.admin("show stat").removeprefix("# ").splitlines())
        return {row["svname"]: row[name] for row in rows if row["svname"] in WEIRS}

    def streams(self) -> dict[str, int]:
        return {name: int(count) for name, count in self.column("scur").items()}

    def quietly(self, act: Callable[[], object]) -> None:
        """Does what nobody may notice."""
        seats, lost = list(self.audience.seats), self.audience.lost()
        self.forget_pauses()
        act()
        time.sleep(2 * SECONDS)
        check(self.audience.lost() == lost, f"{self.audience.lost() - lost} streams have ended")
        self.tell_pause(seats)

    def forget_pauses(self) -> None:
        for seat in self.audience.seats:
            seat.players[-1].longest_gap = 0.0

    def tell_pause(self, seats: list[Seat]) -> None:
        pause = max(seat.pause() for seat in seats)
        check(pause < SECONDS + SLACK, f"a pause of {pause:.1f} s")
        self.say("", f"the other {len(seats)} players notice nothing: the longest pause is {pause:.1f} s")

    def everywhere(self, what: str, pattern: str, act: Callable[[], object]) -> float:
        """How many seconds it takes until all weirs have logged that."""
        since = {weir: weir.position() for weir in self.weirs.values()}
        began = time.monotonic()
        act()
        wait_until(f"all weirs to {what}", lambda: all(weir.lines(pattern, at) for weir, at in since.items()))
        return time.monotonic() - began

    def try_forbidden(self) -> None:
        for path in ("/watchdog", "/update-cache-map?chunk=", "/stats.json"):
            check(status(path) == 404, f"players get {path}")
        for query in ("url=http://127.0.0.1:7744/watchdog", "a&url=http://~/x&url=http://127.0.0.1/"):
            check(status(f"/stream?{query}") == 403, f"players get {query}")
        try:
            socket.create_connection((WEIRS["weir1"], client.WEIR), SLACK).close()
        except ConnectionRefusedError:
            return self.say("", "players get nothing but streams, and those of the caches only")
        raise SystemExit("players get at weir1 past HAProxy")

    def kill_weir(self, name: str) -> None:
        count, before, began = self.streams()[name], self.audience.lost(), time.monotonic()
        self.forget_pauses()
        self.say(f"{name} is killed while it has {count} players")
        self.weirs[name].kill()
        wait_until("its players to lose it", lambda: self.audience.lost() >= before + count)
        self.wait_for_players()
        time.sleep(2 * SECONDS)
        seats = self.audience.seats
        lost = [seat for seat in seats if seat.lost and seat.lost[-1] > began]
        tries = self.audience.lost() - before
        check(len(lost) == tries == count, f"{len(lost)} of {count} players lost {tries} streams")
        waits = [seat.players[-1].first - seat.lost[-1] for seat in lost]
        again = [seat.players[-2].found.sequence - seat.players[-1].found.first + 1 for seat in lost]
        check(max(waits) < SLACK, f"media came after {max(waits):.1f} s")
        check(min(again) > -SLACK, f"{-min(again)} segments are between the old stream and the new one")
        self.say("", f"they have media again after {median(waits):.2f} s, at most {max(waits):.2f} s, "
                     f"and get {min(again)} to {max(again)} segments of {SECONDS} s twice")
        self.tell_pause([seat for seat in seats if seat not in lost])

    def drain(self, name: str) -> None:
        count = self.streams()[name]
        self.say(f"{name} is drained, and 6 players come")
        self.admin(f"set server weirs/{name} state drain")
        self.come(6)
        check(self.streams()[name] == count, f"{name} had {count} players, now {self.streams()}")
        self.say("", f"it keeps its {count} and gets no other: {self.streams()}")

    def bring_back(self, name: str) -> None:
        weir, since = self.weirs[name], self.weirs[name].position()
        self.say(f"{name} starts; 3 players come before its maps are sent, 6 afterwards")
        weir.start()
        self.come(3)
        time.sleep(2 * SECONDS)
        check(not weir.lines(ASKED, since), f"{name} is asked before it has maps")
        weir.get_ready()
        wait_until(f"HAProxy to use {name}", lambda: self.column("status")[name] == "UP")
        self.come(6)
        check(weir.lines(ASKED, since)[0] == "/update-cache-map" and self.streams()[name] > 0,
              f"{name} has no players or was not sent its maps first: {self.streams()}")
        self.say("", f"the maps are its first request: {self.streams()}")

    def change_maps(self) -> None:
        both = f"{CACHE1},{CACHE2}"
        self.say("the maps in etcd change")
        took = self.everywhere("have the maps", f"^setting map to: {both}$", lambda: self.put_maps(both))
        check(took < SLACK / 2, f"that took {took:.1f} s")
        self.everywhere("use cache2", f"selected server: {CACHE2}$", time.monotonic)
        self.everywhere("keep their maps", f"^setting map to: {both}$", lambda: self.put_maps("oops"))
        self.say("", f"all weirs have them after {took:.2f} s, and keep them when etcd gets no maps")
        self.put_maps(both)

    def kill_cache(self) -> None:
        def send() -> None:
            positions = {weir: weir.position() for weir in self.weirs.values()}
            time.sleep(2 * SECONDS)
            for weir, at in positions.items():
                check(not weir.lines(f"selected server: {CACHE1}$", at), "a dead cache is used")
                weir.run("fleet/weir-maps.service")

        self.say("cache1 is killed")
        self.everywhere("leave it out", f"^  server: {CACHE1} DEAD$",
                        lambda: self.lab.kill_with_children(self.caches[0]))
        self.caches[0] = self.start_cache(0)
        self.everywhere("use it again", f"selected server: {CACHE1}$", send)
        self.say("", "it comes back, and all weirs use it when the timer has sent the maps")

    def try_options(self) -> None:
        self.say("a second HAProxy has TLS, allowed networks, tokens, and 2 streams for each address")
        subprocess.run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=fleet "
                       "-addext subjectAltName=DNS:fleet -keyout fleet.pem -out fleet.pem".split(),
                       cwd=CONFIGURATION.parent, check=True, capture_output=True)
        self.start_haproxy(SPARE, FLEET_CERTIFICATE="/etc/haproxy/fleet.pem", FLEET_SECRET=SECRET,
                           FLEET_NETWORKS=f"203.0.113.0/24 {PLAYERS}/32", FLEET_STREAMS="2")
        ip(f"address add {STRANGER}/24 dev bridge")

        def signed(seconds: int) -> str:
            path = f"{STREAM}&expires={int(time.time()) + seconds}"
            return f"{path}&token={hmac.digest(SECRET.encode(), path.encode(), 'sha256').hex()}"
        good = signed(10 * SLACK)
        for what, got, wanted in (
                ("another network", status(good, SPARE, STRANGER), 403),
                ("no token", status(STREAM, SPARE), 401),
                ("another URL", status(good.replace("c0", "c1"), SPARE), 401),
                ("an old token", status(signed(-1), SPARE), 410)):
            check(got == wanted, f"{what}: {got} instead of {wanted}")
        with client.connect(good, 80, SLACK, SPARE) as one, client.connect(good, 80, SLACK, SPARE) as two:
            for stream in one, two:
                check(b" 200 " in (head := stream.recv(1 << 10)), f"one of two streams: {head!r}")
            check(status(good, SPARE) == 429, "there may be three streams")
        wait_until("a stream over TLS", lambda: status(good, SPARE, tls=True) == 200)
        self.say("", "each does what it should")

    def run(self) -> None:
        self.start()
        self.try_forbidden()
        self.kill_weir("weir1")
        self.quietly(lambda: self.drain("weir2"))
        self.quietly(lambda: self.bring_back("weir1"))
        self.admin("set server weirs/weir2 state ready")
        self.quietly(self.change_maps)
        self.quietly(self.kill_cache)
        self.lab.end(self.etcd, signal.SIGKILL)
        self.say("etcd is killed")
        self.kill_weir("weir3")
        self.quietly(lambda: self.bring_back("weir3"))
        self.try_options()
        found = {name: self.audience.total(name) for name in ("wrong", "missing", "shorts", "repeated")}
        check(not any(found.values()), f"not as it should be: {found}")
        self.say(f"OK: {self.audience.total('verified') / 1e6:.0f} MB, every byte as it should be")


def main() -> None:
    parser = argparse.ArgumentParser(
        prog="script/fleet", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--players", type=int, default=60)
    parser.add_argument("--kbit", type=int, default=200, help="a second, of each player")
    parser.add_argument("--binary", type=Path,
                        default=os.environ.get("WEIR_BINARY", TOP / "build/release/weir"))
    options = parser.parse_args()
    own_network(mounts=True)
    make_bridge(PLAYERS)
    with Lab("/dev/shm") as lab:
        try:
            Fleet(lab, options).run()
        except SystemExit:
            print("FAILED; the others said:", (lab.work / "said").read_text(errors="replace"), sep="\n")
            raise


if __name__ == "__main__":
    main()
