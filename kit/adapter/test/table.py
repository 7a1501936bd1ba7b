"""The table of docs/sources.md: each row is played by weir alone, through the adapter and, if that
refuses it, through kit/remux; the findings that it names must be among weir-check's."""

import json
import re
import shlex
import subprocess
import sys
from concurrent.futures import Executor, Future, ThreadPoolExecutor
from pathlib import Path

from case import Case, read_case, serve
from channel import Channel
from weirlab import client
from weirlab.lab import TOP, Lab
from weirlab.video import ffmpeg

ADAPTER = "http://127.0.0.1:7750/"
SECONDS, RATE = 10, 25  # of the video
PACKET, NULL = 188, b"G\x1f\xff"
FILM = (f"-f lavfi -i testsrc2=size=160x90:rate={RATE}:duration={SECONDS} -f lavfi -i sine=duration={SECONDS}"
        f" -g {RATE} -c:v libx264 -preset ultrafast -c:a aac").split()
HLS = "ffmpeg -nostdin -v error -i ../../film.mp4 -c copy -f hls -hls_playlist_type vod".split()
COUNT = ("ffprobe -v quiet -count_packets -select_streams v:0 -of csv=p=0"
         " -show_entries stream=nb_read_packets -").split()


def cases() -> dict[str, tuple[Case, str]]:
    """By name, with ffmpeg's options if it makes the source."""
    text = re.sub(r" [;=] |[|]", "\n", (Path(__file__).parent / "cases.txt").read_text("utf-8"))
    found = [(read_case(case.rstrip()), re.findall(r"^ffmpeg (.*)", case, re.MULTILINE))
             for case in re.split(r"\n== ", text)[1:]]
    return {case.name: (case, options[0] if options else "") for case, options in found}


def rows() -> dict[str, list[str]]:
    """Cells by name of the source."""
    page = (TOP / "docs/sources.md").read_text("utf-8")
    found = re.search(r"^\| source \|.*\n.*\n((?:\|.*\n)+)", page, re.MULTILINE)
    assert found, "no table"
    lines = [line.replace("`", "").strip("|").split("|") for line in found[1].splitlines()]
    return {name.strip(): [cell.strip() for cell in cells] for name, *cells in lines}


def verdict(share: float) -> str:
    return "plays" if share == 1 else "with loss" if share else "no"


def packets(stream: bytes) -> list[bytes]:
    """Without null packets, which the adapter may add."""
    found = [stream[at:at + PACKET] for at in range(0, len(stream), PACKET)]
    return [packet for packet in found if not packet.startswith(NULL)]


class Row:
    """A case, with an address for each way of playing it, or a folder with what ffmpeg made."""

    def __init__(self, lab: Lab, number: int, case: Case, options: str) -> None:
        self.lab, self.case, self.name = lab, case, f"row{number}"
        self.urls = [f"http://{host}:8000{case.url}" for host in hosts(number)]
        if options:
            folder = lab.www / self.name
            folder.mkdir()
            subprocess.run([*HLS, *shlex.split(options)], cwd=folder, check=True)
            playlist = "master" if (folder / "master.m3u8").exists() else "list"
            base = case.url if "//" in case.url else "http://127.0.0.1:8000/"
            self.urls = [f"{base}{self.name}/{playlist}.m3u8"] * len(self.urls)
        else:
            for host in hosts(number):
                serve(case, host, 8000)
        self.judge = self.frames if options else self.media

    def media(self, got: bytes) -> str:
        whole, seen = packets(self.case.whole), packets(got)
        return verdict(1 if seen == whole else 0.5 * any(packet in seen for packet in whole))

    def frames(self, got: bytes) -> str:
        count = subprocess.run(COUNT, input=got, stdout=subprocess.PIPE).stdout.split()
        return verdict(int(count[0]) / (SECONDS * RATE) if count else 0)

    def alone(self) -> str:
        return self.judge(client.get(client.stream_path(self.urls[0])))

    def adapted(self) -> str:
        return self.judge(client.get(client.stream_path(ADAPTER + self.urls[1].replace("://", "/"))))

    def remuxed(self) -> str:
        try:
            Channel(self.lab, self.name, self.urls[2], {})
        except subprocess.CalledProcessError:
            return "no"
        return self.judge(client.get(client.stream_path(f"{ADAPTER}http/remux/{self.name}/master.m3u8")))

    def found(self) -> set[str]:
        command = [sys.executable, str(TOP / "kit/check/weir-check"), "--json", self.urls[3]]
        said = subprocess.run(command, stdout=subprocess.PIPE).stdout
        return {finding["code"] for finding in json.loads(said)["findings"]}

    def check(self, cells: list[str], alone: Future[str]) -> str:
        """A complaint, empty if all is well."""
        adapted, found = self.adapted(), self.found()
        seen = [alone.result(), adapted, self.remuxed() if adapted == "no" else "–"]
        named = set(cells[3].replace(",", "").split())
        right = seen == cells[:3] and (found >= named if found else named == {"–"})
        return "" if right else f"| {self.case.name} | {' | '.join(seen)} | {', '.join(sorted(found))} |"


def hosts(number: int) -> list[str]:
    return [f"127.2.{number}.{way}" for way in range(1, 5)]


def check(lab: Lab, pool: Executor) -> list[Future[str]]:
    ffmpeg(lab, *FILM, lab.work / "film.mp4")
    known = cases()
    made = [(Row(lab, number, *known[name]), cells) for number, (name, cells) in enumerate(rows().items())]
    waiting = ThreadPoolExecutor(len(made))  # weir alone mostly does
    return [pool.submit(row.check, cells, waiting.submit(row.alone)) for row, cells in made]
