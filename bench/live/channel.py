"""Keeps live channels in a web root: segments, keys and sliding playlists.

All variants share their numbering. Playlists are replaced by renaming, so that a
server never sees half of one. Ends with SIGTERM.
"""

import argparse
import time
from pathlib import Path

from cryptography.hazmat.primitives import padding
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

from live.content import FIRST_SEQUENCE, Content, segment_name, segment_size

KEY = bytes(range(16))
KEPT = 12  # segments that stay after they have left the playlist


def encipher(clear):
    padder = padding.PKCS7(128).padder()
    encryptor = Cipher(algorithms.AES(KEY), modes.CBC(bytes(16))).encryptor()
    return encryptor.update(padder.update(clear) + padder.finalize()) + encryptor.finalize()


def replace(path, data):
    fresh = path.with_suffix(".new")
    fresh.write_bytes(data)
    fresh.rename(path)


class Channel:
    def __init__(self, options, number, content):
        self.options, self.number, self.content = options, number, content
        self.folder = options.root / f"c{number}"
        self.encrypted = number >= options.clear
        for variant in range(len(options.rates)):
            (self.folder / str(variant)).mkdir(parents=True)
        (self.folder / "key").write_bytes(KEY)
        lines = ["#EXTM3U"]
        for variant, rate in enumerate(options.rates):
            lines += [f"#EXT-X-STREAM-INF:BANDWIDTH={rate}",
                      f"{options.playlists}/c{number}/{variant}.m3u8"]
        replace(self.folder / "master.m3u8", "\n".join(lines + [""]).encode())

    def publish(self, sequence):
        """Adds the segment of that number to every variant and drops an old one."""
        for variant, rate in enumerate(self.options.rates):
            name = segment_name(self.number, variant, sequence)
            data = self.content.segment(name, segment_size(rate, self.options.seconds))
            replace(self.options.root / f"{name}.ts", encipher(data) if self.encrypted else data)
            old = segment_name(self.number, variant, sequence - self.options.window - KEPT)
            (self.options.root / f"{old}.ts").unlink(missing_ok=True)
            self.rewrite_playlist(variant, sequence)

    def rewrite_playlist(self, variant, last):
        first = max(FIRST_SEQUENCE, last + 1 - self.options.window)
        seconds = self.options.seconds
        lines = ["#EXTM3U", f"#EXT-X-TARGETDURATION:{-int(-seconds // 1)}",
                 f"#EXT-X-MEDIA-SEQUENCE:{first}"]
        if self.encrypted:
            lines.append(f'#EXT-X-KEY:METHOD=AES-128,IV=0x{"0" * 32},'
                         f'URI="{self.options.keys}/c{self.number}/key"')
        for sequence in range(first, last + 1):
            name = segment_name(self.number, variant, sequence)
            lines += [f"#EXTINF:{seconds:g},", f"{self.options.segments}/{name}.ts"]
        replace(self.folder / f"{variant}.m3u8", "\n".join(lines + [""]).encode())


def newest_sequence(root):
    """The number of the segment published last."""
    lines = (root / "c0/0.m3u8").read_text().split()
    return int(lines[-1].rsplit("/", 1)[1].removesuffix(".ts"))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("root", type=Path)
    parser.add_argument("--rates", required=True, help="bits a second, one for each variant")
    parser.add_argument("--seconds", type=float, default=2)
    parser.add_argument("--window", type=int, default=10)
    parser.add_argument("--clear", type=int, default=1, help="channels")
    parser.add_argument("--encrypted", type=int, default=0, help="channels")
    for name in ("playlists", "segments", "keys"):
        parser.add_argument(f"--{name}", required=True, help="scheme and host")
    options = parser.parse_args()
    options.rates = [int(rate) for rate in options.rates.split(",")]
    content = Content(segment_size(max(options.rates), options.seconds))
    channels = [Channel(options, number, content)
                for number in range(options.clear + options.encrypted)]
    began = time.monotonic()
    sequence = FIRST_SEQUENCE
    while True:
        for channel in channels:
            channel.publish(sequence)
        sequence += 1
        due = began + max(0, sequence - FIRST_SEQUENCE - options.window) * options.seconds
        time.sleep(max(0, due - time.monotonic()))


if __name__ == "__main__":
    main()
