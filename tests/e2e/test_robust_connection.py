"""How the daemon opens its connection, keeps it, and comes back after a broker's nonsense."""

import os
import pathlib
import signal
import socket
import tempfile

import pytest

from harness import Broker, Server, request
from scripted_broker import DISCONNECT, connack, connect, puback, publish, suback, subscribe
from scripted_proc import connection_to, is_close_on_exec

pytest_plugins = ["scripted_fixtures"]


def run_job(connection, job_id="1"):
    """One job from the request to the acknowledged result, on a script named "ping"."""
    connection.send(publish("in/cmd/" + job_id, request("ping"), qos=1, mid=9))
    connection.expect(puback(9))
    connection.acknowledge(connection.result("out/cmd/" + job_id, b"pong"))


def test_opening_and_farewell_byte_for_byte(peer, daemon):
    """The daemon asks for a clean session without a keepalive, subscribes, and says goodbye."""
    connection = peer.accept()
    connection.expect(connect("command_service", clean_session=True, keepalive=0))
    connection.send(connack())
    connection.expect(subscribe(1, "in/cmd/+", qos=1))
    connection.send(suback(1, 1))
    daemon.signal(signal.SIGTERM)
    connection.expect(DISCONNECT)
    connection.expect_end()
    assert daemon.wait() == 0


def assert_socket_is_set_up(daemon, port):
    descriptor, sock = connection_to(daemon.pid, port)
    with sock:
        assert is_close_on_exec(daemon.pid, descriptor)
        assert sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY) == 1
        assert sock.getsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE) == 1
        idle = sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPIDLE)
        interval = sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPINTVL)
        limit = sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_USER_TIMEOUT) / 1000
    # The kernel gives up at the first probe past the limit.
    last_probe = idle
    while last_probe < limit:
        last_probe += interval
    assert 0 < limit <= last_probe <= 60


def test_socket_options_on_every_connection(peer, daemon):
    """The first connection is cut; what holds for it holds for the second one too."""
    connection = peer.accept_and_serve()
    assert_socket_is_set_up(daemon, peer.port)
    connection.reset()
    peer.accept_and_serve()
    assert_socket_is_set_up(daemon, peer.port)


def test_children_of_a_script_do_not_hold_the_connection(peer, daemon, scripts):
    """A job leaves a process behind. The daemon is killed; the broker hears of it at once."""
    pid_file = scripts.directory / "child.pid"
    scripts.add("orphan", f"os.execute('sleep 3600 & echo $! > {pid_file}') return 'left'")
    connection = peer.accept_and_serve()
    connection.send(publish("in/cmd/1", request("orphan"), qos=1, mid=9))
    connection.expect(puback(9))
    connection.acknowledge(connection.result("out/cmd/1", b"left"))
    child = int(pid_file.read_text())
    try:
        descriptor, sock = connection_to(daemon.pid, peer.port)
        sock.close()
        connection_name = os.readlink(f"/proc/{daemon.pid}/fd/{descriptor}")
        held = map(os.readlink, pathlib.Path(f"/proc/{child}/fd").iterdir())
        assert connection_name not in list(held)
        daemon.signal(signal.SIGKILL)
        connection.expect_end()
        assert daemon.wait() == -signal.SIGKILL
        os.kill(child, 0)
    finally:
        os.kill(child, signal.SIGKILL)


def test_requests_behind_a_running_job_are_all_served(service, server, broker, scripts, gated):
    """Requests pile up behind a job that runs; when it ends, every one of them gets its result."""
    scripts.add("ping", "return 'pong'")
    mark = broker.mark()
    server.publish("0", gated.request)
    gated.wait_until_running()
    for job in range(1, 31):
        server.publish(str(job), request("ping"))
    broker.wait_for("Sending PUBLISH to command_service", mark, count=20)
    gated.open()
    results = [(result.topic, result.payload) for result in server.results(31)]
    assert results == [("out/cmd/0", b"done")] + [
        (f"out/cmd/{job}", b"pong") for job in range(1, 31)]
    server.expect_no_more()


def test_unix_socket(tmp_path, new_service, scripts):
    """A path as the host and 0 as the port reach a broker on a Unix socket."""
    scripts.add("ping", "return 'pong'")
    with tempfile.TemporaryDirectory() as short_directory:
        path = short_directory + "/broker"
        (tmp_path / "unix").mkdir()
        local = Broker(tmp_path / "unix", extra_config=f"listener 0 {path}")
        server = Server(local.start())
        try:
            daemon = new_service({"server_comms.host": path, "server_comms.port": 0}).start()
            daemon.wait_for_record(f"Connected to broker {path}")
            local.wait_for("Sending SUBACK to command_service")
            assert server.run("1", "ping") == b"pong"
        finally:
            server.close()
            local.kill()


