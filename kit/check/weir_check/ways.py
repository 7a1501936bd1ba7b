"""What the adapter and remux make of a stream, by the adapter's own rules."""

import base64
import json
import re
import shutil
import subprocess
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any
from urllib.parse import urlsplit

from .media import content, decrypt
from .net import Bounds, exchange
from .origin import DOCUMENT, Origins
from .waiting import Deadline
from .weir import take_apart

HERE = Path(__file__).resolve().parent
RULES = (HERE.parent.parent / "adapter", HERE.parent / "adapter")  # in the source tree; installed
ADDRESS = "http://127.0.0.1:7750"
AT_ONCE, ROUNDS = 16, 50  # subrequests, and runs for one request
SAMPLES = 4  # segments that are tried
TIME = 10  # s for all questions
TAIL = "bytes=-32"  # of a Range field: what the adapter decrypts first
UNLISTED = re.compile(r"not a listed origin: ([^\s;]+)")
UNPLAYABLE = ("text", "mp4")


@dataclass(frozen=True)
class Way:
    plays: bool | None  # None if that is unknown
    why: str


@dataclass(frozen=True)
class Told:
    """The adapter's answer: status, reason, and a playlist or the beginning of a segment."""
    status: int
    reason: str
    text: str = ""
    data: bytes = b""
    origins: str = ""  # to be listed


class Unknown(Exception):
    """The adapter can't be asked."""


class Installed:
    """A running adapter."""

    def __init__(self, server: str) -> None:
        self.server = server

    def ask(self, path: str, deadline: Deadline) -> Told:
        answer = exchange(self.server, path, 0, Bounds(deadline.left(), DOCUMENT, True))
        if not answer.status:
            raise Unknown(f"{self.server} {answer.what}")
        return Told(answer.status, answer.value("X-Weir-Adapter") or answer.what,
                    answer.body.decode("utf-8", "replace"), answer.body)


class Rules:
    """The adapter's script, run by njs with the origins' replies."""

    def __init__(self, origins: Origins) -> None:
        self.fetched, self.origins = origins, ""
        self.folder = next((folder for folder in RULES if (folder / "adapter.js").exists()), None)

    def ask(self, path: str, deadline: Deadline) -> Told:
        replies: dict[str, object] = {}
        for _ in range(ROUNDS):
            told = self.run({"uri": path, "origins": self.origins, "replies": replies}, deadline)
            if wanted := told["wanted"][:AT_ONCE]:
                replies.update(self.replies(wanted, deadline))
            elif new := set(UNLISTED.findall(told["reason"])).difference(self.origins.split()):
                self.origins = " ".join([self.origins, *sorted(new)]).strip()
            else:
                break
        if told["target"]:
            reply, = self.fetched.ask([(told["target"],)], deadline.left())
            data = reply.body
            if told["key"]:
                data = decrypt(data, bytes.fromhex(told["key"])) or b""
            return Told(reply.status, reply.why, "", data, self.origins)
        data = base64.b64decode(told["media"])
        return Told(told["status"], told["reason"], told["text"], data, self.origins)

    def replies(self, wanted: list[list[str]], deadline: Deadline) -> dict[str, object]:
        """Of the subrequests: location, method and URL."""
        answers = self.fetched.ask([question(*one) for one in wanted], deadline.left())
        return {" ".join(one): {"status": reply.status, "fields": reply.fields, "why": reply.why,
                                "body": base64.b64encode(reply.body).decode()}
                for one, reply in zip(wanted, answers)}

    def run(self, asked: dict[str, object], deadline: Deadline) -> dict[str, Any]:
        if not shutil.which("njs") or not self.folder:
            raise Unknown("install njs to run its rules, or name a running adapter with --adapter")
        script = f"const asked = {json.dumps(asked)};\n{(HERE / 'rules.js').read_text()}"
        run = subprocess.run(["njs", "-t", "module", "-p", str(self.folder), "-"], input=script, text=True,
                             capture_output=True, timeout=max(deadline.left(), 0.1))
        if run.returncode:
            raise Unknown(f"its rules can't be run: {run.stdout}{run.stderr}")
        return dict(json.loads(run.stdout.replace("\n", "")))


def question(location: str, method: str, url: str) -> tuple[str, ...]:
    if location == "/tail":
        return url, method, TAIL
    return (url, method) if method != "GET" else (url,)


def adapters(ask: Callable[[str, Deadline], Told], url: str) -> Way:
    """Whether the adapter delivers a playlist and a segment of a stream to weir."""
    parts = urlsplit(url)
    path = f"/{parts.scheme}/{parts.netloc}{parts.path or '/'}" + (f"?{parts.query}" if parts.query else "")
    deadline, told = Deadline(TIME), Told(0, "")
    try:
        told = ask(path, deadline)
        for _ in range(2):  # of the master playlist its first variant, and of that some segments
            lines = [line for line in told.text.splitlines() if line[:1] not in ("", "#")]
            if told.status != 200:
                break
            for line in lines[:SAMPLES]:
                told = ask((take_apart(line) or ("", 0, line))[2], deadline)
                if told.status // 100 == 2:
                    break
    except subprocess.TimeoutExpired:
        return Way(None, f"it takes more than {TIME} s to ask")
    except Unknown as error:
        return Way(None, str(error))
    if told.status // 100 != 2:
        return Way(False, told.reason or f"answers {told.status}")
    if not told.data or content(told.data) in UNPLAYABLE:
        return Way(False, f"a segment begins with {told.data[:16]!r}")
    return Way(True, f"as {ADDRESS}{path}" + (f"; list {told.origins} in its settings.conf"
                                              if told.origins else ""))


def remuxes(adapter: Way) -> Way:
    """The adapter names remux for what that can mend."""
    if adapter.plays is None:
        return Way(None, "not asked")
    if adapter.plays:
        return Way(None, "not needed")
    return Way("remux" in adapter.why, adapter.why)
