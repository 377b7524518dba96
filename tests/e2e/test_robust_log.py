"""What the log tells about the connection: each change of its state once, not each attempt."""

import pytest

from harness import MOSQ_ERR_INVAL, Service, library_text, request, wait_until
from scripted_broker import REFUSED_SUBSCRIPTION, connack, connect, connection_records, publish
from scripted_proc import times_asleep

pytest_plugins = ["scripted_fixtures"]


def answer(peer, code):
    """The next attempt is answered with this return code and has ended afterwards."""
    connection = peer.accept()
    connection.expect(connect())
    connection.send(connack(code))
    connection.finish()


def stopped(service):
    """The connection's records up to the end of the daemon."""
    service.stop()
    records = connection_records(service)
    assert records[-1] == ("INFO", "Closing server comms service")
    return records[:-1]


def test_connected_and_lost(peer, daemon):
    """The broker serves, and ends the connection."""
    peer.accept_and_serve().finish()
    peer.accept_and_serve()
    assert stopped(daemon) == [
        ("INFO", f"Connected to broker {peer.name}"),
        ("ERROR", f"Lost the connection to broker {peer.name}. The connection was lost."),
    ]


def test_lost_by_a_protocol_error(peer, daemon):
    """The broker sends what no broker may."""
    connection = peer.accept_and_serve()
    connection.send(b"\x00\x00")
    connection.finish()
    peer.accept_and_serve()
    assert stopped(daemon) == [
        ("INFO", f"Connected to broker {peer.name}"),
        ("ERROR", f"Lost the connection to broker {peer.name}. A network protocol error occurred "
                  "when communicating with the broker."),
    ]


def test_lost_within_a_packet(peer, daemon):
    """The broker's last packet breaks off; errno has nothing to say about that."""
    connection = peer.accept_and_serve()
    connection.send(publish("in/cmd/1", request("ping"))[:-1])
    connection.wait_until_read()
    connection.finish()
    peer.accept_and_serve()
    assert stopped(daemon) == [
        ("INFO", f"Connected to broker {peer.name}"),
        ("ERROR", f"Lost the connection to broker {peer.name}. The connection was lost."),
    ]


@pytest.mark.parametrize("code, reason", [
    (1, "Connection Refused: unacceptable protocol version."),
    (2, "Connection Refused: identifier rejected."),
    (3, "Connection Refused: broker unavailable."),
    (4, "Connection Refused: bad user name or password."),
    (5, "Connection Refused: not authorised."),
    (6, "Connection Refused: unknown reason."),
])
def test_refused(peer, daemon, code, reason):
    """The broker refuses four attempts for the same reason before it accepts one."""
    for _ in range(4):
        answer(peer, code)
    peer.accept_and_serve()
    assert stopped(daemon) == [
        ("ERROR", f"Broker {peer.name} refused the connection. {reason}"),
        ("INFO", f"Connected to broker {peer.name}"),
    ]


def test_another_reason_is_news(peer, daemon):
    """The broker refuses for one reason, then for another, then for the first again."""
    for code in (3, 3, 5, 5, 3):
        answer(peer, code)
    peer.accept_and_serve()
    refused = f"Broker {peer.name} refused the connection. Connection Refused: "
    assert stopped(daemon) == [
        ("ERROR", refused + "broker unavailable."),
        ("ERROR", refused + "not authorised."),
        ("INFO", f"Connected to broker {peer.name}"),
    ]


def test_closed_without_an_answer(peer, daemon):
    """The broker takes the connection three times and ends it before the MQTT answer."""
    for _ in range(3):
        peer.accept().finish()
    peer.accept_and_serve()
    assert stopped(daemon) == [
        ("ERROR", f"Broker {peer.name} closed the connection without an answer. "
                  "The connection was lost."),
        ("INFO", f"Connected to broker {peer.name}"),
    ]


def test_subscription_refused(peer, daemon):
    """The broker refuses the subscription on two connections and grants it on the third."""
    for _ in range(2):
        connection = peer.accept()
        connection.expect(connect())
        connection.send(connack())
        connection.subscribed(granted=REFUSED_SUBSCRIPTION)
        connection.finish()
    peer.accept_and_serve()
    assert stopped(daemon) == [
        ("INFO", f"Connected to broker {peer.name}"),
        ("ERROR", f"Broker {peer.name} refused the subscription to in/cmd/+"),
        ("ERROR", f"Lost the connection to broker {peer.name}. The connection was lost."),
    ]


def test_unreachable_and_back(peer, daemon):
    """The broker goes away for some attempts and comes back. It is named by host and port."""
    connection = peer.accept_and_serve()
    peer.refuse()  # first, or an attempt could still be let in and then closed
    connection.finish()
    daemon.wait_for_record(f"Couldn't reach broker {peer.name}. Connection refused")
    before = times_asleep(daemon.pid)
    wait_until(lambda: times_asleep(daemon.pid) >= before + 4, "further attempts")
    peer.listen()
    peer.accept_and_serve()
    assert stopped(daemon) == [
        ("INFO", f"Connected to broker {peer.name}"),
        ("ERROR", f"Lost the connection to broker {peer.name}. The connection was lost."),
        ("ERROR", f"Couldn't reach broker {peer.name}. Connection refused"),
    ]


@pytest.mark.parametrize("host, port, name, reason", [
    ("/nowhere/broker", 0, "/nowhere/broker", "No such file or directory"),
    ("localhost", 0, "localhost", "No such file or directory"),  # with port 0 this is a path too
    ("127.0.0.1", -1, "127.0.0.1:-1", library_text(MOSQ_ERR_INVAL)),
    ("127.0.0.1", 65536, "127.0.0.1:65536", library_text(MOSQ_ERR_INVAL)),
    ("", 1883, ":1883", "Lookup error."),
])
def test_address_that_leads_nowhere(tmp_path, host, port, name, reason):
    """The address is the library's to judge. The daemon names it, keeps trying, and can be
    stopped."""
    service = Service(tmp_path / "daemon", settings={"server_comms.host": host,
                                                     "server_comms.port": port})
    try:
        service.start()
        service.wait_for_record("Couldn't reach broker")
        assert stopped(service) == [("ERROR", f"Couldn't reach broker {name}. {reason}")]
    finally:
        service.finish()


def test_same_story_is_news_again_after_a_connection_that_lived(peer, daemon):
    """A refused attempt, a short connection and one that lives for over 5 s; then all of it again.

    Once a connection has lived, the log must end with the good news, and what happens next is
    told anew.
    """
    connected = ("INFO", f"Connected to broker {peer.name}")
    lost = ("ERROR", f"Lost the connection to broker {peer.name}. The connection was lost.")
    refused = ("ERROR", f"Broker {peer.name} refused the connection. "
                        "Connection Refused: not authorised.")
    answer(peer, 5)
    peer.accept_and_serve().finish()
    connection = peer.accept_and_serve()
    wait_until(lambda: connection_records(daemon) == [refused, connected, lost, connected],
               lambda: f"the second good news: {connection_records(daemon)}")
    connection.finish()
    answer(peer, 5)
    peer.accept_and_serve()
    assert stopped(daemon) == [refused, connected, lost, connected, lost, refused, connected]
