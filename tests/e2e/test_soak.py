"""The soak: scripts/soak as a whole, and the ledger of scripts/soak_traffic.py by itself.

What the soak must find is made by daemons that are faulty on purpose: the real one, with a script
of the soak replaced before it starts.
"""

import json
import re
import shlex
import signal
import socket
import stat
import sys
import threading

import pytest

from harness import REPOSITORY, WRAPPER, binary
from script_run import ScriptRun

sys.path.insert(0, str(REPOSITORY / "scripts"))
from soak_traffic import KINDS, OUTCOMES, Connection, Job, Ledger  # noqa: E402

SOAK = REPOSITORY / "scripts/soak"
ALL_IS_WELL = "Every request is accounted for, and nothing is left behind."
# Sanitizers and emulators keep memory for themselves; how much the daemon's own grows is measured
# with the release build.
ANY_GROWTH = ["--growth", "10000"]


class SoakRun(ScriptRun):
    """One run of scripts/soak with the binary under test, or with `daemon` in its place."""

    prefix = "pex-soak-"

    def __init__(self, directory, *arguments, daemon=None):
        (directory / "run").mkdir()
        environment = {"PEX_COMMAND": binary()}
        if daemon:
            environment = {"PEX_COMMAND": str(daemon), "PEX_COMMAND_WRAPPER": ""}
        super().__init__(directory / "run", [SOAK, *arguments], **environment)


@pytest.fixture
def faulty_daemon(tmp_path):
    """faulty_daemon(LUA) makes a daemon whose script "echo" first runs LUA, with `number` being
    the job's for texts, and says("x") to leave x in the file `said`."""
    def make(lua):
        script = tmp_path / "echo.lua"
        script.write_text(
            'local number = tonumber(tostring(args):match("^(%d+):"))\n'
            f'local said_path = "{tmp_path}/said"\n'
            "local function said() local file = io.open(said_path)\n"
            "    if file then local text = file:read('*a') file:close() return text end end\n"
            "local function say(text) local file = io.open(said_path, 'w')\n"
            "    file:write(text) file:close() end\n"
            f"{lua}\nreturn args\n")
        stand_in = tmp_path / "stand-in"
        stand_in.write_text(
            "#!/bin/sh\n"
            """value() { sed -n "s/^$1=//p" "$2"; }\n"""
            f"""cp {script} "$(value script.search_dirs "$1")"\n"""
            """HOST=$(value server_comms.host "$1") PORT=$(value server_comms.port "$1")\n"""
            "export HOST PORT\n"
            f"""exec {shlex.join([*WRAPPER, binary()])} "$1"\n""")
        stand_in.chmod(stand_in.stat().st_mode | stat.S_IXUSR)
        return stand_in

    return make


def test_soak_accounts_for_every_job_while_everything_is_restarted(tmp_path):
    report = tmp_path / "report.json"
    status, out, err = SoakRun(tmp_path, "500", "--restarts", "4", "--window", "50",
                               "--report", str(report), *ANY_GROWTH).end()
    assert (status, err) == (0, ""), out + err
    assert out.endswith(f"\n{ALL_IS_WELL}\n"), out
    found = json.loads(report.read_text())
    assert found["jobs"] == 500
    assert sum(found["outcomes"].values()) == 500
    assert found["outcomes"]["wrong"] == found["outcomes"]["missing"] == 0
    for outcome, count in found["outcomes"].items():
        assert count == sum(kind[outcome] for kind in found["kinds"].values())
    jobs = {kind: sum(counts.values()) for kind, counts in found["kinds"].items()}
    assert all(jobs.values()), jobs
    without_answer = jobs["empty answers"] + jobs["withdrawn unseen"]
    withdrawals = found["withdrawals"]
    assert withdrawals["confirmed"] == (
        500 - without_answer + withdrawals.get("repeated after a kill", 0))
    assert sorted(loss["what"] for loss in found["losses"]) == [
        "the broker is killed", "the broker is stopped", "the daemon is restarted",
        "the daemon's connection is cut"]
    assert len(found["daemons"]) == 2
    assert "unexpected" not in found["error_records"]


