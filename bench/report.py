"""What a run finds: figures with goals, tables and curves; printed, and kept as data and plots."""

import csv
import json
import os
import pathlib
import platform
import shutil
import statistics
import subprocess
import sys
import time
from typing import NamedTuple, Optional

import matplotlib
matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "bench"  # the same picture for the same numbers
from matplotlib import pyplot  # noqa: E402
from matplotlib.ticker import FuncFormatter  # noqa: E402

PACKAGES = ["mosquitto", "libmosquitto1", "liblua5.2-0", "liblog4cpp5v5", "libmsgpack-cxx-dev",
            "libc6", "g++"]
PLAIN = FuncFormatter(lambda value, _: f"{value:,g}")  # 1,000, not 10³
FIGURES = "figures.json"
ECHO = "echo"  # the echo client, as what a figure stands beside
COLORS = ["#1f5fa8", "#c4541a", "#3a8a4d", "#7a4b9a", "#8a6d1f", "#555555"]


class Figure(NamedTuple):
    case: str
    name: str
    unit: str
    beside: str               # what the service was compared with: ECHO, a commit, or nothing
    service: float            # a median where it was measured more than once
    partner: Optional[float]  # the same of what it was compared with
    ratio: Optional[float]    # the median of the pairs' ratios, service / partner
    low: Optional[float]      # the least and the greatest of what the goal is about: the ratios,
    high: Optional[float]     # or without a partner, the service's values
    goal: str                 # "at most 1.3", or nothing
    met: Optional[bool]

    def cells(self):
        spread = "" if self.low is None else f"{number(self.low)} to {number(self.high)}"
        goal = self.goal and f"{self.goal}{'' if self.met else ': missed'}"
        return [self.name, self.unit, number(self.service), number(self.partner),
                number(self.ratio), spread, goal]


def heads_of(ours, partner):
    return ["", "unit", ours, partner, "ratio", "spread", "goal"]


def number(value):
    """Three significant digits, and no fewer than the whole part has."""
    if value is None:
        return ""
    if value == 0 or abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.3g}"


class NotResults(Exception):
    """The folder for the results holds something else."""


def any_files(directory):
    return directory.exists() and (not directory.is_dir() or any(directory.iterdir()))


