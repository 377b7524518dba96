"""The same job done in two ways that take an hour to write, beside the service: a shell loop around
mosquitto's tools, and a Python client; both start Lua for each job. The echo client is the limit.

Both are spared work of the service's: they keep no log, they hand no arguments to the script, and
the shell's request is a script's name in place of MessagePack. So the figures flatter them.
"""

import contextlib
import os
import pathlib
import signal
import statistics
import sys
from typing import NamedTuple

import report
from matplotlib import pyplot
from rig import Broker, Echo, Failure, Process, Service, load, memory, request, wait_until

TITLE = "Beside other ways"

PROGRAMS = pathlib.Path(__file__).resolve().parents[1]
SCRIPT = 'io.write("pong")\n'  # the answer of a process is what it prints


class Alternative(Process):
    """A program that leads a process group, in which all that it starts remains."""

    def __init__(self, directory, broker, name, command, processes):
        """`processes` is how many there are while no job runs."""
        self.broker = broker
        self._processes = processes
        self.topic, self.reply = f"in/{name}", f"out/{name}"
        directory.mkdir()
        (directory / "ping.lua").write_text(SCRIPT)
        before = len(broker.lines(f" {self.topic}/+"))
        super().__init__([*command, broker.host, broker.port, directory], directory,
                         wrapper=["setsid"])
        try:
            broker.wait_for_subscription(self, f"{self.topic}/+", before)
        except BaseException:
            self.end()
            raise

    def processor_seconds(self):
        """User and system time of all its processes, of those that have ended too. Exact, but cut
        off to ticks of 10 ms."""
        ticks = sum(int(field) for fields in group(self.pid).values() for field in fields[11:15])
        return ticks / os.sysconf("SC_CLK_TCK")

    def idle_memory(self):
        """Bytes of all its processes; pages that they share with others count in part (PSS)."""
        wait_until(lambda: self.alive() and len(group(self.pid)) == self._processes,
                   f"the {self._processes} processes of an idle {self.topic}")
        return sum(memory(pid).pss for pid in group(self.pid))

    def end(self):
        with contextlib.suppress(ProcessLookupError):  # it may not be a leader yet, or have ended
            os.killpg(self.pid, signal.SIGTERM)
        return super().end()


def group(leader):
    """The processes of a process group, and the fields of each that follow its name in
    proc_pid_stat(5)."""
    found = {}
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = path.read_text(errors="replace").rpartition(")")[2].split()
        except OSError:
            continue  # it has ended meanwhile
        if int(fields[2]) == leader:
            found[int(path.parent.name)] = fields
    return found


class Way(NamedTuple):
    """One way to do the job, and what its blocks of `count` jobs saw."""

    name: str
    target: Process
    payload: bytes
    answer_bytes: int
    count: int
    outcomes: list

    def round_trips(self):
        return [outcome.median for outcome in self.outcomes]

    def processor(self):
        return [outcome.processor for outcome in self.outcomes]


def run(bench):
    count = bench.pick(500, 100)
    folder = bench.folder()
    with Broker(folder / "broker") as broker, \
            Service(folder / "service", broker, "INFO") as service, \
            Echo(folder / "echo", broker) as echo, \
            Alternative(folder / "shell", broker, "shell", [PROGRAMS / "shell_loop.sh"],
                        processes=3) as shell, \
            Alternative(folder / "python", broker, "python",
                        [sys.executable, PROGRAMS / "paho_subprocess.py"],
                        processes=1) as python:
        pong = len("pong")
        ways = [Way("echo client", echo, request(), len(request()), 10 * count, []),
                Way("service, log at INFO", service, request(), pong, 10 * count, []),
                Way("Python and subprocess", python, request(), pong, count, []),
                Way("shell loop", shell, b"ping", pong, count, [])]
        measure(bench, ways)
        sizes = [echo.memory().pss, service.memory().pss, python.idle_memory(),
                 shell.idle_memory()]
    compare(bench, ways)
    tabulate(bench, ways, sizes)
    draw(bench, ways)


def measure(bench, ways):
    blocks = bench.pick(11, 3)
    for way in ways:
        jobs(way)  # warms it up
    for block in range(blocks):
        bench.progress(f"block {block + 1} of {blocks}")
        for way in ways:
            way.outcomes.append(jobs(way))


def jobs(way):
    outcome = load(way.target, way.payload, way.count)
    if outcome.answer_bytes != way.answer_bytes:
        raise Failure(f"{way.name}: an answer of {outcome.answer_bytes} bytes instead of "
                      f"{way.answer_bytes}")
    return outcome


def compare(bench, ways):
    """How many times as much as the service the others take, block by block."""
    _, service, *others = ways
    for what, value, goal in (("processor time of a job", Way.processor, 10),
                              ("round trip", Way.round_trips, None)):
        for other in others:
            bench.figure(f"{other.name} / service: {what}", "×",
                         [theirs / ours for theirs, ours in zip(value(other), value(service),
                                                                strict=True)], at_least=goal)


def tabulate(bench, ways, sizes):
    bench.table("alternatives", ["one job at a time", "round trip, µs",
                                 "processor time of a job, µs", "memory when idle (PSS), MiB"],
                [[way.name, statistics.median(way.round_trips()),
                  statistics.median(way.processor()), size / 2**20]
                 for way, size in zip(ways, sizes, strict=True)])


def draw(bench, ways):
    figure, axes = pyplot.subplots(figsize=(7, 4.2))
    width = 0.2
    for i, (color, way) in enumerate(zip(report.COLORS, ways)):
        heights = [statistics.median(way.round_trips()), statistics.median(way.processor())]
        bars = axes.bar([place + (i - 1.5) * width for place in range(2)], heights, width,
                        color=color, label=way.name)
        axes.bar_label(bars, [report.number(height) for height in heights])
    axes.set_xticks(range(2), ["round trip", "processor time of a job"])
    axes.set_yscale("log")
    axes.yaxis.set_major_formatter(report.PLAIN)
    bottom, top = axes.get_ylim()
    axes.set_ylim(bottom / 4, 10 * top)  # every bar shows, and there is room for the legend
    bench.save(figure, axes, "alternatives", "One job at a time", "", "microseconds")
