"""pexctl when it is not alone with its job id: others have used it, or use it at the same time."""

import pytest

from harness import request


@pytest.fixture
def waiting(remote, broker):
    """A submit, of a script that nobody runs, that waits for the result of job 7."""
    run = remote.start("submit", "-W", "0", "--id", "7", "wait", '"mine"')
    broker.wait_for("Sending PUBACK to pexctl-")
    return run


def in_use(what, job_id, port):
    return (f"pexctl: The broker already holds a {what} of job {job_id}. Choose another id, or see "
            f"`pexctl attach -h 127.0.0.1 -p {port} {job_id}` and "
            f"`pexctl withdraw -h 127.0.0.1 -p {port} {job_id}`.\n")


# The service publishes its results with QoS 2.
@pytest.mark.parametrize("qos", [0, 1, 2])
def test_job_whose_result_is_still_there_is_not_sent_again(broker, remote, server, qos):
    server.publish_to("out/cmd/7", b"old", qos, retain=True)
    assert remote("submit", "--id", "7", "greet") == (2, b"", in_use("result", 7, broker.port))
    assert remote("submit", "--detach", "--id", "7", "greet") == (
        2, b"", in_use("result", 7, broker.port))
    assert server.retained("out/cmd/7").payload == b"old"
    assert broker.lines("Received PUBLISH from pexctl-") == []


def test_job_whose_request_is_still_there_is_not_sent_again(broker, remote, server):
    server.publish("7", request("greet"), retain=True)
    assert remote("submit", "--id", "7", "greet") == (2, b"", in_use("request", 7, broker.port))
    assert server.retained("in/cmd/7").payload == request("greet")
    assert broker.lines("Received PUBLISH from pexctl-") == []


def test_other_jobs_at_the_broker_do_not_matter(service, remote, server, scripts):
    scripts.add("greet", "return 'Hello'")
    server.publish_to("out/cmd/70", b"of another", retain=True)
    server.publish("77", request("greet"), retain=True)
    assert remote("submit", "--id", "7", "greet") == (0, b"Hello", "")
    assert server.retained("out/cmd/70").payload == b"of another"
    assert server.retained("in/cmd/77").payload == request("greet")


def test_request_of_another_client_is_told(waiting, server):
    server.publish("7", request("wait", "theirs"))
    waiting.wait_for_stderr("too.")
    server.publish_to("out/cmd/7", b"theirs", retain=True)
    server.publish_to("out/cmd/7", b"")
    assert waiting.end() == (
        0, b"theirs",
        "pexctl: Another client has sent a request with the job id 7, too. The answer may be to "
        "that one.\n")


def test_equal_request_is_not_told(waiting, server):
    server.publish("7", request("wait", "mine"))
    server.publish_to("out/cmd/7", b"mine", retain=True)
    server.publish_to("out/cmd/7", b"")
    assert waiting.end() == (0, b"mine", "")


def test_request_of_another_client_behind_the_result_is_not_told(waiting, broker, server):
    server.publish_to("out/cmd/7", b"mine")
    broker.wait_for("Sending PUBACK to pexctl-", count=2)  # for the withdrawal
    server.publish("7", request("wait", "theirs"))
    server.publish_to("out/cmd/7", b"")
    assert waiting.end() == (0, b"mine", "")


def test_withdrawal_by_another_client_ends_the_wait(waiting, server):
    server.publish("7", b"")
    assert waiting.end() == (1, b"", "pexctl: Job 7 was withdrawn by another client.\n")


def test_withdrawal_by_another_client_is_no_empty_answer(service, remote, server, waiting_job):
    server.publish("1", request("wait"))
    waiting_job.wait_until_running()
    attached = remote.start("attach", "7")
    service.broker.wait_for("Sending SUBACK to pexctl-", count=2)
    server.publish("7", b"")
    waiting_job.release()  # the end of transaction of job 7 follows
    assert attached.end() == (1, b"", "pexctl: Job 7 was withdrawn by another client.\n")


def test_result_that_comes_after_the_withdrawal_by_another_client_is_not_waited_for(waiting,
                                                                                    server):
    server.publish("7", b"", retain=True)
    server.publish_to("out/cmd/7", b"", retain=True)
    assert waiting.end() == (1, b"", "pexctl: Job 7 was withdrawn by another client.\n")


@pytest.mark.parametrize("command", ["submit", "attach", "withdraw"])
@pytest.mark.parametrize("job_id", ["a/b", "/", "+", "#", "a+", "a\nb", "\x7f", "a\udcff",
                                    "x" * 65528],
                         ids=["slash", "slash-alone", "plus", "hash", "plus-inside", "line-feed",
                              "delete", "not-utf-8", "too-long"])
def test_job_id_that_is_no_topic_level_is_wrong_usage(remote, broker, command, job_id):
    arguments = ["--id", job_id, "greet"] if command == "submit" else [job_id]
    status, answer, stderr = remote(command, *arguments)
    assert (status, answer) == (2, b"")
    assert f"See `pexctl {command} --help`." in stderr
    assert broker.lines("as pexctl-") == []


def test_longest_job_id(service, remote, server, scripts):
    scripts.add("greet", "return 'Hello'")
    job_id = "x" * 65527
    assert remote("submit", "--id", job_id, "greet") == (0, b"Hello", "")
    assert [m.topic for m in server.results(2)] == ["out/cmd/" + job_id] * 2
