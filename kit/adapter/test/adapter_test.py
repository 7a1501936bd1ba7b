#!/usr/bin/env python3
"""What weir makes of standard HLS behind the adapter: real ffmpeg, nginx and weir.

adapter_test.py WEIR: the streams of cases.txt, those of weir-check's with a word on the adapter,
and some of ffmpeg's, each from weirs that ask the adapter and weirs that have it in their maps. In
a network of its own.
"""

import re
import shlex
import shutil
import subprocess
import sys
import urllib.error
import urllib.request
from concurrent.futures import ThreadPoolExecutor
from email.message import Message
from pathlib import Path

KIT = Path(__file__).resolve().parents[2]
sys.path.append(str(KIT / "check/test"))

from case import Case, cases, media, serve, written_out  # noqa: E402
from weirlab import client  # noqa: E402
from weirlab.lab import TOP, Lab, wait_until  # noqa: E402
from weirlab.network import own_network  # noqa: E402
from weirlab.origin import Origin  # noqa: E402
from weirlab.video import ffmpeg  # noqa: E402

PLAIN, CHUNKED, TLS = "http/127.0.0.1:8000", "http/127.0.0.1:8001", "https/origin.test"
HERE, RINGS = "http://127.0.0.1:7750", "http://~/name"  # as weir's user names the adapter
LIVE = f"{HERE}/{PLAIN}/live/list.m3u8"
STREAMS = (
    f"{HERE}/{PLAIN}/vod/list.m3u8", f"{HERE}/{PLAIN}/encrypted/list.m3u8",
    f"{HERE}/{PLAIN}/master/master.m3u8", f"{HERE}/{CHUNKED}/vod/list.m3u8",
    f"{RINGS}/{CHUNKED}/encrypted/list.m3u8", f"{HERE}/{TLS}/vod/list.m3u8",
    f"{RINGS}/{TLS}/moved/list.m3u8")
ORIGIN = """server { listen 127.0.0.1:8443 ssl; root %(www)s; ssl_certificate %(www)s/leaf.pem;
    ssl_certificate_key %(www)s/leaf.key; absolute_redirect off;
    rewrite ^/moved/(.*) /encrypted/$1 redirect; limit_rate 150k; }"""
SETTINGS = """js_var $weir_origins "127.0.0.1:8000 127.0.0.1:8001 origin.test *.other.test
    %(cases)s";
upstream origin.test { server 127.0.0.1:8443; keepalive 2; }
upstream an.other.test { server 127.0.0.1:8443; }
proxy_ssl_trusted_certificate %(www)s/ca.pem;
proxy_cache_path %(work)s/cache keys_zone=weir:1m max_size=64m use_temp_path=off;"""
NOT_FETCHED = (
    ("http/127.0.0.1:7753/x", 403, "not a listed origin"), ("https/other.test/x", 403, "not a listed"),
    ("https/an.other.test/vod/list.m3u8", 502, "502 from"),  # its certificate is for another
    ("http-segment/127.0.0.1:8001/huge", 502, "too large"),
    (f"{PLAIN}/none.m3u8", 404, "404 from"), ("ftp/127.0.0.1:8000/x", 404, "not /http/"))

Answer = tuple[int, Message, bytes]  # status, fields, body


def ask(path: str, first: int = 0, port: int = 7750, tries: int = 3) -> Answer:
    """Once more after 504: its server may only have stood still."""
    fields = {"Range": f"bytes={first}-"} if first else {}
    request = urllib.request.Request(f"http://127.0.0.1:{port}/{path}", headers=fields)
    try:
        answer = urllib.request.urlopen(request, timeout=20)
    except urllib.error.HTTPError as error:
        answer = error
    with answer:
        if answer.status == 504 and tries > 1:
            return ask(path, first, port, tries - 1)
        return answer.status, answer.headers, answer.read()


def text_of(path: str, port: int = 7750) -> str:
    return ask(path, port=port)[2].decode()


def check(good: object, *what: object) -> None:
    if not good:
        raise SystemExit("\n".join(map(str, what)))


def make_certificates(www: Path) -> None:
    of_ca = ["-CA", "ca.pem", "-CAkey", "ca.key", "-addext", "subjectAltName=DNS:origin.test"]
    for name in "ca", "leaf":
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-nodes", "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.pem"]
                       + (of_ca if name == "leaf" else []), cwd=www, check=True, capture_output=True)
    (www / "leaf.key").chmod(0o644)


def start_servers(lab: Lab, weir: Path, streams: dict[str, Case]) -> Path:
    """Each of the streams has an origin at an address of its own. Returns the adapter's log."""
    make_certificates(lab.www)
    lab.nginx("origin", 8000, f"root {lab.www}; if ($args ~ weir) {{ return 400; }}",
              http=ORIGIN % {"www": lab.www})
    (lab.www / "huge").write_bytes(bytes(33 << 20))
    Origin(8001, lambda path: (lab.www / path[1:]).read_bytes(), lambda _: {"chunked"}, "127.0.0.1")
    for host, case in streams.items():
        serve(case, host, 8000)
    folder = lab.work / "adapter"
    shutil.copytree(TOP / "kit/adapter", folder / "weir")
    (folder / "weir/settings.conf").write_text(SETTINGS % {
        "www": lab.www, "work": folder / "t", "cases": "\n".join(f"{host}:8000" for host in streams)})
    lab.nginx("adapter", 7753, "return 404;", http="error_log error.log; include weir/adapter.conf;",
              top="load_module /usr/lib/nginx/modules/ngx_http_js_module.so;")
    lab.weir(weir, 8 << 20)
    client.get(client.maps_path("127.0.0.1:7751"))
    return folder / "error.log"


