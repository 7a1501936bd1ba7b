"""Three weirs behind HAProxy, two caches, the maps in etcd, and players that check every byte."""

import argparse
import hmac
import os
import signal
import socket
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from statistics import median
from typing import Any

from fleet import (CACHE1, CACHE2, CONFIGURATION, CONTROL, ETCD, GUEST, HAPROXY, PLAYERS, SPARE, STRANGER,
                   WEIRS, Fleet)
from live import Channels
from players import Audience, Seat
from weirlab import client
from weirlab.lab import TOP, Lab, wait_until
from weirlab.network import ip, own_network

CHANNELS, SECONDS, LONG = 4, 1, 6  # segments of one channel have LONG seconds
SLACK = 10  # seconds, for what takes less than one on an idle machine
ASKED = "^Request::start 3 << (.*)"
PROBLEMS = "FAILED|^Excep|invalid|should_finish|^no data|^no new|^too many|^start_refreshing failed"
DEAD = "^Invalidating cache server"
STREAM, SECRET = client.stream_path("http://~/c0/master.m3u8", -3), "not a good one"
REFUSED = 0  # instead of a status
FORBIDDEN: list[tuple[Any, ...]] = [
    ("/watchdog", 404), ("/update-cache-map?chunk=", 404), ("/stats.json", 404), (STREAM, 405, "--head"),
    (STREAM, 400, "--request-target", f"http://{HAPROXY}{STREAM}"),
    (STREAM, REFUSED, "--http2-prior-knowledge"),
    (STREAM + "&" + "a" * 4000, 414), ("/stream?url=http://127.0.0.1:7744/watchdog", 403),
    ("/stream?url=http://~.example/x.m3u8", 403), ("/stream?url=http://~/x.ts", 403),
    ("/stream?url=http://~/a/%252e%252e/x.m3u8", 403), ("/stream?url=http://~/a;/../x.m3u8", 403),
    ("/stream?a&url=http://~/x.m3u8&url=http://127.0.0.1/x.m3u8", 403),
    *((f"/stream?url=http://~/x.m3u8&a={end}", 403) for end in ("%+A", "%A", "%7", "%80", "%20HTTP/1.0"))]
