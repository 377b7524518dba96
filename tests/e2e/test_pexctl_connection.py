"""pexctl and its broker: where it looks for it, how it logs in, and what it says when it fails."""

import contextlib
import os
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import threading
import time

import pytest

from harness import SHORT_TIMEOUT, Broker, Service, free_port, wait_until
from scripted_broker import (NOT_AUTHORISED, REFUSED_SUBSCRIPTION, connack, options_to, puback,
                             publish, suback)
from test_lifetime import Listener

pytest_plugins = ["scripted_fixtures"]

NOTHING_THERE = (0, b"", "pexctl: The broker holds no results and no retained requests.\n")


def run_openssl(directory, *arguments):
    subprocess.run(["openssl", *arguments], cwd=directory, check=True, capture_output=True)


@pytest.fixture(scope="module")
def keys(tmp_path_factory):
    """A directory of keys and certificates: a broker's for 127.0.0.1, another's for a host that is
    not here, a user's, and one that has expired. Each is its own authority."""
    directory = tmp_path_factory.mktemp("keys")
    for name, host in [("broker", "IP:127.0.0.1"), ("other", "DNS:other.invalid"),
                       ("user", "DNS:user.invalid")]:
        run_openssl(directory, "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-noenc", "-keyout", name + ".key", "-out",
                    name + ".pem", "-subj", "/CN=" + name, "-days", "2", "-addext",
                    "subjectAltName=" + host)
    (directory / "ca.conf").write_text(
        "[ca]\ndefault_ca = this\n[this]\nnew_certs_dir = .\ndatabase = index\nserial = serial\n"
        "default_md = sha256\npolicy = names\nx509_extensions = more\n[names]\n"
        "commonName = supplied\n[more]\nsubjectAltName = IP:127.0.0.1\n")
    (directory / "index").touch()
    (directory / "serial").write_text("01\n")
    run_openssl(directory, "req", "-new", "-key", "broker.key", "-subj", "/CN=expired", "-out",
                "expired.csr")
    run_openssl(directory, "ca", "-batch", "-config", "ca.conf", "-selfsign", "-keyfile",
                "broker.key", "-in", "expired.csr", "-out", "expired.pem", "-startdate",
                "20200101000000Z", "-enddate", "20200102000000Z")
    (directory / "expired.key").symlink_to("broker.key")
    (directory / "authorities").mkdir()
    shutil.copy(directory / "broker.pem", directory / "authorities")
    run_openssl(directory, "rehash", "authorities")
    return directory


@pytest.fixture
def tls(broker, keys):
    """Turns `broker` into one that speaks TLS with the certificate of that name."""
    def restart(name, extra_config=""):
        broker.stop()
        broker.extra_config = (f"certfile {keys}/{name}.pem\nkeyfile {keys}/{name}.key\n"
                               f"{extra_config}\n")
        broker.start()

    return restart


@pytest.mark.parametrize("command", [["submit", "greet"], ["attach", "7"], ["withdraw", "7"],
                                     ["list"]], ids=lambda command: command[0])
def test_broker_that_is_not_there_is_told_at_once(pexctl, command):
    port = free_port()
    assert pexctl(*command, "-W", "0", "-h", "127.0.0.1", "-p", str(port)) == (
        3, b"", f"pexctl: Couldn't reach broker 127.0.0.1:{port}. Connection refused\n")


def test_host_that_has_no_address_is_told(pexctl):
    assert pexctl("list", "-h", "nosuch.invalid") == (
        3, b"", "pexctl: Couldn't reach broker nosuch.invalid:1883. Lookup error.\n")


def test_unix_socket_that_is_not_there_is_told(pexctl):
    assert pexctl("list", "-h", "/nonexistent/socket", "-p", "1883") == (
        3, b"", "pexctl: Couldn't reach broker /nonexistent/socket. No such file or directory\n")


def test_broker_that_accepts_and_never_answers_is_given_up(pexctl, peer):
    run = pexctl.start("list", "-W", SHORT_TIMEOUT, *options_to(peer))
    peer.accept().expect_packet()
    assert run.end() == (
        3, b"", f"pexctl: Couldn't reach broker {peer.name} in time.\n")


