"""pexctl at brokers that do as MQTT allows, and not as mosquitto does: they answer subscriptions in
any order, send retained messages behind all answers, or close connections."""

import signal

import pytest

from harness import request
from scripted_broker import (DISCONNECT, REFUSED_SUBSCRIPTION, TreatingBroker, connack,
                             options_to, puback, publish, suback)

pytest_plugins = ["scripted_fixtures"]

REQUEST_MID = slice(12, 14)  # in a short PUBLISH on in/cmd/7


class Subscribed:
    """A connection of pexctl up to its two subscriptions, none of which is answered yet."""

    def __init__(self, peer):
        self.connection = peer.accept()
        self.connection.expect_packet()
        self.connection.send(connack())
        packets = [self.connection.expect_packet() for _ in range(2)]
        self.mids = {packet[6:-1].decode(): int.from_bytes(packet[2:4], "big")
                     for packet in packets}
        assert list(self.mids)[0].startswith("out/cmd/")
        assert list(self.mids)[1].startswith("in/cmd/")

    def answers(self, *granted):
        """The bytes of both answers, the last subscription's first."""
        pairs = zip(self.mids.values(), granted or (1, 1))
        return b"".join(reversed([suback(mid, each) for mid, each in pairs]))

    def accept_request(self, *following):
        """Expects the request for job 7 and sends its acknowledgement, with what follows, in one
        go."""
        sent = self.connection.expect_packet()
        assert sent[4:12] == b"in/cmd/7" and sent[14:] == request("greet"), sent
        self.connection.send(puback(int.from_bytes(sent[REQUEST_MID], "big")), *following)

    def accept_withdrawal(self, job_id="7"):
        sent = self.connection.expect_packet()
        mid = int.from_bytes(sent[-2:], "big")
        assert sent == publish("in/cmd/" + job_id, b"", qos=1, mid=mid, retain=True)
        self.connection.send(puback(mid), publish("out/cmd/" + job_id, b""))


def retained(topic, payload):
    return publish(topic, payload, retain=True)


def in_use(what, port):
    return (f"pexctl: The broker already holds a {what} of job 7. Choose another id, or see "
            f"`pexctl attach -h 127.0.0.1 -p {port} 7` and "
            f"`pexctl withdraw -h 127.0.0.1 -p {port} 7`.\n")


EARLIER_RESULT = ("pexctl: The broker held a result of an earlier job with the id 7. It is not the "
                  "answer, and is neither shown nor withdrawn.\n")


def test_list_shows_what_comes_behind_the_answers(pexctl, peer):
    run = pexctl.start("list", *options_to(peer))
    subscribed = Subscribed(peer)
    # The message that is not retained must not hide the others.
    subscribed.connection.send(subscribed.answers(), publish("out/cmd/x", b"live"),
                               retained("out/cmd/a", b"one"), publish("out/cmd/x", b"live"),
                               retained("in/cmd/b", request("greet")))
    assert run.end() == (
        0, b"ID  STATE          BYTES  ANSWER, REASON OR REQUEST\n"
        b"a   succeeded          3  one\n"
        b'b   requested         24  {"lua_script": "greet", "args": null}\n', "")


def test_broker_that_is_slow_to_answer_has_longer_to_send_what_it_retains(pexctl, peer):
    run = pexctl.start("list", *options_to(peer))
    subscribed = Subscribed(peer)
    subscribed.connection.expect_silence(2)
    subscribed.connection.send(subscribed.answers())
    for job_id in ["a", "b"]:  # together longer than the silence that each of them begins anew
        subscribed.connection.expect_silence(1.3)
        subscribed.connection.send(retained("out/cmd/" + job_id, b"one"))
    assert run.end().stdout.splitlines()[1:] == [b"a   succeeded          3  one",
                                                 b"b   succeeded          3  one"]


def test_silence_while_pexctl_is_suspended_does_not_count(pexctl, peer):
    run = pexctl.start("list", *options_to(peer))
    subscribed = Subscribed(peer)
    subscribed.connection.expect_silence(2)
    subscribed.connection.send(subscribed.answers())
    subscribed.connection.wait_until_read()
    run.signal(signal.SIGSTOP)  # within the two seconds that the answers took
    subscribed.connection.send(publish("out/cmd/x", b"live") * 3, retained("out/cmd/a", b"one"))
    subscribed.connection.expect_silence(3)
    run.signal(signal.SIGCONT)
    assert run.end().stdout.splitlines()[1:] == [b"a   succeeded          3  one"]


