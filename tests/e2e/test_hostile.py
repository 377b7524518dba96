"""What gets in: names in requests that lead elsewhere, entries of a script directory that are no
scripts, and clients that mean harm.

Elsewhere: names that match nothing (test_lookup), scripts that may not be read (test_bad_places),
directories and dangling links as scripts (test_scripts), malformed requests (test_protocol).
"""

import json
import os
import signal
import subprocess

import pytest

from harness import REPOSITORY, Service, binary, failure, wait_until, word_size

LOAD_FAILURE = failure("Dock command service error. Failed to load command script.")


def not_found(name):
    """The reason is a C string, so a zero byte ends it."""
    return failure(f'Cannot run job. Script not found "{name}.lua"'.partition("\0")[0])


def loaded(service):
    return [record.message for record in service.records()
            if record.message.startswith("luaL_loadfile: ")]


@pytest.mark.parametrize("name", [
    "../../etc/passwd", "/etc/passwd", "//etc/passwd", "../../../../../../../../etc/passwd\0",
    "sub/../secret", "sub/.", "./", "\0", "\0ping.lua", "../\0", "sub/../ping.lua\0",
    "../ping.lua\0", "a\nb", "ping.lua\n", "\u202eping", "n" * 100000,
    "../" * 30000 + "etc/passwd",
], ids=lambda name: repr(name[:40]))
def test_name_leads_to_no_other_file(service, server, scripts, name):
    scripts.add("ping", "return 'wrong'")
    (scripts.directory / "sub").mkdir()
    (scripts.directory.parent / "ping.lua").write_text("return 'wrong'")
    (scripts.directory / "secret").write_text("return 'wrong'")
    assert server.run("7", name) == not_found(name)
    assert loaded(service) == []


@pytest.mark.parametrize("entry", [".", ".."])
def test_zero_byte_makes_the_dots_names_of_entries_that_do_not_load(service, server, scripts,
                                                                    entry):
    assert server.run("7", entry + "\0") == LOAD_FAILURE
    assert loaded(service) == [f"luaL_loadfile: {scripts.directory}/{entry}"]


def test_name_with_a_line_end_is_a_name_like_others(service, server, scripts):
    scripts.add("a\nb", "return 'found'")
    assert server.run("7", "a\nb") == b"found"


def test_link_to_itself_is_a_load_failure(service, server, scripts):
    path = scripts.directory / "loop.lua"
    path.symlink_to("loop.lua")
    assert server.run("7", "loop") == LOAD_FAILURE
    assert service.records("ERROR") == [
        ("ERROR", "script",
         f"failure: cannot open {path}: Too many levels of symbolic links"),
        ("ERROR", "lua_agent", f"{path} job failed")]


@pytest.fixture
def pipe(scripts):
    path = scripts.directory / "pipe.lua"
    os.mkfifo(path)
    return path


def test_pipe_as_a_script_keeps_jobs_waiting_until_it_is_written_to(service, server, scripts,
                                                                    pipe):
    scripts.add("ping", "return 'pong'")
    server.publish("7", b"\x82\xaalua_script\xa4pipe\xa4args\xc0")
    server.publish("8", b"\x82\xaalua_script\xa4ping\xa4args\xc0")
    service.wait_for_record(f"luaL_loadfile: {pipe}")
    with open(pipe, "w") as writer:  # waits for a reader itself
        writer.write("return 'from the pipe'")
    assert [message.payload for message in server.results(2)] == [b"from the pipe", b"pong"]


def test_daemon_that_waits_for_a_pipe_can_be_stopped(service, server, pipe):
    server.publish("7", b"\x82\xaalua_script\xa4pipe\xa4args\xc0")
    service.wait_for_record(f"luaL_loadfile: {pipe}")
    # The signal may come before the wait begins, and would then end the next job's only.
    def has_ended():
        if service.process.poll() is None:
            service.signal(signal.SIGTERM)
        return service.process.poll() is not None

    wait_until(has_ended, "the daemon to end")
    assert service.wait() == 0
    assert server.retained("out/cmd/7").payload == LOAD_FAILURE
    assert ("ERROR", "script", f"failure: cannot open {pipe}: Interrupted system call") in (
        service.records("ERROR"))


def everybody_can_write(path, where):
    return (0, f"warning  {path}: Everybody can write {where}, and so decide what the service "
            "runs.\n".encode(), "")


def test_check_warns_of_scripts_that_others_can_write(pexctl, tmp_path, scripts):
    script = scripts.add("greet", "return 'Hello'")
    config = Service(tmp_path / "dock", settings={
        "script.search_dirs": scripts.directory}).config_file
    scripts.directory.chmod(0o777)
    assert pexctl("check", config) == everybody_can_write(f"{scripts.directory}/", "here")
    scripts.directory.chmod(0o755)
    script.chmod(0o666)
    assert pexctl("check", config) == everybody_can_write(script, "it")


def test_check_warns_of_a_staging_directory_that_is_searched(pexctl, tmp_path, scripts):
    scripts.add("greet", "return 'Hello'")
    config = Service(tmp_path / "dock", settings={
        "script.search_dirs": scripts.directory,
        "script.staging_dir": scripts.directory}).config_file
    assert pexctl("check", config) == (
        0, f"warning  {config}:8: This is a script directory, too: what a script keeps there could "
        "be run.\n".encode(), "")


def is_slow_build():
    """Under a sanitizer, or on an emulated machine, whose memory is not the daemon's own."""
    if word_size() == 32 or os.environ.get("PEX_COMMAND_WRAPPER"):
        return True
    with open(binary(), "rb") as file:
        return b"libasan" in file.read()


def test_siege_is_held_out(tmp_path):
    """Its own verdict counts; the figures must be there and hang together."""
    if is_slow_build():
        pytest.skip("its memory is not the daemon's own")
    run = subprocess.run(
        [REPOSITORY / "scripts/siege", "4", "--burst", "100", "--report", tmp_path / "report"],
        env={**os.environ, "PEX_COMMAND": binary()}, capture_output=True, text=True, check=False)
    assert run.returncode == 0, run.stdout + run.stderr
    report = json.loads((tmp_path / "report").read_text())
    assert report["failures"] == []
    assert 0 < report["daemon_peak_mib"] <= report["bound_mib"]
    assert all(report["sent"].values()), report["sent"]
    assert report["restarts"] == 4
    honest = report["honest"]
    assert 0 < honest["answered"] == honest["sent"] - honest["dropped"]
    assert 0 < honest["median_ms"] <= honest["p99_ms"] <= honest["longest_ms"]
