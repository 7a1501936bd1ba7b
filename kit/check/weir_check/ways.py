"""What the adapter and remux make of a stream, by the adapter's own rules."""

import base64
import json
import re
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Any
from urllib.parse import unquote, urlsplit

from .media import content, decrypt
from .net import Bounds, exchange
from .origin import DOCUMENT, Origins
from .waiting import Deadline
from .weir import parse_media, take_apart

HERE = Path(__file__).resolve().parent
RULES = (HERE.parent.parent / "adapter", HERE.parent / "adapter")  # in the source tree; installed
ADDRESS = "http://127.0.0.1:7750"
MEDIA = re.compile(r"/(https?)-(?:segment|key)/(.*?)[?&]weir=([^&]*)$")  # an address of the adapter's
UNLISTED = re.compile(r"not a listed origin: ([^\s;]+)")
AT_ONCE, ROUNDS = 16, 50  # requests, and runs for one answer
SAMPLES = 4  # segments that are tried
TIME = 10  # s for all questions


@dataclass(frozen=True)
class Way:
    plays: bool | None  # None if that is unknown
    why: str


@dataclass(frozen=True)
class Told:
    """The adapter's answer."""
    status: int
    reason: str
    body: bytes

    @property
    def urls(self) -> list[str]:
        lines = self.body.decode("utf-8", "replace").splitlines()
        return [line for line in lines if line[:1] not in ("", "#")]


class Unknown(Exception):
    """The adapter can't be asked."""


class Missing(Exception):
    """A key or segment that the adapter can't have."""


class Installed:
    """A running adapter."""
    origins = ""

    def __init__(self, server: str) -> None:
        self.server = server

    def ask(self, path: str, deadline: Deadline) -> Told:
        answer = exchange(self.server, path, 0, Bounds(deadline.left(), DOCUMENT, True))
        if not answer.status:
            raise Unknown(f"{self.server} {answer.what}")
        return Told(answer.status, answer.value("X-Weir-Adapter") or answer.what, answer.body)

    def media(self, path: str, key: str, deadline: Deadline) -> bytes:
        told = self.ask(path, deadline)
        if told.status // 100 != 2:
            raise Missing(told.reason)
        return decrypt(told.body, self.media(key, "", deadline)) or b"" if key else told.body


class Rules:
    """The adapter's script, run by njs with the origins' replies."""

    def __init__(self, origins: Origins) -> None:
        self.fetched, self.origins = origins, ""  # those that must be listed
        self.folder = next((folder for folder in RULES if (folder / "adapter.js").exists()), None)

    def ask(self, path: str, deadline: Deadline) -> Told:
        replies: dict[str, object] = {}
        for _ in range(ROUNDS):
            told = self.run({"uri": path, "origins": self.origins, "replies": replies}, deadline)
            if wanted := told["wanted"][:AT_ONCE]:
                for url, reply in zip(wanted, self.fetched.ask(wanted, deadline.left())):
                    replies[url] = {"status": reply.status, "fields": reply.fields, "why": reply.why,
                                    "body": base64.b64encode(reply.body[:DOCUMENT]).decode()}
            elif new := set(UNLISTED.findall(told["reason"])).difference(self.origins.split()):
                self.origins = " ".join([self.origins, *sorted(new)]).strip()
            else:
                break
        text = told["text"].encode("utf-8", "replace")
        return Told(told["status"], told["reason"], text)

    def run(self, asked: dict[str, object], deadline: Deadline) -> dict[str, Any]:
        if not shutil.which("njs") or not self.folder:
            raise Unknown("install njs to run its rules, or name a running adapter with --adapter")
        script = f"const asked = {json.dumps(asked)};\n{(HERE / 'rules.js').read_text()}"
        command = ["njs", "-t", "module", "-p", str(self.folder), "-"]
        run = subprocess.run(command, input=script, encoding="utf-8", errors="replace", capture_output=True,
                             timeout=max(deadline.left(), 0.1))
        if run.returncode:
            raise Unknown(f"its rules can't be run: {run.stdout}{run.stderr}")
        return dict(json.loads(run.stdout.replace("\n", "")))

    def media(self, path: str, key: str, deadline: Deadline) -> bytes:
        """Decrypted with the key of its address, which also has the vector, or of the playlist."""
        url, args = self.meaning(path)
        key = unquote(args[2]) if len(args) > 2 else key and self.meaning(key)[0]
        data = self.fetch(url)
        if key:
            data = decrypt(data, self.fetch(key)) or b""
        return bytes(map(int.__xor__, data, bytes.fromhex(args[1]))) + data[16:] if args[1:] else data

    def meaning(self, path: str) -> tuple[str, list[str]]:
        """Of an address: the origin's URL, and the arguments."""
        if not (found := MEDIA.match(path)):
            raise Missing(f"not a media playlist: it lists {path}")
        return f"{found[1]}://{found[2]}", found[3].split(",")

    def fetch(self, url: str) -> bytes:
        host = url.split("/")[2]
        if host not in self.origins.split():
            self.origins += f" {host}"
        if not (data := self.fetched.read(url)):
            raise Missing(f"nothing at {url}")
        return data


def path_of(address: str) -> str:
    return (take_apart(address) or ("", 0, address))[2]


def adapters(asker: Installed | Rules, url: str) -> Way:
    """Whether the adapter delivers a master playlist, a variant and a segment to weir."""
    deadline = Deadline(TIME)
    try:
        parts = urlsplit(url)
        query = f"?{parts.query}" if parts.query else ""
        path = f"/{parts.scheme}/{parts.netloc}{parts.path or '/'}{query}"
        told = asker.ask(path, deadline)
        if told.status == 200 and told.urls:
            told = asker.ask(path_of(told.urls[0]), deadline)
        if told.status != 200:
            return Way(False, told.reason or f"answers {told.status}")
        why = "it lists no segment"
        for one in parse_media(told.body.decode("utf-8", "replace"), "").segments[:SAMPLES]:
            try:
                data = asker.media(path_of(one.url), one.key_url and path_of(one.key_url), deadline)
                why = f"a segment begins with {data[:16]!r}"
            except Missing as missing:
                data, why = b"", str(missing)
            kind = content(data) if data else "text"
            if kind in ("ts", "damaged", "audio") or (kind == "unknown" and not one.key_url):
                return Way(True, f"as {ADDRESS}{path}" + (f"; list {asker.origins} in its settings.conf"
                                                          if asker.origins else ""))
        return Way(False, why)
    except subprocess.TimeoutExpired:
        return Way(None, f"unknown: it takes more than {TIME} s to ask")
    except Unknown as error:
        return Way(None, f"unknown: {error}")
    except ValueError as error:  # of a URL that is none
        return Way(False, str(error))


def remuxes(adapter: Way) -> Way:
    """The adapter names remux for what that can mend."""
    if adapter.plays is None:
        return Way(None, "not asked")
    if adapter.plays:
        return Way(None, "not needed")
    if "remux" in adapter.why:
        return Way(True, "says the adapter")
    return Way(False, "the adapter's reason does not name it")
