"""A daemon that runs out of descriptors waits for better times."""

import resource
import sys

import pytest

import harness
from harness import Service, request
from scripted_broker import puback, publish

pytest_plugins = ["scripted_fixtures"]

# Opens descriptors up to a number and becomes another command.
CROWDED = """
import os, sys
null, last = os.open(os.devnull, os.O_RDONLY), int(sys.argv[1])
while os.dup(null) < last:
    pass
for descriptor in range(3, last + 1):
    os.set_inheritable(descriptor, True)
os.execvp(sys.argv[2], sys.argv[2:])
"""


def run_job(connection):
    connection.send(publish("in/cmd/1", request("ping"), qos=1, mid=9))
    connection.expect(puback(9))
    connection.acknowledge(connection.result("out/cmd/1", b"pong"))


def test_no_descriptor_left(peer, daemon, scripts):
    """The connection ends and the daemon may open no other one. Later it may again."""
    scripts.add("ping", "return 'pong'")
    connection = peer.accept_and_serve()
    before = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (3, before[1]))
    connection.finish()
    daemon.wait_for_record(f"Couldn't reach broker {peer.name}. Too many open files")
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, before)
    run_job(peer.accept_and_serve())


@pytest.mark.parametrize("last_taken", [*range(1017, 1025), 1100])
def test_descriptors_about_the_reach_of_select(tmp_path, peer, scripts, monkeypatch, last_taken):
    """The daemon inherits so many descriptors that its own get numbers about or above 1023, the
    last that select(2) can wait for. It serves with each of them."""
    hard_limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    if hard_limit != resource.RLIM_INFINITY and hard_limit < 1200:
        pytest.skip(f"the limit of descriptors is {hard_limit}")
    scripts.add("ping", "return 'pong'")
    monkeypatch.setattr(harness, "WRAPPER", [
        "sh", "-c", 'ulimit -n 1200; exec "$@"', "sh",
        sys.executable, "-c", CROWDED, str(last_taken), *harness.WRAPPER])
    service = Service(tmp_path / "daemon", settings={"script.search_dirs": scripts.directory,
                                                     "server_comms.port": peer.port})
    try:
        service.start()
        run_job(peer.accept_and_serve())
        service.stop()
    finally:
        service.finish()
