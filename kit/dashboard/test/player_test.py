"""The page of docs/players.md plays a stream of weir in headless Chromium, with mpegts.js.

player_test.py WEIR: needs npm's registry once, for mpegts.js; SKIPPED if that cannot be reached.
"""

import re
import subprocess
import sys
from pathlib import Path

from browser import Browser, PATIENCE

from weirlab import client, lab, network, video
from weirlab.origin import Origin

SECONDS, RATE, ORIGIN = 8, 25, 8000
BASE = f"http://127.0.0.1:{ORIGIN}"
# How many frames were decoded, give or take a few, once the video has ended.
STATE = """const video = document.querySelector('video');
if (video.error) return video.error.message;
return video.ended && video.getVideoPlaybackQuality().totalVideoFrames;"""


def fetch_library(page: str) -> Path:
    """Fetches the archive that the page names into build/, unless it is there, if npm can."""
    package = re.findall(r"npm pack (mpegts\.js@[\d.]+\d)", page)[0]
    archive = lab.TOP / f"build/dashboard/{package.replace('@', '-')}.tgz"
    archive.parent.mkdir(parents=True, exist_ok=True)
    if not archive.exists():
        subprocess.run(["npm", "pack", package, "--fetch-retries=0", "--loglevel=silent"],
                       cwd=archive.parent, stdout=subprocess.DEVNULL)
    return archive


def make_files(room: lab.Lab, page: str) -> None:
    """A video, and the page with the addresses of this test."""
    video.ffmpeg(room, "-f", "lavfi", "-i", f"testsrc2=size=320x180:rate={RATE}:duration={SECONDS}",
                 "-f", "lavfi", "-i", f"sine=frequency=440:duration={SECONDS}", "-c:v", "libx264", "-g", RATE,
                 "-pix_fmt", "yuv420p", "-c:a", "aac", *video.in_segments(room.www / "video", 2))
    bandwidth = video.publish(room.www / "video", f"{BASE}/video", 2)
    video.replace(room.www / "master.m3u8", video.master_playlist({f"{BASE}/video/list.m3u8": bandwidth}))
    html = page.partition("```html\n")[2].partition("```")[0]
    (room.www / "player.html").write_text(html.replace("http://~/live", BASE).replace(
        "WEIR:7744", f"127.0.0.1:{client.WEIR}"), encoding="utf-8")


def main() -> None:
    page = (lab.TOP / "docs/players.md").read_text(encoding="utf-8")
    if not (archive := fetch_library(page)).exists():
        return print("SKIPPED: npm's registry cannot be reached")
    network.own_network()
    with lab.Lab() as room:
        make_files(room, page)
        library = subprocess.check_output(["tar", "-xzOf", archive, "package/dist/mpegts.js"])
        (room.www / "mpegts.js").write_bytes(library)
        Origin(ORIGIN, lambda path: (room.www / path[1:]).read_bytes())
        room.weir(Path(sys.argv[1]).absolute(), 1 << 24)
        with Browser(room) as browser:
            for address in f"{BASE}/player.html", (room.www / "player.html").as_uri():
                browser.open(address)
                lab.wait_until("the end of the stream", lambda: browser.run(STATE), PATIENCE)
                print(f"{address.partition(':')[0]}: {(frames := browser.run(STATE))} frames decoded")
                assert isinstance(frames, int) and frames > 0.9 * SECONDS * RATE, frames


if __name__ == "__main__":
    main()
