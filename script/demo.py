"""Streams a video of one minute through weir from three caches.

On the way the cache in use is killed, and the others become slow and then fast
again. In the end every frame must have arrived, the dead cache must be marked,
and weir must have switched down and up again.
"""

import argparse
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
import urllib.request
from collections.abc import Callable
from itertools import pairwise
from pathlib import Path

from weirlab import client, procfs, video
from weirlab.lab import CACHE, TOP, Lab, Process

SECONDS, RATE, SEGMENT_SECONDS = 60, 25, 2
VARIANTS = {"180p": ("320:180", "250k"), "270p": ("480:270", "600k"), "360p": ("640:360", "1200k")}
CACHES = ("cache1", "cache2", "cache3")
# Bytes a second: more than twice the best variant, and less than half of it.
FAST, SLOW = "500k", "80k"
# Bytes, large beside the video: weir does not switch down while its buffer is well filled.
BUFFER = 64 << 20
LATE = SECONDS * 2 // (SEGMENT_SECONDS * 3)  # segments
STREAM = client.stream_path("http://~/video/master.m3u8")
STREAM_URL = f"http://127.0.0.1:{client.WEIR}{STREAM}"
GOT = re.compile(r"got chunk \(seq \d+\) from \S+ with size \d+, speed \S+ kbps")
TAKES = re.compile(r"selected variant bitrate: (\d+).*/video/(.*)/list\.m3u8")
STORY = ((TAKES, r"weir takes \2, \1 bit/s"),
         (re.compile("Invalidating cache server(.*)"), r"weir marks dead\1"),
         (re.compile("retry chunk get from .*/video/(.*) starting(.*)"), r"weir goes on with \1\2"))


class StartOver(Exception):
    """The machine stood still: this script was late, or weir gave up a cache that lives."""


class Log:
    """weir's log, which is told as a story as it grows."""

    def __init__(self, path: Path) -> None:
        self.file = path.open(encoding="utf-8", errors="replace")
        self.lines: list[str] = []
        self.rest = ""

    def read(self) -> None:
        *lines, self.rest = (self.rest + self.file.read()).split("\n")
        self.lines += lines
        for line in lines:
            for pattern, text in STORY:
                if match := pattern.match(line):
                    print(" " * 8, match.expand(text), flush=True)

    def position(self) -> int:
        self.read()
        return len(self.lines)

    def matches(self, pattern: str | re.Pattern[str], since: int = 0) -> list[re.Match[str]]:
        return [match for line in self.lines[since:] if (match := re.match(pattern, line))]

    def segments(self) -> int:
        return len(self.matches(GOT))

    def switches(self, way: int, since: int) -> int:
        """How often weir took a variant that is worse (-1) or better (1) than the one before."""
        rates = [(number, int(match[1])) for number, line in enumerate(self.lines)
                 if (match := TAKES.match(line))]
        return sum(number >= since and (rate - last) * way > 0
                   for (_, last), (number, rate) in pairwise(rates))


