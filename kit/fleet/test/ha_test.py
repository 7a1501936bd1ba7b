"""Two HAProxys with keepalived, and one etcd that becomes three: what players notice of failing hosts."""

import re
import shutil
import subprocess
import time
from signal import SIGCONT, SIGKILL, SIGSTOP

import fleet
from fleet import (CACHE1, CACHE2, CONFIGURATION, ETCD, HAPROXY, KIT, SLACK, SPARE, WEIR_FLEET, WEIRS, Act,
                   Fleet, ask_haproxy, check, host, power, send, settings, configure)
from weirlab.lab import Lab, Process, wait_until
from weirlab.network import ip

COMMON, ETCDS = "192.0.2.1", [ETCD, "192.0.2.32", "192.0.2.33"]
# Seconds: for maps to reach all weirs; within which an address would move back; and etcd accepts no change
# of members while one has run for less than five.
PATIENCE, RETURN, ETCD_HEALTHY = 20, 5, 6
KEEPALIVED = CONFIGURATION.with_name("keepalived.conf")
PAGE = (KIT / "fleet/README.md").read_text()
# Its commands that add an etcd, without those that would change this machine.
ADD_ETCD = re.findall(r"(?m)^\$ (.*)", PAGE.partition("**etcd**: three")[2].partition("Then add")[0])


class Pair(Fleet):
    """A fleet with two HAProxys, which know two of its weirs, and weirs that expect three etcds."""
    MORE = {"ETCDCTL_ENDPOINTS": ",".join(f"{etcd}:2379" for etcd in ETCDS), "FLEET_METRICS": ":8405"}

    def __init__(self, lab: Lab) -> None:
        super().__init__(lab)
        self.keepaliveds: dict[str, Process] = {}
        self.start_haproxy(SPARE)
        for address in SPARE, HAPROXY:
            self.start_keepalived(address)
            wait_until("the common address", lambda: self.owns_address(SPARE))

    def install(self) -> None:
        super().install()
        CONFIGURATION.write_text(re.sub(r"(?m)^ *server weir3 .*\n", "", CONFIGURATION.read_text()))
        configure("fleet/keepalived.conf", KEEPALIVED)

    def start_keepalived(self, address: str) -> None:
        pids = self.lab.work / f"{address}-{time.monotonic()}"
        with host(address):
            self.keepaliveds[address] = self.lab.start(
                ["keepalived", "--dont-fork", "--log-console", f"--use-file={KEEPALIVED}", f"--pid={pids}",
                 f"--vrrp_pid={pids}-vrrp"], stderr=self.said)

    def owns_address(self, address: str) -> bool:
        with host(address):
            return f" {COMMON}/" in subprocess.check_output(["ip", "-o", "address"], text=True)

    def lose_power(self, address: str) -> None:
        send(SIGKILL, self.keepaliveds)(address)  # first, or it would give up the address
        power("down")(address)
        send(SIGKILL, self.haproxies)(address)

    def boot(self, address: str) -> None:
        with host(address):
            ip(f"address del {COMMON}/24 dev eth0")
        power("up")(address)
        self.start_haproxy(address)
        self.start_keepalived(address)

    def leader(self) -> str:
        return next(etcd for row in self.etcdctl("endpoint", "status").splitlines() if " true, false" in row
                    for etcd in ETCDS if etcd in row)

    def kill_etcds(self, *addresses: str, emptied: bool = False) -> None:
        for address in addresses:
            self.lab.end(self.etcds[address], SIGKILL)
            if emptied:
                shutil.rmtree(self.lab.work / address)

    def restart_etcds(self, *addresses: str) -> None:
        for address in addresses:
            self.etcds[address] = self.start_etcd(address)
        wait_until("etcd to serve", lambda: all(a in self.etcdctl("endpoint", "status") for a in addresses))
        self.joined = time.monotonic()

    def add_etcd(self, number: int) -> None:
        """By the page's commands, on a host whose etcd has run by itself, as Debian's package starts it."""
        address, folder = ETCDS[number - 1], self.lab.work / ETCDS[number - 1]
        shutil.copy("/dev/null", f"{folder}.conf")
        self.etcds[address] = self.start_etcd(address)
        wait_until("a new etcd to start", (folder / "member/snap/db").exists)
        self.kill_etcds(address)
        script = 'sudo() { "$@"; }; apt() { :; }; systemctl() { :; }\n' + "\n".join(ADD_ETCD[number > 2:])
        for old, new in (("/var/lib/etcd/default", folder), ("etcd2", f"etcd{number}"), (ETCDS[1], address),
                         ("kit/", f"{KIT}/")):
            script = script.replace(str(old), str(new))
        time.sleep(max(0, self.joined + ETCD_HEALTHY - time.monotonic()))
        subprocess.run(["bash", "-euo", "pipefail", "-c", script], cwd=self.lab.work, stdout=self.said,
                       check=True, env=settings(WEIR_FLEET, ETCDCTL_COMMAND_TIMEOUT="30s"))
        shutil.copy("/etc/default/etcd", f"{folder}.conf")
        self.restart_etcds(address)


