"""Two HAProxys with keepalived, and one etcd that becomes three: what players notice of failing hosts."""

import argparse
import os
import re
import shutil
import signal
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

import fleet_test
from fleet import CACHE1, CACHE2, CONFIGURATION, ETCD, HAPROXY, KIT, SPARE, WEIRS, Fleet, settings
from fleet_test import check
from live import Channels
from players import Audience
from weirlab import procfs
from weirlab.lab import AS_NOBODY, TOP, Lab, Process, wait_until
from weirlab.network import ip, own_network

COMMON, KEY, PATIENCE = "192.0.2.1", "/weir/maps", 20  # seconds, for maps to reach all weirs
ETCD_HEALTHY = 6  # seconds; etcd accepts no change of members while one has run for less than five
READ_TIMEOUT, BUSY = 4, 6  # seconds, of the players; and more on a busy machine
BALANCERS, ETCDS = [HAPROXY, SPARE], [ETCD, "192.0.2.32", "192.0.2.33"]
DEFAULTS = Path("/etc/default/etcd")
ENDPOINTS = ",".join(f"http://{address}:2379" for address in ETCDS)
PAGE = (KIT / "fleet/README.md").read_text()
# Its commands that add an etcd, without those that would change this machine.
ADD_ETCD = re.findall(r"(?m)^\$ (.*)", PAGE.partition("**etcd**: three")[2].partition("Then add")[0])
Act = Callable[[str], object]
HARMLESS = 'sudo() { "$@"; }; apt() { :; }; systemctl() { :; }\n'


def link(address: str, state: str) -> None:
    ip(f"link set host{address.rpartition('.')[2]} {state}")


def send(number: int, to: dict[str, Process]) -> Act:
    """A function that sends the signal to all processes of that kind on a host, children first."""
    def act(address: str) -> None:
        for pid in (*procfs.children(to[address].pid), to[address].pid):
            os.kill(pid, number)
    return act


class Pair(Fleet):
    """A fleet with two HAProxys, which know two of its weirs, and weirs that expect three etcds."""

    def install(self) -> None:
        super().install()
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", DEFAULTS.parent], check=True)
        # Root in a user namespace has no other uid to switch to.
        text = (KIT / "fleet/keepalived.conf").read_text()
        text = text if AS_NOBODY else text.replace("nobody", "root")
        (self.lab.work / "keepalived.conf").write_text(text)
        CONFIGURATION.write_text(re.sub(r"(?m)^ *server weir3 .*\n", "", CONFIGURATION.read_text()))
        for weir in self.weirs.values():
            weir.environment["ETCDCTL_ENDPOINTS"] = ENDPOINTS
        (self.lab.work / "kit").symlink_to(KIT)
        self.configuration(ETCD).write_text((KIT / "fleet/etcd").read_text())
        self.haproxies: dict[str, Process] = {}
        self.keepaliveds: dict[str, Process] = {}

    def configuration(self, etcd: str) -> Path:
        return self.lab.work / f"{etcd}.conf"

    def start_haproxy(self, address: str, **_: str) -> Process:
        self.haproxies[address] = super().start_haproxy(address, FLEET_METRICS=f"{address}:8405")
        return self.haproxies[address]

    def start_keepalived(self, address: str) -> None:
        work = self.lab.work
        for left in work.glob(f"{address}.pid*"):
            left.unlink()
        with self.host(address):
            self.keepaliveds[address] = self.lab.start(
                ["keepalived", "--dont-fork", "--log-console", f"--use-file={work}/keepalived.conf",
                 f"--pid={work}/{address}.pid", f"--vrrp_pid={work}/{address}.pid2"], stdout=self.said)

    def owns_address(self, address: str) -> bool:
        with self.host(address):
            return f" {COMMON}/" in subprocess.check_output(["ip", "-o", "address"], text=True)

    def lose_power(self, address: str) -> None:
        send(signal.SIGKILL, self.keepaliveds)(address)  # first, or it would give up the address
        link(address, "down")
        send(signal.SIGKILL, self.haproxies)(address)

    def boot(self, address: str) -> None:
        with self.host(address):
            ip(f"address del {COMMON}/24 dev eth0")
        link(address, "up")
        self.start_haproxy(address)
        self.start_keepalived(address)

    def etcdctl(self, *words: str) -> str:
        """The output, or nothing if it fails."""
        return subprocess.run(["etcdctl", f"--endpoints={ENDPOINTS}", "--command-timeout=1s", *words],
                              text=True, stdout=subprocess.PIPE, stderr=self.said).stdout

    def put_maps(self, servers: str) -> bool:
        return "OK" in self.etcdctl("put", KEY, f"chunk={servers}&playlist={servers}")

    def leader(self) -> str:
        rows = self.etcdctl("endpoint", "status").splitlines()
        return next(address for address in ETCDS for row in rows if address in row and " true, false" in row)

    def kill_etcds(self, *addresses: str) -> None:
        for address in addresses:
            self.lab.end(self.etcds[address], signal.SIGKILL)

    def restart_etcds(self, *addresses: str) -> None:
        for address in addresses:
            self.etcds[address] = self.start_etcd(address, str(self.configuration(address)))
        wait_until("etcd to serve", lambda: all(a in self.etcdctl("endpoint", "status") for a in addresses))

    def empty_etcd(self, address: str) -> None:
        self.kill_etcds(address)
        shutil.rmtree(self.lab.work / address)

    def add_etcd(self, number: int) -> None:
        """By the page's commands, on a host whose etcd has run by itself, as Debian's package starts it."""
        address, folder = ETCDS[number - 1], self.lab.work / ETCDS[number - 1]
        with self.host(address):
            alone = self.lab.start(["etcd"], env={"PATH": os.environ["PATH"], "ETCD_DATA_DIR": str(folder)},
                                   stderr=subprocess.DEVNULL)
        wait_until("a new etcd to start", (folder / "member/snap/db").exists)
        self.lab.end(alone)
        script = HARMLESS + "\n".join(ADD_ETCD[number > 2:])
        for old, new in ("/var/lib/etcd/default", folder), ("etcd2", f"etcd{number}"), (ETCDS[1], address):
            script = script.replace(str(old), str(new))
        time.sleep(ETCD_HEALTHY)
        subprocess.run(["bash", "-euo", "pipefail", "-c", script], cwd=self.lab.work, stdout=self.said,
                       check=True, env=settings("weir-fleet", ETCDCTL_COMMAND_TIMEOUT="30s"))
        shutil.copy(DEFAULTS, self.configuration(address))
        self.restart_etcds(address)

    def replace_etcd(self, number: int) -> None:
        self.empty_etcd(ETCDS[number - 1])
        member = re.findall(rf"(\w+), \w+, etcd{number}", self.etcdctl("member", "list"))[0]
        time.sleep(ETCD_HEALTHY)
        check("removed" in self.etcdctl("--command-timeout=30s", "member", "remove", member), "none removed")
        self.add_etcd(number)


