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
# mpegts.js never plays the last frame if packets do not state their length: it waits for the next.
LENGTHS = ["-hls_segment_options", "omit_video_pes_length=0"]
STATE = """const video = document.querySelector('video');
return video.error ? video.error.message : video.ended;"""
# Decodes each frame by itself, however slow the machine is, and returns how many different ones there are.
COUNT_FRAMES = """const [count, rate, done] = arguments, times = new Set();
const video = document.querySelector('video');
let frame = 0;
const seek = () => {
  video.requestVideoFrameCallback((_, shown) => {
    times.add(shown.mediaTime);
    if (frame < count) seek();
    else done(times.size);
  });
  video.currentTime = video.buffered.start(0) + (frame++ + 0.5) / rate;
};
seek();"""


def player_page(text: str) -> str:
    """The page as it is printed, with the addresses of this test."""
    page = text.partition("```html\n")[2].partition("```")[0]
    return page.replace("WEIR:7744", f"127.0.0.1:{client.WEIR}").replace("http://~/live", BASE)


def fetch_library(package: str) -> bytes | None:
    """With npm, into build/, unless it is there already."""
    archive = lab.TOP / f"build/dashboard/{package.replace('@', '-')}.tgz"
    archive.parent.mkdir(parents=True, exist_ok=True)
    if not archive.exists():
        subprocess.run(["npm", "pack", package, "--fetch-retries=0", "--loglevel=silent"],
                       cwd=archive.parent, check=False, stdout=subprocess.DEVNULL)
    if not archive.exists():
        return None
    return subprocess.check_output(["tar", "-xzOf", archive, "package/dist/mpegts.js"])


def make_video(room: lab.Lab) -> None:
    video.ffmpeg(room, "-f", "lavfi", "-i", f"testsrc2=size=320x180:rate={RATE}:duration={SECONDS}",
                 "-f", "lavfi", "-i", f"sine=frequency=440:duration={SECONDS}", "-c:v", "libx264", "-g", RATE,
                 "-bf", 0, "-pix_fmt", "yuv420p", "-c:a", "aac", *LENGTHS,
                 *video.in_segments(room.www / "video", 2))
    bandwidth = video.publish(room.www / "video", f"{BASE}/video", 2)
    video.replace(room.www / "master.m3u8", video.master_playlist({f"{BASE}/video/list.m3u8": bandwidth}))


def play(browser: Browser, address: str) -> None:
    """To the end, and then frame by frame."""
    browser.open(address)
    lab.wait_until("the end of the stream", lambda: browser.run(STATE), PATIENCE)
    ended = browser.run(STATE)
    frames = ended is True and browser.driver.execute_async_script(COUNT_FRAMES, SECONDS * RATE, RATE)
    print(f"{address.partition(':')[0]}: {frames} of {SECONDS * RATE} frames decoded")
    if frames != SECONDS * RATE:
        raise SystemExit(f"FAILED: {ended}")


def main() -> None:
    text = (lab.TOP / "docs/players.md").read_text(encoding="utf-8")
    library = fetch_library(re.findall(r"npm pack (mpegts\.js@[\d.]+\d)", text)[0])
    if library is None:
        print("SKIPPED: npm's registry cannot be reached")
        return
    network.own_network()
    with lab.Lab() as room:
        make_video(room)
        (room.www / "player.html").write_text(player_page(text), encoding="utf-8")
        (room.www / "mpegts.js").write_bytes(library)
        Origin(ORIGIN, lambda path: (room.www / path[1:]).read_bytes())
        room.weir(Path(sys.argv[1]).absolute(), 1 << 24)
        with Browser(room) as browser:
            play(browser, f"{BASE}/player.html")
            play(browser, (room.www / "player.html").as_uri())


if __name__ == "__main__":
    main()
