"""The service and its broker: how it connects and subscribes, and how it comes back."""

import contextlib
import os
import shutil
import tempfile

import pytest

from harness import Broker, Server, request


@pytest.fixture
def echo(scripts):
    scripts.add("echo", "return args")


@pytest.fixture
def new_server(broker):
    """Makes one more server, since those of a broker that restarts lose their subscriptions."""
    with contextlib.ExitStack() as endings:
        def make():
            server = Server(broker)
            endings.callback(server.close)
            return server

        yield make


def messages(service):
    return [record.message for record in service.records()]


def test_connection_and_subscription_are_as_the_protocol_says(service, broker):
    # Protocol version 3.1.1, a clean session, and no keepalive: a job may take any time.
    connected = broker.lines(" as command_service ")
    assert [line.split(" as ")[1] for line in connected] == ["command_service (p2, c1, k0)."]
    log = broker.log().splitlines()
    at = log.index("Received SUBSCRIBE from command_service")
    assert log[at + 1:at + 4] == ["\tin/cmd/+ (QoS 1)", "command_service 1 in/cmd/+",
                                  "Sending SUBACK to command_service"]
    assert len(broker.lines("Received SUBSCRIBE from command_service")) == 1


def test_requests_of_qos_2_are_delivered_at_the_qos_of_the_subscription(service, server, broker,
                                                                        echo):
    server.publish("7", request("echo", "hi"), qos=2)
    assert server.result().payload == b"hi"
    assert "(d0, q1, r0," in broker.lines("Sending PUBLISH to command_service")[0]


def test_host_can_be_a_name(new_service, server, echo):
    service = new_service({"server_comms.host": "localhost"}).start_up()
    assert server.run("7", "echo", "hi") == b"hi"
    assert f"Connected to broker localhost:{service.broker.port}" in messages(service)


def test_unix_socket_is_a_path_with_port_0(tmp_path, new_service, scripts, echo):
    # Not below tmp_path, since the path of a socket has room for 107 bytes only.
    directory = tempfile.mkdtemp()
    path = os.path.join(directory, "broker")
    (tmp_path / "local").mkdir()
    local = Broker(tmp_path / "local", f"listener 0 {path}")
    try:
        local.start()
        service = new_service({"server_comms.host": path, "server_comms.port": 0}, broker=local)
        service.start_up()
        server = Server(local)
        assert server.run("7", "echo", "hi") == b"hi"
        assert service.tcp_table() == []
        assert f"Connected to broker {path}" in messages(service)
        service.stop()
        server.close()
    finally:
        local.kill()
        shutil.rmtree(directory)


def test_broker_may_come_up_after_the_service(broker, new_service, new_server, echo):
    broker.stop()
    service = new_service().start()
    service.wait_for_record("Couldn't reach broker")
    broker.start()
    service.wait_until_subscribed()
    assert new_server().run("7", "echo", "hi") == b"hi"
    told = [record for record in service.records()[3:] if record.category == "server_comms"]
    assert told == [
        ("ERROR", "server_comms",
         f"Couldn't reach broker 127.0.0.1:{broker.port}. Connection refused"),
        ("INFO", "server_comms", f"Connected to broker 127.0.0.1:{broker.port}")]


@pytest.mark.parametrize("end", [Broker.stop, Broker.kill], ids=["stopped", "killed"])
def test_service_comes_back_to_a_restarted_broker(service, broker, new_server, echo, end):
    server = new_server()
    assert server.run("7", "echo", "before") == b"before"
    server.close()
    mark = broker.mark()
    end(broker)
    broker.start()
    service.wait_until_subscribed(mark)
    assert broker.lines("command_service 1 in/cmd/+", mark)
    server = new_server()
    assert server.retained("out/cmd/7") is None  # this broker keeps nothing on disk
    assert server.run("8", "echo", "after") == b"after"
    assert server.retained("out/cmd/8").payload == b"after"
    assert service.records("ERROR")[0] == (
        "ERROR", "server_comms",
        f"Lost the connection to broker 127.0.0.1:{broker.port}. The connection was lost.")


