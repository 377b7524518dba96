"""The package on a Debian that has booted: the unit, what it lets scripts do, and what an operator
sees. systemd, the broker and the daemon are the real ones. The machine has no memory controller, so what
MemoryMax= does is not tried here."""

import re

import pytest

from machine import DEADLINE, Machine, UNIT, wait_until

CONFIG = "/etc/pex-command/pex-command.properties"
SCRIPTS = "/usr/share/pex-command/scripts/"


@pytest.fixture(scope="module")
def machine(clean_root):
    booted = Machine(clean_root)
    try:
        if not booted.boot():
            pytest.skip("a machine cannot be started here: " + booted.console()[-300:])
        yield booted
    finally:
        booted.shut_down()


@pytest.fixture(scope="module")
def installed(machine, package):
    """The machine after the one command that installs the package, and its output in `.output`."""
    machine.path("/root/package.deb").write_bytes(package.read_bytes())
    machine.output = machine.run("apt-get", "install", "--yes", "/root/package.deb")
    for script in machine.path("/usr/share/pex-command/examples/scripts").iterdir():
        machine.path(SCRIPTS + script.name).write_bytes(script.read_bytes())
    return machine


@pytest.fixture
def dock(installed):
    """The machine, with a service that is up at the beginning, and as it was installed at the end."""
    config = installed.path(CONFIG).read_text()
    greet(installed)
    yield installed
    installed.path(CONFIG).write_text(config)
    installed.run("rm", "-rf", f"/etc/systemd/system/{UNIT}.service.d")
    installed.run("systemctl", "daemon-reload")
    restart(installed)


def restart(machine):
    machine.run("systemctl", "restart", UNIT)
    greet(machine)


def script(machine, name, text):
    machine.path(SCRIPTS + name + ".lua").write_text(text)


def submit(machine, *arguments):
    # Retained, since the service may not have subscribed yet.
    return machine.run("pexctl", "submit", "--retain", "--as", "raw", *arguments)


def greet(machine, *arguments):
    """A job as a sign of life: it waits until the service is up."""
    assert submit(machine, *arguments, "greet", '{"name": "dock 7"}') == "Hello, dock 7!"


def answer(machine, name, text, *arguments):
    """What a script answers that is put there for this."""
    script(machine, name, text)
    return submit(machine, name, *arguments)


def perl(code):
    return f"return io.popen([[perl -e '{code}']]):read('*a')"


def drop_in(machine, text):
    folder = machine.path(f"/etc/systemd/system/{UNIT}.service.d")
    folder.mkdir(exist_ok=True)
    (folder / "local.conf").write_text(text)
    machine.run("systemctl", "daemon-reload")
    restart(machine)


def test_one_command_installs_and_starts(installed):
    assert "Setting up pex-command" in installed.output
    assert installed.property("ActiveState") == "active"
    assert installed.run("systemctl", "is-enabled", UNIT) == "enabled\n"
    greet(installed)


def test_unit_is_verified_without_a_word(installed):
    # Its manual page is there; the program that shows it is not.
    assert installed.run("systemd-analyze", "verify", "--man=no",
                         f"/lib/systemd/system/{UNIT}.service") == ""
    assert installed.path("/usr/share/man/man8/pex-command.8.gz").exists()


def test_unit_is_exposed_by_no_more_than_it_must_be(installed):
    report = installed.run("systemd-analyze", "security", "--offline=yes", "--threshold=23",
                           "--no-pager", f"/lib/systemd/system/{UNIT}.service")
    assert "Overall exposure level" in report


def test_scripts_run_as_a_user_without_rights(dock):
    status = dict(line.split(":\t", 1) for line in answer(
        dock, "status", "return io.open('/proc/self/status'):read('*a')").splitlines()
        if ":\t" in line)
    uid = dock.run("id", "-u", "pex-command").strip()
    assert status["Uid"].split() == [uid] * 4 and uid != "0"
    assert (status["CapEff"], status["CapBnd"]) == ("0" * 16, "0" * 16)
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")


@pytest.mark.parametrize("path", [
    "/var/lib/pex-command/staging/kept", "/var/log/pex-command/kept", "/tmp/kept",
])
def test_scripts_may_write(dock, path):
    assert answer(dock, "write", f"assert(io.open('{path}', 'w')):close() return 'yes'") == "yes"


