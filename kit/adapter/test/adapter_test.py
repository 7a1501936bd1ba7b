#!/usr/bin/env python3
"""Plays standard HLS with weir through the adapter, using real ffmpeg and nginx.

adapter_test.py WEIR: streams of cases.txt, of weir-check's cases that mention the adapter, of ffmpeg, and
of the table in docs/sources.md; weir requests them from the adapter by address or through its maps.
"""

import re
import shlex
import shutil
import subprocess
import sys
import threading
import time
import urllib.error
import urllib.request
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from email.message import Message
from pathlib import Path

KIT = Path(__file__).resolve().parents[2]
sys.path += [str(KIT / "check/test"), str(KIT / "remux/test")]

import table  # noqa: E402
from case import Case, cases, make_certificate, serve, written_out  # noqa: E402
from channel import make_folder  # noqa: E402
from weirlab import client  # noqa: E402
from weirlab.lab import TOP, Lab, Process, is_idle, wait_until  # noqa: E402
from weirlab.network import own_network  # noqa: E402
from weirlab.origin import Origin  # noqa: E402
from weirlab.video import KEY, encrypt, ffmpeg  # noqa: E402

PLAIN, CHUNKED, TLS = "http/127.0.0.1:8000", "http/127.0.0.1:8001", "https/origin.test"
LATE, AWAY = "http/127.0.0.1:8002", 6  # s: weir itself waits 12 s for an origin that refuses connections
HERE, RINGS = "http://127.0.0.1:7750", "http://~/name"  # the adapter in URLs given to weir
AT_ONCE = 8  # streams
KEYED = "AES-128, no vector, 64-bit numbers, gzip"
HELD = 2  # MiB of a segment that the adapter can hold whole; 32 unless tested
STREAMS = (
    f"{HERE}/{LATE}/vod/list.m3u8", f"{RINGS}/{LATE}/vod/list.m3u8",
    f"{HERE}/{PLAIN}/encrypted/list.m3u8", f"{RINGS}/{CHUNKED}/encrypted/list.m3u8",
    f"{RINGS}/{TLS}/moved/list.m3u8")
ORIGIN = """server { listen 127.0.0.1:8443 ssl; root %(www)s; ssl_certificate %(www)s/pem;
    ssl_certificate_key %(www)s/pem; absolute_redirect off;
    rewrite ^/moved/(.*) /encrypted/$1 redirect; limit_rate 150k; }"""
KEPT = """location /max-age/ { add_header Cache-Control max-age=60; }
    location /expires/ { add_header Expires "Thu, 31 Dec 2037 23:55:55 GMT"; }
    location /no-store/ { add_header Cache-Control "max-age=60, no-store"; }"""
SETTINGS = """js_var $weir_origins "127.0.0.1:8000 127.0.0.1:8001 127.0.0.1:8002 127.0.0.1:9
    none.invalid origin.test *.other.test remux %(cases)s";
upstream origin.test { server 127.0.0.1:8443; keepalive 2; }
upstream an.other.test { server 127.0.0.1:8443; }
proxy_ssl_trusted_certificate %(www)s/pem;
proxy_cache_path %(work)s/cache keys_zone=weir:1m max_size=64m use_temp_path=off;"""
NOT_FETCHED = (
    ("http/127.0.0.1:7753/x", 403, "not a listed origin"), ("https/other.test/x", 403, "not a listed"),
    ("https/an.other.test/vod/list.m3u8", 502, "no trusted certificate"),  # names another host
    ("http-segment/127.0.0.1:8001/huge", 502, "too large"),
    (f"http-segment/{PLAIN[5:]}/x?weir=1,{'0' * 32},http%3A//{PLAIN[5:]}/%0D%0AX", 404, "0/%0D%0AX"),
    ("http/127.0.0.1:9/x", 502, "refuses"), ("http/none.invalid/x", 502, "resolved"),
    (f"{PLAIN}/none.m3u8", 404, "404 from"), ("ftp/127.0.0.1:8000/x", 404, "not /http/"))


def ask(path: str, first: int = 0, port: int = 7750) -> tuple[int, Message, bytes]:
    """Status, header fields and body."""
    fields = {"Range": f"bytes={first}-"} if first else {}
    request = urllib.request.Request(f"http://127.0.0.1:{port}/{path}", headers=fields)
    try:
        answer = urllib.request.urlopen(request)  # nginx has time-outs of its own
    except urllib.error.HTTPError as error:
        answer = error
    with answer:
        return answer.status, answer.headers, answer.read()


def text_of(path: str, port: int = 7750) -> str:
    return ask(path, port=port)[2].decode()


