"""Three weirs behind HAProxy, two caches, the maps in etcd, and players that check every byte.

Each has a network of its own and runs with the files of kit/fleet/. A weir is killed, another
one drained, the first one brought back; the maps change; a cache is killed and comes back; a weir
starts while etcd is away. In the end HAProxy's options are tried.
"""

import argparse
import hmac
import os
import re
import socket
import ssl
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from statistics import median

from fleet import CACHE1, CACHE2, CONFIGURATION, HAPROXY, PLAYERS, SPARE, STRANGER, WEIRS, Fleet
from live import Channels
from players import Audience, Seat
from weirlab import client, procfs
from weirlab.lab import TOP, Lab, wait_until
from weirlab.network import ip, own_network

CHANNELS, SECONDS = 4, 1
SLACK = 10  # seconds, for what takes less than one on an idle machine
ASKED = "^Request::start 3 << (.*)"
PROBLEMS = "^(?:.*FAILED|Excep|.*invalid|.*should_finish|no data|no new|too many|start_refreshing failed).*"
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


class Story:
    """What happens to a fleet."""

    def __init__(self, lab: Lab, options: argparse.Namespace) -> None:
        self.began = time.monotonic()
        self.say("starting etcd, two caches, three weirs and HAProxy")
        channels = Channels(lab.www, [options.kbit * share for share in (500, 1000)], SECONDS, CHANNELS // 2,
                            CHANNELS // 2, "http://~", "http://@", "http://@")
        self.audience = Audience(channels.start(), HAPROXY, 80)
        self.fleet = Fleet(lab, options.binary)
        self.weirs, self.admin, self.streams = self.fleet.weirs, self.fleet.admin, self.fleet.streams
        self.come(options.players)
        self.say(f"{options.players} players of {options.kbit} kbit/s each: {self.streams()}")

    def say(self, text: str, more: str = "") -> None:
        print(f"{time.monotonic() - self.began:3.0f} s  {text}" if text else f"{'':9}{more}", flush=True)

    def come(self, count: int) -> None:
        for number in range(count):
            self.audience.add(f"http://~/c{number % CHANNELS}/master.m3u8")
        self.wait_for_players()

    def wait_for_players(self) -> None:
        wait_until("all players to get media", lambda: all(seat.playing() for seat in self.audience.seats),
                   3 * SLACK)

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

    def everywhere(self, what: str, pattern: str, act: Callable[[], object], times: int = 1) -> float:
        """How many seconds it takes until all weirs have logged that so often."""
        since = {weir: weir.position() for weir in self.weirs.values()}
        began = time.monotonic()
        act()
        wait_until(f"all weirs to {what}", lambda: all(
            len(weir.lines(pattern, at)) >= times for weir, at in since.items()))
        return time.monotonic() - began

    def try_forbidden(self) -> None:
        for path in ("/watchdog", "/update-cache-map?chunk=", "/stats.json"):
            check(status(path) == 404, f"players get {path}")
        for query in ("url=http://127.0.0.1:7744/watchdog", "a&url=http://~/x&url=http://127.0.0.1/",
                      "url=http://~/%+A", "url=http://~/%80"):
            check(status(f"/stream?{query}") == 403, f"players get {query}")
        try:
            socket.create_connection((WEIRS["weir1"], client.WEIR), SLACK).close()
        except ConnectionRefusedError:
            return self.say("", "players get nothing but streams, and those of the caches only")
        raise SystemExit("players get at weir1 past HAProxy")

    def kill_weir(self, name: str) -> None:
        count, before, began = self.streams()[name], self.audience.lost(), time.monotonic()
        self.forget_pauses()
        check(count > 0, f"{name} has no players")
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
        try:
            weir.get_ready(MAPS_KEY="/none", COPY="/run/none")
        except subprocess.CalledProcessError:
            self.come(3)
        time.sleep(2 * SECONDS)
        check(not weir.lines(ASKED, since), f"{name} is asked before it has maps")
        weir.get_ready()
        wait_until(f"HAProxy to use {name}", lambda: self.fleet.column("status")[name] == "UP")
        self.come(6)
        check(weir.lines(ASKED, since)[0] == "/update-cache-map" and self.streams()[name] > 0,
              f"{name} has no players or was not sent its maps first: {self.streams()}")
        self.say("", f"the maps are its first request: {self.streams()}")

    def change_maps(self) -> None:
        put, both = self.fleet.put_maps, f"{CACHE1},{CACHE2}"
        self.say("the maps in etcd change")
        took = self.everywhere("have the maps", f"^setting map to: {both}$", lambda: put(both), 2)
        check(took < SLACK, f"that took {took:.1f} s")
        self.everywhere("use cache2", f"selected server: {CACHE2}$", time.monotonic)
        self.everywhere("keep their maps", f"^setting map to: {both}$", lambda: put("oops"), 2)
        self.say("", f"all weirs have them after {took:.2f} s, and keep them when etcd gets no maps")

    def kill_cache(self) -> None:
        def left_out() -> bool:
            positions = {weir: weir.position() for weir in self.weirs.values()}
            time.sleep(2 * SECONDS)
            return not any(weir.lines(f"selected server: {CACHE1}$", at) for weir, at in positions.items())

        def send() -> None:
            for weir in self.weirs.values():
                weir.run("fleet/weir-maps.service")

        self.say("cache1 is killed")
        self.fleet.lab.kill_with_children(self.fleet.caches[0])
        wait_until("all weirs to leave it out", left_out)
        self.fleet.caches[0] = self.fleet.start_cache(0)
        check(left_out(), "a dead cache is used")
        self.everywhere("use it again", f"selected server: {CACHE1}$", send)
        self.say("", "it comes back, and all weirs use it when the timer has sent the maps")

    def try_options(self) -> None:
        self.say("a second HAProxy has TLS, allowed networks, tokens, and 2 streams for each address")
        subprocess.run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=fleet "
                       "-addext subjectAltName=DNS:fleet -keyout fleet.pem -out fleet.pem".split(),
                       cwd=CONFIGURATION.parent, check=True, capture_output=True)
        self.fleet.start_haproxy(SPARE, FLEET_CERTIFICATE="/etc/haproxy/fleet.pem", FLEET_SECRET=SECRET,
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

    def measure(self, seconds: float) -> None:
        """What it costs to let them play."""
        haproxy = procfs.children(self.fleet.haproxy.pid)
        weirs = [weir.process.pid for weir in self.weirs.values()]
        before = [sum(map(procfs.cpu, pids)) for pids in (haproxy, weirs)]
        time.sleep(seconds)
        after = [sum(map(procfs.cpu, pids)) for pids in (haproxy, weirs)]
        costs = [f"{100 * (late - early) / seconds:.1f} %" for late, early in zip(after, before)]
        self.say("", f"HAProxy takes {costs[0]} of a core and {procfs.sample(haproxy[0])['pss']:.0f} MiB, "
                     f"the weirs {costs[1]}")

    def run(self, seconds: float) -> None:
        if seconds:
            self.measure(seconds)
        self.try_forbidden()
        self.kill_weir("weir1")
        self.quietly(lambda: self.drain("weir2"))
        self.quietly(lambda: self.bring_back("weir1"))
        self.admin("set server weirs/weir2 state ready")
        self.quietly(self.change_maps)
        self.quietly(self.kill_cache)
        self.fleet.lab.end(self.fleet.etcd)
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
    parser.add_argument("--measure", type=float, default=0, help="for so many seconds what it costs")
    options = parser.parse_args()
    own_network(mounts=True)
    with Lab("/dev/shm") as lab:
        try:
            Story(lab, options).run(options.measure)
        except SystemExit:
            print("FAILED; HAProxy, etcd's watchers and the weirs said:")
            print((lab.work / "said").read_text(errors="replace"))
            for log in sorted(lab.work.glob("weir?.log")):
                problems = re.findall(PROBLEMS, log.read_text(errors="replace"), re.MULTILINE)
                print(log.stem, *problems[-10:], sep="\n  ")
            raise


if __name__ == "__main__":
    main()
