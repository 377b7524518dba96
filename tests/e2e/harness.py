"""End-to-end harness: the real daemon and pexctl, a real mosquitto and an independent client.

Run the tests with

    /usr/bin/pytest tests/e2e

Environment variables:

    PEX_COMMAND          the daemon's binary; default build/debug/pex-command
    PEXCTL               pexctl's binary; default build/debug/pexctl
    PEX_COMMAND_WRAPPER  a command put before both, such as "valgrind -q --error-exitcode=99"
    PEX_DEADLINE_FACTOR  stretches every deadline, for slow builds; default 1
    PEX_ONE_OF_EACH      set: each test runs with the first of its parameters only

A test takes what it needs from the fixtures in conftest.py:

    def test_echo(service, server, scripts):
        scripts.add("echo", "return args")          # also while the daemon runs
        assert server.run("7", "echo", "hi") == b"hi"

    broker       a started Broker
    scripts      the script directory that `service` is configured with
    new_service  new_service({"script.search_dirs": None}) makes one more Service for `broker`,
                 not started; settings override single keys, None removes one
    service      a started Service, subscribed at `broker`
    server       a connected Server
    waiting_job  a WaitingJob in `scripts`
    pexctl       pexctl("run", "greet") runs pexctl to its end and returns an Outcome
    remote       remote("submit", "greet") does it with the options -h and -p of `broker`

Nothing here sleeps a guess. What a test waits for is an event: a line in the broker's log, a
record in the daemon's log, a message, the end of a process. All waits end after DEADLINE.

A daemon that a test leaves running is stopped by SIGTERM and must exit with 0, and one that ended
without the test asking for its status fails the test. So crashes and sanitizer reports count
wherever they happen. pexctl must end with one of the statuses that its documents name; where a test
expects it to die by a signal, the test says so.
"""

import contextlib
import ctypes
import math
import os
import pathlib
import queue
import re
import shlex
import signal
import socket
import subprocess
import tempfile
import time
import uuid
from typing import NamedTuple

import msgpack
import paho.mqtt.client as mqtt

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
DEADLINE_FACTOR = float(os.environ.get("PEX_DEADLINE_FACTOR", "1"))
DEADLINE = 30 * DEADLINE_FACTOR
# For pexctl's -W where it has to run out. What happens before that must have happened by then.
SHORT_TIMEOUT = str(math.ceil(DEADLINE_FACTOR))
WRAPPER = shlex.split(os.environ.get("PEX_COMMAND_WRAPPER", ""))
MOSQ_ERR_INVAL = 3  # mosquitto.h


def binary():
    return os.path.abspath(os.environ.get("PEX_COMMAND", REPOSITORY / "build/debug/pex-command"))


def pexctl_binary():
    return os.path.abspath(os.environ.get("PEXCTL", REPOSITORY / "build/debug/pexctl"))


def pexctl_program(directory):
    """An executable named pexctl in `directory`, for what takes one word; runs the wrapper, too."""
    program = pathlib.Path(directory) / "pexctl"
    program.write_text(f'#!/bin/sh\nexec {shlex.join([*WRAPPER, pexctl_binary()])} "$@"\n')
    program.chmod(0o755)
    return str(program)


def word_size():
    """The width of the daemon's pointers, of size_t and of long, in bits. In files of the format
    ELF, byte 4 tells it."""
    with open(binary(), "rb") as file:
        head = file.read(5)
    assert head[:4] == b"\x7fELF", head
    return {1: 32, 2: 64}[head[4]]


def library_text(status):
    """What libmosquitto says for one of its return codes: its versions differ."""
    library = ctypes.CDLL("libmosquitto.so.1")
    library.mosquitto_strerror.restype = ctypes.c_char_p
    return library.mosquitto_strerror(status).decode()


def mosquitto_version():
    """The broker's version: (2, 0, 11) in Debian 12, (2, 0, 21) in Debian 13."""
    text = subprocess.run(["mosquitto", "-h"], stdout=subprocess.PIPE, text=True).stdout
    return tuple(map(int, re.match(r"mosquitto version (\d+)\.(\d+)\.(\d+)", text).groups()))


