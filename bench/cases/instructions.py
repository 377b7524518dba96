"""What a job's instructions are spent on, by cause.

Each run of the service under callgrind is compared with a longer one, so that its start and its end
do not count. A function's instructions belong to a cause by the call that led there (`cause`);
where none decides, as for malloc, they belong to the caller's cause, in proportion to what the
function took for each of its callers. Every instruction belongs to one cause, so the sum is what
was measured.
"""

import collections
import pathlib
import re

import callgrind
import report
from matplotlib import pyplot
from rig import SERVICE, THIS_BUILD, Broker, Service, load, request

TITLE = "Where the time goes"

PRIORITIES = ["ERROR", "INFO", "DEBUG"]
WARM_UP, JOBS = 50, 300
GOALS = {"ERROR": 275_000}

NETWORK = "MQTT library: loop, receive, publish"
REQUEST = "decoding the request (MessagePack)"
LOOK_UP = "looking the script up"
STATE = "Lua state: new, libraries, close"
VALUES = "pexenv, package paths, answer"
LOAD = "loading the script"
ARGUMENTS = "handing over the arguments"
CALL = "running the script"
LOG = "log"
OWN = "the service's own code and the rest"
CAUSES = [NETWORK, REQUEST, LOOK_UP, STATE, VALUES, LOAD, ARGUMENTS, CALL, LOG, OWN]

LUA = {"luaL_newstate": STATE, "lua_newstate": STATE, "luaL_openlibs": STATE,
       "luaL_requiref": STATE, "lua_close": STATE, "lua_setallocf": STATE, "lua_gc": STATE,
       "luaL_loadfilex": LOAD, "luaL_loadbufferx": LOAD, "lua_load": LOAD,
       "lua_pcallk": CALL, "lua_callk": CALL}
FILE_CALLS = re.compile(
    r"_*(opendir|readdir|closedir|scandir|f?access(at)?|[lf]?stat(at|x)?|open(at)?)(64)?(@.*)?")


