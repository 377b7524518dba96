"""Places that the service depends on and that fail it: full, read-only, missing or forbidden.

Elsewhere: script directories that are missing from the start (test_lookup), configurations that do
not load, logs that cannot be opened and a working directory that is gone (test_lifetime), and, for
users other than root, scripts, directories and configurations that may not be read (test_scripts,
test_lookup, test_lifetime).
"""

import os
import pathlib
import shutil
import socket
import subprocess
import tempfile

import msgpack
import pytest

import harness
from harness import REPOSITORY, failure

LOAD_FAILURE = failure("Dock command service error. Failed to load command script.")
NOT_FOUND = failure('Cannot run job. Script not found "job.lua"')

# Root's user, as root without these is subject to the modes of files.
WITHOUT_ROOTS_RIGHTS = ["setpriv", "--bounding-set=-dac_override,-dac_read_search",
                        "--inh-caps=-all"]

needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can give up root's rights")


def with_mount(command):
    """The wrapper of a process that has a mount of its own, which ends with the process."""
    # Within a namespace of users, everybody may mount.
    user = [] if os.geteuid() == 0 else ["--map-root-user"]
    return ["unshare", "--mount", *user, "sh", "-c", command + ' && exec "$@"', "sh"]


def disk(path, size):
    return f"mount -t tmpfs -o size={size} tmpfs '{path}'"


def read_only(path):
    return f"mount --bind '{path}' '{path}' && mount -o remount,bind,ro '{path}'"


def why_no_mounts():
    with tempfile.TemporaryDirectory() as place:
        tried = subprocess.run([*with_mount(disk(place, "64k")), "true"], capture_output=True,
                               text=True)
    return tried.stderr.strip() if tried.returncode else None


@pytest.fixture
def mounts():
    reason = why_no_mounts()
    if reason:
        pytest.skip(reason)


@pytest.fixture
def wrapped(monkeypatch):
    """wrapped([...]) puts a command before every daemon that is started after it."""
    def wrap(command):
        monkeypatch.setattr(harness, "WRAPPER", [*command, *harness.WRAPPER])

    return wrap


@pytest.fixture
def keep_file(server, scripts):
    """keep_file("7", name, content) runs the example of that name and returns its answer."""
    shutil.copy(REPOSITORY / "examples/scripts/keep_file.lua", scripts.directory)

    def run(job_id, name, content):
        return msgpack.unpackb(server.run(job_id, "keep_file", {"name": name, "content": content}))

    return run


def refusal(path, reason):
    """What keep_file answers if it cannot keep a file."""
    return {"status": False, "script": "keep_file", "reason": f"{path}: {reason}"}


def refusal_to_open(path, reason):
    """The same if it cannot begin: Lua's reason names the file that is to be renamed later."""
    return refusal(path, f"{path.parent}/.{path.name}.part: {reason}")


def seen_by(service, path):
    """A path as the daemon sees it."""
    return pathlib.Path(f"/proc/{service.pid}/root{path}")


def test_file_that_does_not_fit_is_refused_and_leaves_nothing(mounts, new_service, keep_file,
                                                              wrapped):
    service = new_service()
    wrapped(with_mount(disk(service.staging_dir, "64k")))
    service.start_up()
    path = service.staging_dir
    assert keep_file("7", "large", b"x" * 65537) == refusal(f"{path}/large",
                                                            "No space left on device")
    assert list(seen_by(service, path).iterdir()) == []
    assert keep_file("8", "small", b"x") == {"status": True, "path": f"{path}/small", "size": 1}
    assert service.records("ERROR") == []


def test_read_only_staging_directory_is_the_scripts_failure(mounts, new_service, keep_file,
                                                            wrapped):
    service = new_service()
    wrapped(with_mount(read_only(service.staging_dir)))
    service.start_up()
    assert keep_file("7", "a", b"x") == refusal_to_open(service.staging_dir / "a",
                                                        "Read-only file system")
    assert service.records("ERROR") == []


def test_missing_staging_directory_is_the_scripts_failure(service, keep_file):
    service.staging_dir.rmdir()
    assert keep_file("7", "a", b"x") == refusal_to_open(service.staging_dir / "a",
                                                        "No such file or directory")
    assert service.records("ERROR") == []
    service.staging_dir.mkdir()
    assert keep_file("8", "a", b"x")["status"] is True


@needs_root
def test_forbidden_staging_directory_is_the_scripts_failure(new_service, keep_file, wrapped):
    service = new_service()
    service.staging_dir.chmod(0o500)
    wrapped(WITHOUT_ROOTS_RIGHTS)
    service.start_up()
    assert keep_file("7", "a", b"x") == refusal_to_open(service.staging_dir / "a",
                                                        "Permission denied")
    assert service.records("ERROR") == []


def fill(path):
    with pytest.raises(OSError, match="No space left on device"), open(path, "wb", 0) as filler:
        while True:
            filler.write(b"x" * 512)


@pytest.fixture
def logging_service(mounts, new_service, scripts, wrapped, tmp_path):
    """Makes a started Service whose log has a small disk to itself."""
    def make(settings=()):
        scripts.add("job", "return args")
        logs = tmp_path / "logs"
        logs.mkdir()
        service = new_service({"log4cpp.appender.FILE.fileName": logs / "log", **dict(settings)})
        wrapped(with_mount(disk(logs, "64k")))
        service.start_up()
        service.log_file = seen_by(service, logs / "log")
        return service

    return make


def answer_jobs(server, job_id, count):
    for number in range(count):
        assert server.run(job_id, "job", str(number)) == b"%d" % number


