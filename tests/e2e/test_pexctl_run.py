"""pexctl run: where it looks for a script, what the script finds, and what goes where."""

import os
import re
import signal

import pytest

from harness import Scripts, Service, failure

NOT_FOUND = 'Cannot run job. Script not found "{}.lua"'
RUN_FAILURE = ("Dock command service error. Command script failure, please consult pex-command "
               "logs.")
LOAD_FAILURE = "Dock command service error. Failed to load command script."
TELL_STAGING_DIR = "return pexenv.staging_dir"


@pytest.fixture
def config(tmp_path, scripts):
    """The configuration of a dock that is not running."""
    return Service(tmp_path / "dock", settings={"script.search_dirs": scripts.directory})


@pytest.fixture
def own_scripts(pexctl):
    """The script directory of somebody who has configured none."""
    return Scripts(pexctl.directory / "job_scripts")


def lua_string(raw):
    return "'" + "".join(f"\\{byte:03}" for byte in raw) + "'"


def left_behind(pexctl):
    return sorted(os.listdir(pexctl.temporary))


def test_script_is_found_by_name_in_a_search_directory(pexctl, scripts):
    scripts.add("greet", "return 'Hello, ' .. args.name")
    assert pexctl("run", "--search-dir", scripts.directory, "greet", '{"name": "dock 7"}') == (
        0, b"Hello, dock 7", "")


def test_staging_directory_is_the_one_that_was_named(pexctl, scripts):
    scripts.add("tell", TELL_STAGING_DIR)
    assert pexctl("run", "--search-dir", scripts.directory, "--staging-dir", "any where",
                  "tell") == (0, b"any where", "")


def test_configuration_names_the_directories(pexctl, scripts, config):
    scripts.add("tell", TELL_STAGING_DIR)
    assert pexctl("run", "--config", config.config_file, "tell") == (
        0, os.fsencode(config.staging_dir), "")
    assert not config.log_file.exists()
    assert left_behind(pexctl) == []


def test_directories_of_the_command_line_win_over_those_of_the_configuration(
        pexctl, scripts, config, tmp_path):
    scripts.add("tell", "return 'configured'")
    Scripts(tmp_path / "named").add("tell", TELL_STAGING_DIR)
    assert pexctl("run", "--config", config.config_file, "--search-dir", tmp_path / "named",
                  "--staging-dir", "named", "tell") == (0, b"named", "")
    status, answer, _ = pexctl("run", "--config", config.config_file, "--search-dir",
                               tmp_path / "empty", "tell")
    assert (status, answer) == (1, failure(NOT_FOUND.format("tell")))


def test_first_search_directory_wins_and_all_are_module_paths(pexctl, tmp_path):
    for name in ["one", "two"]:
        Scripts(tmp_path / name).add("which", f"return '{name} ' .. package.path")
    assert pexctl("run", "--search-dir", tmp_path / "one", "--search-dir", f"{tmp_path}/two/",
                  "which", env={"LUA_PATH": "/own/?.lua"}) == (
        0, f"one /own/?.lua;{tmp_path}/one/?.lua;{tmp_path}/two/?.lua".encode(), "")


def test_without_directories_scripts_are_in_job_scripts_of_the_working_directory(pexctl,
                                                                                 own_scripts):
    own_scripts.add("path", "return package.path")
    # No "/" before the "?", as with the daemon.
    assert pexctl("run", "path", env={"LUA_PATH": "/own/?.lua"}) == (
        0, f"/own/?.lua;{own_scripts.directory}?.lua".encode(), "")


@pytest.mark.parametrize("path", ["here.lua", "./here.lua", "../user/here.lua", "sub/there.lua",
                                  "a.b.lua"])
def test_script_is_found_by_its_path(pexctl, path):
    file = pexctl.directory / path
    file.parent.mkdir(exist_ok=True)
    file.write_text("return require('beside')")
    (file.parent / "beside.lua").write_text(f"return 'beside {path}'")
    assert pexctl("run", path) == (0, f"beside {path}".encode(), "")
    assert pexctl("run", file) == (0, f"beside {path}".encode(), "")


