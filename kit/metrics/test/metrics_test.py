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
import urllib.request
from pathlib import Path

from weirlab import client, lab, network, video
from weirlab.origin import Origin

SEGMENTS, ORIGIN, MTAIL_PORT = 40, "127.0.0.1:8000", 3903
COUNTED, PROGRAM = lab.TOP / "kit/metrics/test/metrics.txt", lab.TOP / "kit/metrics/weir.mtail"
DROP_IN, MTAIL_UNIT = "service/weir.service.d/metrics.conf", "metrics/mtail.service.d/weir.conf"


def setting(file: str, key: str) -> str:
    """The value of the last line with that key."""
    text = (lab.TOP / "kit" / file).read_text(encoding="utf-8").replace("\\\n", "").replace("$$", "$")
    found: list[str] = re.findall(rf'^(?:Environment=")?{key}=-?(.*?)"?$', text, re.MULTILINE)
    return found[-1]


def command(file: str, key: str = "ExecStart") -> list[str]:
    return shlex.split(setting(file, key))


def parse(text: str) -> dict[str, float]:
    """Values other than 0 by name and labels, such as 'retries kind=segment anew'."""
    found = re.findall(r"^weir_(\w+?)(?:_total)?(?:\{(.*)\})? (\S+)$", text, re.MULTILINE)
    return {f"{name} {labels}".strip().replace('"', ""): float(value)
            for name, labels, value in found if float(value)}


def of_log(room: lab.Lab, log: str) -> dict[str, float]:
    """The metrics of a log, after the filter of the unit."""
    [printable] = re.findall("(LC_ALL=C .*? tr .*?); ", setting(MTAIL_UNIT, "ExecStart"))
    with (room.work / "filtered").open("wb") as filtered:
        subprocess.run(printable, shell=True, input=log.encode("latin-1"), stdout=filtered, check=True)
    return parse(subprocess.check_output(
        ["mtail", "--port=0", "--progs", PROGRAM.parent, "--logtostderr", "--emit_prog_label=false",
         "--one_shot", "--one_shot_format=prometheus", "--logs", filtered.name],
        stderr=subprocess.DEVNULL, text=True))


def check_transcripts(room: lab.Lab, stories: Path) -> None:
    """Compares the sums over the logs of all stories with COUNTED, which must contain every metric."""
    folder = room.work / "logs"
    folder.mkdir()
    subprocess.run([stories, "--gtest_brief=1"], check=True, stdout=subprocess.DEVNULL,
                   env=os.environ | {"STORY_LOGS": str(folder)})
    texts = [path.read_text(encoding="latin-1") for path in folder.iterdir()]
    logs = ["".join(re.findall(r"^  (?![>~] )(?:! )?(.*\n)", text, re.MULTILINE)) for text in texts]
    logs.append("start_refreshing\nweir is starting\nstart_refreshing\n")  # a crash ends the first stream
    total = sum((collections.Counter(of_log(room, log)) for log in logs), collections.Counter[str]())
    counted = "".join(f"{value:.0f} {name}\n" for name, value in sorted(total.items()))
    if "UPDATE_STORIES" in os.environ:
        COUNTED.write_text(counted)
    if counted != (wanted := COUNTED.read_text()):
        raise SystemExit("\n".join(difflib.unified_diff(wanted.splitlines(), counted.splitlines())))
    names = set(re.findall(r"^(?:counter|gauge) weir_(\w+?)(?:_total)?\b", PROGRAM.read_text(), re.MULTILINE))
    if missing := names - {name.split()[0] for name in total}:
        raise SystemExit(f"never counted: {missing}")


def counted(name: str = f"segments server={ORIGIN}") -> float:
    with urllib.request.urlopen(f"http://127.0.0.1:{MTAIL_PORT}/metrics") as answer:
        return parse(answer.read().decode()).get(name, 0)