def is_logged(service, job_id):
    return any(record.message == f"Received command request, job_id: {job_id}"
               for record in service.records())


def test_full_disk_of_the_log_loses_records_and_nothing_else(logging_service, server):
    service = logging_service()
    filler = service.log_file.with_name("filler")
    fill(filler)
    answer_jobs(server, "before", 20)  # the last block of the log has still some room
    answer_jobs(server, "lost", 1)
    assert not is_logged(service, "lost")
    filler.unlink()
    answer_jobs(server, "after", 2)  # the first record follows one that was cut off, in its line
    assert is_logged(service, "after")
    assert not is_logged(service, "lost")
    assert service.stderr() == ""


def test_log_of_limited_size_outlives_a_full_disk(logging_service, server):
    service = logging_service({"log4cpp.appender.FILE": "RollingFileAppender",
                               "log4cpp.appender.FILE.maxFileSize": 10000,
                               "log4cpp.appender.FILE.maxBackupIndex": 1})
    filler = service.log_file.with_name("filler")
    fill(filler)
    answer_jobs(server, "meanwhile", 50)
    filler.unlink()
    answer_jobs(server, "after", 50)
    assert is_logged(service, "after")
    assert sorted(path.name for path in service.log_file.parent.iterdir()) == ["log", "log.1"]
    assert service.stderr() == ""


def test_script_directory_that_comes_and_goes_is_found_when_it_is_there(service, server, scripts):
    """A disk that is mounted late, and one that is pulled."""
    away = scripts.directory.with_name("away")
    scripts.add("job", "return 'found'")
    assert server.run("1", "job") == b"found"
    scripts.directory.rename(away)
    assert server.run("2", "job") == NOT_FOUND
    assert service.records("ERROR") == [
        ("ERROR", "lua_agent", f"opendir({scripts.directory}/): No such file or directory")]
    away.rename(scripts.directory)
    assert server.run("3", "job") == b"found"


@pytest.fixture
def socket_path():
    # Not below tmp_path, since the path of a socket has room for 107 bytes only.
    directory = pathlib.Path(tempfile.mkdtemp())
    yield directory / "socket"
    shutil.rmtree(directory)


def first_complaint(new_service, socket_path):
    service = new_service({"server_comms.host": socket_path, "server_comms.port": 0}).start()
    service.wait_for_record("Couldn't reach")
    return service.records("ERROR")


def test_missing_socket_of_the_broker_is_told(new_service, socket_path):
    assert first_complaint(new_service, socket_path) == [
        ("ERROR", "server_comms",
         f"Couldn't reach broker {socket_path}. No such file or directory")]


def test_socket_that_a_killed_broker_has_left_is_told(new_service, socket_path):
    with socket.socket(socket.AF_UNIX) as broker:
        broker.bind(str(socket_path))
    assert first_complaint(new_service, socket_path) == [
        ("ERROR", "server_comms", f"Couldn't reach broker {socket_path}. Connection refused")]


@needs_root
def test_forbidden_socket_of_the_broker_is_told(new_service, socket_path, wrapped):
    with socket.socket(socket.AF_UNIX) as broker:
        broker.bind(str(socket_path))
        broker.listen()
        socket_path.chmod(0o500)
        wrapped(WITHOUT_ROOTS_RIGHTS)
        assert first_complaint(new_service, socket_path) == [
            ("ERROR", "server_comms", f"Couldn't reach broker {socket_path}. Permission denied")]


@needs_root
@pytest.mark.parametrize("what, mode", [
    ("job.lua", 0),
    (".", 0o400),  # the names can be read, so the script is found, but the directory not entered
], ids=["script", "directory"])
def test_forbidden_script_fails_to_load(new_service, server, scripts, wrapped, what, mode):
    path = scripts.add("job", "return 'wrong'")
    (scripts.directory / what).chmod(mode)
    wrapped(WITHOUT_ROOTS_RIGHTS)
    service = new_service().start_up()
    assert server.run("7", "job") == LOAD_FAILURE
    assert service.records("ERROR") == [
        ("ERROR", "script", f"failure: cannot open {path}: Permission denied"),
        ("ERROR", "lua_agent", f"{path} job failed")]


@needs_root
def test_forbidden_script_directory_is_logged(new_service, server, scripts, wrapped):
    scripts.add("job", "return 'wrong'")
    scripts.directory.chmod(0)
    wrapped(WITHOUT_ROOTS_RIGHTS)
    service = new_service().start_up()
    assert server.run("7", "job") == NOT_FOUND
    assert service.records("ERROR") == [
        ("ERROR", "lua_agent", f"opendir({scripts.directory}/): Permission denied")]


@needs_root
def test_forbidden_configuration_is_named(new_service, wrapped):
    service = new_service()
    service.config_file.chmod(0)
    wrapped(WITHOUT_ROOTS_RIGHTS)
    assert service.start().wait() == 1
    assert service.stderr() == f"Config file: {service.config_file} failed to load.\n"


@needs_root
def test_forbidden_log_directory_does_not_stop_the_service(new_service, server, scripts, wrapped,
                                                           tmp_path):
    scripts.add("job", "return args")
    logs = tmp_path / "logs"
    logs.mkdir(mode=0o500)
    wrapped(WITHOUT_ROOTS_RIGHTS)
    service = new_service({"log4cpp.appender.FILE.fileName": logs / "log"}).start_up()
    assert server.run("7", "job", "hi") == b"hi"
    assert list(logs.iterdir()) == []
    assert service.stderr() == ""