def own_environment(env=()):
    """The environment of the programs under test: this one's, without what Lua listens to."""
    inherited = {name: value for name, value in os.environ.items() if not name.startswith("LUA_")}
    return {**inherited, "LC_ALL": "C", **dict(env)}


def tcp_table(pid):
    """The TCP connections that a process holds: rows of /proc/net/tcp, split at blanks."""
    links = []
    for entry in os.scandir(f"/proc/{pid}/fd"):
        with contextlib.suppress(FileNotFoundError):  # closed since it was listed
            links.append(os.readlink(entry.path))
    rows = [line.split() for line in
            pathlib.Path(f"/proc/{pid}/net/tcp").read_text().splitlines()[1:]]
    return [row for row in rows if f"socket:[{row[9]}]" in links]


def wait_until(condition, what, deadline=DEADLINE):
    """Returns the first true value of condition()."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < end, "waited in vain for " + (what() if callable(what) else what)
        time.sleep(0.005)


def request(script, args=None):
    """The payload that asks for a script to be run."""
    return msgpack.packb({"lua_script": script, "args": args})


def failure(reason):
    """The result payload of a job that failed."""
    return msgpack.packb({"status": False, "reason": reason})


class Broker:
    """A private mosquitto on a free loopback port, with a log of everything.

    `extra_config` is appended to its configuration. stop() and start(), or kill() and start(),
    keep the port, the configuration and the log, so a mark() made before is still good after.
    """

    host = "127.0.0.1"

    def __init__(self, directory, extra_config=""):
        self.directory = pathlib.Path(directory)
        self.extra_config = extra_config
        self.port = None
        self.process = None
        self._log = self.directory / "mosquitto.log"
        self._config = self.directory / "mosquitto.conf"

    def start(self):
        end = time.monotonic() + DEADLINE
        keep_port = self.port is not None
        while not self._try_start(self.port if keep_port else free_port()):
            assert time.monotonic() < end, "mosquitto does not start:\n" + self.log()[-2000:]
            time.sleep(0.05)
        return self

    def stop(self):
        self._end(signal.SIGTERM)

    def kill(self):
        self._end(signal.SIGKILL)

    def signal(self, number):
        self.process.send_signal(number)

    def mark(self):
        """The present end of the log, for log() and wait_for()."""
        return len(self.log())

    def log(self, since=0):
        try:
            return self._log.read_text(errors="surrogateescape")[since:]
        except FileNotFoundError:
            return ""

    def lines(self, text, since=0):
        """The log's lines that contain `text`."""
        return [line for line in self.log(since).splitlines() if text in line]

    def wait_for(self, text, since=0, count=1):
        """Waits until `count` lines of the log contain `text`, and returns them."""
        def found():
            lines = self.lines(text, since)
            return lines if len(lines) >= count else None

        return wait_until(
            found, lambda: f"{text!r} in the broker's log:\n{self.log(since)[-2000:]}")

    def _try_start(self, port):
        self.port = port
        self._config.write_text(
            # Without a user mosquitto would give up root's rights, and with them the directory.
            f"user {'root' if os.geteuid() == 0 else 'mosquitto'}\n"
            f"log_dest file {self._log}\n"
            "log_type all\n"
            "log_timestamp false\n"
            "allow_anonymous true\n"
            "set_tcp_nodelay true\n"
            "max_queued_messages 0\n"
            f"persistence_location {self.directory}/\n"
            f"listener {port} {self.host}\n"
            f"{self.extra_config}\n")
        since = self.mark()
        self.process = subprocess.Popen(
            ["mosquitto", "-c", str(self._config)], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(lambda: self.lines(" running", since) or self.process.poll() is not None,
                   lambda: "the broker to start:\n" + self.log(since))
        return self.process.poll() is None

    def _end(self, number):
        if self.process is not None:
            # Sent again and again: mosquitto 2.0.11 forgets a signal that comes just after it has
            # logged that it runs.
            wait_until(lambda: self.process.poll() is not None or self.process.send_signal(number),
                       "the end of the broker")
            self.process = None


def free_port():
    """A port that was free a moment ago. Whoever uses it must cope with losing the race for it."""
    with socket.socket() as probe:
        probe.bind((Broker.host, 0))
        return probe.getsockname()[1]


class Record(NamedTuple):
    priority: str
    category: str
    message: str


class Service:
    """One run of the daemon: its configuration file, its process, its log and its end.

    `settings` overrides single keys of the configuration; None removes a key. `config_text`
    replaces the whole file. The log goes to `log_file` at DEBUG.
    """

    # The separators are control characters, so that records may hold any text and any line end.
    _pattern = "%p\x1f%c\x1f%m\x1e%n"

    def __init__(self, directory, broker=None, settings=(), config_text=None, cwd=None, env=()):
        self.directory = pathlib.Path(directory)
        self.directory.mkdir(exist_ok=True)
        self.broker = broker
        self.cwd = cwd or self.directory
        self.env = own_environment(env)
        self.config_file = self.directory / "pex-command.properties"
        self.log_file = self.directory / "pex-command.log"
        self.staging_dir = self.directory / "staging"
        self.staging_dir.mkdir(exist_ok=True)
        self.config_file.write_text(config_text or self._config_text(dict(settings)))
        self.process = None
        self._mark = 0
        self._ended = False

    def start(self, arguments=None):
        """Starts the daemon, with its configuration file or other `arguments`. Does not wait."""
        self._mark = self.broker.mark() if self.broker else 0
        self._ended = False
        command = [*WRAPPER, binary(), *([self.config_file] if arguments is None else arguments)]
        with open(self.directory / "stdout", "ab") as out, \
                open(self.directory / "stderr", "ab") as err:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out,
                                            stderr=err, cwd=self.cwd, env=self.env)
        return self

    def start_up(self):
        """Starts the daemon and waits until it is ready for requests."""
        return self.start().wait_until_subscribed()

    def wait_until_subscribed(self, since=None):
        """Waits for the broker's acknowledgement since start(), or since a mark of the broker's."""
        mark = self._mark if since is None else since
        self._wait_alive(
            lambda: self.broker.lines("Sending SUBACK to command_service", mark),
            lambda: "the subscription; the broker's log:\n" + self.broker.log(mark)[-2000:])
        return self

    @property
    def pid(self):
        return self.process.pid

    def stdout(self):
        return (self.directory / "stdout").read_bytes()

    def stderr(self):
        return (self.directory / "stderr").read_text(errors="surrogateescape")

    def records(self, priority=None):
        """The daemon's log so far, or one priority of it: a list of (priority, category, message).
        """
        try:
            text = self.log_file.read_bytes().decode(errors="surrogateescape")
        except FileNotFoundError:
            return []
        complete = text.split("\x1e\n")[:-1]
        records = [Record(*piece.split("\x1f", 2)) for piece in complete]
        return [record for record in records if priority in (None, record.priority)]

    def wait_for_record(self, text, since=0):
        """Waits for a record that contains `text`, at position `since` or later; returns it."""
        def found():
            return next((record for record in self.records()[since:] if text in record.message),
                        None)

        return self._wait_alive(found, lambda: f"the record {text!r}; the last ones:\n" +
                                "\n".join(map(str, self.records()[-20:])))

    def tcp_table(self):
        return tcp_table(self.pid)

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self):
        """Waits for the end. Returns the exit status, or minus the number of a deadly signal."""
        status = self.process.wait(DEADLINE)
        self._ended = True
        return status

    def stop(self):
        """Stops the daemon by SIGTERM, which must give the exit status 0."""
        assert self.process.poll() is None, self._story()
        self.signal(signal.SIGTERM)
        assert self.wait() == 0, self._story()

    def finish(self):
        """What a test that started the daemon owes: see the end of this module's text."""
        if self.process is None or self._ended:
            return
        try:
            self.stop()
        finally:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()

    def _wait_alive(self, condition, what):
        def found_or_dead():
            dead = self.process.poll() is not None  # looked at first: its last words still count
            value = condition()
            assert value or not dead, self._story()
            return value

        return wait_until(found_or_dead, what)

    def _story(self):
        return f"the daemon ended with {self.process.poll()}; its standard error:\n{self.stderr()}"

    def _config_text(self, settings):
        defaults = {
            "log4cpp.rootCategory": "DEBUG, FILE",
            "log4cpp.appender.FILE": "FileAppender",
            "log4cpp.appender.FILE.fileName": self.log_file,
            "log4cpp.appender.FILE.layout": "PatternLayout",
            "log4cpp.appender.FILE.layout.ConversionPattern": self._pattern,
            "server_comms.host": Broker.host,
            "server_comms.port": self.broker.port if self.broker else 1,
            "script.staging_dir": self.staging_dir,
        }
        return "".join(f"{key}={value}\n" for key, value in {**defaults, **settings}.items()
                       if value is not None)


