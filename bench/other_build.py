"""Builds the service of another commit, to compare this one with it."""

import subprocess

from rig import REPOSITORY, Build, Failure

FOLDER = REPOSITORY / "build/against"


def build(commit):
    """The Build of `commit`, in a folder of its own, which is used again the next time."""
    name = short_name(commit)
    tree = FOLDER / name
    if not tree.exists():
        unpack(name, tree)
    run(["cmake", "--preset", "release", "--log-level=WARNING", "-DBUILD_TESTING=OFF"], tree)
    run(["cmake", "--build", "--preset", "release", "--target", "pex-command"], tree)
    return Build(name, tree / "build/release/pex-command")


def unpack(name, tree):
    """Complete or not at all, so that an interrupted run leaves nothing that looks complete."""
    part = tree.with_suffix(".part")
    part.mkdir(parents=True, exist_ok=True)
    archive = part / "archive.tar"
    run(["git", "archive", f"--output={archive}", name], REPOSITORY)
    run(["tar", "-xf", archive], part)
    archive.unlink()
    part.rename(tree)


def short_name(commit):
    found = subprocess.run(["git", "rev-parse", "--verify", "--short=10", f"{commit}^{{commit}}"],
                           cwd=REPOSITORY, capture_output=True, text=True, check=False)
    if found.returncode != 0:
        raise Failure(f"git does not find the commit {commit}: {found.stderr.strip()}")
    return found.stdout.strip()


def run(command, directory):
    if subprocess.run(command, cwd=directory, stdout=subprocess.DEVNULL, check=False).returncode:
        raise Failure(f"{' '.join(map(str, command))} failed in {directory}")