def test_connection_that_hangs_is_given_up(pexctl):
    with Listener() as listener:
        run = pexctl.start("list", "-W", SHORT_TIMEOUT, *options_to(listener))
        assert run.end() == (
            3, b"", f"pexctl: Couldn't reach broker 127.0.0.1:{listener.port} in time.\n")


def test_connection_that_hangs_can_be_interrupted(pexctl):
    with Listener() as listener:
        run = pexctl.start("submit", "-W", "0", *options_to(listener), "greet")
        wait_until(lambda: listener.is_being_called_by(run), "the connection attempt")
        run.signal(signal.SIGINT)
        assert run.end() == (130, b"", "pexctl: Interrupted.\n")


def test_broker_that_hangs_up_without_an_answer_is_told(pexctl, peer):
    run = pexctl.start("list", *options_to(peer))
    connection = peer.accept()
    connection.expect_packet()
    connection.close()
    assert run.end() == (
        3, b"",
        f"pexctl: Broker {peer.name} closed the connection without an answer. The connection was "
        "lost.\n")


def test_broker_that_refuses_is_told(pexctl, peer):
    run = pexctl.start("list", *options_to(peer))
    connection = peer.accept()
    connection.expect_packet()
    connection.send(connack(NOT_AUTHORISED))
    assert run.end() == (
        3, b"",
        f"pexctl: Broker {peer.name} refused the connection. Connection Refused: not authorised.\n")


def subscriptions(connection, *granted):
    """Answers as many subscriptions, and returns their topics."""
    topics = []
    for each in granted:
        packet = connection.expect_packet()
        connection.send(suback(int.from_bytes(packet[2:4], "big"), each))
        topics.append(packet[6:-1].decode())
    return topics


def test_broker_that_refuses_the_subscription_to_results_is_told(pexctl, peer):
    run = pexctl.start("attach", *options_to(peer), "7")
    connection = peer.accept()
    connection.expect_packet()
    connection.send(connack())
    assert subscriptions(connection, REFUSED_SUBSCRIPTION) == ["out/cmd/7"]
    assert run.end() == (
        3, b"", f"pexctl: Broker {peer.name} refused the subscription to out/cmd/7\n")


@pytest.mark.parametrize("messages, outcome", [
    ([("in/cmd/7", b""), ("out/cmd/7", b"")],
     (1, b"", "pexctl: Job 7 was withdrawn by another client.\n")),
    ([("out/cmd/7", b"first"), ("out/cmd/7", b"second")], (0, b"first", "")),
    ([("out/cmd/7", b"answer"), ("in/cmd/7", b"")], (0, b"answer", "")),
], ids=["withdrawn", "two-results", "result-and-withdrawal"])
def test_messages_that_come_while_pexctl_subscribes_count(pexctl, peer, messages, outcome):
    run = pexctl.start("attach", "--keep", *options_to(peer), "7")
    connection = peer.accept()
    connection.expect_packet()
    connection.send(connack())
    assert subscriptions(connection, 1) == ["out/cmd/7"]
    connection.send(*(publish(topic, payload) for topic, payload in messages))
    assert subscriptions(connection, 1) == ["in/cmd/7"]
    assert run.end() == outcome


def test_broker_that_refuses_the_subscription_after_a_lost_connection_is_told(pexctl, peer):
    run = pexctl.start("submit", *options_to(peer), "--id", "7", "greet")
    connection = peer.accept()
    connection.expect_packet()
    connection.send(connack())
    subscriptions(connection, 1, 1)
    connection.expect_packet()  # the request
    connection.reset()
    connection = peer.accept()
    connection.expect_packet()
    connection.send(connack())
    subscriptions(connection, REFUSED_SUBSCRIPTION)
    run.wait_for_stderr(f"pexctl: Broker {peer.name} refused the subscription to out/cmd/7\n")
    run.signal(signal.SIGINT)
    assert run.end().status == 130


def test_broker_may_refuse_the_subscription_to_requests(pexctl, peer):
    run = pexctl.start("submit", *options_to(peer), "--id", "7", "--detach", "greet")
    connection = peer.accept()
    connect = connection.expect_packet()
    assert connect[2:12] == b"\x00\x04MQTT\x04\x02\x00\x00"  # a clean session, no keepalive
    connection.send(connack())
    assert subscriptions(connection, 1, REFUSED_SUBSCRIPTION) == ["out/cmd/7", "in/cmd/7"]
    published = connection.expect_packet()
    connection.send(puback(int.from_bytes(published[12:14], "big")))
    assert run.end() == (0, b"7\n", "")


