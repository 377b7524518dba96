"""pexctl check: what it prints, and its exit status. Unit tests have the findings themselves."""

import pytest

from harness import Service


@pytest.fixture
def dock(tmp_path, scripts):
    """Makes a dock's configuration, which is good but for the given settings."""
    def make(**settings):
        (tmp_path / "dock").mkdir(exist_ok=True)
        return Service(tmp_path / "dock", settings={
            "script.search_dirs": scripts.directory,
            **{key.replace("__", "."): value for key, value in settings.items()}}).config_file

    scripts.add("greet", "return 'Hello'")
    return make


def test_good_set_up(pexctl, dock, scripts, tmp_path):
    scripts.add("other", "error('is not run')")
    assert pexctl("check", dock()) == (
        0, b"Nothing to object to. Script directories: 1, scripts: 2\n", "")
    assert not (tmp_path / "dock/pex-command.log").exists()
    assert list(pexctl.temporary.iterdir()) == []


def test_warnings_alone_are_no_failure(pexctl, dock, scripts):
    config = dock(script__search_dirs=f"{scripts.directory}:{scripts.directory}",
                  server_comms__prot="1883")
    status, report, stderr = pexctl("check", config)
    assert (status, stderr) == (0, "")
    lines = report.decode().splitlines()
    assert len(lines) == 2
    assert all(line.startswith(f"warning  {config}:") for line in lines), lines
    assert "server_comms.prot" in lines[0] + lines[1]


def test_errors_come_first_and_are_a_failure(pexctl, dock, scripts):
    broken = scripts.add("broken", "return return")
    config = dock(server_comms__prot="1883", script__staging_dir="/nonexistent")
    status, report, stderr = pexctl("check", config)
    assert (status, stderr) == (1, "")
    lines = report.decode().splitlines()
    assert [line.split()[0] for line in lines] == ["error", "error", "warning"]
    assert lines[0].startswith("error    /nonexistent: ")
    assert lines[1].startswith(f"error    {broken}: ")
    assert "unexpected symbol near 'return'" in lines[1]
    assert lines[2].startswith(f"warning  {config}:")


def test_before_a_start_the_configuration_alone_counts(pexctl, dock, scripts):
    scripts.add("broken", "return return")
    assert pexctl("check", "--config-only", dock()) == (
        0, b"Nothing to object to. Script directories: 1\n", "")
    config = dock(script__staging_dir="/nonexistent")
    assert pexctl("check", "--config-only", config) == (
        0, b"warning  /nonexistent: The staging directory: No such file or directory\n", "")
    config = dock(server_comms__port="x")
    assert pexctl("check", "--config-only", config) == (
        1, f"error    {config}:7: \"x\" is no whole number: the service would use 1883.\n".encode(),
        "")


def test_configuration_that_cannot_be_read_is_an_error(pexctl):
    status, report, stderr = pexctl("check", "nosuch.properties")
    assert (status, stderr) == (1, "")
    assert report.startswith(b"error    nosuch.properties: "), report
    assert b"No such file or directory" in report


def test_report_that_cannot_be_written_is_told(pexctl, dock):
    with open("/dev/full", "wb") as full:
        status, _, stderr = pexctl("check", dock(), stdout=full)
    assert (status, stderr) == (
        2, "pexctl: Cannot write the answer: No space left on device.\n")
