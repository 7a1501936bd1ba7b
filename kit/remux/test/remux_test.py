#!/usr/bin/env python3
"""remux_test.py WEIR: plays a live channel of fragmented MP4 and separate audio through kit/remux while
ffmpeg is killed. Other sources are rows of docs/sources.md, which kit/adapter/test plays."""

import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
from pathlib import Path

from channel import Channel, make_folder
from weirlab import client, procfs
from weirlab.lab import TOP, Lab, Process, is_idle, wait_until
from weirlab.network import own_network
from weirlab.video import ffmpeg

sys.path.append(str(TOP / "kit/check/test"))
from case import make_certificate  # noqa: E402

URL = "http://127.0.0.1:7750/http/remux/news/master.m3u8"
SETTINGS = """js_var $weir_origins "remux"; proxy_ssl_trusted_certificate weir/pem;
proxy_cache_path t/a keys_zone=weir:1m max_size=64m use_temp_path=off;"""
LISTED, AHEAD = 3, 4  # segments of 1 s: in a playlist, and before and after ffmpeg is killed
RATE, VARIANTS, IDLE = 25, 2, 5
SOURCE = ("ffmpeg -nostdin -v error -re -stream_loop -1 -i {video} -map 0:v -map 0:v -map 0:a -c copy"
          " -b:v:0 300k -b:v:1 200k -f hls -hls_time 1 -hls_segment_type fmp4 -hls_flags delete_segments"
          " -hls_fmp4_init_filename init%v -master_pl_name master.m3u8"
          " -var_stream_map 'v:0,agroup:a v:1,agroup:a a:0,agroup:a' %v.m3u8")


def start_servers(lab: Lab) -> Process:
    """Returns the source."""
    make_folder()
    lab.origin(8000)
    video = lab.work / "video.mp4"
    ffmpeg(lab, "-f", "lavfi", "-i", "testsrc2=size=160x90:rate=25:duration=10", "-f", "lavfi", "-i",
           "sine=duration=10", "-g", 25, "-c:v", "libx264", "-preset", "ultrafast", "-c:a", "aac", video)
    source = lab.start(shlex.split(SOURCE.format(video=video)), cwd=lab.www)
    folder = lab.work / "adapter"
    shutil.copytree(TOP / "kit/adapter", folder / "weir")
    shutil.copy(TOP / "kit/remux/remux.conf", folder / "weir")
    (folder / "weir/settings.conf").write_text(SETTINGS)
    make_certificate(f"{folder}/weir/pem", "DNS:unused")
    lab.nginx("adapter", 7760, "return 404;", http="include weir/adapter.conf; include weir/remux.conf;",
              top="load_module /usr/lib/nginx/modules/ngx_http_js_module.so;")
    return source


def segments(lab: Lab) -> list[tuple[int, int]]:
    """Numbers and sizes of those that weir has fetched."""
    found = re.findall(r"^got chunk \(seq (\d+)\).* size (\d+)", lab.log.read_text(), re.MULTILINE)
    return [(int(number), int(size)) for number, size in found]


def remuxers(pid: int) -> list[int]:
    below = [more for child in procfs.children(pid) for more in remuxers(child)]
    return below + [pid] * (Path(f"/proc/{pid}/comm").read_text() == "ffmpeg\n")


def receive(player: socket.socket) -> bytes:
    piece = player.recv(1 << 16)
    assert piece, "the stream has ended"
    return piece


def watch(lab: Lab, channel: Channel) -> None:
    """ffmpeg is killed while weir plays."""
    data, killed = bytearray(), 0
    with client.connect(client.stream_path(URL), timeout=60) as player:
        while len(segments(lab)) < killed + AHEAD:
            data += receive(player)
            if not killed and len(segments(lab)) >= AHEAD:
                old = set(channel.folder.glob("*.ts"))
                os.kill(remuxers(channel.process.pid)[0], signal.SIGKILL)
                killed = len(segments(lab))
        fetched = segments(lab)
        size = data.index(b"\r\n\r\n") + 4 + sum(size for _, size in fetched)
        while len(data) < size:
            data += receive(player)
    assert [number for number, _ in fetched] == sorted({number for number, _ in fetched})
    assert fetched[-1][0] - fetched[0][0] > RATE * len(fetched), f"not from the clock: {fetched}"
    made = set(channel.folder.glob("*.ts")) - old
    assert len(made) <= VARIANTS * (LISTED + 3), made
    (lab.work / "seen.ts").write_bytes(data[data.index(b"\r\n\r\n") + 4:size])
    assert count(lab.work / "seen.ts") == RATE * len(fetched)


def count(path: Path) -> int:
    """The frames of a file."""
    command = ("ffprobe -v error -select_streams v -count_packets -of csv=p=0"
               " -show_entries stream=nb_read_packets")
    return int(subprocess.check_output([*command.split(), path]).split()[0])


def run(lab: Lab, binary: Path) -> None:
    source = start_servers(lab)
    wait_until("the source", (lab.www / "master.m3u8").exists)
    channel = Channel(lab, "news", "http://127.0.0.1:8000/master.m3u8", {
        "hls_time 4": "hls_time 1", "size 10": f"size {LISTED}", "time=60": f"time={IDLE}"})
    assert not channel.folder.exists(), "started without a request"
    weir = lab.weir(binary, 8 << 20, progress=True)
    watch(lab, channel)
    wait_until("weir to be idle", lambda: is_idle(weir))
    wait_until("the end without requests", lambda: channel.process.poll() is not None)
    wait_until("its files to be removed", lambda: not channel.folder.exists())
    channel.listen()
    lab.log.write_text("")
    with client.connect(client.stream_path(URL), timeout=60) as player:
        while player.recv(1 << 16):
            if source.poll() is None and len(segments(lab)) >= AHEAD:
                lab.end(source)  # which completes the playlist
            assert len(segments(lab)) < 5 * AHEAD, "the end of the source is repeated"
    assert len(segments(lab)) >= AHEAD
    print("as expected")


if __name__ == "__main__":
    own_network(mounts=True)
    with Lab() as laboratory:
        run(laboratory, Path(sys.argv[1]))