def test_request_that_the_broker_has_not_confirmed_may_have_been_sent(pexctl, peer):
    run = pexctl.start("submit", *options_to(peer), "--id", "7", "greet")
    connection = peer.accept()
    connection.expect_packet()
    connection.send(connack())
    subscriptions(connection, 1, 1)
    connection.expect_packet()
    run.signal(signal.SIGINT)
    status, output, stderr = run.end()
    assert (status, output) == (130, b"")
    assert stderr.endswith(
        "pexctl: Interrupted. Job 7 may have been sent. Look for its result: pexctl attach "
        f"-h 127.0.0.1 -p {peer.port} 7\n"), stderr


def test_request_is_sent_again_after_a_lost_connection(pexctl, peer):
    run = pexctl.start("submit", *options_to(peer), "--detach", "--id", "7", "greet")
    for attempt in range(2):
        connection = peer.accept()
        connection.expect_packet()
        connection.send(connack())
        if attempt == 0:
            subscriptions(connection, 1, 1)
        published = connection.expect_packet()
        while published[0] >> 4 != 3:  # the subscriptions, in front or behind
            published = connection.expect_packet()
        assert published[4:12] == b"in/cmd/7"
        if attempt == 0:
            connection.reset()
    connection.send(puback(int.from_bytes(published[12:14], "big")))
    status, output, stderr = run.end()
    assert (status, output) == (0, b"7\n")
    assert stderr.startswith(f"pexctl: Lost the connection to broker {peer.name}. "), stderr


def test_own_withdrawal_that_comes_back_at_the_end_is_not_told_as_lost(pexctl, peer):
    """An interrupted pexctl waits for what it has sent, and the broker sends that to it, too."""
    run = pexctl.start("withdraw", *options_to(peer), "7")
    connection = peer.accept()
    connection.expect_packet()
    connection.send(connack())
    subscriptions(connection, 1, 1)
    connection.expect_packet()  # the withdrawal, which is never acknowledged
    run.signal(signal.SIGINT)
    with contextlib.suppress(OSError):  # when it has hung up
        while run.process.poll() is None:
            connection.send(publish("in/cmd/7", b""))
            time.sleep(0.05)
    outcome = run.end()
    assert outcome.status == 130
    assert [line.split(". ")[0] for line in outcome.stderr.splitlines()] == [
        "pexctl: 1 messages were not acknowledged by the broker and may be lost",
        "pexctl: Interrupted"]


def test_broker_on_a_unix_socket(tmp_path, pexctl):
    # Not below tmp_path, since the path of a socket has room for 107 bytes only.
    directory = tempfile.mkdtemp()
    path = os.path.join(directory, "broker")
    local = Broker(tmp_path, f"listener 0 {path}")
    try:
        local.start()
        assert pexctl("list", "-h", path) == NOTHING_THERE
        assert pexctl("list", "-h", path, "-p", "1") == NOTHING_THERE
        assert pexctl("list", "-h", "broker", "-p", "0").status == 3
        status, _, stderr = pexctl("attach", "-h", path, "-W", SHORT_TIMEOUT, "7")
        assert (status, stderr) == (
            4, "pexctl: No answer in time. Job 7 is left as it is. Wait for its result: "
            f"pexctl attach -h {path} 7\n")
    finally:
        local.kill()
        shutil.rmtree(directory)


def test_host_is_localhost_unless_given(broker, pexctl):
    assert pexctl("list", "-p", str(broker.port)) == NOTHING_THERE


def test_port_is_1883_unless_given(pexctl):
    # Nobody answers on this address of the loopback interface.
    assert pexctl("list", "-h", "127.18.83.1") == (
        3, b"", "pexctl: Couldn't reach broker 127.18.83.1:1883. Connection refused\n")
    assert pexctl("list", "-h", "127.18.83.1", "--capath", "/etc").stderr == (
        "pexctl: Couldn't reach broker 127.18.83.1:8883. Connection refused\n")


def configuration(tmp_path, **settings):
    return Service(tmp_path / "dock", settings={f"server_comms.{key}": value
                                                for key, value in settings.items()}).config_file


