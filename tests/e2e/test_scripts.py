"""What a job's script sees, in which forms it may come, and what becomes of one that fails."""

import os

import pytest

from harness import Scripts, failure, request

LOAD_FAILURE = failure("Dock command service error. Failed to load command script.")
RUN_FAILURE = failure(
    "Dock command service error. Command script failure, please consult pex-command logs.")
NOT_FOUND = failure('Cannot run job. Script not found "missing.lua"')


def test_module_paths_are_luas_own_and_then_the_search_directories(new_service, server, scripts,
                                                                   tmp_path):
    scripts.add("paths", "return package.path .. '\\n' .. package.cpath")
    new_service({"script.search_dirs": f"{scripts.directory}:{tmp_path}/two/"},
                env={"LUA_PATH_5_2": "/own/?.lua", "LUA_CPATH_5_2": "/own/?.so"}).start_up()
    assert server.run("7", "paths").decode() == (
        f"/own/?.lua;{scripts.directory}/?.lua;{tmp_path}/two/?.lua\n"
        f"/own/?.so;{scripts.directory}/?.so;{tmp_path}/two/?.so")


def test_module_in_a_search_directory_is_found(service, server, scripts):
    scripts.add("module", "return {answer = 'from the module'}")
    scripts.add("job", "return require('module').answer")
    assert server.run("7", "job") == b"from the module"


def test_luas_own_module_path_comes_first(new_service, server, scripts, tmp_path):
    scripts.add("module", "return 'search directory'")
    scripts.add("job", "return require('module')")
    Scripts(tmp_path / "cwd").add("module", "return 'working directory'")
    new_service(cwd=tmp_path / "cwd").start_up()
    assert server.run("7", "job") == b"working directory"


@pytest.mark.parametrize("configured", ["/var/staging", "/var/staging/", "relative", "a:b c", ""])
def test_pexenv_holds_the_staging_directory_as_configured_and_nothing_else(new_service, server,
                                                                           scripts, configured):
    new_service({"script.staging_dir": configured}).start_up()
    scripts.add("job", "local s = '' for k, v in pairs(pexenv) do s = s .. k .. '=' .. v .. '\\n' "
                       "end return s .. tostring(getmetatable(pexenv))")
    assert server.run("7", "job") == b"staging_dir=" + configured.encode() + b"\nnil"


def test_standard_libraries_are_all_there(service, server, scripts):
    scripts.add("job", "local t = {} for k, v in pairs(_G) do if type(v) == 'table' then "
                       "t[#t + 1] = k end end table.sort(t) return table.concat(t, ' ')")
    assert server.run("7", "job") == (
        b"_G bit32 coroutine debug io math os package pexenv string table")


def test_nothing_of_one_job_reaches_the_next(service, server, scripts):
    scripts.add("dirty", """
        leftover = 1
        args = "changed"
        pexenv.leftover = 1
        package.path = "changed"
        package.loaded.module = "changed"
        string.upper = function() return "changed" end
        getmetatable("").__index = nil
        return "done"
    """)
    scripts.add("module", "return 'clean'")
    scripts.add("clean", """
        assert(leftover == nil and args == nil and pexenv.leftover == nil)
        assert(("x"):upper() == "X")
        return require("module")
    """)
    for job_id in ["1", "2"]:
        assert server.run(job_id, "dirty", "given") == b"done"
        assert server.run(job_id, "clean") == b"clean"


def test_what_a_script_prints_goes_to_standard_output(service, server, scripts):
    scripts.add("job", "print('printed') io.stdout:flush() return 'answered'")
    assert server.run("7", "job") == b"answered"
    assert service.stdout() == b"printed\n"


def test_children_of_a_script_do_not_hold_the_connection(service, server, scripts, broker):
    scripts.add("job", "local p = io.popen('readlink /proc/self/fd/*') return p:read('*a')")
    remote_end = f"0100007F:{broker.port:04X}"
    connections = [f"socket:[{row[9]}]" for row in service.tcp_table() if row[2] == remote_end]
    inherited = server.run("7", "job").decode().split()
    assert len(connections) == 1
    assert "/dev/null" in inherited
    assert not set(connections) & set(inherited)


def test_precompiled_script_runs_like_its_source(service, server, scripts):
    scripts.add("compile", "return string.dump(load(args))")
    chunk = server.run("7", "compile", "return 'ran with ' .. args")
    assert chunk.startswith(b"\x1bLua")
    scripts.add("compiled", chunk)
    assert server.run("8", "compiled", "these args") == b"ran with these args"


@pytest.mark.parametrize("source", [
    b"#!/usr/bin/lua5.2\nreturn 'ran'", b"\xef\xbb\xbfreturn 'ran'", b"return 'ran'\r\n",
], ids=["first-line-for-the-shell", "byte-order-mark", "dos-line-end"])
def test_source_text_in_other_dress_runs(service, server, scripts, source):
    scripts.add("job", source)
    assert server.run("7", "job") == b"ran"


