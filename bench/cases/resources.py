"""What the service takes of the machine: memory, descriptors, processor time, the time to start.

PSS counts a page that n processes share as 1/n of a page, so it depends on what else runs. It is
measured twice: where another program uses the same libraries (this script does, above all the C++
library), and on copies of the libraries that only the broker, the service and the echo client use.
"""

import collections
import contextlib
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import time

from rig import (DEADLINE, ECHO_CLIENT, HOST, SERVICE, Broker, Echo, Failure, Service, load,
                 request, set_up_service, wait_until)

TITLE = "Resources"

MB, KB = 1e6, 1e3
WARM_UP = 1000  # jobs
WINDOW = 100    # jobs in flight while the memory may grow

# MQTT 3.1.1: a CONNACK that accepts, and the first bytes of CONNECT and SUBSCRIBE.
CONNACK, CONNECT, SUBSCRIBE = b"\x20\x02\x00\x00", 0x10, 0x82


def run(bench):
    memory(bench)
    if bench.other:
        memory_of_builds(bench)
    growth(bench)
    start(bench)
    size(bench)
    idle(bench)


def memory(bench):
    shared, _, _ = measure(bench, "shared libraries", contextlib.nullcontext)
    alone, after, table = measure(
        bench, "libraries of its own", lambda: private_libraries(bench.folder()))
    compare_memory(bench, "Idle: RSS", "rss", alone, 2.4)
    compare_memory(bench, "Idle, libraries shared with another program: PSS", "pss", shared, 0.6)
    compare_memory(bench, "Idle, libraries shared with none: PSS", "pss", alone)
    compare_memory(bench, f"After {WARM_UP:,} jobs: RSS", "rss", after)
    bench.table("memory", [f"memory after {WARM_UP:,} jobs, in kB", "service RSS", "echo RSS",
                           "service PSS", "echo PSS"], table)


def measure(bench, name, libraries):
    """Pairs of Memory before any job and after some, and a table by file."""
    rounds = bench.pick(5, 2)
    before, after = [], []
    for number in range(rounds):
        bench.progress(f"memory with {name}, round {number + 1} of {rounds}")
        folder = bench.folder()
        with libraries(), Broker(folder / "broker") as broker, \
                Service(folder / "service", broker) as service, \
                Echo(folder / "echo", broker) as echo:
            before.append((service.memory(), echo.memory()))
            for target in (service, echo):
                load(target, request(), WARM_UP)
            after.append((service.memory(), echo.memory()))
            table = by_file(service, echo)
    return before, after, table


@contextlib.contextmanager
def private_libraries(folder):
    """Until the end of the block, programs start with copies of their libraries."""
    mosquitto = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
    for program in (SERVICE, ECHO_CLIENT, mosquitto):
        listed = subprocess.run(["ldd", program], capture_output=True, text=True, check=True)
        for library in re.findall(r"=> (/\S+)", listed.stdout):
            copy_as_installed(library, folder / pathlib.Path(library).name)
    before = os.environ.get("LD_LIBRARY_PATH")
    os.environ["LD_LIBRARY_PATH"] = str(folder)
    try:
        yield
    finally:
        del os.environ["LD_LIBRARY_PATH"]
        if before is not None:
            os.environ["LD_LIBRARY_PATH"] = before


def copy_as_installed(source, destination):
    """Leaves the copy on the disk alone: what has just been written lies in the page cache in
    larger pieces than what was read, and a program would map more of it."""
    shutil.copy(source, destination)
    with open(destination, "rb") as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def compare_memory(bench, label, name, pairs, goal=None):
    """`goal` is what it may be beyond the echo client's, in MB."""
    services, echoes = ([getattr(memory, name) / MB for memory in memories]
                        for memories in zip(*pairs))
    bench.compare(label, "MB", services, echoes)
    bench.figure(f"{label} beyond the echo client's", "MB",
                 [service - echo for service, echo in zip(services, echoes)], at_most=goal)


def memory_of_builds(bench):
    """RSS of both builds, in turns. The PSS of one would depend on the other's libraries."""
    rounds = bench.pick(5, 2)
    idle, after = [[], []], [[], []]
    for number in range(rounds):
        bench.progress(f"memory of both builds, round {number + 1} of {rounds}")
        for build, before_jobs, after_jobs in zip(bench.builds, idle, after, strict=True):
            folder = bench.folder()
            with Broker(folder / "broker") as broker, \
                    Service(folder / "service", broker, program=build.program) as service:
                before_jobs.append(service.memory().rss / MB)
                load(service, request(), WARM_UP)
                after_jobs.append(service.memory().rss / MB)
    bench.against("Idle: RSS", "MB", *idle)
    bench.against(f"After {WARM_UP:,} jobs: RSS", "MB", *after)


def by_file(service, echo):
    """Rows of a table: what is mapped, and the kB of it."""
    (service_rss, service_pss), (echo_rss, echo_pss) = mapped(service), mapped(echo)
    columns = [service_rss, echo_rss, service_pss, echo_pss]
    names = sorted(set().union(*columns), key=lambda name: -service_pss[name])
    rows = [[name, *(column[name] / KB for column in columns)] for name in names]
    return [*rows, ["all", *(sum(column.values()) / KB for column in columns)]]


def mapped(process):
    """RSS and PSS, in bytes, by file."""
    sizes = {"Rss": collections.Counter(), "Pss": collections.Counter()}
    for line in pathlib.Path(f"/proc/{process.pid}/smaps").read_text().splitlines():
        words = line.split()
        if not words[0].endswith(":"):
            name = pathlib.Path(words[5]).name if len(words) > 5 else ""
            if not name or name.startswith("["):
                name = "heap, stack and the like"
        elif words[0][:-1] in sizes:
            sizes[words[0][:-1]][name] += 1024 * int(words[1])
    return sizes["Rss"], sizes["Pss"]