class Scripts:
    """A directory of job scripts."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.directory.mkdir(parents=True, exist_ok=True)

    def add(self, name, text):
        """Writes name + ".lua" and returns its path."""
        path = self.directory / (name + ".lua")
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return path


class WaitingJob:
    """A script named "wait", which runs until it is released and then answers its args, or, if
    they are nil, "released"."""

    def __init__(self, scripts, directory):
        self._running = pathlib.Path(directory) / "running"
        self._released = pathlib.Path(directory) / "released"
        # No blocking call, since a signal would make it fail.
        scripts.add("wait", f"""
            io.open("{self._running}", "w"):close()
            local released
            repeat
                released = io.open("{self._released}")
            until released
            released:close()
            return args or "released"
        """)

    def wait_until_running(self):
        wait_until(self._running.exists, "the job to run")

    def release(self):
        self._released.touch()


class Connection:
    """A paho client with Nagle's algorithm switched off and its messages in a queue."""

    def __init__(self, broker, subscriptions=()):
        self.messages = queue.Queue()
        self._acknowledged = queue.Queue()
        # paho 2 wants to be told which callbacks it is to call; paho 1 knows one kind.
        kinds = getattr(mqtt, "CallbackAPIVersion", None)
        self._client = mqtt.Client(*[kinds.VERSION2] if kinds else [],
                                   client_id="test-" + uuid.uuid4().hex)
        self._client.max_queued_messages_set(0)
        self._client.on_socket_open = lambda client, userdata, sock: sock.setsockopt(
            socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._client.on_connect = lambda *args: self._acknowledged.put("CONNACK")
        self._client.on_subscribe = lambda *args: self._acknowledged.put("SUBACK")
        self._client.on_message = lambda client, userdata, message: self.messages.put(message)
        self._client.connect(broker.host, broker.port, keepalive=0)
        self._client.loop_start()
        assert self._acknowledged.get(timeout=DEADLINE) == "CONNACK"
        if subscriptions:
            self._client.subscribe(list(subscriptions))
            assert self._acknowledged.get(timeout=DEADLINE) == "SUBACK"

    def publish(self, topic, payload, qos, retain):
        """Publishes and waits until the broker has taken the message."""
        info = self._client.publish(topic, payload, qos, retain)
        info.wait_for_publish(DEADLINE)
        assert info.is_published(), f"the broker did not take a message on {topic!r}"

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.close()


class Server:
    """The remote server: publishes requests on one connection, gets results on another."""

    def __init__(self, broker):
        self._broker = broker
        self._subscriber = Connection(broker, [("out/cmd/#", 2)])
        self._publisher = Connection(broker)

    def publish(self, job_id, payload, qos=1, retain=False):
        """Publishes a request, or a withdrawal if `payload` is empty, on in/cmd/ + job_id."""
        self.publish_to("in/cmd/" + job_id, payload, qos, retain)

    def publish_to(self, topic, payload, qos=1, retain=False):
        self._publisher.publish(topic, payload, qos, retain)

    def result(self):
        """The next message on out/cmd/#, of paho's type: topic, payload, qos, retain."""
        try:
            return self._subscriber.messages.get(timeout=DEADLINE)
        except queue.Empty:
            raise AssertionError("no result came") from None

    def results(self, count):
        return [self.result() for _ in range(count)]

    def run(self, job_id, script, args=None):
        """Has a script run and returns the payload of its result."""
        self.publish(job_id, request(script, args))
        message = self.result()
        assert message.topic == "out/cmd/" + job_id, (message.topic, message.payload)
        return message.payload

    def expect_no_more(self):
        """Fails if a message on out/cmd/# comes, or is yet to come, for what was published so far.

        Requests are handled in order and results arrive in order, so the result of one more job
        is proof enough.
        """
        job_id = "fence-" + uuid.uuid4().hex
        self.publish(job_id, b"\xc0")
        message = self.result()
        assert message.topic == "out/cmd/" + job_id, (message.topic, message.payload)

    def retained(self, topic):
        """The retained message on `topic`, as a new QoS 2 subscription gets it, or None."""
        messages = self.all_retained(topic)
        assert len(messages) <= 1
        return messages[0] if messages else None

    def all_retained(self, topic_filter):
        # The broker sends the retained messages first, then what comes in after the subscription.
        fence = "fence/" + uuid.uuid4().hex
        with Connection(self._broker, [(topic_filter, 2), (fence, 2)]) as late:
            late.publish(fence, b"", 2, False)
            messages = []
            while True:
                message = late.messages.get(timeout=DEADLINE)
                if message.topic == fence:
                    return messages
                messages.append(message)

    def close(self):
        self._publisher.close()
        self._subscriber.close()


class Outcome(NamedTuple):
    """How a run of pexctl has ended."""

    status: int
    stdout: bytes
    stderr: str


class PexctlRun:
    """One run of pexctl, from its start on. Its standard output is a pipe unless another
    descriptor is given."""

    _documented_statuses = {0, 1, 2, 3, 4, 130}

    def __init__(self, arguments, cwd, env, stdin=b"", stdout=subprocess.PIPE):
        self._stdin = stdin
        # A file, since it is read while pexctl runs.
        self._stderr = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            [*WRAPPER, pexctl_binary(), *arguments],
            stdin=subprocess.PIPE if stdin else subprocess.DEVNULL, stdout=stdout,
            stderr=self._stderr, cwd=cwd, env=env)

    @property
    def pid(self):
        return self.process.pid

    def tcp_table(self):
        return tcp_table(self.pid)

    def stderr(self):
        # Not by way of the file's offset, which pexctl writes at.
        descriptor = self._stderr.fileno()
        return os.pread(descriptor, os.fstat(descriptor).st_size, 0).decode(
            errors="surrogateescape")

    def wait_for_stderr(self, text):
        wait_until(lambda: text in self.stderr(),
                   lambda: f"{text!r} on standard error:\n{self.stderr()}")

    def signal(self, number):
        self.process.send_signal(number)

    def end(self, killed_by=None):
        """Waits for the end and returns the Outcome. Dying by a signal must be expected."""
        stdout, _ = self.process.communicate(self._stdin or None, timeout=DEADLINE)
        outcome = Outcome(self.process.returncode, stdout, self.stderr())
        expected = self._documented_statuses if killed_by is None else {-killed_by}
        assert outcome.status in expected, outcome
        assert "Sanitizer" not in outcome.stderr, outcome.stderr
        return outcome

    def kill(self):
        if self.process.returncode is None:
            self.process.kill()
            self.process.communicate()
        self._stderr.close()


