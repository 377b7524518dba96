"""What takes up to a minute: a peer that vanished, a broker that does not answer, a long job.

All cases begin together, before the first test, and each test then looks at its own.
"""

import contextlib
import pathlib
import time

import pytest

from harness import DEADLINE, Broker, Scripts, Server, Service, failure, request, wait_until
from scripted_broker import ScriptedBroker, connect, connection_records, publish
from scripted_job import GatedJob
from scripted_network import Cable, missing, on_host
from scripted_proc import processor_time

NOTICED_WITHIN = 60

# How the connection breaks, and how it is repaired.
BREAKS = {
    "unplugged": (Cable.unplug, Cable.plug_in),
    "answers swallowed": (Cable.swallow_answers, Cable.pass_answers),
}
STATES = ["idle", "in a job", "with a result on its way"]


class FarBroker(Broker):
    host = Cable.broker_address


class Site:
    """A daemon with its broker, its server, and a job that the test controls."""

    def __init__(self, directory, endings, cable=None):
        directory.mkdir()
        self._cable = cable
        self.scripts = Scripts(directory / "scripts")
        self.scripts.add("ping", "return 'pong'")
        self.job = GatedJob(self.scripts)
        self.broker = FarBroker(directory) if cable else Broker(directory)
        endings.callback(self.broker.kill)
        with self._on_host("broker_side"):
            self.broker.start()
            self.server = Server(self.broker)
        endings.callback(self.server.close)
        self.service = Service(directory / "service", self.broker, {
            "script.search_dirs": self.scripts.directory,
            "server_comms.host": self.broker.host,
        })
        endings.callback(self.service.finish)
        endings.callback(self.job.abandon)

    def start(self):
        with self._on_host("daemon_side"):
            self.service.start()

    def start_job(self):
        self.start()
        self.service.wait_until_subscribed()
        self.server.publish("1", self.job.request)
        self.job.wait_until_running()

    def name(self):
        return f"{self.broker.host}:{self.broker.port}"

    def is_connected(self):
        """Whether the kernel of the daemon's host still believes in the connection."""
        table = pathlib.Path(f"/proc/{self.service.pid}/net/tcp").read_text().splitlines()[1:]
        entries = [line.split() for line in table]
        return any(int(entry[2].partition(":")[2], 16) == self.broker.port and entry[3] == "01"
                   for entry in entries)

    def _on_host(self, side):
        return on_host(getattr(self._cable, side)) if self._cable else contextlib.nullcontext()


class BrokenCable:
    """Three sites, whose daemons do different things when their common cable breaks."""

    def __init__(self, directory, endings, break_it, repair):
        directory.mkdir()
        self._cable = Cable()
        self._repair = repair
        endings.callback(self._cable.remove)
        self.sites = {state: Site(directory / state.replace(" ", "-"), endings, self._cable)
                      for state in STATES}
        self.sites["idle"].start()
        self.sites["idle"].service.wait_until_subscribed()
        self.sites["in a job"].start_job()
        self.sites["with a result on its way"].start_job()
        break_it(self._cable)
        self._broken_since = time.monotonic()
        self.sites["with a result on its way"].job.open()

    def wait_until_noticed(self, state):
        site = self.sites[state]
        left = self._broken_since + NOTICED_WITHIN - time.monotonic()
        wait_until(lambda: not site.is_connected(), f"the daemon {state} to notice", left)

    def repair(self):
        self._repair(self._cable)


class SlowStart:
    """A daemon whose broker's host swallows its connection requests until repair()."""

    def __init__(self, directory, endings):
        directory.mkdir()
        self._cable = Cable()
        endings.callback(self._cable.remove)
        self.site = Site(directory / "site", endings, self._cable)
        self._cable.swallow_answers()
        self.site.start()

    def repair(self):
        self._cable.pass_answers()


@pytest.fixture(scope="module", autouse=True)
def waits(tmp_path_factory):
    with contextlib.ExitStack() as endings:
        yield Waits(tmp_path_factory.mktemp("waits"), endings)


