"""Counts the system calls of a program, by `strace -c`."""

import collections
import pathlib
import subprocess

from rig import wait_until


def wrapper(path):
    """What to put before a command, so that its counts are in `path` when it has ended. strace is
    not the command's parent: signals and waits reach the command itself."""
    return ["strace", "-D", "-f", "-c", "-o", str(path)]


def refusal(folder):
    """Why nothing can be counted here, or "" if it can: a container may forbid ptrace."""
    path = pathlib.Path(folder) / "probe"
    tried = subprocess.run([*wrapper(path), "true"], capture_output=True, text=True, check=False)
    if path.exists() and complete(path.read_text()):
        return ""
    return "; ".join(tried.stderr.splitlines()) or "nothing"


def read(path):
    """A Counter of the calls by name. strace writes it a moment after the command has ended."""
    path = pathlib.Path(path)
    wait_until(lambda: path.exists() and complete(path.read_text()), "strace's counts")
    return parse(path.read_text())


def complete(text):
    return text.endswith(" total\n")


def parse(text):
    """The lines are: part of the time, seconds, microseconds a call, calls, errors if any, name."""
    lines = [line.split() for line in text.splitlines()]
    return collections.Counter({words[-1]: int(words[3]) for words in lines
                                if words[0][0].isdigit() and words[-1] != "total"})