def test_soak_draws_a_plot(tmp_path):
    pytest.importorskip("matplotlib", reason="an option that needs python3-matplotlib")
    plot = tmp_path / "plot.svg"
    status, out, err = SoakRun(tmp_path, "20", "--restarts", "1", "--plot", str(plot),
                               *ANY_GROWTH).end()
    assert status == 0, out + err  # matplotlib may say there that it looks for fonts
    assert "</svg>" in plot.read_text()


def test_soak_names_the_job_with_a_wrong_answer(tmp_path, faulty_daemon):
    daemon = faulty_daemon("""
        if number and number > 20 and not said() then
            say(number)
            return "wrong"
        end""")
    report = tmp_path / "report.json"
    status, out, _ = SoakRun(tmp_path, "200", "--restarts", "0", "--report", str(report),
                             *ANY_GROWTH, daemon=daemon).end()
    number = (tmp_path / "said").read_text()
    assert status == 1, out
    assert f"\nthe request has a wrong answer, b'wrong': job {number} (text up to " in out
    assert ALL_IS_WELL not in out
    found = json.loads(report.read_text())
    assert found["outcomes"]["wrong"] == 1
    assert sum(found["outcomes"].values()) == 200


@pytest.mark.parametrize("options, also", [("", ""), ("-r", "left behind at the broker: ")],
                         ids=["once", "retained"])
def test_soak_names_the_job_with_a_second_result(tmp_path, faulty_daemon, options, also):
    # Another window later, the job has long been withdrawn.
    daemon = faulty_daemon(f"""
        local path = said_path
        if number and number > 20 and not said() then
            say(number .. "\\n" .. args)
        elseif number and said() and not said():match("^done") then
            local first, text = said():match("^(%d+)\\n(.*)")
            if number > first + 50 then
                say(text)
                os.execute("mosquitto_pub -h $HOST -p $PORT -q 1 {options} -t out/cmd/" .. first ..
                           " -f " .. said_path)
                say("done " .. first)
            end
        end""")
    status, out, _ = SoakRun(tmp_path, "300", "--restarts", "0", "--window", "10", *ANY_GROWTH,
                             daemon=daemon).end()
    number = (tmp_path / "said").read_text().removeprefix("done ")
    assert status == 1, out
    assert re.search(rf"^a message without a reason, b'{number}:.*': job {number} \(text up to ",
                     out, re.MULTILINE), out
    if also:
        assert f"\n{also}out/cmd/{number}: job {number} (text up to " in out


def test_soak_says_that_the_daemon_has_ended(tmp_path, faulty_daemon):
    daemon = faulty_daemon("if number and number > 20 then say(number) os.exit(3) end")
    # One job at a time, or it would take results of others that have not left with it.
    status, out, _ = SoakRun(tmp_path, "100", "--restarts", "0", "--window", "1", *ANY_GROWTH,
                             daemon=daemon).end()
    number = (tmp_path / "said").read_text()
    assert status == 1
    assert "\nThe daemon has ended with 3:\n" in out
    assert f"the request was never answered: job {number} (text up to " in out


def test_soak_says_what_is_new_in_the_log(tmp_path, faulty_daemon):
    daemon = faulty_daemon("""
        if number and number > 20 and not said() then
            say(number)
            io.stderr:write("ERROR something: is odd\\n")
        end""")
    status, out, _ = SoakRun(tmp_path, "100", "--restarts", "0", *ANY_GROWTH, daemon=daemon).end()
    assert status == 1
    assert "\nunexpected in the daemon's log: ERROR something: is odd\n" in out


def test_soak_refuses_growth_of_the_memory(tmp_path):
    status, out, _ = SoakRun(tmp_path, "20", "--restarts", "0", "--growth", "-1").end()
    assert status == 1
    assert re.search(r"^the memory of daemon 1 grew by \d+\.\d MB$", out, re.MULTILINE), out


def test_soak_accounts_for_what_was_sent_before_ctrl_c(tmp_path):
    run = SoakRun(tmp_path, "1000000", "--restarts", "0", *ANY_GROWTH)
    assert "/1,000,000 " in run.process.stdout.readline()
    run.process.send_signal(signal.SIGINT)
    status, out, err = run.end()
    assert (status, err) == (130, ""), out + err
    assert ALL_IS_WELL in out
    right = re.search(r"^all +([\d,]+) ", out, re.MULTILINE).group(1)
    assert f"\n{right} jobs in " in out