def test_configuration_of_the_dock_names_the_broker(broker, pexctl, tmp_path):
    config = configuration(tmp_path, host="127.0.0.1", port=broker.port)
    assert pexctl("list", "--config", config) == NOTHING_THERE


def test_options_win_over_the_configuration(broker, pexctl, tmp_path):
    config = configuration(tmp_path, host="nosuch.invalid", port=broker.port)
    assert pexctl("list", "--config", config, "-h", "127.0.0.1") == NOTHING_THERE
    config = configuration(tmp_path, host="127.0.0.1", port=1)
    assert pexctl("list", "--config", config, "-p", str(broker.port)) == NOTHING_THERE


def test_host_wins_over_a_unix_socket_in_the_configuration(pexctl, tmp_path):
    config = configuration(tmp_path, host="/nonexistent/socket", port=0)
    assert pexctl("list", "--config", config, "-h", "127.18.83.1").stderr == (
        "pexctl: Couldn't reach broker 127.18.83.1:1883. Connection refused\n")
    assert pexctl("list", "--config", config).stderr == (
        "pexctl: Couldn't reach broker /nonexistent/socket. No such file or directory\n")
    config = configuration(tmp_path, host="nosuch-socket", port=0)
    assert pexctl("list", "--config", config).stderr == (
        "pexctl: Couldn't reach broker nosuch-socket. No such file or directory\n")


def test_configuration_that_does_not_load_is_wrong_usage(pexctl):
    assert pexctl("list", "--config", "nosuch.properties") == (
        2, b"", "pexctl: Config file: nosuch.properties failed to load.\n")


def test_configuration_without_a_broker_means_the_daemons_defaults(pexctl, tmp_path):
    config = configuration(tmp_path, host=None, port=None)
    assert pexctl("list", "--config", config, "-h", "127.18.83.1").stderr == (
        "pexctl: Couldn't reach broker 127.18.83.1:1883. Connection refused\n")


@pytest.fixture
def passwords(broker):
    """Has `broker` ask for the name "server" and the password "open sesame"."""
    file = broker.directory / "passwords"
    file.touch()
    subprocess.run(["mosquitto_passwd", "-b", file, "server", "open sesame"], check=True,
                   capture_output=True)
    broker.stop()
    broker.extra_config = f"allow_anonymous false\npassword_file {file}"
    broker.start()


def test_name_and_password_open_the_broker(passwords, remote):
    assert remote("list", "-u", "server", "-P", "open sesame") == NOTHING_THERE
    assert remote("list", "--username", "server", "--pw", "open sesame") == NOTHING_THERE


@pytest.mark.parametrize("options", [
    [], ["-u", "server"], ["-u", "server", "-P", "wrong"], ["-u", "nobody", "-P", "open sesame"],
])
def test_wrong_name_or_password_is_refused(passwords, broker, remote, options):
    assert remote("list", *options) == (
        3, b"", f"pexctl: Broker 127.0.0.1:{broker.port} refused the connection. Connection "
        "Refused: not authorised.\n")


def test_password_is_not_shown_in_commands_for_users(passwords, broker, remote):
    _, _, stderr = remote("attach", "-u", "server", "-P", "open sesame", "-W", SHORT_TIMEOUT, "7")
    assert stderr == (
        "pexctl: No answer in time. Job 7 is left as it is. Wait for its result: pexctl attach "
        f"-h 127.0.0.1 -p {broker.port} -u server -P ... 7\n")


def test_tls_with_a_known_authority(tls, remote, keys):
    tls("broker")
    assert remote("list", "--cafile", keys / "broker.pem") == NOTHING_THERE
    assert remote("list", "--capath", keys / "authorities") == NOTHING_THERE


def couldnt_reach(broker):
    return f"pexctl: Couldn't reach broker 127.0.0.1:{broker.port}. "


NOT_TRUSTED = "Its certificate is not trusted, or not valid now."
NO_HANDSHAKE = "It ended the TLS handshake: it may know no TLS at this port, or "


