"""Two hosts on one cable, made of network namespaces, whose connection a test can break without
either side being told. Needs root's rights, ip(8) and ss(8)."""

import contextlib
import ctypes
import itertools
import os
import subprocess

_CLONE_NEWNET = 0x40000000
_numbers = itertools.count()


def missing():
    """Why there can be no Cable here, or None."""
    if os.geteuid() != 0:
        return "network namespaces need root's rights"
    try:
        Cable().remove()
    except FileNotFoundError:
        return "ip(8) is missing"
    except subprocess.CalledProcessError as error:
        return f"{' '.join(error.cmd)}: {error.stderr.strip()}"
    return None


class Cable:
    """From a host `daemon_side` to a host `broker_side`, which has the address broker_address."""

    broker_address = "192.0.2.1"  # reserved for examples; nobody else sees it
    _daemon_address = "192.0.2.2"

    def __init__(self):
        name = f"pex-{os.getpid()}-{next(_numbers)}"
        self.daemon_side = name + "-daemon"
        self.broker_side = name + "-broker"
        try:
            self._make()
        except BaseException:
            self.remove()
            raise

    def unplug(self):
        """The daemon's host still sees its own end, but no carrier."""
        _ip("-n", self.broker_side, "link", "set", "cable", "down")

    def plug_in(self):
        _ip("-n", self.broker_side, "link", "set", "cable", "up")

    def swallow_answers(self):
        """The broker's host is there, and everything it sends to the daemon's host is lost."""
        _ip("-n", self.broker_side, "route", "add", "blackhole", self._daemon_address)

    def pass_answers(self):
        _ip("-n", self.broker_side, "route", "del", "blackhole", self._daemon_address)

    def connections_of_the_daemon(self):
        """The TCP connections of its host, in ss(8)'s words."""
        with on_host(self.daemon_side):
            return _run("ss", "--tcp", "--all", "--numeric").lower()

    def remove(self):
        for side in (self.daemon_side, self.broker_side):
            with contextlib.suppress(subprocess.CalledProcessError):
                _ip("netns", "del", side)

    def _make(self):
        sides = ((self.daemon_side, self._daemon_address), (self.broker_side, self.broker_address))
        for side, _ in sides:
            _ip("netns", "add", side)
        _ip("link", "add", "cable", "netns", self.daemon_side, "type", "veth",
            "peer", "name", "cable", "netns", self.broker_side)
        for side, address in sides:
            _ip("-n", side, "address", "add", address + "/24", "dev", "cable")
            _ip("-n", side, "link", "set", "lo", "up")
            _ip("-n", side, "link", "set", "cable", "up")


@contextlib.contextmanager
def on_host(side):
    """Sockets, processes and threads that are made inside belong to that host and stay there."""
    with open("/proc/thread-self/ns/net") as home, open(f"/run/netns/{side}") as away:
        _enter(away)
        try:
            yield
        finally:
            _enter(home)


def _enter(namespace):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.setns(namespace.fileno(), _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def _ip(*arguments):
    _run("ip", *arguments)


def _run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout
