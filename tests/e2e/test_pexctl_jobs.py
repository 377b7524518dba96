"""pexctl attach, withdraw and list: jobs that were sent before."""

import signal

import msgpack
import pytest

from harness import SHORT_TIMEOUT, Connection, failure, request


@pytest.fixture
def echo(scripts):
    scripts.add("echo", "return args")


def send(server, job_id, script, args=None):
    """Sends a job as some other server would, and returns when its result is there."""
    assert server.run(job_id, script, args) is not None


def withdraw_command(broker, job_id):
    return f"pexctl withdraw -h 127.0.0.1 -p {broker.port} {job_id}"


def test_attach_shows_a_result_that_is_there_and_withdraws_the_job(service, remote, server, echo):
    send(server, "7", "echo", "hi")
    assert remote("attach", "7") == (0, b"hi", "")
    assert server.result().payload == b""
    assert server.retained("out/cmd/7") is None
    service.wait_for_record("server has deregistered 7 job")


def test_attach_withdraws_a_retained_request_too(service, remote, server, echo):
    server.publish("7", request("echo", "hi"), retain=True)
    assert server.result().payload == b"hi"
    assert remote("attach", "7") == (0, b"hi", "")
    assert server.retained("in/cmd/7") is None
    assert server.retained("out/cmd/7") is None


def test_attach_tells_a_failure(service, remote, server, echo):
    send(server, "7", "nosuch")
    reason = 'Cannot run job. Script not found "nosuch.lua"'
    assert remote("attach", "7") == (1, failure(reason), f"pexctl: The job failed: {reason}\n")


def test_attach_waits_for_a_result(service, remote, server, broker, waiting_job):
    server.publish("7", request("wait", "later"))
    waiting_job.wait_until_running()
    run = remote.start("attach", "--as", "text", "7")
    broker.wait_for("Sending SUBACK to pexctl-", count=2)
    waiting_job.release()
    assert run.end() == (0, b"later\n", "")
    assert [m.payload for m in server.results(2)] == [b"later", b""]


def test_attach_waits_no_longer_than_it_may(service, remote, broker):
    assert remote("attach", "-W", SHORT_TIMEOUT, "7") == (
        4, b"",
        "pexctl: No answer in time. Job 7 is left as it is. Wait for its result: pexctl attach "
        f"-h 127.0.0.1 -p {broker.port} 7\n")
    assert "server has deregistered 7 job" not in [r.message for r in service.records()]


def test_attach_keeps_the_job_if_asked_to(service, remote, server, echo):
    send(server, "7", "echo", "hi")
    for _ in range(2):
        assert remote("attach", "--keep", "7") == (0, b"hi", "")
    server.expect_no_more()
    assert server.retained("out/cmd/7").payload == b"hi"


def test_attach_takes_no_other_job(service, remote, server, echo):
    for job_id in ["70", "x", "77"]:
        send(server, job_id, "echo", job_id)
    send(server, "7", "echo", "mine")
    assert remote("attach", "7") == (0, b"mine", "")
    assert [server.retained("out/cmd/" + job_id).payload for job_id in ["70", "x", "77"]] == [
        b"70", b"x", b"77"]


def test_several_may_wait_at_the_same_time(broker, remote, server):
    runs = {}
    for count, job_id in enumerate(["a", "b", "c"], 1):
        runs[job_id] = remote.start("attach", "--keep", job_id)
        broker.wait_for("Sending SUBACK to pexctl-", count=2 * count)
    for job_id in runs:
        server.publish_to("out/cmd/" + job_id, f"result {job_id}".encode(), retain=True)
    for job_id, run in runs.items():
        assert run.end() == (0, f"result {job_id}".encode(), "")


def test_verdict_stands_when_a_withdrawal_is_not_confirmed(broker, remote, server):
    server.publish_to("out/cmd/7", failure("no disk"), retain=True)
    run = remote.start("attach", "7")
    broker.wait_for("Sending PUBACK to pexctl-")
    run.signal(signal.SIGINT)
    assert run.end() == (
        1, failure("no disk"),
        "pexctl: The job failed: no disk\n"
        "pexctl: Interrupted. The service has not confirmed the withdrawal of job 7. Repeat it: "
        f"{withdraw_command(broker, 7)}\n")
    assert server.retained("out/cmd/7").payload == failure("no disk")


def test_withdraw_removes_request_and_result(service, remote, server, echo):
    server.publish("7", request("echo", "hi"), retain=True)
    assert server.result().payload == b"hi"
    assert remote("withdraw", "7") == (0, b"", "")
    assert server.result().payload == b""
    assert server.retained("in/cmd/7") is None
    assert server.retained("out/cmd/7") is None
    service.wait_for_record("server has deregistered 7 job")


def test_withdraw_of_a_job_that_nobody_knows_is_confirmed(service, remote, server):
    assert remote("withdraw", "7") == (0, b"", "")
    assert (server.result().topic, server.retained("out/cmd/7")) == ("out/cmd/7", None)


def test_withdraw_waits_behind_a_running_job(service, remote, server, broker, waiting_job):
    server.publish("7", request("wait", "result"))
    waiting_job.wait_until_running()
    run = remote.start("withdraw", "7")
    broker.wait_for("Sending PUBACK to pexctl-")
    waiting_job.release()
    # The result that comes first is no confirmation.
    assert run.end() == (0, b"", "")
    assert [m.payload for m in server.results(2)] == [b"result", b""]
    assert server.retained("out/cmd/7") is None


def test_withdraw_without_a_service_is_not_confirmed(broker, remote, server):
    server.publish("7", request("echo"), retain=True)
    server.publish_to("out/cmd/7", b"old", retain=True)
    run = remote.start("withdraw", "-W", SHORT_TIMEOUT, "7")
    broker.wait_for("Sending PUBACK to pexctl-")
    server.publish_to("out/cmd/7", b"late", retain=True)  # a result confirms nothing
    assert run.end() == (
        4, b"",
        "pexctl: No answer in time. The service has not confirmed the withdrawal of job 7. Repeat "
        f"it: {withdraw_command(broker, 7)}\n")
    assert server.retained("in/cmd/7") is None
    assert server.retained("out/cmd/7").payload == b"late"


def test_list_is_empty(broker, remote):
    assert remote("list") == (
        0, b"", "pexctl: The broker holds no results and no retained requests.\n")


def test_list_shows_results_and_retained_requests_in_the_order_of_their_ids(broker, remote, server):
    server.publish_to("out/cmd/text", b"one\ntwo\n", retain=True)
    server.publish_to("out/cmd/own", msgpack.packb({"status": False, "reason": "no disk",
                                                    "script": "x"}), retain=True)
    server.publish_to("out/cmd/failed", failure("Lua is down"), retain=True)
    server.publish_to("out/cmd/map", msgpack.packb({"status": True, "sizes": [1, 2.5]}),
                      retain=True)
    server.publish_to("out/cmd/bytes", b"\x00\xff\xfe", retain=True)
    server.publish_to("out/cmd/a longer id", b"\x1b[31mred", retain=True)
    server.publish("failed", request("greet", {"name": "dock 7"}), retain=True)
    server.publish("waits", request("greet"), retain=True)
    server.publish("gone", request("greet"))
    server.publish_to("out/cmd/a/b", b"no result", retain=True)
    server.publish_to("other/cmd/a", b"no result", retain=True)
    status, table, stderr = remote("list")
    assert (status, stderr) == (0, "")
    assert table.decode().splitlines() == [
        "ID           STATE          BYTES  ANSWER, REASON OR REQUEST",
        "a longer id  succeeded          8  \\x1b[31mred",
        "bytes        succeeded          3  00fffe",
        "failed       failed            28  Lua is down",
        'failed       requested         36  {"lua_script": "greet", "args": {"name": "dock 7"}}',
        'map          succeeded         26  {"status": true, "sizes": [1, 2.5]}',
        "own          failed            33  no disk",
        "text         succeeded          8  one",
        'waits        requested         24  {"lua_script": "greet", "args": null}',
    ]


def test_list_leaves_everything_as_it_is(service, remote, server, broker, echo):
    send(server, "7", "echo", "hi")
    assert remote("list").stdout.count(b"\n") == 2
    assert server.retained("out/cmd/7").payload == b"hi"
    assert broker.lines("Received PUBLISH from pexctl-") == []


# The second is mosquitto's own limit of messages that wait for one client.
@pytest.mark.parametrize("broker_config", ["", "max_queued_messages 1000"],
                         ids=["unlimited", "limited"])
def test_list_shows_thousands(broker, remote):
    ids = [f"job-{i:04}" for i in range(3000)]
    with Connection(broker) as publisher:
        for job_id in ids[:-1]:
            publisher.publish("out/cmd/" + job_id, b"x" * 100, 0, True)
        publisher.publish("out/cmd/" + ids[-1], b"x" * 100, 1, True)
    status, table, stderr = remote("list")
    assert (status, stderr) == (0, "")
    assert table.decode().splitlines()[1:] == [
        f"{job_id}  succeeded        100  " + "x" * 100 for job_id in ids]


def test_result_that_cannot_be_listed_is_told(broker, remote, server):
    server.publish_to("out/cmd/7", b"hi", retain=True)
    with open("/dev/full", "wb") as full:
        status, _, stderr = remote("list", stdout=full)
    assert (status, stderr) == (
        2, "pexctl: Cannot write the answer: No space left on device.\n")