def growth(bench):
    jobs, points = bench.pick((100_000, 20), (2000, 10))
    folder = bench.folder()
    with Broker(folder / "broker") as broker, Service(folder / "service", broker) as service:
        load(service, request(), WARM_UP, WINDOW)
        descriptors, sizes = service.descriptors(), [service.memory().rss]
        for point in range(points):
            bench.progress(f"growth, job {point * jobs // points:,} of {jobs:,}")
            load(service, request(), jobs // points, WINDOW)
            sizes.append(service.memory().rss)
        bench.figure(f"Growth of the RSS over {jobs:,} jobs, after the first {WARM_UP:,}", "kB",
                     (sizes[-1] - sizes[0]) / KB, at_most=100)
        bench.figure(f"Open descriptors before these {jobs:,} jobs", "", descriptors)
        bench.figure(f"Open descriptors after these {jobs:,} jobs", "", service.descriptors())
    done = [WARM_UP + point * jobs // points for point in range(points + 1)]
    bench.plot("memory_growth", f"The service's memory, {WINDOW} jobs in flight", "jobs",
               "RSS in MB", [("service", done, [size / MB for size in sizes])], logarithmic=False)


def start(bench):
    """From the system call that starts the program to the arrival of its subscription at a broker
    that does nothing else."""
    rounds = bench.pick(30, 5)
    with Listener() as broker:
        commands = [[ECHO_CLIENT, broker.host, broker.port, Echo.topic, Echo.reply],
                    *(set_up_service(bench.folder(), broker, program=build.program)
                      for build in bench.builds)]
        for command in commands:
            time_to_subscribe(broker, command)  # brings the files into memory
        sides = [[] for _ in commands]
        for number in range(rounds):
            bench.progress(f"start, round {number + 1} of {rounds}")
            for command, side in zip(commands, sides, strict=True):
                side.append(time_to_subscribe(broker, command))
    echoes, services, *others = sides
    bench.compare("From exec to subscribed", "ms", services, echoes)
    bench.figure("From exec to subscribed, the service alone", "ms", services, at_most=4)
    for theirs in others:
        bench.against("From exec to subscribed", "ms", services, theirs)


class Listener:
    """A listening socket in place of a broker."""

    def __init__(self):
        self.host = HOST
        self._socket = socket.create_server((HOST, 0))
        self._socket.settimeout(DEADLINE)
        self.port = self._socket.getsockname()[1]

    def accept(self):
        connection, _ = self._socket.accept()
        connection.settimeout(DEADLINE)
        return connection

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self._socket.close()


def time_to_subscribe(broker, command):
    """In ms. Each packet of the client's comes whole, since it is the only one on its way."""
    command = list(map(str, command))
    begin = time.monotonic_ns()
    pid = os.posix_spawn(command[0], command, os.environ)
    try:
        with broker.accept() as connection:
            expect(connection, CONNECT)
            connection.sendall(CONNACK)
            expect(connection, SUBSCRIBE)
            end = time.monotonic_ns()
            finish(pid)
    except OSError as error:
        raise Failure(f"{command[0]} did not subscribe: {error}") from None
    finally:
        with contextlib.suppress(ProcessLookupError):  # unless it has ended already
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
    return (end - begin) / 1e6


def expect(connection, first_byte):
    packet = connection.recv(4096)
    if packet[:1] != bytes([first_byte]):
        raise Failure(f"not the packet that a client begins with: {packet!r}")


def finish(pid):
    os.kill(pid, signal.SIGTERM)
    wait_until(lambda: os.waitpid(pid, os.WNOHANG)[0] == pid, "the program to end")


def size(bench):
    name = "Size of the program, stripped"
    ours, *others = [stripped_size(bench.folder(), build.program) for build in bench.builds]
    bench.figure(name, "bytes", ours)
    for theirs in others:
        bench.against(name, "bytes", [ours], [theirs])


def stripped_size(folder, program):
    subprocess.run(["strip", "-o", folder / program.name, program], check=True)
    return (folder / program.name).stat().st_size


def idle(bench):
    """The processor time of three processes beside each other, none of which has anything to do."""
    seconds = bench.pick(60, 3)
    folder = bench.folder()
    with Broker(folder / "broker") as broker, AbsentBroker() as nobody, \
            Service(folder / "service", broker) as service, \
            Service(folder / "alone", nobody) as alone, Echo(folder / "echo", broker) as echo:
        processes = (service, echo, alone)
        bench.progress(f"idle for {seconds} s")
        before = [process.processor_seconds() for process in processes]
        time.sleep(seconds)
        by_service, by_echo, by_alone = (1e3 * (process.processor_seconds() - begin)
                                         for process, begin in zip(processes, before))
    bench.compare(f"Processor time in {seconds} s without a job", "ms", [by_service], [by_echo])
    bench.figure(f"Processor time in {seconds} s without a broker", "ms", by_alone)


class AbsentBroker:
    """A port of the loopback interface that nothing listens on, nor will."""

    def __init__(self):
        self.host = HOST
        self._socket = socket.socket()
        self._socket.bind((HOST, 0))
        self.port = self._socket.getsockname()[1]

    def lines(self, _text):
        return []

    def wait_for_subscription(self, process, *_filter):
        """Waits for the failure to connect instead."""
        log = process.directory / "log"
        wait_until(lambda: process.alive() and log.exists()
                   and "Couldn't reach broker" in log.read_text(),
                   "the service to miss its broker")

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self._socket.close()
