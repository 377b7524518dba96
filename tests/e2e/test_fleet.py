"""A fleet: docks whose brokers are bridged to a central one, with the files of examples/mosquitto.

scripts/fleet_brokers.py starts the brokers and daemons; scripts/fleet is run as a whole.
"""

import os
import pathlib
import queue
import re
import signal
import socket
import subprocess
import sys
import tempfile

import pytest

from harness import (DEADLINE, DEADLINE_FACTOR, REPOSITORY, WRAPPER, binary, failure,
                     pexctl_binary, request, wait_until)
from script_run import ScriptRun

sys.path.insert(0, str(REPOSITORY / "scripts"))
from fleet_brokers import HOST, Centre, Dock, Link, make_certificates  # noqa: E402

FLEET = REPOSITORY / "scripts/fleet"
SCRIPTS = REPOSITORY / "examples/scripts"
NOT_AUTHORISED = (5, 135)  # of MQTT 3.1.1 and, as paho 2 calls it there too, of MQTT 5


class Client:
    """A client at the centre, with the messages that it gets in a queue."""

    def __init__(self, centre, *filters, **options):
        self.messages = queue.Queue()
        self._events = queue.Queue()
        self._client = centre.client(**options)
        self._client.on_connect = lambda client, data, flags, code, *rest: (
            self._events.put(code))
        self._client.on_subscribe = lambda *call: self._events.put("SUBACK")
        self._client.on_message = lambda client, data, message: self.messages.put(
            (message.topic, message.payload))
        self._client.loop_start()
        self.code = self._events.get(timeout=DEADLINE)
        if filters:
            self._client.subscribe([(topic_filter, 2) for topic_filter in filters])
            assert self._events.get(timeout=DEADLINE) == "SUBACK"

    def publish(self, topic, payload, retain=False, wait=True):
        """Publishes with QoS 1 and waits until the centre has taken the message."""
        info = self._client.publish(topic, payload, 1, retain)
        if wait:
            info.wait_for_publish(DEADLINE)
            assert info.is_published(), topic

    def greet(self, dock, job_id, retain=False):
        self.publish(f"docks/{dock.id}/in/cmd/{job_id}", request("greet", {"name": job_id}), retain)

    def message(self):
        return self.messages.get(timeout=DEADLINE)

    def wait_for(self, topic, payload):
        """Drops messages until this one comes."""
        while self.message() != (topic, payload):
            pass

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()


class Fleet:
    """A centre, and docks behind links that can be cut."""

    def __init__(self, directory, certificate_name="centre.example.net"):
        self.directory = directory
        (directory / "centre").mkdir()
        make_certificates(directory / "centre", certificate_name)
        self.centre = Centre(directory / "centre", ["dock-a", "dock-b"])
        self.docks = []
        self.clients = []
        self.centre.start()

    def client(self, *filters, **options):
        client = Client(self.centre, *filters, **options)
        self.clients.append(client)
        return client

    def new_dock(self, dock_id="dock-a", port=None, replacements=(), cafile=None):
        """A dock whose broker runs, with its `link`. Does not wait for the bridge."""
        link = Link(port or self.centre.port)
        dock = Dock(self.directory / dock_id, dock_id, self.centre, SCRIPTS, link.port,
                    replacements)
        dock.link = link
        if cafile:
            replace(dock.directory / "stunnel.conf", str(self.centre.cafile), str(cafile))
        self.docks.append(dock)
        dock.start()
        return dock

    def linked_dock(self, dock_id="dock-a", **options):
        """A dock whose bridge is up, without a daemon."""
        dock = self.new_dock(dock_id, **options)
        self.wait_for_link(dock, 1)
        return dock

    def dock(self, dock_id="dock-a"):
        """A dock that is ready for jobs."""
        dock = self.linked_dock(dock_id)
        start_daemon(dock)
        return dock

    def wait_for_link(self, dock, count):
        """Waits until the bridge of a dock has subscribed so often. Its presence comes earlier."""
        wait_until(lambda: self.centre.subscriptions(dock.id) >= count,
                   lambda: "the bridge: " + dock.log.read_text() + dock.tunnel_log.read_text())

    def cut(self, dock):
        """Cuts a link, and returns when the centre knows."""
        topic = f"docks/{dock.id}/link"
        dock.link.cut()
        wait_until(lambda: self.centre.retained(topic) == {topic: b"0"}, "the presence 0")

    def restore(self, dock):
        count = self.centre.subscriptions(dock.id)
        dock.link.restore()
        self.wait_for_link(dock, count + 1)

    def close(self):
        for client in self.clients:
            client.close()
        for dock in self.docks:
            if dock.daemon and dock.daemon.poll() is None:
                stop_daemon(dock)
            for process in (dock.process, dock.tunnel):
                if process:
                    process.kill()
                    process.wait()
        self.centre.kill()


def replace(path, old, new):
    text = path.read_text()
    assert old in text
    path.write_text(text.replace(old, new))


def start_daemon(dock):
    before = dock.subscriptions()
    dock.start_daemon()
    wait_until(lambda: dock.subscriptions() > before,
               lambda: "the daemon: " + dock.daemon_log.read_text(errors="replace"))


def stop_daemon(dock):
    dock.daemon.terminate()
    assert dock.daemon.wait(DEADLINE) == 0, dock.daemon_log.read_text(errors="replace")


def runs(dock, job_id):
    """How often the dock's daemon has got a request."""
    return dock.daemon_log.read_text(errors="replace").splitlines().count(
        f"INFO commandHandler: Received command request, job_id: {job_id}")


def withdraw_at_the_dock(dock, job_id):
    subprocess.run([*WRAPPER, pexctl_binary(), "withdraw", "-h", dock.socket, job_id], check=True,
                   timeout=DEADLINE)


@pytest.fixture(autouse=True)
def programs(monkeypatch):
    """The programs under test, for scripts/fleet_brokers.py and scripts/fleet."""
    monkeypatch.setenv("PEX_COMMAND", binary())
    monkeypatch.setenv("PEXCTL", pexctl_binary())


@pytest.fixture
def tmp_path():
    """A path that is short enough for Unix sockets."""
    with tempfile.TemporaryDirectory(prefix="pex-") as directory:
        yield pathlib.Path(directory)


@pytest.fixture
def fleet(tmp_path):
    started = Fleet(tmp_path)
    try:
        yield started
    finally:
        started.close()


@pytest.fixture
def server(fleet):
    return fleet.client("docks/+/out/cmd/+", "docks/+/link")


def test_job_goes_from_the_centre_to_the_dock_and_back(fleet, server):
    dock = fleet.dock()
    server.greet(dock, "42", retain=True)
    server.wait_for("docks/dock-a/out/cmd/42", b"Hello, 42!")
    assert fleet.centre.retained("docks/+/out/cmd/+") == {"docks/dock-a/out/cmd/42": b"Hello, 42!"}
    assert [line.split()[:2] for line in dock.listed_jobs()] == [
        ["42", "succeeded"], ["42", "requested"]]
    server.publish("docks/dock-a/in/cmd/42", b"", retain=True)
    server.wait_for("docks/dock-a/out/cmd/42", b"")
    assert dock.listed_jobs() == []
    assert fleet.centre.retained("docks/#") == {"docks/dock-a/link": b"1"}


def test_request_reaches_the_named_dock_only(fleet, server):
    first, second = fleet.dock("dock-a"), fleet.dock("dock-b")
    for dock in (first, second):
        server.greet(dock, "for-" + dock.id)
        server.wait_for(f"docks/{dock.id}/out/cmd/for-{dock.id}", f"Hello, for-{dock.id}!".encode())
    assert (runs(first, "for-dock-a"), runs(first, "for-dock-b")) == (1, 0)
    assert (runs(second, "for-dock-a"), runs(second, "for-dock-b")) == (0, 1)