@pytest.mark.parametrize("arguments, text", [
    (["0"], "argument N: invalid natural value: '0'"),
    (["x"], "argument N: invalid natural value: 'x'"),
    ([], "the following arguments are required: N"),
    (["10", "--window", "0"], "argument --window: invalid natural value: '0'"),
    (["3", "--restarts", "4"], "there must be at least as many jobs as restarts"),
    (["3", "--restarts", "-1"], "there must be at least as many jobs as restarts"),
])
def test_soak_refuses_a_wrong_command_line(tmp_path, arguments, text):
    status, out, err = SoakRun(tmp_path, *arguments).end()
    assert (status, out) == (2, "")
    assert f"soak: error: {text}" in err


class FarSide:
    """The service and the broker as a Ledger sees them: takes what it publishes, and answers what
    the test says. Jobs 5, 6 and 7 have answers that tell them apart, and are withdrawn."""

    def __init__(self):
        self.told = []
        self.published = []
        self.ledger = Ledger(1, self._publish, self.told.append)

    def request(self, *numbers, at_broker=True):
        for number in numbers:
            self.ledger.request(number)
            if at_broker:
                self.ledger.acknowledged(len(self.published))

    def answer(self, *numbers):
        for number in numbers:
            self.ledger.received(f"out/cmd/{number}", Job(number, 1).expected)

    def confirm(self, *numbers):
        for number in numbers:
            self.ledger.received(f"out/cmd/{number}", b"")

    def run(self, *numbers):
        """Has jobs run from the request to the end."""
        self.request(*numbers)
        self.answer(*numbers)
        self.confirm(*numbers)

    def lose(self, **options):
        self.ledger.open_loss("a test", **options)
        self.ledger.forget_packets()

    def redeliver(self, *numbers):
        """The answers come with what the broker had kept for the server's session."""
        self.ledger.session_returns()
        self.answer(*numbers)
        self.ledger.session_is_back()

    def answer_fence(self):
        """Returns what is published then, but for the fence's own withdrawal."""
        before = len(self.published)
        self.answer(-1)
        return [entry for entry in self.published[before:] if entry[0] != -1]

    def outcomes(self):
        counts = self.ledger.counts
        totals = {outcome: sum(counts[kind][outcome] for kind in KINDS) for outcome in OUTCOMES}
        return {outcome: count for outcome, count in totals.items() if count}

    def anomalies(self):
        """What was told, without the jobs' histories."""
        return [re.sub(r"(job \d+) \(.*", r"\1", text) for text in self.told]

    def _publish(self, number, payload):
        self.published.append((number, "request" if payload else "withdrawal"))
        return len(self.published)


@pytest.fixture
def far_side():
    return FarSide()


def test_ledger_counts_what_is_answered_in_order(far_side):
    far_side.run(5, 6, 7)
    assert far_side.told == []
    assert far_side.outcomes() == {"right": 3}
    assert far_side.ledger.waiting == 0


def test_ledger_tells_of_a_request_that_was_passed_over(far_side):
    far_side.request(5, 6, 7)
    far_side.answer(5, 7)
    assert far_side.anomalies() == [
        "the request was not answered, but a later one was: job 6"]
    assert far_side.outcomes() == {"right": 2, "missing": 1}


def test_ledger_tells_of_a_withdrawal_that_was_passed_over(far_side):
    far_side.request(5, 6)
    far_side.answer(5, 6)
    far_side.confirm(6)
    assert far_side.anomalies() == [
        "the withdrawal was not answered, but a later one was: job 5"]


def test_ledger_tells_of_a_second_result_without_a_loss(far_side):
    far_side.run(5)
    far_side.answer(5)
    assert far_side.anomalies() == ["a message without a reason, b'deep 86/5/2': job 5"]


def test_ledger_tells_of_a_second_end_of_transaction_without_a_loss(far_side):
    far_side.run(5)
    far_side.confirm(5)
    assert far_side.anomalies() == ["a message without a reason, b'': job 5"]


def test_ledger_tells_of_a_result_that_nobody_asked_for(far_side):
    far_side.ledger.received("out/cmd/x", b"")
    far_side.answer(5)
    assert far_side.anomalies() == ["a result that nobody asked for: 'out/cmd/x'",
                                    "a message without a reason, b'deep 86/5/2': job 5"]


