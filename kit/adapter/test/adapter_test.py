#!/usr/bin/env python3
"""Plays standard HLS with weir alone, through the adapter and, if that refuses it, through kit/remux.

adapter_test.py WEIR [NAME...]: sources in the table of docs/sources.md, which has the results and findings
that must be among weir-check's, those of cases.txt, and cases of weir-check that mention the adapter.
"""

import json
import re
import shlex
import subprocess
import sys
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from http.client import HTTPConnection
from pathlib import Path
from threading import BoundedSemaphore

KIT = Path(__file__).resolve().parents[2]
sys.path += [str(KIT / "check/test"), str(KIT / "remux/test")]

from case import Case, cases, serve, written_out  # noqa: E402
from channel import Channel, make_folder  # noqa: E402
from weirlab import client  # noqa: E402
from weirlab.lab import TOP, Lab, is_idle, wait_until  # noqa: E402
from weirlab.network import own_network  # noqa: E402
from weirlab.video import KEY, RATE, SECONDS, encrypt, frames, make_film  # noqa: E402

# The case has an address for each use, since servers count and remember.
ALONE, BY_ADDRESS, BY_MAPS, REMUXED, CHECKED, TOLD, ASKED = range(1, 8)
ADAPTERS = {BY_ADDRESS: "http://127.0.0.1:7750", BY_MAPS: "http://~/name"}
BUSY = BoundedSemaphore(16)  # uses; weir alone mostly waits
CHECK = sys.executable, TOP / "kit/check/weir-check"
HLS = "ffmpeg -nostdin -v error -i ../../film.mp4 -c copy -f hls -hls_playlist_type vod".split()
SEGMENT, PLAIN = "http-segment/127.0.0.1:8000", "http/127.0.0.1:8000"
ENCRYPTED, CHUNKED = "AES-128, no vector, 64-bit numbers, gzip", "large segments"
HELD = 2  # MiB of a segment that the adapter can hold whole; 32 unless tested
ORIGIN = """server { listen 127.0.0.1:8443 ssl; ssl_certificate %(pem)s; ssl_certificate_key %(pem)s;
    root %(www)s; limit_rate 150k; absolute_redirect off; rewrite ^/moved/(.*) /$1 redirect; }"""
MISBEHAVES = """root %s; if ($args ~ weir) { return 400; } rewrite ^/moved/(.*) /$1 redirect;
    add_header X-Accel-Redirect @pass; add_header X-Accel-Limit-Rate 1;
    location /max-age/ { add_header Cache-Control max-age=60; }
    location /expires/ { add_header Expires "Thu, 31 Dec 2037 23:55:55 GMT"; }
    location /no-store/ { add_header Cache-Control "max-age=60, no-store"; }"""
SETTINGS = """js_var $weir_origins "*.1:8000 127.0.0.1:9 none.invalid origin.test *.other.test remux";
upstream origin.test { server 127.0.0.1:8443; keepalive 2; }
upstream an.other.test { server 127.0.0.1:8443; }"""
NOT_FETCHED = (
    ("http/127.0.0.1:7753/x", 403, "not a listed origin"), ("https/other.test/x", 403, "not a listed"),
    ("https/an.other.test/vod/list.m3u8", 502, "no trusted certificate"),  # names another host
    (f"{SEGMENT}/x?weir=1,{'0' * 32},http%3A//127.0.0.1:8000/%0D%0AX", 404, "0/%0D%0AX"),
    ("http/127.0.0.1:9/x", 502, "refuses"), ("http/none.invalid/x", 502, "resolved"),
    (f"{PLAIN}/none.m3u8", 404, "404 from"), ("ftp/127.0.0.1:8000/x", 404, "not /http/"))


def rows() -> dict[str, list[str]]:
    """Cells by name of the source."""
    table = (TOP / "docs/sources.md").read_text("utf-8").partition("\n| source |")[2].partition("\n\n")[0]
    lines = [re.split(r" *[|] *", line.replace("`", "")) for line in table.splitlines()[2:]]
    return {name: cells for _, name, *cells, _ in lines}