@pytest.mark.parametrize("lose, find", [
    (lambda dock: dock.link.cut(), lambda dock: dock.link.restore()),
    (lambda dock: dock.link.silence(), lambda dock: dock.link.restore()),
    (lambda dock: dock.kill(), lambda dock: dock.start()),
], ids=["link reset", "link silent", "broker killed"])
def test_presence_tells_whether_the_link_is_up(fleet, server, lose, find):
    dock = fleet.new_dock()
    server.wait_for("docks/dock-a/link", b"1")
    lose(dock)
    server.wait_for("docks/dock-a/link", b"0")
    assert fleet.centre.retained("docks/dock-a/link") == {"docks/dock-a/link": b"0"}
    find(dock)
    server.wait_for("docks/dock-a/link", b"1")
    assert fleet.centre.retained("docks/dock-a/link") == {"docks/dock-a/link": b"1"}


def test_request_sent_while_the_link_is_down_is_answered_afterwards(fleet, server):
    dock = fleet.dock()
    fleet.cut(dock)
    server.greet(dock, "plain")
    server.greet(dock, "kept", retain=True)
    fleet.restore(dock)
    server.wait_for("docks/dock-a/out/cmd/plain", b"Hello, plain!")
    assert runs(dock, "plain") == 1
    server.wait_for("docks/dock-a/out/cmd/kept", b"Hello, kept!")


def test_request_survives_a_kill_of_the_centre_while_the_link_is_down(fleet, server):
    dock = fleet.dock()
    fleet.cut(dock)
    server.greet(dock, "plain")
    wait_until(lambda: b"docks/dock-a/in/cmd/plain" in
               (fleet.centre.directory / "db/mosquitto.db").read_bytes(), "the database")
    fleet.centre.kill()
    fleet.centre.start()
    dock.link.restore()
    later = fleet.client("docks/+/out/cmd/+", user="operator")
    later.wait_for("docks/dock-a/out/cmd/plain", b"Hello, plain!")


def test_result_of_a_job_that_ends_while_the_link_is_down_comes_afterwards(fleet, server):
    dock = fleet.linked_dock()
    server.greet(dock, "42", retain=True)  # waits at the dock's broker for the daemon
    wait_until(lambda: dock.listed_jobs(), "the request at the dock's broker")
    fleet.cut(dock)
    start_daemon(dock)
    wait_until(lambda: len(dock.listed_jobs()) == 2, "the result at the dock's broker")
    dock.link.restore()
    server.wait_for("docks/dock-a/out/cmd/42", b"Hello, 42!")


def test_end_of_transaction_sent_while_the_link_is_down_clears_the_centre(fleet, server):
    dock = fleet.dock()
    server.greet(dock, "42")
    server.wait_for("docks/dock-a/out/cmd/42", b"Hello, 42!")
    fleet.cut(dock)
    withdraw_at_the_dock(dock, "42")
    assert "docks/dock-a/out/cmd/42" in fleet.centre.retained("docks/+/out/cmd/+")
    dock.link.restore()
    server.wait_for("docks/dock-a/out/cmd/42", b"")
    assert fleet.centre.retained("docks/+/out/cmd/+") == {}


def test_withdrawal_while_the_link_is_down_clears_both_sides_afterwards(fleet, server):
    dock = fleet.dock()
    server.greet(dock, "42", retain=True)
    server.wait_for("docks/dock-a/out/cmd/42", b"Hello, 42!")
    fleet.cut(dock)
    server.publish("docks/dock-a/in/cmd/42", b"", retain=True)
    dock.link.restore()
    server.wait_for("docks/dock-a/out/cmd/42", b"")
    assert dock.listed_jobs() == []
    assert fleet.centre.retained("docks/+/in/cmd/+", "docks/+/out/cmd/+") == {}


