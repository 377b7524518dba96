"""Every call of the C library that a job makes fails once: each allocation, and what the daemon
asks of directories, files and its socket.

tests/support/failing_library.cpp is put before the C library and makes the n-th call fail, for
every n until a job has no n-th call. Whatever fails, a job has an outcome that the documents name,
the next job is served by the same daemon, unless it has ended, and no descriptor is left open.

A line per kind of job tells how many jobs had which outcome (pytest -s shows it). With
PEX_FAILING_CALLS=FILE each is appended to FILE, too, as an object of JSON.
"""

import collections
import contextlib
import errno
import itertools
import json
import mmap
import os
import pathlib
import queue
import re
import signal
import ssl
import struct
import time
import uuid

import msgpack
import pytest

import harness
from harness import DEADLINE, WRAPPER, failure, mosquitto_version, request, wait_until


def sanitized():
    with open(harness.binary(), "rb") as file:
        return re.search(rb"__(asan|tsan)_init", file.read()) is not None


pytestmark = [
    pytest.mark.skipif(bool(WRAPPER), reason="the wrapper's own calls would fail, too"),
    pytest.mark.skipif(sanitized(), reason="sanitizers bring an allocator of their own"),
]

LIBRARY = pathlib.Path(harness.binary()).parent / "tests" / "failing_library.so"
CALLS = ["allocation", "directory", "entry", "file", "working directory", "sending", "receiving",
         "logging"]

# In place of an errno: the call transfers one byte; there is no more memory than is in use.
SHORT, FULL = -1, -2
FOR_EVER = 0xffffffff

NO_MEMORY = [
    failure("std::bad_alloc"),
    failure("Dock command service error. Failed to allocate resources for job."),
    failure("Dock command service error. Failed to load command script."),
    failure("Dock command service error. Command script failure, please consult pex-command logs."),
    *(failure(f'Cannot run job. Script not found "{name}.lua"')
      for name in ["echo", "large", "error", "no_text", "syntax", "show", "hoard"]),
]
# Where libmosquitto cannot copy its identifier, it goes on without one and the broker makes one up.
SUBSCRIBED = re.compile("Sending SUBACK to (?:command_service|auto-)")
MADE_UP = "as auto-"
PANIC = re.compile(r"PANIC: unprotected error in call to Lua API \(.*\)\n")

# The one step that may end the daemon.
LOADING = "loading args onto Lua stack"


class Faults:
    """The page that the daemon's library shares with the test; the library has the layout."""

    _plan = struct.Struct("=IIiII")

    def __init__(self, path):
        self.path = path
        path.write_bytes(bytes(mmap.PAGESIZE))
        with open(path, "r+b") as file:
            self._page = mmap.mmap(file.fileno(), mmap.PAGESIZE)

    def plan(self, call, number, error, times=1):
        """From now on the `number`-th call fails, and the next ones up to `times` in a row."""
        self._plan.pack_into(self._page, self._at(call), 0, times, error, 0, 0)
        self._page[self._at(call):self._at(call) + 4] = struct.pack("=I", number)

    def clear(self):
        for call in CALLS:
            self._page[self._at(call):self._at(call) + 4] = bytes(4)

    def count(self, call):
        return self._word(self._at(call) + 12)

    def failed(self, call):
        return self._word(self._at(call) + 16)

    def idle(self):
        """How often the daemon has found nothing to do for a moment."""
        return self._word(self._end)

    def connections(self):
        return self._word(self._end + 4)

    def skipped(self):
        """How far the daemon's steady clock is ahead, in nanoseconds. Its pauses take no time and
        set the clock on instead."""
        return struct.unpack_from("=Q", self._page, self._end + 8)[0]

    def skip(self, seconds):
        struct.pack_into("=Q", self._page, self._end + 8, self.skipped() + seconds * 10**9)

    @property
    def _end(self):
        return self._at(CALLS[-1]) + self._plan.size

    def _at(self, call):
        return CALLS.index(call) * self._plan.size

    def _word(self, at):
        return struct.unpack_from("=I", self._page, at)[0]


class Tail:
    """What is added to a file."""

    def __init__(self, path):
        self._path = path
        self._offset = path.stat().st_size if path.exists() else 0
        self.text = ""

    def read(self):
        """All of it since this object was made."""
        with open(self._path, "rb") as file:
            file.seek(self._offset)
            added = file.read()
        self._offset += len(added)
        self.text += added.decode(errors="surrogateescape")
        return self.text