class Story(fleet_test.Story):
    """What happens to a fleet of which hosts hang or die."""

    def __init__(self, lab: Lab, players: int, binary: Path) -> None:
        self.began = time.monotonic()
        content = Channels(lab.www, [100000], 1, 2, 0, "http://~", "http://@", "http://@").start()
        self.fleet: Pair = Pair(lab, binary)
        self.fleet.start_haproxy(SPARE)
        self.weirs, self.admin = self.fleet.weirs, self.fleet.admin
        for address in BALANCERS[::-1]:
            self.fleet.start_keepalived(address)
            wait_until("the common address", lambda: self.fleet.owns_address(SPARE))
        # One player of each HAProxy's own address shows how busy this machine is.
        listeners = {address: Audience(content, address, 80) for address in (COMMON, *BALANCERS)}
        self.audience, self.controls = listeners[COMMON], listeners
        for address, audience in listeners.items():
            audience.loop = self.audience.loop
            for number in range(players if address == COMMON else 1):
                audience.add(f"http://~/c{number % 2}/master.m3u8")
        wait_until("all players to get media", lambda: all(
            seat.playing() for audience in listeners.values() for seat in audience.seats), 60)

    def again(self, since: float) -> bool:
        """Whether all players have media of a stream that began since then. Silent streams are left."""
        for seat in self.audience.seats:
            if seat.playing() and seat.players[-1].last < time.monotonic() - READ_TIMEOUT:
                self.audience.loop.call_soon_threadsafe(seat.players[-1].leave)
        return all(seat.playing() and seat.players[-1].started > since for seat in self.audience.seats)

    def cost(self) -> tuple[float, int]:
        """The most seconds and segments that a player missed between its last two streams."""
        pairs = [[player for player in seat.players if player.first][-2:] for seat in self.audience.seats]
        return (max(new.first - old.last for old, new in pairs),
                max(0, *(new.found.first - old.found.sequence - 1 for old, new in pairs)))

    def move(self, what: str, fail: Act, mend: Act, limit: float) -> None:
        """Fails the active HAProxy; its players must be served by the other, and stay there."""
        owns, began = self.fleet.owns_address, time.monotonic()
        active, spare = sorted(BALANCERS, key=owns, reverse=True)
        control = self.controls[spare].seats[0]
        control.players[-1].longest_gap = 0.0
        fail(active)
        wait_until("the address to move", lambda: owns(spare))
        moved = time.monotonic() - began
        wait_until("all players to get media", lambda: self.again(began), 60)
        (silence, missing), lost = self.cost(), self.audience.lost()
        check(silence < limit + control.pause(), f"{what}: {silence:.1f} s without media")
        mend(active)
        time.sleep(5)
        check(owns(spare) and not owns(active) and self.fleet.keepaliveds[active].poll() is None,
              f"{what}: the address has moved back")
        check(self.audience.lost() == lost, f"{what}: {self.audience.lost() - lost} streams end afterwards")
        self.say(f"HAProxy {what}: the address moves after {moved:.1f} s, players are without media for at "
                 f"most {silence:.1f} s and miss {missing} segments; nothing when it returns")

    def change(self, what: str, servers: str) -> None:
        """New maps reach all weirs, and no player notices."""
        lost, put = self.audience.lost(), lambda: self.fleet.put_maps(servers)
        took = self.everywhere(f"have the maps with {what}", f"^setting map to: .*{servers}$", 2,
                               lambda: wait_until("etcd to take maps", put))
        check(took < PATIENCE and self.audience.lost() == lost, f"{what}: {took:.1f} s")
        self.say(f"{what}: all weirs have new maps after {took:.1f} s")

    def upgrade(self) -> None:
        """By the page's commands, with a weir that is added first."""
        for line in re.findall(r'admin "(add server [^"]*)"', PAGE):
            line = line.replace("weir4", "weir3").replace("7804", "7803")
            self.admin(line.replace("192.0.2.14", WEIRS["weir3"]))
        asked, began = self.fleet.lab.work / "asked", time.monotonic()
        before = [len(seat.lost) for seat in self.audience.seats]
        script = self.fleet.lab.start([KIT / "fleet/weir-upgrade", "weir3", 'echo "$weir" >asked; '
                                       "while [ -e asked ]; do sleep 0.1; done"], cwd=self.fleet.lab.work)
        while script.poll() is None:
            time.sleep(0.05)
            if asked.exists() and (weir := self.weirs.get(asked.read_text().strip())):
                weir.kill()
                weir.start()
                weir.get_ready()
                asked.unlink()
        wait_until("all players to get media", lambda: self.again(began), 60)
        lost = {len(seat.lost) - count for seat, count in zip(self.audience.seats, before)}
        check(script.returncode == 0 and lost == {1}, f"an upgrade cost the players {lost} streams")
        self.say(f"all weirs upgraded after {time.monotonic() - began:.1f} s; each player lost one stream "
                 f"and was without media for at most {self.cost()[0]:.1f} s")

    def check_metrics(self) -> None:
        """That HAProxy has the metrics which the alerts and the dashboard use."""
        has = subprocess.check_output(["curl", "-sS", f"http://{HAPROXY}:8405/metrics"], text=True)
        for file in "weir_rules.yml", "fleet-dashboard.json":
            used = re.findall(r"haproxy_\w+", (KIT / "metrics" / file).read_text())
            check(used and all(f"\n{name}{{" in has for name in used), f"{file}: not all of {used} exist")

    def run_all(self, everything: bool) -> None:
        fleet = self.fleet
        self.check_metrics()
        self.upgrade()
        fleet.empty_etcd(ETCD)
        fleet.restart_etcds(ETCD)
        self.change("an emptied etcd", CACHE2)
        fleet.add_etcd(2)
        fleet.add_etcd(3)
        self.change("three etcds", CACHE1)
        link(leader := fleet.leader(), "down")
        self.change("the leader cut off", CACHE2)
        link(leader, "up")
        if everything:
            fleet.kill_etcds(fleet.leader())
            self.change("the leader killed", CACHE1)
            fleet.kill_etcds(*ETCDS)
            self.weirs["weir1"].get_ready()  # from its copy
            fleet.restart_etcds(*ETCDS)
            self.change("etcds that return", CACHE2)
            fleet.replace_etcd(3)
            self.change("an emptied etcd of three", CACHE1)
        self.move("without power", fleet.lose_power, fleet.boot, READ_TIMEOUT + BUSY)
        self.move("hung", send(signal.SIGSTOP, fleet.haproxies), send(signal.SIGCONT, fleet.haproxies),
                  READ_TIMEOUT + BUSY)
        if everything:
            self.move("killed", send(signal.SIGKILL, fleet.haproxies), fleet.start_haproxy, 3 + BUSY)


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--players", type=int, default=20)
    parser.add_argument("--all", action="store_true")
    options, binary = parser.parse_args(), os.environ.get("WEIR_BINARY", TOP / "build/release/weir")
    own_network(mounts=True)
    with Lab("/dev/shm") as lab:
        try:
            Story(lab, options.players, Path(binary)).run_all(options.all)
        except SystemExit:
            subprocess.run("tail -n 30 said", shell=True, cwd=lab.work)
            raise


if __name__ == "__main__":
    main()
