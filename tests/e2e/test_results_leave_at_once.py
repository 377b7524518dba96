"""A result is on its way when its script returns, however many requests wait behind it."""

import signal

import pytest

from harness import Broker, Connection, Server, request
from scripted_broker import DISCONNECT, puback, publish, pubrec, pubrel
from scripted_job import GatedJob

pytest_plugins = ["scripted_fixtures"]


@pytest.fixture
def second(scripts):
    """A second GatedJob. To be named after the daemon's fixture."""
    job = GatedJob(scripts, "second")
    yield job
    job.abandon()


@pytest.fixture
def three_at_once(peer, daemon, gated, second, scripts):
    """A connection on which three requests came in one piece. The first job runs, and the second
    will wait for its gate."""
    scripts.add("ping", "return 'pong'")
    connection = peer.accept_and_serve()
    connection.send(publish("in/cmd/1", gated.request, qos=1, mid=1),
                    publish("in/cmd/2", second.request, qos=1, mid=2),
                    publish("in/cmd/3", request("ping"), qos=1, mid=3))
    connection.expect(puback(1))
    gated.wait_until_running()
    return connection


def test_result_is_written_before_the_next_job_ends(three_at_once, gated, second):
    gated.open()
    mid = three_at_once.result("out/cmd/1", b"done")
    # The rest is taken in and acknowledged, while the result is under way.
    three_at_once.expect(puback(2), puback(3))
    second.wait_until_running()
    three_at_once.send(pubrec(mid))  # too late: the dock is busy
    second.open()
    three_at_once.expect(pubrel(mid))


def test_one_result_is_in_flight_at_a_time(three_at_once, gated, second):
    """Many brokers confirm more and forget it. The second result waits for the first one's end."""
    gated.open()
    mid = three_at_once.result("out/cmd/1", b"done")
    three_at_once.expect(puback(2), puback(3))
    second.wait_until_running()
    second.open()
    three_at_once.acknowledge(mid)
    mid = three_at_once.result("out/cmd/2", b"done")
    three_at_once.acknowledge(mid)
    three_at_once.acknowledge(three_at_once.result("out/cmd/3", b"pong"))


def test_no_job_starts_after_a_signal_and_each_request_is_named(three_at_once, daemon, gated,
                                                                second):
    daemon.signal(signal.SIGTERM)
    gated.open()
    mid = three_at_once.result("out/cmd/1", b"done")
    three_at_once.expect(puback(2), puback(3))
    three_at_once.acknowledge(mid)
    three_at_once.expect(DISCONNECT)
    three_at_once.expect_end()
    assert daemon.wait() == 0
    errors = [record.message for record in daemon.records("ERROR")]
    assert errors == ["Stopping, so the message on in/cmd/2 is not handled",
                      "Stopping, so the message on in/cmd/3 is not handled"]
    assert not [record for record in daemon.records() if "job_id: 2" in record.message]


def test_requests_are_dropped_with_their_connection_and_named(three_at_once, peer, daemon, gated,
                                                              second):
    """A retained one comes again on the next connection; a withdrawn one must not run."""
    gated.open()
    three_at_once.result("out/cmd/1", b"done")
    three_at_once.expect(puback(2), puback(3))
    second.wait_until_running()
    three_at_once.reset()
    second.open()
    connection = peer.accept_and_serve()
    connection.acknowledge(connection.result("out/cmd/1", b"done"))
    connection.acknowledge(connection.result("out/cmd/2", b"done"))
    connection.send(publish("in/cmd/4", request("ping"), qos=1, mid=4))
    connection.expect(puback(4))
    connection.acknowledge(connection.result("out/cmd/4", b"pong"))
    dropped = "Lost the connection, so the message on in/cmd/3 is not handled"
    assert [record.message for record in daemon.records("ERROR")].count(dropped) == 1
    assert not [record for record in daemon.records() if "job_id: 3" in record.message]


@pytest.fixture
def broker_at_its_defaults(tmp_path):
    private = Broker(tmp_path, "set_tcp_nodelay false\nmax_queued_messages 1000")
    try:
        yield private.start()
    finally:
        private.kill()


def test_killed_daemon_takes_no_result_of_an_earlier_job_with_it(broker_at_its_defaults,
                                                                 new_service, scripts):
    """Four jobs of 2 s, sent at once to a broker at its defaults; the daemon is killed in the last
    one. The others' results were acknowledged in the twentieth of a job's time that each had."""
    broker = broker_at_its_defaults
    scripts.add("slow", "os.execute('sleep 2') return args")
    service = new_service(broker=broker).start_up()
    server = Server(broker)
    try:
        for job in "1234":
            server.publish(job, request("slow", job))
        service.wait_for_record("job (4) is to run lua script")
        service.signal(signal.SIGKILL)
        assert service.wait() == -signal.SIGKILL
        assert [(result.topic, result.payload) for result in server.results(3)] == [
            ("out/cmd/1", b"1"), ("out/cmd/2", b"2"), ("out/cmd/3", b"3")]
        retained = {message.topic for message in server.all_retained("out/cmd/+")}
        assert retained == {"out/cmd/1", "out/cmd/2", "out/cmd/3"}
    finally:
        server.close()


@pytest.mark.parametrize("max_inflight_messages", [1, 5, 20])
def test_no_result_is_lost_in_a_brokers_small_window(tmp_path, new_service, scripts,
                                                     max_inflight_messages):
    """mosquitto acknowledges and forgets what exceeds its max_inflight_messages."""
    broker = Broker(tmp_path, f"max_inflight_messages {max_inflight_messages}")
    try:
        broker.start()
        scripts.add("echo", "return args")
        new_service(broker=broker).start_up()
        with Connection(broker, [("out/cmd/+", 1)]) as listener, Connection(broker) as sender:
            for job in range(300):
                sender.publish(f"in/cmd/{job}", request("echo", str(job)), 1, False)
            received = [listener.messages.get(timeout=30).payload for _ in range(300)]
        assert received == [str(job).encode() for job in range(300)]
        server = Server(broker)
        assert len(server.all_retained("out/cmd/+")) == 300
        server.close()
    finally:
        broker.kill()


def test_script_that_writes_to_a_closed_pipe_does_not_end_the_daemon(service, server, scripts):
    scripts.add("closed_pipe", """
        local pipe = io.popen("exec true", "w")
        local ok, reason
        repeat
            ok, reason = pipe:write(("x"):rep(65536))
        until not ok
        return reason
    """)
    assert server.run("1", "closed_pipe") == b"Broken pipe"
