#!/usr/bin/env python3
"""remux_test.py WEIR: plays a live channel of fragmented MP4 and separate audio through kit/remux while
ffmpeg is killed. Other sources are rows of docs/sources.md, which kit/adapter/test plays."""

import os
import re
import shlex
import signal
import sys
from pathlib import Path

from channel import Channel, make_folder
from weirlab import client, procfs
from weirlab.lab import Lab, Process, is_idle, wait_until
from weirlab.network import own_network
from weirlab.video import RATE, frames, make_film

LISTED, AHEAD = 3, 4  # segments of 1 s: in a playlist, and before and after ffmpeg is killed
STREAM = client.stream_path("http://127.0.0.1:7750/http/remux/news/master.m3u8")
CHANGES = {"hls_time 4": "hls_time 1", "size 10": f"size {LISTED}", "time=60": "time=5"}
SOURCE = ("ffmpeg -nostdin -v error -re -stream_loop -1 -i {} -map 0:v -map 0:v -map 0:a -c copy"
          " -b:v:0 300k -b:v:1 200k -f hls -hls_time 1 -hls_segment_type fmp4 -hls_flags delete_segments"
          " -hls_fmp4_init_filename init%v -master_pl_name master.m3u8"
          " -var_stream_map 'v:0,agroup:a v:1,agroup:a a:0,agroup:a' %v.m3u8")


def segments(lab: Lab) -> list[tuple[int, int]]:
    """Numbers and sizes of those that weir has fetched."""
    found = re.findall(r"^got chunk \(seq (\d+)\).* size (\d+)", lab.log.read_text(), re.MULTILINE)
    return [(int(number), int(size)) for number, size in found]


def remuxers(pid: int) -> list[int]:
    below = [more for child in procfs.children(pid) for more in remuxers(child)]
    return below + [pid] * (Path(f"/proc/{pid}/comm").read_text() == "ffmpeg\n")


def watch(lab: Lab, channel: Channel) -> None:
    """ffmpeg is killed while weir plays."""
    fetched, killed, old, size = segments(lab), 0, set[Path](), 0
    for data in client.receive(STREAM, 60):
        if len(segments(lab)) >= AHEAD and not killed:
            old = set(channel.folder.glob("*.ts"))
            os.kill(remuxers(channel.process.pid)[0], signal.SIGKILL)
            killed = len(segments(lab))
        if killed and not size and len(segments(lab)) >= killed + AHEAD:
            fetched = segments(lab)
            size = sum(size for _, size in fetched)
        if size and len(data) >= size:
            break
    numbers = [number for number, _ in fetched]
    assert size and len(data) >= size, "the stream has ended"
    assert numbers == sorted(set(numbers))
    assert numbers[-1] - numbers[0] > RATE * len(fetched), f"not from the clock: {fetched}"
    made = set(channel.folder.glob("*.ts")) - old
    assert len(made) <= 2 * (LISTED + 3), made  # of two variants
    assert frames(data[:size]) == RATE * len(fetched)


def run(lab: Lab, binary: Path) -> None:
    make_folder()
    lab.origin(8000)
    lab.adapter('js_var $weir_origins "remux";')
    source: Process = lab.start(shlex.split(SOURCE.format(make_film(lab))), cwd=lab.www)
    wait_until("the source", (lab.www / "master.m3u8").exists)
    channel = Channel(lab, "news", "http://127.0.0.1:8000/master.m3u8", CHANGES)
    assert not channel.folder.exists(), "started without a request"
    weir = lab.weir(binary, 8 << 20, progress=True)
    watch(lab, channel)
    wait_until("weir to be idle", lambda: is_idle(weir))
    wait_until("the end without requests", lambda: channel.process.poll() is not None)
    wait_until("its files to be removed", lambda: not channel.folder.exists())
    channel.listen()
    lab.log.write_text("")
    for _ in client.receive(STREAM, 60):
        if source.poll() is None and len(segments(lab)) >= AHEAD:
            lab.end(source)  # which completes the playlist
        assert len(segments(lab)) < 5 * AHEAD, "the end of the source is repeated"
    assert len(segments(lab)) >= AHEAD
    print("as expected")


if __name__ == "__main__":
    own_network(mounts=True)
    with Lab() as laboratory:
        run(laboratory, Path(sys.argv[1]))