@pytest.mark.parametrize("certificate, authority, words", [
    ("broker", "other", NOT_TRUSTED),
    ("expired", "expired", NOT_TRUSTED),
    ("other", "other", "Its certificate names another host."),
])
def test_tls_with_a_wrong_certificate_says_what_is_wrong(tls, broker, remote, keys, certificate,
                                                         authority, words):
    tls(certificate)
    assert remote("list", "--cafile", keys / f"{authority}.pem") == (
        3, b"", couldnt_reach(broker) + words + "\n")


def test_tls_with_a_certificate_for_another_host_may_be_allowed(tls, broker, remote, keys):
    tls("other")
    assert remote("attach", "--insecure", "--cafile", keys / "other.pem", "-W", SHORT_TIMEOUT,
                  "7") == (
        4, b"",
        "pexctl: No answer in time. Job 7 is left as it is. Wait for its result: pexctl attach "
        f"-h 127.0.0.1 -p {broker.port} --cafile {keys}/other.pem --insecure 7\n")


def test_tls_to_a_broker_without_it_fails(broker, remote, keys):
    assert remote("list", "--cafile", keys / "broker.pem") == (
        3, b"", couldnt_reach(broker) + NO_HANDSHAKE + "want a certificate.\n")


def test_tls_with_a_file_that_holds_no_certificate_names_it(tls, broker, remote, keys, tmp_path):
    tls("broker")
    (tmp_path / "empty.pem").touch()
    status, output, stderr = remote("list", "--cafile", tmp_path / "empty.pem")
    assert (status, output) == (3, b"")
    assert stderr.startswith(couldnt_reach(broker)) and f"{tmp_path}/empty.pem" in stderr
    assert len(stderr.splitlines()) == 1


def test_no_tls_to_a_broker_with_it_fails(tls, remote):
    tls("broker")
    status, output, _ = remote("list")
    assert (status, output) == (3, b"")


def test_broker_may_ask_for_a_certificate(tls, broker, remote, keys):
    tls("broker", f"cafile {keys}/user.pem\nrequire_certificate true")
    known = ["--cafile", keys / "broker.pem"]
    assert remote("list", *known, "--cert", keys / "user.pem", "--key",
                  keys / "user.key") == NOTHING_THERE
    # The broker says what it wants, but a reset of the connection may overtake that.
    told = couldnt_reach(broker)
    assert remote("list", *known) in [
        (3, b"", told + "It wants a certificate: give --cert and --key.\n"),
        (3, b"", told + NO_HANDSHAKE + "want a certificate.\n")]
    assert remote("list", *known, "--cert", keys / "other.pem", "--key", keys / "other.key") in [
        (3, b"", told + "It does not accept the certificate.\n"),
        (3, b"", told + NO_HANDSHAKE + "not accept the certificate.\n")]


def test_tls_1_2_wants_a_certificate_with_less_to_say(pexctl, keys):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.verify_mode = ssl.CERT_REQUIRED
    context.load_cert_chain(keys / "broker.pem", keys / "broker.key")
    context.load_verify_locations(keys / "user.pem")
    with socket.create_server(("127.0.0.1", 0)) as listener:
        def refuse():
            with contextlib.suppress(ssl.SSLError), listener.accept()[0] as connection:
                context.wrap_socket(connection, server_side=True)

        thread = threading.Thread(target=refuse)
        thread.start()
        port = listener.getsockname()[1]
        assert pexctl("list", "-h", "127.0.0.1", "-p", str(port), "--cafile",
                      keys / "broker.pem") == (
            3, b"", f"pexctl: Couldn't reach broker 127.0.0.1:{port}. {NO_HANDSHAKE}"
            "want a certificate.\n")
        thread.join()


@pytest.mark.parametrize("option", ["--cafile", "--capath"])
def test_authority_that_is_not_there_is_named(broker, remote, option):
    status, output, stderr = remote("list", option, "/nonexistent")
    assert (status, output) == (2, b"")
    assert "/nonexistent: No such file or directory" in stderr


@pytest.mark.parametrize("cert, key", [("nosuch", "user.key"), ("user.pem", "nosuch")])
def test_certificate_and_key_that_are_not_there_are_named(broker, remote, keys, cert, key):
    status, output, stderr = remote("list", "--cafile", keys / "broker.pem", "--cert", keys / cert,
                                    "--key", keys / key)
    assert (status, output) == (2, b"")
    assert f"{keys}/nosuch: No such file or directory" in stderr
