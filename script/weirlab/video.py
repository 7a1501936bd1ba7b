"""Creates video: MPEG-TS segments, clear or encrypted, and their playlists."""

import subprocess
from collections.abc import Sequence
from pathlib import Path

from weirlab.lab import Lab

KEY = bytes(range(1, 17))
SECONDS, RATE = 10, 25  # of the film
FILM = (f"-f lavfi -i testsrc2=size=160x90:rate={RATE}:duration={SECONDS} -f lavfi -i sine=duration={SECONDS}"
        f" -g {RATE} -c:v libx264 -preset ultrafast -c:a aac")
COUNT = ("ffprobe -v quiet -count_packets -select_streams v:0 -of csv=p=0"
         " -show_entries stream=nb_read_packets -").split()
FIRST = 1  # weir never fetches segment number 0


def cipher(vector: int = 0) -> list[str]:
    """The command for AES-128 as in HLS: CBC, PKCS#7. weir always uses the initialisation vector 0."""
    return ["openssl", "enc", "-aes-128-cbc", "-K", KEY.hex(), "-iv", f"{vector:032x}"]


def encrypt(clear: bytes, vector: int = 0) -> bytes:
    return subprocess.run(cipher(vector), input=clear, capture_output=True, check=True).stdout


def encrypt_file(path: Path) -> None:
    """Does not read it into memory: a child's peak RSS is at least that of the process that starts it."""
    secret = path.with_suffix(".new")
    with path.open("rb") as source, secret.open("wb") as target:
        subprocess.run(cipher(), stdin=source, stdout=target, check=True)
    secret.rename(path)


def replace(path: Path, data: bytes | str) -> None:
    """Renames, so that a server never sees an incomplete file."""
    fresh = path.with_suffix(".new")
    fresh.write_bytes(data if isinstance(data, bytes) else data.encode())
    fresh.rename(path)


def media_playlist(urls: Sequence[str], seconds: float, first: int = FIRST, key: str = "",
                   over: bool = True) -> str:
    """`key` is the URL of a key, which weir expects last in its tag; `over`: the stream has ended."""
    lines = ["#EXTM3U", f"#EXT-X-TARGETDURATION:{-int(-seconds // 1)}",
             f"#EXT-X-MEDIA-SEQUENCE:{first}"]
    if key:
        lines.append(f'#EXT-X-KEY:METHOD=AES-128,IV=0x{"0" * 32},URI="{key}"')
    for url in urls:
        lines += [f"#EXTINF:{seconds:g},", url]
    return "\n".join([*lines, *(["#EXT-X-ENDLIST"] if over else []), ""])


def master_playlist(variants: dict[str, int]) -> str:
    """`variants` maps URLs to bandwidths."""
    return "#EXTM3U\n" + "".join(f"#EXT-X-STREAM-INF:BANDWIDTH={bandwidth}\n{url}\n"
                                 for url, bandwidth in variants.items())


def ffmpeg(lab: Lab, *options: object) -> None:
    if lab.start(["ffmpeg", "-nostdin", "-v", "error", "-y", *options]).wait() != 0:
        raise SystemExit("ffmpeg could not make the video")


def make_film(lab: Lab) -> Path:
    """With sound."""
    film = lab.work / "film.mp4"
    ffmpeg(lab, *FILM.split(), film)
    return film


def frames(stream: bytes) -> int:
    count = subprocess.run(COUNT, input=stream, stdout=subprocess.PIPE).stdout.split()
    return int(count[0]) if count else 0


def segments_in(folder: Path) -> list[Path]:
    return sorted(folder.glob("*.ts"), key=lambda path: int(path.stem))


def in_segments(folder: Path, seconds: int, name: str = "%d.ts") -> list[object]:
    """ffmpeg's options for output in clear segments."""
    folder.mkdir(parents=True)
    return ["-f", "hls", "-hls_time", seconds, "-hls_list_size", 0, "-start_number", FIRST,
            "-hls_segment_filename", folder / name, folder / "list.m3u8"]


def publish(folder: Path, url: str, seconds: int, key: str = "") -> int:
    """Encrypts the segments of a folder if there is a key, and lists them; returns the bandwidth."""
    segments = segments_in(folder)
    largest = max(path.stat().st_size for path in segments)
    if key:
        for path in segments:
            encrypt_file(path)
    replace(folder / "list.m3u8", media_playlist([f"{url}/{path.name}" for path in segments],
                                                 seconds, key=key))
    return largest * 8 // seconds
