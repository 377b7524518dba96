"""Fixtures for tests in which the broker is scripted. A module takes them in by

    pytest_plugins = ["scripted_fixtures"]
"""

import pytest

from harness import Service
from scripted_broker import ScriptedBroker
from scripted_job import GatedJob


@pytest.fixture
def peer():
    """A ScriptedBroker."""
    with ScriptedBroker() as broker:
        yield broker


@pytest.fixture
def daemon(tmp_path, peer, scripts):
    """A started Service whose broker is `peer`."""
    service = Service(tmp_path / "daemon", settings={"script.search_dirs": scripts.directory,
                                                     "server_comms.port": peer.port})
    try:
        yield service.start()
    finally:
        service.finish()


@pytest.fixture
def gated(scripts):
    """A GatedJob. To be named after the daemon's fixture, so that it ends before the daemon must.
    """
    job = GatedJob(scripts)
    yield job
    job.abandon()
