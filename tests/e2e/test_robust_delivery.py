"""Results survive a connection that is lost.

What the broker has not acknowledged to the end is a new message on the next connection. The broker
forgets what it had taken but not passed on when a clean session ends, so this is no second one,
unless nothing but the last acknowledgement was lost.
"""

import signal

import pytest

from harness import Server, Service, failure, request
from scripted_broker import puback, pubcomp, publish, pubrec, pubrel
from scripted_proxy import Proxy

pytest_plugins = ["scripted_fixtures"]


@pytest.fixture
def proxy(broker):
    with Proxy(broker) as forwarder:
        yield forwarder


@pytest.fixture
def service_behind_proxy(broker, proxy, new_service):
    return new_service({"server_comms.port": proxy.port}).start().wait_until_subscribed()


def ask_for_malformed_job(connection):
    """A request whose result is known beforehand, and comes at once."""
    connection.send(publish("in/cmd/1", b"\xc1", qos=1, mid=9))
    connection.expect(puback(9))


def expect_nothing_unfinished(peer):
    """On a further connection the daemon subscribes and resends nothing: the next it sends is the
    result of a new job."""
    connection = peer.accept_and_serve()
    connection.send(publish("in/cmd/2", b"\xc1", qos=1, mid=10))
    connection.expect(puback(10))
    connection.acknowledge(connection.result("out/cmd/2", failure("parse error")))


@pytest.mark.parametrize("cut", ["finish", "reset"])
def test_cut_while_the_job_runs(peer, daemon, gated, cut):
    """The connection ends while a job runs. The result follows on the next one, and only there."""
    connection = peer.accept_and_serve()
    connection.send(publish("in/cmd/1", gated.request, qos=1, mid=9))
    connection.expect(puback(9))
    gated.wait_until_running()
    if cut == "finish":
        connection.half_close()
    else:
        connection.reset()
    gated.open()
    connection = peer.accept_and_serve()
    connection.acknowledge(connection.result("out/cmd/1", b"done"))
    connection.finish()
    expect_nothing_unfinished(peer)


@pytest.mark.parametrize("cut", ["finish", "reset"])
def test_cut_before_the_pubrec(peer, daemon, cut):
    """The broker has the result and ends the connection. It gets the same result again."""
    connection = peer.accept_and_serve()
    ask_for_malformed_job(connection)
    connection.result("out/cmd/1", failure("parse error"))
    getattr(connection, cut)()
    connection = peer.accept_and_serve()
    connection.acknowledge(connection.result("out/cmd/1", failure("parse error")))
    connection.finish()
    expect_nothing_unfinished(peer)


@pytest.mark.parametrize("cut", ["finish", "reset"])
def test_cut_after_the_pubrec(peer, daemon, cut):
    """The broker has confirmed the result, gets the PUBREL or not, and ends the connection. It gets
    the result again: the PUBREL alone would mean nothing to it."""
    connection = peer.accept_and_serve()
    ask_for_malformed_job(connection)
    mid = connection.result("out/cmd/1", failure("parse error"))
    connection.send(pubrec(mid))
    connection.expect(pubrel(mid))
    getattr(connection, cut)()
    connection = peer.accept_and_serve()
    connection.acknowledge(connection.result("out/cmd/1", failure("parse error")))
    connection.finish()
    expect_nothing_unfinished(peer)


def test_many_cuts_in_a_row(peer, daemon):
    """Two connections end before the PUBREC and two after it; the fifth one lives."""
    connection = peer.accept_and_serve()
    ask_for_malformed_job(connection)
    mid = connection.result("out/cmd/1", failure("parse error"))
    for _ in range(2):
        connection.reset()
        connection = peer.accept_and_serve()
        mid = connection.result("out/cmd/1", failure("parse error"))
    for _ in range(2):
        connection.send(pubrec(mid))
        connection.expect(pubrel(mid))
        connection.reset()
        connection = peer.accept_and_serve()
        mid = connection.result("out/cmd/1", failure("parse error"))
    connection.acknowledge(mid)
    connection.finish()
    expect_nothing_unfinished(peer)