class Harmed:
    """What became of one job: the payloads of its results, the daemon's exit status if it ended,
    what it wrote to standard error, and what the broker logged."""

    def __init__(self, job_id):
        self.job_id = job_id
        self.results = []
        self.status = None
        self.stderr = ""
        self.broker_log = ""
        self.connections = 0
        self.log = ""

    def outcome(self, right, also):
        assert "ERROR\x1fpack_to_lua" not in self.log, self.story()  # arguments that were cut short
        if self.status is not None:
            assert self.status == -signal.SIGABRT and PANIC.fullmatch(self.stderr), self.story()
            assert not self.results, self.story()
            assert self.log == "" or self.last_step() == LOADING, self.story()
            return "abort"
        if self.results:
            assert len(set(self.results)) == 1, self.story()  # twice only after a reconnect
            assert len(self.results) == 1 or self.connections > 0, self.story()
            assert self.results[0] == right or self.results[0] in also, self.story()
            return "right" if self.results[0] == right else "failure"
        assert self.connections > 0, self.story()
        sent = re.search(rf"Sending PUBLISH to command_service \(d0, q1, r0, m(\d+), "
                         rf"'in/cmd/{self.job_id}'", self.broker_log)
        assert sent, self.story()
        acknowledged = f"Received PUBACK from command_service (Mid: {sent[1]}, "
        return "given up, " + ("" if acknowledged in self.broker_log else "not ") + "acknowledged"

    def last_step(self):
        """What the harmed job's script category logged last, or None."""
        records = self.log.partition("server comms service starting")[0]
        return (re.findall("\x1fscript\x1f(.*)\x1e", records) or [None])[-1]

    def story(self):
        return (f"results {self.results}, {self.connections} new connections, "
                f"status {self.status}\n{self.stderr}\n{self.log[-3000:]}\n{self.broker_log}")


class Rig:
    """The daemon with the library in front of the C library, and what is needed to harm it."""

    def __init__(self, broker, server, new_service, path, settings=()):
        self.faults = Faults(path)
        self.broker = broker
        self.server = server
        self.service = new_service(settings, env={"LD_PRELOAD": str(LIBRARY),
                                                  "FAILING_CALLS": str(path)})
        assert LIBRARY.exists(), "failing_library is not built"
        self._jobs = 0

    def start(self):
        self.service.start_up()
        self.run_unharmed()
        self._descriptors = self.open_descriptors()

    def open_descriptors(self):
        return sorted(os.listdir(f"/proc/{self.service.pid}/fd"))

    def dead(self):
        return self.service.process.poll() is not None

    def harm(self, payload, call, number, error, times=1, further_plan=None):
        """Runs a job whose `number`-th call fails, and an unharmed one. Returns what became of the
        first, or None if it has no such call."""
        self._jobs += 1
        harmed = Harmed(f"job-{self._jobs}")
        log, stderr, broker = self._tails()
        connections = self.faults.connections()
        if further_plan:
            self.faults.plan(*further_plan)
        self.faults.plan(call, number, error, times)
        self.server.publish(harmed.job_id, payload)
        self._wait_for_fault(harmed, call, lasting=times > 1)
        in_vain = self.faults.count(call) < number and not self.dead()
        self.faults.clear()
        self.run_unharmed(harmed)
        harmed.connections = self.faults.connections() - connections
        harmed.log, harmed.stderr, harmed.broker_log = log.read(), stderr.read(), broker.read()
        assert self.open_descriptors() == self._descriptors, harmed.story()
        return None if in_vain else harmed

    def run_unharmed(self, harmed=None):
        """Has the script "ping" run, again on each new connection, until its answer comes. Takes
        what comes of the harmed job before that."""
        log = Tail(self.broker.directory / "mosquitto.log")
        fences = [self._publish_fence()]
        end = time.monotonic() + DEADLINE
        while not self._take(harmed, fences[-1]):
            assert time.monotonic() < end, "no answer:\n" + (harmed.story() if harmed else "")
            if self.dead():
                self._restart(harmed)
            if len(SUBSCRIBED.findall(log.read())) >= len(fences):
                fences.append(self._publish_fence())
        self._wait_until_idle()

    def _restart(self, harmed):
        assert harmed and harmed.status is None, "the daemon ended in an unharmed job"
        harmed.status = self.service.wait()
        self.service.start_up()

    def _publish_fence(self):
        job_id = "fence-" + uuid.uuid4().hex
        self.server.publish(job_id, request("ping"))
        return "out/cmd/" + job_id

    def _take(self, harmed, fence=None, timeout=0.01):
        """Takes a message, if one comes. True if it is the answer that was waited for."""
        try:
            message = self.server._subscriber.messages.get(timeout=timeout)
        except queue.Empty:
            return False
        if message.topic == fence:
            assert message.payload == b"pong"
            return True
        if harmed and message.topic == "out/cmd/" + harmed.job_id:
            harmed.results.append(message.payload)
            return fence is None
        assert message.topic.startswith("out/cmd/fence-"), (message.topic, message.payload)
        return False

    def _wait_for_fault(self, harmed, call, lasting):
        """Waits until a call has failed, the daemon has ended, or the job is over without that. If
        all further calls fail: until the job is over, or attempts to connect fail."""
        end = time.monotonic() + DEADLINE
        while not self.dead():
            if self.faults.failed(call) and not lasting:
                return
            if self._take(harmed, timeout=0.0005):
                break
            if self.faults.failed(call) and self._is_idle():
                return
            assert time.monotonic() < end, "nothing came of it:\n" + harmed.story()
        self._wait_until_idle()

    def _is_idle(self):
        """Whether it has nothing to do, or makes a pause between two attempts to connect."""
        idle, skipped = self.faults.idle(), self.faults.skipped()
        time.sleep(0.001)
        return self.faults.idle() >= idle + 2 or self.faults.skipped() > skipped

    def _wait_until_idle(self):
        """Waits until the daemon has read all that the broker has sent, and has done its work."""
        self.server.publish_to("round/trip", b"")  # the broker sends one thing after the other
        end = time.monotonic() + DEADLINE
        while not self._is_idle() and not self.dead():
            assert time.monotonic() < end, "the daemon does not rest"

    def _tails(self):
        return [Tail(self.service.log_file), Tail(self.service.directory / "stderr"),
                Tail(self.broker.directory / "mosquitto.log")]


