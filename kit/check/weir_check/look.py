"""The whole stream: the variant that weir starts with, then all others, then a live playlist again."""

import re
import time
from dataclasses import dataclass, field, replace
from itertools import takewhile

from .findings import Finding, Grade, capped, raised
from .net import Net, is_live
from .origin import Origins
from .pages import Page, Pages
from .texts import master_findings, numbering_findings
from .viewing import Viewing
from .waiting import Deadline
from .ways import Installed, Rules, Way, adapters
from .weir import (DELAY, NO_DATA, Media, Variant, is_hls, order_of_trial, parse_master,
                   parse_media, patience)

NO_MASTER = ("not-hls", "media-playlist")
TOO_MUCH, TOO_LITTLE = 1.5, 0.1  # of the declared bandwidth
PATIENCE = 1.5  # longest segments, after which a live playlist must list another
POLL = 1  # s
OF_ADAPTER = re.compile(r"/https?/[^/]+/.*[?&]weir=-?[0-9]+$")


@dataclass
class Look:
    """A variant, with what is known of it so far."""
    variant: Variant
    found: list[Finding]
    viewing: Viewing | None = None


@dataclass
class Survey:
    """A stream. The results may be read while `go` still runs."""
    net: Net
    url: str
    average: int  # the speed in kbps that weir has measured so far
    every: bool
    adapter_at: str
    deadline: Deadline
    found: list[Finding] = field(default_factory=list)
    looks: list[Look] = field(default_factory=list)
    start: Look | None = None  # what is played first
    adapter: Way = Way(None, "not asked for lack of time")
    over: bool = False

    def go(self) -> None:
        origins = Origins()
        self.pages = Pages(self.net, origins)
        master = self.pages.get(self.url, self.url, "master")
        self.found += of_master(master)
        variants = list(parse_master(master.text))
        if any(one.grade and one.code in NO_MASTER for one in self.found):
            variants = []
        elif all(variant.is_tag() for variant in variants) and (master.loads or master.body):
            self.found.append(Finding("no-variants", self.url, "lists no variant", Grade.FATAL))
        self.begin(variants)
        self.ask_adapter(origins)
        for variant in variants:
            if variant not in [look.variant for look in self.looks]:
                self.view(self.load(variant), 0)
        if self.start:
            self.found += self.across_variants(variants)
        seen = [look for look in ([self.start] if self.start else self.looks) if look.viewing]
        if seen and seen[0].viewing:
            self.look_again(seen[0].viewing.media, seen[0].found)
        else:
            self.look_again(parse_media(master.text, master.url), self.found)
        self.over = True

    def begin(self, variants: list[Variant]) -> None:
        """What weir does until media arrives."""
        delay = 0
        for variant in order_of_trial(variants, self.average):
            look = self.load(variant)
            if variant.media:
                self.start = look
                self.view(look, delay)
                break
            delay += variant.delay
        for look in self.looks:
            if look is not self.start:
                self.view(look, 0)

    def load(self, variant: Variant) -> Look:
        """Reads the variant's playlist, even if weir could not fetch it."""
        where = f"{self.url}:{variant.line}"
        look = Look(variant, [])
        if variant.is_tag():
            variant.delay = DELAY["relative-url"]
            text = variant.url[:40] or "an empty line"
            look.found.append(Finding("tag-as-variant", where, text, Grade.NOTE))
        else:
            page = self.pages.get(variant.url, where, "variant", self.url)
            media = parse_media(page.text, page.url)
            if page.body and not is_hls(page.text):
                page.findings.append(Finding("not-hls", page.url, f"begins with {page.text[:20]!r}"))
            elif page.loads and not media.segments:
                page.findings.append(Finding("no-segments", page.url, "lists no segment"))
            if page.loads:
                variant.media = media
            variant.delay, look.found = page.delay, page.findings
            look.viewing = Viewing(self.pages, media, 0) if media.segments else None
        self.looks.append(look)
        return look

    def view(self, look: Look, delay: int) -> None:
        if look.viewing:
            look.viewing.silence = delay
            look.viewing.go(self.every)

    def ask_adapter(self, origins: Origins) -> None:
        self.net.waiting = self.url, "asking for the adapter's rules"
        if self.pages.refusal and not self.start:
            self.adapter = Way(False, self.pages.refusal)
        elif self.adapted:
            self.adapter = Way(None, "in front already")
        elif self.url.startswith(("http://~", "http://@")):
            self.adapter = Way(None, "not asked: the URL has no origin")
        else:
            asker: Installed | Rules = Installed(self.adapter_at) if self.adapter_at else Rules(origins)
            self.adapter = adapters(asker, self.url)

    @property
    def adapted(self) -> bool:
        return self.pages.adapted or any(OF_ADAPTER.search(look.variant.url) for look in self.looks)

    def across_variants(self, variants: list[Variant]) -> list[Finding]:
        """Findings about changes of the variant."""
        start = self.start.variant if self.start else None
        tried = list(takewhile(lambda variant: variant is not start, order_of_trial(variants, self.average)))
        left, found = [variant for variant in variants if variant not in tried], list[Finding]()
        for variant in left:
            if start and start.media and variant.media and variant is not start:
                found += numbering_findings(start.media, variant.media)
        for speed in sorted({variant.bandwidth >> 10 for variant in left}):
            failed = takewhile(lambda variant: not variant.media, order_of_trial(left, speed))
            if (delay := sum(variant.delay for variant in failed)) > NO_DATA:
                found.append(Finding("too-late", self.url, f"changing to {speed} kbps takes {delay} s"))
        return found + self.rates(left)

    def rates(self, variants: list[Variant]) -> list[Finding]:
        """Compares the declared bandwidths with those measured, and what weir then chooses."""
        looks = [look for look in self.looks if look.viewing and look.viewing.rate and look.variant.media]
        speed = int(max((look.viewing.speed for look in looks if look.viewing), default=0))
        choice = next((one for one in order_of_trial(variants, speed) if one.media), None)
        found = []
        for look in looks:
            rate, declared = look.viewing.rate if look.viewing else 0, look.variant.bandwidth >> 10
            if TOO_LITTLE * declared <= rate <= TOO_MUCH * max(declared, 1):
                continue
            if self.adapted and len(variants) == 1:  # the adapter's own master playlist
                continue
            starves = look.variant is choice and rate > speed
            effect = (f", though this network carries only {speed} kbps" if starves
                      else "" if rate > declared else " and up, though fewer would do")
            found.append(Finding("bandwidth", f"{self.url}:{look.variant.line}",
                                 f"segments have {rate} kbps, {declared} are declared: weir chooses them at "
                                 f"{declared} kbps{effect}", Grade(starves)))
        return found

    def look_again(self, media: Media, found: list[Finding]) -> None:
        """Waits until a live playlist has a new segment, or weir would give up."""
        if not is_live(media):
            return
        last = media.segments[-1]
        longest = max(media.target, *(segment.duration() for segment in media.segments))
        enough = max(patience(media.target), PATIENCE * longest)
        waited = time.monotonic() - media.read_at
        while waited < enough and self.deadline.left() > POLL:
            self.net.waiting = media.url, f"no new segment for {waited:.0f} s"
            time.sleep(POLL)
            answer = self.net.get(media.url)
            text = (answer.body if not answer.code else Origins().read(media.url)).decode("utf-8", "replace")
            now, waited = parse_media(text, media.url), time.monotonic() - media.read_at
            if not now.segments:
                found.append(Finding("no-segments", media.url, f"lists no segment after {waited:.0f} s"))
                return
            newest = now.segments[-1]
            if newest.number < last.number and "#EXT-X-MEDIA-SEQUENCE" in now.tags:
                found.append(Finding("numbers-jump", media.url,
                                     f"{newest.number} follows {last.number} after {waited:.0f} s"))
            if now.ended or newest.url != last.url:
                return
        told = waited >= enough
        found.append(Finding("stalled", media.url, f"no new segment in {waited:.0f} s" + (
            "" if told else f", of {enough:.0f} that would tell"), Grade(told)))

    @property
    def findings(self) -> list[Finding]:
        found, looks, start = list(self.found), list(self.looks), self.start
        for look in looks:
            viewed = look.viewing.findings if look.viewing else []
            if start is None:
                found += (look.found if look.variant.is_tag() else raised(look.found)) + viewed
            else:
                most = Grade.FATAL if look is start else Grade.LOSS if look.variant.media else Grade.NOTE
                found += capped(look.found + viewed, most)
        if not self.over:
            arrives = start and start.viewing and start.viewing.arrived
            where, state = self.net.waiting
            found.append(Finding("no-time", where, f"the time is over: {state}",
                                 Grade.NOTE if arrives else Grade.FATAL))
        return found


def of_master(master: Page) -> list[Finding]:
    """The findings of a master playlist; a failure to load it is fatal or unreachable."""
    texts = list(master_findings(master.text, master.url)) if master.body else []
    if any(one.code in NO_MASTER for one in texts):
        return raised(master.findings + texts)
    if master.reachable:
        return raised(master.findings) + texts
    return [replace(one, grade=Grade.UNREACHABLE) if one.grade else one for one in master.findings]
