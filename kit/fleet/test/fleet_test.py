"""Three weirs behind HAProxy, two caches, the maps in etcd, and players that check every byte."""

import argparse
import hmac
import os
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from statistics import median

from fleet import CACHE1, CACHE2, CONFIGURATION, GUEST, HAPROXY, PLAYERS, SPARE, STRANGER, WEIRS, Fleet
from live import Channels
from players import Audience, Seat
from weirlab import client
from weirlab.lab import TOP, Lab, wait_until
from weirlab.network import ip, own_network

CHANNELS, SECONDS = 4, 1
SLACK = 10  # seconds, for what takes less than one on an idle machine
ASKED = "^Request::start 3 << (.*)"
PROBLEMS = "FAILED|^Excep|invalid|should_finish|^no data|^no new|^too many|^start_refreshing failed"
STREAM, SECRET = client.stream_path("http://~/c0/master.m3u8", -3), "not a good one"
REFUSED = 0  # instead of a status
FORBIDDEN = [
    (HAPROXY, "/watchdog", 404), (HAPROXY, "/update-cache-map?chunk=", 404), (HAPROXY, "/stats.json", 404),
    (HAPROXY, "/stream?url=http://127.0.0.1:7744/watchdog", 403), (HAPROXY, "/stream?url=http://~/%+A", 403),
    (HAPROXY, "/stream?a&url=http://~/x&url=http://127.0.0.1/", 403),
    (HAPROXY, "/stream?url=http://~/%80", 403), (f"{WEIRS['weir1']}:{client.WEIR}", STREAM, REFUSED)]


def check(good: object, what: str) -> None:
    if not good:
        raise SystemExit(what)


def check_status(wanted: int, path: str, *options: str, url: str = f"http://{HAPROXY}") -> None:
    """A stream that begins has a status, too, when curl gives up."""
    got = subprocess.run(["curl", "--silent", "--max-time", "2", "--output", "/dev/null", "--write-out",
                          "%{http_code}", *options, url + path], stdout=subprocess.PIPE).stdout
    check(int(got) == wanted, f"{url}{path} {options}: {got!r} instead of {wanted}")


