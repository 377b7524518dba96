"""The end of the daemon: what was handed over is delivered, within two seconds, and nothing more
begins."""

import signal
import time

import pytest

from harness import Service, failure, request, wait_until
from scripted_broker import DISCONNECT, puback, pubcomp, publish, pubrec, pubrel
from scripted_network import Cable, missing, on_host

pytest_plugins = ["scripted_fixtures"]


def start_job(connection, gated, job_id="1", mid=9):
    connection.send(publish("in/cmd/" + job_id, gated.request, qos=1, mid=mid))
    connection.expect(puback(mid))
    gated.wait_until_running()


def errors(service):
    return [(record.category, record.message) for record in service.records()
            if record.priority == "ERROR" and record.category == "server_comms"]


def test_result_of_the_running_job_is_retained(broker, server, service, gated):
    """SIGTERM arrives while a job runs. Its result reaches the broker, then the daemon says
    goodbye."""
    server.publish("1", gated.request)
    gated.wait_until_running()
    mark = broker.mark()
    service.signal(signal.SIGTERM)
    gated.open()
    assert service.wait() == 0
    assert server.retained("out/cmd/1").payload == b"done"
    broker.wait_for("Received DISCONNECT from command_service", mark)
    assert errors(service) == []


def test_result_is_acknowledged_slowly(peer, daemon, gated):
    """The broker takes its time for both halves of the handshake, but less than two seconds."""
    connection = peer.accept_and_serve()
    start_job(connection, gated)
    daemon.signal(signal.SIGTERM)
    gated.open()
    mid = connection.result("out/cmd/1", b"done")
    connection.expect_silence(0.4)
    connection.send(pubrec(mid))
    connection.expect(pubrel(mid))
    connection.expect_silence(0.4)
    connection.send(pubcomp(mid))
    connection.expect(DISCONNECT)
    connection.expect_end()
    assert daemon.wait() == 0
    assert errors(daemon) == []


def test_results_that_are_never_acknowledged(peer, daemon, gated):
    """Three results wait for the broker's word when SIGTERM arrives, two of them behind the first.
    The daemon gives it two seconds, says how many messages may be lost, and says goodbye."""
    connection = peer.accept_and_serve()
    connection.send(publish("in/cmd/2", b"\xc1", qos=1, mid=10))
    connection.expect(puback(10))
    connection.result("out/cmd/2", failure("parse error"))
    connection.send(publish("in/cmd/3", b"\xc1", qos=1, mid=11))
    connection.expect(puback(11))
    start_job(connection, gated)
    daemon.signal(signal.SIGTERM)
    gated.open()
    daemon.wait_for_record("Publishing result  on out/cmd/1")
    begin = time.monotonic()
    connection.expect_silence(1.2)
    connection.expect(DISCONNECT)
    assert time.monotonic() - begin < 10
    connection.expect_end()
    assert daemon.wait() == 0
    assert errors(daemon) == [
        ("server_comms", "3 messages were not acknowledged by the broker and may be lost")]


def test_request_during_the_delivery_is_not_run(peer, daemon, gated, scripts):
    """A request arrives while the daemon waits for the last acknowledgement."""
    scripts.add("ping", "return 'pong'")
    connection = peer.accept_and_serve()
    start_job(connection, gated)
    daemon.signal(signal.SIGTERM)
    gated.open()
    mid = connection.result("out/cmd/1", b"done")
    connection.send(publish("in/cmd/2", request("ping"), qos=1, mid=10))
    connection.expect(puback(10))
    connection.acknowledge(mid)
    connection.expect(DISCONNECT)
    connection.expect_end()
    assert daemon.wait() == 0
    assert errors(daemon) == [
        ("server_comms", "Stopping, so the message on in/cmd/2 is not handled")]
    assert not [record for record in daemon.records() if "job_id: 2" in record.message]


@pytest.mark.parametrize("cut", ["finish", "reset"])
def test_connection_lost_during_the_delivery(peer, daemon, gated, cut):
    """The broker ends the connection instead of acknowledging. The daemon does not come back."""
    connection = peer.accept_and_serve()
    start_job(connection, gated)
    daemon.signal(signal.SIGTERM)
    gated.open()
    connection.result("out/cmd/1", b"done")
    getattr(connection, cut)()
    assert daemon.wait() == 0
    assert ("server_comms",
            "1 messages were not acknowledged by the broker and may be lost") in errors(daemon)
    peer.expect_no_connection()


def test_connection_lost_before_the_signal(peer, daemon, gated):
    """The connection breaks while a job runs, then SIGTERM arrives: nobody can take the result."""
    connection = peer.accept_and_serve()
    start_job(connection, gated)
    connection.reset()
    daemon.signal(signal.SIGTERM)
    gated.open()
    assert daemon.wait() == 0
    assert ("server_comms",
            "1 messages were not acknowledged by the broker and may be lost") in errors(daemon)
    peer.expect_no_connection()


def test_signal_before_the_connection_is_answered(peer, daemon):
    """SIGTERM arrives while the broker still owes its answer to the connection request."""
    connection = peer.accept()
    connection.expect_packet()
    daemon.wait_for_record("script directory: ")
    daemon.signal(signal.SIGTERM)
    assert daemon.wait() == 0
    assert errors(daemon) == []


def test_signal_ends_an_attempt_that_nobody_answers(tmp_path):
    """The broker's host swallows the connection request. SIGTERM arrives during that attempt."""
    if missing():
        pytest.skip(missing())
    cable = Cable()
    service = Service(tmp_path / "daemon", settings={"server_comms.host": cable.broker_address})
    try:
        cable.swallow_answers()
        with on_host(cable.daemon_side):
            service.start()
        wait_until(lambda: "syn-sent" in cable.connections_of_the_daemon(), "an attempt")
        service.signal(signal.SIGTERM)
        assert service.wait() == 0
        assert service.records()[-1].message == "Cleanup done"
    finally:
        service.finish()
        cable.remove()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_more_signals_during_the_delivery_change_nothing(peer, daemon, gated, number):
    """An impatient operator sends signal after signal; the delivery goes on regardless."""
    connection = peer.accept_and_serve()
    start_job(connection, gated)
    daemon.signal(number)
    gated.open()
    mid = connection.result("out/cmd/1", b"done")
    for _ in range(5):
        daemon.signal(number)
        connection.expect_silence(0.02)
    connection.acknowledge(mid)
    connection.expect(DISCONNECT)
    connection.expect_end()
    assert daemon.wait() == 0
    assert errors(daemon) == []


def test_broker_that_does_not_read_cannot_hold_the_end_up(peer, daemon, scripts):
    """A result larger than all socket buffers is on its way, and the broker reads none of it."""
    scripts.add("large", "return string.rep('x', 64 * 1024 * 1024)")
    connection = peer.accept_and_serve()
    connection.send(publish("in/cmd/1", request("large"), qos=1, mid=9))
    daemon.wait_for_record("Payload size: 67108864")
    daemon.signal(signal.SIGTERM)
    assert daemon.wait() == 0
    assert errors(daemon) == [
        ("server_comms", "1 messages were not acknowledged by the broker and may be lost")]


def test_broker_that_never_stops_talking_cannot_hold_the_end_up(peer, daemon, gated):
    """Messages keep coming in faster than the daemon can refuse them, and no acknowledgement."""
    connection = peer.accept_and_serve()
    start_job(connection, gated)
    daemon.signal(signal.SIGTERM)
    gated.open()
    connection.result("out/cmd/1", b"done")
    end = wait_until(lambda: connection.flood(publish("in/cmd/2", b"\xc1")), "the daemon to leave")
    assert end and daemon.wait() == 0