@pytest.mark.parametrize("directory, reason", [
    ("/etc/open", "Read-only file system"),
    ("/usr/share/pex-command/scripts/open", "Read-only file system"),
    ("/srv/open", "Read-only file system"),
    ("/var/open", "Read-only file system"),
    ("/home/open", "Permission denied"),
])
def test_scripts_may_not_write_even_where_everybody_may(dock, directory, reason):
    dock.run("install", "-d", "-m", "777", directory)
    told = answer(dock, "write", f"return tostring(select(2, io.open('{directory}/x', 'w')))")
    assert told == f"{directory}/x: {reason}"
    dock.run("rmdir", directory)


def test_a_name_in_a_request_gives_no_record_a_priority(dock):
    dock.run("pexctl", "submit", "--retain", "--as", "text", "x\n<0>forged", status=1)
    assert "forged" in dock.journal()
    assert "forged" not in dock.run("journalctl", "--priority=notice", "--output=cat")


def test_what_scripts_keep_is_not_for_others(dock):
    answer(dock, "write", "io.open(pexenv.staging_dir .. '/mine', 'w'):close() return 'yes'")
    assert dock.run("stat", "-c", "%U:%G %a",
                    "/var/lib/pex-command/staging/mine") == "pex-command:pex-command 640\n"


def test_memory_and_tasks_are_bounded(dock):
    total = int(re.search(r"MemTotal: +(\d+) kB", dock.run("cat", "/proc/meminfo"))[1]) * 1024
    assert int(dock.property("MemoryMax")) == pytest.approx(total / 2, abs=4096)
    assert dock.property("OOMPolicy") == "continue"
    assert dock.property("TasksMax") == "256"


def test_scripts_see_no_processes_of_others(dock):
    assert answer(dock, "look", "return tostring(io.open('/proc/1/status'))") == "nil"
    assert answer(dock, "look", "return tostring(io.open('/proc/self/status'))") != "nil"


def test_what_scripts_keep_in_tmp_is_theirs_alone(dock):
    answer(dock, "write", "io.open('/tmp/mine', 'w'):close() return 'yes'")
    assert not dock.path("/tmp/mine").exists()
    assert "mine" not in dock.run("ls", "/tmp")


@pytest.mark.parametrize("work, result", [
    ("return io.popen('echo hi | tr a-z A-Z'):read('*a')", "HI\n"),
    ("return io.open('/dev/zero', 'rb'):read(3)", "\0\0\0"),
    ("return io.open('/proc/meminfo'):read('*l'):match('%a+')", "MemTotal"),
    ("return tostring(os.execute(\"bash -c 'exec 3<>/dev/tcp/127.0.0.1/1883'\"))", "true"),
], ids=["pipe", "device", "proc", "tcp"])
def test_ordinary_work_of_device_scripts_goes_on(dock, work, result):
    assert answer(dock, "work", work) == result


def test_scripts_may_not_change_the_kernel_s_personality(dock):
    # 135 is personality(2) on amd64, and 0x40000 would put all programs at fixed addresses.
    assert answer(dock, "probe", perl("syscall(135, 0x40000) and print $!")) == (
        "Operation not permitted")


def test_a_drop_in_opens_a_path(dock):
    dock.run("install", "-d", "-o", "pex-command", "/srv/data")
    probe = "return tostring(io.open('/srv/data/x', 'w'))"
    assert answer(dock, "probe", probe) == "nil"
    drop_in(dock, "[Service]\nReadWritePaths=/srv/data\n")
    assert answer(dock, "probe", probe).startswith("file (")


def test_a_drop_in_gives_a_group_for_a_device(dock):
    dock.run("install", "-m", "660", "-g", "dialout", "/dev/null", "/srv/device")
    probe = "return tostring(io.open('/srv/device'))"
    assert answer(dock, "probe", probe) == "nil"
    drop_in(dock, "[Service]\nSupplementaryGroups=dialout\n")
    assert answer(dock, "probe", probe).startswith("file (")


@pytest.mark.parametrize("settings, probe, before, after", [
    # 17 is AF_PACKET, which needs a capability, too.
    (["RestrictAddressFamilies=AF_PACKET"], perl("socket(S, 17, 3, 0) or print $!"),
     "Address family not supported by protocol", "Operation not permitted"),
    (["CapabilityBoundingSet=CAP_NET_ADMIN", "AmbientCapabilities=CAP_NET_ADMIN"],
     "return io.open('/proc/self/status'):read('*a'):match('CapEff:%s*(%x+)')",
     "0000000000000000", "0000000000001000"),
    # 166 is umount2(2).
    (["SystemCallFilter=@mount", "CapabilityBoundingSet=CAP_SYS_ADMIN",
      "AmbientCapabilities=CAP_SYS_ADMIN"], perl('$p = "/none"; syscall(166, $p, 0); print $!'),
     "Operation not permitted", "No such file or directory"),
    (["ProtectProc=default"], "return type(io.open('/proc/1/status'))", "nil", "userdata"),
], ids=lambda value: value[0] if isinstance(value, list) else "")
def test_a_drop_in_opens_what_the_documents_name(dock, settings, probe, before, after):
    assert answer(dock, "probe", probe) == before
    drop_in(dock, "[Service]\n" + "\n".join(settings) + "\n")
    assert answer(dock, "probe", probe) == after