def test_directory_of_a_path_comes_first_and_the_others_still_count(pexctl, scripts):
    scripts.add("job", "return 'the wrong one'")
    scripts.add("module", "return 'the module'")
    (pexctl.directory / "job.lua").write_text("return 'the right one and ' .. require('module')")
    assert pexctl("run", "--search-dir", scripts.directory, "./job.lua") == (
        0, b"the right one and the module", "")


@pytest.mark.parametrize("path, reason", [
    ("nosuch.lua", "No such file or directory"),
    ("./nosuch.lua", "No such file or directory"),
    ("loop.lua", "Too many levels of symbolic links"),
    ("./file", "the name of a script file ends in .lua"),
    ("job_scripts/job", "the name of a script file ends in .lua"),
])
def test_path_that_is_no_script_is_wrong_usage(pexctl, own_scripts, path, reason):
    own_scripts.add("job", "return 'must not run'")
    (pexctl.directory / "file").touch()
    (pexctl.directory / "loop.lua").symlink_to("loop.lua")
    assert pexctl("run", path) == (2, b"", f"pexctl: {path}: {reason}\n")


def test_unused_staging_directory_is_removed(pexctl, own_scripts):
    own_scripts.add("tell", "assert(os.execute('test -d ' .. pexenv.staging_dir))"
                            "assert(os.execute('test -w ' .. pexenv.staging_dir))"
                    + TELL_STAGING_DIR)
    status, answer, stderr = pexctl("run", "tell")
    assert (status, stderr) == (0, "")
    assert answer.startswith(os.fsencode(pexctl.temporary) + b"/pexctl-")
    assert left_behind(pexctl) == []


def test_used_staging_directory_is_kept_and_named(pexctl, own_scripts):
    own_scripts.add("keep", "local file = io.open(pexenv.staging_dir .. '/kept', 'w')"
                            "file:write('text') file:close()" + TELL_STAGING_DIR)
    status, answer, stderr = pexctl("run", "keep")
    staging_dir = answer.decode()
    assert (status, stderr) == (0, f"pexctl: The script left files in {staging_dir}\n")
    assert left_behind(pexctl) == [os.path.basename(staging_dir)]
    with open(staging_dir + "/kept") as kept:
        assert kept.read() == "text"


def test_used_staging_directory_of_a_failed_job_is_named_too(pexctl, own_scripts):
    own_scripts.add("keep", "io.open(pexenv.staging_dir .. '/kept', 'w'):close() error('x', 0)")
    status, _, stderr = pexctl("run", "--search-dir", "job_scripts", "keep")
    (kept,) = left_behind(pexctl)
    assert (status, stderr) == (
        1, "ERROR script: failure: x\n"
        "ERROR lua_agent: job_scripts/keep.lua job failed\n"
        f"pexctl: The script left files in {pexctl.temporary}/{kept}\n"
        f"pexctl: The job failed: {RUN_FAILURE}\n")


def test_temporary_directory_that_cannot_be_used_is_named(pexctl, own_scripts):
    own_scripts.add("tell", TELL_STAGING_DIR)
    status, answer, stderr = pexctl("run", "tell", env={"TMPDIR": "/nonexistent"})
    assert (status, answer) == (2, b"")
    assert re.fullmatch(
        "pexctl: /nonexistent/pexctl-......: No such file or directory\n", stderr), stderr


def test_standard_output_carries_the_answer_alone(pexctl, own_scripts):
    own_scripts.add("talk", "print('printed') io.write('written') io.stdout:flush() "
                            "os.execute('echo executed') io.popen('echo opened >&2'):close() "
                            "return 'answered'")
    assert pexctl("run", "talk") == (0, b"answered", "printed\nwrittenexecuted\nopened\n")


def test_children_of_a_script_do_not_hold_standard_output(pexctl, own_scripts):
    # Or whoever reads the answer would wait for the end of what a script leaves behind.
    own_scripts.add("leave", "os.execute('readlink /proc/self/fd/* >held')")
    run = pexctl.start("run", "leave")
    pipe = os.readlink(f"/proc/self/fd/{run.process.stdout.fileno()}")
    assert run.end().status == 0
    held = (pexctl.directory / "held").read_text().split()
    assert pipe.startswith("pipe:") and "/dev/null" in held
    assert pipe not in held


def test_text_that_waits_in_a_buffer_is_written_before_the_end(pexctl, own_scripts):
    own_scripts.add("talk", "io.write('written') return 'answered'")
    assert pexctl("run", "talk") == (0, b"answered", "written")


