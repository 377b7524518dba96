"""Tests of a built package. scripts/test-package sets

    PEX_PACKAGE      the package: pex-command_VERSION_ARCH.deb; the one with its debug symbols beside it
    PEX_CLEAN_ROOT   a folder with a bare Debian; each test run works on a copy
"""

import os
import pathlib
import shutil
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))  # for harness


@pytest.fixture(scope="session")
def package():
    return pathlib.Path(os.environ["PEX_PACKAGE"]).resolve()


@pytest.fixture(scope="session")
def repack(package, tmp_path_factory):
    """repack(version, change) is the package once more, with another version and whatever
    change(folder) does to its files."""
    def make(version, change=lambda folder: None):
        folder = tmp_path_factory.mktemp("repack")
        subprocess.run(["dpkg-deb", "-R", package, folder / "files"], check=True)
        control = folder / "files/DEBIAN/control"
        control.write_text("".join(
            f"Version: {version}\n" if line.startswith("Version:") else line
            for line in control.read_text().splitlines(keepends=True)))
        change(folder / "files")
        result = folder / "package.deb"
        subprocess.run(["dpkg-deb", "-b", folder / "files", result], check=True,
                       stdout=subprocess.DEVNULL)
        return result

    return make


@pytest.fixture(scope="session")
def clean_root(tmp_path_factory):
    """A folder with a bare Debian."""
    root = tmp_path_factory.mktemp("machine") / "root"
    subprocess.run(["cp", "-a", os.environ["PEX_CLEAN_ROOT"], root], check=True)
    yield root
    shutil.rmtree(root)
