"""The dashboard and the page of docs/players.md in headless Chromium, from disk and from web servers.

dashboard_test.py WEIR: watches the real program while it streams, freezes and dies, then figures
that are made up here, then a stream with mpegts.js. That is left out if npm's registry, which is
needed once, cannot be reached.
"""

import contextlib
import json
import re
import signal
import subprocess
import sys
import threading
from itertools import pairwise
from pathlib import Path

from browser import Browser, PATIENCE

from weirlab import client, lab, network, video
from weirlab.origin import Origin

PAGE = lab.TOP / "kit/dashboard/dashboard.html"
BASE, WEB, PUBLIC = "http://127.0.0.1:8000", 8080, "203.0.113.1"
NAMES = ("last_chunk_speed", "avg_speed", "selected_profile", "cbuff_size")
SHOWN = [  # kbps of 1024 bit/s, or KiB
    ("kSpeed", 0, "0 kbit/s"), ("kSpeed", 700, "717 kbit/s"), ("kSpeed", 976, "999 kbit/s"),
    ("kSpeed", 977, "1.00 Mbit/s"), ("kSpeed", 5078, "5.20 Mbit/s"), ("kSpeed", 976562, "1.00 Gbit/s"),
    ("kSpeed", 22688596, "23.2 Gbit/s"), ("kSpeed", 2**64 - 1, "18.9 Zbit/s"),
    ("kSize", 999, "999 KiB"), ("kSize", 12263, "12.0 MiB"), ("kSize", 1 << 21, "2.00 GiB")]
SECONDS, RATE = 8, 25
# How many frames were decoded, give or take a few, once the video has ended.
STATE = """const video = document.querySelector('video');
if (video.error) return video.error.message;
return video.ended && video.getVideoPlaybackQuality().totalVideoFrames;"""
SHOW = "return show(arguments[0], arguments[1] === 'kSize' ? kSize : kSpeed)"


def play(stop: threading.Event) -> None:
    """A player that takes its time, so that weir's figures change as long as it runs."""
    with contextlib.suppress(OSError), client.connect(client.stream_path(f"{BASE}/master")) as stream:
        while not stop.wait(0.1) and stream.recv(1 << 17):
            pass


def serve(path: Path) -> bytes:
    if path.is_file():
        return path.read_bytes()
    if path.name == "master":
        return video.master_playlist({f"{BASE}/list": 5_200_000}).encode()
    if path.name == "list":
        return video.media_playlist([f"{BASE}/{number}.ts" for number in range(1, 1000)], 2).encode()
    return b"G" * (1000 + int(path.stem) * 7919 % 500_000) if path.stem.isdigit() else b""


def check_shape(browser: Browser) -> None:
    too_wide = browser.run("""
        const nodes = [document.documentElement, ...document.querySelectorAll('dd, .legend span')];
        return nodes.filter((node) => node.scrollWidth > node.clientWidth).map((node) => node.innerText);""")
    assert not too_wide, too_wide


def watch_weir(room: lab.Lab, browser: Browser, binary: Path) -> None:
    """From disk."""
    weir, stop = room.weir(binary, 1 << 22), threading.Event()
    browser.open(f"{PAGE.as_uri()}#127.0.0.1")
    browser.wait_for("No stream yet")
    player = threading.Thread(target=play, args=(stop,), daemon=True)
    player.start()
    browser.wait_for("Streaming")
    browser.wait_for("5.20 Mbit/s", "#selected_profile")
    check_shape(browser)
    weir.send_signal(signal.SIGSTOP)
    browser.wait_for("within 1.5 s")
    missed = "return rows.filter((row) => !row.figures).map((row) => row.time)"
    lab.wait_until("more polls", lambda: len(browser.run(missed)) > 2, PATIENCE)
    assert all(late - early > 1.4 for early, late in pairwise(browser.run(missed))), "several polls at a time"
    assert browser.text("#avg_speed") == "–", "figures of a weir that does not answer"
    assert "Variant: 5.20 Mbit/s" in browser.text("#speed .legend"), browser.text("#speed .legend")
    gaps = "return document.querySelector('.line.buffer').getAttribute('d').split('M').length"
    before = browser.run(gaps)
    weir.send_signal(signal.SIGCONT)
    browser.wait_for("Back since")
    lab.wait_until("a gap in the line", lambda: browser.run(gaps) > before, PATIENCE)
    stop.set()
    player.join()
    browser.wait_for("Unchanged")
    for name, value in json.loads(client.get("/stats.json")).items():
        browser.wait_for(browser.run(SHOW, value, "kSize" if name == "cbuff_size" else "kSpeed"), f"#{name}")
    room.end(weir, signal.SIGKILL)
    browser.wait_for("Is weir running there")
    asked = browser.run("return performance.getEntriesByType('resource').map((each) => each.name)")
    assert set(asked) == {f"http://127.0.0.1:{client.WEIR}/stats.json"}, asked


def show_rows(browser: Browser, *rows: tuple[int, ...]) -> None:
    """Shows these figures, and polls no more."""
    browser.run("""calls++;
        rows = arguments[0].map((figures, second) => ({ time: now() + second, figures }));
        display(judge(now(), rows.at(-1)), rows.at(-1).figures);""",
                [dict(zip(NAMES, row, strict=True)) for row in rows])


