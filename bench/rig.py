"""What the cases stand on: private brokers, the service, the echo client, and the load on them.

Nothing here sleeps a guess, and every process that a case starts ends with its `with` block.
"""

import atexit
import ctypes
import json
import os
import pathlib
import shutil
import socket
import statistics
import subprocess
import tempfile
import time
from typing import NamedTuple

import msgpack

REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
BUILD = REPOSITORY / "build/release"
SERVICE = pathlib.Path(os.environ.get("PEX_COMMAND", BUILD / "pex-command")).resolve()
ECHO_CLIENT = BUILD / "bench/echo_client"
LOAD = BUILD / "bench/load"
HOST = "127.0.0.1"
DEADLINE = 120  # seconds for what takes a moment

PING = 'return "pong"\n'
LOG_LINES = """\
rootCategory={priority}, file
appender.file=FileAppender
appender.file.fileName={path}
appender.file.layout=PatternLayout
appender.file.layout.ConversionPattern=%d{{%Y-%m-%d %H:%M:%S,%l}} %p %c: %m%n
"""


class Failure(Exception):
    """What ends a case, in words for whoever runs it."""


def wait_until(condition, what):
    """Waits until `condition` holds, and returns what it gave."""
    end = time.monotonic() + DEADLINE
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > end:
            raise Failure(f"waited {DEADLINE} s for {what}")
        time.sleep(0.01)


def request(script="ping", args=None):
    """A request's payload."""
    return msgpack.packb({"lua_script": script, "args": args})


class Memory(NamedTuple):
    """Bytes. `pss` counts a page that n processes share as 1/n of a page."""

    rss: int
    pss: int
    peak: int  # the highest that rss ever was


def memory(pid):
    """The Memory of a process."""
    def kilobytes(name, key):
        for line in pathlib.Path(f"/proc/{pid}/{name}").read_text().splitlines():
            if line.startswith(key + ":"):
                return 1024 * int(line.split()[1])
        raise Failure(f"no {key} in /proc/{pid}/{name}")

    return Memory(kilobytes("smaps_rollup", "Rss"), kilobytes("smaps_rollup", "Pss"),
                  kilobytes("status", "VmHWM"))


class Process:
    """A process that runs until the `with` block ends."""

    def __init__(self, command, directory, wrapper=()):
        self.directory = pathlib.Path(directory)
        self.directory.mkdir(parents=True, exist_ok=True)
        self._stderr = self.directory / "stderr"
        with open(self._stderr, "wb") as stderr:
            self._process = subprocess.Popen(
                [*wrapper, *map(str, command)], cwd=self.directory,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=stderr)
        atexit.register(self._process.kill)  # if it never becomes ready for the `with` block

    @property
    def pid(self):
        return self._process.pid

    def alive(self):
        """True, or a Failure with what the process said last."""
        if self._process.poll() is not None:
            said = self._stderr.read_text(errors="replace")[-500:]
            raise Failure(f"{self._process.args[0]} ended with {self._process.returncode}: {said}")
        return True

    def processor_seconds(self):
        """User and system time so far, to the nanosecond."""
        clock = ctypes.c_int()
        if ctypes.CDLL(None).clock_getcpuclockid(self.pid, ctypes.byref(clock)) != 0:
            raise Failure(f"no processor clock of {self._process.args[0]}")
        return time.clock_gettime(clock.value)

    def memory(self):
        return memory(self.pid)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def end(self):
        """Ends the process by SIGTERM and returns its status."""
        self._process.terminate()
        try:
            return self._process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
            raise Failure(f"{self._process.args[0]} did not end") from None

    def __enter__(self):
        return self

    def __exit__(self, *error):
        if self._process.returncode is None:
            self.end()


class Broker(Process):
    """A private mosquitto: on a free loopback port, or on a Unix socket.

    `tcp` sets set_tcp_nodelay; `tcp-default` leaves everything but the queue's limit at
    mosquitto's defaults.
    """

    def __init__(self, directory, transport="tcp"):
        directory = pathlib.Path(directory)
        directory.mkdir(parents=True)
        self.host = str(directory / "socket") if transport == "unix" else HOST
        self.port = 0 if transport == "unix" else free_port()
        self._log = directory / "log"
        lines = [f"user {'root' if os.geteuid() == 0 else 'mosquitto'}",
                 f"listener {self.port} {self.host}", "allow_anonymous true",
                 "max_queued_messages 0", f"log_dest file {self._log}",
                 "log_type information", "log_type subscribe", "log_type error"]
        if transport == "tcp":
            lines.append("set_tcp_nodelay true")
        (directory / "mosquitto.conf").write_text("\n".join(lines) + "\n")
        mosquitto = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
        super().__init__([mosquitto, "-c", "mosquitto.conf"], directory)
        wait_until(lambda: self.alive() and self.lines(" running"), "the broker to start")

    def lines(self, text):
        """The lines of the broker's log that contain `text`."""
        log = self._log.read_text(errors="replace") if self._log.exists() else ""
        return [line for line in log.splitlines() if text in line]

    def wait_for_subscription(self, process, topic_filter, before=0):
        wait_until(lambda: process.alive() and len(self.lines(f" {topic_filter}")) > before,
                   f"the subscription to {topic_filter}")