@pytest.fixture
def make_rig(broker, server, new_service, scripts, tmp_path):
    def make(settings=()):
        return Rig(broker, server, new_service, tmp_path / "faults", settings)

    scripts.add("ping", "return 'pong'")
    scripts.add("echo", "return args")
    scripts.add("large", "return ('y'):rep(args)")
    scripts.add("error", "local t = {} for i = 1, 100 do t[i] = ('z'):rep(i) end "
                         "error(table.concat(t))")
    scripts.add("no_text", "error({})")
    scripts.add("syntax", "return return")
    scripts.add("hoard", "local t = {} for i = 1, args do t[i] = ('x'):rep(200) end return #t")
    scripts.add("show", SHOW)
    return make


@pytest.fixture
def rig(make_rig):
    made = make_rig()
    made.start()
    return made


# Every value of the arguments, in one order.
SHOW = """
local function show(value)
    if type(value) ~= "table" then
        return tostring(value)
    end
    local parts = {}
    for key, part in pairs(value) do
        parts[#parts + 1] = tostring(key) .. "=" .. show(part)
    end
    table.sort(parts)
    return "{" .. table.concat(parts, ",") .. "}"
end
return show(args)
"""


def nested(kind, levels):
    value = 7
    for _ in range(levels):
        value = [value] if kind is list else {1: value}
    return value


WIDE = {"list": list(range(10)), "text": "x" * 1000, "kinds": [1.5, 2.0**40, None, True, -7]}
WIDE_SHOWN = ("{kinds={1=1.5,2=1099511627776,3=true,4=-7},list={"
              "10=9,1=0,2=1,3=2,4=3,5=4,6=5,7=6,8=7,9=8},text=" + "x" * 1000 + "}").encode()
LEVELS = 24  # beyond the 20 places that Lua's stack has at first
DEEP_SHOWN = b"{1=" * LEVELS + b"7" + b"}" * LEVELS
SCRIPT_FAILED = NO_MEMORY[3]