def chunked(www: Path) -> Callable[[str], bytes]:
    """Serves files, and short/ as a live stream whose window advances as its segments are fetched."""
    fetched = [0]

    def read(path: str) -> bytes:
        if path != "/short/live.m3u8":
            fetched.extend(int(number) for number in re.findall(r"/short/list(\d+)", path))
            return (www / path[1:]).read_bytes()
        first = max(fetched)
        rest = re.findall(r"#EXTINF.*\n.*\n", (www / "short/list.m3u8").read_text())[first:]
        return "".join(["#EXTM3U\n#EXT-X-TARGETDURATION:1\n", f"#EXT-X-MEDIA-SEQUENCE:{first}\n", *rest[:3],
                        "" if rest[3:] else "#EXT-X-ENDLIST\n"]).encode()

    return read


def start_servers(lab: Lab, weir: Path, streams: dict[str, Case]) -> tuple[Process, Path]:
    """Serves each stream at an address of its own. Returns weir and the adapter's log."""
    make_certificate(f"{lab.www}/pem", "DNS:origin.test")
    lab.nginx("origin", 8000, f"root {lab.www}; if ($args ~ weir) {{ return 400; }}"
              " add_header X-Accel-Redirect @pass; add_header X-Accel-Limit-Rate 1;"
              f" rewrite ^/moved/(.*) /$1 redirect; {KEPT}", http=ORIGIN % {"www": lab.www})
    (lab.www / "huge").write_bytes(bytes((HELD + 1) << 20))
    Origin(8001, chunked(lab.www), lambda _: {"chunked"}, "127.0.0.1")
    for host, case in streams.items():
        serve(case, host, 8000)
    folder = lab.work / "adapter"
    shutil.copytree(TOP / "kit/adapter", folder / "weir")
    shutil.copy(TOP / "kit/remux/remux.conf", folder / "weir")
    conf = folder / "weir/adapter.conf"
    conf.write_text(conf.read_text().replace("output_buffer_size 32m", f"output_buffer_size {HELD}m"))
    (folder / "weir/settings.conf").write_text(SETTINGS % {
        "www": lab.www, "work": folder / "t", "cases": "\n".join(f"{host}:8000" for host in [
            *streams, *(table.hosts(number)[1] for number in range(len(table.rows())))])})
    lab.nginx("adapter", 7760, "return 404;",
              http="error_log error.log; include weir/adapter.conf; include weir/remux.conf;",
              top="load_module /usr/lib/nginx/modules/ngx_http_js_module.so;")
    process = lab.weir(weir, 8 << 20)
    client.get(client.maps_path("127.0.0.1:7751"))
    return process, folder / "error.log"


def joined(folder: Path) -> bytes:
    """What weir makes of ffmpeg's segments."""
    return b"".join((folder / f"list{i}.ts").read_bytes() for i in range(len(list(folder.glob("*.ts")))))


def make_streams(lab: Lab) -> None:
    video = lab.work / "video.ts"
    ffmpeg(lab, "-f", "lavfi", "-i", "testsrc2=size=160x90:rate=25:duration=10", "-g", 25,
           "-c:v", "libx264", "-preset", "ultrafast", video)
    for name, options in {
            "vod": "list.m3u8",
            "short": "-hls_time 1 -hls_list_size 0 list.m3u8",
            "encrypted": "-hls_enc 1 -hls_enc_key 0123456789abcdef list.m3u8",
            "master": "-map 0:v -map 0:v -b:v:0 800k -b:v:1 200k -var_stream_map v:0\\ v:1"
                      " -master_pl_name master.m3u8 %v.m3u8"}.items():
        (lab.www / name).mkdir()
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", video, "-c", "copy", "-f", "hls",
                        *shlex.split(options)], cwd=lab.www / name, check=True)


def check_case(host: str, case: Case, log: Path) -> str:
    """A complaint, empty if all is well."""
    at = f"http/{host}:8000"
    for path, text in case.adapted.items():
        if (got := text_of(at + path).encode()) != written_out(text, f"{host}:8000"):
            return f"{case.name}: {path} is\n{got.decode()}"
    if case.adapter == "plays":
        return check_stream(f"{HERE}/{at}{case.url}", case.whole) or check_stream(
            f"{RINGS}/{at}{case.url}", case.whole)
    expected, _, reason = case.adapter.partition(" ")
    status, fields, _ = ask(at + case.url)
    right = str(status) == expected and reason in fields["X-Weir-Adapter"] and reason in log.read_text()
    return "" if right or not case.adapter else f"{case.name}: {status} {fields}"


