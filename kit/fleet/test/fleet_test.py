"""Three weirs behind HAProxy, two caches, the maps in etcd, and players that check every byte."""

import hmac
import os
import socket
import subprocess
import time
from signal import SIGCONT, SIGKILL, SIGSTOP
from typing import Any

import fleet
from fleet import (CACHE1, CACHE2, CONFIGURATION, ETCD, HAPROXY, PLAYERS, SECONDS, SLACK, SPARE, WEIRS, Act,
                   Fleet, ask_haproxy, check, column, power, send)
from live import Channels
from players import Audience
from weirlab import client
from weirlab.lab import wait_until
from weirlab.network import ip

LONG = 6  # seconds of a segment of one channel
GUEST, STRANGER, CERTIFICATE = "192.0.2.101", "192.0.2.102", "/etc/haproxy/fleet.pem"
ASKED, DEAD = "^Request::start 3 << (.*)", "^Invalidating cache server"
STREAM, SECRET = client.stream_path("http://~/c0/master.m3u8", -3), "not a good one"
FORBIDDEN: list[tuple[Any, ...]] = [
    ("/watchdog", 404), ("/update-cache-map?chunk=", 404), ("/stats.json", 404), (STREAM, 405, "--head"),
    (STREAM, 400, "--request-target", f"http://{HAPROXY}{STREAM}"), (STREAM, 0, "--http2-prior-knowledge"),
    (STREAM + "&" + "a" * 4000, 414), (f"{STREAM}&{'a' * (4000 - len(STREAM) - 1)}", 200),
    *((f"/stream?url=http://{url}", 403) for url in (
        "127.0.0.1:7744/watchdog", "~.example/x.m3u8", "~/x.ts", "~/a/%252e%252e/x.m3u8", "~/a;/../x.m3u8",
        *(f"~/x.m3u8&a={end}" for end in ("%+A", "%A", "%7", "%80", "%20HTTP/1.0")))),
    ("/stream?a&url=http://~/x.m3u8&url=http://127.0.0.1/x.m3u8", 403),
    (STREAM, 0, "--connect-to", f"::{WEIRS['weir1']}:{client.WEIR}")]
GOOD, BOTH, SWAPPED = f"chunk={CACHE1}&playlist={CACHE1}", f"{CACHE1},{CACHE2}", f"{CACHE2},{CACHE1}"
BAD_MAPS = [f"{GOOD}&{GOOD}", f"chunk={CACHE1}", GOOD + "0", GOOD.replace("8080", "0"),
            GOOD.replace("8080", "65536"), f"{GOOD},127.0.0.1:7744", f"{GOOD},127.0.0.1:7745",
            GOOD + f",{CACHE1}" * 250]


def check_status(path: str, wanted: int, *options: str, url: str = f"http://{HAPROXY}") -> None:
    # 0 is no answer.
    first = subprocess.run(["sh", "-c", 'curl -siNm 20 "$@" | head -n 1', "curl", *options, url + path],
                           stdout=subprocess.PIPE).stdout
    check(int([*first.split(), b"0", b"0"][1]) == wanted, f"{url}{path} {options}: {first!r} not {wanted}")


def streams() -> dict[str, int]:
    return {name: int(count) for name, count in column("scur").items()}


def busiest() -> tuple[int, str]:
    return max((count, name) for name, count in streams().items())