def check_feed(room: lab.Lab, binary: Path) -> None:
    """Streams continue while readers of the log are stopped, and are counted once they go on."""
    segments = {f"/{i}.ts": bytes([i]) * 188 for i in range(SEGMENTS)}
    files = {"/list": video.media_playlist([f"http://{ORIGIN}{path}" for path in segments], 1).encode(),
             "/master": video.master_playlist({f"http://{ORIGIN}/list": 1}).encode(), **segments}
    Origin(int(ORIGIN.rpartition(":")[2]), files.__getitem__)

    def play() -> None:
        client.ask("/%80")  # without the unit's filter, mtail of Debian 12 would stop reading here
        if client.get(client.stream_path(f"http://{ORIGIN}/master")) != b"".join(segments.values()):
            raise SystemExit("a stream is not whole")

    def reading() -> bool:
        """Whether mtail follows both files. It misses what was written before."""
        subprocess.run(command(DROP_IN, "ExecStartPre"), stdout=out, check=True)
        os.write(err, b"not found\n")
        return counted("starts") > 0 and counted("rejected_requests status=404") > 0

    out, err = (os.open(setting(DROP_IN, f"Standard{stream}").removeprefix("append:"),
                        os.O_WRONLY | os.O_CREAT | os.O_APPEND) for stream in ("Output", "Error"))
    mtail = room.start(command(MTAIL_UNIT), stderr=subprocess.DEVNULL,
                       env=os.environ | {"EXTRA_ARGS": setting(MTAIL_UNIT, "EXTRA_ARGS")})
    with (room.work / "journal").open("wb") as journal:
        tail = room.start(command("metrics/weir-problems.service"), stdout=journal, stderr=journal)
    lab.wait_until("mtail to answer", lambda: client.answers(MTAIL_PORT))
    lab.wait_until("mtail to read", reading)
    room.start([lab.TOP / "script/without-reboot", binary, 1 << 20], stdout=out, stderr=err)
    lab.wait_until("weir to answer", lambda: client.answers(client.WEIR))
    play()
    lab.wait_until("the first stream to be counted", lambda: counted() == SEGMENTS)

    for reader in mtail, tail:
        reader.send_signal(signal.SIGSTOP)
    play()
    with subprocess.Popen(["yes", "x" * 1000], stdout=out, stderr=subprocess.DEVNULL) as filler:
        filler.wait()  # until no space is left
    play()
    for reader in mtail, tail:
        reader.send_signal(signal.SIGCONT)
    lab.wait_until("the second stream to be counted", lambda: counted() >= 2 * SEGMENTS)

    room.start(command("metrics/weir-log.service"))
    lab.wait_until("the log to be emptied", lambda: os.fstat(out).st_size < 1 << 20)
    starts = counted("starts")
    # Lines are counted in order. The first one written may complete a line that was cut.
    lab.wait_until("mtail to catch up", lambda: reading() and counted("starts") > starts)
    before = counted()
    play()
    lab.wait_until("the fourth stream to be counted", lambda: counted() == before + SEGMENTS)
    lab.wait_until("its end to be in the journal", lambda: (room.work / "journal").read_bytes()
                   .count(b"mpl finish and cleanup!\n") >= 3)


def check_demo(room: lab.Lab) -> None:
    run = subprocess.run([lab.TOP / "script/demo", "--log", room.log], stdout=subprocess.PIPE, text=True)
    print(run.stdout)
    got = of_log(room, room.log.read_text(encoding="latin-1"))
    got["segments"] = sum(value for key, value in got.items() if key.startswith("segments server="))
    got["dead"] = sum(key.startswith("server_invalidations") for key in got)
    for name, told in {
            "streams_ended": 1, "selections": run.stdout.count("weir takes"),
            "segments": int(re.findall(r"(\d+) of", run.stdout)[-1]) / 50,
            "retries kind=segment resumed": len(re.findall("from byte [1-9]", run.stdout)),
            "dead": run.stdout.count("weir marks dead")}.items():
        assert run.returncode == 0 and got.get(name, 0) == told, f"{name}: {got.get(name, 0)}, not {told}"


def main() -> None:
    if sys.argv[1] == "--demo":
        with lab.Lab() as room:
            return check_demo(room)
    network.own_network(mounts=True)
    for mount in ("-t tmpfs tmpfs /run", f"--bind {PROGRAM.parent} /etc/mtail",
                  f"-m -t tmpfs -o {setting('metrics/run-weir.mount', 'Options')} tmpfs /run/weir"):
        subprocess.run(["mount", *mount.split()], check=True)
    with lab.Lab() as room:
        for stories in sys.argv[2:]:  # none on 32 bits
            check_transcripts(room, Path(stories).resolve())
        check_feed(room, Path(sys.argv[1]).resolve())
    print("metrics: all transcripts and 4 streams counted")


if __name__ == "__main__":
    main()
