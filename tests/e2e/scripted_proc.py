"""What the kernel tells about a running daemon."""

import ctypes
import os
import pathlib
import socket

import pytest

_PIDFD_GETFD = 438  # the same number on every architecture


def processor_time(pid):
    """Seconds of processor time so far, user and system."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def is_sleeping(pid):
    return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "S"


def times_asleep(pid):
    """How often it has waited for something so far: for the time of its next attempt, say."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
    return next(int(line.split()[1]) for line in status
                if line.startswith("voluntary_ctxt_switches:"))


def connection_to(pid, port):
    """(descriptor number, socket) of the daemon's connection to a loopback port.

    The socket is the daemon's own, shared with the test: its options can be read.
    """
    inode = _inode_of_connection(pid, port)
    for entry in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        if os.readlink(entry) == f"socket:[{inode}]":
            return int(entry.name), _share(pid, int(entry.name))
    raise AssertionError(f"no descriptor of {pid} is the connection to port {port}")


def is_close_on_exec(pid, descriptor):
    info = pathlib.Path(f"/proc/{pid}/fdinfo/{descriptor}").read_text()
    flags = next(line.split()[1] for line in info.splitlines() if line.startswith("flags:"))
    return bool(int(flags, 8) & os.O_CLOEXEC)


def unread_bytes(local_port, remote_port):
    """What lies in the receive queue of one side of a loopback connection.

    An end that was not read yet counts as one byte.
    """
    for fields in _tcp_table("self"):
        if _port(fields[1]) == local_port and _port(fields[2]) == remote_port:
            return int(fields[4].partition(":")[2], 16)
    return 0


def _inode_of_connection(pid, port):
    for fields in _tcp_table(pid):
        if _port(fields[2]) == port and fields[9] != "0":
            return fields[9]
    raise AssertionError(f"no connection to port {port}")


def _tcp_table(pid):
    lines = pathlib.Path(f"/proc/{pid}/net/tcp").read_text().splitlines()[1:]
    return [line.split() for line in lines]


def _port(address):
    return int(address.partition(":")[2], 16)


def _share(pid, descriptor):
    process = os.pidfd_open(pid)
    try:
        libc = ctypes.CDLL(None, use_errno=True)
        shared = libc.syscall(_PIDFD_GETFD, process, descriptor, 0)
    finally:
        os.close(process)
    if shared < 0:
        pytest.skip(f"pidfd_getfd: {os.strerror(ctypes.get_errno())}")
    return socket.socket(fileno=shared)
