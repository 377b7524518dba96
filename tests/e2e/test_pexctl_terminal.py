"""pexctl on a terminal: the forms of an answer, the progress line, Ctrl-C."""

import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios

import pytest

from harness import DEADLINE, WRAPPER, Scripts, failure, pexctl_binary
from scripted_broker import ScriptedBroker, connack, puback, suback
from test_lifetime import Listener


class Terminal:
    """pexctl on a terminal that controls it; the terminal leaves the output's bytes alone."""

    def __init__(self, pexctl, *arguments, columns=80):
        self._keyboard, terminal = pty.openpty()
        attributes = termios.tcgetattr(terminal)
        attributes[1] &= ~termios.OPOST
        attributes[3] &= ~termios.ECHO
        termios.tcsetattr(terminal, termios.TCSANOW, attributes)
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        self._process = subprocess.Popen(
            [*WRAPPER, pexctl_binary(), *arguments], cwd=pexctl.directory,
            env=pexctl.environment(), stdin=terminal, stdout=terminal, stderr=terminal,
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(terminal)
        self._output = b""

    def wait_for(self, text):
        """Reads until the output holds `text`."""
        while text.encode() not in self._output:
            assert self._read(), f"{text!r} did not come: {self._output!r}"

    def type(self, keys):
        os.write(self._keyboard, keys)

    def end(self):
        """The exit status and the whole output."""
        while self._read():
            pass
        return self._process.wait(DEADLINE), self._output.decode(errors="surrogateescape")

    def close(self):
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait()
        os.close(self._keyboard)

    def _read(self):
        ready, _, _ = select.select([self._keyboard], [], [], DEADLINE)
        assert ready, f"nothing more came after {self._output!r}"
        try:
            piece = os.read(self._keyboard, 1 << 16)
        except OSError:  # EIO: nobody has the terminal open any more
            return False
        self._output += piece
        return bool(piece)


def screen(output):
    """What the terminal shows in the end, if no line is too long for it."""
    lines = []
    for line in output.split("\n"):
        shown = ""
        for piece in line.split("\r"):
            shown = piece[3:] if piece.startswith("\x1b[K") else piece + shown[len(piece):]
        lines.append(shown)
    return "\n".join(lines)


@pytest.fixture
def terminal(pexctl):
    """terminal("run", "greet", columns=40) starts pexctl on a Terminal."""
    opened = []

    def start(*arguments, **options):
        opened.append(Terminal(pexctl, *arguments, **options))
        return opened[-1]

    yield start
    for each in opened:
        each.close()


@pytest.fixture
def own_scripts(pexctl):
    return Scripts(pexctl.directory / "job_scripts")


@pytest.fixture
def to_broker(broker):
    return ["-h", broker.host, "-p", str(broker.port)]


@pytest.mark.parametrize("script, options, shown", [
    ("return 'Hello'", [], "Hello\n"),
    ("return 'one\\ntwo\\n'", [], "one\ntwo\n"),
    ("return '\\27[31mred \\7\\127'", [], "\\x1b[31mred \\x07\\x7f\n"),
    ("return 'gr\\195\\188n'", [], "grün\n"),
    ("return '\\131\\161a\\1\\161b\\195\\161c\\163\\27[K'", [],
     '{\n  "a": 1,\n  "b": true,\n  "c": "\\u001b[K"\n}\n'),
    ("return '\\0\\255 bytes'", [],
     "00000000  00 ff 20 62 79 74 65 73                           |.. bytes|\n"),
    ("return '\\129\\161a\\1'", ["--as", "raw"], "\udc81\udca1a\x01"),
    ("return '\\129\\161a\\1'", ["--as", "hex"],
     "00000000  81 a1 61 01                                       |..a.|\n"),
    ("return 'text'", ["--as", "json"], '"text"\n'),
    ("return 'text'", ["--as", "auto"], "text\n"),
], ids=["text", "lines", "escapes", "umlaut", "map", "bytes", "raw", "hex", "json", "auto"])
def test_answer_is_shown_so_that_it_does_no_harm(terminal, own_scripts, script, options, shown):
    own_scripts.add("answer", script)
    assert terminal("run", "answer", *options).end() == (0, shown)


def test_failure_of_the_service_is_told_once(terminal, own_scripts):
    reason = 'Cannot run job. Script not found "zzz.lua"'
    told = (f"pexctl: The job failed: {reason}\n"
            f"pexctl: Looked for zzz.lua in {own_scripts.directory}\n")
    assert terminal("run", "zzz").end() == (1, told)
    status, output = terminal("run", "--as", "json", "zzz").end()
    assert (status, output.endswith(told)) == (1, True)
    assert "Script not found" in output.removesuffix(told)


def test_failure_that_a_script_answers_is_shown_with_all_its_entries(terminal, own_scripts):
    own_scripts.add("own", "return '\\131\\166status\\194\\166script\\163own"
                           "\\166reason\\167no disk'")
    assert terminal("run", "own").end() == (
        1, '{\n  "status": false,\n  "script": "own",\n  "reason": "no disk"\n}\n'
        "pexctl: The job failed: no disk\n")


@pytest.mark.parametrize("columns", [80, 60])
def test_list_fits_the_terminal(terminal, server, to_broker, columns):
    server.publish_to("out/cmd/long", b"x" * 200, retain=True)
    server.publish_to("out/cmd/failed", failure("y" * 200), retain=True)
    server.publish_to("out/cmd/short", b"z", retain=True)
    status, output = terminal("list", *to_broker, columns=columns).end()
    assert status == 0
    lines = screen(output).splitlines()
    assert [len(line) for line in lines[1:3]] == [columns] * 2
    assert lines[1].endswith("yyy...") and lines[2].endswith("xxx...")
    assert lines[3:] == ["short   succeeded          1  z"]


def test_wait_shows_its_progress_and_clears_it_away(service, terminal, waiting_job, to_broker):
    submit = terminal("submit", *to_broker, "--id", "7", "wait", '"done"')
    submit.wait_for("Waiting for the result of job 7 (0 s)")
    submit.wait_for("\r\x1b[KWaiting for the result of job 7 (1 s)")
    waiting_job.release()
    status, output = submit.end()
    assert (status, screen(output)) == (0, "done\n")
    # Drawn when it changes, not at every look at it.
    assert output.count("(0 s)") == 1


def test_progress_is_cut_so_that_it_can_be_erased(service, terminal, waiting_job, to_broker):
    submit = terminal("submit", *to_broker, "--id", "7", "wait", '"done"', columns=20)
    submit.wait_for("Waiting for the res")
    waiting_job.wait_until_running()
    waiting_job.release()
    status, output = submit.end()
    assert (status, screen(output)) == (0, "done\n")
    shown = re.findall("Waiting[^\r\x1b]*", output)
    assert set(shown) == {"Waiting for the res"}


def test_note_stands_above_the_progress(service, terminal, waiting_job, broker, to_broker):
    submit = terminal("submit", *to_broker, "--id", "7", "wait", '"done"')
    waiting_job.wait_until_running()
    submit.wait_for("Waiting for the result of job 7")
    broker.stop()
    submit.wait_for("Connection refused\nWaiting for the result of job 7")
    broker.start()
    waiting_job.release()
    status, output = submit.end()
    assert status == 0
    assert screen(output).splitlines()[:2] == [
        f"pexctl: Lost the connection to broker 127.0.0.1:{broker.port}. The connection was lost.",
        f"pexctl: Couldn't reach broker 127.0.0.1:{broker.port}. Connection refused"]
    assert screen(output).splitlines()[-1] == "done"


def test_ctrl_c_ends_the_wait_and_leaves_the_job(service, terminal, pexctl, server, waiting_job,
                                                 to_broker):
    submit = terminal("submit", *to_broker, "--id", "7", "wait", '"later"')
    waiting_job.wait_until_running()
    submit.wait_for("Waiting for the result of job 7")
    submit.type(b"\x03")
    status, output = submit.end()
    assert (status, screen(output)) == (
        130, "pexctl: Interrupted. Job 7 is left as it is. Wait for its result: "
        f"pexctl attach {' '.join(to_broker)} 7\n")
    waiting_job.release()
    assert server.result().payload == b"later"
    assert pexctl("attach", *to_broker, "7") == (0, b"later", "")


def test_ctrl_c_ends_an_attempt_to_connect(terminal):
    with Listener() as listener:
        submit = terminal("list", "-h", "127.0.0.1", "-p", str(listener.port))
        submit.wait_for(f"Connecting to 127.0.0.1:{listener.port} (0 s)")
        submit.type(b"\x03")
        status, output = submit.end()
        assert (status, screen(output)) == (130, "pexctl: Interrupted.\n")


def test_each_step_has_its_progress(terminal):
    with ScriptedBroker() as peer:
        submit = terminal("submit", "-h", "127.0.0.1", "-p", str(peer.port), "--id", "7", "greet")
        connection = peer.accept()
        connection.expect_packet()
        submit.wait_for(f"Connecting to {peer.name} (")
        connection.send(connack())
        for _ in range(2):
            connection.send(suback(int.from_bytes(connection.expect_packet()[2:4], "big"), 1))
        submit.wait_for(f"Receiving what {peer.name} retains (")
        request = connection.expect_packet()
        submit.wait_for(f"Sending to {peer.name} (")
        connection.send(puback(int.from_bytes(request[12:14], "big")))
        submit.wait_for("Waiting for the result of job 7 (")
        connection.send(b"\x30\x0d\x00\x09out/cmd/7hi")
        withdrawal = connection.expect_packet()
        connection.send(puback(int.from_bytes(withdrawal[12:14], "big")))
        submit.wait_for("Withdrawing job 7 (")
        connection.send(b"\x30\x0b\x00\x09out/cmd/7")
        status, output = submit.end()
        assert (status, screen(output)) == (0, "hi\n")