class Report:
    """Collects what the cases find, and writes it to `directory`."""

    def __init__(self, directory, quick, other=None):
        """`other` is the rig.Build that the service is compared with besides the echo client."""
        self.directory = pathlib.Path(directory)
        if any_files(self.directory) and not (self.directory / FIGURES).exists():
            raise NotResults(f"{directory} has other files than results; they would be lost")
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir(parents=True)
        (self.directory / FIGURES).write_text("[]\n")  # so that an unfinished run can be replaced
        self.case = ""
        self.figures = []
        self.tables = []
        self.notes = []
        self.other = other
        self._quick = quick
        self._begin = time.monotonic()

    def progress(self, text):
        """One line on standard error, which a terminal replaces by the next."""
        line = f"[{time.monotonic() - self._begin:4.0f} s] {self.case}: {text}"
        if sys.stderr.isatty():
            width = shutil.get_terminal_size().columns - 1
            print(f"\r\x1b[K{line[:width]}", end="", file=sys.stderr, flush=True)
        else:
            print(line, file=sys.stderr, flush=True)

    def end_progress(self):
        if sys.stderr.isatty():
            print("\r\x1b[K", end="", file=sys.stderr, flush=True)

    def compare(self, name, unit, services, echoes, at_most=None, at_least=None):
        """A figure of the service and of the echo client, measured in pairs. The goal is about
        the ratio."""
        self._compare(ECHO, name, unit, services, echoes, at_most, at_least)

    def against(self, name, unit, services, others, at_most=None, at_least=None):
        """The same of the service and of the other build."""
        self._compare(self.other.name, name, unit, services, others, at_most, at_least)

    def figure(self, name, unit, values, at_most=None, at_least=None):
        """A figure of the service alone; `values` is one number or a list of them."""
        values = values if isinstance(values, list) else [values]
        self._add(name, unit, "", statistics.median(values), None, values, None, at_most, at_least)

    def _compare(self, beside, name, unit, services, partners, at_most, at_least):
        ratios = [service / partner for service, partner in zip(services, partners, strict=True)]
        self._add(name, unit, beside, statistics.median(services), statistics.median(partners),
                  ratios, statistics.median(ratios), at_most, at_least)

    def _add(self, name, unit, beside, service, partner, spread, ratio, at_most, at_least):
        value = float(number(service if ratio is None else ratio).replace(",", ""))  # as printed
        goal, met = "", None
        if at_most is not None:
            goal, met = f"at most {number(at_most)}", value <= at_most
        elif at_least is not None:
            goal, met = f"at least {number(at_least)}", value >= at_least
        low, high = (min(spread), max(spread)) if len(spread) > 1 else (None, None)
        self.figures.append(
            Figure(self.case, name, unit, beside, service, partner, ratio, low, high, goal, met))

    def note(self, text):
        """A sentence under the case's tables, for what could not be measured."""
        self.notes.append((self.case, text))

    def table(self, name, heads, rows):
        """A table of its own: printed, and kept as NAME.csv. Cells are texts or numbers."""
        self.tables.append((self.case, heads, [[cell if isinstance(cell, str) else number(cell)
                                                for cell in row] for row in rows]))
        with open(self.directory / f"{name}.csv", "w", newline="", encoding="utf-8") as file:
            csv.writer(file).writerows([heads, *rows])

    def plot(self, name, title, xlabel, ylabel, curves, logarithmic=True):
        """NAME.svg with `curves`, a list of (label, xs, ys)."""
        figure, axes = pyplot.subplots(figsize=(7, 4.2))
        for color, (label, xs, ys) in zip(COLORS, curves):
            axes.plot(xs, ys, marker="o", markersize=4, color=color, label=label)
        if logarithmic:
            axes.set_xscale("log")
            axes.set_yscale("log")
            low, high = axes.get_ylim()
            if high < 10 * low:  # or what is flat would look like mountains
                axes.set_ylim(low / 10, high * 10)
            axes.xaxis.set_major_formatter(PLAIN)
        else:
            axes.set_ylim(0, 1.4 * max(max(ys) for _, _, ys in curves))  # room for the legend
        axes.yaxis.set_major_formatter(PLAIN)
        self.save(figure, axes, name, title, xlabel, ylabel)

    def save(self, figure, axes, name, title, xlabel, ylabel):
        axes.set_title(title)
        axes.set_xlabel(xlabel)
        axes.set_ylabel(ylabel)
        axes.grid(alpha=0.3)
        curves = len(axes.get_legend_handles_labels()[0])
        if curves:
            axes.legend(frameon=False, ncol=2 if curves > 3 else 1)
        figure.tight_layout()
        figure.savefig(self.directory / f"{name}.svg", metadata={"Date": None})
        pyplot.close(figure)

    def finish(self):
        """Writes report.md and figures.json, and returns the report's text."""
        parts = [machine(self._quick, self.other)]
        found = [*self.figures, *self.tables, *self.notes]
        for case in dict.fromkeys(entry[0] for entry in found):
            parts.append(f"## {case}")
            parts += self._figures_of(case)
            parts += [markdown(heads, rows) for owner, heads, rows in self.tables if owner == case]
            parts += [text for owner, text in self.notes if owner == case]
        text = "\n\n".join(parts) + "\n"
        (self.directory / "report.md").write_text(text, encoding="utf-8")
        (self.directory / FIGURES).write_text(
            json.dumps([figure._asdict() for figure in self.figures], indent=1) + "\n",
            encoding="utf-8")
        return text

    def _figures_of(self, case):
        """A table of the service alone and beside the echo client, one beside the other build."""
        ours = [figure for figure in self.figures if figure.case == case]
        plain = [figure.cells() for figure in ours if figure.beside in ("", ECHO)]
        builds = [figure.cells() for figure in ours if figure.beside not in ("", ECHO)]
        tables = [markdown(heads_of("service", ECHO), plain)] if plain else []
        if builds:
            tables.append(markdown(heads_of("this build", self.other.name), builds))
        return tables


def markdown(heads, rows):
    """A table that reads well as it stands, too. Columns are right-aligned, unless they hold words;
    a first column, unless it holds anything but numbers."""
    widths = [max(len(str(row[i])) for row in [heads, *rows]) for i in range(len(heads))]
    numeric = [all(str(row[i])[:1] in "-0123456789" for row in rows) for i in range(len(heads))]
    numeric[0] = numeric[0] and not any(" " in str(row[0]) for row in rows)

    def line(cells):
        return "| " + " | ".join(
            str(cell).rjust(width) if is_number else str(cell).ljust(width)
            for cell, width, is_number in zip(cells, widths, numeric)) + " |"

    rule = "|" + "|".join("-" * (width + 1) + (":" if is_number else "-")
                          for width, is_number in zip(widths, numeric)) + "|"
    return "\n".join([line(heads), rule, *map(line, rows)])


def machine(quick, other):
    """What the figures were measured on."""
    cpu = next((line.split(":")[1].strip()
                for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                if line.startswith(("model name", "Hardware"))), platform.machine())
    versions = subprocess.run(
        ["dpkg-query", "-W", "-f=${Package} ${Version}\n", *PACKAGES],
        capture_output=True, text=True, check=False).stdout.split("\n")
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    return "\n".join([
        f"# Benchmark of {time.strftime('%Y-%m-%d')}"
        + (" (quick: its figures mean little)" if quick else ""),
        "",
        f"- Machine: {cpu}, {os.cpu_count()} cores, {memory:.1f} GiB, Linux {platform.release()}",
        f"- Load of the machine at the end (1 minute): {os.getloadavg()[0]:.1f}",
        f"- Versions: {', '.join(filter(None, versions))}",
        f"- Command: scripts/bench{' --quick' if quick else ''}"
        + (f" --against {other.name}" if other else "")])
