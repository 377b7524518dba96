"""Counts the instructions of a program, function by function, by `valgrind --tool=callgrind`."""

import collections
import re
from typing import NamedTuple


class Function(NamedTuple):
    object: str  # the path of the program or library
    name: str    # with its parameters if it is C++


class Profile(NamedTuple):
    """Instructions, the kernel's apart."""

    own: dict     # by function, without what it calls
    edges: dict   # by (caller, callee): what the callee took for this caller, callees included

    @property
    def total(self):
        return sum(self.own.values())

    def minus(self, other):
        """What this run has taken beyond `other`, a shorter run of the same program."""
        def beyond(longer, shorter):
            return {key: count - shorter.get(key, 0) for key, count in longer.items()
                    if count != shorter.get(key, 0)}

        return Profile(beyond(self.own, other.own), beyond(self.edges, other.edges))


def wrapper(path):
    """What to put before a command, so that it leaves its profile in `path` when it ends."""
    return ["valgrind", "--quiet", "--tool=callgrind", "--vgdb=no", f"--callgrind-out-file={path}"]


def read(path):
    """The profile in `path`. Functions that recurse are one function, however deep they are."""
    own, edges = collections.Counter(), collections.Counter()
    names = {}
    place = {}  # what "ob", "fn", "cob" and "cfn" stand at
    is_call = False
    with open(path, encoding="utf-8") as file:
        for line in file:
            key, _, value = line.rstrip("\n").partition("=")
            if key in ("ob", "fn", "cob", "cfn"):
                place[key] = name_of(names, key.removeprefix("c"), value)
                if key == "fn":
                    place.pop("cob", None)
            elif key == "calls":
                is_call = True  # the next line has the cost of these calls
            elif line[:1].isdigit() or line[:1] in ("+", "-", "*"):
                cost = int(line.split()[1])
                caller = Function(place["ob"], place["fn"])
                if is_call:
                    edges[caller, Function(place.pop("cob", place["ob"]), place["cfn"])] += cost
                else:
                    own[caller] += cost
                is_call = False
    return Profile(own, edges)


def name_of(names, kind, value):
    """The name that "(12) some name" gives to number 12, or that "(12)" has got before."""
    number, name = re.fullmatch(r"\((\d+)\)(?: (.*))?", value).groups()
    if name is not None:
        names[kind, number] = re.sub(r"'\d+$", "", name) if kind == "fn" else name
    return names[kind, number]