def test_withdrawal_while_the_daemon_is_away_has_to_be_repeated(fleet, server):
    dock = fleet.dock()
    server.greet(dock, "42", retain=True)
    server.wait_for("docks/dock-a/out/cmd/42", b"Hello, 42!")
    stop_daemon(dock)
    server.publish("docks/dock-a/in/cmd/42", b"", retain=True)
    wait_until(lambda: len(dock.listed_jobs()) == 1, "the withdrawal at the dock")
    start_daemon(dock)
    server.greet(dock, "fence")
    server.wait_for("docks/dock-a/out/cmd/fence", b"Hello, fence!")
    assert "docks/dock-a/out/cmd/42" in fleet.centre.retained("docks/+/out/cmd/+")
    server.publish("docks/dock-a/in/cmd/42", b"", retain=True)
    server.wait_for("docks/dock-a/out/cmd/42", b"")
    assert fleet.centre.retained("docks/+/out/cmd/42") == {}


@pytest.mark.parametrize("retain, expected_runs", [(False, 0), (True, 1)],
                         ids=["not retained", "retained"])
def test_only_a_retained_request_waits_for_the_daemon(fleet, server, retain, expected_runs):
    dock = fleet.dock()
    stop_daemon(dock)
    server.greet(dock, "early", retain)
    # What is retained behind it is there when the daemon comes: so was the first one, if it is.
    server.greet(dock, "fence", retain=True)
    wait_until(lambda: any("fence" in line for line in dock.listed_jobs()), "the fence")
    start_daemon(dock)
    server.wait_for("docks/dock-a/out/cmd/fence", b"Hello, fence!")
    withdraw_at_the_dock(dock, "fence")  # in order behind all requests
    assert runs(dock, "early") == expected_runs


def test_only_a_retained_request_waits_for_a_new_dock(fleet, server):
    for job_id, retain in (("plain", False), ("kept", True)):
        server.publish(f"docks/dock-a/in/cmd/{job_id}", request("greet", {"name": job_id}), retain)
    dock = fleet.linked_dock()
    wait_until(lambda: dock.listed_jobs(), "the retained request at the dock's broker")
    start_daemon(dock)
    server.wait_for("docks/dock-a/out/cmd/kept", b"Hello, kept!")
    assert (runs(dock, "plain"), runs(dock, "kept")) == (0, 1)


@pytest.mark.parametrize("retain, expected_runs", [(False, 1), (True, 2)],
                         ids=["not retained", "retained"])
def test_answered_request_runs_again_after_a_reconnect_if_it_is_retained(fleet, server, retain,
                                                                         expected_runs):
    dock = fleet.dock()
    server.greet(dock, "done", retain)
    server.wait_for("docks/dock-a/out/cmd/done", b"Hello, done!")
    fleet.cut(dock)
    fleet.restore(dock)
    # The centre has sent what it retains, before anything that comes later.
    server.greet(dock, "fence")
    server.wait_for("docks/dock-a/out/cmd/fence", b"Hello, fence!")
    assert runs(dock, "done") == expected_runs


def test_dock_cannot_read_the_requests_of_another(fleet, server):
    fleet.linked_dock("dock-a")
    spy = fleet.client("#", "docks/+/in/cmd/+", "docks/dock-a/in/cmd/+", "docks/+/out/cmd/+",
                       "docks/+/link", user="dock-b")
    for dock_id in ("dock-a", "dock-b"):
        server.publish(f"docks/{dock_id}/in/cmd/42", b"for " + dock_id.encode(), retain=True)
    # Its own, once for each filter that matches, and nothing before.
    assert spy.message() == ("docks/dock-b/in/cmd/42", b"for dock-b")


@pytest.mark.parametrize("user, topic", [
    ("dock-b", "docks/dock-a/out/cmd/42"),  # a result of another dock
    ("dock-b", "docks/dock-a/link"),        # its presence
    ("dock-b", "docks/dock-a/in/cmd/42"),   # a request to it
    ("dock-b", "docks/dock-b/in/cmd/42"),   # a request to itself
    ("dock-b", "docks/dock-b/other"),
    ("server", "docks/dock-a/out/cmd/42"),
    ("server", "docks/dock-a/link"),
    ("server", "other"),
])
def test_centre_drops_what_a_user_may_not_write(fleet, user, topic):
    writer = fleet.client(user=user)
    writer.publish(topic, b"forged", retain=True)
    allowed = "docks/dock-b/in/cmd/1" if user == "server" else "docks/dock-b/out/cmd/1"
    writer.publish(allowed, b"good", retain=True)
    assert fleet.centre.retained("#") == {allowed: b"good"}
    # Nor does the centre keep it where the server may not look.
    database = fleet.centre.directory / "db/mosquitto.db"
    wait_until(lambda: b"good" in database.read_bytes(), "the database")
    assert b"forged" not in database.read_bytes()


