"""The film of the benchmarks: MPEG-TS in segments, clear and enciphered."""

import os
import subprocess

SECONDS = 5  # a segment
BITRATE = 8_000_000


def make_film(root, segments, base, seconds=SECONDS, bitrate=BITRATE):
    """Writes clear-master.m3u8 and aes-master.m3u8 below `root`; returns segments and bytes.

    A few seconds of noise are encoded once and then repeated, with timestamps that go on.
    """
    ffmpeg = ["ffmpeg", "-v", "fatal", "-y"]
    noise = f"nullsrc=s=480x272:r=25:d={seconds},geq=random(1)*255"
    subprocess.run([*ffmpeg, "-f", "lavfi", "-i", noise, "-c:v", "mpeg2video", "-g", "25",
                    "-b:v", str(bitrate), "-maxrate", str(bitrate), "-bufsize", "2M",
                    "-muxrate", str(bitrate * 21 // 20), root / "noise.ts"], check=True)
    (root / "clear").mkdir()
    (root / "aes").mkdir()
    subprocess.run([*ffmpeg, "-stream_loop", str(segments - 1), "-i", root / "noise.ts",
                    "-c", "copy", "-f", "hls", "-hls_time", str(seconds), "-hls_list_size", "0",
                    "-hls_segment_filename", root / "clear/%d.ts", "-start_number", "1",
                    root / "clear/list.m3u8"], check=True)
    made = sorted((root / "clear").glob("*.ts"), key=lambda path: int(path.stem))
    encipher(root, made)
    for kind in ("clear", "aes"):
        write_playlists(root, kind, len(made), base, seconds=seconds, bitrate=bitrate)
    return len(made), sum(path.stat().st_size for path in made)


def encipher(root, clear):
    """Writes the segments again below `root`/aes, and the key that they have."""
    key = os.urandom(16)
    (root / "key").write_bytes(key)
    for path in clear:
        subprocess.run(["openssl", "enc", "-aes-128-cbc", "-K", key.hex(), "-iv", "0" * 32,
                        "-in", path, "-out", root / "aes" / path.name], check=True)


def write_playlists(root, kind, segments, base, prefix="", seconds=SECONDS, bitrate=BITRATE):
    lines = ["#EXTM3U", "#EXT-X-VERSION:3", f"#EXT-X-TARGETDURATION:{seconds}",
             "#EXT-X-MEDIA-SEQUENCE:1"]
    if kind == "aes":
        lines.append(f'#EXT-X-KEY:METHOD=AES-128,IV=0x{"0" * 32},URI="{base}/key"')
    for number in range(1, segments + 1):
        lines += [f"#EXTINF:{seconds},", f"{base}/{kind}/{number}.ts"]
    (root / f"{prefix}{kind}.m3u8").write_text("\n".join([*lines, "#EXT-X-ENDLIST", ""]))
    (root / f"{prefix}{kind}-master.m3u8").write_text(
        f"#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH={bitrate}\n{base}/{prefix}{kind}.m3u8\n")
