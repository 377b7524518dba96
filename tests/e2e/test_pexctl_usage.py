"""pexctl's command line: its help, its version, and what it refuses."""

import re

import pytest

COMMANDS = ["run", "submit", "attach", "withdraw", "list", "check"]


@pytest.mark.parametrize("command", [[], *([name] for name in COMMANDS)],
                         ids=["pexctl", *COMMANDS])
def test_help_fits_a_screen_and_ends_with_examples(pexctl, command):
    status, output, stderr = pexctl(*command, "--help")
    assert (status, stderr) == (0, "")
    lines = output.decode().splitlines()
    assert len(lines) <= 24
    assert max(map(len, lines)) <= 80
    assert lines[1].startswith(" ".join(["Usage: pexctl", *command]))
    assert lines[-3] == "Examples:"
    for example in lines[-2:]:
        examples_of = "|".join(command or COMMANDS)
        assert re.match(f"  (sudo -u pex-command )?pexctl ({examples_of})( |$)", example), example


def test_help_names_all_commands(pexctl):
    listed = [line.split()[0] for line in
              pexctl("--help").stdout.decode().splitlines() if line.startswith("  ")]
    assert listed[:6] == COMMANDS


# One line of each command's help; other lines are other options.
@pytest.mark.parametrize("command, line", [
    ("run", "  --search-dir DIR   look for scripts here; may be repeated"),
    ("submit", "  -W, --timeout S    give up after S seconds (60; 0: never)"),
    ("submit", "  -h HOST|SOCKET  -p PORT  -u USER  -P PASSWORD  --config FILE"),
    ("attach", "  --cafile FILE  --capath DIR  --cert FILE  --key FILE  --insecure"),
    ("withdraw", "Usage: pexctl withdraw [OPTIONS] ID"),
    ("list", "Usage: pexctl list [OPTIONS]"),
    ("check", "Usage: pexctl check [OPTIONS] CONFIG"),
    ("run", "Usage: pexctl run [OPTIONS] SCRIPT [ARGS]"),
])
def test_help_explains(pexctl, command, line):
    assert line in pexctl(command, "--help").stdout.decode().splitlines()


def test_examples_of_run_run(pexctl):
    (pexctl.directory / "greet.lua").write_text("return 'Hello, ' .. args.name")
    assert pexctl("run", "./greet.lua", '{"name": "dock 7"}') == (0, b"Hello, dock 7", "")


def test_version(pexctl):
    status, output, stderr = pexctl("--version")
    assert (status, stderr) == (0, "")
    assert re.fullmatch(rb"pexctl \d+\.\d+\.\d+\n", output)


@pytest.mark.parametrize("arguments, text, help_of", [
    (["nosuch"], "There is no command nosuch", ""),
    (["nosuch", "--keep"], "There is no command nosuch", ""),
    (["--nosuch"], None, ""),
    (["run"], "SCRIPT is required", "run "),
    (["submit"], "SCRIPT is required", "submit "),
    (["attach"], "ID is required", "attach "),
    (["withdraw"], "ID is required", "withdraw "),
    (["check"], "CONFIG is required", "check "),
    (["list", "7"], "The following argument was not expected: 7", "list "),
    (["run", "a", "1", "2"], "The following argument was not expected: 2", "run "),
    (["attach", "7", "8"], "The following argument was not expected: 8", "attach "),
    (["run", "--nosuch", "a"], "The following argument was not expected: --nosuch", "run "),
    (["run", "--id", "7", "a"], None, "run "),
    (["attach", "--retain", "7"], "The following argument was not expected: --retain", "attach "),
    (["run", "--keep", "a"], "The following argument was not expected: --keep", "run "),
    (["list", "--as", "text"], None, "list "),
    (["run", "a", "1", "--msgpack", "f"], "ARGS excludes --msgpack", "run "),
    (["run", "a", "--as", "xml"], "--as: xml not in {auto,hex,json,raw,text}", "run "),
    (["submit", "a", "-q", "0"], None, "submit "),
    (["submit", "a", "-q", "3"], None, "submit "),
    (["submit", "a", "-q", "x"], None, "submit "),
    (["submit", "a", "-W", "-1"], "--timeout: Value -1 not in range 0 to 1000000000", "submit "),
    (["list", "-W", "1000000001"], None, "list "),
    (["list", "-W", "soon"], "--timeout: Value soon not in range 0 to 1000000000", "list "),
    (["list", "-W"], None, "list "),
    (["list", "-p", "65536"], "--port: Value 65536 not in range 0 to 65535", "list "),
    (["list", "-p", "-1"], None, "list "),
    (["list", "-p", "1", "-p", "2"], None, "list "),
    (["list", "-P", "secret"], "--pw requires --username", "list "),
    (["list", "--cafile", "f", "--cert", "f"], "--cert requires --key", "list "),
    (["list", "--cafile", "f", "--key", "f"], "--key requires --cert", "list "),
    (["list", "--insecure"], None, "list "),
    (["list", "--cert", "f", "--key", "f"], None, "list "),
    (["submit", "--detach", "--keep", "--id", "", "a"], None, "submit "),
], ids=lambda value: " ".join(value) if isinstance(value, list) else "")
def test_wrong_usage(pexctl, arguments, text, help_of):
    status, output, stderr = pexctl(*arguments)
    assert (status, output) == (2, b"")
    first_line, second_line = stderr.splitlines()
    assert first_line.startswith("pexctl: ") and first_line != "pexctl: "
    # CLI11 writes a range as 0 to 9 in Debian 12, and as [0 - 9] in Debian 13.
    first_line = re.sub(r"\[(\d+) - (\d+)\]$", r"\1 to \2", first_line)
    assert text is None or first_line == "pexctl: " + text
    assert second_line == f"See `pexctl {help_of}--help`."


def test_command_is_required(pexctl):
    status, output, stderr = pexctl()
    assert (status, output) == (2, b"")
    assert stderr.endswith("See `pexctl --help`.\n")


@pytest.mark.parametrize("spelling", [
    ["--search-dir", "one", "greet", "1"], ["greet", "1", "--search-dir", "one"],
    ["greet", "--search-dir=one", "1"], ["--search-dir", "one", "--", "greet", "1"],
], ids=lambda spelling: " ".join(spelling))
def test_options_may_stand_anywhere(pexctl, spelling):
    (pexctl.directory / "one").mkdir()
    (pexctl.directory / "one/greet.lua").write_text("return args + 1")
    assert pexctl("run", *spelling) == (0, b"2", "")