def check_scale(browser: Browser) -> None:
    """A few segments from a cache on weir's own host must not flatten the chart."""
    usual, outlier = (10000, 9000, 25000, 12263), (5_000_000, 800_000, 25000, 12263)
    show_rows(browser, usual, usual)
    assert not browser.text("#speed .off"), "nothing is above the scale yet"
    show_rows(browser, usual, outlier, usual)
    assert browser.text("#speed .off") == "▲ up to 5.12 Gbit/s", browser.text("#speed .off")
    line, marks, variant = browser.run("""return ['line.last', 'marks.last', 'marks.variant'].map(
        (name) => document.querySelector('.' + name).getAttribute('d'));""")
    points = [(float(x), float(y)) for x, y in re.findall(r"[ML]([\d.]+) ([\d.]+)", line)]
    x, top = min(points, key=lambda point: point[1])
    assert marks.startswith(f"M{x:.1f} ") and marks.count("M") == 1 and not variant, (marks, x, variant)
    left, upper, axis = browser.run("""const chart = document.querySelector('#speed svg');
        chart.scrollIntoView();
        const { left, top } = chart.getBoundingClientRect();
        return [left, top, chart.clientHeight - kMargin.bottom];""")
    assert axis - points[-1][1] > 0.05 * (axis - top), f"ordinary speeds are at {points[-1][1]}"
    for y, last, average in (upper - 50, "10.2 M", "9.22 M"), (upper + 50, "5.12 G", "819 M"):
        browser.execute_cdp_cmd("Input.dispatchMouseEvent", {"type": "mouseMoved", "x": left + x, "y": y})
        for text in f"Last: {last}bit/s", f"Average: {average}bit/s", "Variant: 25.6 Mbit/s":
            browser.wait_for(text, "#speed .legend")


def watch_figures(browser: Browser) -> None:
    """From a web server, on a phone."""
    browser.open(f"http://127.0.0.1:{WEB}/", 320, 640, "dark")
    browser.wait_for("Is weir running there")
    check_scale(browser)
    check_shape(browser)
    for measure, value, shown in SHOWN:
        assert (got := browser.run(SHOW, value, measure)) == shown, f"{got} instead of {shown}"


def fetch_library(page: str) -> Path:
    """Fetches the archive that the page names into build/, unless it is there, if npm can."""
    package = re.findall(r"npm pack (mpegts\.js@[\d.]+\d)", page)[0]
    archive = lab.TOP / f"build/dashboard/{package.replace('@', '-')}.tgz"
    archive.parent.mkdir(parents=True, exist_ok=True)
    if not archive.exists():
        subprocess.run(["npm", "pack", package, "--fetch-retries=0", "--loglevel=silent"],
                       cwd=archive.parent, stdout=subprocess.DEVNULL)
    return archive


def watch_video(room: lab.Lab, browser: Browser, binary: Path, page: str, archive: Path) -> None:
    """Plays a stream to its end, from a web server and from disk."""
    video.ffmpeg(room, "-f", "lavfi", "-i", f"testsrc2=size=320x180:rate={RATE}:duration={SECONDS}",
                 "-f", "lavfi", "-i", f"sine=frequency=440:duration={SECONDS}", "-c:v", "libx264", "-g", RATE,
                 "-pix_fmt", "yuv420p", "-c:a", "aac", *video.in_segments(room.www / "video", 2))
    bandwidth = video.publish(room.www / "video", f"{BASE}/video", 2)
    video.replace(room.www / "master.m3u8", video.master_playlist({f"{BASE}/video/list.m3u8": bandwidth}))
    html = page.partition("```html\n")[2].partition("```")[0]
    video.replace(room.www / "player.html", html.replace("http://~/live", BASE).replace(
        "WEIR:7744", f"127.0.0.1:{client.WEIR}"))
    library = subprocess.check_output(["tar", "-xzOf", archive, "package/dist/mpegts.js"])
    video.replace(room.www / "mpegts.js", library)
    room.weir(binary, 1 << 24)
    for address in f"{BASE}/player.html", (room.www / "player.html").as_uri():
        browser.open(address)
        lab.wait_until("the end of the stream", lambda: browser.run(STATE), PATIENCE)
        print(f"{address.partition(':')[0]}: {(frames := browser.run(STATE))} frames decoded")
        assert isinstance(frames, int) and frames > 0.9 * SECONDS * RATE, frames


def main() -> None:
    binary = Path(sys.argv[1]).absolute()
    page = (lab.TOP / "docs/players.md").read_text(encoding="utf-8")
    archive = fetch_library(page)
    network.own_network()
    network.ip(f"address add {PUBLIC}/32 dev lo")
    Origin(WEB, lambda _: PAGE.read_bytes())
    with lab.Lab() as room, Browser(room) as browser:
        Origin(8000, lambda path: serve(room.www / path[1:]))
        watch_weir(room, browser, binary)
        watch_figures(browser)
        browser.open(f"http://{PUBLIC}:{WEB}/#127.0.0.1", scheme="dark")
        browser.wait_for(f"public address, such as {PUBLIC}")
        check_shape(browser)
        assert not (complaints := browser.complaints()), complaints
        if archive.exists():
            watch_video(room, browser, binary, page, archive)
    print("the dashboard shows what weir does" + ("" if archive.exists() else "; no npm, no video"))


if __name__ == "__main__":
    main()
