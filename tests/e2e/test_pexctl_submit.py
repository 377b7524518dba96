"""pexctl submit: one job from the request to its withdrawal, and what may come in between."""

import array
import contextlib
import fcntl
import os
import pathlib
import re
import shlex
import signal
import termios

import pytest

from harness import SHORT_TIMEOUT, Server, failure, request, wait_until

NO_SUCH_SCRIPT = 'Cannot run job. Script not found "nosuch.lua"'


@pytest.fixture
def echo(scripts):
    scripts.add("echo", "return args")


def published_by_pexctl(broker):
    """What pexctl has published: (qos, retain, topic, size) of each message."""
    pattern = re.compile(r"from pexctl-\w+ \(d0, q(\d), r(\d), m\d+, '(.*)', \.\.\. \((\d+) bytes")
    return [(int(qos), int(retain), topic, int(size)) for qos, retain, topic, size in
            pattern.findall(broker.log())]


def signals_pending(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^ShdPnd:\s*(\w+)$", status, re.MULTILINE).group(1), 16) != 0


def wait_until_sent(run, broker):
    """Waits until pexctl has read the acknowledgement of its request, which it does not send again
    from then on."""
    # pexctl has subscribed to its own request. The broker has written the acknowledgement before it
    # reads what pexctl says to that.
    broker.wait_for("Received PUBACK from pexctl-")
    wait_until(lambda: nothing_to_read(run, broker.port), "pexctl to read")


def nothing_to_read(run, port):
    remote_port = f":{port:04X}"
    queues = [row[4].partition(":")[2] for row in run.tcp_table() if row[2].endswith(remote_port)]
    return [int(each, 16) for each in queues] == [0]


def attach_command(stderr):
    """The arguments of the command that a line on standard error ends with."""
    return shlex.split(re.search(r": pexctl (attach .*)\n$", stderr).group(1))


def test_job_is_answered_and_withdrawn(service, remote, server, broker, echo):
    assert remote("submit", "--id", "7", "echo", '"hi"') == (0, b"hi", "")
    assert [(m.topic, m.payload) for m in server.results(2)] == [
        ("out/cmd/7", b"hi"), ("out/cmd/7", b"")]
    assert server.retained("out/cmd/7") is None
    assert server.retained("in/cmd/7") is None
    service.wait_for_record("server has deregistered 7 job")
    assert published_by_pexctl(broker) == [
        (1, 0, "in/cmd/7", len(request("echo", "hi"))), (1, 1, "in/cmd/7", 0)]
    assert broker.lines("\tout/cmd/7 (QoS 1)") and broker.lines("\tin/cmd/7 (QoS 1)")


def test_job_ids_are_random_unless_given(service, remote, server, echo):
    ids = set()
    for _ in range(3):
        remote("submit", "echo", '"hi"')
        result, end = server.results(2)
        assert result.topic == end.topic
        ids.add(re.fullmatch("out/cmd/([0-9a-f]{12})", result.topic).group(1))
    assert len(ids) == 3


def test_answer_of_any_bytes_goes_into_a_pipe_unchanged(service, remote, scripts):
    scripts.add("bytes", "local t = {} for i = 0, 255 do t[#t + 1] = string.char(i) end "
                         "return table.concat(t)")
    assert remote("submit", "bytes") == (0, bytes(range(256)), "")


@pytest.mark.parametrize("form, shown", [
    ("auto", b"\x82\xa6status\xc3\xa5sizes\x92\x01\xcb\x3f\xf8\x00\x00\x00\x00\x00\x00"),
    ("raw", b"\x82\xa6status\xc3\xa5sizes\x92\x01\xcb\x3f\xf8\x00\x00\x00\x00\x00\x00"),
    ("text", b"\\x82\\xa6status\xc3\xa5sizes\\x92\\x01\\xcb?\\xf8\\x00\\x00\\x00\\x00\\x00\\x00\n"),
    ("hex", b"00000000  82 a6 73 74 61 74 75 73  c3 a5 73 69 7a 65 73 92  |..status..sizes.|\n"
            b"00000010  01 cb 3f f8 00 00 00 00  00 00                    |..?.......|\n"),
], ids=["auto", "raw", "text", "hex"])
def test_answer_takes_the_form_that_was_asked_for(service, remote, scripts, form, shown):
    scripts.add("packed", "return '\\130\\166status\\195\\165sizes\\146\\001\\203\\063\\248' .. "
                          "('\\0'):rep(6)")
    assert remote("submit", "--as", form, "packed") == (0, shown, "")
    assert remote("submit", "packed", "--as", form) == (0, shown, "")


def test_failure_of_the_service(service, remote, server):
    assert remote("submit", "--id", "7", "nosuch") == (
        1, failure(NO_SUCH_SCRIPT), f"pexctl: The job failed: {NO_SUCH_SCRIPT}\n")
    assert server.results(2)[1].payload == b""
    assert server.retained("out/cmd/7") is None


def test_failure_that_a_script_answers(service, remote, scripts):
    scripts.add("own", "return '\\131\\166status\\194\\166script\\163own\\166reason\\167no disk'")
    assert remote("submit", "own") == (
        1, b"\x83\xa6status\xc2\xa6script\xa3own\xa6reason\xa7no disk",
        "pexctl: The job failed: no disk\n")


def test_empty_answer_is_noted(service, remote, scripts):
    scripts.add("nothing", "return nil")
    assert remote("submit", "nothing") == (
        0, b"", "pexctl: The answer is empty. A server cannot tell that from a withdrawn job.\n")


@pytest.mark.parametrize("script", ["echo.lua", "./echo", "dock/echo", "echo.lua.lua"])
def test_name_that_looks_like_a_path_is_noted(service, remote, echo, script):
    assert remote("submit", script) == (
        1, failure(f'Cannot run job. Script not found "{script}.lua"'),
        f"pexctl: The service looks for a script named {script}.lua in its directories: a name has "
        "neither a path nor .lua.\n"
        f'pexctl: The job failed: Cannot run job. Script not found "{script}.lua"\n')


def test_answer_of_100_megabytes(service, remote, scripts):
    scripts.add("large", "return ('0123456789'):rep(1e7)")
    status, answer, stderr = remote("submit", "large")
    assert (status, stderr) == (0, "")
    assert answer == b"0123456789" * 10**7


def test_kept_job_stays_at_the_broker(service, remote, server, echo):
    assert remote("submit", "--keep", "--retain", "--id", "7", "echo", '"hi"') == (0, b"hi", "")
    assert server.retained("out/cmd/7").payload == b"hi"
    assert server.retained("in/cmd/7").payload == request("echo", "hi")
    assert server.result().payload == b"hi"
    server.expect_no_more()


@pytest.mark.parametrize("options, qos, retain", [
    ([], 1, 0), (["-q", "1"], 1, 0), (["--qos", "2"], 2, 0), (["-r"], 1, 1),
    (["--retain", "-q", "2"], 2, 1),
])
def test_request_has_the_quality_of_service_and_the_retain_flag_that_were_asked_for(
        service, remote, server, broker, echo, options, qos, retain):
    assert remote("submit", *options, "--id", "7", "echo", '"hi"') == (0, b"hi", "")
    size = len(request("echo", "hi"))
    # The withdrawal does not depend on them.
    assert published_by_pexctl(broker) == [
        (qos, retain, "in/cmd/7", size), (1, 1, "in/cmd/7", 0)]
    assert server.retained("in/cmd/7") is None


def test_detached_job_is_named_and_attach_gets_its_answer(service, remote, server, waiting_job):
    status, output, stderr = remote("submit", "--detach", "wait", '"later"')
    assert (status, stderr) == (0, "")
    assert re.fullmatch("[0-9a-f]{12}\n", output.decode())
    job_id = output.decode().strip()
    waiting_job.wait_until_running()
    assert server.retained("out/cmd/" + job_id) is None
    waiting_job.release()
    assert remote("attach", job_id) == (0, b"later", "")
    assert server.retained("out/cmd/" + job_id) is None


@pytest.mark.parametrize("qos", ["1", "2"])
def test_detached_request_has_reached_the_broker(remote, server, qos):
    assert remote("submit", "--detach", "-r", "-q", qos, "--id", "7", "echo") == (0, b"7\n", "")
    assert server.retained("in/cmd/7").payload == request("echo")


def test_answer_that_does_not_come_in_time_is_found_later(service, remote, pexctl, server,
                                                              waiting_job):
    status, answer, stderr = remote("submit", "-W", SHORT_TIMEOUT, "wait", '"late"')
    assert (status, answer) == (4, b"")
    assert re.fullmatch(
        "pexctl: No answer in time. Job ([0-9a-f]{12}) is left as it is. Wait for its result: "
        rf"pexctl attach -h 127.0.0.1 -p \d+ \1\n", stderr), stderr
    waiting_job.release()
    assert server.result().payload == b"late"
    assert pexctl(*attach_command(stderr)) == (0, b"late", "")
    assert server.result().payload == b""


@pytest.mark.parametrize("job_id", ["it's a job; $HOME", "-7", "--", "\u00fc"])
def test_commands_for_users_can_be_copied_into_a_shell(service, remote, pexctl, server, waiting_job,
                                                       job_id):
    run = remote.start("submit", "--id=" + job_id, "wait")
    waiting_job.wait_until_running()
    wait_until_sent(run, service.broker)
    run.signal(signal.SIGINT)
    status, _, stderr = run.end()
    assert status == 130
    waiting_job.release()
    assert server.result().payload == b"released"
    assert pexctl(*attach_command(stderr)) == (0, b"released", "")
    assert server.result().payload == b""


def test_interrupted_wait_leaves_the_job(service, remote, server, waiting_job):
    run = remote.start("submit", "--id", "7", "wait", '"later"')
    waiting_job.wait_until_running()
    wait_until_sent(run, service.broker)
    run.signal(signal.SIGINT)
    status, answer, stderr = run.end()
    assert (status, answer) == (130, b"")
    assert stderr == (
        "pexctl: Interrupted. Job 7 is left as it is. Wait for its result: "
        f"pexctl attach -h 127.0.0.1 -p {service.broker.port} 7\n")
    waiting_job.release()
    assert server.result().payload == b"later"
    assert remote("attach", "7") == (0, b"later", "")


@pytest.mark.parametrize("kept", [True, False], ids=["keep", "withdraw"])
def test_answer_that_cannot_be_written_is_not_withdrawn(service, remote, server, echo, kept):
    with open("/dev/full", "wb") as full:
        outcome = remote("submit", "--id", "7", *["--keep"] * kept, "echo", '"hi"', stdout=full)
    assert outcome == (
        2, None,
        "pexctl: Cannot write the answer: No space left on device. Job 7 is left as it is. Wait "
        f"for its result: pexctl attach -h 127.0.0.1 -p {service.broker.port} 7\n")
    assert server.retained("out/cmd/7").payload == b"hi"


def test_interrupt_does_not_cut_an_answer(service, remote, scripts):
    scripts.add("large", "return ('0123456789'):rep(1e6)")
    run = remote.start("submit", "--keep", "large")
    waiting_bytes = array.array("i", [0])

    def pipe_is_full():
        fcntl.ioctl(run.process.stdout, termios.FIONREAD, waiting_bytes)
        return waiting_bytes[0] >= 65536

    wait_until(pipe_is_full, "an answer that waits for its reader")
    run.signal(signal.SIGINT)
    wait_until(lambda: not signals_pending(run.pid), "the signal's delivery")
    status, answer, stderr = run.end()
    assert (status, stderr) == (0, "")
    assert answer == b"0123456789" * 10**6


def test_answer_that_nobody_reads_is_not_withdrawn(service, remote, server, echo):
    reader, writer = os.pipe()
    os.close(reader)
    status, _, stderr = remote("submit", "--id", "7", "echo", '"hi"', stdout=writer)
    os.close(writer)
    assert status == 2
    assert stderr.startswith("pexctl: Cannot write the answer: Broken pipe. Job 7 is left"), stderr
    assert server.retained("out/cmd/7").payload == b"hi"


def test_request_that_is_too_large_for_a_broker_is_not_sent(remote, broker):
    args = remote.directory / "args"
    args.write_bytes(b"\xc6\x10\x00\x00\x00" + b"x" * (1 << 28))
    assert remote("submit", "--id", "7", "--msgpack", args, "echo") == (
        2, b"", "pexctl: Cannot publish on in/cmd/7. Payload too large.\n")
    assert published_by_pexctl(broker) == []


class Restart:
    """A broker that goes away and comes back while pexctl waits for the result of job 7."""

    def __init__(self, remote, broker, waiting_job):
        self._broker = broker
        self._name = f"127.0.0.1:{broker.port}"
        self.run = remote.start("submit", "--id", "7", "wait", '"late"')
        waiting_job.wait_until_running()
        wait_until_sent(self.run, broker)
        broker.stop()
        self.run.wait_for_stderr("Couldn't reach broker")

    def come_back(self):
        """Returns when pexctl has subscribed again."""
        mark = self._broker.mark()
        self._broker.start()
        self._broker.wait_for("Sending SUBACK to pexctl-", mark, count=2)

    def end_well(self):
        assert self.run.end() == (
            0, b"late",
            f"pexctl: Lost the connection to broker {self._name}. The connection was lost.\n"
            f"pexctl: Couldn't reach broker {self._name}. Connection refused\n"
            f"pexctl: Connected to broker {self._name} again\n")


def test_wait_can_be_interrupted_while_the_broker_is_away(service, remote, broker, waiting_job):
    restart = Restart(remote, broker, waiting_job)
    restart.run.signal(signal.SIGINT)
    status, answer, stderr = restart.run.end()
    assert (status, answer) == (130, b"")
    assert stderr.splitlines()[2:] == [
        "pexctl: Interrupted. Job 7 is left as it is. Wait for its result: pexctl attach "
        f"-h 127.0.0.1 -p {broker.port} 7"]


def test_wait_goes_on_when_the_broker_comes_back(service, remote, broker, waiting_job):
    restart = Restart(remote, broker, waiting_job)
    restart.come_back()
    waiting_job.release()
    restart.end_well()


@pytest.mark.parametrize("broker_config", ["persistence true"], ids=["persistent"])
def test_result_that_was_published_while_pexctl_was_away_is_found(service, remote, broker,
                                                                  waiting_job):
    restart = Restart(remote, broker, waiting_job)
    restart.run.signal(signal.SIGSTOP)
    broker.start()
    with contextlib.closing(Server(broker)) as server:
        waiting_job.release()
        assert server.result().payload == b"late"
        restart.run.signal(signal.SIGCONT)
        restart.end_well()
        assert server.result().payload == b""


@pytest.mark.parametrize("broker_config", ["persistence true"], ids=["persistent"])
def test_job_is_withdrawn_after_a_connection_that_was_lost_with_the_result_on_it(
        service, remote, broker, waiting_job):
    run = remote.start("submit", "--id", "7", "wait", '"last words"')
    waiting_job.wait_until_running()
    wait_until_sent(run, broker)
    run.signal(signal.SIGSTOP)
    with contextlib.closing(Server(broker)) as server:
        waiting_job.release()
        assert server.result().payload == b"last words"
    mark = broker.mark()
    broker.stop()
    broker.start()
    service.wait_until_subscribed(mark)
    run.signal(signal.SIGCONT)
    status, answer, stderr = run.end()
    assert (status, answer) == (0, b"last words")
    assert "pexctl: Lost the connection to broker" in stderr
    assert stderr.endswith(f"pexctl: Connected to broker 127.0.0.1:{broker.port} again\n"), stderr
    with contextlib.closing(Server(broker)) as server:
        assert server.all_retained("out/cmd/#") == []