def test_ledger_has_what_was_lost_with_the_connection_sent_again(far_side):
    far_side.request(5, 6, 7)
    far_side.answer(5)
    far_side.lose()
    far_side.ledger.close_loss()
    assert far_side.answer_fence() == [(6, "request"), (7, "request"), (5, "withdrawal")]
    far_side.confirm(-1)
    far_side.answer(6, 7)
    far_side.confirm(5, 6, 7)
    assert far_side.told == []
    assert far_side.outcomes() == {"right": 1, "sent again": 2}
    assert far_side.ledger.withdrawals == {"confirmed": 3, "sent again": 1}


def test_ledger_counts_what_is_answered_after_the_loss(far_side):
    far_side.request(5)
    far_side.lose()
    far_side.request(6)
    far_side.answer(5)
    far_side.ledger.close_loss()
    far_side.request(7)
    far_side.answer(6)
    assert far_side.answer_fence() == [(5, "withdrawal")]  # sent while the service was away
    far_side.answer(7)
    assert far_side.told == []
    assert far_side.outcomes() == {"right": 1, "after a loss": 2}


def test_ledger_tells_of_a_request_after_the_loss_without_a_result(far_side):
    far_side.lose()
    far_side.ledger.close_loss()
    far_side.request(5, 6)
    far_side.answer(-1, 6)
    assert far_side.anomalies() == [
        "the request was not answered, but a later one was: job 5"]


def test_ledger_tells_of_a_lost_answer_of_a_job_that_was_run(far_side):
    # The service got 5 before 6, so it must have run 5 if it answers 6.
    far_side.request(5, 6)
    far_side.lose()
    far_side.ledger.close_loss()
    far_side.answer(6)
    assert far_side.anomalies() == [
        "the request was run before the connection was lost, and its answer is lost: job 5"]


@pytest.mark.parametrize("options, at_broker", [({"broker_forgets": True}, True), ({}, False)],
                         ids=["at a killed broker", "on the way to the broker"])
def test_ledger_lets_the_broker_lose_one_of_two(far_side, options, at_broker):
    far_side.request(5, 6, at_broker=at_broker)
    far_side.lose(**options)
    far_side.ledger.close_loss()
    far_side.answer(6)
    assert (5, "request") in far_side.answer_fence()
    assert far_side.told == []


def test_ledger_allows_a_second_result_when_the_acknowledgement_may_be_lost(far_side):
    far_side.request(5, 6)
    far_side.answer(5, 6)  # 6 was sent before the result of 5 had come, and proves nothing
    far_side.lose()
    far_side.answer(5)
    assert far_side.told == []
    assert far_side.outcomes() == {"right": 1, "republished": 1}


def test_ledger_allows_a_second_end_of_transaction_likewise(far_side):
    far_side.run(5)
    far_side.lose()
    far_side.confirm(5)
    assert far_side.told == []
    assert far_side.outcomes() == {"right": 1}
    assert far_side.ledger.withdrawals == {"confirmed": 1, "confirmed twice": 1}


def test_ledger_tells_of_a_third_result(far_side):
    far_side.request(5)
    far_side.answer(5)
    far_side.lose()
    far_side.answer(5, 5)
    assert far_side.anomalies() == ["a message without a reason, b'deep 86/5/2': job 5"]


def test_ledger_allows_a_second_result_from_a_broker_that_was_killed(far_side):
    far_side.request(5)
    far_side.answer(5)
    far_side.lose(broker_forgets=True)
    far_side.redeliver(5)
    assert far_side.told == []
    assert far_side.outcomes() == {"redelivered": 1}
    assert far_side.ledger.loss.copies == {"redelivered": 1, "republished": 0}


def test_ledger_tells_of_a_second_result_from_a_broker_that_was_stopped(far_side):
    far_side.request(5)
    far_side.answer(5)
    far_side.lose()
    far_side.redeliver(5)
    assert far_side.anomalies() == ["a message without a reason, b'deep 86/5/2': job 5"]


