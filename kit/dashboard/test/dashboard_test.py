"""The dashboard in headless Chromium, opened from disk and from web servers.

dashboard_test.py WEIR: watches the real program while it streams, freezes and dies, and then
figures that are made up here.
"""

import contextlib
import json
import re
import signal
import sys
import threading
from pathlib import Path

from browser import Browser, PATIENCE

from weirlab import client, lab, network, video
from weirlab.origin import Origin

PAGE = lab.TOP / "kit/dashboard/dashboard.html"
STATS = f"http://127.0.0.1:{client.WEIR}/stats.json"
ORIGIN, WEB, PUBLIC = 8000, 8080, "203.0.113.1"
NAMES = ("last_chunk_speed", "avg_speed", "selected_profile", "cbuff_size")
SHOWN = [  # kbps of 1024 bit/s, or KiB
    ("kSpeed", 0, "0 kbit/s"), ("kSpeed", 700, "717 kbit/s"), ("kSpeed", 976, "999 kbit/s"),
    ("kSpeed", 977, "1.00 Mbit/s"), ("kSpeed", 5078, "5.20 Mbit/s"), ("kSpeed", 976562, "1.00 Gbit/s"),
    ("kSpeed", 22688596, "23.2 Gbit/s"), ("kSpeed", 2**64 - 1, "18.9 Zbit/s"),
    ("kSize", 999, "999 KiB"), ("kSize", 12263, "12.0 MiB"), ("kSize", 1 << 21, "2.00 GiB")]
COUNT_REQUESTS = """
const original = fetch;
window.pending = window.most = 0;
fetch = (...all) => {
  window.most = Math.max(window.most, ++window.pending);
  return original(...all).finally(() => window.pending--);
};"""


def expect(condition: object, what: object) -> None:
    if not condition:
        raise SystemExit(f"FAILED: {what}")


def answer(browser: Browser, *values: int) -> None:
    """From now on the page gets these figures."""
    browser.run("fetch = async () => new Response(JSON.stringify(arguments[0]));",
                dict(zip(NAMES, values, strict=True)))


def play(stop: threading.Event) -> None:
    """A player that takes its time, so that weir's figures change as long as it runs."""
    with contextlib.suppress(OSError), client.connect(
            client.stream_path(f"http://127.0.0.1:{ORIGIN}/master")) as stream:
        while not stop.wait(0.1) and stream.recv(1 << 17):
            pass


def serve(path: str) -> bytes:
    base = f"http://127.0.0.1:{ORIGIN}"
    if path == "/master":
        return video.master_playlist({f"{base}/list": 5_200_000}).encode()
    if path == "/list":
        return video.media_playlist([f"{base}/{number}.ts" for number in range(1, 1000)], 2).encode()
    return b"G" * (1000 + int(re.sub(r"\D", "", path)) * 7919 % 500_000)


def check_shape(browser: Browser) -> None:
    too_wide, empty = browser.run("""
        const state = document.getElementById('state').getBoundingClientRect();
        const detail = document.getElementById('detail').getBoundingClientRect();
        const nodes = [document.documentElement, ...document.querySelectorAll('dd, .legend span')];
        return [nodes.filter((node) => node.scrollWidth > node.clientWidth).map((node) => node.innerText),
          (state.bottom - detail.bottom) / state.height];""")
    expect(not too_wide, f"too wide: {too_wide}")
    expect(empty < 0.25, f"{empty:.0%} of the state card is empty")


def watch_weir(room: lab.Lab, browser: Browser, binary: Path) -> None:
    """From disk."""
    weir, stop = room.weir(binary, 1 << 22), threading.Event()
    browser.open(f"{PAGE.as_uri()}#127.0.0.1")
    browser.run(COUNT_REQUESTS)
    browser.wait_for("No stream yet")
    player = threading.Thread(target=play, args=(stop,), daemon=True)
    player.start()
    browser.wait_for("Streaming")
    browser.wait_for("5.20 Mbit/s", "#selected_profile")
    check_shape(browser)
    weir.send_signal(signal.SIGSTOP)
    browser.wait_for("within 1.5 s")
    missed = "return rows.filter((row) => !row.figures).length"
    lab.wait_until("more polls", lambda: browser.run(missed) > 2, PATIENCE)
    expect(browser.text("#avg_speed") == "–", "figures of a weir that does not answer")
    expect("Variant: 5.20 Mbit/s" in browser.text("#speed .legend"), browser.text("#speed .legend"))
    gaps = "return document.querySelector('.line.buffer').getAttribute('d').split('M').length"
    before = browser.run(gaps)
    weir.send_signal(signal.SIGCONT)
    browser.wait_for("Back since")
    lab.wait_until("a gap in the line", lambda: browser.run(gaps) > before, PATIENCE)
    stop.set()
    player.join()
    browser.wait_for("Unchanged")
    figures = json.loads(client.get("/stats.json"))
    for name, measure in zip(NAMES, ("kSpeed", "kSpeed", "kSpeed", "kSize"), strict=True):
        shown = browser.run(f"return show(arguments[0], {measure})", figures[name])
        browser.wait_for(shown, f"#{name}")
    room.end(weir, signal.SIGKILL)
    browser.wait_for("Is weir running there")
    asked, most = browser.run("""return [performance.getEntriesByType('resource').map((each) => each.name),
        window.most]""")
    expect(set(asked) == {STATS}, f"asked for {set(asked)}")
    expect(most == 1, f"{most} requests at a time")