def without_nulls(stream: bytes) -> bytes:
    """The adapter begins segments that are encrypted with a vector with null packets."""
    packets = (stream[at:at + 188] for at in range(0, len(stream), 188))
    return b"".join(packet for packet in packets if not packet.startswith(b"G\x1f\xff\x10"))


def check_stream(master: str, whole: bytes) -> str:
    got = without_nulls(client.get(client.stream_path(master)))
    return "" if got == whole else f"{master}: {len(got)} bytes of {len(whole)}"


def check_answers(www: Path, keyed: str) -> None:
    for path, expected, reason in NOT_FETCHED:
        status, fields, _ = ask(path)
        assert status == expected and reason in fields["X-Weir-Adapter"], (path, status, fields)
    for duration, status in (60, 200), (2, 404):  # cached for 29 s, and not at all
        playlist = www / f"{duration}.m3u8"
        playlist.write_text(f"#EXTM3U\n#EXT-X-TARGETDURATION:{duration}\n#EXTINF:2,\n1.ts\n")
        text_of(f"{PLAIN}/{playlist.name}?weir=0")
        playlist.unlink()
        assert ask(f"{PLAIN}/{playlist.name}?weir=0")[0] == status, f"cached wrongly: {duration} s"
    kept = {"max-age": b"old", "expires": b"old", "no-store": b"new"}
    for body in b"old", b"new":
        for folder in kept:
            (www / folder).mkdir(exist_ok=True)
            (www / folder / "1.ts").write_bytes(body)
        got = {folder: ask(f"http-segment/127.0.0.1:8000/{folder}/1.ts")[2] for folder in kept}
        time.sleep(2)  # no segment is kept for less than a second
    assert got == kept
    for body in b"old", b"a new one":
        (www / "again.ts").write_bytes(body)
        wait_until("a changed segment", lambda: ask("http-segment/127.0.0.1:8000/again.ts")[2] == body)
    (www / "key").write_bytes(KEY)
    (www / "audio").write_bytes(encrypt(b"ID3" * 99, 5))
    sealed = ask(f"http-segment/{PLAIN[5:]}/audio?weir=1,{5:032x},http%3A//{PLAIN[5:]}/key")[2]
    assert sealed == encrypt(b"ID3" * 99), "no MPEG-TS, but not encrypted for weir"
    for path, host in ("master/master.m3u8", "~"), ("vod/list.m3u8?weir=0", "@"):
        text = text_of(f"{PLAIN}/{path}", 7751)
        assert set(re.findall("http://([^/]*)", text)) == {host}, text
    for path in f"{keyed}/low", f"{CHUNKED}/vod/list.m3u8":
        urls = re.findall(r"http://127.0.0.1:7750/(http-segment\S+)", text_of(f"{path}?weir=0"))
        ranges = [ask(urls[3], 1000) for _ in ("fetched", "cached")]
        whole = ask(urls[3])[2]
        size = len(whole)
        for status, fields, body in ranges:
            assert (status, fields["Content-Range"], fields["Content-Length"], body) == (
                206, f"bytes 1000-{size - 1}/{size}", str(size - 1000), whole[1000:]), (path, fields)
    subprocess.run([sys.executable, KIT / "check/weir-check", STREAMS[2]], check=True)


def run(lab: Lab, binary: Path) -> None:
    own = [case for case, _ in table.cases().values()]
    told = [case for case in cases() + own if case.adapter or case.adapted]
    make_folder()
    streams = {f"127.1.0.{number}": case for number, case in enumerate(told, 1)}
    make_streams(lab)
    weir, log = start_servers(lab, binary, streams)
    with ThreadPoolExecutor(AT_ONCE) as pool:
        threading.Timer(AWAY, Origin, (8002, chunked(lab.www))).start()
        tasks = [pool.submit(check_stream, f"{HERE}/{CHUNKED}/short/live.m3u8", joined(lab.www / "short"))]
        tasks += [pool.submit(check_stream, url, joined(lab.www / "vod")) for url in STREAMS]
        tasks += [pool.submit(check_case, host, case, log) for host, case in streams.items()]
        keyed = next(host for host, case in streams.items() if case.name == KEYED)
        tasks += table.check(lab, pool)
        check_answers(lab.www, f"http/{keyed}:8000")
        faults = [text for task in tasks if (text := task.result())]
    assert not faults, "\n".join([*faults, log.read_text()])
    wait_until("weir to be idle", lambda: is_idle(weir))
    print(f"{len(tasks)} streams as expected")


if __name__ == "__main__":
    own_network(mounts=True)
    with Lab() as laboratory:
        run(laboratory, Path(sys.argv[1]))