@pytest.mark.parametrize("what, message", [
    ("result", retained("out/cmd/7", b"old")),
    ("request", retained("in/cmd/7", request("greet"))),
], ids=["result", "request"])
def test_used_job_id_that_shows_behind_the_answers_is_refused(pexctl, peer, what, message):
    run = pexctl.start("submit", *options_to(peer), "--id", "7", "greet")
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers(), message)
    subscribed.connection.expect(DISCONNECT)  # and no request
    assert run.end() == (2, b"", in_use(what, peer.port))


@pytest.mark.parametrize("command", [["submit", "--id", "7", "greet"], ["list"]],
                         ids=lambda command: command[0])
def test_connection_that_breaks_behind_the_answers_is_told(pexctl, peer, command):
    run = pexctl.start(command[0], *options_to(peer), *command[1:])
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers())
    subscribed.connection.half_close()
    assert run.end() == (
        3, b"", f"pexctl: Lost the connection to broker {peer.name}. The connection was lost.\n")


def test_retained_result_that_comes_behind_the_request_is_not_the_answer(pexctl, peer):
    run = pexctl.start("submit", *options_to(peer), "--id", "7", "greet")
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers())
    subscribed.accept_request(retained("out/cmd/7", b"old"), publish("out/cmd/7", b"new"))
    subscribed.accept_withdrawal()
    assert run.end() == (0, b"new", EARLIER_RESULT)


@pytest.mark.parametrize("acknowledged_first", [True, False], ids=["behind", "before"])
def test_retained_result_that_comes_around_the_acknowledgement_is_not_withdrawn(
        pexctl, peer, acknowledged_first):
    run = pexctl.start("submit", *options_to(peer), "--id", "7", "greet")
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers())
    old = retained("out/cmd/7", b"old")
    if acknowledged_first:
        subscribed.accept_request(old)
    else:
        sent = subscribed.connection.expect_packet()
        subscribed.connection.send(old, puback(int.from_bytes(sent[REQUEST_MID], "big")))
    run.wait_for_stderr(EARLIER_RESULT)
    run.signal(signal.SIGINT)
    subscribed.connection.expect(DISCONNECT)
    assert run.end() == (
        130, b"", EARLIER_RESULT +
        "pexctl: Interrupted. Job 7 is left as it is. Until it has a result, `pexctl attach "
        f"-h 127.0.0.1 -p {peer.port} 7` shows the earlier one.\n")


def told_once(peer):
    return (f"pexctl: Lost the connection to broker {peer.name}. The connection was lost.\n"
            f"pexctl: Connected to broker {peer.name} again\n")


def test_retained_result_on_a_later_connection_may_be_the_answer(pexctl, peer):
    run = pexctl.start("submit", *options_to(peer), "--id", "7", "greet")
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers())
    subscribed.accept_request()
    subscribed.connection.finish()
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers(), retained("out/cmd/7", b"new"))
    subscribed.accept_withdrawal()
    assert run.end() == (0, b"new", told_once(peer))


def test_earlier_result_is_not_the_answer_on_a_later_connection_either(pexctl, peer):
    run = pexctl.start("submit", *options_to(peer), "--id", "7", "greet")
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers())
    subscribed.accept_request(retained("out/cmd/7", b"old"))
    run.wait_for_stderr(EARLIER_RESULT)
    subscribed.connection.finish()
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers(), retained("out/cmd/7", b"old"),
                               publish("out/cmd/7", b"new"))
    subscribed.accept_withdrawal()
    assert run.end() == (0, b"new", EARLIER_RESULT + told_once(peer))


def test_result_of_a_random_job_id_is_the_answer_even_if_it_is_retained(pexctl, peer):
    """A broker may look its retained messages up after it has taken the request."""
    run = pexctl.start("submit", *options_to(peer), "greet")
    subscribed = Subscribed(peer)
    topic = list(subscribed.mids)[0]
    subscribed.connection.send(subscribed.answers())
    sent = subscribed.connection.expect_packet()
    mid = sent[-len(request("greet")) - 2:-len(request("greet"))]
    subscribed.connection.send(puback(int.from_bytes(mid, "big")), retained(topic, b"answer"))
    subscribed.accept_withdrawal(topic[len("out/cmd/"):])
    assert run.end() == (0, b"answer", "")