def free_port():
    with socket.socket() as probe:
        probe.bind((HOST, 0))
        return probe.getsockname()[1]


class Build(NamedTuple):
    """A build of the service."""

    name: str
    program: pathlib.Path


THIS_BUILD = Build("this build", SERVICE)


class Service(Process):
    """The service with its own folder: scripts/ (with ping.lua), staging/, log.

    `search_dirs` are the script directories in place of scripts/; `priority` is the log's, which
    goes to a file. `settings` are more keys of the configuration. `program` is the build.

    All builds have the same client id, so no two of them can share a broker.
    """

    topic, reply = "in/cmd", "out/cmd"

    def __init__(self, directory, broker, priority="ERROR", search_dirs=None, wrapper=(),
                 settings=None, program=SERVICE):
        directory = pathlib.Path(directory)
        command = set_up_service(directory, broker, priority, search_dirs, settings, program)
        self.scripts = directory / "scripts"
        self.broker = broker
        before = len(broker.lines(" in/cmd/+"))
        super().__init__(command, directory, wrapper=wrapper)
        broker.wait_for_subscription(self, "in/cmd/+", before)


def set_up_service(directory, broker, priority="ERROR", search_dirs=None, settings=None,
                   program=SERVICE):
    """Writes what the service needs into `directory`, and returns the command that starts it."""
    scripts, staging = directory / "scripts", directory / "staging"
    scripts.mkdir(parents=True, exist_ok=True)
    staging.mkdir(exist_ok=True)
    (scripts / "ping.lua").write_text(PING)
    (directory / "properties").write_text(
        f"server_comms.host={broker.host}\n"
        f"server_comms.port={broker.port}\n"
        f"script.search_dirs={':'.join(map(str, search_dirs or [scripts]))}\n"
        f"script.staging_dir={staging}\n"
        + "".join(f"{key}={value}\n" for key, value in (settings or {}).items())
        + LOG_LINES.format(priority=priority, path=directory / "log"))
    return [program, directory / "properties"]


class Echo(Process):
    """The echo client: the limit that the service is measured against."""

    topic, reply = "in/echo", "out/echo"

    def __init__(self, directory, broker):
        self.broker = broker
        before = len(broker.lines(" in/echo/+"))
        super().__init__([ECHO_CLIENT, broker.host, broker.port, self.topic, self.reply],
                         directory)
        broker.wait_for_subscription(self, "in/echo/+", before)


class Outcome(NamedTuple):
    """What one run of the load saw."""

    seconds: float     # from the first request to the last answer
    latencies: list    # of each request, in microseconds, sorted
    arrivals: list     # of the answers as they came, in microseconds after the first request
    answer_bytes: int  # size of the last answer
    processor: float   # microseconds of processor time a job
    system: float      # the kernel's part of them, coarse

    @property
    def jobs_per_second(self):
        return len(self.latencies) / self.seconds

    def percentile(self, percent):
        return self.latencies[min(len(self.latencies) - 1, len(self.latencies) * percent // 100)]

    @property
    def median(self):
        return statistics.median(self.latencies)


def load(target, payload, count, window=1):
    """Sends `count` requests to a Service or an Echo, `window` of them in flight."""
    with tempfile.NamedTemporaryFile(dir=target.directory) as file:
        file.write(payload)
        file.flush()
        processor, ticks = target.processor_seconds(), processor_ticks(target.pid)
        run = subprocess.run(
            [LOAD, target.broker.host, str(target.broker.port), target.topic, target.reply,
             file.name, str(count), str(window)], capture_output=True, text=True, check=False)
    target.alive()
    if run.returncode != 0:
        raise Failure(run.stderr.strip())
    used = 1e6 * (target.processor_seconds() - processor) / count
    user, system = (after - before for after, before in zip(processor_ticks(target.pid), ticks))
    outcome = json.loads(run.stdout)
    return Outcome(outcome["seconds"], sorted(outcome["latencies"]), outcome["arrivals"],
                   outcome["answer_bytes"], used, used * system / max(1, user + system))


def jobs(target, payload, answer_bytes, count, window=1):
    """Like load(), but sees to it that the answers are right, and leaves none at the broker: they
    would come to the next subscriber ahead of the answers that count."""
    outcome = load(target, payload, count, window)
    load(target, b"", window, window)
    if outcome.answer_bytes != answer_bytes:
        raise Failure(f"an answer of {outcome.answer_bytes} bytes instead of {answer_bytes}")
    return outcome


def processor_ticks(pid):
    """User and system time of a process, in ticks of 10 ms (proc_pid_stat(5))."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return int(fields[11]), int(fields[12])
