"""How many jobs a second, and what a job takes of the processor, by the requests in flight."""

import statistics
from typing import NamedTuple

from rig import Broker, Echo, Failure, Service, load, request

TITLE = "Throughput"

# What is compared: how many requests are in flight, the priority of the service's log, the goal for
# the rate's ratio, and that for the processor time beyond the echo client's. The latter is about
# one at a time: that is how docks work, and what costs more, since each job wakes the service up.
SETTINGS = [
    (1, "ERROR", None, None),
    (10, "ERROR", None, None),
    (100, "ERROR", 0.8, None),
    (1000, "ERROR", None, None),
    (1, "INFO", None, 45),
    (100, "INFO", None, None),
]


class Pairs(NamedTuple):
    """Outcomes of the service and of the echo client, in the order of the blocks."""

    name: str
    window: int
    priority: str
    services: list
    echoes: list

    def rates(self):
        return [[o.jobs_per_second for o in side] for side in (self.services, self.echoes)]

    def beyond(self):
        return [service.processor - echo.processor
                for service, echo in zip(self.services, self.echoes, strict=True)]


def run(bench):
    everything = []
    for window, priority, rate_goal, processor_goal in SETTINGS:
        pairs = measure(bench, window, priority)
        bench.compare(f"{pairs.name}: rate", "jobs/s", *pairs.rates(), at_least=rate_goal)
        if priority == "INFO":  # as a dock runs; the table has the others
            bench.figure(f"{pairs.name}: processor time beyond the echo client's", "µs/job",
                         pairs.beyond(), at_most=processor_goal)
        everything.append(pairs)
    tabulate(bench, everything)
    draw(bench, [pairs for pairs in everything if pairs.priority == "ERROR"])


def measure(bench, window, priority):
    # Many short blocks: on two cores the rate of a block depends on which processes share a core.
    blocks, seconds, rounds = bench.pick((19, 0.2, 5), (2, 0.05, 1))
    name = "One at a time" if window == 1 else f"{window:,} in flight"
    if priority != "ERROR":
        name += f", log at {priority}"
    folder = bench.folder()
    with Broker(folder / "broker") as broker, \
            Service(folder / "service", broker, priority) as service, \
            Echo(folder / "echo", broker) as echo:
        pairs = Pairs(name, window, priority, [], [])
        warm = [jobs(target, max(100, window), window) for target in (service, echo)]
        count = max(rounds * window, int(seconds * warm[0].jobs_per_second))
        for block in range(blocks):
            bench.progress(f"{name}, block {block + 1} of {blocks}")
            pairs.services.append(jobs(service, count, window))
            pairs.echoes.append(jobs(echo, count, window))
    return pairs


def jobs(target, count, window):
    """Like load(), but sees to it that the answers are right, and leaves none at the broker: they
    would come to the next subscriber ahead of the answers that count."""
    outcome = load(target, request(), count, window)
    load(target, b"", window, window)
    size = len("pong") if isinstance(target, Service) else len(request())
    if outcome.answer_bytes != size:
        raise Failure(f"an answer of {outcome.answer_bytes} bytes instead of {size}")
    return outcome


def tabulate(bench, everything):
    heads = ["processor time of a job, µs",
             *(f"{side}, {part}" for side in ("service", "echo client")
               for part in ("in all", "user", "system")),
             "service beyond echo client"]
    bench.table("throughput_processor", heads, [
        [pairs.name, *processor(pairs.services), *processor(pairs.echoes),
         statistics.median(pairs.beyond())] for pairs in everything])


def processor(outcomes):
    """The median in all, and its user and system part. The kernel tells the parts in ticks of
    10 ms: those of all blocks together mean something, from half a second on."""
    median = statistics.median(o.processor for o in outcomes)
    if sum(o.processor * len(o.latencies) for o in outcomes) < 5e5:
        return median, None, None
    system = median * sum(o.system for o in outcomes) / sum(o.processor for o in outcomes)
    return median, median - system, system


def draw(bench, everything):
    windows = [f"{pairs.window:,}" for pairs in everything]  # texts, at equal distances
    rates = [[statistics.median(side) for side in pairs.rates()] for pairs in everything]
    bench.plot("throughput", "Jobs per second", "requests in flight", "jobs per second",
               [("service", windows, [service for service, _ in rates]),
                ("echo client", windows, [echo for _, echo in rates])], logarithmic=False)