# (payload, right answer)
KINDS = {
    "success": (request("echo", "hi"), b"hi"),
    "large answer": (request("large", 100000), b"y" * 100000),
    "script error": (request("error"), SCRIPT_FAILED),
    "error without a text": (request("no_text"), SCRIPT_FAILED),
    "script that does not load": (request("syntax"), NO_MEMORY[2]),
    "script not found": (request("nosuch"),
                         failure('Cannot run job. Script not found "nosuch.lua"')),
    "not MessagePack": (b"\xc1", failure("parse error")),
    "cut off": (b"\x82\xa4", failure("insufficient bytes")),
    "not a map": (b"\x93\x01\x02\x03", failure(
        "Expected the command request dictionary with args and lua_script entries")),
    "missing entry": (msgpack.packb({"lua_script": "echo"}), failure(
        "Can't decipher message. Expected the command request dictionary with args and "
        "lua_script entries")),
    "integer key": (msgpack.packb({1: 2}), failure("std::bad_cast")),
    "deep arrays": (request("show", nested(list, LEVELS)), DEEP_SHOWN),
    "deep maps": (request("show", nested(dict, LEVELS)), DEEP_SHOWN),
    "wide arguments": (request("show", WIDE), WIDE_SHOWN),
    # More than the daemon has in reserve.
    "long text": (request("echo", "x" * 200000), b"x" * 200000),
    "many small blocks": (request("hoard", 500), b"500"),
    "withdrawal": (b"", b""),
}

# More than a Lua state has at first, so that loading them may end the daemon.
LARGE_ARGUMENTS = {"wide arguments", "long text"}


def tell(capsys, **figures):
    with capsys.disabled():
        print("\n" + ", ".join(f"{key}: {value}" for key, value in figures.items()), end="")
    path = os.environ.get("PEX_FAILING_CALLS")
    if path:
        with open(path, "a") as file:
            file.write(json.dumps(figures) + "\n")


def harm_every(rig, kind, *fault, also=(), **options):
    """Has each call of a kind of job fail in its turn; returns how often what became of the job."""
    payload, right = KINDS[kind]
    call, *how = fault
    outcomes = collections.Counter()
    for number in itertools.count(1):
        harmed = rig.harm(payload, call, number, *how, **options)
        if harmed is None:
            return outcomes
        outcomes[harmed.outcome(right, also)] += 1
        assert outcomes["abort"] == 0 or kind in LARGE_ARGUMENTS, harmed.story()


@pytest.mark.parametrize("memory", ["fails once", "is full from there on"])
@pytest.mark.parametrize("kind", KINDS)
def test_every_allocation_of_a_job(rig, capsys, kind, memory):
    how = (errno.ENOMEM,) if memory == "fails once" else (FULL, FOR_EVER)
    outcomes = harm_every(rig, kind, "allocation", *how, also=NO_MEMORY)
    assert outcomes["right"] > 0
    tell(capsys, job=kind, memory=memory, allocations=sum(outcomes.values()), **outcomes)


# log4cpp cannot do without the daemon's reserve, and these faults use that up.
QUIET = {"log4cpp.rootCategory": "FATAL, FILE", "log4cpp.category.pack_to_lua": "ERROR"}


@pytest.mark.parametrize("kind", ["success", "wide arguments", "long text", "withdrawal"])
def test_every_allocation_of_a_job_and_the_reserve(make_rig, capsys, kind):
    """The allocation fails a second time after the reserve was given back."""
    rig = make_rig(QUIET)
    rig.start()
    outcomes = harm_every(rig, kind, "allocation", errno.ENOMEM, 2, also=NO_MEMORY)
    assert outcomes["right"] > 0
    tell(capsys, job=kind, memory="fails twice", allocations=sum(outcomes.values()), **outcomes)


@pytest.mark.parametrize("times, settings", [(1, {}), (2, QUIET)], ids=["once", "twice"])
def test_every_allocation_while_the_connection_is_lost_and_made_again(
        make_rig, capsys, times, settings):
    """The result cannot be sent. The connection before has lived for more than 5 s."""
    rig = make_rig(settings)
    rig.start()
    payload, right = KINDS["success"]
    outcomes = collections.Counter()
    made_up = 0
    for number in itertools.count(1):
        rig.faults.skip(6)
        harmed = rig.harm(payload, "allocation", number, errno.ENOMEM, times,
                          further_plan=("sending", 4, errno.ECONNRESET, 2))
        if harmed is None:
            break
        outcomes[harmed.outcome(right, NO_MEMORY)] += 1
        assert outcomes["abort"] == 0, harmed.story()
        made_up += harmed.broker_log.count(MADE_UP)
    assert outcomes["right"] > 0
    tell(capsys, job="success, connection lost", memory=f"fails {['once', 'twice'][times - 1]}",
         allocations=sum(outcomes.values()), **outcomes, identifier_made_up=made_up)


