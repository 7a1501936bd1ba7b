"""Figures as SVG."""

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "weir"
from matplotlib import pyplot  # noqa: E402, which the backend has to precede

FAULT_ROWS = ("stall", "cut", "reset", "error", "trickle", "silence", "no server")


def save(figure, path):
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def soak_plot(samples, events, path):
    """RSS and descriptors over time, and below them every fault."""
    figure, (memory, counts, faults) = pyplot.subplots(
        3, 1, figsize=(10, 8), sharex=True, height_ratios=(3, 3, 2))
    minutes = [row["seconds"] / 60 for row in samples]
    memory.plot(minutes, [row["rss"] for row in samples], label="RSS")
    memory.plot(minutes, [row["pss"] for row in samples], label="PSS")
    memory.set_ylabel("MiB")
    for name in ("descriptors", "threads", "players"):
        counts.plot(minutes, [row[name] for row in samples], label=name)
    for axes in (memory, counts):
        axes.set_ylim(bottom=0)
        axes.legend(loc="lower center", ncols=3)
    for kind, colour in (("kill", "red"), ("revival", "green")):
        for when, _, _, _ in (e for e in events if e[1] == kind and not e[3]):
            for axes in (memory, counts, faults):
                axes.axvline(when / 60, color=colour, linewidth=0.6, alpha=0.6)
    for row, kind in enumerate(FAULT_ROWS):
        times = [e[0] / 60 for e in events if e[1] == kind]
        faults.plot(times, [row] * len(times), "|", markersize=6)
    faults.set_yticks(range(len(FAULT_ROWS)), FAULT_ROWS)
    faults.set_xlabel("minutes; red: a cache is killed, green: one is revived")
    save(figure, path)


def curve_plot(rows, path):
    """CPU and memory over the number of streams."""
    figure, (cpu, memory) = pyplot.subplots(1, 2, figsize=(10, 4))
    streams = [row["streams"] for row in rows]
    cpu.plot(streams, [row["cpu"] for row in rows], "o-", label="weir, user and system")
    cpu.plot(streams, [row["system"] for row in rows], "o--", label="of that system")
    cpu.set_ylabel("% of a core")
    memory.plot(streams, [row["rss"] for row in rows], "o-", label="RSS, whole process")
    memory.plot(streams, [row["pss"] for row in rows], "o-", label="PSS, whole process")
    memory.set_ylabel("MiB")
    for axes in (cpu, memory):
        axes.set_xlabel("live streams")
        axes.set_ylim(bottom=0)
        axes.grid(alpha=0.3)
        axes.legend()
    save(figure, path)
