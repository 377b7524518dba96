"""From a request's publishing to its result's arrival, one job at a time.

All settings take turns, so that their times can be compared with each other, too.
"""

import contextlib
from typing import NamedTuple

from rig import Broker, Echo, Service, load, request

TITLE = "Round trip"


class Goals(NamedTuple):
    """What the service's time is to be at most, as a multiple of its partner's."""

    median: float = None
    p99: float = None


class Setting(NamedTuple):
    name: str
    transport: str  # of the broker
    priority: str   # of the service's log
    beside_echo: Goals = Goals()
    beside_other: Goals = Goals()


SETTINGS = [
    Setting("TCP, no delays", "tcp", "ERROR", Goals(1.25, 1.5), Goals(0.93, 1)),
    Setting("TCP, no delays, log at INFO", "tcp", "INFO", Goals(1.4)),
    Setting("TCP, no delays, log at DEBUG", "tcp", "DEBUG"),
    Setting("TCP, broker at its defaults", "tcp-default", "ERROR"),
    Setting("Unix socket", "unix", "ERROR"),
]


def run(bench):
    blocks, count = bench.pick((11, 1500), (3, 100))
    with contextlib.ExitStack() as stack:
        groups = [start(bench, stack, setting) for setting in SETTINGS]
        for targets in groups:
            measure(targets, count)  # warms them up
        outcomes = [[] for _ in SETTINGS]
        for block in range(blocks):
            for setting, targets, ours in zip(SETTINGS, groups, outcomes, strict=True):
                bench.progress(f"block {block + 1} of {blocks}, {setting.name}")
                ours.append(measure(targets, count))
    for setting, ours in zip(SETTINGS, outcomes, strict=True):
        services, echoes, *others = zip(*ours)
        compare(bench.compare, setting.name, services, echoes, setting.beside_echo)
        for theirs in others:
            compare(bench.against, setting.name, services, theirs, setting.beside_other)


def start(bench, stack, setting):
    """A service and an echo client on a broker of their own, until the stack ends; and the other
    build, if there is one, on a second broker: the client id is the same. That is fair, since both
    brokers are the same program with the same configuration, and while one works all that belongs
    to the other one sleeps."""
    services = []
    for build in bench.builds:
        folder = bench.folder()
        broker = stack.enter_context(Broker(folder / "broker", setting.transport))
        services.append(stack.enter_context(
            Service(folder / "service", broker, setting.priority, program=build.program)))
    echo = stack.enter_context(Echo(bench.folder(), services[0].broker))
    return [services[0], echo, *services[1:]]


def measure(targets, count):
    return [load(target, request(), count) for target in targets]


def compare(record, name, services, partners, goals):
    for label, value, goal in (
            ("median", lambda outcome: outcome.median, goals.median),
            ("90 %", lambda outcome: outcome.percentile(90), None),
            ("99 %", lambda outcome: outcome.percentile(99), goals.p99)):
        record(f"{name}: {label}", "µs", list(map(value, services)), list(map(value, partners)),
               at_most=goal)