class Story:
    """What happens to a fleet."""

    def __init__(self, lab: Lab, players: int, kbit: int, binary: Path) -> None:
        self.began = time.monotonic()
        self.say("starting etcd, two caches, three weirs and HAProxy")
        channels = Channels(lab.www, [kbit * share for share in (500, 1000)], SECONDS, CHANNELS // 2,
                            CHANNELS // 2, "http://~", "http://@", "http://@")
        self.audience = Audience(channels.start(), HAPROXY, 80)
        self.fleet = Fleet(lab, binary)
        self.weirs, self.admin, self.streams = self.fleet.weirs, self.fleet.admin, self.fleet.streams
        self.come(players)
        self.say(f"{players} players of {kbit} kbit/s each: {self.streams()}")

    def say(self, text: str) -> None:
        print(f"{time.monotonic() - self.began:3.0f} s  {text}", flush=True)

    def come(self, count: int) -> None:
        for number in range(count):
            self.audience.add(f"http://~/c{number % CHANNELS}/master.m3u8")
        self.wait_for_players()

    def wait_for_players(self) -> None:
        wait_until("all players to get media", lambda: all(seat.playing() for seat in self.audience.seats),
                   3 * SLACK)

    def forget_pauses(self) -> None:
        for seat in self.audience.seats:
            seat.players[-1].longest_gap = 0.0

    def check_pauses(self, seats: list[Seat]) -> None:
        pause = max(seat.pause() for seat in seats)
        check(pause < SECONDS + SLACK, f"a pause of {pause:.1f} s")
        self.say(f"  the other {len(seats)} players notice nothing: the longest pause is {pause:.1f} s")

    def unnoticed(self, act: Callable[..., None], *arguments: str) -> None:
        seats, lost = list(self.audience.seats), self.audience.lost()
        self.forget_pauses()
        act(*arguments)
        time.sleep(2 * SECONDS)
        check(self.audience.lost() == lost, f"{self.audience.lost() - lost} streams have ended")
        self.check_pauses(seats)

    def everywhere(self, what: str, pattern: str, times: int, act: Callable[[], object]) -> float:
        """How many seconds it takes until all weirs have logged that so often."""
        logs, began = [weir.follow() for weir in self.weirs.values()], time.monotonic()
        act()
        wait_until(f"all weirs to {what}", lambda: all(len(find(pattern)) >= times for find in logs))
        return time.monotonic() - began

    def kill_weir(self, name: str) -> None:
        count, before, began = self.streams()[name], self.audience.lost(), time.monotonic()
        self.forget_pauses()
        check(count > 0, f"{name} has no players")
        self.say(f"{name} is killed while it has {count} players")
        self.weirs[name].kill()
        wait_until("its players to lose it", lambda: self.audience.lost() >= before + count)
        self.wait_for_players()
        time.sleep(2 * SECONDS)
        lost = [seat for seat in self.audience.seats if seat.lost and seat.lost[-1] > began]
        tries = self.audience.lost() - before
        check(len(lost) == tries == count, f"{len(lost)} of {count} players lost {tries} streams")
        waits = [seat.players[-1].first - seat.lost[-1] for seat in lost]
        again = [seat.players[-2].found.sequence - seat.players[-1].found.first + 1 for seat in lost]
        check(max(waits) < SLACK, f"media came after {max(waits):.1f} s")
        check(min(again) > -SLACK, f"{-min(again)} segments are between the old stream and the new one")
        self.say(f"  they have media again after {median(waits):.2f} s, at most {max(waits):.2f} s, "
                 f"and get {min(again)} to {max(again)} segments of {SECONDS} s twice")
        self.check_pauses([seat for seat in self.audience.seats if seat not in lost])

    def drain(self, name: str) -> None:
        count = self.streams()[name]
        self.say(f"{name} is drained, and 6 players come")
        self.admin(f"set server weirs/{name} state drain")
        self.come(6)
        check(self.streams()[name] == count, f"{name} had {count} players, now {self.streams()}")

    def bring_back(self, name: str) -> None:
        weir, find = self.weirs[name], self.weirs[name].follow()
        self.say(f"{name} starts; 3 players come before its maps are sent, 6 afterwards")
        weir.start()
        try:
            weir.get_ready(MAPS_KEY="/none", COPY="/run/none")
        except subprocess.CalledProcessError:
            self.come(3)
        time.sleep(2 * SECONDS)
        check(not find(ASKED), f"{name} is asked before it has maps")
        weir.get_ready()
        wait_until(f"HAProxy to use {name}", lambda: self.fleet.column("status")[name] == "UP")
        self.come(6)
        check(find(ASKED)[0] == "/update-cache-map" and self.streams()[name] > 0,
              f"{name} has no players or was not sent its maps first: {self.streams()}")

    def change_maps(self) -> None:
        put, both = self.fleet.put_maps, f"{CACHE1},{CACHE2}"
        self.say("the maps in etcd change")
        took = self.everywhere("have the maps", f"^setting map to: {both}$", 2, lambda: put(both))
        check(took < SLACK, f"that took {took:.1f} s")
        self.everywhere("use cache2", f"selected server: {CACHE2}$", 1, time.monotonic)
        self.everywhere("keep their maps", f"^setting map to: {both}$", 2, lambda: put("oops"))
        self.say(f"  all weirs have them after {took:.2f} s, and keep them when etcd gets no maps")

    def kill_cache(self) -> None:
        uses = f"selected server: {CACHE1}$"

        def left_out() -> bool:
            logs = [weir.follow() for weir in self.weirs.values()]
            time.sleep(2 * SECONDS)
            return not any(find(uses) for find in logs)

        def send_maps() -> None:
            for weir in self.weirs.values():
                weir.run("fleet/weir-maps.service", "ExecStart")

        self.say("cache1 is killed, and returns")
        self.fleet.lab.kill_with_children(self.fleet.caches[0])
        wait_until("all weirs to leave it out", left_out)
        self.fleet.caches[0] = self.fleet.start_cache(0)
        check(left_out(), "a dead cache is used")
        self.everywhere("use it again", uses, 1, send_maps)

    def try_options(self) -> None:
        self.say("a second HAProxy has TLS, allowed networks, tokens, and 2 streams for each address")
        subprocess.run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=fleet "
                       f"-addext subjectAltName=IP:{SPARE} -keyout fleet.pem -out fleet.pem".split(),
                       cwd=CONFIGURATION.parent, check=True, capture_output=True)
        self.fleet.start_haproxy(SPARE, FLEET_CERTIFICATE="/etc/haproxy/fleet.pem", FLEET_SECRET=SECRET,
                                 FLEET_NETWORKS=f"{GUEST}/32 {PLAYERS}/32", FLEET_STREAMS="2")
        for address in GUEST, STRANGER:
            ip(f"address add {address}/24 dev bridge")

        def signed(seconds: int) -> str:
            path = f"{STREAM}&expires={int(time.time()) + seconds}"
            return f"{path}&token={hmac.digest(SECRET.encode(), path.encode(), 'sha256').hex()}"

        good, http = signed(10 * SLACK), f"http://{SPARE}"
        check_status(403, good, "--interface", STRANGER, url=http)
        for wanted, path in (401, STREAM), (401, good.replace("c0", "c1")), (410, signed(-1)):
            check_status(wanted, path, url=http)
        check_status(200, good, "--interface", GUEST, "--cacert", f"{CONFIGURATION.parent}/fleet.pem",
                     url=f"https://{SPARE}")
        with client.connect(good, 80, SLACK, SPARE) as one, client.connect(good, 80, SLACK, SPARE) as two:
            for stream in one, two:
                check(b" 200 " in (head := stream.recv(1 << 10)), f"one of two streams: {head!r}")
            check_status(429, good, url=http)

    def run(self) -> None:
        for host, path, wanted in FORBIDDEN:
            check_status(wanted, path, url=f"http://{host}")
        self.kill_weir("weir1")
        self.unnoticed(self.drain, "weir2")
        self.unnoticed(self.bring_back, "weir1")
        self.admin("set server weirs/weir2 state ready")
        self.unnoticed(self.change_maps)
        self.unnoticed(self.kill_cache)
        self.fleet.lab.end(self.fleet.etcd)
        self.say("etcd is killed")
        self.kill_weir("weir3")
        self.unnoticed(self.bring_back, "weir3")
        self.try_options()
        found = {name: self.audience.total(name) for name in ("wrong", "missing", "shorts", "repeated")}
        check(not any(found.values()), f"not as it should be: {found}")
        self.say(f"OK: {self.audience.total('verified') / 1e6:.0f} MB, every byte as it should be")


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--players", type=int, default=60)
    parser.add_argument("--kbit", type=int, default=200)
    options, binary = parser.parse_args(), os.environ.get("WEIR_BINARY", TOP / "build/release/weir")
    own_network(mounts=True)
    with Lab("/dev/shm") as lab:
        try:
            Story(lab, options.players, options.kbit, Path(binary)).run()
        except SystemExit:
            subprocess.run(f"cat said; grep -aE '{PROBLEMS}' weir?.log | tail -40", shell=True, cwd=lab.work)
            raise


if __name__ == "__main__":
    main()