@pytest.fixture
def short_path(new_service, tmp_path):
    """A service that knows its scripts by short paths, which Lua shows whole in its messages."""
    return new_service({"script.search_dirs": "scripts"}, cwd=tmp_path).start_up()


def errors_of_job(service):
    """Lua's error as the log has it, after a look at the line that comes with it."""
    script_error, agent_error = service.records("ERROR")
    assert script_error.category == "script"
    assert agent_error == ("ERROR", "lua_agent", "scripts/job.lua job failed")
    return script_error.message


def test_syntax_error_is_a_load_failure_and_the_next_job_runs(short_path, server, scripts):
    scripts.add("job", "\nreturn return")
    scripts.add("next", "return 'next'")
    assert server.run("7", "job") == LOAD_FAILURE
    assert errors_of_job(short_path) == (
        "failure: scripts/job.lua:2: unexpected symbol near 'return'")
    assert server.run("8", "next") == b"next"


def test_truncated_precompiled_script_is_a_load_failure(short_path, server, scripts):
    scripts.add("compile", "return string.dump(load(args))")
    scripts.add("job", server.run("7", "compile", "return 1")[:-1])
    assert server.run("8", "job") == LOAD_FAILURE
    assert errors_of_job(short_path) == "failure: scripts/job.lua: truncated precompiled chunk"


def test_directory_with_the_scripts_name_is_a_load_failure(short_path, server, scripts):
    (scripts.directory / "job.lua").mkdir()
    assert server.run("7", "job") == LOAD_FAILURE
    assert errors_of_job(short_path) == "failure: cannot read scripts/job.lua: Is a directory"


def test_dangling_link_is_a_load_failure(short_path, server, scripts, tmp_path):
    (scripts.directory / "job.lua").symlink_to(tmp_path / "nowhere")
    assert server.run("7", "job") == LOAD_FAILURE
    assert errors_of_job(short_path) == (
        "failure: cannot open scripts/job.lua: No such file or directory")


@pytest.mark.skipif(os.geteuid() == 0, reason="root can read every file")
def test_unreadable_script_is_a_load_failure(short_path, server, scripts):
    scripts.add("job", "return 'wrong'").chmod(0)
    assert server.run("7", "job") == LOAD_FAILURE
    assert errors_of_job(short_path) == "failure: cannot open scripts/job.lua: Permission denied"


@pytest.mark.parametrize("statement, logged", [
    ("error('broken')", "failure: scripts/job.lua:2: broken"),
    ("error('broken', 0)", "failure: broken"),
    ("error('%s%n broken', 0)", "failure: %s%n broken"),
    ("error('one\\ntwo', 0)", "failure: one\ntwo"),
    ("error(42, 0)", "failure: 42"),
    ("error(42)", "failure: scripts/job.lua:2: 42"),
    ("error(0.5, 0)", "failure: 0.5"),
    ("error('', 0)", "failure: "),
    ("error({})", "Unknown failure"),
    ("error(setmetatable({}, {__tostring = function() return 'text' end}))", "Unknown failure"),
    ("error()", "Unknown failure"),
    ("error(true)", "Unknown failure"),
    ("error(print)", "Unknown failure"),
    ("assert(nil)", "failure: scripts/job.lua:2: assertion failed!"),
    ("local x = nil + 1",
     "failure: scripts/job.lua:2: attempt to perform arithmetic on a nil value"),
    ("missing()", "failure: scripts/job.lua:2: attempt to call global 'missing' (a nil value)"),
    ("coroutine.yield(1)", "failure: attempt to yield from outside a coroutine"),
    ("load('(')()", "failure: scripts/job.lua:2: attempt to call a nil value"),
    ("dofile('/nowhere')", "failure: cannot open /nowhere: No such file or directory"),
])
def test_runtime_error_is_a_script_failure_and_the_next_job_runs(short_path, server, scripts,
                                                                 statement, logged):
    scripts.add("job", "\n" + statement)
    scripts.add("next", "return 'next'")
    assert server.run("7", "job") == RUN_FAILURE
    assert errors_of_job(short_path) == logged
    assert server.run("8", "next") == b"next"


def test_endless_recursion_is_a_script_failure(short_path, server, scripts):
    scripts.add("job", "local function f() return f() + 1 end f()")
    assert server.run("7", "job") == RUN_FAILURE
    assert errors_of_job(short_path).startswith("failure: scripts/job.lua:1: stack overflow")


def test_failures_in_a_row_are_each_answered(service, server, scripts):
    scripts.add("syntax", "(")
    scripts.add("runtime", "error('x')")
    scripts.add("fine", "return 'fine'")
    for job_id, script in enumerate(["syntax", "runtime", "missing", "fine"] * 3):
        server.publish(str(job_id), request(script))
    assert [message.payload for message in server.results(12)] == [
        LOAD_FAILURE, RUN_FAILURE, NOT_FOUND, b"fine"] * 3
    server.expect_no_more()