GOOD = f"chunk={CACHE1}&playlist={CACHE1}"
BAD_MAPS = [f"{GOOD}&{GOOD}", f"chunk={CACHE1}", GOOD + "0", GOOD.replace("8080", "0"),
            GOOD.replace("8080", "65536"), f"{GOOD},127.0.0.1:7744", f"{GOOD},127.0.0.1:7745",
            GOOD + f",{CACHE1}" * 250]


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
        self.began, self.cut = time.monotonic(), 0
        self.say("starting etcd, caches, weirs with their edges, and HAProxy")
        rates = [kbit * share for share in (500, 1000)]
        channels = Channels(lab.www, rates, SECONDS, CHANNELS // 2, CHANNELS // 2, "http://~", "http://@",
                            "http://@")
        few = Channels(lab.www / "long", rates[:1], LONG, 1, 0, "http://~/long", "http://@/long", "")
        self.audience = Audience(channels.start(), HAPROXY, 80)
        self.patient = Audience(few.start(), HAPROXY, 80)
        self.fleet = Fleet(lab, binary)
        self.weirs, self.admin, self.streams = self.fleet.weirs, self.fleet.admin, self.fleet.streams
        self.undisturbed = Audience(self.audience.content, CONTROL, client.WEIR)
        self.audiences = [self.audience, self.patient, self.undisturbed]
        self.patient.loop = self.undisturbed.loop = self.audience.loop  # they share a semaphore
        self.patient.add("http://~/long/c0/master.m3u8")
        for number in range(CHANNELS):
            self.undisturbed.add(f"http://~/c{number}/master.m3u8")
        self.come(players)
        self.say(f"{players} players of {kbit} kbit/s each: {self.streams()}")

    def say(self, text: str) -> None:
        print(f"{time.monotonic() - self.began:3.0f} s  {text}", flush=True)

    def come(self, count: int) -> None:
        for number in range(count):
            self.audience.add(f"http://~/c{number % CHANNELS}/master.m3u8")
        self.wait_for_players()

    def wait_for_players(self) -> None:
        seats = [seat for audience in self.audiences for seat in audience.seats]
        wait_until("all players to get media", lambda: all(seat.playing() for seat in seats), 3 * SLACK)

    def forget_pauses(self) -> None:
        for seat in self.audience.seats + self.undisturbed.seats:
            seat.players[-1].longest_gap = 0.0

    def lost(self) -> int:
        return sum(audience.lost() for audience in self.audiences)

    def total(self, name: str) -> int:
        return sum(audience.total(name) for audience in self.audiences)

    def check_pauses(self, seats: list[Seat], longest: float = 2, stopped: int = 0) -> None:
        """`longest`: seconds more than a segment, or than the undisturbed players; `stopped`: how many
        players may pause longer."""
        pauses = sorted(seat.pause() for seat in seats)
        pause = pauses[len(pauses) - stopped - 1] if len(pauses) > stopped else 0
        control = max(seat.pause() for seat in self.undisturbed.seats)
        check(pause < max(SECONDS, control) + longest,
              f"a pause of {pause:.1f} s; undisturbed: {control:.1f} s")
        self.say(f"  {len(seats) - stopped} other players lose no stream and pause for {pause:.1f} s at most "
                 f"(undisturbed ones: {control:.1f} s)")

    def unnoticed(self, act: Callable[..., int | None], *arguments: Any, longest: float = 2) -> None:
        """`act` returns how many players may pause because their weir hangs."""
        seats, lost = list(self.audience.seats), self.lost()
        self.forget_pauses()
        stopped = act(*arguments) or 0
        time.sleep(2 * SECONDS)
        check(self.lost() == lost, f"{self.lost() - lost} streams have ended")
        check(self.total("missing") == 0, f"{self.total('missing')} segments are missing")
        self.check_pauses(seats, longest, stopped)

    def everywhere(self, what: str, pattern: str, times: int, act: Callable[[], object]) -> float:
        """How many seconds it takes until all weirs have logged that so often."""
        logs, began = [weir.follow() for weir in self.weirs.values()], time.monotonic()
        act()
        wait_until(f"all weirs to {what}", lambda: all(len(find(pattern)) >= times for find in logs))
        return time.monotonic() - began

    def busiest(self) -> str:
        return max((count, name) for name, count in self.streams().items())[1]

    def kill_weir(self) -> str:
        name, before, began = self.busiest(), self.lost(), time.monotonic()
        count = self.streams()[name]
        self.forget_pauses()
        self.say(f"{name} is killed while it has {count} players")
        self.weirs[name].kill()
        wait_until("its players to lose it", lambda: self.lost() >= before + count)
        self.wait_for_players()
        time.sleep(2 * SECONDS)
        seats = self.audience.seats + self.patient.seats
        lost = [seat for seat in seats if seat.lost and seat.lost[-1] > began]
        tries = self.lost() - before
        check(len(lost) == tries == count, f"{len(lost)} of {count} players lost {tries} streams")
        waits = [seat.players[-1].first - seat.lost[-1] for seat in lost]
        again = [seat.players[-2].found.sequence - seat.players[-1].found.first + 1 for seat in lost]
        check(max(waits) < SLACK, f"media came after {max(waits):.1f} s")
        check(min(again) > -SLACK, f"{-min(again)} segments are between the old stream and the new one")
        self.say(f"  they have media again after {median(waits):.2f} s, at most {max(waits):.2f} s, "
                 f"and get {min(again)} to {max(again)} segments twice")
        self.check_pauses([seat for seat in self.audience.seats if seat not in lost])
        return name

    def hang_weir(self) -> int:
        count, name = min((count, name) for name, count in self.streams().items())  # newcomers get this one
        lost, known = self.lost(), len(self.audience.seats)
        self.say(f"{name} hangs while it has {count} players, and 12 players come")
        self.weirs[name].process.send_signal(signal.SIGSTOP)
        self.come(12)
        waits = [seat.players[-1].first - seat.players[-1].started for seat in self.audience.seats[known:]]
        wait_until("HAProxy to leave it out", lambda: self.fleet.column("status")[name] == "DOWN")
        self.weirs[name].process.send_signal(signal.SIGCONT)
        check(self.lost() == lost, f"{self.lost() - lost} players got an error")
        control = max(SECONDS, *(seat.pause() for seat in self.undisturbed.seats))
        check(max(waits) < 3 + control, f"a newcomer waited {max(waits):.1f} s")
        self.say(f"  they have media after {median(waits):.2f} s, at most {max(waits):.2f} s")
        return count

    def drain(self) -> None:
        name = self.busiest()
        count = self.streams()[name]
        self.say(f"{name} is drained, and 6 players come")
        self.admin(f"set server weirs/{name} state drain")
        self.come(6)
        check(self.streams()[name] == count, f"{name} had {count} players, now {self.streams()}")
        self.admin(f"set server weirs/{name} state ready")

    def bring_back(self, name: str) -> None:
        weir, find = self.weirs[name], self.weirs[name].follow()
        self.say(f"{name} starts; 3 players come before its maps are sent, 6 afterwards")
        weir.start()
        try:
            weir.get_ready(MAPS_FILE="/none", COPY="/run/none/maps")
        except subprocess.CalledProcessError:
            self.come(3)
        time.sleep(2 * SECONDS)
        check(not find(ASKED), f"{name} is asked before it has maps")
        weir.get_ready()
        wait_until(f"HAProxy to use {name}", lambda: self.fleet.column("status")[name] == "UP")
        before = self.streams()
        self.come(6)
        after = self.streams()
        check(find(ASKED)[0] == "/update-cache-map", f"{name} was not sent its maps first")
        check(all(after[other] <= after[name] + 1 for other in after if after[other] > before[other]),
              f"newcomers went from {before} to {after}")

    def change_maps(self) -> None:
        put, both = self.fleet.put_maps, f"{CACHE1},{CACHE2}"
        weir, sent = self.weirs["weir1"], r"^setting map to: 127.0.0.1:774[56];(.*)$"
        self.say("the maps in etcd change")
        took = self.everywhere("have the maps", f"^setting map to: .*;{both}$", 2, lambda: put(both))
        check(took < SLACK, f"that took {took:.1f} s")
        wait_until("the edges to use both", lambda: all(
            set(weir.caches()) == {CACHE1, CACHE2} for weir in self.weirs.values()))
        self.say(f"  all weirs have them after {took:.2f} s; some bad ones follow")
        self.everywhere("keep them", f"^setting map to: .*;{both}$", 2, lambda: put("oops"))
        file = weir.folder / "bad"
        for bad in BAD_MAPS:
            file.write_text(bad)
            try:
                weir.run("fleet/weir-maps.service", "ExecStart", MAPS_FILE=str(file), COPY="/run/none/maps")
            except subprocess.CalledProcessError:
                continue
            raise SystemExit(f"{bad[:90]} is accepted")
        slow = weir.folder / "curl"
        slow.write_text("#!/bin/sh\ntouch $0.began\nsleep 2\nexec /usr/bin/curl \"$@\"")
        slow.chmod(0o755)
        find = weir.follow()
        weir.run("fleet/weir-maps.service", "ExecStart", self.fleet.lab.start,
                 PATH=f"{slow.parent}:{os.environ['PATH']}")
        wait_until("the old maps to be read", Path(f"{slow}.began").exists)
        put(f"{CACHE2},{CACHE1}")
        wait_until("both maps to be sent", lambda: len(find(sent)) >= 4)
        check(find(sent)[-1] == f"{CACHE2},{CACHE1}", f"old maps were sent last: {find(sent)}")

    def attack(self) -> None:
        self.say("a client asks 12 times for answers without a length, and for none at all")
        finds = [weir.follow() for weir in self.weirs.values()]
        for path in "/chunked.m3u8", "/closed.m3u8":
            streams = [client.connect(client.stream_path(f"http://~{path}"), 80, 3 * SLACK, HAPROXY)
                       for _ in range(12)]
            for stream in streams:
                while stream.recv(1 << 16):
                    pass
                stream.close()
        check(not any(find(DEAD) for find in finds), "a weir leaves servers out")

    def lose_cache(self, what: str, act: Callable[[str, Any], None], lose: object, back: object) -> None:
        weir = self.weirs[self.busiest()]
        cache = max((count, cache) for cache, count in weir.caches().items())[1]
        finds = [weir.follow() for weir in self.weirs.values()]
        self.say(f"{cache} {what} for 6 s")
        act(cache, lose)
        time.sleep(6)
        check(all(cache not in weir.caches() for weir in self.weirs.values()), f"{cache} is still in use")
        act(cache, back)
        wait_until("all edges to use it", lambda: all(cache in weir.caches() for weir in self.weirs.values()))
        check(not any(find(DEAD) for find in finds), "a weir leaves servers out")

    def kill_edge(self) -> None:
        weir = self.weirs[self.busiest()]
        caches, shorts = set(weir.caches()), self.total("shorts")
        self.say("an edge is killed, and returns")
        self.fleet.lab.end(weir.edge, signal.SIGKILL)
        time.sleep(2 * SECONDS)
        weir.start_edge()
        wait_until("it to use the caches", lambda: set(weir.caches()) == caches)
        weir.run("fleet/weir-maps.service", "ExecStart")
        self.cut = self.total("shorts") - shorts

    def try_options(self) -> None:
        self.say("a second HAProxy has TLS, allowed networks, tokens, and 2 streams for each address")
        subprocess.run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=fleet "
                       f"-addext subjectAltName=IP:{SPARE} -keyout fleet.pem -out fleet.pem".split(),
                       cwd=CONFIGURATION.parent, check=True, capture_output=True)
        self.fleet.start_haproxy(
            SPARE, FLEET_CERTIFICATE="/etc/haproxy/fleet.pem", FLEET_SECRET=SECRET, FLEET_STREAMS="2",
            FLEET_NETWORKS=f"{GUEST}/32 {PLAYERS}/32", FLEET_PLAYLISTS="http://~/c0/ http://~/c1/")
        no_secret = subprocess.run(["haproxy", "-c", "-f", CONFIGURATION], capture_output=True,
                                   env={"PATH": os.environ["PATH"], "FLEET_SECRET": ""})
        check(no_secret.returncode != 0, "an empty secret is accepted")
        for address in GUEST, STRANGER:
            ip(f"address add {address}/24 dev bridge")

        def signed(seconds: int, stream: str = STREAM) -> str:
            path = f"{stream}&expires={int(time.time()) + seconds}"
            return f"{path}&token={hmac.digest(SECRET.encode(), path.encode(), 'sha256').hex()}"

        good, http = signed(10 * SLACK), f"http://{SPARE}"
        check_status(403, good, "--interface", STRANGER, url=http)
        check_status(403, signed(SLACK, STREAM.replace("c0", "c2")), url=http)
        for wanted, path in (401, STREAM), (401, good.replace("c0", "c1")), (410, signed(-1)):
            check_status(wanted, path, url=http)
        check_status(200, good, "--interface", GUEST, "--cacert", f"{CONFIGURATION.parent}/fleet.pem",
                     url=f"https://{SPARE}")
        with client.connect(good, 80, SLACK, SPARE) as one, socket.create_connection((SPARE, 80)):
            check(b" 200 " in (head := one.recv(1 << 10)), f"one of two streams: {head!r}")
            check_status(429, good, url=http)
            silent = [socket.create_connection((SPARE, 80)) for _ in range(3)]
            check_status(REFUSED, good, url=http)
            for connection in silent:
                connection.close()

    def run(self) -> None:
        for path, wanted, *options in FORBIDDEN:
            check_status(wanted, path, *options)
        check_status(200, f"{STREAM}&{'a' * (4000 - len(STREAM) - 1)}")
        check_status(REFUSED, STREAM, url=f"http://{WEIRS['weir1']}:{client.WEIR}")
        check(set(self.fleet.column("slim").values()) == {"2000"}, "a weir has no limit")
        self.unnoticed(self.change_maps)
        self.unnoticed(self.attack)
        self.unnoticed(self.lose_cache, "stays silent", self.fleet.signal_cache, signal.SIGSTOP,
                       signal.SIGCONT, longest=4)
        self.unnoticed(self.lose_cache, "has no power", self.fleet.set_power, "down", "up", longest=4)
        self.unnoticed(self.kill_edge)
        self.unnoticed(self.hang_weir)
        first = self.kill_weir()
        self.unnoticed(self.drain)
        self.fleet.lab.end(self.fleet.etcds[ETCD])
        self.say("etcd is killed")
        self.kill_weir()
        self.unnoticed(self.bring_back, first)
        self.try_options()
        found = {name: self.total(name) for name in ("wrong", "missing", "repeated")}
        found["shorts"] = self.total("shorts") - self.cut
        check(not any(found.values()), f"not as it should be: {found}")
        self.say(f"OK: {self.total('verified') / 1e6:.0f} MB, every byte as it should be")


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
