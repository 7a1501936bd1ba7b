"""The result of a soak: summary.json, summary.md, events.csv and soak.svg."""

import csv
import json
import re
from collections import Counter

from live.plots import soak_plot

KEPT = 16  # MiB of PSS that may stay above the base: the allocator's, not a stream's


def slope(rows, name):
    """MiB an hour, by least squares."""
    if len(rows) < 3:
        return 0.0
    times = [row["seconds"] / 3600 for row in rows]
    values = [row[name] for row in rows]
    time_mean, value_mean = sum(times) / len(times), sum(values) / len(values)
    return (sum((t - time_mean) * (v - value_mean) for t, v in zip(times, values))
            / sum((t - time_mean) ** 2 for t in times))


def course(samples, name):
    values = [row[name] for row in samples]
    return f"{values[0]:.0f} / {values[-1]:.0f} / {max(values):.0f}"


def complaints(path):
    """weir's own words, by kind."""
    lines = (re.sub(r"http\S+|\d+|HTTP/.*", "", line).strip()
             for line in path.read_text(errors="replace").splitlines())
    return Counter(lines).most_common(20)


def verdicts(soak, base, left, crashed, broken):
    totals = soak.audience.totals
    faults = {"weir crashed": crashed, "the run itself failed": broken,
              "wrong bytes": totals["wrong"] > 0, "segments repeated": totals["repeated"] > 0,
              "unexplained short segments": bool(soak.audience.unexplained),
              "threads not returned": left["threads"] > base["threads"],
              "descriptors not returned": left["descriptors"] > base["descriptors"],
              "memory not returned": left["pss"] > base["pss"] + KEPT}
    return [name for name, holds in faults.items() if holds]


def figures(soak, duration, base, left, failed):
    audience, samples = soak.audience, soak.samples
    warm = [row for row in samples if row["seconds"] > min(300, duration / 5)]
    late = [row for row in samples if row["seconds"] > duration / 2]
    totals = audience.totals
    poller = json.loads((soak.rig.work / "poller.json").read_text() or "{}")
    counts = soak.journal.counts()
    faults = {k: n for k, n in sorted(counts.items()) if k not in ("end", "no server")}
    faults["kill"] = len([e for e in soak.journal.events if e[1] == "kill" and not e[3]])
    return {
        "result": "failed: " + ", ".join(failed) if failed else "passed",
        "duration, minutes": round(duration / 60, 1),
        "bytes received": totals["received"],
        "bytes verified": totals["verified"],
        "wrong bytes": totals["wrong"],
        "first wrong byte": audience.first_wrong or "none",
        "whole segments": totals["segments"],
        "segments repeated": totals["repeated"],
        "short segments, explained by a cut": totals["short, explained"],
        "segments begun anew after two faults": totals["restarted"],
        "short segments, unexplained": len(audience.unexplained),
        "unexplained": audience.unexplained[:10],
        "missing segments": {k: n for k, n in totals.items() if k.startswith("missing")},
        "faults injected": faults,
        "seconds in which weir knew no living cache": counts["no server"],
        "players served": dict(audience.served),
        "streams that changed the variant": totals["more than one variant"],
        "ends of streams": dict(sorted(audience.ends.items())),
        "connections refused": audience.failed_opens,
        "RSS slope after warm-up, MiB/h": round(slope(warm, "rss"), 2),
        "RSS slope of the second half, MiB/h": round(slope(late, "rss"), 2),
        "PSS slope after warm-up, MiB/h": round(slope(warm, "pss"), 2),
        "RSS first / last / max, MiB": course(samples, "rss"),
        "descriptors first / last / max": course(samples, "descriptors"),
        "threads first / last / max": course(samples, "threads"),
        "before the first player": {k: round(v, 1) for k, v in base.items()},
        "after the last player": {k: round(v, 1) for k, v in left.items()},
        "statistics": poller,
        "weir's complaints": dict(complaints(soak.rig.work / "weir.err")),
    }


def cell(value):
    if not value and not isinstance(value, int):
        return "none"
    if isinstance(value, dict):
        return ", ".join(f"{k} {round(v, 4) if isinstance(v, float) else v}" for k, v in value.items())
    return f"{value:,}" if isinstance(value, int) else str(value)


def write(soak, duration, base, left, crashed, broken):
    """Writes all, prints the summary and returns the exit status."""
    failed = verdicts(soak, base, left, crashed, broken)
    summary = figures(soak, duration, base, left, failed)
    (soak.out / "summary.json").write_text(json.dumps(summary, indent=1))
    lines = ["| | |", "| --- | --- |", *(f"| {name} | {cell(v)} |" for name, v in summary.items())]
    (soak.out / "summary.md").write_text("\n".join(lines + [""]))
    with open(soak.out / "events.csv", "w", newline="", encoding="utf-8") as file:
        csv.writer(file).writerows([["seconds", "kind", "where", "what"], *soak.journal.events])
    soak_plot(soak.samples, soak.journal.events, soak.out / "soak.svg")
    print("\n".join(lines), flush=True)
    return 1 if failed else 0
