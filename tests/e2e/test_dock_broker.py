"""The dock's own broker: the files of examples/mosquitto beside Debian's own configuration, with
nothing changed but the paths, the port and what the test switches on."""

import os
import pathlib
import pwd
import shlex
import shutil
import signal
import socket
import stat
import subprocess
import tempfile

import pytest

from harness import (DEADLINE, REPOSITORY, Broker, Connection, mosquitto_version, request, tcp_table,
                     wait_until)
from scripted_proc import processor_time

EXAMPLES = REPOSITORY / "examples/mosquitto"

# /etc/mosquitto/mosquitto.conf of Debian 12, without its comments.
DEBIANS_CONFIGURATION = """\
pid_file /run/mosquitto/mosquitto.pid

persistence true
persistence_location /var/lib/mosquitto/

log_dest file /var/log/mosquitto/mosquitto.log

include_dir /etc/mosquitto/conf.d
"""

NOTHING_THERE = (0, b"", "pexctl: The broker holds no results and no retained requests.\n")

# Numbers that no user and no group has. The group stands for pex-command.
GROUP = 54321
STRANGER = 54322

needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can become another user")


def with_lines(text, changes):
    """`text` with whole lines replaced. Each of them must be there."""
    lines = text.splitlines()
    missing = set(changes) - set(lines)
    assert not missing, missing
    return "".join(changes.get(line, line) + "\n" for line in lines)


def owner():
    """Whom the broker runs as."""
    return pwd.getpwnam("mosquitto").pw_uid if os.geteuid() == 0 else os.geteuid()


