#!/usr/bin/env python3
"""What weir makes of standard HLS behind the adapter: real ffmpeg, nginx and weir.

adapter_test.py WEIR. In a network of its own.
"""

import re
import shlex
import shutil
import subprocess
import sys
import threading
import urllib.error
import urllib.request
from email.message import Message
from pathlib import Path

from weirlab import client
from weirlab.lab import TOP, Lab, wait_until
from weirlab.network import own_network
from weirlab.video import KEY, ffmpeg

PLAIN, CHUNKED, TLS = "http/127.0.0.1:8000", "http/127.0.0.1:8001", "https/origin.test"
HERE, RINGS = "http://127.0.0.1:7750", "http://~"  # as weir's user names the adapter
STREAMS = {
    "live": f"{HERE}/{PLAIN}/live/list.m3u8",
    "on demand": f"{HERE}/{PLAIN}/vod/list.m3u8",
    "encrypted by ffmpeg": f"{HERE}/{PLAIN}/encrypted/list.m3u8",
    "a master playlist by ffmpeg": f"{HERE}/{PLAIN}/master/master.m3u8",
    "every kind of key": f"{HERE}/{PLAIN}/keyed/list.m3u8",
    "vectors by number": f"{HERE}/{PLAIN}/numbered/list.m3u8",
    "clear among encrypted": f"{RINGS}/{PLAIN}/paused/list.m3u8",
    "encrypted after clear": f"{RINGS}/{PLAIN}/zero/list.m3u8",
    "every kind of key, behind the maps": f"{RINGS}/name/{PLAIN}/keyed/list.m3u8",
    "chunked": f"{HERE}/{CHUNKED}/vod/list.m3u8",
    "chunked and encrypted": f"{RINGS}/{CHUNKED}/keyed/list.m3u8",
    "https": f"{HERE}/{TLS}/vod/list.m3u8",
    "https, moved, encrypted and slow": f"{RINGS}/{TLS}/moved/list.m3u8",
}
ORIGIN = """server { listen 127.0.0.1:8001; root %(www)s; max_ranges 0;
    sub_filter_types *; sub_filter "\\0never\\0" ""; }
server { listen 127.0.0.1:8443 ssl; root %(www)s; ssl_certificate %(www)s/leaf.pem;
    ssl_certificate_key %(www)s/leaf.key; absolute_redirect off;
    rewrite ^/moved/(.*) /keyed/$1 redirect; limit_rate 150k; }"""
SETTINGS = """js_var $weir_origins "127.0.0.1:8000 127.0.0.1:8001
    origin.test *.other.test";
upstream origin.test { server 127.0.0.1:8443; keepalive 2; }
upstream an.other.test { server 127.0.0.1:8443; }
proxy_ssl_trusted_certificate %(www)s/ca.pem;
proxy_cache_path %(work)s/cache keys_zone=weir:1m max_size=64m use_temp_path=off;"""
MEDIA = "#EXTM3U\n#EXT-X-TARGETDURATION:9\n%s\n#EXTINF:2,\n/vod/list0.ts\n#EXT-X-ENDLIST\n"
# A playlist, as what the adapter refuses it and why; weir gets nothing.
REFUSED = {
    "map": (MEDIA % '#EXT-X-MAP:URI="init.mp4"', "fragmented MP4"),
    "range": (MEDIA % "#EXT-X-BYTERANGE:100@0", "byte ranges"),
    "sample": (MEDIA % '#EXT-X-KEY:METHOD=SAMPLE-AES,URI="k"', "SAMPLE-AES"),
    "drm": (MEDIA % '#EXT-X-KEY:METHOD=AES-128,URI="k",KEYFORMAT="com.x"', "keys of com.x"),
    "define": (MEDIA % '#EXT-X-DEFINE:NAME="a",VALUE="b"', "EXT-X-DEFINE"),
    "empty": ("#EXTM3U\n", "no segments"),
    "page": ("<html>", "no playlist"),
    "audio": ('#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="a",URI="a.m3u8"\n'
              '#EXT-X-STREAM-INF:BANDWIDTH=1,AUDIO="a"\nmap.m3u8\n', "separate audio"),
    "all": ("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nmap.m3u8\n", "fragmented MP4"),
}
URI, NONE = 'URI="../the%20key?a=%26,b"', ("#EXT-X-KEY:METHOD=NONE", None)
BY_NUMBER, ZERO = f"#EXT-X-KEY:METHOD=AES-128,{URI}", f"#EXT-X-KEY:IV=0x{'0' * 32},{URI},METHOD=AES-128"
# The tag before each segment, and the vector that it is encrypted with.
KEYED: dict[str, list[tuple[str, int | None]]] = {
    "keyed": [(f"{BY_NUMBER},IV=0XABCDEF", 0xABCDEF), ("", 0xABCDEF), NONE,
              (f'{BY_NUMBER},KEYFORMAT="identity"', 44), (ZERO, 0)],
    "numbered": [(BY_NUMBER, 41), *(("", number) for number in range(42, 46))],
    "paused": [(ZERO, 0), NONE, (ZERO, 0), ("", 0), ("", 0)],
    "zero": [("", None), (ZERO, 0), ("", 0), ("", 0), ("", 0)],
}
NOT_FETCHED = (
    ("http/127.0.0.1:7753/x", 403, "not a listed origin"), ("https/other.test/x", 403, "not a listed"),
    ("https/an.other.test/vod/list.m3u8", 502, "502 from"),  # its certificate is for another
    ("http-segment/127.0.0.1:8001/huge", 502, "too large"),
    (f"{PLAIN}/none.m3u8", 404, "404 from"), ("ftp/127.0.0.1:8000/x", 404, "not /http/"))
