"""A whole stream: which variant weir begins with, what arrives, and what keeps the rest."""

from dataclasses import dataclass, field, replace

from .findings import Finding, Grade, capped, raised
from .net import Net
from .pages import Page, page_of
from .texts import master_findings, media_findings, numbering_findings
from .viewing import Viewing
from .weir import (DELAY, NO_DATA, Variant, is_hls, order_of_trial, parse_master, parse_media)


@dataclass
class Report:
    findings: list[Finding] = field(default_factory=list)
    start: Variant | None = None  # what weir begins with
    head: bytes = b""  # of what it delivers


def look(net: Net, url: str, average: int, every: bool) -> Report:
    """`average` is the speed in kbps that weir has measured so far."""
    master = page_of(net, url, url, "master")
    report = Report(of_master(master))
    variants = list(parse_master(master.text))
    if not variants or any(one.code == "media-playlist" for one in report.findings):
        if master.body and is_hls(master.text) and not report.findings:
            report.findings.append(Finding("no-variants", url, "lists no variant", Grade.FATAL))
        return report
    found = {variant: load_variant(net, variant, url) for variant in variants}
    report.start, delay = select(variants, average)
    for variant, findings in found.items():
        if variant.media is None:
            report.findings += capped(findings, Grade.NOTE) if report.start else raised(findings)
            continue
        viewing = Viewing(net, variant.media, delay if variant is report.start else 0)
        findings += viewing.go(every)
        if variant is report.start:
            report.findings += findings
            report.head = viewing.head
        else:
            report.findings += capped(findings, Grade.LOSS)
    report.findings += across_variants(variants, report.start, url)
    return report


def of_master(master: Page) -> list[Finding]:
    """Without it there is nothing."""
    texts = list(master_findings(master.text, master.url)) if master.body else []
    if any(one.code in ("not-hls", "media-playlist") for one in texts):
        return raised(master.findings + texts)
    if master.reachable:
        return raised(master.findings) + texts
    return [replace(one, grade=Grade.UNREACHABLE) if one.grade else one for one in master.findings]


def load_variant(net: Net, variant: Variant, master: str) -> list[Finding]:
    where = f"{master}:{variant.line}"
    if not variant.url or variant.url.startswith("#"):
        variant.delay = DELAY["relative-url"]
        return [Finding("tag-as-variant", where, variant.url[:40] or "an empty line")]
    page = page_of(net, variant.url, where, "variant", master)
    media = parse_media(page.text, page.url)
    variant.delay = page.delay
    if page.body and not is_hls(page.text):
        return [*page.findings, Finding("not-hls", page.url, f"begins with {page.text[:20]!r}")]
    if page.loads and not media.segments:
        return [*page.findings, Finding("no-segments", page.url, "lists no segment")]
    if page.loads:
        variant.media = media
        return page.findings
    return page.findings + (list(media_findings(media)) if media.segments else [])


def select(variants: list[Variant], average: int) -> tuple[Variant | None, int]:
    """What weir plays at that speed, and after how many seconds; drops what failed on the way."""
    delay = 0
    for variant in order_of_trial(variants, average):
        if variant.media is not None:
            return variant, delay
        delay += variant.delay
        variants.remove(variant)
    return None, delay


def across_variants(variants: list[Variant], start: Variant | None, url: str) -> list[Finding]:
    """What matters when the speed changes."""
    found: list[Finding] = []
    for variant in variants:
        if start and start.media and variant.media and variant is not start:
            found += numbering_findings(start.media, variant.media)
    for speed in sorted({variant.bandwidth >> 10 for variant in variants}):
        _, delay = select(list(variants), speed)
        if delay > NO_DATA:
            found.append(Finding("too-late", url, f"to change to {speed} kbps takes {delay} s"))
    return found
