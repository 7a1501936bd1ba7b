"""The command: arguments, the comparison with a running weir, and the output."""

import argparse
import io
import json
import socket
import sys
import time
from urllib.parse import quote

from .findings import VERDICTS, Finding, Grade, merged
from .look import Report, look
from .net import Net, exchange
from .weir import NO_DATA

USAGE = 64  # exit status


def arguments(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="weir-check", description="Diagnoses why weir does not play a stream.",
        epilog="Exit status: 0 playable, 1 with loss, 2 not playable, 3 not reachable, 64 usage.")
    parser.add_argument("url", help="of a master playlist, as given to weir")
    parser.add_argument("--chunk", metavar="MAP", help="the caches of http://@/")
    parser.add_argument("--playlist", metavar="MAP", help="the caches of http://~/")
    parser.add_argument("--weir", metavar="HOST:PORT", help="also stream from this weir")
    parser.add_argument("--all", action="store_true", help="check every segment")
    parser.add_argument("--json", action="store_true", help="print one JSON object")
    try:
        return parser.parse_args(argv)
    except SystemExit as end:
        raise SystemExit(USAGE if end.code else 0) from None


def average_of(weir: str) -> tuple[int, list[Finding]]:
    """The speed by which a running weir selects, in kbps."""
    answer = exchange(weir, "/stats.json")
    try:
        return int(json.loads(answer.body)["avg_speed"]), []
    except (ValueError, KeyError, TypeError):
        return 0, [Finding("unreachable", f"http://{weir}/stats.json", answer.what or
                           "sends no statistics", Grade.UNREACHABLE, "master")]


def stream(weir: str, url: str, wanted: int) -> bytes:
    """The first bytes of a stream; fewer if no more arrive in time."""
    host, _, port = weir.partition(":")
    data, end = b"", time.monotonic() + NO_DATA + 2
    try:
        with socket.create_connection((host, int(port)), 2) as connection:
            path = f"/stream.ts?url={quote(url, safe='')}"
            connection.sendall(f"GET {path} HTTP/1.1\r\n\r\n".encode())
            while len(data.partition(b"\r\n\r\n")[2]) < wanted:
                connection.settimeout(max(end - time.monotonic(), 0.01))
                if not (more := connection.recv(131071)):
                    break
                data += more
    except (OSError, ValueError):
        pass
    return data.partition(b"\r\n\r\n")[2]


def compared(weir: str, url: str, report: Report) -> list[Finding]:
    """Findings if a running weir does not deliver the expected bytes."""
    where, wanted = f"http://{weir}/stream.ts", len(report.head) or 1
    got = stream(weir, url, wanted)[:wanted]
    if report.head and not got:
        return [Finding("weir-differs", where, "no data arrives", Grade.FATAL)]
    if got and not report.head:
        return [Finding("weir-differs", where, "delivers media anyway", Grade.NOTE)]
    ended = report.start and report.start.media and report.start.media.ended
    if ended and got != report.head:
        return [Finding("weir-differs", where, f"the first {wanted} bytes differ")]
    return []


def shown(report: Report, url: str) -> dict[str, object]:
    status = max((one.grade for one in report.findings), default=Grade.NOTE)
    start = report.start and {"url": report.start.url, "bandwidth": report.start.bandwidth}
    return {"url": url, "status": int(status), "verdict": VERDICTS[status], "start": start,
            "findings": [one.texts() for one in report.findings]}


def main(argv: list[str] | None = None) -> int:
    given = arguments(argv)
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="backslashreplace")
    maps = {name: getattr(given, name) for name in ("chunk", "playlist") if getattr(given, name)}
    average, found = average_of(given.weir) if given.weir else (0, [])
    report = look(Net(maps), given.url, average, given.all)
    if given.weir and not found:
        found = compared(given.weir, given.url, report)
    report.findings = merged(report.findings + found)
    result = shown(report, given.url)
    if given.json:
        print(json.dumps(result, indent=1))
    else:
        print(*report.findings, sep="\n", end="\n" if report.findings else "")
        start = f", begins with {report.start.url}" if report.start else ""
        print(f"{result['verdict']}{start}")
    return int(str(result["status"]))