class DockBroker(Broker):
    """mosquitto as a dock has it, with everything below one directory. Started by root, it becomes
    the user mosquitto, as on a dock.

    `with_tcp` switches the TCP listener on. `drop_ins` maps names of further files in conf.d to
    their texts.
    """

    def __init__(self, with_tcp=False):
        # Where the user mosquitto comes to. The path of a socket has room for 107 bytes only.
        directory = pathlib.Path(tempfile.mkdtemp())
        directory.chmod(0o755)
        os.chown(directory, owner(), -1)
        super().__init__(directory)
        self.socket = directory / "socket/broker.sock"
        self.access_list = directory / "pex-command.acl"
        self.database = directory / "mosquitto.db"
        self.passwords = directory / "pex-command.passwd"
        self.drop_ins = {}
        self._with_tcp = with_tcp
        if with_tcp:
            self._set_passwords(server="right", guest="right")
        self.access_list.write_text(self._access_list_text())

    def launch(self, port):
        self.port = port
        (self.directory / "conf.d").mkdir(exist_ok=True)
        texts = {**self.drop_ins, "pex-command.conf": self._drop_in_text()}
        for name, text in texts.items():
            (self.directory / "conf.d" / name).write_text(text)
        self._config.write_text(self._debians_text())
        subprocess.run(self._directory_command(), check=True)
        return subprocess.Popen(["mosquitto", "-c", self._config], stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def remove(self):
        self.kill()
        shutil.rmtree(self.directory)

    def _try_start(self, port):
        since = self.mark()
        self.process = self.launch(port)
        wait_until(lambda: self.lines(" running", since) or self.process.poll() is not None,
                   lambda: "the broker to start:\n" + self.log(since))
        return self.process.poll() is None

    def _debians_text(self):
        return with_lines(DEBIANS_CONFIGURATION, {
            "pid_file /run/mosquitto/mosquitto.pid": f"pid_file {self.directory}/mosquitto.pid",
            "persistence_location /var/lib/mosquitto/": f"persistence_location {self.directory}/",
            "log_dest file /var/log/mosquitto/mosquitto.log": f"log_dest file {self._log}",
            "include_dir /etc/mosquitto/conf.d": f"include_dir {self.directory}/conf.d",
        })

    def _drop_in_text(self):
        text = (EXAMPLES / "dock.conf").read_text()
        if self._with_tcp:
            text = with_lines(text, {
                "#listener 1883 127.0.0.1": f"listener {self.port} 127.0.0.1",
                "#allow_anonymous false": "allow_anonymous false",
                "#password_file /etc/mosquitto/pex-command.passwd":
                    f"password_file {self.passwords}",
                "#acl_file /etc/mosquitto/pex-command.acl": f"acl_file {self.access_list}",
                "#set_tcp_nodelay true": "set_tcp_nodelay true",
            })
        return with_lines(text, {
            "listener 0 /run/pex-command/broker.sock": f"listener 0 {self.socket}",
            "acl_file /etc/mosquitto/pex-command.acl": f"acl_file {self.access_list}",
            "#log_type all": "log_type all\nlog_timestamp false",
        })

    def _access_list_text(self):
        text = (EXAMPLES / "dock.acl").read_text()
        if self._with_tcp:
            text = with_lines(text, {
                "#user server": "user server",
                "#topic readwrite in/cmd/+": "topic readwrite in/cmd/+",
                "#topic read out/cmd/+": "topic read out/cmd/+",
            })
        return text

    def _directory_command(self):
        """What the unit's drop-in does before each start."""
        unit = (EXAMPLES / "mosquitto.service.d/pex-command.conf").read_text()
        [line] = [line for line in unit.splitlines() if line.startswith("ExecStartPre=")]
        command = shlex.split(line.removeprefix("ExecStartPre="))
        group = GROUP if os.geteuid() == 0 else os.getegid()
        for name, here in {"mosquitto": owner(), "pex-command": group,
                           "/run/pex-command": self.socket.parent}.items():
            command[command.index(name)] = str(here)
        return command

    def _set_passwords(self, **passwords):
        self.passwords.touch(0o640)
        for name, password in passwords.items():
            subprocess.run(["mosquitto_passwd", "-b", self.passwords, name, password], check=True)
        os.chown(self.passwords, -1, pwd.getpwuid(owner()).pw_gid)


@pytest.fixture
def tcp():
    return False


with_tcp = pytest.mark.parametrize("tcp", [True], ids=["tcp"])


@pytest.fixture
def broker(tcp):
    private = DockBroker(tcp)
    try:
        yield private.start()
    finally:
        private.remove()


@pytest.fixture
def new_dock_service(new_service, broker):
    """Makes a Service at the broker's socket, not started."""
    def make(settings=()):
        return new_service({"server_comms.host": broker.socket, "server_comms.port": 0,
                            **dict(settings)})

    return make


@pytest.fixture
def service(new_dock_service):
    return new_dock_service().start_up()


@pytest.fixture
def on_dock(pexctl, broker):
    """on_dock("submit", "greet") runs pexctl at the broker's socket."""
    return lambda command, *arguments: pexctl(command, "-h", broker.socket, *arguments)


@pytest.fixture
def by_tcp(pexctl, broker):
    """by_tcp("server", "right", "list") runs pexctl at the TCP listener. The user may be None."""
    def run(user, password, command, *arguments):
        login = ["-u", user, "-P", password] if user else []
        return pexctl(command, "-h", broker.host, "-p", str(broker.port), *login, *arguments)

    return run


@pytest.fixture
def echo(scripts):
    scripts.add("echo", "return args")


def mosquitto_pub(broker, *arguments, payload=b""):
    """Publishes at the broker's socket with QoS 1."""
    subprocess.run(["mosquitto_pub", "--unix", broker.socket, "-q", "1", *arguments],
                   input=payload, check=True, timeout=DEADLINE)


def first_message(broker, *topics):
    """What a client at the socket gets first of these topics: topic and payload."""
    filters = [part for topic in topics for part in ("-t", topic)]
    listener = subprocess.run(["mosquitto_sub", "--unix", broker.socket, "-v", "-C", "1", *filters],
                              capture_output=True, check=True, timeout=DEADLINE)
    return listener.stdout


def requests_received(service):
    prefix = "Received command request, job_id: "
    return [record.message.removeprefix(prefix) for record in service.records()
            if record.message.startswith(prefix)]


def denied(broker):
    """The topics that the broker has refused a message on."""
    return [line.split("'")[1] for line in broker.lines("Denied PUBLISH")]


def test_job_runs_over_the_socket(service, on_dock, broker):
    shutil.copy(REPOSITORY / "examples/scripts/greet.lua", service.directory.parent / "scripts")
    assert on_dock("submit", "greet", '{"name": "dock 7"}') == (0, b"Hello, dock 7!", "")
    assert on_dock("list") == NOTHING_THERE
    assert service.tcp_table() == []
    assert denied(broker) == []


def test_socket_is_the_only_listener(broker):
    assert broker.lines("Opening ") == [f"Opening unix listen socket on path {broker.socket}."]


@with_tcp
def test_tcp_listener_is_on_the_loopback_interface_only(broker):
    assert broker.lines("Opening ") == [f"Opening unix listen socket on path {broker.socket}.",
                                        f"Opening ipv4 listen socket on port {broker.port}."]
    listening = [row[1] for row in tcp_table(broker.process.pid)]
    assert listening == [f"0100007F:{broker.port:04X}"]


def restart_after_a_kill(broker, service):
    mark = broker.mark()
    broker.kill()
    broker.start()
    service.wait_until_subscribed(mark)


KEPT = b"""\
ID    STATE          BYTES  ANSWER, REASON OR REQUEST
job1  succeeded          1  1
job2  succeeded          1  2
job3  succeeded          1  3
job4  succeeded          1  4
job5  succeeded          1  5
"""


def test_results_outlive_a_killed_broker(service, on_dock, broker, echo):
    for number in range(1, 6):
        on_dock("submit", "--keep", "--id", f"job{number}", "echo", f'"{number}"')
    # The broker saves at the end of a round of its loop, and answers this in a later round.
    assert on_dock("list").stdout == KEPT
    restart_after_a_kill(broker, service)
    assert on_dock("list").stdout == KEPT


def test_single_result_outlives_a_killed_broker(broker):
    mosquitto_pub(broker, "-t", "out/cmd/7", "-m", "hi", "-r")
    assert first_message(broker, "out/cmd/7") == b"out/cmd/7 hi\n"
    broker.kill()
    broker.start()
    assert first_message(broker, "out/cmd/7") == b"out/cmd/7 hi\n"


def test_lock_and_results_hold_after_a_reload(service, on_dock, broker, echo):
    """Debian's logrotate has the broker read its configuration again each day."""
    broker.signal(signal.SIGHUP)
    broker.wait_for("Reloading config.")
    mosquitto_pub(broker, "-t", "elsewhere", "-m", "x")
    assert denied(broker) == ["elsewhere"]
    assert on_dock("submit", "--keep", "--id", "7", "echo", '"hi"').stdout == b"hi"
    kept = on_dock("list").stdout
    restart_after_a_kill(broker, service)
    assert on_dock("list").stdout == kept


def test_topics_outside_the_protocol_are_denied(broker):
    topics = ["elsewhere", "in/cmd", "in/cmd/a/b", "out/cmd", "in/other/1", "docks/7/in/cmd/1",
              "$SYS/broker/version"]
    for topic in topics:
        mosquitto_pub(broker, "-t", topic, "-m", "x")
    assert denied(broker) == topics


def test_broker_tells_clients_nothing_of_itself(broker):
    mosquitto_pub(broker, "-t", "in/cmd/7", "-m", "fence", "-r")
    # Retained messages come in the order of the subscriptions.
    assert first_message(broker, "$SYS/#", "in/cmd/7") == b"in/cmd/7 fence\n"


@with_tcp
@pytest.mark.parametrize("user, password", [
    (None, None), ("server", "wrong"), ("server", ""), ("nobody", "right"),
], ids=["anonymous", "wrong-password", "no-password", "unknown"])
def test_tcp_listener_wants_a_name_and_its_password(broker, by_tcp, user, password):
    assert by_tcp(user, password, "list") == (
        3, b"", f"pexctl: Broker 127.0.0.1:{broker.port} refused the connection. "
        "Connection Refused: not authorised.\n")


@with_tcp
def test_user_without_rights_neither_sends_requests_nor_reads_results(service, broker, by_tcp,
                                                                      echo):
    assert by_tcp("server", "right", "submit", "--keep", "echo", '"secret"').stdout == b"secret"
    # The broker acknowledges what it drops.
    assert by_tcp("guest", "right", "submit", "--detach", "--id", "7", "echo").status == 0
    assert by_tcp("guest", "right", "list") == NOTHING_THERE
    assert by_tcp("server", "right", "submit", "--id", "8", "echo", '"hi"').stdout == b"hi"
    assert denied(broker) == ["in/cmd/7"]
    assert requests_received(service)[1:] == ["8"]


@with_tcp
def test_server_writes_no_results(broker):
    subprocess.run(["mosquitto_pub", "-h", broker.host, "-p", str(broker.port), "-u", "server",
                    "-P", "right", "-q", "1", "-t", "out/cmd/7", "-m", "forged"],
                   check=True, timeout=DEADLINE)
    assert denied(broker) == ["out/cmd/7"]


CONNECT = """
import socket, sys
try:
    socket.socket(socket.AF_UNIX).connect(sys.argv[1])
except PermissionError as error:
    sys.exit(error.strerror)
"""


@needs_root
@pytest.mark.parametrize("group, extra_groups, outcome", [
    (STRANGER, [], (1, "Permission denied\n")),
    (STRANGER, [GROUP], (0, "")),
    (GROUP, [], (0, "")),
], ids=["stranger", "member", "daemon"])
def test_socket_is_open_to_its_group_only(broker, group, extra_groups, outcome):
    run = subprocess.run(["/usr/bin/python3", "-c", CONNECT, broker.socket], user=STRANGER,
                         group=group, extra_groups=extra_groups, capture_output=True, text=True,
                         timeout=DEADLINE)
    assert (run.returncode, run.stderr) == outcome


@needs_root
def test_socket_database_and_log_belong_to_the_broker(service, broker, on_dock, echo):
    assert on_dock("submit", "--keep", "echo", '"hi"').status == 0
    assert on_dock("list").status == 0  # a later round of the broker's loop: it has saved
    kinds = {path.name: (pwd.getpwuid(path.stat().st_uid).pw_name, path.stat().st_gid,
                         oct(stat.S_IMODE(path.stat().st_mode)))
             for path in [broker.socket.parent, broker.socket, broker.database,
                          broker.directory / "mosquitto.log"]}
    own_group = pwd.getpwnam("mosquitto").pw_gid
    assert kinds == {"socket": ("mosquitto", GROUP, "0o2750"),
                     "broker.sock": ("mosquitto", GROUP, "0o770"),
                     "mosquitto.db": ("mosquitto", own_group, "0o600"),
                     "mosquitto.log": ("mosquitto", own_group, "0o600")}


def test_script_may_send_requests_itself(service, broker, on_dock, scripts, echo, tmp_path):
    (tmp_path / "request").write_bytes(request("echo", "hi"))
    scripts.add("send", f"""
        os.execute("mosquitto_pub --unix {broker.socket} -q 1 -t in/cmd/8 -f {tmp_path}/request")
        return "sent"
    """)
    assert on_dock("submit", "--id", "7", "send").stdout == b"sent"
    assert on_dock("attach", "8").stdout == b"hi"


def test_script_may_end_the_daemon(service, on_dock, scripts):
    scripts.add("leave", "os.exit(7)")
    assert on_dock("submit", "--detach", "--id", "7", "leave").status == 0
    assert service.wait() == 7
    assert on_dock("list") == NOTHING_THERE


LARGEST = 1048576


def padded_request(script, size):
    """A request of `size` bytes."""
    padding = size
    while len(request(script, b"x" * padding)) > size:
        padding -= len(request(script, b"x" * padding)) - size
    payload = request(script, b"x" * padding)
    assert len(payload) == size
    return payload


def test_request_that_is_too_large_is_dropped(service, broker, on_dock, scripts, tmp_path):
    scripts.add("size", "return #args")
    for job_id, size in [("fits", LARGEST), ("large", LARGEST + 1)]:
        (tmp_path / job_id).write_bytes(padded_request("size", size))
        mosquitto_pub(broker, "-t", "in/cmd/" + job_id, "-f", tmp_path / job_id)
    assert on_dock("submit", "--id", "next", "size", '"hi"').stdout == b"2"
    assert requests_received(service) == ["fits", "next"]
    assert len(broker.lines("Dropped too large PUBLISH")) == 1


def test_answer_that_is_too_large_is_dropped(service, broker, on_dock, scripts):
    scripts.add("answer", "return string.rep('x', args)")
    assert len(on_dock("submit", "answer", str(LARGEST)).stdout) == LARGEST
    assert on_dock("submit", "--detach", "--id", "large", "answer", str(LARGEST + 1)).status == 0
    assert on_dock("submit", "answer", "1").stdout == b"x"
    assert on_dock("list") == NOTHING_THERE
    assert len(broker.lines("Dropped too large PUBLISH from command_service")) == 1
    assert service.records("ERROR") == []


# As far as either bound goes, mosquitto 2.0.21 keeps 20 messages more than 2.0.11.
MORE = 0 if mosquitto_version() <= (2, 0, 11) else 20


@pytest.mark.parametrize("sent, size, served", [(1100, 64, 1020 + MORE), (100, LARGEST, 32 + MORE)],
                         ids=["requests", "bytes"])
def test_requests_beyond_the_queue_are_dropped_and_the_others_are_served(
        new_dock_service, broker, on_dock, scripts, tmp_path, waiting_job, sent, size, served):
    scripts.add("size", "return #args")
    service = new_dock_service({"log4cpp.rootCategory": "INFO, FILE"}).start_up()
    mosquitto_pub(broker, "-t", "in/cmd/wait", "-s", payload=request("wait"))
    waiting_job.wait_until_running()
    (tmp_path / "request").write_bytes(padded_request("size", size))
    mosquitto_pub(broker, "-t", "in/cmd/7", "-f", tmp_path / "request", "--repeat", str(sent))
    waiting_job.release()
    # By then there is room in the queue again.
    wait_until(lambda: len(requests_received(service)) > 25, "some requests to be served")
    assert on_dock("submit", "--id", "last", "-W", "0", "size", '"hi"').stdout == b"2"
    assert requests_received(service) == ["wait", *["7"] * served, "last"]
    assert broker.lines("being dropped") == [
        "Outgoing messages are being dropped for client command_service."]


def test_burst_of_results_is_kept(service, broker, on_dock, echo, waiting_job):
    mosquitto_pub(broker, "-t", "in/cmd/0", "-s", payload=request("wait"))
    waiting_job.wait_until_running()
    for number in range(1, 30):
        mosquitto_pub(broker, "-t", f"in/cmd/{number}", "-s", payload=request("echo", "hi"))
    waiting_job.release()
    assert on_dock("submit", "echo", '"last"').stdout == b"last"
    kept = [line.split()[0] for line in on_dock("list").stdout.splitlines()[1:]]
    assert sorted(kept, key=int) == [b"%d" % number for number in range(30)]


BRIDGE = """\
connection centre
address {centre.host}:{centre.port}
topic in/cmd/+ in 1 "" docks/7/
topic out/cmd/+ out 2 "" docks/7/
cleansession false
local_clientid bridge
remote_clientid 7
restart_timeout 1
"""


@pytest.fixture
def centre(tmp_path):
    (tmp_path / "centre").mkdir()
    private = Broker(tmp_path / "centre", "persistence true")
    try:
        yield private.start()
    finally:
        private.kill()


@pytest.mark.parametrize("name", ["bridge.conf", "pex-command-bridge.conf", "zz.conf"])
def test_bridge_passes_the_access_list(broker, centre, new_dock_service, on_dock, echo, name):
    broker.stop()
    broker.drop_ins[name] = BRIDGE.format(centre=centre)
    broker.start()
    service = new_dock_service().start_up()
    with Connection(centre, [("docks/7/out/cmd/+", 2)]) as server:
        server.publish("docks/7/out/cmd/2", "forged", 1, True)
        assert server.messages.get(timeout=DEADLINE).payload == b"forged"
        server.publish("docks/7/in/cmd/1", request("echo", "hi"), 1, True)
        result = server.messages.get(timeout=DEADLINE)
        assert (result.topic, result.payload) == ("docks/7/out/cmd/1", b"hi")
        assert [line.split()[:2] for line in on_dock("list").stdout.splitlines()[1:]] == [
            [b"1", b"succeeded"], [b"1", b"requested"]]
        # With the centre away, so that the request comes from the dock's own database.
        centre.stop()
        restart_after_a_kill(broker, service)
        wait_until(lambda: requests_received(service) == ["1", "1"], "the request to come again")
    assert denied(broker) == []


def test_bridge_with_tls_of_its_own_spins_while_the_centre_is_silent(broker):
    """Why the documents put stunnel there. Otherwise the broker has nothing to do here."""
    broker.stop()
    with socket.create_server(("127.0.0.1", 0)) as silent:
        host, port = silent.getsockname()
        broker.drop_ins["bridge.conf"] = (
            f"connection centre\naddress {host}:{port}\ntopic out/cmd/+ out 2\n"
            f"bridge_capath {broker.directory}\n")
        broker.start()
        connection, _ = silent.accept()
        with connection:
            before = processor_time(broker.process.pid)
            wait_until(lambda: processor_time(broker.process.pid) > before + 2, "the broker to spin")


@pytest.mark.parametrize("damage", [
    lambda access_list: access_list.unlink(),
    lambda access_list: access_list.write_text("topic raed in/cmd/+\n"),
], ids=["missing", "misspelt"])
def test_broker_does_not_start_without_its_access_list(broker, damage):
    broker.stop()
    damage(broker.access_list)
    mark = broker.mark()
    broker.process = broker.launch(broker.port)
    assert broker.process.wait(DEADLINE) != 0
    assert f'Error opening acl file "{broker.access_list}".' in broker.log(mark)


def test_reload_without_the_access_list_opens_the_broker(broker):
    """Why the documents say to restart the broker after a change of the list."""
    broker.access_list.unlink()
    broker.signal(signal.SIGHUP)
    broker.wait_for("Error opening acl file")
    mosquitto_pub(broker, "-t", "elsewhere", "-m", "x", "-r")
    assert first_message(broker, "elsewhere") == b"elsewhere x\n"


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="systemd-analyze is missing")
def test_unit_with_the_drop_in_is_well_formed(tmp_path):
    units = pathlib.Path("/lib/systemd/system")
    if not (units / "mosquitto.service").exists():
        pytest.skip("Debian's unit of mosquitto is missing")
    shutil.copy(units / "mosquitto.service", tmp_path)
    shutil.copytree(EXAMPLES / "mosquitto.service.d", tmp_path / "mosquitto.service.d")
    run = subprocess.run(["systemd-analyze", "verify", tmp_path / "mosquitto.service"],
                         env={**os.environ, "SYSTEMD_UNIT_PATH": f"{tmp_path}:"},
                         capture_output=True, text=True, timeout=DEADLINE)
    assert (run.returncode, run.stdout + run.stderr) == (0, "")