TRANSFERS = [
    *(("sending", error, 1, {"right"}) for error in [errno.EAGAIN, errno.EINTR]),
    # A connection that ends at the acknowledgement of a request takes the request with it.
    *(("sending", error, 1, {"right", "given up, not acknowledged"})
      for error in [errno.EPIPE, errno.ECONNRESET, errno.ENOBUFS, errno.ENOSPC]),
    ("sending", SHORT, 1, {"right"}),
    ("sending", SHORT, FOR_EVER, {"right"}),
    ("receiving", errno.EINTR, 1, {"right"}),
    ("receiving", errno.EAGAIN, 1, {"right"}),
    # What the broker had sent is gone with the connection.
    ("receiving", errno.ECONNRESET, 1, {"right", "given up, not acknowledged"}),
    ("receiving", SHORT, 1, {"right"}),
    ("receiving", SHORT, FOR_EVER, {"right"}),
    *(("logging", error, times, {"right"})
      for error in [errno.ENOSPC, errno.EIO, errno.EINTR, SHORT] for times in [1, FOR_EVER]),
]


def name_of(value):
    """For the names of tests."""
    names = {**errno.errorcode, SHORT: "one-byte", 1: "once", FOR_EVER: "for-ever"}
    return names.get(value) if isinstance(value, int) else value


@pytest.mark.parametrize("call, error, times", [case[:3] for case in TRANSFERS], ids=name_of)
def test_every_transfer_of_a_job(rig, capsys, call, error, times):
    allowed = next(case[3] for case in TRANSFERS if case[:3] == (call, error, times))
    outcomes = harm_every(rig, "success", call, error, times)
    assert outcomes and set(outcomes) <= allowed
    tell(capsys, job="success", fails=call, error=name_of(error), times=name_of(times),
         calls=sum(outcomes.values()), **outcomes)


@pytest.fixture
def two_directories(make_rig, scripts, tmp_path):
    """A rig whose scripts are in the second of two directories; the first is empty."""
    first = tmp_path / "first"
    first.mkdir()
    made = make_rig({"script.search_dirs": f"{first}:{scripts.directory}"})
    made.start()
    return made, first


def results_of_every(rig, script, call, error):
    """For each call of a job that fails in its turn: the result, and the ERROR records."""
    stories = []
    for number in itertools.count(1):
        since = len(rig.service.records("ERROR"))
        harmed = rig.harm(request(script, "hi"), call, number, error)
        if harmed is None:
            return stories
        assert len(harmed.results) == 1 and harmed.connections == 0, harmed.story()
        stories.append((harmed.results[0], [record.message for record in
                                            rig.service.records("ERROR")[since:]]))


@pytest.mark.parametrize("error, text", [
    (errno.EMFILE, "Too many open files"),
    (errno.EACCES, "Permission denied"),
    (errno.ENOENT, "No such file or directory"),
])
def test_directory_that_does_not_open_is_skipped(two_directories, scripts, error, text):
    rig, first = two_directories
    assert results_of_every(rig, "echo", "directory", error) == [
        (b"hi", [f"opendir({first}/): {text}"]),
        (failure('Cannot run job. Script not found "echo.lua"'),
         [f"opendir({scripts.directory}/): {text}"]),
    ]


def test_directory_that_cannot_be_read_on_is_skipped(two_directories, scripts):
    rig, first = two_directories
    stories = results_of_every(rig, "echo", "entry", errno.EIO)
    # ".", ".." and the end.
    assert stories[:3] == [(b"hi", [f"readdir({first}/): Input/output error"])] * 3
    assert len(stories) > 3
    assert stories[3:] == [(failure('Cannot run job. Script not found "echo.lua"'),
                            [f"readdir({scripts.directory}/): Input/output error"])
                           ] * (len(stories) - 3)