class Pexctl:
    """Runs pexctl in `directory`, with temporary files in `temporary`.

    With a `broker`, puts the options that lead there behind the command.
    """

    def __init__(self, directory, broker=None):
        self.directory = pathlib.Path(directory)
        self.temporary = self.directory / "temporary"
        self.temporary.mkdir(parents=True, exist_ok=True)
        self._broker = broker
        self._runs = []

    def __call__(self, *arguments, killed_by=None, **options):
        """Runs pexctl to its end."""
        return self.start(*arguments, **options).end(killed_by)

    def start(self, *arguments, env=(), **options):
        to_broker = ["-h", self._broker.host, "-p", str(self._broker.port)] if self._broker else []
        run = PexctlRun([*arguments[:1], *to_broker, *arguments[1:]], self.directory,
                        self.environment(env), **options)
        self._runs.append(run)
        return run

    def environment(self, env=()):
        # A status of its own, or a sanitizer's report would look like a failed job.
        sanitizers = {name: os.environ.get(name, "") + ":exitcode=99"
                      for name in ["ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"]}
        return own_environment({"TMPDIR": str(self.temporary), **sanitizers, **dict(env)})

    def finish(self):
        """What a test that started a run owes is its end."""
        forgotten = [run.process.args for run in self._runs if run.process.returncode is None]
        for run in self._runs:
            run.kill()
        assert not forgotten, forgotten