@pytest.mark.parametrize("exit_call", ["os.exit()", "os.exit(0, true)", "os.exit(7)",
                                       "os.exit(false)"])
def test_os_exit_is_told_and_counts_as_a_failure(pexctl, own_scripts, exit_call):
    own_scripts.add("leave", f"io.write('last words\\n') {exit_call}")
    assert pexctl("run", "leave") == (
        1, b"", "last words\n"
        "pexctl: The script called os.exit. It would have ended the daemon, without a result.\n")
    assert left_behind(pexctl) == []


def test_files_that_os_exit_leaves_open_are_written_as_by_the_daemon(pexctl, own_scripts):
    own_scripts.add("leave", "file = io.open(pexenv.staging_dir .. '/file', 'w') "
                             "file:write('text') os.exit()")
    (pexctl.directory / "staging").mkdir()
    assert pexctl("run", "--staging-dir", "staging", "leave").status == 1
    assert (pexctl.directory / "staging/file").read_text() == "text"


def test_trace_shows_what_the_daemon_would_log(pexctl, own_scripts):
    own_scripts.add("greet", "return 'Hello'")
    assert pexctl("run", "--search-dir", "job_scripts", "--trace", "greet", "5") == (
        0, b"Hello",
        "INFO lua_agent: script directory: job_scripts/\n"
        "INFO commandHandler: Received command request, job_id: pexctl\n"
        "INFO commandHandler: job (pexctl) is to run lua script: greet\n"
        "DEBUG script: luaL_loadfile: job_scripts/greet.lua\n"
        "DEBUG script: loading args onto Lua stack\n"
        "DEBUG pack_to_lua: unsigned: 5\n"
        "DEBUG script: lua_pcall: job_scripts/greet.lua\n"
        "DEBUG script: Returned 1 lua objects\n"
        "DEBUG script: answer type: string length: 5\n"
        "INFO commandHandler: Publishing result  on out/cmd/pexctl\n"
        "                                Payload size: 5\n")


def test_error_of_a_script_is_told(pexctl, own_scripts):
    own_scripts.add("fail", "\nerror('no disk')")
    assert pexctl("run", "--search-dir", "job_scripts", "fail") == (
        1, failure(RUN_FAILURE),
        "ERROR script: failure: job_scripts/fail.lua:2: no disk\n"
        "ERROR lua_agent: job_scripts/fail.lua job failed\n"
        f"pexctl: The job failed: {RUN_FAILURE}\n")


def test_script_that_does_not_load_is_told(pexctl, own_scripts):
    own_scripts.add("broken", "return return")
    assert pexctl("run", "--search-dir", "job_scripts", "broken") == (
        1, failure(LOAD_FAILURE),
        "ERROR script: failure: job_scripts/broken.lua:1: unexpected symbol near 'return'\n"
        "ERROR lua_agent: job_scripts/broken.lua job failed\n"
        f"pexctl: The job failed: {LOAD_FAILURE}\n")


def test_failure_that_a_script_answers_is_a_failure(pexctl, own_scripts):
    answer = b"\x83\xa6status\xc2\xa6script\xa3sum\xa6reason\xa7no args"
    own_scripts.add("sum", f"return {lua_string(answer)}")
    assert pexctl("run", "sum") == (1, answer, "pexctl: The job failed: no args\n")


def test_script_that_is_not_found_has_the_directories_and_near_names_told(pexctl, scripts,
                                                                          tmp_path):
    for name in ["greet", "great", "backup"]:
        scripts.add(name, "return 'must not run'")
    (scripts.directory / "geet.txt").touch()
    assert pexctl("run", "--search-dir", scripts.directory, "--search-dir", tmp_path / "none",
                  "geet") == (
        1, failure(NOT_FOUND.format("geet")),
        f"ERROR lua_agent: opendir({tmp_path}/none/): No such file or directory\n"
        f"pexctl: The job failed: {NOT_FOUND.format('geet')}\n"
        f"pexctl: Looked for geet.lua in {scripts.directory}/ {tmp_path}/none/. "
        "Near names: greet, great\n")