@pytest.mark.parametrize("error, text", [
    (errno.EMFILE, "Too many open files"),
    (errno.EACCES, "Permission denied"),
])
def test_script_that_does_not_open(rig, scripts, error, text):
    path = f"{scripts.directory}/echo.lua"
    assert results_of_every(rig, "echo", "file", error) == [
        (failure("Dock command service error. Failed to load command script."),
         [f"failure: cannot open {path}: {text}", f"{path} job failed"])]


@pytest.mark.parametrize("error, text", [
    (errno.ENOENT, "No such file or directory"),
    (errno.EACCES, "Permission denied"),
])
def test_working_directory_that_nobody_can_tell(make_rig, error, text):
    rig = make_rig({"script.search_dirs": None})
    rig.faults.plan("working directory", 1, error)
    assert rig.service.start().wait() == -signal.SIGABRT
    assert rig.service.stderr() == ("terminate called after throwing an instance of "
                                    f"'std::runtime_error'\n  what():  getcwd: {text}\n")


def test_every_allocation_of_the_start(make_rig, capsys):
    """Either the daemon serves, or it ends and says why. But without its handle libmosquittopp
    crashes."""
    rig = make_rig()
    outcomes = collections.Counter()
    for number in itertools.count(1):
        outcome = start_harmed(rig, number)
        if outcome is None:
            break
        outcomes[outcome] += 1
    # Without the memory for its identifier libmosquitto 2.0.11 goes on, and later ones do not.
    assert (outcomes["crash"], outcomes["served, identifier made up"]) == (
        (1, 1) if mosquitto_version() <= (2, 0, 11) else (2, 0))
    assert outcomes["served"] > 0 and outcomes["ended"] > 0
    tell(capsys, job="start", memory="fails once", allocations=sum(outcomes.values()), **outcomes)


def start_harmed(rig, number):
    """The outcome, or None if there is no such allocation."""
    stderr = Tail(rig.service.directory / "stderr")
    broker = Tail(rig.broker.directory / "mosquitto.log")
    rig.faults.plan("allocation", number, errno.ENOMEM)
    rig.service.start()
    wait_until(lambda: rig.dead() or SUBSCRIBED.search(broker.read()),
               lambda: f"the start without allocation {number}:\n{stderr.read()}")
    in_vain = rig.faults.count("allocation") < number and not rig.dead()
    rig.faults.clear()
    if rig.dead():
        return end_of_start(rig.service.wait(), stderr.read())
    rig.run_unharmed()
    rig.service.signal(signal.SIGKILL)
    rig.service.wait()
    made_up = ", identifier made up" if MADE_UP in broker.text else ""
    return None if in_vain else "served" + made_up


def end_of_start(status, stderr):
    if status == -signal.SIGSEGV:
        return "crash"
    said = ("Config file: " if status == 1 else "terminate called after throwing an instance of ")
    assert status in (1, -signal.SIGABRT) and stderr.startswith(said), (status, stderr)
    return "ended"


def waits_for_itself(service):
    """Whether the only thread of the daemon waits for another one."""
    with contextlib.suppress(OSError):  # it has ended
        return (len(os.listdir(f"/proc/{service.pid}/task")) == 1 and
                "futex" in pathlib.Path(f"/proc/{service.pid}/wchan").read_text())


def test_every_allocation_of_the_stop(make_rig, capsys):
    """With OpenSSL 3.5 libmosquitto's clean-up waits for ever without the memory for a lock. All
    else has been done by then."""
    rig = make_rig()
    outcomes = collections.Counter()
    for number in itertools.count(1):
        rig.service.start_up()
        rig.run_unharmed()
        rig.faults.plan("allocation", number, errno.ENOMEM)
        rig.service.signal(signal.SIGTERM)
        wait_until(lambda: rig.dead() or waits_for_itself(rig.service), "the end")
        if rig.dead():
            outcomes[rig.service.wait()] += 1
        else:
            assert rig.service.records()[-1].message == "Cleaning up mosquitto"
            rig.service.signal(signal.SIGKILL)
            rig.service.wait()
            outcomes["hang"] += 1
        in_vain = rig.faults.count("allocation") < number
        rig.faults.clear()
        if in_vain:
            break
    assert set(outcomes) == ({0} if ssl.OPENSSL_VERSION_INFO < (3, 5) else {0, "hang"})
    tell(capsys, job="stop", memory="fails once", allocations=number - 1, right=outcomes[0] - 1,
         hang=outcomes["hang"])