# Variants that number for themselves, by their dates and by their ends.
DATED = ("#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXT-X-MEDIA-SEQUENCE:%d\n"
         "#EXT-X-PROGRAM-DATE-TIME:2026-01-01T0%d:00:%02d.5%s\n#EXTINF:4,\n1.ts\n#EXTINF:4,\n2.ts\n")
MASTER = """\ufeff#EXTM3U\r
#EXT-X-VERSION:6\r
#EXT-X-INDEPENDENT-SEGMENTS\r
#EXT-X-SESSION-DATA:DATA-ID="a",VALUE="b"\r
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="in",NAME="muxed"\r
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="apart",URI="a.m3u8"\r
#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=5,URI="i.m3u8"\r
#EXT-X-STREAM-INF:AVERAGE-BANDWIDTH=1,BANDWIDTH=2000,CODECS="avc1.4d401e,mp4a.40.2",AUDIO="in"\r
./x/../first one.m3u8?a=b&c#d\r
\r
#EXT-X-STREAM-INF:BANDWIDTH=1000\r
/n/dated.m3u8\r
#EXT-X-STREAM-INF:BANDWIDTH=900\r
//127.0.0.1:8000/n/later.m3u8\r
#EXT-X-STREAM-INF:BANDWIDTH=800,AUDIO="apart"\r
first one.m3u8\r
#EXT-X-STREAM-INF:BANDWIDTH=700,CODECS="mp4a.40.2"\r
first one.m3u8\r
#EXT-X-STREAM-INF:BANDWIDTH=600\r
../map.m3u8\r
"""
AS_WEIR_WANTS = """#EXTM3U
#EXT-X-STREAM-INF:BANDWIDTH=2000
http://127.0.0.1:7750/http/127.0.0.1:8000/n/first%20one.m3u8?a=b&c&weir=0
#EXT-X-STREAM-INF:BANDWIDTH=1000
http://127.0.0.1:7750/http/127.0.0.1:8000/n/dated.m3u8?weir=-70
#EXT-X-STREAM-INF:BANDWIDTH=900
http://127.0.0.1:7750/http/127.0.0.1:8000/n/later.m3u8?weir=-92
"""
NUMBERED = {"first%20one.m3u8?a=b&weir=0": 7, "dated.m3u8?weir=-70": 8, "later.m3u8?weir=-92": 7}


Answer = tuple[int, Message, bytes]  # status, fields, body


def ask(path: str, first: int = 0, port: int = 7750) -> Answer:
    fields = {"Range": f"bytes={first}-"} if first else {}
    request = urllib.request.Request(f"http://127.0.0.1:{port}/{path}", headers=fields)
    try:
        answer = urllib.request.urlopen(request, timeout=20)
    except urllib.error.HTTPError as error:
        answer = error
    with answer:
        return answer.status, answer.headers, answer.read()


def text_of(path: str) -> str:
    return ask(path)[2].decode()


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


def encrypted(data: bytes, vector: int) -> bytes:
    return subprocess.run(["openssl", "enc", "-aes-128-cbc", "-K", KEY.hex(), "-iv", f"{vector:032x}"],
                          input=data, capture_output=True, check=True).stdout


def start_servers(lab: Lab, weir: Path) -> Path:
    """Returns the adapter's log."""
    make_certificates(lab.www)
    lab.nginx("origin", 8000, f"root {lab.www}; if ($args ~ weir) {{ return 400; }}",
              http=ORIGIN % {"www": lab.www})
    folder = lab.work / "adapter"
    shutil.copytree(TOP / "examples/adapter", folder / "weir")
    (folder / "weir/settings.conf").write_text(SETTINGS % {"www": lab.www, "work": folder / "t"})
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
            "live": "-hls_time 1 -hls_flags delete_segments list.m3u8",
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