def test_stop_does_not_cut_a_job_short(dock):
    assert dock.property("TimeoutStopUSec") == "15min"
    # A command of its own, which the stop must not cut short either.
    script(dock, "wait", """
        local file = pexenv.staging_dir .. "/running"
        local ended = os.execute("touch " .. file .. "; while [ -e " .. file .. " ]; do sleep 0.1; done")
        return ended and "finished" or "cut short"
    """)
    running = dock.path("/var/lib/pex-command/staging/running")
    dock.run("pexctl", "submit", "--detach", "--id", "long", "wait")
    wait_until(running.exists, "the job to run")
    since = dock.mark()
    stop = dock.start("systemctl", "stop", UNIT)
    dock.wait_for_journal("Stopping", since)
    assert dock.property("ActiveState") == "deactivating"
    running.unlink()
    assert stop.wait(DEADLINE) == 0
    assert "Closing server comms service" in dock.journal(since)
    dock.run("systemctl", "start", UNIT)
    greet(dock)
    assert dock.run("pexctl", "attach", "--as", "raw", "long") == "finished"


def test_a_script_that_ends_the_daemon_does_not_end_the_service(dock):
    script(dock, "leave", "os.exit(0)")
    since = dock.mark()
    dock.run("pexctl", "submit", "--detach", "leave")
    dock.wait_for_journal("Scheduled restart job", since)
    greet(dock)


def test_a_request_that_comes_back_is_seen_and_can_be_ended(dock):
    assert dock.property("RestartUSec") == "10s"
    assert dock.property("StartLimitIntervalUSec") == "0"
    dock.path("/root/nil").write_bytes(b"\x81\xc0\x01")  # {nil: 1}
    since = dock.mark()
    submit(dock, "--force", "--msgpack", "/root/nil", "--detach", "--id", "bad", "greet")
    told = dock.wait_for_journal("Scheduled restart job, restart counter", since)
    at = [told.index(text) for text in [
        "job (bad) is to run lua script: greet",
        "PANIC: unprotected error in call to Lua API (table index is nil)",
        "status=6/ABRT",
        "Ended by ABRT (signal). If the same job ends it at each start, its request is retained: "
        f"pexctl withdraw --config {CONFIG} JOBID",
        "Scheduled restart job, restart counter",
    ]]
    assert at == sorted(at)
    assert re.search("^bad +requested", dock.run("pexctl", "list"), re.MULTILINE)
    second = since + len(told)
    dock.wait_for_journal("Ended by ABRT", second)
    # 4: nobody confirms it, but the request is gone.
    dock.run("pexctl", "withdraw", "--config", CONFIG, "-W", "1", "bad", status=4)
    assert "requested" not in dock.run("pexctl", "list")
    greet(dock)


@pytest.mark.parametrize("config, told", [
    ("server_comms.port=1883x\n", 'error    {0}:1: "1883x" is no whole number: the service would '
     "use 1883."),
    ("rootCategory=LOUD\n", "error    {0}: The service would abort at the start. log4cpp: unknown "
     "priority name: 'LOUD' for category 'rootCategory'"),
    ("\0", "error    {0}: The service does not start: the file cannot be read: it holds a zero byte"),
    (None, "error    {0}: The service does not start: the file cannot be read: No such file or "
     "directory"),
], ids=["port", "log", "zero-byte", "missing"])
def test_a_wrong_configuration_does_not_come_up_and_says_why(dock, config, told):
    file = dock.path(CONFIG)
    if config is None:
        file.unlink()
    else:
        file.write_text(config + file.read_text())
    since = dock.mark()
    dock.run("systemctl", "restart", UNIT, status=1)
    assert told.format(CONFIG) in dock.wait_for_journal("Failed to start", since)
    assert "Server comms config" not in dock.journal(since)
    assert "Ended by" not in dock.journal(since)


def test_a_missing_directory_is_told_and_keeps_nothing_down(dock):
    file = dock.path(CONFIG)
    file.write_text("script.search_dirs=/none:/usr/share/pex-command/scripts\n" + file.read_text())
    since = dock.mark()
    restart(dock)
    assert ("warning  /none/: No script is found here: No such file or directory"
            in dock.journal(since))
    greet(dock)


