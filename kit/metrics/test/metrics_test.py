"""What mtail counts in weir's log, and that neither it nor a full log stops a stream.

metrics_test.py WEIR [STORIES]: counts in the transcripts of the program STORIES, then runs weir
and mtail with the commands of the units in kit/, in network and mount namespaces.
metrics_test.py --demo: runs script/demo and compares the metrics of its log with its output.
"""

import collections
import difflib
import os
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import urllib.request
from pathlib import Path

from mtail import of_log, parse
from weirlab import client, lab, network, video
from weirlab.origin import Origin

SEGMENTS, ORIGIN, MTAIL_PORT = 40, 8000, 3903
PROGRESS, PROBLEMS = Path("/run/weir/progress"), Path("/run/weir/problems")
COUNTED = lab.TOP / "kit/metrics/test/metrics.txt"


def logs(room: lab.Lab, stories: Path) -> list[str]:
    """What weir logs in each story."""
    folder = room.work / "logs"
    folder.mkdir()
    subprocess.run([stories, "--gtest_brief=1"], check=True, stdout=subprocess.DEVNULL,
                   env=os.environ | {"STORY_LOGS": str(folder)})
    texts = [path.read_text(encoding="latin-1") for path in folder.iterdir()]
    return ["".join(re.findall(r"^  (?![>~] )(?:! )?(.*\n)", text, re.MULTILINE)) for text in texts]


def check_transcripts(room: lab.Lab, stories: Path) -> None:
    """Compares the sums over all logs with COUNTED, which must contain every metric."""
    total = collections.Counter[str]()
    for text in logs(room, stories):
        (room.work / "log").write_text(text, encoding="latin-1")
        total.update(of_log(room.work / "log"))
    counted = "".join(f"{value:.0f} {name}\n" for name, value in sorted(total.items()))
    if "UPDATE_STORIES" in os.environ:
        COUNTED.write_text(counted)
    if counted != (wanted := COUNTED.read_text()):
        raise SystemExit("\n".join(difflib.unified_diff(wanted.splitlines(), counted.splitlines())))
    program = (lab.TOP / "kit/metrics/weir.mtail").read_text()
    names = set(re.findall(r"^(?:counter|gauge) weir_(\w+?)(?:_total)?\b", program, re.MULTILINE))
    # check_feed() covers two: no transcript logs a start of the unit or ends within a stream.
    if missing := names - {"starts", "streams"} - {name.split()[0] for name in total}:
        raise SystemExit(f"never counted: {missing}")


def setting(file: str, key: str) -> str:
    """The value of the last line with that key."""
    text = (lab.TOP / "kit" / file).read_text(encoding="utf-8").replace("\\\n", "").replace("$$", "$")
    found: list[str] = re.findall(rf'^(?:Environment=")?{key}=-?(.*?)"?$', text, re.MULTILINE)
    return found[-1]


def command(file: str, key: str = "ExecStart") -> list[str]:
    return shlex.split(setting(file, key))


def scrape() -> dict[str, float]:
    with urllib.request.urlopen(f"http://127.0.0.1:{MTAIL_PORT}/metrics") as answer:
        return parse(answer.read().decode())