class Waits:
    def __init__(self, directory, endings):
        self.begin = time.monotonic()
        self.silent_broker = endings.enter_context(ScriptedBroker())
        self.unanswered = Service(directory / "unanswered",
                                  settings={"server_comms.port": self.silent_broker.port})
        endings.callback(self.unanswered.finish)
        self.unanswered.start()
        self.unanswered_connection = self.silent_broker.accept()
        self.forgetful_broker = endings.enter_context(ScriptedBroker())
        self.unacknowledged = Service(directory / "unacknowledged",
                                      settings={"server_comms.port": self.forgetful_broker.port})
        endings.callback(self.unacknowledged.finish)
        self.unacknowledged.start()
        self.unacknowledged_connection = self.forgetful_broker.accept_and_serve()
        self.unacknowledged_connection.send(publish("in/cmd/1", b"\xc1"))
        self.unacknowledged_connection.result("out/cmd/1", failure("parse error"))
        self.busy = Site(directory / "busy", endings)
        self.busy.start_job()
        for job in range(2, 6):
            self.busy.server.publish(str(job), request("ping"))
        self.no_cables = missing()
        if not self.no_cables:
            self.slow_start = SlowStart(directory / "slow-start", endings)
            self.cables = {
                name: BrokenCable(directory / name.replace(" ", "-"), endings, *actions)
                for name, actions in BREAKS.items()}

    def wait_for_second(self, number):
        """For a length of time that is itself what a test is about."""
        time.sleep(max(0, self.begin + number - time.monotonic()))


def test_connection_that_takes_long_to_open_is_kept(waits):
    """The network passes no connection request in the first 22 s. The kernel's next try, after
    more than 30 s, gets through, and the broker answers at once: that is no unanswered request."""
    if waits.no_cables:
        pytest.skip(waits.no_cables)
    waits.wait_for_second(22)
    waits.slow_start.repair()
    site = waits.slow_start.site
    site.service.wait_until_subscribed()
    assert time.monotonic() - waits.begin > 30
    assert site.server.run("1", "ping") == b"pong"
    assert connection_records(site.service) == [("INFO", f"Connected to broker {site.name()}")]


def test_connection_request_is_not_awaited_for_ever(waits):
    """The broker takes the connection and says nothing. After 30 s the daemon gives up, says so
    and tries anew; the second attempt is answered."""
    waits.unanswered_connection.expect(connect())
    waits.unanswered_connection.expect_end(timeout=30 + DEADLINE)
    assert time.monotonic() - waits.begin > 29
    waits.silent_broker.accept_and_serve()
    broker = waits.silent_broker.name
    assert connection_records(waits.unanswered) == [
        ("ERROR", f"Broker {broker} did not answer the connection request"),
        ("INFO", f"Connected to broker {broker}"),
    ]
    assert processor_time(waits.unanswered.pid) < 1


@pytest.mark.parametrize("state", STATES)
@pytest.mark.parametrize("cable", BREAKS)
def test_vanished_peer_is_noticed(waits, cable, state):
    """The broker's host is cut off without a word while the daemon is idle, while a script blocks
    it, and while it waits for the acknowledgement of a result."""
    if waits.no_cables:
        pytest.skip(waits.no_cables)
    waits.cables[cable].wait_until_noticed(state)


@pytest.mark.parametrize("cable", BREAKS)
def test_daemons_come_back_when_the_cable_is_repaired(waits, cable):
    """Each daemon tells of the loss, and serves again; results from before the repair arrive."""
    if waits.no_cables:
        pytest.skip(waits.no_cables)
    broken = waits.cables[cable]
    for state in STATES:
        broken.wait_until_noticed(state)
    broken.sites["in a job"].job.open()
    for site in broken.sites.values():
        site.service.wait_for_record(f"Lost the connection to broker {site.name()}. ")
    marks = {state: site.broker.mark() for state, site in broken.sites.items()}
    broken.repair()
    for state, site in broken.sites.items():
        site.service.wait_until_subscribed(since=marks[state])
        if state != "idle":
            assert site.server.result().payload == b"done"
        assert site.server.run("2", "ping") == b"pong"
        site.server.expect_no_more()


def test_requests_behind_a_long_job_are_all_served(waits):
    """A job has been running since before the first of these tests, with requests behind it."""
    waits.wait_for_second(50)
    waits.busy.job.open()
    results = [(result.topic, result.payload) for result in waits.busy.server.results(5)]
    assert results == [("out/cmd/1", b"done")] + [
        (f"out/cmd/{job}", b"pong") for job in range(2, 6)]
    assert len(waits.busy.broker.lines("Sending SUBACK to command_service")) == 1


def test_broker_that_forgets_an_acknowledgement_is_left(waits):
    """It has lost the PUBREC of a result, as mosquitto does when more packets wait for the daemon
    than it keeps. After a minute the daemon leaves, and the result goes over a new connection."""
    connection = waits.unacknowledged_connection
    connection.expect_end(timeout=60 + DEADLINE)
    assert time.monotonic() - waits.begin > 59
    connection = waits.forgetful_broker.accept_and_serve()
    connection.acknowledge(connection.result("out/cmd/1", failure("parse error")))
    broker = waits.forgetful_broker.name
    assert connection_records(waits.unacknowledged)[:2] == [
        ("INFO", f"Connected to broker {broker}"),
        ("ERROR", f"Broker {broker} does not acknowledge what was published")]