def check_scale(browser: Browser) -> None:
    """A few segments from a cache on weir's own host must not flatten the chart."""
    answer(browser, 10000, 9000, 25000, 12263)
    browser.wait_for("Streaming")
    expect(not browser.text("#speed .off"), "nothing is above the scale yet")
    answer(browser, 5_000_000, 800_000, 25000, 12263)
    browser.wait_for("5.12 Gbit/s", "#last_chunk_speed")
    answer(browser, 10000, 9000, 25000, 12263)
    browser.wait_for("10.2 Mbit/s", "#last_chunk_speed")
    browser.run("fetch = () => new Promise(() => {});")  # the charts stand still from now on
    expect(browser.text("#speed .off") == "▲ up to 5.12 Gbit/s", browser.text("#speed .off"))
    line, marks, variant = browser.run("""return ['line.last', 'marks.last', 'marks.variant'].map(
        (name) => document.querySelector('.' + name).getAttribute('d'));""")
    points = [(float(x), float(y)) for x, y in re.findall(r"[ML]([\d.]+) ([\d.]+)", line)]
    outlier = min(points, key=lambda point: point[1])
    marked = marks.startswith(f"M{outlier[0]:.1f} ") and marks.count("M") == 1
    expect(marked and not variant, f"{marks} does not mark {outlier}, or {variant} marks the variant")
    axis = browser.run("return document.querySelector('#speed svg').clientHeight - kMargin.bottom")
    height = (axis - points[-1][1]) / (axis - outlier[1])
    expect(height > 0.05, f"ordinary speeds reach {height:.1%} of the chart's height")
    check_legend(browser, outlier[0])


def check_legend(browser: Browser, outlier: float) -> None:
    """The last values, and those at the pointer while it is over a chart."""
    legend = "#speed .legend"
    for text in ("Last: 10.2 Mbit/s", "Average: 9.22 Mbit/s", "Variant: 25.6 Mbit/s"):
        expect(text in browser.text(legend), browser.text(legend))
    left, top = browser.run("""const chart = document.querySelector('#speed svg');
        chart.scrollIntoView();
        return [chart.getBoundingClientRect().left, chart.getBoundingClientRect().top];""")
    browser.point(left + outlier, top + 50)
    browser.wait_for("Last: 5.12 Gbit/s", legend)
    browser.point(left, top - 50)
    browser.wait_for("Last: 10.2 Mbit/s", legend)


def watch_figures(browser: Browser) -> None:
    """From a web server, on a phone."""
    browser.view(320, 640, "dark")
    browser.open(f"http://127.0.0.1:{WEB}/")
    browser.wait_for("Is weir running there")
    answer(browser, 0, 0, 0, 0)
    browser.wait_for("No stream yet")
    check_scale(browser)
    check_shape(browser)
    for measure, value, shown in SHOWN:
        got = browser.run(f"return show(arguments[0], {measure})", value)
        expect(got == shown, f"{value} is shown as {got}, not as {shown}")


def main() -> None:
    network.own_network()
    network.ip(f"address add {PUBLIC}/32 dev lo")
    Origin(ORIGIN, serve)
    Origin(WEB, lambda _: PAGE.read_bytes())
    with lab.Lab() as room, Browser(room) as browser:
        browser.view(1000, 800)
        watch_weir(room, browser, Path(sys.argv[1]).absolute())
        watch_figures(browser)
        browser.view(1000, 800, "dark")
        browser.open(f"http://{PUBLIC}:{WEB}/#127.0.0.1")
        browser.wait_for(f"public address, such as {PUBLIC}")
        check_shape(browser)
        browser.check_complaints()
    print("the dashboard shows what weir does")


if __name__ == "__main__":
    main()
