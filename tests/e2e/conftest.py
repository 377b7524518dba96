"""The fixtures; harness.py tells how to use them."""

import contextlib
import os

import pytest

from harness import Broker, Pexctl, Scripts, Server, Service, WaitingJob


def pytest_collection_modifyitems(config, items):
    """With PEX_ONE_OF_EACH set, each test runs with the first of its parameters only: for builds
    under which everything takes many times as long."""
    if "PEX_ONE_OF_EACH" in os.environ:
        first = {}
        for item in items:
            first.setdefault((item.path, item.originalname), item)
        config.hook.pytest_deselected(items=[item for item in items
                                             if item not in first.values()])
        items[:] = first.values()


@pytest.fixture
def broker_config():
    return ""


@pytest.fixture
def broker(tmp_path, broker_config):
    private = Broker(tmp_path, broker_config)
    try:
        yield private.start()
    finally:
        private.kill()


@pytest.fixture
def scripts(tmp_path):
    return Scripts(tmp_path / "scripts")


@pytest.fixture
def new_service(tmp_path, broker, scripts):
    with contextlib.ExitStack() as endings:
        def make(settings=(), **options):
            directory = tmp_path / f"service-{len(made)}"
            service = Service(directory, options.pop("broker", broker),
                              {"script.search_dirs": scripts.directory, **dict(settings)},
                              **options)
            made.append(service)
            endings.callback(service.finish)
            return service

        made = []
        yield make


@pytest.fixture
def service(new_service):
    return new_service().start_up()


@pytest.fixture
def server(broker):
    connected = Server(broker)
    yield connected
    connected.close()


@pytest.fixture
def waiting_job(scripts, tmp_path):
    job = WaitingJob(scripts, tmp_path)
    yield job
    job.release()


@pytest.fixture
def pexctl(tmp_path):
    command = Pexctl(tmp_path / "user")
    yield command
    command.finish()


@pytest.fixture
def remote(tmp_path, broker):
    command = Pexctl(tmp_path / "user", broker)
    yield command
    command.finish()