class Demo:
    """One run of the story."""

    def __init__(self, lab: Lab, binary: Path) -> None:
        self.lab, self.binary = lab, binary
        self.began = time.monotonic()
        self.log, self.stream = Log(lab.log), lab.work / "stream.ts"
        self.weir: Process | None = None
        self.ports: dict[str, int] = {}
        self.caches: dict[str, Process] = {}
        self.trouble = False  # to come yet: the video must not be over

    def say(self, text: str) -> None:
        print(f"{time.monotonic() - self.began:3.0f} s  {text}", flush=True)

    def wait_until(self, what: str, seconds: float, condition: Callable[[], object]) -> None:
        deadline, had = time.monotonic() + seconds, self.log.segments()
        while True:
            self.log.read()
            if condition():
                return
            if self.weir and self.weir.poll() is not None:
                raise SystemExit("weir ended unexpectedly")
            if self.trouble and self.log.matches("last chunk"):
                # Had weir reached the last third when the wait began, this script was slow, on a
                # machine that hardly lets it run; with more of the video left, weir did not do it.
                if had >= LATE:
                    raise StartOver
                raise SystemExit(f"the video is over without {what}")
            if time.monotonic() > deadline:
                if self.has_lost_the_living():
                    raise StartOver
                raise SystemExit(f"gave up waiting for {what}")
            time.sleep(0.1)

    def has_lost_the_living(self) -> bool:
        """weir takes a cache that says nothing for two seconds for dead, until the next map."""
        return any(self.log.matches(f"Invalidating cache server {self.address(name)}$")
                   for name in self.caches)

    def wait_for(self, what: str, seconds: float, pattern: str, since: int) -> re.Match[str]:
        """The last match of the line in weir's log."""
        self.wait_until(what, seconds, lambda: self.log.matches(pattern, since))
        return self.log.matches(pattern, since)[-1]

    def let_pass(self, count: int) -> None:
        wanted = self.log.segments() + count
        self.wait_until(f"{count} more segments", 20, lambda: self.log.segments() >= wanted)

    def make_video(self) -> None:
        """Segment n of each variant holds the same two seconds, so no frame is missed in a switch."""
        self.say("making a video in three variants")
        www, gop = self.lab.www / "video", RATE * SEGMENT_SECONDS
        outputs, split, scaled = list[object](), "", ""
        for name, (size, bitrate) in VARIANTS.items():
            split += f"[in{name}]"
            scaled += f";[in{name}]scale={size}[{name}]"
            outputs += ["-map", f"[{name}]", "-map", "1:a", "-c:v", "libx264", "-preset", "ultrafast",
                        "-b:v", bitrate, "-maxrate", bitrate, "-bufsize", bitrate, "-g", gop,
                        "-keyint_min", gop, "-sc_threshold", 0, "-c:a", "aac", "-b:a", "64k",
                        *video.in_segments(www / name, SEGMENT_SECONDS, "%03d.ts")]
        video.ffmpeg(self.lab,
                     "-f", "lavfi", "-i", f"testsrc2=size=640x360:rate={RATE}:duration={SECONDS}",
                     "-f", "lavfi", "-i", f"sine=frequency=440:duration={SECONDS}",
                     "-filter_complex", f"[0:v]split={len(VARIANTS)}{split}{scaled}", *outputs)
        (www / "key").write_bytes(video.KEY)
        bandwidths = {f"http://~/video/{name}/list.m3u8":
                      video.publish(www / name, f"http://@/video/{name}", SEGMENT_SECONDS,
                                    "http://@/video/key") for name in VARIANTS}
        video.replace(www / "master.m3u8", video.master_playlist(bandwidths))

    def start(self) -> None:
        """With free ports below those of outgoing connections."""
        for name in ("origin", *CACHES):
            port = random.randrange(20000, 30000)
            while port in self.ports.values() or client.answers(port):
                port += 1
            self.ports[name] = port
        self.lab.origin(self.ports["origin"])
        for name in CACHES:
            self.caches[name] = self.lab.cache(name, self.ports[name], self.ports["origin"], FAST)
        self.weir = self.lab.weir(self.binary, BUFFER, progress=True)
        if client.get(client.maps_path(",".join(map(self.address, CACHES)))).strip() != b'"OK"':
            raise SystemExit("weir did not take the cache maps")

    def address(self, name: str) -> str:
        return f"127.0.0.1:{self.ports[name]}"

    def limit_caches(self, text: str, rate: str, way: int) -> int:
        """Waits for the switch of variants that follows; returns where the log was before.

        What is being sent keeps its rate, the next answer has the new one.
        """
        self.say(f"{text} {rate} bytes/s")
        since = self.log.position()
        for name, process in self.caches.items():
            server = CACHE.format(upstream=self.ports["origin"], rate=rate)
            self.lab.configure(name, self.ports[name], server)
            process.send_signal(signal.SIGHUP)
        self.wait_until("a switch " + ("up" if way > 0 else "down"), 40,
                        lambda: self.log.switches(way, since))
        return since

    def kill_cache(self) -> str:
        """The cache in use hangs in the middle of a segment until weir gives that answer up.

        Then it is gone for good. Gone at once would not do: weir takes an answer that ends
        early for the whole of it, and frames are missing. Returns the cache's address.
        """
        since = self.log.position()
        used = self.wait_for("the next segment", 20, r"for url .*\.ts .* selected server: (.*)", since)
        name = next(name for name in CACHES if self.address(name) == used[1])
        master = self.caches.pop(name)
        workers = procfs.children(master.pid)
        send(workers, signal.SIGSTOP)
        try:
            self.say(f"{name}, which is in use, hangs ...")
            self.wait_for("weir to give up on it", 20, "chunk get from .* FAILED", since)
        finally:
            send(workers, signal.SIGCONT)
        time.sleep(0.2)  # Were weir back already, it would get its answer; from now on it is refused.
        self.lab.end(master, signal.SIGQUIT)
        self.say("... and is gone")
        self.wait_for("weir to mark it dead", 30, f"  server: {used[1]} DEAD", since)
        return used[1]

    def pull(self) -> None:
        with urllib.request.urlopen(STREAM_URL) as stream, self.stream.open("wb") as file:
            shutil.copyfileobj(stream, file)

    def stream_with_trouble(self) -> str:
        """The course of events; returns what to say in the end."""
        player = threading.Thread(target=self.pull, daemon=True)
        player.start()
        self.trouble = True
        self.wait_until("the best variant", 30,
                        lambda: (taken := self.log.matches(TAKES)) and taken[-1][2] == "360p")
        self.let_pass(2)
        dead = self.kill_cache()
        self.let_pass(2)
        slowed = self.limit_caches("slowing the other caches down to", SLOW, -1)
        self.let_pass(2)
        raised = self.limit_caches("back to", FAST, 1)
        self.trouble = False
        self.wait_until("the end of the stream", 120, lambda: not player.is_alive())
        return (f"cache {dead} marked dead, switches: {self.log.switches(-1, slowed)} down, "
                f"{self.log.switches(1, raised)} up")

    def count_frames(self) -> str:
        """Every frame must be there, once and in order: the timestamps only ever grow."""
        self.say("counting the frames")
        probe = self.lab.start(["ffprobe", "-v", "fatal", "-select_streams", "v:0", "-show_entries",
                                "frame=best_effort_timestamp", "-of",
                                "default=noprint_wrappers=1:nokey=1", self.stream],
                               stdout=subprocess.PIPE)
        times, expected = [int(word) for word in probe.communicate()[0].split()], SECONDS * RATE
        if len(times) != expected:
            raise SystemExit(f"{len(times)} of {expected} frames decoded")
        if any(later <= earlier for earlier, later in pairwise(times)):
            raise SystemExit("frames came twice or out of order")
        return f"OK: {len(times)} of {expected} frames decoded"

    def run(self) -> None:
        self.make_video()
        self.start()
        self.say(f"streaming from {' '.join(CACHES)} at {FAST} bytes/s")
        troubles = self.stream_with_trouble()
        self.say(f"{self.count_frames()}, {troubles}")

    def keep(self) -> None:
        print(f"Still running, until Ctrl-C: {STREAM_URL}", flush=True)
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, lambda *_: sys.exit(0))
        while True:
            self.log.read()
            time.sleep(0.1)


