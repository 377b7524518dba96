"""How a job's script is found: by which names, and in which directories."""

import os

import pytest

from harness import Scripts, failure


def not_found(name):
    return failure(f'Cannot run job. Script not found "{name}"')


@pytest.mark.parametrize("name", [
    "ping", "ping pong", "ping.lua", "pïng-日本", ".hidden", "-", "%s%n", "a:b", "a\\b", "p" * 251,
])
def test_script_is_found_by_its_name_without_extension(service, server, scripts, name):
    scripts.add(name, "return 'found'")
    assert server.run("7", name) == b"found"
    assert service.records("ERROR") == []


@pytest.mark.parametrize("name", [
    "pin", "pingg", "PING", "Ping", "ping ", " ping", "ping.lua", "ping.LUA", "./ping", "../ping",
    "sub/inner", "/ping", "p?ng", "*", ".", "..", "../scripts/ping", "\\ping", "p" * 252, "noext",
])
def test_other_names_are_not_found_and_not_logged(service, server, scripts, tmp_path, name):
    scripts.add("ping", "return 'wrong'")
    Scripts(scripts.directory / "sub").add("inner", "return 'wrong'")
    Scripts(tmp_path).add("ping", "return 'wrong'")
    (scripts.directory / "noext").write_text("return 'wrong'")
    assert server.run("7", name) == not_found(name + ".lua")
    assert service.records("ERROR") == []
    assert not [record for record in service.records() if record.category == "script"]


def test_absolute_name_is_not_found(service, server, scripts):
    path = str(scripts.add("ping", "return 'wrong'"))
    assert server.run("7", path) == not_found(path + ".lua")
    assert server.run("7", path[:-4]) == not_found(path)


def test_name_ends_at_a_zero_byte(service, server, scripts):
    scripts.add("ping", "return 'found'")
    assert server.run("7", "ping.lua\0../../x") == b"found"
    # The extension comes after the zero byte, so it does not count for the look-up.
    assert server.run("7", "ping\0") == failure('Cannot run job. Script not found "ping')


def test_name_of_any_bytes_is_found(service, server, scripts):
    with open(os.fsencode(scripts.directory) + b"/\xff\x01.lua", "wb") as script:
        script.write(b"return 'found'")
    server.publish("7", b"\x82\xaalua_script\xc4\x02\xff\x01\xa4args\xc0")
    assert server.result().payload == b"found"


def test_linked_script_is_found(service, server, scripts, tmp_path):
    (scripts.directory / "link.lua").symlink_to(Scripts(tmp_path).add("far", "return 'found'"))
    assert server.run("7", "link") == b"found"


def test_script_is_read_anew_for_every_job(service, server, scripts):
    assert server.run("7", "job") == not_found("job.lua")
    scripts.add("job", "return 'first'")
    assert server.run("7", "job") == b"first"
    scripts.add("job", "return 'second'")
    assert server.run("7", "job") == b"second"
    (scripts.directory / "job.lua").unlink()
    assert server.run("7", "job") == not_found("job.lua")


def test_first_directory_wins_and_later_ones_are_not_opened(new_service, server, tmp_path):
    first, second = Scripts(tmp_path / "first"), Scripts(tmp_path / "second")
    first.add("both", "return 'first'")
    second.add("both", "return 'second'")
    second.add("late", "return 'late'")
    service = new_service({
        "script.search_dirs": f"{first.directory}:{second.directory}:{tmp_path}/missing"})
    service.start_up()
    assert server.run("7", "both") == b"first"
    assert server.run("8", "late") == b"late"
    assert service.records("ERROR") == []
    assert service.wait_for_record("luaL_loadfile").message == (
        f"luaL_loadfile: {first.directory}/both.lua")


def test_directory_that_cannot_be_opened_is_logged_and_passed_over(new_service, server, scripts,
                                                                   tmp_path):
    scripts.add("ping", "return 'found'")
    (tmp_path / "file").write_text("")
    (tmp_path / "dangling").symlink_to(tmp_path / "nowhere")
    service = new_service({
        "script.search_dirs":
            f"{tmp_path}/%s:{tmp_path}/file:{tmp_path}/dangling/:{scripts.directory}"})
    service.start_up()
    assert server.run("7", "ping") == b"found"
    assert service.records("ERROR") == [
        ("ERROR", "lua_agent", f"opendir({tmp_path}/%s/): No such file or directory"),
        ("ERROR", "lua_agent", f"opendir({tmp_path}/file/): Not a directory"),
        ("ERROR", "lua_agent", f"opendir({tmp_path}/dangling/): No such file or directory")]


