"""Runs the story of script/demo, which has checked the options and installed the programs."""

import argparse
import os
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

from weirlab import client, video
from weirlab.lab import CACHE, TOP, Lab, is_idle, wait_until
from weirlab.network import own_network

SECONDS, RATE, SEGMENT_SECONDS = 60, 25, 2
VARIANTS = {"180p": ("320x180", "250k"), "270p": ("480x270", "600k"), "360p": ("640x360", "1200k")}
CACHES = ("cache1", "cache2", "cache3")
FAST, SLOW = "500k", "80k"  # bytes/s: above twice and below half the rate of 360p
BUFFER = 64 << 20  # bytes; far above the video's size, as weir switches down only below 60 %
AHEAD = 6  # segments listed beyond the last one that weir got; weir waits 6 s for more
STUCK = 600  # turns of 0.1 s without progress; weir closes such a stream after 16 s
STREAM = f"http://127.0.0.1:{client.WEIR}{client.stream_path('http://~/video/master.m3u8')}"
TAKES = r"selected variant bitrate: (\d+).*/video/(.*)/list\.m3u8"
STORY = {TAKES: r"weir takes \2, \1 bit/s",
         "Invalidating cache server (.*)": r"weir marks dead \1",
         "retry chunk get from .*/video/(.*) starting(.*)": r"weir goes on with \1\2"}


class Log:
    """Follows weir's log and prints its important lines as a story."""

    def __init__(self, path: Path) -> None:
        self.file = path.open(encoding="utf-8", errors="replace")
        self.lines: list[str] = []
        self.rest = ""

    def read(self) -> int:
        """Returns the number of lines so far."""
        *lines, self.rest = (self.rest + self.file.read()).split("\n")
        for line in lines:
            for pattern, text in STORY.items():
                # A dead cache is marked in both maps, but reported once.
                if (match := re.match(pattern, line)) and not (line in self.lines and "dead" in text):
                    print(" " * 8, match.expand(text), flush=True)
            self.lines.append(line)
        return len(self.lines)

    def matches(self, pattern: str, since: int = 0) -> list[re.Match[str]]:
        return [match for line in self.lines[since:] if (match := re.match(pattern, line))]

    def segments(self) -> int:
        return len(self.matches("got chunk "))

    def switches(self, way: int, since: int) -> int:
        """How often weir switched down (-1) or up (1)."""
        rates = [(number, int(match[1])) for number, line in enumerate(self.lines)
                 if (match := re.match(TAKES, line))]
        return sum(number >= since and (rate - last) * way > 0
                   for (_, last), (number, rate) in pairwise(rates))