class Story(fleet.Story):
    """What happens to a fleet of which hosts hang or die."""
    fleet: Pair
    owner, mended = SPARE, 0.0

    def move(self, fail: Act, mend: Act, limit: float = SLACK) -> int:
        """Fails the active HAProxy; its players must be served by the other, and stay there."""
        began, failing = time.monotonic(), self.owner
        self.owner = HAPROXY if failing == SPARE else SPARE
        fail(failing)
        wait_until("the address to move", lambda: self.fleet.owns_address(self.owner))
        self.say(f"  the address moves after {time.monotonic() - began:.1f} s")
        self.recover(self.audience.seats, began, limit)
        mend(failing)
        self.mended = time.monotonic()
        return len(self.audience.seats)

    def change(self, servers: str) -> None:
        self.everywhere(servers, lambda: self.fleet.put_maps(servers), PATIENCE)
        time.sleep(max(0, self.mended + RETURN - time.monotonic()))
        check([address for address in (HAPROXY, SPARE) if self.fleet.owns_address(address)] == [self.owner],
              "the address has moved back")
        check(all(process.poll() is None for process in self.fleet.keepaliveds.values()), "keepalived ended")

    def upgrade(self) -> int:
        """By the page's commands, with a weir that is added first."""
        page = PAGE.replace("weir4", "weir3").replace("7804", "7803").replace("192.0.2.14", WEIRS["weir3"])
        for command in re.findall(r'admin "(add server [^"]*)"', page):
            ask_haproxy(command)
        began = time.monotonic()
        script = self.fleet.lab.start([KIT / "fleet/weir-upgrade", "weir3", 'echo "$weir"; read -r done'],
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
        assert script.stdin and script.stdout
        for line in script.stdout:
            weir = self.weirs[line.decode().strip()]
            weir.kill()
            weir.start()
            weir.get_ready()
            script.stdin.write(b"\n")
        self.recover(self.audience.seats, began)
        lost = {len(seat.lost) for seat in self.audience.seats}
        check(script.wait() == 0 and lost == {1}, f"an upgrade cost the players {lost} streams")
        return len(self.audience.seats)

    def check_metrics(self) -> None:  # that the alerts and the dashboard use
        has = subprocess.check_output(["curl", "-sS", f"http://{HAPROXY}:8405/metrics"], text=True)
        for file in "weir_rules.yml", "fleet-dashboard.json":
            used = re.findall(r"haproxy_\w+", (KIT / "metrics" / file).read_text())
            check(used and all(f"\n{name}{{" in has for name in used), f"{file}: not all of {used} exist")

    def run(self, everything: bool) -> None:
        pair, haproxies = self.fleet, self.fleet.haproxies
        self.check_metrics()
        self.unnoticed("all weirs are upgraded", self.upgrade)
        pair.kill_etcds(ETCD, emptied=True)
        pair.restart_etcds(ETCD)
        self.unnoticed("an emptied etcd", self.change, CACHE2)
        pair.add_etcd(2)
        self.unnoticed("HAProxy has no power", self.move, pair.lose_power, pair.boot)
        pair.add_etcd(3)
        self.unnoticed("three etcds", self.change, CACHE1)
        self.unnoticed("HAProxy hangs", self.move, send(SIGSTOP, haproxies), send(SIGCONT, haproxies))
        power("down")(leader := pair.leader())
        self.unnoticed("the leader cut off", self.change, CACHE2)
        power("up")(leader)
        if everything:
            self.unnoticed("HAProxy is killed", self.move, send(SIGKILL, haproxies), pair.start_haproxy, 9)
            pair.kill_etcds(pair.leader())
            self.unnoticed("the leader killed", self.change, CACHE1)
            pair.kill_etcds(*ETCDS)
            self.weirs["weir1"].get_ready()  # from its copy
            pair.restart_etcds(*ETCDS)
            self.unnoticed("etcds that return", self.change, CACHE2)
            pair.kill_etcds(ETCDS[2], emptied=True)
            member = re.findall(r"(\w+), \w+, etcd3", pair.etcdctl("member", "list"))[0]
            time.sleep(ETCD_HEALTHY)
            removed = pair.etcdctl("--command-timeout=30s", "member", "remove", member)
            check("removed" in removed, "no etcd was removed")
            pair.add_etcd(3)
            self.unnoticed("an emptied etcd of three", self.change, CACHE1)


if __name__ == "__main__":
    fleet.main(lambda lab, options: Story(Pair(lab), COMMON, options).run(options.all), 20)