def write_keyed(www: Path, segments: list[bytes]) -> None:
    """Playlists that count from 41, their segments encrypted as KEYED has it."""
    (www / "the key").write_bytes(KEY)
    for name, tags in KEYED.items():
        (www / name / "a b").mkdir(parents=True)
        lines = "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:41\n"
        for at, ((tag, vector), clear) in enumerate(zip(tags, segments)):
            data = clear if vector is None else encrypted(clear, vector)
            (www / name / f"a b/{at}.ts").write_bytes(data)
            lines += f"{tag}\n\n#EXTINF:2,\n a b/{at}.ts?x={at} \n".replace("\n", "\r\n")
        (www / name / "list.m3u8").write_text(lines + "#EXT-X-ENDLIST", newline="")


def write_playlists(www: Path) -> None:
    for name, (text, _) in REFUSED.items():
        (www / f"{name}.m3u8").write_text(text)
    (www / "n").mkdir()
    for name, text in {"master": MASTER, "first one": DATED % (6, 1, 0, "Z"),
                       "dated": DATED % (77, 2, 4, "+0100"), "later": DATED % (98, 9, 0, "")}.items():
        (www / f"n/{name}.m3u8").write_text(text, encoding="utf-8", newline="")
    (www / "n/quick.m3u8").write_text("#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2,\n1.ts\n")
    with (www / "huge").open("wb") as file:
        file.truncate(33 << 20)


def check_answers(log: Path, segment: bytes) -> None:
    for name, (_, reason) in REFUSED.items():
        status, fields, _ = ask(f"{PLAIN}/{name}.m3u8")
        check(status == 502 and reason in fields["X-Weir-Adapter"], name, status, fields)
        check(reason in log.read_text(), f"the log has no {reason}")
    for path, expected, reason in NOT_FETCHED:
        status, fields, _ = ask(path)
        check(status == expected and reason in fields["X-Weir-Adapter"], path, status, fields)
    check(text_of(f"{PLAIN}/n/master.m3u8") == AS_WEIR_WANTS, text_of(f"{PLAIN}/n/master.m3u8"))
    for path, number in NUMBERED.items():
        check(f"SEQUENCE:{number}\n" in text_of(f"{PLAIN}/n/{path}"), path)
    for name, status in ("dated", 200), ("quick", 404):  # kept for 4 s, and not at all
        text_of(f"{PLAIN}/n/{name}.m3u8?weir=0")
        (log.parents[1] / f"www/n/{name}.m3u8").unlink()
        check(ask(f"{PLAIN}/n/{name}.m3u8?weir=0")[0] == status, name, "kept for too long or too short")
    for path, hosts in ("master/master.m3u8", {"~"}), ("zero/list.m3u8?weir=0", {"@"}):
        text = ask(f"{PLAIN}/{path}", port=7751)[2].decode()
        check(set(re.findall("http://([^/]*)", text)) == hosts, text)
    keys = [re.findall('URI="(.*)"', text_of(f"{PLAIN}/zero/list.m3u8?weir={at}")) for at in range(2)]
    check(keys[0] != keys[1], "weir would not fetch a key again behind clear segments", keys)
    for playlist in f"{PLAIN}/keyed/list.m3u8", f"{CHUNKED}/vod/list.m3u8":
        urls = re.findall(r"http://127.0.0.1:7750/(\S+)", text_of(f"{playlist}?weir=0"))
        for turn in "new", "kept":
            status, fields, body = ask(urls[3], 1000)
            size = len(segment)
            check((status, fields["Content-Range"], fields["Content-Length"], body)
                  == (206, f"bytes 1000-{size - 1}/{size}", str(size - 1000), segment[1000:]),
                  playlist, turn, status, fields)


def check_stream(name: str, master: str, expected: list[bytes], faults: list[str]) -> None:
    got, whole = client.get(client.stream_path(master)), b"".join(expected)
    if got != whole:
        faults.append(f"{name}: {len(got)} bytes of {len(whole)}")


def run(lab: Lab, weir: Path) -> None:
    log = start_servers(lab, weir)
    make_streams(lab)
    segments = segments_of(lab, "vod")
    write_keyed(lab.www, segments)
    write_playlists(lab.www)
    faults: list[str] = []
    threads = [threading.Thread(target=check_stream, args=(
        name, url, segments_of(lab, "short") if name == "live" else segments, faults))
        for name, url in STREAMS.items()]
    for thread in threads:
        thread.start()
    check_answers(log, segments[3])
    said = subprocess.run([sys.executable, TOP / "tools/weir-check", STREAMS["every kind of key"]],
                          capture_output=True, text=True, check=False)
    check(said.returncode == 0, said)
    for thread in threads:
        thread.join()
    check(not faults, faults, log.read_text())
    check(not (lab.www / "live/list0.ts").exists(), "the live stream kept its segments")


if __name__ == "__main__":
    own_network()
    with Lab() as laboratory:
        run(laboratory, Path(sys.argv[1]))