def test_centre_drops_a_request_that_is_too_large(fleet, server):
    dock = fleet.dock()
    server.publish("docks/dock-a/in/cmd/large", bytes(1048577), retain=True)
    server.publish("docks/dock-a/in/cmd/largest", bytes(1048576), retain=True)
    server.wait_for("docks/dock-a/out/cmd/largest", failure(
        "Expected the command request dictionary with args and lua_script entries"))
    assert runs(dock, "large") == 0
    assert list(fleet.centre.retained("docks/+/in/cmd/+")) == ["docks/dock-a/in/cmd/largest"]


def test_centre_keeps_more_than_a_thousand_requests_for_an_absent_dock(fleet, server):
    fleet.cut(fleet.linked_dock())
    for number in range(1100):
        server.publish(f"docks/dock-a/in/cmd/waiting-{number}", b"x", wait=number == 1099)
    database = fleet.centre.directory / "db/mosquitto.db"
    wait_until(lambda: b"/waiting-1099" in database.read_bytes(), "the last one in the database")
    assert len(set(re.findall(b"/waiting-[0-9]+", database.read_bytes()))) == 1100


@pytest.mark.parametrize("victim", ["dock-a", "server"])
def test_dock_cannot_take_over_the_session_of_another_user(fleet, server, victim):
    fleet.linked_dock("dock-a")
    server.wait_for("docks/dock-a/link", b"1")
    thief = fleet.client(user="dock-b", client_id=victim)
    assert thief.code == 0
    # The centre would have published the presence 0 of dock-a before, and nothing to the server.
    thief.publish("docks/dock-b/out/cmd/1", b"in order")
    assert server.message() == ("docks/dock-b/out/cmd/1", b"in order")
    log = fleet.centre.log.read_text()
    assert "as dock-b (" in log and "already connected" not in log


@pytest.mark.parametrize("user, password", [
    (None, None), ("dock-a", "wrong"), ("server", "wrong"), ("nobody", "wrong"),
])
def test_centre_refuses(fleet, user, password):
    client = fleet.client(user=user, password=password)
    assert client.code in NOT_AUTHORISED


def test_password_that_is_taken_away_ends_the_connection_at_a_reload(fleet, server):
    dock = fleet.linked_dock()
    server.wait_for("docks/dock-a/link", b"1")
    subprocess.run(["mosquitto_passwd", "-D", fleet.centre.directory / "pex-command-centre.passwd",
                    "dock-a"], check=True)
    fleet.centre.process.send_signal(signal.SIGHUP)
    wait_until(lambda: "Connection Refused: not authorised" in dock.log.read_text(), "the refusal")
    assert fleet.centre.retained("docks/#") == {"docks/dock-a/link": b"1"}  # nobody says otherwise


def test_dock_with_a_wrong_password_is_refused(fleet, server):
    dock = fleet.new_dock(replacements={fleet.centre.passwords["dock-a"]: "wrong"})
    wait_until(lambda: "Connection Refused: not authorised" in dock.log.read_text(), "the refusal")
    assert fleet.centre.retained("docks/#") == {}


def assert_refused(fleet, dock, reason):
    """The dock refuses the centre, again too, and its own broker goes on working."""
    wait_until(lambda: dock.tunnel_log.read_text().count("certificate verify failed") >= 2,
               lambda: "refusals: " + dock.tunnel_log.read_text())
    assert reason in dock.tunnel_log.read_text()
    assert dock.listed_jobs() == []
    assert "as dock-a (" not in fleet.centre.log.read_text()


