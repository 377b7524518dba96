"""How time and memory grow with what a job is given, what it answers and where its script lies.

Each point has a service of its own. Peak memory is the process's own highest after the first such
request; "peak memory / payload" counts what that request added to the peak of a ping. Time is the
median of the requests that follow.
"""

import os
import statistics
from typing import NamedTuple

from msgpack import Packer

from rig import PING, Broker, Echo, Service, jobs, load, request

TITLE = "Growth"

KIB, MIB = 1024, 1024**2
GOAL_SIZE = 64 * MIB
SCRIPTS = {"ping": PING, "fill": 'return string.rep("x", args)\n', "give_back": "return args\n"}
PAYLOAD = "payload, KiB"


class Point(NamedTuple):
    x: float
    times: list    # milliseconds: of each request, or the medians of blocks of them
    peak: int      # bytes: the highest that the process's resident memory ever was
    growth: int    # the part of it that the first request brought

    @property
    def milliseconds(self):
        return statistics.median(self.times)


class Series(NamedTuple):
    label: str
    points: list


def run(bench):
    straight = []
    back = there_and_back(bench)
    arguments(bench, back, straight)
    answers(bench, back, straight)
    publish(bench, "back", "String there and back", PAYLOAD, back, straight)
    files(bench, straight)
    directories(bench, straight)
    depth(bench, straight)
    bench.table("growth_straight",
                ["Cost per unit in the last step / up to there (1: a straight line)", "last step",
                 "time", "peak memory"], straight)


def there_and_back(bench):
    """A string that the script gives back, and the echo client with the same bytes: what the way
    to the broker and back costs at least. All other payloads here go one way only."""
    service, echo = Series("service", []), Series("echo client", [])
    with broker(bench) as own:
        for size in sizes(bench, 64 * MIB):
            bench.progress(f"string there and back, {size_text(size)}")
            pair = pair_of_points(bench, own, size)
            service.points.append(pair[0])
            echo.points.append(pair[1])
    name = f"String there and back, {size_text(size)}"
    bench.compare(f"{name}: time", "ms", *(point.times for point in pair))
    bench.compare(f"{name}: peak memory / payload", "×", *([p.growth / size] for p in pair))
    bench.figure(f"{name}: peak memory / payload, the service alone", "×", pair[0].growth / size,
                 at_most=6 if size == GOAL_SIZE else None)
    return [service, echo]


