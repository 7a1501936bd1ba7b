"""The command: arguments, the comparison with a running weir, and the output."""

import argparse
import io
import json
import socket
import sys
from functools import partial
from typing import Any
from urllib.parse import quote

from .findings import VERDICTS, Finding, Grade, merged, printable
from .look import Survey
from .net import Net, exchange
from .waiting import Deadline, begin
from .ways import remuxes
from .weir import NO_DATA

USAGE = 64  # exit status
LIMIT, RESERVE = 30, 3  # s for everything, and of these for the output
COMPARED = 1 << 18  # bytes of a running weir's stream
PLAYS = {True: "plays it, ", False: "does not play it: ", None: ""}


def arguments(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="weir-check", description="Diagnoses why weir does not play a stream.",
        epilog="Exit status: 0 playable, 1 with loss, 2 not playable, 3 not reachable, 64 usage.")
    parser.add_argument("url", help="of a master playlist, as given to weir")
    parser.add_argument("--chunk", metavar="MAP", help="the caches of http://@/")
    parser.add_argument("--playlist", metavar="MAP", help="the caches of http://~/")
    parser.add_argument("--weir", metavar="HOST:PORT", help="also stream from this weir")
    parser.add_argument("--adapter", metavar="HOST:PORT", help="ask this adapter, not its script")
    parser.add_argument("--seconds", metavar="N", type=int, default=LIMIT,
                        help=f"end after that time, at least the usual {LIMIT}")
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
    except (ValueError, KeyError, TypeError, RecursionError):
        return 0, [Finding("unreachable", f"http://{weir}/stats.json", answer.what or
                           "sends no statistics", Grade.UNREACHABLE, "master")]


def stream(weir: str, url: str) -> bytes:
    """The first bytes of a stream; fewer if no more arrive in time."""
    host, _, port = weir.partition(":")
    data, deadline = b"", Deadline(NO_DATA + 2)
    try:
        with socket.create_connection((host, int(port)), 2) as connection:
            path = f"/stream.ts?url={quote(url, safe='', errors='surrogateescape')}"
            connection.sendall(f"GET {path} HTTP/1.1\r\n\r\n".encode())
            while len(data.partition(b"\r\n\r\n")[2]) < COMPARED:
                connection.settimeout(max(deadline.left(), 0.01))
                if not (more := connection.recv(131071)):
                    break
                data += more
    except (OSError, ValueError):
        pass
    return data.partition(b"\r\n\r\n")[2][:COMPARED]


def compared(weir: str, got: bytes, survey: Survey) -> list[Finding]:
    """Findings if a running weir does not deliver the expected bytes."""
    where, viewing = f"http://{weir}/stream.ts", survey.start and survey.start.viewing
    wanted = viewing.head[:COMPARED] if viewing else b""
    if wanted and not got:
        return [Finding("weir-differs", where, "no data arrives", Grade.FATAL)]
    if got and not wanted:
        return [Finding("weir-differs", where, "delivers media anyway", Grade.NOTE)]
    if viewing and viewing.media.ended and got[:len(wanted)] != wanted:
        return [Finding("weir-differs", where, f"the first {len(wanted)} bytes differ")]
    return []


def shown(survey: Survey, findings: list[Finding]) -> dict[str, object]:
    status = max((one.grade for one in findings), default=Grade.NOTE)
    start = survey.start and {"url": printable(survey.start.variant.url),
                              "bandwidth": survey.start.variant.bandwidth}
    remux = remuxes(survey.adapter)
    help_ = ("put the adapter of docs/sources.md in front" if survey.adapter.plays
             else "set up remux, as the adapter says" if remux.plays else "")
    ways = {name: {"plays": way.plays, "why": printable(way.why)}
            for name, way in {"adapter": survey.adapter, "remux": remux}.items()}
    return {"url": printable(survey.url), "status": int(status), "verdict": VERDICTS[status], "start": start,
            **ways, "findings": [one.texts(help_) for one in findings]}


def text_of(result: dict[str, Any]) -> str:
    lines = ["{grade} {code} {where}: {what}; weir {weir}. Mend: {mend}.".format_map(one)
             for one in result["findings"]]
    start = f", begins with {result['start']['url']}" if result["start"] else ""
    lines.append(f"weir: {result['verdict']}{start}")
    for name in "adapter", "remux":
        lines.append(f"{name}: {PLAYS[result[name]['plays']]}{result[name]['why']}")
    return "\n".join(lines)


def check(given: argparse.Namespace) -> dict[str, object]:
    deadline = Deadline(max(given.seconds, LIMIT) - RESERVE)
    maps = {name: getattr(given, name) for name in ("chunk", "playlist") if getattr(given, name)}
    net, found = Net(maps), list[Finding]()
    survey = Survey(net, given.url, 0, given.all, given.adapter or "", deadline)
    try:
        if given.weir:
            net.waiting = given.weir, "asking weir for its statistics"
            survey.average, found = begin(partial(average_of, given.weir))(deadline.left())
        playing = begin(partial(stream, given.weir, given.url)) if given.weir and not found else None
        begin(survey.go)(deadline.left())
        if playing:
            found = compared(given.weir, playing(deadline.left()), survey)
    except TimeoutError:  # usually of the survey, which tells what it is waiting for
        late = Finding("no-time", given.weir, "its stream has not ended", Grade.NOTE)
        found += [late] if survey.over else []
    return shown(survey, merged(survey.findings + found))


def main(argv: list[str] | None = None) -> int:
    given = arguments(argv)
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="backslashreplace")
    result = check(given)
    print(json.dumps(result, indent=1) if given.json else text_of(result))
    return int(str(result["status"]))
