"""How many jobs a second, and what a job takes of the processor, by the requests in flight.

Requests in flight are the server's: so many wait for their answer. `max_inflight` is the service's
key: so many results leave before the first of them is acknowledged.
"""

import contextlib
import statistics
from typing import NamedTuple, Optional

from rig import Broker, Echo, Service, jobs, request

TITLE = "Throughput"

INFLIGHTS = [20, 1]


class Goals(NamedTuple):
    rate_beside_echo: Optional[float] = None        # these three are ratios
    rate_beside_other: Optional[float] = None
    processor_beside_other: Optional[float] = None
    processor_beyond_echo: Optional[float] = None   # in microseconds a job


class Setting(NamedTuple):
    window: int               # requests in flight
    priority: str             # of the service's log
    inflight: Optional[int]   # max_inflight; None is the service's default
    goals: Goals = Goals()

    @property
    def name(self):
        parts = ["One at a time" if self.window == 1 else f"{self.window:,} in flight"]
        if self.inflight:
            parts.append(f"max_inflight {self.inflight}")
        if self.priority != "ERROR":
            parts.append(f"log at {self.priority}")
        return ", ".join(parts)

    def keys(self):
        return {"server_comms.max_inflight": self.inflight} if self.inflight else {}


# The goals for the processor time are about one at a time: that is how docks work, and what costs
# more, since each job wakes the service up.
SETTINGS = [
    Setting(1, "ERROR", None, Goals(processor_beside_other=0.85)),
    Setting(10, "ERROR", 20),
    Setting(10, "ERROR", 1),
    Setting(100, "ERROR", 20, Goals(rate_beside_echo=0.9, rate_beside_other=1.15)),
    Setting(100, "ERROR", 1, Goals(rate_beside_other=0.7)),
    Setting(1000, "ERROR", 20),
    Setting(1000, "ERROR", 1),
    Setting(1, "INFO", None, Goals(processor_beyond_echo=45)),
    Setting(100, "INFO", None),
]


class Measured(NamedTuple):
    """Outcomes of one setting, in the order of the blocks."""

    setting: Setting
    services: list
    echoes: list
    others: Optional[list]  # the other build's


def run(bench):
    everything = [measure(bench, setting) for setting in SETTINGS]
    for measured in everything:
        compare(bench, measured)
    tabulate(bench, everything)
    draw(bench, [measured for measured in everything if measured.setting.priority == "ERROR"])


def measure(bench, setting):
    # Many short blocks: on two cores the rate of a block depends on which processes share a core.
    blocks, seconds, rounds = bench.pick((19, 0.2, 5), (2, 0.05, 1))
    with contextlib.ExitStack() as stack:
        targets = start(bench, stack, setting)
        warm = [block_of(target, max(100, setting.window), setting) for target in targets]
        count = max(rounds * setting.window, int(seconds * warm[0].jobs_per_second))
        sides = [[] for _ in targets]
        for block in range(blocks):
            bench.progress(f"{setting.name}, block {block + 1} of {blocks}")
            for target, side in zip(targets, sides, strict=True):
                side.append(block_of(target, count, setting))
    services, echoes, *others = sides
    return Measured(setting, services, echoes, others[0] if others else None)


def start(bench, stack, setting):
    """A service and an echo client on one broker, and the other build on a second one: see
    round_trip.start() for why that is fair. Both builds get the same keys; one that does not know
    a key ignores it."""
    services = []
    for build in bench.builds:
        folder = bench.folder()
        broker = stack.enter_context(Broker(folder / "broker"))
        services.append(stack.enter_context(
            Service(folder / "service", broker, setting.priority, settings=setting.keys(),
                    program=build.program)))
    echo = stack.enter_context(Echo(bench.folder(), services[0].broker))
    return [services[0], echo, *services[1:]]


def block_of(target, count, setting):
    size = len("pong") if isinstance(target, Service) else len(request())
    return jobs(target, request(), size, count, setting.window)


def compare(bench, measured):
    setting, services, echoes, others = measured
    goals = setting.goals
    bench.compare(f"{setting.name}: rate", "jobs/s", rates(services), rates(echoes),
                  at_least=goals.rate_beside_echo)
    if setting.priority == "INFO":  # as a dock runs; the table has the others
        bench.figure(f"{setting.name}: processor time beyond the echo client's", "µs/job",
                     beyond(measured), at_most=goals.processor_beyond_echo)
    if others:
        bench.against(f"{setting.name}: rate", "jobs/s", rates(services), rates(others),
                      at_least=goals.rate_beside_other)
        bench.against(f"{setting.name}: processor time", "µs/job",
                      [outcome.processor for outcome in services],
                      [outcome.processor for outcome in others],
                      at_most=goals.processor_beside_other)


def rates(outcomes):
    return [outcome.jobs_per_second for outcome in outcomes]


def beyond(measured):
    return [service.processor - echo.processor
            for service, echo in zip(measured.services, measured.echoes, strict=True)]


def tabulate(bench, everything):
    heads = ["processor time of a job, µs",
             *(f"{side}, {part}" for side in ("service", "echo client")
               for part in ("in all", "user", "system")),
             "service beyond echo client"]
    bench.table("throughput_processor", heads, [
        [measured.setting.name, *processor(measured.services), *processor(measured.echoes),
         statistics.median(beyond(measured))] for measured in everything])


def processor(outcomes):
    """The median in all, and its user and system part. The kernel tells the parts in ticks of
    10 ms: those of all blocks together mean something, from half a second on."""
    median = statistics.median(o.processor for o in outcomes)
    if sum(o.processor * len(o.latencies) for o in outcomes) < 5e5:
        return median, None, None
    system = median * sum(o.system for o in outcomes) / sum(o.processor for o in outcomes)
    return median, median - system, system


def draw(bench, everything):
    """A curve for each build and `max_inflight`. Where one request is in flight at a time the key
    makes no difference, so all curves begin with that setting."""
    curves = []
    for inflight in INFLIGHTS:
        shown = [m for m in everything if m.setting.inflight in (None, inflight)]
        curves.append(curve(f"service, max_inflight {inflight}", shown, Measured.services))
        if bench.other:
            curves.append(curve(f"{bench.other.name}, max_inflight {inflight}", shown,
                                Measured.others))
    shown = [m for m in everything if m.setting.inflight in (None, INFLIGHTS[0])]
    curves.append(curve("echo client", shown, Measured.echoes))
    bench.plot("throughput", "Jobs per second", "requests in flight", "jobs per second", curves,
               logarithmic=False)


def curve(label, shown, side):
    """Of the medians; the windows are texts, at equal distances."""
    return (label, [f"{m.setting.window:,}" for m in shown],
            [statistics.median(rates(side.__get__(m))) for m in shown])