def test_answers_to_subscriptions_may_come_in_any_order(pexctl, peer):
    run = pexctl.start("attach", "--keep", *options_to(peer), "7")
    subscribed = Subscribed(peer)
    # That of the requests is refused, which does not matter.
    subscribed.connection.send(subscribed.answers(1, REFUSED_SUBSCRIPTION),
                               retained("out/cmd/7", b"answer"))
    assert run.end() == (0, b"answer", "")


def test_messages_that_wait_at_the_end_are_not_reported_as_lost(pexctl, peer):
    run = pexctl.start("submit", "--keep", *options_to(peer), "--id", "7", "greet")
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers())
    sent = subscribed.connection.expect_packet()
    # pexctl reads them all while it waits for the acknowledgement, and needs the first one only.
    subscribed.connection.send(publish("out/cmd/7", b"answer"), publish("in/cmd/7", sent[14:]) * 3,
                               puback(int.from_bytes(sent[REQUEST_MID], "big")))
    assert run.end() == (0, b"answer", "")


def test_messages_that_wait_when_the_connection_breaks_are_not_lost(pexctl, peer):
    run = pexctl.start("submit", "--keep", *options_to(peer), "--id", "7", "greet")
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers())
    sent = subscribed.connection.expect_packet()
    run.signal(signal.SIGSTOP)  # so that it finds all of this at once
    subscribed.connection.send(publish("in/cmd/7", sent[14:]) * 3, publish("out/cmd/7", b"answer"),
                               puback(int.from_bytes(sent[REQUEST_MID], "big")))
    subscribed.connection.half_close()
    run.signal(signal.SIGCONT)
    assert run.end() == (
        0, b"answer",
        f"pexctl: Lost the connection to broker {peer.name}. The connection was lost.\n")


@pytest.mark.parametrize("answered, when", [
    (True, "within seconds each time"),
    (False, "before the broker has answered the subscriptions"),
], ids=["silent", "subscribing"])
def test_connection_that_breaks_repeatedly_is_told_once(pexctl, peer, answered, when):
    run = pexctl.start("attach", "--keep", *options_to(peer), "7")
    for attempt in range(4):
        subscribed = Subscribed(peer)
        if answered or attempt == 0:
            subscribed.connection.send(subscribed.answers())
            subscribed.connection.wait_until_read()
        subscribed.connection.finish()
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers(), retained("out/cmd/7", b"answer"))
    assert run.end() == (
        0, b"answer",
        told_once(peer) + f"pexctl: The connection to broker {peer.name} breaks repeatedly, "
        f"{when}\n")


def test_connection_that_lasts_after_others_that_broke_is_told(pexctl, peer):
    run = pexctl.start("attach", "--keep", *options_to(peer), "7")
    for _ in range(3):
        subscribed = Subscribed(peer)
        subscribed.connection.send(subscribed.answers())
        subscribed.connection.wait_until_read()
        subscribed.connection.finish()
    subscribed = Subscribed(peer)
    subscribed.connection.send(subscribed.answers())
    repeatedly = (f"pexctl: The connection to broker {peer.name} breaks repeatedly, within seconds "
                  "each time\n")
    run.wait_for_stderr(repeatedly + f"pexctl: Connected to broker {peer.name} again\n")
    subscribed.connection.send(publish("out/cmd/7", b"answer"))
    assert run.end().status == 0


def test_request_at_which_the_broker_closes_each_connection_is_given_up(pexctl):
    def close_at_the_request(connection):
        connection.expect_packet()
        connection.send(connack())
        packet = connection.expect_packet()
        while packet[0] >> 4 == 8:  # a subscription
            connection.send(suback(int.from_bytes(packet[2:4], "big"), 1))
            packet = connection.expect_packet()
        connection.finish()

    with TreatingBroker(close_at_the_request) as broker:
        name = f"127.0.0.1:{broker.port}"
        run = pexctl("submit", *options_to(broker), "--id", "7", "greet")
    assert run == (
        3, b"",
        f"pexctl: Lost the connection to broker {name}. The connection was lost.\n"
        f"pexctl: Connected to broker {name} again\n"
        f"pexctl: Broker {name} ends the connection at a message of QoS 1\n"
        f"pexctl: The connection to broker {name} breaks repeatedly, before the broker has "
        "acknowledged the message on in/cmd/7\n"
        f"pexctl: Broker {name} ended 5 connections in a row at the message on in/cmd/7 (24 bytes)."
        " The message is dropped\n"
        f"pexctl: Broker {name} does not take the message on in/cmd/7.\n")
