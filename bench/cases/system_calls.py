"""How many system calls a job takes, one job at a time: a count that no neighbour disturbs.

Each run of the service under strace is compared with a longer one, so that its start and its end do
not count.
"""

import statistics

import strace
from rig import Broker, Service, load, request

TITLE = "System calls"

WARM_UP, JOBS = 50, 300
GOALS = {"ERROR": None, "INFO": 31}  # by the log's priority; docks run with INFO


def run(bench):
    refusal = strace.refusal(bench.folder())
    if refusal:
        bench.note(f"System calls were not counted. strace says: {refusal}")
        return
    columns = []
    for priority, goal in GOALS.items():
        found = measure(bench, priority)
        ours, *others = [[sum(calls.values()) for calls in side] for side in found]
        name = f"A job with the log at {priority}"
        bench.figure(name, "system calls", ours, at_most=goal)
        for theirs in others:
            bench.against(name, "system calls", ours, theirs)
        columns += [(f"{build.name}, log at {priority}", medians(side))
                    for build, side in zip(bench.builds, found, strict=True)]
    tabulate(bench, columns)


def measure(bench, priority):
    """A list for each build, of its calls a job in each repetition."""
    repeats = bench.pick(3, 1)
    found = [[] for _ in bench.builds]
    for repeat in range(repeats):
        for build, side in zip(bench.builds, found, strict=True):
            bench.progress(f"{build.name}, log at {priority}, run {repeat + 1} of {repeats}")
            side.append(calls_of(bench.folder(), build, priority))
    return found


def calls_of(folder, build, priority):
    """Calls a job, by name."""
    short, long = (count(folder / str(jobs), build, priority, jobs)
                   for jobs in (WARM_UP, WARM_UP + JOBS))
    return {name: (long[name] - short[name]) / JOBS for name in long | short}


def count(folder, build, priority, jobs):
    path = folder / "calls"
    with Broker(folder / "broker") as broker, \
            Service(folder / "service", broker, priority, wrapper=strace.wrapper(path),
                    program=build.program) as service:
        load(service, request(), jobs)
    return strace.read(path)


def medians(side):
    return {name: statistics.median(calls.get(name, 0) for calls in side)
            for name in set().union(*side)}


def tabulate(bench, columns):
    """By name, the most frequent first, without those that less than one job in ten makes."""
    _, first = columns[0]
    names = sorted(set().union(*(calls for _, calls in columns)),
                   key=lambda name: (-first.get(name, 0), name))
    rows = [[name, *(calls.get(name, 0) for _, calls in columns)] for name in names
            if any(calls.get(name, 0) >= 0.1 for _, calls in columns)]
    bench.table("system_calls", ["system calls of a job", *(label for label, _ in columns)], rows)
