"""The man pages are well formed, and pexctl's leaves out no command and no option."""

import re
import subprocess

import pytest

from harness import DEADLINE, REPOSITORY

PAGE = REPOSITORY / "src/pexctl/pexctl.1"
COMMANDS = ["run", "submit", "attach", "withdraw", "list", "check"]


@pytest.mark.parametrize("page", [PAGE, REPOSITORY / "packaging/pex-command.8"],
                         ids=lambda page: page.name)
def test_is_well_formed(page):
    lint = subprocess.run(["mandoc", "-Tlint", "-Wwarning", page], capture_output=True, text=True,
                          timeout=DEADLINE)
    assert (lint.returncode, lint.stdout) == (0, "")


@pytest.mark.parametrize("command", COMMANDS)
def test_leaves_out_nothing_that_the_help_has(pexctl, command):
    page = PAGE.read_text().replace("\\-", "-")
    usage = pexctl(command, "--help").stdout.decode()
    options = set(re.findall(r"(?<![\w-])--?[a-zA-Z][a-z-]*", usage.split("Examples:")[0]))
    options.discard("--help")
    assert [option for option in sorted(options) if option not in page] == []
    assert f".B pexctl {command}\n" in page