def test_script_that_is_not_found_and_has_no_near_names(pexctl, own_scripts):
    assert pexctl("run", "zzz") == (
        1, failure(NOT_FOUND.format("zzz")),
        f"pexctl: The job failed: {NOT_FOUND.format('zzz')}\n"
        f"pexctl: Looked for zzz.lua in {own_scripts.directory}\n")


def test_script_that_answers_that_another_was_not_found_gets_no_help(pexctl, own_scripts):
    answer = failure(NOT_FOUND.format("other"))
    own_scripts.add("ask", f"return {lua_string(answer)}")
    assert pexctl("run", "ask") == (
        1, answer,
        f"pexctl: The job failed: {NOT_FOUND.format('other')}\n")


def test_empty_answer_is_noted(pexctl, own_scripts):
    own_scripts.add("nothing", "return nil")
    assert pexctl("run", "nothing") == (
        0, b"",
        "pexctl: The answer is empty. A server cannot tell that from a withdrawn job.\n")


def test_configuration_that_does_not_load_is_wrong_usage(pexctl):
    assert pexctl("run", "--config", "nosuch.properties", "greet") == (
        2, b"", "pexctl: Config file: nosuch.properties failed to load.\n")


def test_configuration_without_a_staging_directory_is_wrong_usage(pexctl, scripts, tmp_path):
    scripts.add("tell", TELL_STAGING_DIR)
    config = Service(tmp_path / "dock", settings={"script.search_dirs": scripts.directory,
                                                  "script.staging_dir": None}).config_file
    assert pexctl("run", "--config", config, "tell") == (
        2, b"", f"pexctl: {config}: script.staging_dir has not been configured\n")
    assert pexctl("run", "--config", config, "--staging-dir", "named", "tell") == (
        0, b"named", "")


def test_arguments_that_end_the_daemon_end_pexctl_with_force(pexctl, own_scripts):
    own_scripts.add("job", "return 'must not run'")
    (pexctl.directory / "args").write_bytes(b"\x81\xc0\x01")
    outcome = pexctl("run", "--force", "--msgpack", "args", "job", killed_by=signal.SIGABRT)
    assert outcome.stdout == b""
    assert "PANIC: unprotected error in call to Lua API" in outcome.stderr


def test_answer_that_cannot_be_written_is_told(pexctl, own_scripts):
    own_scripts.add("answer", "return 'answered'")
    with open("/dev/full", "wb") as full:
        assert pexctl("run", "answer", stdout=full) == (
            2, None, "pexctl: Cannot write the answer: No space left on device.\n")


def test_answer_that_is_too_large_for_a_broker_is_told(pexctl, own_scripts):
    own_scripts.add("huge", "return string.rep('x', 268435438)")
    assert pexctl("run", "huge") == (
        1, b"",
        "ERROR commandHandler: Failed to end transaction. Payload too large.\n"
        "pexctl: The answer is too large to be published.\n")


def test_names_of_scripts_are_listed_for_completion(pexctl, own_scripts, scripts, config):
    for name in ["b", "a", "c.d"]:
        own_scripts.add(name, "")
    (own_scripts.directory / "no script").touch()
    scripts.add("configured", "")
    assert pexctl("scripts") == (0, b"a\nb\nc.d\n", "")
    assert pexctl("scripts", "--config", config.config_file) == (0, b"configured\n", "")
    assert pexctl("scripts", "--search-dir", scripts.directory, "--search-dir",
                  own_scripts.directory) == (0, b"a\nb\nc.d\nconfigured\n", "")
    assert pexctl("scripts", "--search-dir", "/nonexistent") == (0, b"", "")


def test_script_that_writes_to_a_closed_pipe_fails_as_in_the_daemon(pexctl, scripts):
    scripts.add("pipe", "local _, why = io.popen('exit 0', 'w'):write(('x'):rep(1000000)) "
                        "return why")
    assert pexctl("run", "--search-dir", scripts.directory, "pipe") == (0, b"Broken pipe", "")


def test_reader_that_hangs_up_ends_the_command_without_a_word(pexctl, scripts):
    scripts.add("greet", "return 'Hello'")
    reader, writer = os.pipe()
    os.close(reader)
    outcome = pexctl("run", "--search-dir", scripts.directory, "greet", stdout=writer,
                     killed_by=signal.SIGPIPE)
    os.close(writer)
    assert outcome == (-signal.SIGPIPE, None, "")
    assert left_behind(pexctl) == []
