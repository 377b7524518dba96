"""dpkg's ways with the package: install, upgrade, remove, purge, in an empty folder, for every
architecture. The installed daemon then runs a job; see PEX_COMMAND_WRAPPER in tests/e2e."""

import os
import stat
import subprocess

import harness
import pytest

CONFIG = "etc/pex-command/pex-command.properties"


class Root:
    """A folder that dpkg installs into."""

    def __init__(self, folder):
        self.folder = folder
        for directory in ["info", "updates"]:
            (folder / "var/lib/dpkg" / directory).mkdir(parents=True)
        for file in ["status", "available"]:
            (folder / "var/lib/dpkg" / file).touch()
        (folder / "etc").mkdir()

    def dpkg(self, *arguments):
        # The libraries that the package depends on are the machine's, or the emulator's.
        subprocess.run(["dpkg", f"--root={self.folder}", "--force-script-chrootless",
                        "--force-architecture", "--force-depends", *arguments],
                       check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                       stderr=subprocess.STDOUT, env={**os.environ, "DPKG_COLORS": "never"})

    def status(self):
        query = subprocess.run(["dpkg-query", f"--admindir={self.folder}/var/lib/dpkg", "-W",
                                "-f=${Version} ${db:Status-Status}", "pex-command"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                               check=False)
        return query.stdout

    def files(self):
        return sorted(str(path.relative_to(self.folder)) for path in self.folder.rglob("*")
                      if "pex-command" in str(path.relative_to(self.folder))
                      and not str(path.relative_to(self.folder)).startswith("var/lib/dpkg"))


@pytest.fixture
def root(tmp_path):
    folder = tmp_path / "root"
    folder.mkdir()
    return Root(folder)


def add_a_line(folder):
    with open(folder / CONFIG, "a") as config:
        config.write("# New in this version.\n")


def test_installs_with_its_user(root, package):
    root.dpkg("--install", package)
    version = package.name.split("_")[1]
    assert root.status() == f"{version} installed"
    assert stat.filemode((root.folder / CONFIG).stat().st_mode) == "-rw-r--r--"
    users = (root.folder / "etc/passwd").read_text()
    assert ":pex-command job service:/var/lib/pex-command:/usr/sbin/nologin\n" in users
    assert (root.folder / "etc/systemd/system/multi-user.target.wants/pex-command.service"
            ).is_symlink()


def test_upgrade_keeps_a_changed_configuration_and_shows_the_new_one(root, package, repack):
    root.dpkg("--install", repack("0.0.1"))
    config = root.folder / CONFIG
    config.write_text("# The administrator's.\n")
    with pytest.raises(subprocess.CalledProcessError):  # dpkg asks what to do
        root.dpkg("--install", repack("0.0.2", add_a_line))
    root.dpkg("--force-confold", "--install", repack("0.0.2", add_a_line))
    assert root.status() == "0.0.2 installed"
    assert config.read_text() == "# The administrator's.\n"
    new = config.with_name(config.name + ".dpkg-dist").read_text()
    assert new.endswith("# New in this version.\n")


def test_upgrade_asks_nothing_where_the_package_brings_the_same_configuration(root, repack):
    root.dpkg("--install", repack("0.0.1"))
    config = root.folder / CONFIG
    config.write_text("# The administrator's.\n")
    root.dpkg("--install", repack("0.0.2"))
    assert config.read_text() == "# The administrator's.\n"


def test_upgrade_brings_a_new_configuration_where_nobody_changed_it(root, repack):
    root.dpkg("--install", repack("0.0.1"))
    root.dpkg("--install", repack("0.0.2", add_a_line))
    assert (root.folder / CONFIG).read_text().endswith("# New in this version.\n")


def test_remove_leaves_configuration_and_files_of_scripts(root, package):
    root.dpkg("--install", package)
    kept = root.folder / "var/lib/pex-command/staging/kept"
    kept.write_text("by a script")
    root.dpkg("--remove", "pex-command")
    assert root.status().endswith(" config-files")
    assert (root.folder / CONFIG).exists() and kept.exists()
    assert not (root.folder / "usr/sbin/pex-command").exists()


def test_purge_leaves_nothing(root, package):
    root.dpkg("--install", package)
    (root.folder / "var/lib/pex-command/staging/kept").write_text("by a script")
    log = root.folder / "var/log/pex-command"
    log.mkdir(parents=True)
    (log / "pex-command.log").touch()
    root.dpkg("--purge", "pex-command")
    assert root.status() in ["", " not-installed"]
    assert root.files() == []


def test_installed_daemon_runs_a_job(root, package, tmp_path, monkeypatch):
    root.dpkg("--install", package)
    monkeypatch.setenv("PEX_COMMAND", str(root.folder / "usr/sbin/pex-command"))
    monkeypatch.setenv("PEXCTL", str(root.folder / "usr/bin/pexctl"))
    broker = harness.Broker(tmp_path).start()
    shipped = (root.folder / CONFIG).read_text()
    config = (shipped.replace("=1883\n", f"={broker.port}\n", 1)
              .replace("=/usr/share", f"={root.folder}/usr/share")
              .replace("=/var/lib", f"={root.folder}/var/lib"))
    examples = root.folder / "usr/share/pex-command/examples/scripts"
    for script in examples.iterdir():
        (root.folder / "usr/share/pex-command/scripts" / script.name).symlink_to(script)
    service = harness.Service(tmp_path / "service", broker, config_text=config)
    try:
        service.start_up()
        pexctl = harness.Pexctl(tmp_path / "user", broker)
        assert pexctl("submit", "greet", '{"name": "dock 7"}') == (0, b"Hello, dock 7!", "")
        answer = pexctl("submit", "--as", "json", "keep_file", '{"name": "a", "content": "b"}')
        assert answer.status == 0, answer
        assert (root.folder / "var/lib/pex-command/staging/a").read_text() == "b"
        assert harness.Pexctl(tmp_path / "user")("check", service.config_file).stdout == (
            b"Nothing to object to. Script directories: 1, scripts: 5\n")
    finally:
        service.finish()
        broker.kill()