def check_feed(room: lab.Lab, binary: Path) -> None:
    """Streams continue while readers of the log are stopped, and are counted once they go on."""
    segments = {f"/{i}.ts": bytes([i]) * 188 for i in range(SEGMENTS)}
    urls = [f"http://127.0.0.1:{ORIGIN}{path}" for path in segments]
    files = segments | {"/list": video.media_playlist(urls, 1).encode(),
                        "/master": video.master_playlist({f"http://127.0.0.1:{ORIGIN}/list": 1}).encode()}
    Origin(ORIGIN, files.__getitem__)

    def play() -> None:
        client.ask("/%80")  # without the unit's filter, mtail of Debian 12 would stop reading here
        path = client.stream_path(f"http://127.0.0.1:{ORIGIN}/master")
        if client.ask(path, timeout=10).partition(b"\r\n\r\n")[2] != b"".join(segments.values()):
            raise SystemExit("a stream is not whole")

    def counted(name: str = f"segments server=127.0.0.1:{ORIGIN}") -> float:
        return scrape().get(name, 0)

    drop_in, mtail_unit = "service/weir.service.d/metrics.conf", "metrics/mtail.service.d/weir.conf"
    with open(setting(drop_in, "StandardOutput").removeprefix("append:"), "ab") as out, \
            open(setting(drop_in, "StandardError").removeprefix("append:"), "ab") as err:
        mtail = room.start(command(mtail_unit), stderr=subprocess.DEVNULL,
                           env=os.environ | {"EXTRA_ARGS": setting(mtail_unit, "EXTRA_ARGS")})
        journal = (room.work / "journal").open("wb")
        tail = room.start(command("metrics/weir-problems.service"), stdout=journal, stderr=journal)
        lab.wait_until("mtail to answer", lambda: client.answers(MTAIL_PORT))

        def reading() -> bool:
            """Whether mtail follows both files. It misses what was written before."""
            subprocess.run(command(drop_in, "ExecStartPre"), stdout=out, check=True)
            os.write(err.fileno(), b"not found\n")
            return counted("starts") > 0 and counted("rejected_requests status=404") > 0

        lab.wait_until("mtail to read", reading)
        weir = [lab.TOP / "script/without-reboot", binary, 1 << 20]
        crashing = room.start(weir, stdout=out, stderr=err)
        lab.wait_until("weir to answer", lambda: client.answers(client.WEIR))
        with client.connect(client.stream_path("http://127.0.0.1:1/refused")):
            lab.wait_until("a stream to be counted", lambda: counted("streams") == 1)
            room.end(crashing, signal.SIGKILL)
        reading()
        room.start(weir, stdout=out, stderr=err)
        lab.wait_until("weir to answer again", lambda: client.answers(client.WEIR))
        play()
        lab.wait_until("the first stream to be counted and over", lambda: counted() == SEGMENTS and not
                       counted("streams") and counted("streams_ended") == 1)

        for reader in (mtail, tail):
            reader.send_signal(signal.SIGSTOP)
        play()
        with subprocess.Popen(["yes", "x" * 1000], stdout=out, stderr=subprocess.DEVNULL) as filler:
            filler.wait()  # until no space is left
        play()
        for reader in (mtail, tail):
            reader.send_signal(signal.SIGCONT)
        lab.wait_until("the second stream to be counted", lambda: counted() >= 2 * SEGMENTS)

        room.start(command("metrics/weir-log.service"))
        lab.wait_until("the log to be emptied", lambda: PROGRESS.stat().st_size < 1 << 20)
        starts = counted("starts")
        # Lines are counted in order. The first one written may complete a line that was cut.
        lab.wait_until("mtail to catch up", lambda: reading() and counted("starts") > starts)
        before = counted()
        play()
        lab.wait_until("the fourth stream to be counted", lambda: counted() == before + SEGMENTS)
        lab.wait_until("its end to be in the journal", lambda: (room.work / "journal").read_bytes()
                       .count(b"mpl finish and cleanup!\n") >= 3)


def run_demo() -> None:
    with tempfile.NamedTemporaryFile() as log:
        run = subprocess.run([lab.TOP / "script/demo", "--log", log.name], stdout=subprocess.PIPE, text=True)
        print(run.stdout)
        assert run.returncode == 0
        got = of_log(Path(log.name))
    expected = {
        "streams_begun": 1, "streams_ended": 1, "stream_end_reasons reason=last segment": 1,
        "selections": run.stdout.count("weir takes"),
        "segments": int(re.findall(r"(\d+) of", run.stdout)[-1]) / 50,
        "retries kind=segment resumed": len(re.findall(r"from byte [1-9]", run.stdout)),
        "dead": run.stdout.count("weir marks dead")}
    got["segments"] = sum(value for key, value in got.items() if key.startswith("segments server="))
    got["dead"] = sum(key.startswith("server_invalidations") for key in got)
    wrong = {key: got.get(key, 0) for key, value in expected.items() if got.get(key, 0) != value}
    assert not wrong, f"the story, {expected}, differs from the metrics: {wrong}"
    print("the metrics fit the story:", expected)


def main() -> None:
    if sys.argv[1] == "--demo":
        return run_demo()
    network.own_network(mounts=True)
    for mount in ("-t tmpfs tmpfs /run", f"--bind {lab.TOP}/kit/metrics /etc/mtail",
                  f"-m -t tmpfs -o {setting('metrics/run-weir.mount', 'Options')} tmpfs /run/weir"):
        subprocess.run(["mount", *mount.split()], check=True)
    with lab.Lab() as room:
        for stories in sys.argv[2:]:  # none on 32 bits
            check_transcripts(room, Path(stories).resolve())
        check_feed(room, Path(sys.argv[1]).resolve())
    print("metrics: all transcripts and 4 streams counted")


if __name__ == "__main__":
    main()
