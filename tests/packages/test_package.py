"""What is in the package, whatever its architecture."""

import pathlib
import re
import subprocess

import pytest


def output(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


@pytest.fixture(scope="module")
def architecture(package):
    return output("dpkg-deb", "-f", package, "Architecture").strip()


@pytest.fixture(scope="module")
def files(package, tmp_path_factory):
    folder = tmp_path_factory.mktemp("files")
    subprocess.run(["dpkg-deb", "-R", package, folder], check=True)
    return folder


def test_lintian_has_no_errors_and_no_warnings(package):
    lintian = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", package],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                             check=False)
    assert (lintian.returncode, lintian.stdout) == (0, "")


def test_depends_on_the_four_libraries(package):
    depends = output("dpkg-deb", "-f", package, "Depends")
    names = {re.split(r"[ (]", entry.strip())[0] for entry in depends.split(",")}
    assert {"libc6", "libstdc++6", "liblog4cpp5v5", "liblua5.2-0", "libmosquitto1",
            "libmosquittopp1"} <= names


def test_recommends_the_broker(package):
    assert "mosquitto" in output("dpkg-deb", "-f", package, "Recommends")


def test_version_is_that_of_the_commands(package, files, architecture):
    version = output("dpkg-deb", "-f", package, "Version").strip()
    assert f"_{version}_{architecture}.deb" in package.name
    assert version.encode() in (files / "usr/bin/pexctl").read_bytes()


def test_configuration_is_a_conffile(files):
    assert (files / "DEBIAN/conffiles").read_text() == "/etc/pex-command/pex-command.properties\n"


@pytest.mark.parametrize("path", [
    "usr/sbin/pex-command",
    "usr/bin/pexctl",
    "usr/lib/sysusers.d/pex-command.conf",
    "usr/share/pex-command/scripts",
    "usr/share/pex-command/examples/scripts/greet.lua",
    "usr/share/pex-command/examples/mosquitto/dock.conf",
    "usr/share/pex-command/examples/mosquitto/bridge.conf",
    "usr/share/man/man8/pex-command.8.gz",
    "usr/share/man/man1/pexctl.1.gz",
    "usr/share/bash-completion/completions/pexctl",
    "usr/share/doc/pex-command/README.md",
    "usr/share/doc/pex-command/CHANGELOG.md",
    "usr/share/doc/pex-command/docs/operating.md",
    "var/lib/pex-command/staging",
])
def test_has(files, path):
    assert (files / path).exists()


def test_has_the_unit(files):
    # Where systemd.pc of the release that builds the package says: /lib/systemd until Debian 12.
    assert [path.relative_to(files) for path in files.rglob("pex-command.service")] in (
        [pathlib.Path("lib/systemd/system/pex-command.service")],
        [pathlib.Path("usr/lib/systemd/system/pex-command.service")])


def test_says_that_there_is_no_licence_yet(files):
    text = (files / "usr/share/doc/pex-command/copyright").read_text()
    assert "has not chosen a licence yet" in text


def test_links_of_the_documents_lead_to_files(files):
    docs = files / "usr/share/doc/pex-command"
    dead = [f"{page.relative_to(docs)}: {link}" for page in docs.rglob("*.md")
            for link in re.findall(r"\]\(([^)#:]+)[^)]*\)", page.read_text())
            if not (page.parent / link).exists()]
    assert dead == []


@pytest.mark.parametrize("program", ["usr/sbin/pex-command", "usr/bin/pexctl"])
def test_debug_symbols_are_in_a_package_of_their_own(package, files, tmp_path, program):
    symbols = package.with_name(package.name.replace("pex-command_", "pex-command-dbgsym_"))
    subprocess.run(["dpkg-deb", "-x", symbols, tmp_path], check=True)
    build_id = re.search(r"Build ID: (\w\w)(\w+)", output("readelf", "-n", files / program))
    sections = output("readelf", "-SW", files / program)
    assert ".symtab" not in sections and ".debug_info" not in sections
    debug = tmp_path / f"usr/lib/debug/.build-id/{build_id[1]}/{build_id[2]}.debug"
    assert ".debug_info" in output("readelf", "-SW", debug)


def test_program_is_for_the_architecture(files, architecture):
    machine = re.search(r"Machine: +(.*)", output("readelf", "-h", files / "usr/sbin/pex-command"))
    assert machine[1] == {"amd64": "Advanced Micro Devices X86-64", "arm64": "AArch64",
                          "armhf": "ARM"}[architecture]


def test_programs_name_no_place_where_they_were_built(package, files):
    place = str(package.parent).encode()
    for program in ["usr/sbin/pex-command", "usr/bin/pexctl"]:
        assert place not in (files / program).read_bytes()