def run(bench):
    repeats = bench.pick(3, 1)
    columns, totals = [], []
    for priority in PRIORITIES:
        profiles = []
        for repeat in range(repeats):
            bench.progress(f"log at {priority}, run {repeat + 1} of {repeats}")
            profiles.append(profile_of(bench.folder(), priority))
        profiles.sort(key=lambda profile: profile.total)
        columns.append(by_cause(profiles[repeats // 2]))  # so that the sum is the median
        totals.append([profile.total / JOBS for profile in profiles])

    for priority, total in zip(PRIORITIES, totals):
        bench.figure(name_of(priority), "instructions", total, at_most=GOALS.get(priority))
    if bench.other:
        bench.progress(f"log at {PRIORITIES[0]}, {bench.other.name}")
        theirs = [profile_of(bench.folder(), PRIORITIES[0], bench.other).total / JOBS
                  for _ in range(repeats)]
        bench.against(name_of(PRIORITIES[0]), "instructions", totals[0], theirs)
    rows = [[name, *(column[name] or "none" for column in columns)] for name in CAUSES]
    rows.append(["sum", *(sum(column.values()) for column in columns)])
    bench.table("instructions", ["instructions of a job, without the kernel's",
                                 *(f"log at {priority}" for priority in PRIORITIES)], rows)
    draw(bench, columns)


def name_of(priority):
    return f"A job with the log at {priority}, without the kernel"


def profile_of(folder, priority, build=THIS_BUILD):
    """The profile of JOBS jobs, after the first ones."""
    short, long = (run_jobs(folder / str(count), priority, count, build)
                   for count in (WARM_UP, WARM_UP + JOBS))
    return long.minus(short)


def run_jobs(folder, priority, count, build):
    path = folder / "profile"
    with Broker(folder / "broker") as broker, \
            Service(folder / "service", broker, priority, wrapper=callgrind.wrapper(path),
                    program=build.program) as service:
        load(service, request(args={"name": "dock 7"}), count)
    return callgrind.read(path)


def by_cause(profile):
    """Instructions a job by cause."""
    shares = shares_of(profile)
    counts = collections.Counter()
    for function, count in profile.own.items():
        share = shares.get(function, {})
        for name, part in share.items():
            counts[name] += count * part / JOBS
        counts[OWN] += count * (1 - sum(share.values())) / JOBS  # main, and what called it
    return counts


def shares_of(profile):
    """By function: which part of what it took belongs to which cause."""
    callers = collections.defaultdict(list)
    for (caller, callee), count in profile.edges.items():
        if count > 0:  # else it has only to do with the start or the end
            callers[callee].append((caller, count, cause(caller, callee)))

    shares = {}
    settled = False
    while not settled:  # a round is a step along the calls; recursion takes some more
        settled = True
        for callee, calls in callers.items():
            share = share_of(calls, shares)
            before = shares.get(callee, {})
            settled = settled and all(abs(part - before.get(name, 0)) < 1e-6
                                      for name, part in share.items())
            shares[callee] = share
    return shares


def share_of(calls, shares):
    """The share of what is called so, by those of its callers."""
    total = sum(count for _, count, _ in calls)
    share = collections.Counter()
    for caller, count, decided in calls:
        for name, part in ({decided: 1} if decided else shares.get(caller, {})).items():
            share[name] += part * count / total
    return share


def cause(caller, callee):
    """What the callee works for in this call, or None for what the caller works for."""
    from_service, to = is_service(caller), pathlib.Path(callee.object).name
    if to.startswith("libmosquitto"):
        return NETWORK
    if to.startswith("liblog4cpp"):
        return LOG
    if is_service(callee):
        return cause_in_service(caller, callee)
    if not from_service:
        return None
    arguments = is_for_arguments(caller)
    if callee.name == "lua_pcallk" and qualified(caller.name) != "pex::LuaVM::executeScript":
        return STATE  # the set-up is called protected, too
    if to.startswith("liblua"):
        return LUA.get(callee.name, None if arguments else VALUES)
    if to.startswith("libstdc++") and "ostream" in callee.name and not arguments:
        return LOG
    if to.startswith("libc.") and FILE_CALLS.fullmatch(callee.name):
        return LOOK_UP
    return None


def cause_in_service(caller, callee):
    name = qualified(callee.name)
    if is_lua(caller) or name.startswith("pex::LuaPool::"):
        return None  # the allocator works for whatever needs the memory
    if is_for_arguments(callee):
        return ARGUMENTS
    if name.startswith("log4cpp::"):
        return LOG
    if name.startswith("pex::ScriptDirectory::") or name == "pex::LuaAgent::findScript":
        return LOOK_UP
    if name.startswith("msgpack::"):
        decodes = qualified(caller.name).startswith(("pex::", "mqlink::"))
        return REQUEST if decodes and not is_for_arguments(caller) else None
    return OWN if name.startswith(("pex::", "mqlink::")) else None


def is_service(function):
    return pathlib.Path(function.object).name == SERVICE.name


def is_lua(function):
    return pathlib.Path(function.object).name.startswith("liblua")


def is_for_arguments(function):
    name = qualified(function.name)
    return name == "pex::LuaVM::loadArgs" or name.startswith("pex::PackToLuaConverter::")


def qualified(name):
    """A C++ function's name without its type, its parameters and those of its templates."""
    name = name.replace("(anonymous namespace)", "").replace("operator<<", "operator")
    while (shorter := re.sub(r"<[^<>]*>", "", name)) != name:
        name = shorter
    words = name.partition("(")[0].split()
    return words[-1] if words else name


def draw(bench, columns):
    """Bars, a group a cause."""
    figure, axes = pyplot.subplots(figsize=(8, 5.5))
    height = 0.27
    for i, (priority, column) in enumerate(zip(PRIORITIES, columns)):
        axes.barh([place + (i - 1) * height for place in range(len(CAUSES))],
                  [column[name] for name in CAUSES], height,
                  color=report.COLORS[i], label=f"log at {priority}")
    axes.set_yticks(range(len(CAUSES)), CAUSES)
    axes.invert_yaxis()
    axes.xaxis.set_major_formatter(report.PLAIN)
    bench.save(figure, axes, "instructions", "Instructions of a job, without the kernel's",
               "instructions", "")
