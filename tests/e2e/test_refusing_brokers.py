"""A broker that ends the connection at a result costs that result, and not the service.

The daemon tries five times, with pauses of 2, 4 and 8 s, and then drops the result with a record.
"""

import pytest

from harness import Broker, Server, request

LARGE = 2000000


@pytest.fixture
def refused_by(tmp_path, new_service, scripts):
    """refused_by(LINE) starts mosquitto with this line in its configuration, and the daemon;
    returns the Service and a Server."""
    started = []

    def start(line):
        broker = Broker(tmp_path, line)
        started.append(broker.kill)
        broker.start()
        scripts.add("large", f"return ('x'):rep({LARGE})")
        scripts.add("ping", "return 'pong'")
        service = new_service(broker=broker).start_up()
        server = Server(broker)
        started.append(server.close)
        return service, server

    yield start
    for end in reversed(started):
        end()


def errors(service, text):
    return [record.message for record in service.records("ERROR") if text in record.message]


def dropped(service, topic, size):
    return (f"Broker 127.0.0.1:{service.broker.port} ended 5 connections in a row at the message "
            f"on {topic} ({size} bytes). The message is dropped")


def expect_to_be_served(service, mark, server):
    """The next connection stays, and a job is served on it."""
    service.wait_until_subscribed(since=mark)
    server.publish("last", request("ping"))
    while server.result().topic != "out/cmd/last":
        pass
    assert len(service.broker.lines("Sending SUBACK to command_service", mark)) == 1


def test_answer_beyond_the_brokers_packet_size_is_dropped_and_the_others_arrive(refused_by):
    service, server = refused_by("max_packet_size 1000000")
    assert server.run("0", "ping") == b"pong"
    server.publish("1", request("large"))
    server.publish("2", request("ping"), retain=True)
    service.wait_for_record("The message is dropped")
    mark = service.broker.mark()
    assert server.result().topic == "out/cmd/2"
    assert errors(service, "dropped") == [dropped(service, "out/cmd/1", LARGE)]
    assert errors(service, "ends the connection at") == []
    expect_to_be_served(service, mark, server)


def test_retained_request_with_such_an_answer_does_not_run_for_ever(refused_by):
    """It runs on each connection. Once its answer was dropped, the next one is refused before it
    ends the connection."""
    service, server = refused_by("max_packet_size 1000000")
    server.publish("1", request("large"), retain=True)
    service.wait_for_record("The message is dropped")
    mark = service.broker.mark()  # the next attempt is due a second later
    service.wait_for_record("Failed to end transaction. This feature is not supported.")
    runs = len([record for record in service.records() if "is to run lua script" in record.message])
    assert runs <= 6
    expect_to_be_served(service, mark, server)
    assert errors(service, "dropped") == [dropped(service, "out/cmd/1", LARGE)]
    server.publish("1", b"", retain=True)
    service.wait_for_record("server has deregistered 1 job")


@pytest.mark.parametrize("line", ["max_qos 1", "retain_available false"])
def test_broker_that_takes_no_result_at_all_is_named(refused_by, line):
    service, server = refused_by(line)
    for job in "12":
        mark = service.broker.mark()
        server.publish(job, request("ping"))
        service.wait_for_record(dropped(service, f"out/cmd/{job}", 4))
        service.broker.wait_for("Sending SUBACK to command_service", mark, count=5)
    broker = f"127.0.0.1:{service.broker.port}"
    assert errors(service, "ends the connection at") == [
        f"Broker {broker} ends the connection at a retained message of QoS 2"]