def send(pids: list[int], number: int) -> None:
    for pid in pids:
        os.kill(pid, number)


def attempt(options: argparse.Namespace, last: bool) -> bool:
    """Returns whether it is done; it may be worth another one unless this is the last."""
    with Lab() as lab:
        demo = Demo(lab, Path(os.environ.get("WEIR_BINARY", TOP / "build/release/weir")))
        try:
            demo.run()
        except StartOver:
            if last:
                raise SystemExit("the machine stood still, again and again") from None
            demo.say("the machine stood still; once more")
            return False
        except SystemExit as error:
            if isinstance(error.code, str):
                demo.log.read()
                print("FAILED; what weir said last:", *demo.log.lines[-20:], sep="\n", file=sys.stderr)
            raise
        if options.log:
            shutil.copyfile(lab.log, options.log)
        if options.play:
            lab.start(["ffplay", "-v", "fatal", "-autoexit", "-window_title", "weir", STREAM_URL]).wait()
        if options.keep:
            demo.keep()
    return True


def main() -> None:
    parser = argparse.ArgumentParser(
        prog="script/demo", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog="The program is build/release/weir, built first where needed, unless the\n"
               "environment variable WEIR_BINARY names another one.")
    parser.add_argument("--play", action="store_true", help="then show the stream with ffplay")
    parser.add_argument("--keep", action="store_true", help="then leave everything running until Ctrl-C")
    parser.add_argument("--log", metavar="FILE", help="put what weir has logged there")
    options = parser.parse_args()
    if options.play and not (os.environ.get("DISPLAY") or os.environ.get("WAYLAND_DISPLAY")):
        raise SystemExit("--play needs a display")
    if options.play and not shutil.which("ffplay"):
        raise SystemExit("--play needs ffplay")
    if client.answers(client.WEIR):
        raise SystemExit(f"port {client.WEIR} is taken; is another weir running?")
    any(attempt(options, last) for last in (False, False, True))


if __name__ == "__main__":
    main()