def pair_of_points(bench, own, size):
    """The service's point and the echo client's, measured in turns."""
    payload = string_request(size, "give_back")
    with new_service(bench, own) as service, Echo(bench.folder(), own) as echo:
        # The echo client's payload has the request's few bytes more, and so has its answer.
        targets = [(service, payload, size), (echo, payload, len(payload))]
        peaks = [first_request(*target) for target in targets]
        times = [[], []]
        for _ in range(3):
            for target, ours in zip(targets, times):
                ours.append(jobs(*target, max(1, repetitions(size) // 3)).median / 1000)
    return [Point(size / KIB, ours, *peak) for ours, peak in zip(times, peaks)]


def arguments(bench, back, straight):
    """Arguments of several shapes for a script that does not look at them."""
    shapes = [
        ("string", string_request, 64 * MIB, 5.0),
        # 44 bytes of memory and 0.2 µs for each byte: 64 MiB would take 3 GiB and 15 s a request.
        ("integers", integers_request, 16 * MIB, None),
        ("small maps", maps_request, 16 * MIB, None),
    ]
    found = []
    for label, make, largest, goal in shapes:
        points = []
        with broker(bench) as own:
            for size in sizes(bench, largest):
                bench.progress(f"arguments: {label}, {size_text(size)}")
                points.append(measure(bench, own, size / KIB, make(size), len("pong"),
                                      repetitions(size)))
        figures(bench, f"Arguments: {label}", size, points[-1], goal)
        found.append(Series(label, points))
    publish(bench, "arguments", "Arguments", PAYLOAD, found, straight,
            besides=[Series("echo client, there and back", back[1].points)])


def answers(bench, back, straight):
    """Answers of a script that makes them of one letter: Lua's part of time and memory counts."""
    points = []
    with broker(bench) as own:
        for size in sizes(bench, 64 * MIB):
            bench.progress(f"answer, {size_text(size)}")
            points.append(measure(bench, own, size / KIB, request("fill", size), size,
                                  repetitions(size)))
    figures(bench, "Answer: string", size, points[-1], 4.0)
    publish(bench, "answer", "Answer", PAYLOAD, [Series("answer", points)], straight,
            besides=[Series("echo client, there and back", back[1].points)])


def files(bench, straight):
    """Files in the one script directory. The order in which it lists them is the file system's
    own, so the names are chosen by their places in it."""
    counts = bench.pick([10, 100, 1000, 10_000, 100_000], [10, 1000])
    found = [Series("first of the list", []), Series("last of the list", []),
             Series("not there", [])]
    folder = bench.folder()
    with broker(bench) as own:
        for count in counts:
            bench.progress(f"script directory with {count:,} files")
            for series, (name, answer) in zip(found, names_in(folder, count)):
                series.points.append(measure(bench, own, count, request(name), answer, 100,
                                             search_dirs=[folder]))
    for series in found:
        bench.figure(f"{counts[-1]:,} files, script {series.label}: time", "ms",
                     series.points[-1].times)
    publish(bench, "files", "Script directory", "files", found, straight)


def names_in(folder, count):
    """Fills `folder` up to `count` files, and returns three scripts' names and the sizes of their
    answers."""
    for number in range(len(os.listdir(folder)), count):
        (folder / f"script{number}.lua").touch()
    listed = os.listdir(folder)  # unsorted: as readdir gives them, to the service too
    for name in (listed[0], listed[-1]):
        (folder / name).write_text(PING)
    refused = {"status": False, "reason": 'Cannot run job. Script not found "absent.lua"'}
    return [(listed[0][:-len(".lua")], len("pong")), (listed[-1][:-len(".lua")], len("pong")),
            ("absent", len(Packer().pack(refused)))]


def directories(bench, straight):
    """Search directories that are empty but for the last one, which has the script."""
    counts = bench.pick([1, 10, 100, 1000], [1, 100])
    folder = bench.folder()
    points = []
    with broker(bench) as own:
        for count in counts:
            bench.progress(f"{count:,} search directories")
            paths = [folder / f"{count}-{number}" for number in range(count)]
            for path in paths:
                path.mkdir()
            (paths[-1] / "ping.lua").write_text(PING)
            points.append(measure(bench, own, count, request(), len("pong"), 100,
                                  search_dirs=paths))
    bench.figure(f"{count:,} search directories, script in the last: time", "ms", points[-1].times)
    publish(bench, "directories", "Search directories", "directories",
            [Series("script in the last one", points)], straight)


def depth(bench, straight):
    """Arguments that are one array in another, or one map in another."""
    levels = bench.pick([1, 10, 100, 1000, 10_000, 100_000], [1, 1000])
    found = []
    for label, opening in (("arrays", b"\x91"), ("maps", b"\x81\xa1a")):  # [...] and {"a": ...}
        points = []
        with broker(bench) as own:
            for level in levels:
                bench.progress(f"{label} of {level:,} levels")
                points.append(measure(bench, own, level, with_args(opening * level + b"\x01"),
                                      len("pong"), 100 if level < 10_000 else 11))
        bench.figure(f"{label} in {label}, {level:,} levels: time".capitalize(), "ms",
                     points[-1].times)
        found.append(Series(label, points))
    publish(bench, "depth", "Nested arguments", "levels", found, straight)


def broker(bench):
    """One for each series, so that results of another one are not in its way."""
    return Broker(bench.folder() / "broker")


def new_service(bench, own, search_dirs=None):
    service = Service(bench.folder(), own, search_dirs=search_dirs)
    for name, text in SCRIPTS.items():
        (service.scripts / f"{name}.lua").write_text(text)
    return service


def measure(bench, own, x, payload, answer_size, count, search_dirs=None):
    """The point of one request, sent again and again to a new service."""
    with new_service(bench, own, search_dirs) as service:
        peak = first_request(service, payload, answer_size)
        outcome = jobs(service, payload, answer_size, count)
    return Point(x, [latency / 1000 for latency in outcome.latencies], *peak)


def first_request(target, payload, answer_size):
    """Peak memory of the first request, and its growth over that of a ping."""
    load(target, request(), 1)
    idle = target.memory().peak
    jobs(target, payload, answer_size, 1)
    peak = target.memory().peak
    return peak, peak - idle


def sizes(bench, largest):
    every = [KIB * 4**power for power in range(9)]
    return [size for size in bench.pick(every, [KIB, 32 * KIB, MIB]) if size <= largest]


def repetitions(size):
    return max(3, min(99, 4 * MIB // size))


def with_args(packed, script="ping"):
    """A request with arguments that are packed already."""
    return request(script)[:-len(Packer().pack(None))] + packed


def string_request(size, script="ping"):
    return request(script, "x" * size)


def integers_request(size):
    """One array of integers of one byte each: of all arguments, those that grow the most."""
    block = bytes(range(128))  # 0 to 127, which MessagePack writes as themselves
    return with_args(Packer().pack_array_header(size) + (block * (size // 128 + 1))[:size])


def maps_request(size):
    """One array of maps, with a map in each."""
    lamp = Packer().pack({"name": "lamp", "state": {"on": True, "level": 80}})
    count = size // len(lamp)
    return with_args(Packer().pack_array_header(count) + lamp * count)


def figures(bench, name, size, point, goal):
    """The figures of a series' largest payload. The goal is about the full run's alone."""
    bench.figure(f"{name}, {size_text(size)}: time", "ms", point.times)
    bench.figure(f"{name}, {size_text(size)}: peak memory / payload", "×", point.growth / size,
                 at_most=goal if size == GOAL_SIZE else None)


def publish(bench, name, title, xlabel, found, straight, besides=()):
    """Table and plots of one thing that grows; adds to `straight` how straight its lines are.
    `besides` are curves for comparison, for the plots alone."""
    tabulate(bench, name, xlabel, found)
    curves = [*found, *besides]
    xs = [[point.x for point in series.points] for series in curves]
    for kind, ylabel, value in (("time", "milliseconds", lambda p: p.milliseconds),
                                ("memory", "MiB", lambda p: p.peak / MIB)):
        what = "peak memory" if kind == "memory" else kind
        bench.plot(f"growth_{name}_{kind}", f"{title}: {what}", xlabel, ylabel,
                   [(series.label, x, [value(point) for point in series.points])
                    for series, x in zip(curves, xs)])
    for series in found:
        label = title if len(found) == 1 else f"{title}: {series.label}"
        straight.append([label, *straightness(series.points, xlabel)])


def tabulate(bench, name, xlabel, found):
    rows = []
    for x in max(([point.x for point in series.points] for series in found), key=len):
        here = [next((p for p in series.points if p.x == x), None) for series in found]
        rows.append([x] + [p and p.milliseconds for p in here]
                    + [p and p.peak / MIB for p in here])
    heads = [f"{series.label}, {unit}" for unit in ("ms", "peak MiB") for series in found]
    bench.table(f"growth_{name}", [xlabel, *heads], rows)


def straightness(points, xlabel):
    """The last step, and what a unit more costs in it over what it costs from the first point up to
    there: of the quickest requests' time, since what disturbs only adds to it, and of the peak
    memory. Nothing where fewer than three points are known or little grows."""
    if len(points) < 3:
        return ["", None, None]
    first, before, last = points[0], points[-2], points[-1]

    def bend(value, least):
        early, late = value(before) - value(first), value(last) - value(before)
        if early < least:
            return None
        return late / (last.x - before.x) / (early / (before.x - first.x))

    step = f"{before.x:,.0f} to {last.x:,.0f} {xlabel.split()[-1]}"
    return [step, bend(lambda point: min(point.times), 0.25), bend(lambda point: point.peak, MIB)]


def size_text(size):
    return f"{size // MIB} MiB" if size >= MIB else f"{size // KIB} KiB"