def test_localhost_may_be_served_by_one_address_family(new_service, server, scripts):
    """The name stands for ::1 and 127.0.0.1; the broker listens on the latter only."""
    scripts.add("ping", "return 'pong'")
    new_service({"server_comms.host": "localhost"}).start().wait_until_subscribed()
    assert server.run("1", "ping") == b"pong"


NONSENSE = {
    "reserved packet type 0": b"\x00\x00",
    "reserved packet type 15": b"\xf0\x00",
    "remaining length of five bytes": b"\x30\xff\xff\xff\xff\x7f",
    "CONNECT": connect(),
    "SUBSCRIBE": subscribe(1),
    "DISCONNECT": DISCONNECT,
    "refusing CONNACK on a live connection": connack(5),
    "short CONNACK": b"\x20\x00",
    "short SUBACK": b"\x90\x01\x00",
    "SUBACK for message id 0": suback(0, 1),
    "SUBACK without a granted QoS, then packet type 0": suback(1) + b"\x00\x00",
    "short PUBACK": b"\x40\x00",
    "PUBACK for message id 0": puback(0),
    "PUBREL with wrong flags": b"\x60\x02\x00\x01",
    "PUBREL cut short": b"\x62\x01\x00",
    "PUBLISH with QoS 3": b"\x36\x05\x00\x01x\x00\x01",
    "PUBLISH without a topic": publish("", b"x"),
    "PUBLISH whose topic is longer than the packet": b"\x30\x03\x00\x08i",
    "PUBLISH with QoS 1 and no message id": publish("in/cmd/1", b"", qos=1),
    "PUBLISH with message id 0": publish("in/cmd/1", b"x", qos=1, mid=0),
    "empty PUBLISH": b"\x30\x00",
    "topic that is not UTF-8": publish(b"in/cmd/\xff", request("ping")),
    "topic with a zero byte": publish(b"in/cmd/\0", request("ping")),
}


@pytest.mark.parametrize("packet", NONSENSE.values(), ids=NONSENSE.keys())
def test_nonsense_ends_the_connection_and_nothing_else(peer, daemon, scripts, packet):
    """The broker sends what no broker may. The daemon hangs up, comes back and serves."""
    scripts.add("ping", "return 'pong'")
    connection = peer.accept_and_serve()
    connection.send(packet)
    connection.expect_end()
    connection = peer.accept_and_serve()
    run_job(connection)


UNSOLICITED = {
    "PUBACK": puback(77),
    "PUBCOMP": b"\x70\x02\x00\x4d",
    "SUBACK": suback(77, 0x80),
    "PINGRESP": b"\xd0\x00",
    "second CONNACK": connack(),
    "message on a topic that nobody asked for": publish("in/cmd/1/2", request("ping")),
}


@pytest.mark.parametrize("packet", UNSOLICITED.values(), ids=UNSOLICITED.keys())
def test_unsolicited_packets_do_no_harm(peer, daemon, scripts, packet):
    """The broker answers what was never asked. Jobs still run, and the end is still clean."""
    scripts.add("ping", "return 'pong'")
    connection = peer.accept_and_serve()
    connection.send(packet)
    if packet == connack():
        connection.subscribed()
    run_job(connection)
    daemon.signal(signal.SIGTERM)
    connection.expect(DISCONNECT)
    connection.expect_end()
    assert daemon.wait() == 0
    assert not [record for record in daemon.records() if record.priority == "ERROR"]


@pytest.mark.parametrize("end", ["FIN", "RST"])
def test_cut_at_every_byte_of_the_brokers_side(new_service, peer, scripts, end):
    """The broker's side breaks off after each number of bytes, from the first byte of the CONNACK
    to the last but one of a request. The daemon comes back each time and serves."""
    scripts.add("ping", "return 'pong'")
    whole = connack() + suback(1, 1) + publish("in/cmd/1", request("ping"), qos=1, mid=9)
    for length in range(1, len(whole)):
        daemon = new_service({"server_comms.port": peer.port}).start()
        connection = peer.accept()
        connection.expect(connect())
        connection.send(whole[:length])
        connection.wait_until_read()
        if end == "FIN":
            connection.finish()
        else:
            connection.reset()
        connection = peer.accept_and_serve()
        run_job(connection)
        daemon.stop()


def test_request_that_trickles_in_byte_by_byte(peer, daemon, scripts):
    """The daemon never sees more than a byte at a time, and understands nevertheless."""
    scripts.add("ping", "return 'pong'")
    connection = peer.accept()
    connection.expect(connect())
    for stream in (connack(), suback(1, 1), publish("in/cmd/1", request("ping"), qos=1, mid=9)):
        for byte in stream:
            connection.send(bytes([byte]))
            connection.wait_until_read()
    connection.expect(subscribe(1))
    connection.expect(puback(9))
    connection.acknowledge(connection.result("out/cmd/1", b"pong"))