def ask(path: str, port: int = 7750, **fields: str) -> tuple[int, dict[str, str], bytes]:
    """Status, header fields and body."""
    connection = HTTPConnection("127.0.0.1", port)  # nginx has time-outs of its own
    connection.request("GET", f"/{path}", headers=fields)
    answer = connection.getresponse()
    return answer.status, dict(answer.headers), answer.read()


@dataclass
class Source:
    lab: Lab
    number: int
    case: Case
    cells: list[str]  # none if the table does not have it

    def __post_init__(self) -> None:
        if self.case.ffmpeg:
            folder = self.lab.www / str(self.number)
            folder.mkdir()
            subprocess.run([*HLS, *shlex.split(self.case.ffmpeg)], cwd=folder, check=True)

    def url(self, use: int) -> str:
        """Where it is served from now on."""
        if not self.case.ffmpeg:
            host = f"127.{self.number}.{use}.1"
            serve(self.case, host, 8000)
            return f"http://{host}:8000{self.case.url}"
        base = self.case.url if "//" in self.case.url else "http://127.0.0.1:8000/"
        return f"{base}{self.number}/{'master' if 'master' in self.case.ffmpeg else 'list'}.m3u8"

    def path(self, use: int) -> str:
        """For the adapter."""
        return self.url(use).replace("://", "/")

    def verdict(self, url: str) -> str:
        got = client.get(client.stream_path(url))
        if self.case.ffmpeg:
            count = frames(got)
            return "plays" if count == SECONDS * RATE else "with loss" if count else "no"
        return ("plays", "with loss", "no")[self.case.loss(got)]

    def adapted(self, use: int) -> str:
        with BUSY:
            return self.verdict(f"{ADAPTERS[use]}/{self.path(use)}")

    def remuxed(self) -> str:
        with BUSY:
            try:
                Channel(self.lab, f"row{self.number}", self.url(REMUXED), {})
            except subprocess.CalledProcessError:
                return "no"
            return self.verdict(f"{ADAPTERS[BY_ADDRESS]}/http/remux/row{self.number}/master.m3u8")

    def found(self) -> str:
        """Findings that the table lacks, if it is wrong."""
        codes = set(self.case.finds.split())
        if codes == {"?"}:
            with BUSY:
                said = subprocess.run([*CHECK, "--json", self.url(CHECKED)], stdout=subprocess.PIPE).stdout
            codes = {finding["code"] for finding in json.loads(said)["findings"]}
        right = set(self.cells[3].split(", ")) <= (codes or {"–"})
        return "" if right else ", ".join(sorted(codes))

    def told(self) -> str:
        """What the adapter writes, if that is not what the case says."""
        expected, _, reason = self.case.adapter.partition(" ")
        asked = self.path(TOLD)
        host = asked.split("/")[1]
        with BUSY:
            for path, text in self.case.adapted.items():
                if (got := ask(f"http/{host}{path}")[2]) != written_out(text, host):
                    return f"{path} is\n{got.decode()}"
            if not expected.isdigit():
                return ""
            status, fields, _ = ask(asked)
        log = (self.lab.work / "adapter/error.log").read_text()
        right = str(status) == expected and reason in fields["X-Weir-Adapter"] and reason in log
        return "" if right else f"{status} {fields}"

    def checks(self) -> Iterator[tuple[str, Callable[[], str]]]:
        """With the expected results."""
        alone, adapted, remux, _ = self.cells or ["", self.case.adapter, "–", ""]
        yield "", self.told
        if self.cells:
            yield remux, self.remuxed if adapted == "no" else lambda: "–"
            yield alone, lambda: self.verdict(self.url(ALONE))
            yield "", self.found
        if self.cells or adapted == "plays":
            yield adapted, lambda: self.adapted(BY_ADDRESS)
        if adapted == "plays":
            yield adapted, lambda: self.adapted(BY_MAPS)