@pytest.mark.parametrize("third", ["redelivered", "republished"])
def test_ledger_allows_one_copy_each_when_the_broker_was_killed(far_side, third):
    far_side.request(5)
    far_side.answer(5)
    far_side.lose(broker_forgets=True)
    far_side.redeliver(5)
    far_side.answer(5)
    assert far_side.told == []
    assert far_side.ledger.loss.copies == {"redelivered": 1, "republished": 1}
    (far_side.redeliver if third == "redelivered" else far_side.answer)(5)
    assert far_side.anomalies() == ["a message without a reason, b'deep 86/5/2': job 5"]


def test_ledger_tells_of_a_second_result_when_the_first_was_acknowledged(far_side):
    # The withdrawal was sent when the result had come, and so after its acknowledgement.
    far_side.run(5)
    far_side.lose()
    far_side.answer(5)
    assert far_side.anomalies() == ["a message without a reason, b'deep 86/5/2': job 5"]


def test_ledger_tells_of_a_second_result_after_the_fence(far_side):
    far_side.run(5)
    far_side.lose()
    far_side.ledger.close_loss()
    far_side.answer_fence()
    far_side.answer(5)
    assert far_side.anomalies() == ["a message without a reason, b'deep 86/5/2': job 5"]


def test_ledger_withdraws_again_what_a_killed_broker_may_have_back(far_side):
    far_side.run(5)
    far_side.run(6)  # by now 5 is done for good
    far_side.lose(broker_forgets=True)
    far_side.ledger.close_loss()
    assert far_side.answer_fence() == [(6, "withdrawal")]
    far_side.confirm(-1, 6)
    assert far_side.told == []


PUBREL = 0x62
NEW, AGAIN = 0x34, 0x3c  # a PUBLISH with QoS 2, the second one with the DUP flag


class Resumed:
    """A Connection to a broker that plays a list of packets. The payload "end" ends what the
    broker had kept."""

    def __init__(self):
        self.came = []
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._connection = Connection(self._listener.getsockname(), "a test", False,
                                      self._on_message)

    def play(self, *packets):
        """Makes a new connection, on which `packets` come: (first byte, id, payload)."""
        threading.Thread(target=self._serve, args=(packets,)).start()
        self._connection.connect()
        self._connection.drain()

    def close(self):
        self._listener.close()

    def _on_message(self, topic, payload):
        self.came.append(payload)
        if payload == b"end":
            self._connection.forget_earlier()

    def _serve(self, packets):
        with self._listener.accept()[0] as near:
            stream = b"\x20\2\1\0"
            for first, packet, payload in packets:
                topic = b"" if first == PUBREL else b"\0\1t"
                body = topic + bytes([0, packet]) + payload
                stream += bytes([first, len(body)]) + body
            near.sendall(stream)
            near.shutdown(socket.SHUT_WR)
            while near.recv(4096):
                pass


@pytest.fixture
def resumed():
    connection = Resumed()
    yield connection
    connection.close()


@pytest.mark.parametrize("first", [NEW, AGAIN], ids=["without-dup", "with-dup"])
def test_connection_takes_an_unreleased_message_once(resumed, first):
    # A broker that was killed before it saved the first delivery does not set the DUP flag.
    resumed.play((NEW, 1, b"x"))
    resumed.play((first, 1, b"x"), (PUBREL, 1, b""))
    assert resumed.came == [b"x"]


@pytest.mark.parametrize("first", [NEW, AGAIN], ids=["without-dup", "with-dup"])
def test_connection_takes_another_message_with_the_id_of_an_unreleased_one(resumed, first):
    # A broker that was killed gives the ids since its last save to other messages.
    resumed.play((NEW, 1, b"x"))
    resumed.play((first, 1, b"y"), (PUBREL, 1, b""), (NEW, 1, b"x"))
    assert resumed.came == [b"x", b"y", b"x"]


def test_connection_takes_a_message_again_after_its_release(resumed):
    resumed.play((NEW, 1, b"x"), (PUBREL, 1, b""))
    resumed.play((AGAIN, 1, b"x"))
    assert resumed.came == [b"x", b"x"]


def test_connection_knows_an_unreleased_message_only_while_the_session_returns(resumed):
    # What comes later is new, even the same text with the same id: a second end of transaction.
    resumed.play((NEW, 1, b"x"))
    resumed.play((NEW, 2, b"end"), (NEW, 1, b"x"))
    assert resumed.came == [b"x", b"end", b"x"]
