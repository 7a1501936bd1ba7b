"""One variant: the segments that arrive, and why others do not."""

from dataclasses import dataclass

from .findings import Finding, Grade, capped, raised
from .media import content, decrypt, table_is_intact
from .net import HEAD, SEGMENT, Answer
from .origin import resolve
from .pages import Page, Pages, address_findings
from .texts import attributes, key_cause, media_findings
from .weir import DELAY, FAILED_IN_A_ROW, NO_DATA, Media, Segment, number, take_apart

SAMPLES = 4  # segments of a variant that are fetched, unless all are
PLAYS = ("ts", "audio")
# Findings that never cost a playlist of several segments all of them.
PARTIAL = ("number-zero", "numbers-jump", "byte-range", "gap", "vector", "window",
           "target-duration", "long-segments", "no-number")


@dataclass
class Fate:
    """The outcome of downloading a segment."""
    data: bytes = b""
    lost: bool = False
    junk: bool = False  # arrives, but is not playable
    delay: int = 0  # s that the failure costs


def lost_by(code: str) -> Fate:
    """The outcome of four failed downloads, a second apart."""
    return Fate(lost=True, delay=4 * DELAY.get(code, 0) + 3)


class Viewing:
    def __init__(self, pages: Pages, media: Media, silence: int) -> None:
        self.pages, self.net, self.media = pages, pages.net, media
        self.silence = silence  # s since the player last received data
        self.found = list(media_findings(media))
        self.key, self.key_page = b"", Page("", b"", [])
        self.head = b""  # the first bytes that arrive
        self.arrived = 0
        self.bits = self.duration = 0.0  # of the segments looked at
        self.speed = 0.0  # kbps, the best of their downloads
        self.over = False  # all segments have been considered

    @property
    def findings(self) -> list[Finding]:
        return self.found if self.arrived or not self.over else self.nothing_arrives()

    @property
    def rate(self) -> int:
        """Measured, in kbps."""
        return int(self.bits / self.duration) >> 10 if self.duration else 0

    def go(self, every: bool) -> None:
        fates: dict[tuple[str, bool, bool], Fate] = {}
        fate, last, failed, looks = Fate(), 0, 0, 0
        for segment in self.media.segments:
            if segment.number <= last:
                continue
            kind = segment.key_url, take_apart(segment.url) is None, segment.missing()
            known = kind in fates and not fates[kind].lost
            if every or (not known and looks < SAMPLES):
                looks += 1
                self.silence += self.load_key(segment)
                fates[kind] = self.examine(segment)
            fate = fates.get(kind, fate)
            failed, self.silence = failed + fate.lost, self.silence + fate.delay
            if failed == FAILED_IN_A_ROW or self.silence > NO_DATA:
                break
            if not fate.lost:
                last, failed, self.silence = segment.number, 0, 0
                self.head = self.head or fate.data
                self.arrived += not fate.junk
                if segment is self.media.last:
                    break
        if self.silence > NO_DATA and not fate.lost:
            self.note("too-late", self.media.url, f"media would arrive after {self.silence} s")
        self.over = True

    def nothing_arrives(self) -> list[Finding]:
        causes = [one for one in self.found if one.grade and one.code not in PARTIAL] or self.found
        return raised(causes) + [one for one in self.found if one not in causes]

    def note(self, code: str, where: str, what: str, grade: Grade = Grade.LOSS) -> None:
        self.found.append(Finding(code, where, what, grade))

    def load_key(self, segment: Segment) -> int:
        """Returns the seconds wasted. A key that cannot be fetched is not requested again."""
        if not segment.key_url:
            self.key = b""
        elif segment.key_url != self.key_page.url:
            where = f"{self.media.url}:{segment.line}"
            self.key_page = self.pages.get(segment.key_url, where, "key")
            self.found += [one for one in self.key_page.findings if not one.grade]
            if self.key_page.loads:
                self.key = self.key_page.body
            elif set(self.key_page.codes) & {"no-length", "header-case"}:
                self.key = b""
            return self.key_page.delay
        return 0

    def examine(self, segment: Segment) -> Fate:
        where = f"{self.media.url}:{segment.line}"
        if segment.missing():
            return lost_by("status")
        if not segment.url:
            more = any(other.url and other.line > segment.line for other in self.media.segments)
            grade = Grade.LOSS if more or not self.media.ended else Grade.NOTE
            self.note("blank-line", where, "an empty line", grade)
            return lost_by("relative-url")
        address = resolve(self.media.url, segment.url)
        answer = self.net.get(address, 0, SEGMENT)
        self.found += address_findings(segment.url, where, answer)
        self.found += self.net.compare(address, answer, SEGMENT)
        if answer.code not in ("", "short", "stall"):
            self.found.append(answer.finding(address, where, "segment"))
            fate = lost_by(answer.code)
        else:
            self.measure(segment, answer)
            self.look_at_delivery(address, where, answer)
            fate = self.look_at_content(segment, where, answer)
        return fate if take_apart(segment.url) else lost_by("relative-url")

    def measure(self, segment: Segment, answer: Answer) -> None:
        if segment.duration() and not answer.code and "#EXT-X-BYTERANGE" not in self.media.tags:
            self.bits += 8 * (answer.length or len(answer.body))
            self.duration += segment.duration()
        if answer.seconds:
            self.speed = max(self.speed, len(answer.body) / answer.seconds / 128)

    def look_at_delivery(self, address: str, where: str, answer: Answer) -> None:
        """Checks that an interrupted download can be resumed."""
        half = max(len(answer.body) // 2, 1)
        rest = self.net.get(address, half, HEAD)
        said = rest.value("Content-Range") or "none"
        resumes = said.startswith(f"bytes {half}-")
        if answer.code:
            grade = Grade.NOTE if resumes and answer.code == "stall" else Grade.LOSS
            self.found.append(answer.finding(address, where, "segment", grade))
        if answer.http11 and not resumes:
            self.note("no-range", where, f"{answer.server} answers Range with {rest.status}, "
                      f"Content-Range: {said}", Grade.NOTE)

    def look_at_content(self, segment: Segment, where: str, answer: Answer) -> Fate:
        data: bytes | None = answer.body
        if self.key and answer.http11:
            data = decrypt(answer.body, self.key)
        if data is None:
            self.note("no-cipher", where, "the segment is encrypted", Grade.NOTE)
            return Fate()
        kind = content(data)
        junk = kind not in (*PLAYS, "damaged")
        if segment.key_url:
            self.explain_key(segment, where, answer, data)
        elif kind == "mp4" or ("#EXT-X-MAP" in self.media.tags and junk):
            self.note("fragmented-mp4", where, "the segment is part of an MP4 file")
        elif junk:
            junk = kind == "text" or not data  # other unknown formats may be playable
            self.note("not-media", where, f"the segment begins with {data[:16]!r}", Grade(junk))
        return Fate(data, junk=junk)

    def explain_key(self, segment: Segment, where: str, answer: Answer, data: bytes) -> None:
        """Reports why a segment is decrypted wrongly; only a note if it is playable anyway."""
        kind, cause = content(data), key_cause(segment)
        grade = Grade.NOTE if kind in PLAYS else Grade.LOSS
        if cause:
            self.note(cause[0], where, cause[1], grade)
        elif not self.key_page.loads:
            self.found += capped([one for one in self.key_page.findings if one.grade], grade)
        elif not answer.http11:
            self.note("http-1.0", where, f"{answer.server} speaks HTTP/1.0", grade)
        elif len(self.key) < 16:
            self.note("key-size", where, f"the key has {len(self.key)} bytes", grade)
        elif kind not in (*PLAYS, "damaged"):
            self.note("wrong-key", where, "the decrypted data is not media")
        vector = attributes(segment.key_line).get("IV", "")
        if kind == "damaged" or (is_set(vector, segment.number) and (
                vector if grade else table_is_intact(data) is None)):
            self.note("vector", where, "the vector is " + (vector or "the segment's number"))


def is_set(vector: str, segment_number: int) -> bool:
    """Whether the vector is not zero; by default it is the segment's number (RFC 8216, 5.2)."""
    try:
        return int(vector, 16) != 0 if vector else segment_number != 0
    except ValueError:
        return number(vector) != 0