@pytest.mark.skipif(os.geteuid() == 0, reason="root can read every directory")
def test_unreadable_directory_is_logged_and_passed_over(new_service, server, scripts, tmp_path):
    scripts.add("ping", "return 'found'")
    closed = tmp_path / "closed"
    closed.mkdir(mode=0)
    service = new_service({"script.search_dirs": f"{closed}:{scripts.directory}"}).start_up()
    assert server.run("7", "ping") == b"found"
    assert service.records("ERROR") == [
        ("ERROR", "lua_agent", f"opendir({closed}/): Permission denied")]


def test_script_that_is_in_no_directory_is_not_found(new_service, server, tmp_path):
    service = new_service({"script.search_dirs": f"{tmp_path}/missing"}).start_up()
    assert server.run("7", "ping") == not_found("ping.lua")
    assert service.records("ERROR") == [
        ("ERROR", "lua_agent", f"opendir({tmp_path}/missing/): No such file or directory")]


@pytest.mark.parametrize("configured, directories", [
    ("{tmp}/scripts", ["{tmp}/scripts/"]),
    ("{tmp}/scripts/", ["{tmp}/scripts/"]),
    ("{tmp}/scripts//", ["{tmp}/scripts//"]),
    ("{tmp}/a:{tmp}/b/", ["{tmp}/a/", "{tmp}/b/"]),
    ("{tmp}/a::{tmp}/b:", ["{tmp}/a/", "/", "{tmp}/b/", "/"]),
    (":", ["/", "/"]),
    ("", ["/"]),
    ("{tmp}/a:{tmp}/a", ["{tmp}/a/", "{tmp}/a/"]),
    ("scripts", ["scripts/"]),
    ("{tmp}/a: {tmp}/b ", ["{tmp}/a/", " {tmp}/b/"]),
    (None, ["{tmp}/job_scripts"]),
], ids=["plain", "slash", "slashes", "two", "stray-colons", "colon", "empty", "twice", "relative",
        "blanks", "missing"])
def test_search_directories_are_the_configured_ones(new_service, tmp_path, configured,
                                                    directories):
    dirs = configured and configured.format(tmp=tmp_path)
    service = new_service({"script.search_dirs": dirs}, cwd=tmp_path).start_up()
    assert [record for record in service.records() if record.category == "lua_agent"] == [
        ("INFO", "lua_agent", "script directory: " + directory.format(tmp=tmp_path))
        for directory in directories]


def test_relative_directory_is_below_the_working_directory(new_service, server, tmp_path):
    Scripts(tmp_path / "relative").add("ping", "return 'found'")
    new_service({"script.search_dirs": "relative"}, cwd=tmp_path).start_up()
    assert server.run("7", "ping") == b"found"


def test_without_search_directories_job_scripts_in_the_working_directory_is_used(
        new_service, server, tmp_path):
    fallback = Scripts(tmp_path / "job_scripts")
    fallback.add("ping", "return 'found'")
    fallback.add("paths", "return package.path .. '\\n' .. package.cpath")
    fallback.add("needs", "return require('_module')")
    Scripts(tmp_path).add("job_scripts_module", "return 'a module beside the directory'")
    new_service({"script.search_dirs": None}, cwd=tmp_path).start_up()
    assert server.run("7", "ping") == b"found"
    # The directory and the name of a module run together.
    path, cpath = server.run("8", "paths").decode().split("\n")
    assert path.endswith(f";{tmp_path}/job_scripts?.lua")
    assert cpath.endswith(f";{tmp_path}/job_scripts?.so")
    assert server.run("9", "needs") == b"a module beside the directory"


def test_staging_directory_is_not_searched(service, server):
    Scripts(service.staging_dir).add("ping", "return 'wrong'")
    assert server.run("7", "ping") == not_found("ping.lua")
