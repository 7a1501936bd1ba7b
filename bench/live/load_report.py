"""The tables of the load run."""

import json
from dataclasses import dataclass
from statistics import mean, median

COLUMNS = ("streams", "Mbit/s", "MB verified", "wrong bytes", "missing / short / repeated",
           "ended early", "CPU %", "user / system", "PSS a stream, MiB", "RSS a stream, MiB",
           "threads", "descriptors", "switches/s a stream", "longest answer, ms",
           "nginx / players CPU %")


@dataclass
class Row:
    streams: int
    before: object
    after: object
    received: int
    lags: list
    early: int
    players: list
    samples: list
    idle: dict
    quiet: dict
    left: dict
    gone: dict
    switches: float
    answers: str

    def percent(self, *names):
        """Of a core, while measured."""
        used = sum(getattr(self.after, name) - getattr(self.before, name) for name in names)
        return 100 * used / (self.after.when - self.before.when)

    def total(self, name):
        values = [getattr(p.found, name) for p in self.players]
        return sum(len(v) if isinstance(v, list) else v for v in values)

    def a_stream(self, name):
        return (mean(s[name] for s in self.samples) - self.quiet[name]) / self.streams

    def highest(self, name):
        return max(s[name] for s in self.samples)

    def polls(self):
        return json.loads(self.answers)

    def sound(self):
        return (self.early == 0 and self.polls()["failures"] == 0
                and not any(self.total(x) for x in ("wrong", "missing", "shorts", "repeated"))
                and all(self.gone[x] <= self.idle[x] for x in ("threads", "descriptors")))


def print_head(options):
    print(f"{options.mbit:g} Mbit/s each, segments of {options.segment_seconds:g} s, "
          f"{'AES-128' if options.encrypted else 'clear'}, {options.silent} silent connections, "
          f"{options.seconds:g} s measured\n")
    print("| " + " | ".join(COLUMNS) + " |")
    print("| " + " | ".join("---" for _ in COLUMNS) + " |", flush=True)


def print_row(row):
    seconds = row.after.when - row.before.when
    cells = (row.streams, f"{row.received * 8 / seconds / 1e6:.0f}",
             f"{row.total('verified') / 1e6:,.0f}", row.total("wrong"),
             f"{row.total('missing')} / {row.total('shorts')} / {row.total('repeated')}", row.early,
             f"{row.percent('user', 'system'):.1f}",
             f"{row.percent('user'):.1f} / {row.percent('system'):.1f}",
             f"{row.a_stream('pss'):.2f}", f"{row.a_stream('rss'):.2f}",
             row.highest("threads"), row.highest("descriptors"), f"{row.switches:.0f}",
             f"{row.polls()['longest'] * 1000:.0f}",
             f"{row.percent('nginx'):.1f} / {row.percent('players'):.1f}")
    print("| " + " | ".join(map(str, cells)) + " |", flush=True)


def print_details(rows):
    """Whether the streams kept up, how fast weir answered, and what it gave back."""
    print("\n| streams | behind the newest segment: median / most | longest pause, s "
          "| answers: median / 99 % / longest, ms; failed of | idle: RSS, PSS "
          "| after the streams: RSS, PSS, threads, descriptors | after all |")
    print("| --- | --- | --- | --- | --- | --- | --- |")
    for row in rows:
        polls = row.polls()
        times = " / ".join(f"{polls[x] * 1000:.1f}" for x in ("median", "p99", "longest"))
        gap = max(p.longest_gap for p in row.players)
        print(f"| {row.streams} | {median(row.lags):.0f} / {max(row.lags)} | {gap:.1f} "
              f"| {times}; {polls['failures']} of {polls['polls']} "
              f"| {row.idle['rss']:.1f}, {row.idle['pss']:.1f} | {state(row.left)} | {state(row.gone)} |")


def state(values):
    return (f"{values['rss']:.1f}, {values['pss']:.1f}, {values['threads']}, "
            f"{values['descriptors']}")


def plot(rows, path):
    from live.plots import curve_plot  # needs a second to load
    curve_plot([{"streams": row.streams, "cpu": row.percent("user", "system"),
                 "system": row.percent("system"),
                 "rss": mean(s["rss"] for s in row.samples),
                 "pss": mean(s["pss"] for s in row.samples)} for row in rows], path)