def test_service_comes_back_as_often_as_the_broker_does(service, broker, new_server, echo):
    for round_number in range(5):
        mark = broker.mark()
        broker.kill()
        broker.start()
        service.wait_until_subscribed(mark)
        server = new_server()
        assert server.run("7", "echo", str(round_number)) == b"%d" % round_number
        server.close()


@pytest.mark.parametrize("broker_config", ["persistence true"], ids=["persistent"])
def test_persistent_broker_keeps_results_and_has_retained_requests_run_again(
        service, broker, new_server, echo):
    server = new_server()
    server.publish("6", request("echo", "retained"), retain=True)
    server.publish("7", request("echo", "plain"))
    assert [message.payload for message in server.results(2)] == [b"retained", b"plain"]
    server.close()
    mark = broker.mark()
    broker.stop()
    broker.start()
    service.wait_until_subscribed(mark)
    broker.wait_for("Received PUBREL from command_service", mark)
    server = new_server()
    assert sorted((message.topic, message.payload, message.retain)
                  for message in server.results(2)) == [
        ("out/cmd/6", b"retained", True), ("out/cmd/7", b"plain", True)]
    server.expect_no_more()
    assert [sum(f"job_id: {job_id}" in message for message in messages(service))
            for job_id in [6, 7]] == [2, 1]


def test_retained_request_runs_again_at_every_start_until_it_is_withdrawn(new_service, server,
                                                                          echo):
    first = new_service().start_up()
    server.publish("7", request("echo", "hi"), retain=True)
    assert server.result().payload == b"hi"
    first.stop()
    second = new_service().start_up()
    assert server.result().payload == b"hi"
    second.stop()
    server.publish("7", b"", retain=True)
    third = new_service().start_up()
    server.expect_no_more()
    assert "server has deregistered 7 job" not in messages(third)
    # The withdrawal was not retained, so this service never heard of it: the result stays.
    assert server.retained("out/cmd/7").payload == b"hi"
    server.publish("7", b"")
    assert server.result().payload == b""
    assert server.retained("out/cmd/7") is None


def test_result_of_a_job_that_outlives_its_connection_is_delivered_once(
        service, broker, new_server, waiting_job):
    server = new_server()
    server.publish("7", request("wait"))
    server.close()
    waiting_job.wait_until_running()
    mark = broker.mark()
    broker.stop()
    broker.start()
    server = new_server()
    waiting_job.release()
    result = server.result()
    assert (result.topic, result.payload) == ("out/cmd/7", b"released")
    service.wait_until_subscribed(mark)
    server.expect_no_more()
    assert server.retained("out/cmd/7").payload == b"released"


def test_requests_behind_a_long_job_are_served_in_order(service, server, waiting_job, echo):
    server.publish("1", request("wait"))
    waiting_job.wait_until_running()
    for job_id in ["2", "3", "4"]:
        server.publish(job_id, request("echo", job_id))
    server.publish("2", b"")
    waiting_job.release()
    assert [(message.topic, message.payload) for message in server.results(5)] == [
        ("out/cmd/1", b"released"), ("out/cmd/2", b"2"), ("out/cmd/3", b"3"), ("out/cmd/4", b"4"),
        ("out/cmd/2", b"")]
    assert server.retained("out/cmd/2") is None


@pytest.mark.parametrize("broker_config", ["allow_anonymous false"], ids=["closed"])
def test_service_comes_in_when_the_broker_lets_it(broker, new_service, new_server, echo):
    service = new_service().start()
    refused = service.wait_for_record("refused the connection")
    assert refused == ("ERROR", "server_comms",
                       f"Broker 127.0.0.1:{broker.port} refused the connection. "
                       "Connection Refused: not authorised.")
    broker.extra_config = ""
    broker.stop()
    broker.start()
    service.wait_until_subscribed()
    assert new_server().run("7", "echo", "hi") == b"hi"