@pytest.fixture
def locked_broker(dock):
    """The dock's broker, as the documents set it up."""
    manual = dock.path("/usr/share/doc/pex-command/docs/operating.md").read_text()
    section = manual.split("## The broker\n")[1].split("\n## ")[0]
    commands = re.findall("^    (.*)", section, re.MULTILINE)
    try:
        assert dock.run("sh", "-ec", "\n".join(commands)) == "Hello, dock 7!"
        yield dock
    finally:
        dock.run("rm", "/etc/mosquitto/conf.d/pex-command.conf", "/etc/mosquitto/pex-command.acl",
                 "/etc/systemd/system/mosquitto.service.d/pex-command.conf")
        dock.run("systemctl", "daemon-reload")
        dock.run("systemctl", "restart", "mosquitto")


def test_broker_on_a_unix_socket_as_the_documents_set_it_up(locked_broker):
    dock, socket = locked_broker, ["-h", "/run/pex-command/broker.sock"]
    assert dock.run("stat", "-c", "%U:%G %a", "/run/pex-command").split() == [
        "mosquitto:pex-command", "2750"]
    greet(dock, *socket)
    log = dock.run("journalctl", "--unit=mosquitto", "--quiet")
    log += dock.path("/var/log/mosquitto/mosquitto.log").read_text()
    assert "running" in log and "Future versions" not in log  # it warns of other owners and modes
    # In the group, and not.
    assert "holds no results" in dock.run("pexctl", "list", *socket, user="pex-command")
    refused = dock.run("pexctl", "list", *socket, user="nobody", status=3)
    assert "Permission denied" in refused
    # No port is open any more.
    dock.run("pexctl", "list", "-h", "127.0.0.1", status=3)
    # The bare machine has no kill(1), which Debian's own unit names.
    told = dock.run("systemd-analyze", "verify", "--man=no",
                    "/lib/systemd/system/mosquitto.service", status=None)
    assert [line for line in told.splitlines() if "/bin/kill" not in line] == []


def test_broker_cannot_write_its_access_list(locked_broker):
    pid = locked_broker.run("systemctl", "show", "mosquitto", "--property=MainPID", "--value").strip()
    assert locked_broker.run("stat", "-c", "%U", "/etc/mosquitto/pex-command.acl") == "mosquitto\n"
    told = locked_broker.run("nsenter", f"--target={pid}", "--mount", "runuser", "-u", "mosquitto", "--",
                             "chmod", "600", "/etc/mosquitto/pex-command.acl", status=1)
    assert "Read-only file system" in told


def test_upgrade_restarts_the_service_and_keeps_a_changed_configuration(dock, repack):
    config = dock.path(CONFIG)
    config.write_text("# The administrator's.\n" + config.read_text())
    changed = config.read_text()
    first = dock.property("MainPID")
    new = repack("99.0", lambda files: (files / CONFIG[1:]).write_text("# New.\n"))
    dock.path("/root/new.deb").write_bytes(new.read_bytes())
    dock.run("dpkg", "--force-confdef", "--force-confold", "--install", "/root/new.deb")
    greet(dock)
    assert dock.property("MainPID") != first
    assert config.read_text() == changed


def test_upgrade_over_a_broken_configuration_ends_well_and_says_why(dock, repack):
    config = dock.path(CONFIG)
    config.write_text("server_comms.port=none\n" + config.read_text())
    since = dock.mark()
    dock.path("/root/new.deb").write_bytes(repack("99.1").read_bytes())
    dock.run("dpkg", "--force-confdef", "--force-confold", "--install", "/root/new.deb")
    assert dock.run("dpkg-query", "-W", "-f=${Version} ${db:Status-Status}",
                    "pex-command") == "99.1 installed"
    assert '"none" is no whole number' in dock.wait_for_journal("Failed to start", since)


def test_remove_stops_and_purge_clears(installed):
    """The last one: nothing is left for others."""
    installed.run("dpkg", "--remove", "pex-command")
    assert installed.property("ActiveState") == "inactive"
    assert installed.path(CONFIG).exists()
    installed.run("dpkg", "--purge", "pex-command")
    left = installed.run("find", "/", "-xdev", "-path", "*pex-command*", "-not", "-path",
                         "/proc/*", "-not", "-path", "/var/lib/systemd/deb-systemd-helper*")
    assert [line for line in left.splitlines() if not line.startswith(SCRIPTS)] == [
        "/usr/share/pex-command", "/usr/share/pex-command/scripts"]