def segments_of(lab: Lab, name: str) -> list[bytes]:
    return [path.read_bytes() for path in
            sorted((lab.www / name).glob("*.ts"), key=lambda path: int(path.stem.removeprefix("list")))]


def make_streams(lab: Lab) -> None:
    """By ffmpeg, in its own way; the live one begins."""
    video = lab.work / "video.ts"
    ffmpeg(lab, "-f", "lavfi", "-i", "testsrc2=size=160x90:rate=25:duration=10", "-g", 25,
           "-c:v", "libx264", "-preset", "ultrafast", video)
    made = []
    for name, options in {
            "live": "-hls_time 1 -hls_list_size 8 -hls_flags delete_segments list.m3u8",
            "vod": "list.m3u8",
            "short": "-hls_time 1 -hls_list_size 0 list.m3u8",
            "encrypted": "-hls_enc 1 -hls_enc_key 0123456789abcdef list.m3u8",
            "master": "-map 0:v -map 0:v -b:v:0 800k -b:v:1 200k -var_stream_map v:0\\ v:1"
                      " -master_pl_name master.m3u8 %v.m3u8"}.items():
        (lab.www / name).mkdir()
        made.append(lab.start(
            ["ffmpeg", "-nostdin", "-v", "error", *(["-re"] if name == "live" else []), "-i", video,
             "-c", "copy", "-f", "hls", *shlex.split(options)], cwd=lab.www / name))
    check(all(process.wait() == 0 for process in made[1:]), "ffmpeg could not make the streams")
    wait_until("the live stream", (lab.www / "live/list.m3u8").exists)


def check_case(host: str, case: Case, log: Path) -> str:
    """What is wrong with it."""
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


def check_stream(master: str, whole: bytes) -> str:
    """Again, should the machine have stood still: weir gives up in the end."""
    for _ in range(1 if master == LIVE else 3):
        got = client.get(client.stream_path(master))
        if got == whole:
            return ""
    return f"{master}: {len(got)} bytes of {len(whole)}"


def check_answers(www: Path, keyed: str, chunked: bytes) -> None:
    for path, expected, reason in NOT_FETCHED:
        status, fields, _ = ask(path)
        check(status == expected and reason in fields["X-Weir-Adapter"], path, status, fields)
    for duration, status in (60, 200), (2, 404):  # kept for half of it, and not at all
        playlist = www / f"{duration}.m3u8"
        playlist.write_text(f"#EXTM3U\n#EXT-X-TARGETDURATION:{duration}\n#EXTINF:2,\n1.ts\n")
        text_of(f"{PLAIN}/{playlist.name}?weir=0")
        playlist.unlink()
        check(ask(f"{PLAIN}/{playlist.name}?weir=0")[0] == status, duration, "kept too long or too short")
    for path, host in ("master/master.m3u8", "~"), ("vod/list.m3u8?weir=0", "@"):
        text = text_of(f"{PLAIN}/{path}", 7751)
        check(set(re.findall("http://([^/]*)", text)) == {host}, text)
    for path, segment in (f"{keyed}/low", media(4)), (f"{CHUNKED}/vod/list.m3u8", chunked):
        urls = re.findall(r"http://127.0.0.1:7750/(http-segment\S+)", text_of(f"{path}?weir=0"))
        for turn in "new", "kept":
            status, fields, body = ask(urls[3], 100)
            size = len(segment)
            check((status, fields["Content-Range"], fields["Content-Length"], body)
                  == (206, f"bytes 100-{size - 1}/{size}", str(size - 100), segment[100:]),
                  path, turn, status, fields)
    said = subprocess.run([sys.executable, TOP / "kit/check/weir-check", STREAMS[1]],
                          capture_output=True, text=True, check=False)
    check(said.returncode == 0, said)


def run(lab: Lab, weir: Path) -> None:
    told = [case for case in cases() + cases(KIT / "adapter/test/cases.txt") if case.adapter or case.adapted]
    streams = {f"127.1.0.{number}": case for number, case in enumerate(told, 1)}
    log = start_servers(lab, weir, streams)
    make_streams(lab)
    segments = segments_of(lab, "vod")
    with ThreadPoolExecutor(100) as pool:
        tasks = [pool.submit(check_case, host, case, log) for host, case in streams.items()]
        tasks += [pool.submit(check_stream, LIVE, b"".join(segments_of(lab, "short")))]
        tasks += [pool.submit(check_stream, url, b"".join(segments)) for url in STREAMS]
        keyed = next(host for host, case in streams.items() if case.name == "vectors by number")
        check_answers(lab.www, f"http/{keyed}:8000", segments[3])
        faults = [text for task in tasks if (text := task.result())]
    check(not faults, *faults, log.read_text())
    check(not (lab.www / "live/list0.ts").exists(), "the live stream kept its segments")
    print(f"{len(tasks)} streams as expected")


if __name__ == "__main__":
    own_network()
    with Lab() as laboratory:
        run(laboratory, Path(sys.argv[1]))
