"""One stream of weir: the time to its first byte, and the memory that a slow player costs.

Two Markdown tables: the time to the first byte of media for an origin that delays each response,
compared with weir's fixed waits; and the peak RSS with a player much slower than the origin, compared
with the size of the buffer, one segment and two blocks, and the RSS after the player has left.
"""

import time
from statistics import median

import common
from weirlab import client, procfs
from weirlab.lab import TOP, Lab, wait_until
from weirlab.network import own_network
from weirlab.origin import Origin

ORIGIN, LATE = 9000, 9001
MIB = 1 << 20
BLOCK = 512 << 10
BINARY = TOP / "build/bench/weir"
BUFFER = 32 * MIB  # weir's argument
ROUNDS = 15  # of each first byte
PACE, SECONDS = 1_000_000, 20  # bytes/s of the slow player, and how long it plays


def first_byte(kind: str) -> float:
    """Milliseconds."""
    start = time.monotonic()
    with client.connect(client.stream_path(f"http://127.0.0.1:{LATE}/{kind}/master.m3u8")) as player:
        got = b""
        while not got.partition(b"\r\n\r\n")[2]:
            got += player.recv(65536)
        return 1000 * (time.monotonic() - start)


def fixed_waits(delay: float, answers: int) -> float:
    """The master playlist; then weir checks the buffer after 100, 150, 250, 300 ms and so on."""
    due, look, wait = answers * delay, 100, 50
    while look < due:
        look, wait = look + wait, 150 - wait
    return delay + look


def first_bytes(lab: Lab) -> None:
    def read(path: str) -> bytes:
        return (lab.www / path[1:]).read_bytes().replace(b":%d/" % ORIGIN, b":%d/" % LATE)

    origin, weir = Origin(LATE, read), lab.weir(BINARY, BUFFER)
    common.print_head("media", "answers after, ms", "first byte, ms", "fixed waits, ms", "ratio")
    for kind, answers in (("clear", 2), ("aes", 3)):  # playlist, key, segment
        for delay in (0, 20, 60, 120):  # ms
            origin.delay = delay / 1000
            times = [first_byte(kind) for _ in range(ROUNDS)]
            fixed = fixed_waits(delay, answers)
            common.print_row(kind, delay, common.spread(times, 1), fixed,
                             f"{median(times) / fixed:.2f}")
    lab.end(weir)


def slow_player(lab: Lab, kind: str, segment: int) -> None:
    bound = (BUFFER + segment + 2 * BLOCK) / MIB
    weir = lab.weir(BINARY, BUFFER)
    idle = procfs.sample(weir.pid)["rss"]
    with client.connect(client.stream_path(f"http://127.0.0.1:{ORIGIN}/{kind}/master.m3u8")) as player:
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            player.recv(PACE // 20)
            time.sleep(0.05)
    peak = common.peak(weir.pid)
    wait_until("the stream to end", lambda: procfs.threads(weir.pid) == 1, 90)
    sizes = (idle, peak, peak - idle, bound, procfs.sample(weir.pid)["rss"])
    common.print_row(kind, *(f"{size:.1f}" for size in sizes))
    lab.end(weir)


def main() -> None:
    own_network()
    with Lab("/dev/shm") as lab:
        sizes = common.make_noise(lab, f"http://127.0.0.1:{ORIGIN}", segments=30)
        first_bytes(lab)
        lab.origin(ORIGIN)
        print()
        common.print_head("media", "idle RSS, MiB", "highest RSS", "above idle",
                          "buffer, segment, two blocks", "after the stream")
        for kind in ("clear", "aes"):
            slow_player(lab, kind, max(sizes))


if __name__ == "__main__":
    main()