def test_dock_refuses_a_centre_with_the_certificate_of_another_authority(fleet):
    other = fleet.directory / "other"
    other.mkdir()
    make_certificates(other)
    dock = fleet.new_dock(cafile=other / "centre-ca.crt")
    assert_refused(fleet, dock, "CERT: Pre-verification error: unable to get local issuer")


def test_dock_refuses_a_centre_with_the_certificate_of_another_name(tmp_path):
    fleet = Fleet(tmp_path, certificate_name="other.example.net")
    try:
        assert_refused(fleet, fleet.new_dock(), "CERT: Subject checks failed")
    finally:
        fleet.close()


def test_dock_works_on_while_the_centre_ends_each_connection(fleet):
    with socket.create_server((HOST, 0)) as listener:
        listener.settimeout(DEADLINE)
        dock = fleet.new_dock(port=listener.getsockname()[1])
        for _ in range(3):
            listener.accept()[0].close()
        start_daemon(dock)
        subprocess.run([*WRAPPER, pexctl_binary(), "submit", "-h", dock.socket, "greet",
                        '{"name": "you"}'], check=True, timeout=DEADLINE)


def documented_command(text):
    """The one command of docs/fleet.md that begins with `text`, with its continuation lines."""
    found = re.findall(r"^    (" + re.escape(text) + r"(?:.*\\\n)*.*)$",
                       (REPOSITORY / "docs/fleet.md").read_text(), re.MULTILINE)
    assert len(found) == 1, found
    return found[0]


@pytest.mark.parametrize("command, target, expected", [
    ('sed "s/DOCK-ID', "/etc/mosquitto/conf.d/pex-command-bridge.conf",
     ["remote_username dock-7", "remote_password secret", "remote_clientid dock-7",
      'topic in/cmd/+ in 1 "" docks/dock-7/', 'topic out/cmd/+ out 2 "" docks/dock-7/',
      "notification_topic docks/dock-7/link"]),
    ('sed "s/centre', "/etc/stunnel/pex-command.conf",
     ["connect = mqtt.factory.lan:8883", "checkHost = mqtt.factory.lan"]),
])
def test_documented_command_fills_in_a_file(tmp_path, command, target, expected):
    line = documented_command(command)
    assert target in line
    subprocess.run(line.replace(target, str(tmp_path / "filled-in")), shell=True, check=True,
                   cwd=REPOSITORY / "examples/mosquitto",
                   env={"id": "dock-7", "centre": "mqtt.factory.lan", "password": "secret",
                        "PATH": os.environ["PATH"]})
    settings = [line for line in (tmp_path / "filled-in").read_text().splitlines()
                if line[:1] not in ("", "#", ";")]
    assert set(expected) <= set(settings)
    assert not [line for line in settings if re.search("DOCK|example", line)]


class FleetRun(ScriptRun):
    """One run of scripts/fleet."""

    prefix = "pex-fleet-"

    def __init__(self, directory, *arguments):
        super().__init__(directory, [FLEET, *arguments])


@pytest.mark.parametrize("arguments, summary", [
    (["3", "--cut", "1", "--kill-docks", "1"], "docks 3   requests 3 (retained)"),
    (["3", "--cut", "1", "--not-retained", "--jobs", "20"], "docks 3   requests 60 (not retained)"),
    (["2", "--jobs", "100", "--kill-centre"], "docks 2   requests 200 (retained)"),
], ids=["cut and killed", "cut, not retained", "centre killed"])
def test_fleet_answers_every_request_whatever_breaks(tmp_path, arguments, summary):
    wait = str(int(30 * DEADLINE_FACTOR))
    status, out, err = FleetRun(tmp_path, *arguments, "--wait", wait).end()
    assert (status, err) == (0, ""), out + err
    assert "Every request has its answer, and nothing is left behind." in out
    assert re.search(r"^%s   results \d+   duplicates \d+   lost 0$" % re.escape(summary), out,
                     re.MULTILINE), out
    for title in ("  where something was broken", "daemon, PSS in KB", "dock's broker, PSS in KB",
                  "dock's stunnel, PSS in KB", "central broker, PSS in KB"):
        assert re.search(f"^{title}( +[0-9.]+){{5}}$", out, re.MULTILINE), out
    assert re.search(r"^ +100 % \|.*#$", out, re.MULTILINE), out