class Demo:
    """One run of the story."""

    def __init__(self, lab: Lab) -> None:
        self.lab, self.log, self.stream = lab, Log(lab.log), lab.work / "stream.ts"
        self.began = time.monotonic()
        self.player = threading.Thread(target=self.pull, daemon=True)
        self.say("making a video in three variants")
        self.make_video()
        free = (port for port in range(7800, 8000) if not client.answers(port))
        self.ports = dict(zip(("origin", *CACHES), free))
        self.addresses = {name: f"127.0.0.1:{self.ports[name]}" for name in CACHES}
        lab.origin(self.ports["origin"])
        self.caches = {name: lab.cache(name, self.ports[name], self.ports["origin"], FAST)
                       for name in CACHES}
        binary = Path(os.environ.get("WEIR_BINARY", TOP / "build/release/weir"))
        self.weir = lab.weir(binary, BUFFER, progress=True)
        self.maps_sent = 0  # lines logged before
        self.send_maps()

    def say(self, text: str) -> None:
        print(f"{time.monotonic() - self.began:3.0f} s  {text}", flush=True)

    def make_video(self) -> None:
        """Segment n of each variant contains the same two seconds, so a switch loses no frame."""
        www, gop = self.lab.www / "video", RATE * SEGMENT_SECONDS
        outputs = list[object]()
        for name, (size, bitrate) in VARIANTS.items():
            outputs += ["-map", "0:v", "-map", "1:a", "-s", size, "-c:v", "libx264", "-preset", "ultrafast",
                        "-b:v", bitrate, "-maxrate", bitrate, "-bufsize", bitrate, "-g", gop,
                        "-keyint_min", gop, "-sc_threshold", 0, "-c:a", "aac", "-b:a", "64k",
                        *video.in_segments(www / name, SEGMENT_SECONDS, "%03d.ts")]
        video.ffmpeg(self.lab, "-f", "lavfi", "-i", f"testsrc2=size=640x360:rate={RATE}:duration={SECONDS}",
                     "-f", "lavfi", "-i", f"sine=frequency=440:duration={SECONDS}", *outputs)
        (www / "key").write_bytes(video.KEY)
        bandwidths = {f"http://~/video/{name}/list.m3u8":
                      video.publish(www / name, "", SEGMENT_SECONDS, "key") for name in VARIANTS}
        video.replace(www / "master.m3u8", video.master_playlist(bandwidths))
        self.publish(AHEAD)

    def publish(self, count: int | None = None) -> None:
        """Lists `count` segments, or all of them and the end of the video."""
        for name in VARIANTS:
            folder = self.lab.www / "video" / name
            urls = [f"http://@/video/{name}/{path.name}" for path in video.segments_in(folder)]
            video.replace(folder / "list.m3u8", video.media_playlist(
                urls[:count], SEGMENT_SECONDS, key="http://@/video/key", over=count is None))

    def send_maps(self) -> None:
        """Makes weir use all caches again, including those marked dead."""
        self.maps_sent = self.log.read()
        if client.get(client.maps_path(",".join(self.addresses.values()))).strip() != b'"OK"':
            raise SystemExit("weir did not take the cache maps")

    def wait_until(self, what: str, condition: Callable[[], object], over: bool = False) -> None:
        """Lists more segments as weir gets them; the video ends only if the trouble is `over`."""
        had, turns = -1, 0
        while not (self.log.read() and condition()):
            if not self.player.is_alive():
                raise SystemExit(f"the stream ended while waiting until {what}")
            if had != (had := self.log.segments()):
                turns = 0
                self.publish(None if over else had + AHEAD)
            if (turns := turns + 1) > STUCK:
                raise SystemExit(f"no segment for long while waiting until {what}")
            if any(self.log.matches(f"Invalidating cache server {self.addresses[name]}$", self.maps_sent)
                   for name in self.caches):
                self.say("a cache that works was too slow to answer: sending the maps again")
                self.send_maps()
            time.sleep(0.1)

    def settle(self) -> None:
        wanted = self.log.segments() + 2
        self.wait_until("weir plays the best variant", lambda: (taken := self.log.matches(TAKES))
                        and taken[-1][2] == "360p" and self.log.segments() >= wanted)

    def limit_caches(self, text: str, rate: str, way: int) -> int:
        """Waits until weir switches variants; returns the log's length before. A response in progress
        keeps its rate."""
        self.say(f"{text} {rate} bytes/s")
        since = self.log.read()
        for name, process in self.caches.items():
            server = CACHE.format(upstream=self.ports["origin"], rate=rate)
            self.lab.configure(name, self.ports[name], server)
            process.send_signal(signal.SIGHUP)
        self.wait_until("weir switches", lambda: self.log.switches(way, since))
        return since

    def kill_cache(self) -> str:
        """Stops the cache in use within a segment until weir gives up that response, then ends it: if
        it ended at once, weir would take the incomplete segment for a complete one."""
        chosen, since = r"for url .*\.ts .* selected server: (.*)", self.log.read()
        self.wait_until("weir asks for a segment", lambda: self.log.matches(chosen, since))
        address = self.log.matches(chosen, since)[-1][1]
        name = next(name for name in CACHES if self.addresses[name] == address)
        cache = self.caches.pop(name)
        self.say(f"{name}, which is in use, hangs ...")
        os.killpg(cache.pid, signal.SIGSTOP)
        self.wait_until("weir gives it up", lambda: self.log.matches("chunk get from .* FAILED", since))
        os.killpg(cache.pid, signal.SIGCONT)
        # A retry that has arrived is still answered; the next one is refused.
        self.lab.end(cache, signal.SIGQUIT)
        self.say("... and is gone")
        self.wait_until("weir marks it dead",
                        lambda: self.log.matches(f"Invalidating cache server {address}$", since))
        return address

    def pull(self) -> None:
        with urllib.request.urlopen(STREAM) as stream, self.stream.open("wb") as file:
            shutil.copyfileobj(stream, file)

    def run(self) -> None:
        self.say(f"streaming from {' '.join(CACHES)} at {FAST} bytes/s")
        self.player.start()
        self.settle()
        dead = self.kill_cache()
        self.settle()
        slowed = self.limit_caches("slowing the other caches down to", SLOW, -1)
        raised = self.limit_caches("back to", FAST, 1)
        self.wait_until("weir closes it", lambda: not self.player.is_alive(), over=True)
        wait_until("weir to be idle", lambda: is_idle(self.weir))
        self.say("counting the frames")
        self.say(f"OK: {self.count_frames()} frames decoded, cache {dead} marked dead, switches: "
                 f"{self.log.switches(-1, slowed)} down, {self.log.switches(1, raised)} up")

    def count_frames(self) -> str:
        """Checks that every frame was decoded once and in order: timestamps increase."""
        probe = self.lab.start([*"ffprobe -v fatal -select_streams v:0 -of csv=p=0 -show_entries".split(),
                                "frame=best_effort_timestamp", self.stream], stdout=subprocess.PIPE)
        times = [int(line.strip(b",")) for line in probe.communicate()[0].split()]
        expected = SECONDS * RATE
        if len(times) != expected or any(later <= earlier for earlier, later in pairwise(times)):
            raise SystemExit(f"{len(times)} of {expected} frames decoded, or not each once and in order")
        return f"{len(times)} of {expected}"


def main() -> None:
    parser = argparse.ArgumentParser()
    for name in "--own-network", "--play", "--keep":
        parser.add_argument(name, action="store_true")
    parser.add_argument("--log", type=Path)
    options = parser.parse_args()
    if options.own_network:
        own_network()
    with Lab() as lab:
        try:
            demo = Demo(lab)
            demo.run()
        except SystemExit as error:
            if isinstance(error.code, str):
                last = lab.log.read_text(errors="replace").splitlines()[-20:]
                print("FAILED; the end of weir's log:", *last, sep="\n", file=sys.stderr)
            raise
        finally:
            if options.log:
                shutil.copyfile(lab.log, options.log)
        if options.play:
            lab.start(["ffplay", "-v", "fatal", "-autoexit", "-window_title", "weir", STREAM]).wait()
        if options.keep:
            signal.signal(signal.SIGINT, lambda *_: sys.exit(0))
            print(f"Running until Ctrl-C: {STREAM}", flush=True)
            while demo.log.read():
                time.sleep(0.1)


if __name__ == "__main__":
    main()
