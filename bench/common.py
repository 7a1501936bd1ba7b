"""What the benchmarks share: other programs, a video, measures and Markdown tables."""

import re
import shutil
import socket
import time
from collections.abc import Callable, Sequence
from functools import partial
from statistics import median
from typing import TypeVar

from weirlab import client, procfs
from weirlab.lab import Lab
from weirlab.video import KEY, ffmpeg, in_segments, master_playlist, publish, replace, segments_in

T = TypeVar("T")
# Debian's programs that fetch a stream like weir: the command of each for a master playlist. The media
# goes to its standard output.
COMMANDS = {
    "gst-launch-1.0": "gst-launch-1.0 -q souphttpsrc location={} ! hlsdemux ! fdsink fd=1",
    "ffmpeg": "ffmpeg -nostdin -v fatal -i {} -c copy -f mpegts pipe:1",
    "streamlink": "streamlink --quiet --stdout hls://{} best",
}
PEERS = {name: command for name, command in COMMANDS.items() if shutil.which(name)}


def make_noise(lab: Lab, base: str, segments: int, seconds: int = 5,
               bitrate: int = 8_000_000) -> list[int]:
    """The same noise over and over, clear and encrypted; returns the sizes of its segments.

    `base` is the URL of the web root; there are clear/master.m3u8, aes/master.m3u8 and the key.
    """
    clear, noise = lab.www / "clear", lab.work / "noise.ts"
    side = int((bitrate / 120) ** 0.5) // 16 * 16  # noise of larger pictures would take more bits
    ffmpeg(lab, "-v", "fatal", "-f", "lavfi", "-i",
           f"nullsrc=s={side}x{side}:r=25:d={seconds},geq=random(1)*255", "-c:v", "mpeg2video", "-g", 25,
           "-b:v", bitrate, "-maxrate", bitrate, "-bufsize", "2M",
           "-muxrate", bitrate * 21 // 20, noise)
    ffmpeg(lab, "-stream_loop", segments - 1, "-i", noise, "-c", "copy", *in_segments(clear, seconds))
    shutil.copytree(clear, lab.www / "aes")
    (lab.www / "key").write_bytes(KEY)
    for kind, key in (("clear", ""), ("aes", f"{base}/key")):
        publish(lab.www / kind, f"{base}/{kind}", seconds, key)
        replace(lab.www / kind / "master.m3u8",
                master_playlist({f"{base}/{kind}/list.m3u8": bitrate}))
    return [path.stat().st_size for path in segments_in(clear)]


def connect_soon(port: int) -> socket.socket:
    """To a relay that is starting. It accepts a single connection, so a probe would use it up."""
    for _ in range(1000):
        try:
            return client.connect("/", port)
        except ConnectionRefusedError:
            time.sleep(0.002)
    raise SystemExit(f"nothing listens on port {port}")


def peak(pid: int) -> float:
    """The highest RSS so far, MiB."""
    return int(re.findall(r"^VmHWM:\s+(\d+)", procfs.read(pid, "status"), re.M)[0]) / 1024


def print_row(*cells: object) -> None:
    print("| " + " | ".join(map(str, cells)) + " |", flush=True)


def print_head(*columns: str) -> None:
    print_row(*columns)
    print_row(*("---" for _ in columns))


def spread(values: Sequence[float], digits: int) -> str:
    """The median and, in brackets, the least and the greatest."""
    return f"{median(values):.{digits}f} ({min(values):.{digits}f} to {max(values):.{digits}f})"


def ratio(values: Sequence[float], floor: Sequence[float]) -> str:
    """The median of the ratios within each round."""
    return f"{median(value / least for value, least in zip(values, floor)):.2f}"


def alternate(programs: dict[str, Callable[..., T]], peer: Callable[..., T], names: str, rounds: int,
              *arguments: object) -> dict[str, list[T]]:
    """The results of the named programs, which run in turn in each round; `peer` takes a command first."""
    every = programs | {name: partial(peer, command) for name, command in PEERS.items()}
    results: dict[str, list[T]] = {name: [] for name in names.split(",")}
    for _ in range(rounds):
        for name, runs in results.items():
            runs.append(every[name](*arguments))
    return results