def check_kept(www: Path) -> None:
    """For how long, by the adapter's cache."""
    for duration, status in (60, 200), (2, 404):  # for 29 s, and not at all
        playlist = www / f"{duration}.m3u8"
        playlist.write_text(f"#EXTM3U\n#EXT-X-TARGETDURATION:{duration}\n#EXTINF:2,\n1.ts\n")
        ask(f"{PLAIN}/{playlist.name}?weir=0")
        playlist.unlink()
        assert ask(f"{PLAIN}/{playlist.name}?weir=0")[0] == status, f"cached wrongly: {duration} s"
    changes = {"max-age": False, "expires": False, "no-store": True, "again": True}
    for turn, body in enumerate((b"old", b"a new one")):
        for folder in changes:
            (www / folder).mkdir(exist_ok=True)
            (www / folder / "1.ts").write_bytes(body)
        expected = [body if change or not turn else b"old" for change in changes.values()]
        wait_until(f"segments that are {body!r}", lambda: expected == [
            ask(f"{SEGMENT}/{folder}/1.ts")[2] for folder in changes])


def check_answers(lab: Lab, sources: dict[str, Source]) -> None:
    encrypted, chunked = (sources[name].path(ASKED).removesuffix("/master") for name in (ENCRYPTED, CHUNKED))
    huge = f"{chunked.replace('/', '-segment/')}/huge", 502, "too large"
    for path, expected, reason in *NOT_FETCHED, huge:
        status, fields, _ = ask(path)
        assert status == expected and reason in fields["X-Weir-Adapter"], (path, status, fields)
    check_kept(lab.www)
    (lab.www / "key").write_bytes(KEY)
    (lab.www / "audio").write_bytes(encrypt(b"ID3" * 99, 5))
    sealed = ask(f"{SEGMENT}/audio?weir=1,{5:032x},http%3A//127.0.0.1:8000/key")[2]
    assert sealed == encrypt(b"ID3" * 99), "no MPEG-TS, but not encrypted for weir"
    for path, host in ("master", b"~"), ("low?weir=0", b"@"):
        text = ask(f"{encrypted}/{path}", 7751)[2]
        assert set(re.findall(b"http://([^/]*)", text)) == {host}, text
    for at in encrypted, chunked:
        urls = re.findall(r"7750/(http-segment\S+)", ask(f"{at}/low?weir=0")[2].decode())
        ranges = [ask(urls[-1], Range="bytes=100-") for _ in ("fetched", "cached")]
        whole = ask(urls[-1])[2]
        for status, fields, body in ranges:
            assert (status, fields["Content-Range"], int(fields["Content-Length"]), body) == (
                206, f"bytes 100-{len(whole) - 1}/{len(whole)}", len(whole) - 100, whole[100:]), (at, fields)
    subprocess.run([*CHECK, f"{ADAPTERS[BY_ADDRESS]}/{encrypted}/master"], check=True)


def run(lab: Lab, binary: Path, names: list[str]) -> None:
    table, known, own = rows(), cases(), cases(Path(__file__).with_name("cases.txt"))
    chosen = {name: case for name, case in known.items() if name in table or case.adapter} | own
    assert table and table.keys() <= chosen.keys(), "a row without a case"
    make_folder()
    make_film(lab)
    pem = lab.adapter(SETTINGS, HELD)
    lab.nginx("origin", 8000, MISBEHAVES % lab.www, http=ORIGIN % {"www": lab.www, "pem": pem})
    weir, tasks, sources = lab.weir(binary, 8 << 20), [], dict[str, Source]()
    client.get(client.maps_path("127.0.0.1:7751"))
    with ThreadPoolExecutor(1000) as pool:
        for number, name in enumerate(names or chosen, 1):
            source = sources[name] = Source(lab, number, chosen[name], table.get(name, []))
            tasks += [(name, expected, pool.submit(check)) for expected, check in source.checks()]
        if not names:
            check_answers(lab, sources)
        faults = [f"{name}: {seen}, not {expected}" for name, expected, task in tasks
                  if (seen := task.result()) != expected]
    assert not faults, "\n".join([*faults, (lab.work / "adapter/error.log").read_text()])
    wait_until("weir to be idle", lambda: is_idle(weir))
    print(f"{len(tasks)} results as expected")


if __name__ == "__main__":
    own_network(mounts=True)
    with Lab() as laboratory:
        run(laboratory, Path(sys.argv[1]), sys.argv[2:])
