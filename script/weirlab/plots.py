"""Figures as SVG, with Debian's matplotlib where it is installed."""

from collections.abc import Iterable, Mapping, Sequence
from pathlib import Path

Line = tuple[Sequence[float], Sequence[float]]


def plot(path: Path, x_label: str, panels: Mapping[str, Mapping[str, Line]], style: str = "-",
         marks: Iterable[tuple[float, str]] = ()) -> None:
    """A panel below the other for each label of a y axis, with lines by name.

    `marks` are vertical lines of a colour through all panels.
    """
    import matplotlib  # pylint: disable=import-outside-toplevel  # it takes a second
    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "weir"
    from matplotlib import pyplot  # pylint: disable=import-outside-toplevel
    figure, rows = pyplot.subplots(len(panels), 1, figsize=(10, 3 * len(panels)), sharex=True)
    for axes, (y_label, lines) in zip(rows, panels.items()):
        for name, line in lines.items():
            axes.plot(*line, style, label=name)
        for when, colour in marks:
            axes.axvline(when, color=colour, linewidth=0.6, alpha=0.6)
        axes.set_ylabel(y_label)
        axes.set_ylim(bottom=0)
        axes.legend(loc="lower right", ncols=3)
    rows[-1].set_xlabel(x_label)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
