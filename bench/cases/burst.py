"""When the k-th answer is with its server, if the server sends n requests at once.

The unit is the lone job: from publishing a request to its answer while no other one waits, with the
same script. A server that sends each request when the answer before it has come has its k-th answer
after k lone jobs. So that is what an answer of a burst is late behind.
"""

import contextlib
import statistics
from typing import NamedTuple, Optional

from rig import Broker, Service, jobs, load, request

TITLE = "Burst"

SIZES = [2, 5, 30]  # requests at once
ANSWER = "done"

# With mosquitto at its defaults, TCP may hold a packet back until the other side acknowledges an
# earlier one, up to 40 ms. "No delays" shows what that adds. Both allow longer queues than the
# defaults do, which no burst here is long enough to notice.
DEFAULTS, NO_DELAYS = "tcp-default", "tcp"
BROKERS = {DEFAULTS: "at its defaults", NO_DELAYS: "no delays"}

# A process takes too long to start for 1 ms, so that script keeps the processor busy.
BUSY = f"""\
local stop = os.clock() + 0.001
repeat until os.clock() >= stop
return "{ANSWER}"
"""
ASLEEP = f"""\
os.execute("sleep %s")
return "{ANSWER}"
"""


class Script(NamedTuple):
    name: str
    label: str      # how long it takes
    text: str
    rounds: int     # how often each burst is measured
    lone_jobs: int  # before each of them
    transports: list
    limit: Optional[float] = None  # of an answer's delay, in percent of k lone jobs


SCRIPTS = [
    # A twentieth of it is no time for a broker's answer, so it has no limit.
    Script("busy", "1 ms", BUSY, 11, 20, [DEFAULTS, NO_DELAYS]),
    Script("tenth", "100 ms", ASLEEP % "0.1", 3, 3, [DEFAULTS, NO_DELAYS], 5),
    Script("second", "1 s", ASLEEP % "1", 1, 1, [DEFAULTS], 5),
]


class Burst(NamedTuple):
    """Milliseconds of one burst, and of the lone jobs before it."""

    lone: float
    arrivals: list  # of the answers, in the order in which they came

    def delays(self):
        return [arrival - k * self.lone for k, arrival in enumerate(self.arrivals, 1)]

    def in_lone_jobs(self):
        """The largest delay, as a multiple of a lone job."""
        return max(self.delays()) / self.lone

    def in_percent(self):
        """The largest delay of a k-th answer, in percent of k lone jobs."""
        return max(100 * delay / (k * self.lone) for k, delay in enumerate(self.delays(), 1))

    def middle(self):
        return self.arrivals[(len(self.arrivals) - 1) // 2]

    def last(self):
        return self.arrivals[-1]


def run(bench):
    sizes = bench.pick(SIZES, SIZES[:2])
    rows = []
    for script in bench.pick(SCRIPTS, SCRIPTS[:2]):
        for transport in script.transports:
            found = measure(bench, script, transport, sizes)
            rows += [row(script, transport, size, build.name, bursts) for size in sizes
                     for build, bursts in zip(bench.builds, found[size], strict=True)]
            if transport == DEFAULTS:
                compare(bench, script, found)
                draw(bench, script, sizes[-1], found[sizes[-1]])
    bench.table("burst", ["n requests at once, ms", "broker", "build", "lone job", "first answer",
                          "middle answer", "last answer", "n lone jobs",
                          "largest delay, lone jobs", "largest delay, % of k lone jobs"], rows)


def measure(bench, script, transport, sizes):
    """By size: a list for each build, of its Bursts. The builds take turns, each with a broker of
    its own: see round_trip.start() for why that is fair."""
    rounds = bench.pick(script.rounds, 1)
    found = {size: [[] for _ in bench.builds] for size in sizes}
    with contextlib.ExitStack() as stack:
        services = [start(bench, stack, script, transport, build) for build in bench.builds]
        for size, sides in found.items():
            for number in range(rounds):
                bench.progress(f"{size} jobs of {script.label}, broker {BROKERS[transport]}, "
                               f"round {number + 1} of {rounds}")
                for service, side in zip(services, sides, strict=True):
                    side.append(burst_of(service, script, size))
    return found


def start(bench, stack, script, transport, build):
    folder = bench.folder()
    broker = stack.enter_context(Broker(folder / "broker", transport))
    service = stack.enter_context(Service(folder / "service", broker, program=build.program))
    (service.scripts / f"{script.name}.lua").write_text(script.text)
    load(service, request(script.name), 1)  # warms it up
    return service


def burst_of(service, script, size):
    lone, burst = (jobs(service, request(script.name), len(ANSWER), count, window)
                   for count, window in ((script.lone_jobs, 1), (size, size)))
    return Burst(lone.median / 1000, [arrival / 1000 for arrival in burst.arrivals])


def row(script, transport, size, build, bursts):
    def median(value):
        return statistics.median(map(value, bursts))

    lone = median(lambda burst: burst.lone)
    return [f"{size} jobs of {script.label}", BROKERS[transport], build, lone,
            median(lambda burst: burst.arrivals[0]), median(Burst.middle), median(Burst.last),
            size * lone, median(Burst.in_lone_jobs), median(Burst.in_percent)]


def compare(bench, script, found):
    for size, (services, *others) in found.items():
        name = f"{size} jobs of {script.label}"
        bench.figure(f"{name}: largest delay of a k-th answer behind k lone jobs", "%",
                     list(map(Burst.in_percent, services)), at_most=script.limit)
        for theirs in others:
            for what, value in (("middle", Burst.middle), ("last", Burst.last)):
                bench.against(f"{name}: {what} answer", "ms", list(map(value, services)),
                              list(map(value, theirs)))


def draw(bench, script, size, sides):
    numbers = list(range(1, size + 1))
    lone = statistics.median(burst.lone for burst in sides[0])
    curves = [("k lone jobs", numbers, [k * lone for k in numbers])]
    for build, bursts in zip(bench.builds, sides, strict=True):
        curves.append((build.name, numbers,
                       list(map(statistics.median, zip(*(burst.arrivals for burst in bursts))))))
    bench.plot(f"burst_{script.label.replace(' ', '_')}",
               f"{size} requests at once, {script.label} each", "answer", "milliseconds", curves,
               logarithmic=False)
