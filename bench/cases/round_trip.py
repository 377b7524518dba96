"""From a request's publishing to its result's arrival, one job at a time.

All settings take turns, so that their times can be compared with each other, too.
"""

import contextlib
from typing import NamedTuple

from rig import Broker, Echo, Service, load, request

TITLE = "Round trip"


class Setting(NamedTuple):
    name: str
    transport: str  # of the broker
    priority: str   # of the service's log
    median_goal: float = None
    p99_goal: float = None


SETTINGS = [
    Setting("TCP, no delays", "tcp", "ERROR", 1.3, 1.5),
    Setting("TCP, no delays, log at INFO", "tcp", "INFO", 1.4),
    Setting("TCP, no delays, log at DEBUG", "tcp", "DEBUG"),
    Setting("TCP, broker at its defaults", "tcp-default", "ERROR"),
    Setting("Unix socket", "unix", "ERROR"),
]


def run(bench):
    blocks, count = bench.pick((11, 1500), (3, 100))
    with contextlib.ExitStack() as stack:
        pairs = [pair(bench, stack, setting) for setting in SETTINGS]
        for targets in pairs:
            measure(targets, count)  # warms them up
        outcomes = [[] for _ in SETTINGS]
        for block in range(blocks):
            for setting, targets, ours in zip(SETTINGS, pairs, outcomes, strict=True):
                bench.progress(f"block {block + 1} of {blocks}, {setting.name}")
                ours.append(measure(targets, count))
    for setting, ours in zip(SETTINGS, outcomes, strict=True):
        compare(bench, setting, *zip(*ours))


def pair(bench, stack, setting):
    """A service and an echo client on a broker of their own, until the stack ends."""
    folder = bench.folder()
    broker = stack.enter_context(Broker(folder / "broker", setting.transport))
    return (stack.enter_context(Service(folder / "service", broker, setting.priority)),
            stack.enter_context(Echo(folder / "echo", broker)))


def measure(targets, count):
    return [load(target, request(), count) for target in targets]


def compare(bench, setting, services, echoes):
    for label, value, goal in (
            ("median", lambda outcome: outcome.median, setting.median_goal),
            ("90 %", lambda outcome: outcome.percentile(90), None),
            ("99 %", lambda outcome: outcome.percentile(99), setting.p99_goal)):
        bench.compare(f"{setting.name}: {label}", "µs", list(map(value, services)),
                      list(map(value, echoes)), at_most=goal)