def test_fleet_says_which_answer_is_wrong(tmp_path):
    status, out, _ = FleetRun(tmp_path, "2", "--args", '{"name": "you"}', "--expect",
                              "Hello, me!").end()
    assert status == 1
    assert "dock-001, job-1: the result is wrong: b'Hello, you!'\n" in out
    assert "dock-002, job-1: the result is wrong: b'Hello, you!'\n" in out


def test_fleet_shows_twenty_failures_at_most(tmp_path):
    status, out, _ = FleetRun(tmp_path, "1", "--jobs", "23", "--args", "{}", "--expect", "no").end()
    assert status == 1
    assert out.count("the result is wrong: ") == 20
    assert out.endswith("\nand 3 more\n")


def test_fleet_says_which_job_has_failed(tmp_path):
    script = tmp_path / "fail.lua"
    script.write_text("error('broken')")
    directory = tmp_path / "run"
    directory.mkdir()
    status, out, _ = FleetRun(directory, "1", "--script", str(script)).end()
    answer = failure("Dock command service error. Command script failure, please consult "
                     "pex-command logs.")
    assert status == 1
    assert f"dock-001, job-1: the result is wrong: {answer!r}\n" in out


def test_fleet_says_what_is_left_behind(tmp_path):
    script = tmp_path / "leave.lua"
    script.write_text("""
        os.execute("mosquitto_pub --unix " .. pexenv.staging_dir ..
                   "/../broker.sock -q 1 -r -t out/cmd/extra -m mine")
        return "done"
    """)
    directory = tmp_path / "run"
    directory.mkdir()
    status, out, _ = FleetRun(directory, "1", "--script", str(script), "--expect", "done").end()
    assert status == 1
    assert "a result that nobody asked for: docks/dock-001/out/cmd/extra\n" in out
    assert "still kept at the centre: docks/dock-001/out/cmd/extra\n" in out
    assert re.search("^dock-001: still kept at its broker: extra +succeeded ", out, re.MULTILINE)


def test_fleet_stops_everything_at_ctrl_c(tmp_path):
    run = FleetRun(tmp_path, "2", "--keep")
    for line in run.process.stdout:
        if "Ctrl-C stops everything" in line:
            break
    assert len(run.children()) == 7  # three brokers; for each dock a daemon and stunnel
    run.process.send_signal(signal.SIGINT)
    assert run.end()[0] == 130


@pytest.mark.parametrize("arguments, text", [
    (["0"], "at least one dock and one job are needed"),
    (["2", "--jobs", "0"], "at least one dock and one job are needed"),
    (["2", "--cut", "1", "--cut-silently", "2"], "there are only 2 docks"),
    (["2", "--kill-docks", "3"], "there are only 2 docks"),
    (["2", "--kill-daemons", "3"], "there are only 2 docks"),
    (["2", "--script", "/nonexistent.lua"], "no such script: /nonexistent.lua"),
    (["2", "--script", "/dev/null"], "no such script: /dev/null"),
    (["x"], "argument N: invalid count value: 'x'"),
    (["-1"], "argument N: invalid count value: '-1'"),
    ([], "the following arguments are required: N"),
])
def test_fleet_refuses_a_wrong_command_line(tmp_path, arguments, text):
    status, out, err = FleetRun(tmp_path, *arguments).end()
    assert (status, out) == (2, "")
    assert f"fleet: error: {text}" in err


def test_fleet_refuses_more_docks_than_the_limits_allow():
    run = subprocess.run(["bash", "-c", 'ulimit -n 200; exec "$0" 150', FLEET], text=True,
                         capture_output=True, timeout=DEADLINE)
    assert (run.returncode, run.stdout) == (2, "")
    assert "fleet: error: 150 docks need 250 open files; the limit is 200" in run.stderr