class Story(fleet.Story):
    """What happens to a fleet of which weirs, edges and caches hang or die."""

    cut = 0  # segments that a failure has ended

    def change_maps(self) -> None:
        put, weir = self.fleet.put_maps, self.weirs["weir1"]
        self.everywhere(BOTH, lambda: put(BOTH))
        wait_until("the edges to use both", lambda: all(
            set(weir.caches()) == {CACHE1, CACHE2} for weir in self.weirs.values()))
        self.everywhere(BOTH, lambda: self.fleet.etcdctl("put", "/weir/maps", "oops"))
        file, slow = weir.folder / "bad", weir.folder / "curl"
        for bad in BAD_MAPS:
            file.write_text(bad)
            check(not weir.get_ready(MAPS_FILE=str(file), COPY="/run/none/maps"), f"{bad[:90]} is accepted")
        slow.write_text("#!/bin/sh\ntouch $0.began\nsleep 2\nexec /usr/bin/curl \"$@\"")
        slow.chmod(0o755)
        find = weir.follow()
        weir.run("fleet/weir-maps.service", "ExecStart", PATH=f"{slow.parent}:{os.environ['PATH']}")
        wait_until("the old maps to be read", slow.with_suffix(".began").exists)
        put(SWAPPED)
        sent = r"^setting map to: 127.0.0.1:774[56];(.*)$"
        wait_until("both maps to be sent", lambda: len(find(sent)) >= 4)
        check(find(sent)[-1] == SWAPPED, f"old maps were sent last: {find(sent)}")

    def attack(self) -> None:
        urls = [f"http://{HAPROXY}{client.stream_path(f'http://~/{name}.m3u8')}"
                for name in ("chunked", "closed") for _ in range(12)]
        subprocess.run(["curl", "--silent", "--parallel", "--parallel-max", "12", *urls], timeout=3 * SLACK,
                       capture_output=True)

    def lose_cache(self, lose: Act, mend: Act) -> None:
        weirs, used = self.weirs.values(), self.weirs[busiest()[1]].caches()
        cache = max(used, key=lambda cache: used[cache])
        lose(cache)
        wait_until("all edges to leave it out", lambda: not any(cache in weir.caches() for weir in weirs))
        self.wait_for(self.audience.seats, time.monotonic())
        mend(cache)
        wait_until("all edges to use it", lambda: all(cache in weir.caches() for weir in weirs))

    def kill_edge(self) -> None:
        weir, shorts = self.weirs[busiest()[1]], self.total("shorts")
        self.fleet.lab.end(self.fleet.haproxies[weir.address], SIGKILL)
        self.wait_for(self.audience.seats, time.monotonic() + SECONDS)
        weir.start_edge()
        wait_until("it to use the caches", lambda: set(weir.caches()) == {CACHE1, CACHE2})
        weir.run("fleet/weir-maps.service", "ExecStart").wait()
        self.cut = self.total("shorts") - shorts

    def hang_weir(self) -> int:
        count, name = min((count, name) for name, count in streams().items())  # newcomers get it
        self.weirs[name].process.send_signal(SIGSTOP)
        wait = max(seat.players[-1].first - seat.players[-1].started for seat in self.come(12))
        wait_until("HAProxy to leave it out", lambda: column("status")[name] == "DOWN")
        self.weirs[name].process.send_signal(SIGCONT)
        check(wait < 3 + self.control(), f"a newcomer waited {wait:.1f} s")
        return count

    def kill_weir(self) -> int:
        (count, self.dead), began, before = busiest(), time.monotonic(), self.left
        self.weirs[self.dead].kill()
        wait_until("its players to lose it", lambda: self.lost() >= before + count)
        self.recover([seat for seat in self.audience.seats if seat.lost and seat.lost[-1] > began], began)
        self.wait_for(self.patient.seats)
        check(self.left - before == count, f"{count} players lost {self.left - before} streams")
        return count

    def drain(self) -> None:
        count, name = busiest()
        ask_haproxy(f"set server weirs/{name} state drain")
        self.come(6)
        check(streams()[name] == count, f"{name} had {count} players: {streams()}")
        ask_haproxy(f"set server weirs/{name} state ready")

    def bring_back(self, name: str) -> None:
        weir, find = self.weirs[name], self.weirs[name].follow()
        weir.start()
        check(not weir.get_ready(MAPS_FILE="/none", COPY="/run/none/maps"), f"{name} is ready without maps")
        self.wait_for(self.come(3), time.monotonic() + SECONDS)
        check(not find(ASKED), f"{name} is asked before it has maps")
        check(weir.get_ready(), f"{name} does not get ready")
        wait_until(f"HAProxy to use {name}", lambda: column("status")[name] == "UP")
        before = streams()
        self.come(6)
        after = streams()
        check(find(ASKED)[0] == "/update-cache-map", f"{name} was not sent its maps first")
        check(all(after[other] <= after[name] + 1 for other in after if after[other] > before[other]),
              f"newcomers went from {before} to {after}")

    def try_options(self) -> None:
        self.say("a second HAProxy has TLS, allowed networks, tokens, and 2 streams for each address")
        subprocess.run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=fleet "
                       f"-addext subjectAltName=IP:{SPARE} -keyout {CERTIFICATE} -out {CERTIFICATE}".split(),
                       check=True, capture_output=True)
        self.fleet.start_haproxy(
            SPARE, FLEET_CERTIFICATE=CERTIFICATE, FLEET_SECRET=SECRET, FLEET_STREAMS="2",
            FLEET_NETWORKS=f"{GUEST}/32 {PLAYERS}/32", FLEET_PLAYLISTS="http://~/c0/ http://~/c1/")
        check(subprocess.run(["haproxy", "-c", "-f", CONFIGURATION], env=os.environ | {"FLEET_SECRET": ""},
                             capture_output=True).returncode, "an empty secret is accepted")
        for address in GUEST, STRANGER:
            ip(f"address add {address}/24 dev bridge")

        def signed(seconds: int, stream: str = STREAM) -> str:
            path = f"{stream}&expires={int(time.time()) + seconds}"
            return f"{path}&token={hmac.digest(SECRET.encode(), path.encode(), 'sha256').hex()}"

        good, http = signed(10 * SLACK), f"http://{SPARE}"
        check_status(good, 403, "--interface", STRANGER, url=http)
        for path, wanted in ((good.replace("c0", "c1"), 401), (STREAM, 401), (signed(-1), 410),
                             (signed(SLACK, STREAM.replace("c0", "c2")), 403)):
            check_status(path, wanted, url=http)
        check_status(good, 200, "--interface", GUEST, "--cacert", CERTIFICATE, url=f"https://{SPARE}")
        held = [client.connect(good, 80, SLACK, SPARE), socket.create_connection((SPARE, 80))]
        check(b" 200 " in (head := held[0].recv(1 << 10)), f"one of two streams: {head!r}")
        check_status(good, 429, url=http)
        held += [socket.create_connection((SPARE, 80)) for _ in range(3)]
        check_status(good, 0, url=http)

    def run(self) -> None:
        few = self.fleet.lab.www / "long", self.rates[:1], LONG, 1, 0, "http://~/long", "http://@/long", ""
        self.patient = Audience(Channels(*few).start(), HAPROXY, 80)
        self.patient.loop = self.audience.loop
        self.patient.add("http://~/long/c0/master.m3u8")
        self.wait_for(self.patient.seats)
        self.audiences.append(self.patient)
        for path, wanted, *options in FORBIDDEN:
            check_status(path, wanted, *options)
        check(set(column("slim").values()) == {"2000"}, "a weir has no limit")
        self.unnoticed("the maps in etcd change", self.change_maps)
        finds, caches = [weir.follow() for weir in self.weirs.values()], self.fleet.caches
        self.unnoticed("a client asks for answers without a length, and for none at all", self.attack)
        self.unnoticed("a cache stays silent", self.lose_cache, send(SIGSTOP, caches),
                       send(SIGCONT, caches), longest=4)
        self.unnoticed("a cache has no power", self.lose_cache, power("down"), power("up"), longest=4)
        check(not any(find(DEAD) for find in finds), "a weir leaves servers out")
        self.unnoticed("an edge is killed, and returns", self.kill_edge)
        self.unnoticed("a weir hangs, and 12 players come", self.hang_weir)
        self.unnoticed("a weir is killed", self.kill_weir)
        first = self.dead
        self.unnoticed("a weir is drained, and 6 players come", self.drain)
        self.fleet.lab.end(self.fleet.etcds[ETCD])
        self.unnoticed("etcd and a weir are killed", self.kill_weir)
        self.unnoticed("a weir starts; 3 players come before its maps are sent, 6 afterwards",
                       self.bring_back, first)
        self.try_options()
        found = {name: self.total(name) for name in ("wrong", "missing", "repeated", "shorts")}
        check([*found.values()] == [0, 0, 0, self.cut], f"not as it should be: {found}; cut: {self.cut}")
        self.say(f"OK: {self.total('verified') / 1e6:.0f} MB, every byte as it should be")


if __name__ == "__main__":
    fleet.main(lambda lab, options: Story(Fleet(lab), HAPROXY, options).run(), 60)
