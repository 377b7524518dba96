"""What comes of a job when something breaks at the worst moment: every fault at every moment, and a
cut at every packet of a job.

Each cell is one run of its own with a request that is not retained, and one with a request that is.
scripted_faults.py makes the faults and computes the verdicts. In the tables here a pair is the
verdict without and with the retain flag. With PEX_FAULT_MATRIX=FILE each verdict is also appended
to FILE, one JSON object a line; scripts/fault-matrix makes docs/reliability.md of them.

Under PEX_COMMAND_WRAPPER about one cell in eight runs, and none with a half-open connection, unless
PEX_FAULT_MATRIX is set: the packets are the same whatever executes the daemon's instructions.
"""

import json
import os

import pytest

import scripted_faults
from harness import WRAPPER
from scripted_network import missing

OUTPUT = os.environ.get("PEX_FAULT_MATRIX")

AWAY = ("lost: away", "later")
UNACKNOWLEDGED = ("lost: unacknowledged", "later")
WITHOUT_DATABASE = ("lost: away", "lost: no database")
UNACKNOWLEDGED_WITHOUT_DATABASE = ("lost: unacknowledged", "lost: no database")
KILLED = ("lost: killed", "again only")
WITHDRAWAL_KILLED = ("lost: killed", "lost: killed")
WITHDRAWAL_UNACKNOWLEDGED = ("lost: unacknowledged", "lost: unacknowledged")
ONCE = ("once", "once")
LATER = ("later", "later")
ONCE_OR_AGAIN = ("once", "again")
LATER_OR_AGAIN = ("later", "again")
TWICE = ("twice", "twice, again")
WITHDRAWN = ("withdrawn", "withdrawn")
WITHDRAWN_TWICE = ("withdrawn twice", "withdrawn twice")
CONNECTING = ("lost: away", "once")
DROPPED = ("lost: dropped", "later")
DROPPED_WITHOUT_DATABASE = ("lost: dropped", "lost: no database")
WAITING_KILLED = ("lost: killed", "later")


def of_three(*pairs):
    """The verdicts of the jobs that had returned, of the third one, and of those that waited."""
    return tuple("; ".join(verdicts) for verdicts in zip(*pairs))


FORGOTTEN = ("once, forgotten", "once, forgotten")
THREE_AT_FORGETFUL_BROKER = of_three(FORGOTTEN, LATER, DROPPED_WITHOUT_DATABASE)
THREE_LOST = of_three(ONCE_OR_AGAIN, LATER_OR_AGAIN, DROPPED)
THREE_RUN = of_three(ONCE_OR_AGAIN, LATER_OR_AGAIN, LATER_OR_AGAIN)
THREE_LIVE = of_three(ONCE, ONCE, ONCE)
THREE_STOPPED = of_three(ONCE_OR_AGAIN, ONCE_OR_AGAIN, DROPPED)
THREE_KILLED = of_three(ONCE_OR_AGAIN, KILLED, WAITING_KILLED)

MOMENTS_OF_ONE_JOB = ["idle", "connecting", "request on its way", "job running",
                      "result handed over", "PUBREC pending", "PUBREL pending", "withdrawal"]
MOMENTS_WHILE_OTHERS_WAIT = ["job 3 of 5 running", "result 3 of 5 handed over",
                             "acknowledged, waiting"]
MOMENTS = MOMENTS_OF_ONE_JOB + MOMENTS_WHILE_OTHERS_WAIT

FORGETFUL_BROKER = [AWAY, WITHOUT_DATABASE, UNACKNOWLEDGED_WITHOUT_DATABASE, LATER, LATER, LATER,
                    LATER, WITHDRAWN, THREE_AT_FORGETFUL_BROKER, THREE_AT_FORGETFUL_BROKER,
                    DROPPED_WITHOUT_DATABASE]
CONNECTION_LOST = [AWAY, AWAY, UNACKNOWLEDGED, LATER_OR_AGAIN, LATER_OR_AGAIN, LATER_OR_AGAIN,
                   LATER_OR_AGAIN, WITHDRAWN, THREE_LOST, THREE_LOST, DROPPED]
# The third result's time is over before the daemon learns of it.
CONNECTION_HALF_OPEN = [*CONNECTION_LOST[:9], THREE_RUN, DROPPED]
CONNECTION_LIVES = [ONCE, CONNECTING, ONCE, ONCE, ONCE, ONCE, ONCE, WITHDRAWN, THREE_LIVE,
                    THREE_LIVE, ONCE]
DAEMON_STOPPED = [AWAY, AWAY, UNACKNOWLEDGED, ONCE_OR_AGAIN, ONCE_OR_AGAIN, ONCE_OR_AGAIN,
                  ONCE_OR_AGAIN, WITHDRAWN, THREE_STOPPED, THREE_STOPPED, DROPPED]

