"""The whole stream: all variants, and the one that weir starts with."""

from dataclasses import dataclass, field, replace

from .findings import Finding, Grade, capped, raised
from .net import Net
from .pages import Page, page_of
from .texts import master_findings, numbering_findings
from .viewing import Viewing
from .weir import (DELAY, NO_DATA, Media, Variant, is_hls, order_of_trial, parse_master,
                   parse_media)


NO_MASTER = ("not-hls", "media-playlist")


@dataclass
class Report:
    findings: list[Finding] = field(default_factory=list)
    start: Variant | None = None  # the variant played first
    head: bytes = b""  # the first bytes that weir delivers


def look(net: Net, url: str, average: int, every: bool) -> Report:
    """`average` is the speed in kbps that weir has measured so far."""
    master = page_of(net, url, url, "master")
    report = Report(of_master(master))
    variants = list(parse_master(master.text))
    if any(one.grade and one.code in NO_MASTER for one in report.findings):
        return report
    if all(variant.is_tag() for variant in variants) and (master.loads or master.body):
        report.findings.append(Finding("no-variants", url, "lists no variant", Grade.FATAL))
    looks = [(variant, *load_variant(net, variant, url)) for variant in variants]
    report.start, failed = select(variants, average)
    delay = sum(variant.delay for variant in failed)
    for variant, found, media in looks:
        starts = variant is report.start
        viewed: list[Finding] = []
        if media:
            viewing = Viewing(net, media, delay if starts else 0)
            viewed = viewing.go(every)
            report.head = viewing.head if starts else report.head
        if report.start is None:
            report.findings += (found if variant.is_tag() else raised(found)) + viewed
        else:
            most = Grade.FATAL if starts else Grade.LOSS if variant.media else Grade.NOTE
            report.findings += capped(found + viewed, most)
    left = [variant for variant in variants if variant not in failed]
    report.findings += across_variants(left, report.start, url)
    return report


def of_master(master: Page) -> list[Finding]:
    """The findings of a master playlist; a failure to load it is fatal or unreachable."""
    texts = list(master_findings(master.text, master.url)) if master.body else []
    if any(one.code in NO_MASTER for one in texts):
        return raised(master.findings + texts)
    if master.reachable:
        return raised(master.findings) + texts
    return [replace(one, grade=Grade.UNREACHABLE) if one.grade else one for one in master.findings]


def load_variant(net: Net, variant: Variant,
                 master: str) -> tuple[list[Finding], Media | None]:
    """Reads the variant's playlist, even if weir could not fetch it."""
    where = f"{master}:{variant.line}"
    if variant.is_tag():
        variant.delay = DELAY["relative-url"]
        text = variant.url[:40] or "an empty line"
        return [Finding("tag-as-variant", where, text, Grade.NOTE)], None
    page = page_of(net, variant.url, where, "variant", master)
    media = parse_media(page.text, page.url)
    if page.body and not is_hls(page.text):
        page.findings.append(Finding("not-hls", page.url, f"begins with {page.text[:20]!r}"))
    elif page.loads and not media.segments:
        page.findings.append(Finding("no-segments", page.url, "lists no segment"))
    if page.loads:
        variant.media = media
    variant.delay = page.delay
    return page.findings, media if media.segments else None


def select(variants: list[Variant], average: int) -> tuple[Variant | None, list[Variant]]:
    """The variant that weir plays at that speed, and those that it tries before without success."""
    failed: list[Variant] = []
    for variant in order_of_trial(variants, average):
        if variant.media:
            return variant, failed
        failed.append(variant)
    return None, failed


def across_variants(variants: list[Variant], start: Variant | None, url: str) -> list[Finding]:
    """Findings about changes of the variant."""
    found: list[Finding] = []
    for variant in variants:
        if start and start.media and variant.media and variant is not start:
            found += numbering_findings(start.media, variant.media)
    for speed in sorted({variant.bandwidth >> 10 for variant in variants}):
        _, failed = select(variants, speed)
        if (delay := sum(variant.delay for variant in failed)) > NO_DATA:
            found.append(Finding("too-late", url, f"changing to {speed} kbps takes {delay} s"))
    return found