def test_results_made_without_a_connection_arrive_in_order(peer, scripts, tmp_path):
    """The broker ends the connection while it owes the acknowledgements of four results, the last
    of which supersedes the first. They follow on the next connection, in their order."""
    service = Service(tmp_path / "daemon", settings={"script.search_dirs": scripts.directory,
                                                     "server_comms.port": peer.port,
                                                     "server_comms.max_inflight": 20})
    try:
        service.start()
        connection = peer.accept_and_serve()
        for job in range(1, 4):
            connection.send(publish(f"in/cmd/{job}", b"\xc1"))
            connection.result(f"out/cmd/{job}", failure("parse error"))
        connection.send(publish("in/cmd/2", b""))
        connection.result("out/cmd/2", b"")
        connection.send(publish("in/cmd/1", b"\xc1"))
        connection.result("out/cmd/1", failure("parse error"))
        connection.reset()
        connection = peer.accept_and_serve()
        mids = [connection.result("out/cmd/2", failure("parse error")),
                connection.result("out/cmd/3", failure("parse error")),
                connection.result("out/cmd/2", b""),
                connection.result("out/cmd/1", failure("parse error"))]
        for mid in mids:
            connection.acknowledge(mid)
        connection.finish()
        expect_nothing_unfinished(peer)
        service.stop()
    finally:
        service.finish()


def test_broker_stands_still_while_the_job_ends(broker, server, service, gated):
    """The broker's process is stopped for a while. The connection lives, and so does the result."""
    server.publish("1", gated.request)
    gated.wait_until_running()
    broker.signal(signal.SIGSTOP)
    try:
        gated.open()
        service.wait_for_record("Publishing result  on out/cmd/1")
    finally:
        broker.signal(signal.SIGCONT)
    assert server.result().payload == b"done"
    server.expect_no_more()
    assert len(broker.lines("Sending SUBACK to command_service")) == 1


def test_proxy_cut_while_the_job_runs(broker, server, proxy, service_behind_proxy, gated):
    """The same with a real broker behind a proxy: one result, received once and retained."""
    server.publish("1", gated.request)
    gated.wait_until_running()
    mark = broker.mark()
    proxy.cut()
    gated.open()
    service_behind_proxy.wait_until_subscribed(since=mark)
    result = server.result()
    assert (result.topic, result.payload) == ("out/cmd/1", b"done")
    server.expect_no_more()
    assert server.retained("out/cmd/1").payload == b"done"


# What the daemon sends for one job: PUBACK (4 bytes), PUBLISH (20 bytes), then PUBREL.
@pytest.mark.parametrize("sent", [1, 4, 5, 14, 23, 24])
def test_proxy_cuts_within_the_daemons_bytes(broker, server, proxy, service_behind_proxy, scripts,
                                            sent):
    """The connection breaks when so many bytes of the daemon's answer have passed."""
    scripts.add("ping", "return 'pong!'")
    mark = broker.mark()
    proxy.limit(sent)
    server.publish("1", request("ping"))
    service_behind_proxy.wait_until_subscribed(since=mark)
    result = server.result()
    assert (result.topic, result.payload) == ("out/cmd/1", b"pong!")
    server.expect_no_more()


def test_broker_is_killed_and_restarted_while_the_job_runs(broker, server, service, gated):
    """The broker forgets everything. The new one gets the result once, and retains it."""
    server.publish("1", gated.request)
    gated.wait_until_running()
    broker.kill()
    mark = broker.mark()
    broker.start()
    gated.open()
    service.wait_until_subscribed(since=mark)
    broker.wait_for("Sending PUBCOMP to command_service", mark)
    late = Server(broker)
    try:
        retained = late.result()
        assert (retained.topic, retained.payload) == ("out/cmd/1", b"done")
        late.expect_no_more()
    finally:
        late.close()
    received = broker.lines("Received PUBLISH from command_service", mark)
    assert len([line for line in received if "'out/cmd/1'" in line]) == 1