FAULTS = {
    "broker killed": FORGETFUL_BROKER,
    "broker killed, with its database": CONNECTION_LOST,
    "broker stopped": FORGETFUL_BROKER,
    "broker stopped, with its database": CONNECTION_LOST,
    "broker frozen": CONNECTION_LIVES,
    "connection reset": CONNECTION_LOST,
    "connection half-open": CONNECTION_HALF_OPEN,
    "connection slow": CONNECTION_LIVES,
    "cut within a packet to the broker": [
        LATER_OR_AGAIN, AWAY, LATER_OR_AGAIN, LATER_OR_AGAIN, LATER_OR_AGAIN, LATER_OR_AGAIN,
        LATER_OR_AGAIN, WITHDRAWN, THREE_LOST, THREE_LOST, DROPPED],
    "cut within a packet to the daemon": [
        UNACKNOWLEDGED, AWAY, UNACKNOWLEDGED, LATER_OR_AGAIN, LATER_OR_AGAIN, LATER_OR_AGAIN,
        TWICE, WITHDRAWN, THREE_LOST, THREE_LOST, DROPPED],
    "client id taken": CONNECTION_LOST,
    "daemon stopped by SIGTERM": DAEMON_STOPPED,
    "daemon stopped by SIGINT": DAEMON_STOPPED,
    "daemon killed": [
        AWAY, AWAY, UNACKNOWLEDGED, KILLED, KILLED, KILLED, KILLED, WITHDRAWAL_KILLED,
        THREE_KILLED, THREE_KILLED, WAITING_KILLED],
}

PLACES = ["before its first byte", "after its first byte", "in its middle", "before its last byte",
          "after its last byte"]

PACKETS = {
    "CONNECT": [AWAY] * 5,
    "CONNACK": [AWAY] * 5,
    "SUBSCRIBE": [AWAY] * 5,
    "SUBACK": [UNACKNOWLEDGED] * 5,
    "PUBLISH (request)": [UNACKNOWLEDGED] * 4 + [LATER_OR_AGAIN],
    "PUBACK (request)": [LATER_OR_AGAIN] * 5,
    "PUBLISH (result)": [LATER_OR_AGAIN] * 5,
    "PUBREC (result)": [LATER_OR_AGAIN] * 5,
    "PUBREL (result)": [LATER_OR_AGAIN] * 4 + [TWICE],
    "PUBCOMP (result)": [TWICE] * 4 + [ONCE_OR_AGAIN],
    "PUBLISH (withdrawal)": [WITHDRAWAL_UNACKNOWLEDGED] * 4 + [WITHDRAWN],
    "PUBACK (withdrawal)": [WITHDRAWN] * 5,
    "PUBLISH (end of transaction)": [WITHDRAWN] * 5,
    "PUBREC (end of transaction)": [WITHDRAWN] * 5,
    "PUBREL (end of transaction)": [WITHDRAWN] * 4 + [WITHDRAWN_TWICE],
    "PUBCOMP (end of transaction)": [WITHDRAWN_TWICE] * 4 + [WITHDRAWN],
}

RETAIN = pytest.mark.parametrize("retain", [False, True], ids=["not retained", "retained"])


def cells(table, columns):
    return [(row, column) for row in table for column in columns]


def expected(table, columns, row, column, retain):
    return table[row][columns.index(column)][retain]


def skip_under_a_wrapper():
    if WRAPPER and not OUTPUT:
        pytest.skip("under a wrapper one cell in eight is enough")


def skip_most_under_a_wrapper(table, columns, row, column):
    if (list(table).index(row) + columns.index(column)) % 8:
        skip_under_a_wrapper()


def note(table, row, column, retain, verdict):
    if OUTPUT:
        line = json.dumps({"table": table, "row": row, "column": column, "retained": retain,
                           "verdict": verdict}) + "\n"
        file = os.open(OUTPUT, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
        os.write(file, line.encode())  # in one piece, since other workers write there, too
        os.close(file)


@pytest.mark.parametrize("moments", [MOMENTS_OF_ONE_JOB, MOMENTS_WHILE_OTHERS_WAIT],
                         ids=["one job", "others wait"])
def test_every_connection_comes_back_from_being_half_open(tmp_path, moments):
    """First of all, since it takes 20 s, in which other workers do the rest."""
    skip_under_a_wrapper()
    if missing():
        pytest.skip(missing())
    verdicts = scripted_faults.verdicts_of_half_open(tmp_path, moments)
    for (moment, retain), verdict in verdicts.items():
        note("faults", "connection half-open", moment, retain, verdict)
    assert verdicts == {
        (moment, retain): expected(FAULTS, MOMENTS, "connection half-open", moment, retain)
        for moment in moments for retain in (False, True)}


@RETAIN
@pytest.mark.parametrize("fault, moment", [
    cell for cell in cells(FAULTS, MOMENTS) if cell[0] != "connection half-open"])
def test_fault_leads_to_the_verdict(tmp_path, fault, moment, retain):
    skip_most_under_a_wrapper(FAULTS, MOMENTS, fault, moment)
    verdict = scripted_faults.verdict_of_fault(tmp_path, fault, moment, retain)
    note("faults", fault, moment, retain, verdict)
    assert verdict == expected(FAULTS, MOMENTS, fault, moment, retain)


@RETAIN
@pytest.mark.parametrize("packet, place", cells(PACKETS, PLACES))
def test_cut_leads_to_the_verdict(tmp_path, packet, place, retain):
    skip_most_under_a_wrapper(PACKETS, PLACES, packet, place)
    verdict = scripted_faults.verdict_of_cut(tmp_path, packet, place, retain)
    note("cuts", packet, place, retain, verdict)
    assert verdict == expected(PACKETS, PLACES, packet, place, retain)
