"""Completion of pexctl's command line in bash."""

import subprocess

import pytest

from harness import REPOSITORY, Scripts, Service, pexctl_program

COMPLETION = REPOSITORY / "src/pexctl/pexctl.bash"
COMMANDS = ["run", "submit", "attach", "withdraw", "list", "check", "--help", "--version"]


def bash(pexctl, script, *arguments):
    completed = subprocess.run(["bash", "-c", f"source {COMPLETION}\n{script}", "bash", *arguments],
                               cwd=pexctl.directory, env=pexctl.environment(), check=True,
                               capture_output=True, text=True)
    # Here no key was pressed, so there is nothing that compopt could change.
    complaints = [line for line in completed.stderr.splitlines() if "compopt: not" not in line]
    assert complaints == []
    return completed.stdout.splitlines()


@pytest.fixture
def complete(pexctl, tmp_path):
    """complete("run", "gr") returns what bash offers for the last word."""
    program_of_test = pexctl_program(tmp_path)

    def offered(*words, program=program_of_test):
        return sorted(bash(pexctl, """
            COMP_WORDS=("$@")
            COMP_CWORD=$(($# - 1))
            _pexctl
            [[ ${#COMPREPLY[@]} -eq 0 ]] || printf '%s\\n' "${COMPREPLY[@]}"
        """, program, *words))

    job_scripts = Scripts(pexctl.directory / "job_scripts")
    for name in ["greet", "great", "backup"]:
        job_scripts.add(name, "")
    for name in ["args.json", "own.lua", "other.txt"]:
        (pexctl.directory / name).touch()
    return offered


def options_of(pexctl, command):
    """The options that the command's help names."""
    words = pexctl(command, "--help").stdout.decode().replace(",", " ").split()
    explained = {word for word in words[words.index("Usage:"):words.index("Examples:")]
                 if word.startswith("-") and word != "-"}
    return sorted(explained)


def test_function_is_registered(pexctl):
    assert bash(pexctl, "complete -p pexctl") == ["complete -F _pexctl pexctl"]


def test_commands(complete):
    assert complete("") == sorted(COMMANDS)
    assert complete("s") == ["submit"]
    assert complete("--") == ["--help", "--version"]
    assert complete("x") == []


@pytest.mark.parametrize("command", ["run", "submit", "attach", "withdraw", "list"])
def test_options_are_those_of_the_help(complete, pexctl, command):
    options = options_of(pexctl, command)
    assert len(options) > 5
    assert set(complete(command, "-")) == set(options)
    assert complete(command, "--t") == [option for option in options if option.startswith("--t")]


@pytest.mark.parametrize("words, offered", [
    (["run", "--as", ""], ["auto", "hex", "json", "raw", "text"]),
    (["submit", "--as", "j"], ["json"]),
    (["submit", "-q", ""], ["1", "2"]),
    (["submit", "--qos", ""], ["1", "2"]),
    (["submit", "-W", ""], []),
    (["submit", "--id", ""], []),
    (["submit", "-p", ""], []),
    (["run", "--search-dir", ""], ["job_scripts", "temporary"]),
    (["run", "--staging-dir", "t"], ["temporary"]),
    (["run", "--config", "ot"], ["other.txt"]),
    (["submit", "--msgpack", "a"], ["args.json"]),
    (["list", "--cafile", "ar"], ["args.json"]),
], ids=lambda value: " ".join(value))
def test_values_of_options(complete, words, offered):
    assert complete(*words) == offered


@pytest.mark.parametrize("words, offered", [
    (["submit", ""], ["backup", "great", "greet"]),
    (["submit", "gr"], ["great", "greet"]),
    (["submit", "-p", "1883", "--keep", "gree"], ["greet"]),
    (["submit", "--detach", "--retain", "-W", "5", "b"], ["backup"]),
    # run takes paths, too.
    (["run", "gr"], ["great", "greet"]),
    (["run", "o"], ["own.lua"]),
    (["run", ""], ["backup", "great", "greet", "job_scripts", "own.lua", "temporary"]),
    (["run", "job_scripts/b"], ["job_scripts/backup.lua"]),
    (["run", "--trace", "--force", "ba"], ["backup"]),
], ids=lambda value: " ".join(value))
def test_scripts(complete, words, offered):
    assert complete(*words) == offered


def test_scripts_of_the_directories_that_were_named(complete, scripts, tmp_path):
    scripts.add("named", "")
    Scripts(tmp_path / "more").add("more", "")
    config = Service(tmp_path / "dock", settings={"script.search_dirs": scripts.directory})
    assert complete("run", "--search-dir", str(scripts.directory), "na") == ["named"]
    assert complete("submit", "--config", str(config.config_file), "") == ["named"]
    assert complete("submit", "--search-dir", str(scripts.directory), "--search-dir",
                    f"{tmp_path}/more", "") == ["more", "named"]


@pytest.mark.parametrize("words, offered", [
    (["run", "greet", "@"], ["@args.json", "@job_scripts", "@other.txt", "@own.lua", "@temporary"]),
    (["run", "greet", "@ar"], ["@args.json"]),
    (["submit", "-h", "dock7", "greet", "@job_scripts/b"], ["@job_scripts/backup.lua"]),
    (["run", "greet", ""], []),
    (["run", "greet", "ar"], []),
    (["run", "greet", "@args.json", "@"], []),
    (["run", "--msgpack", "args.json", "gre"], ["great", "greet"]),
], ids=lambda value: " ".join(value))
def test_files_with_arguments(complete, words, offered):
    assert complete(*words) == offered


@pytest.mark.parametrize("words, offered", [
    (["check", "o"], ["other.txt", "own.lua"]),
    (["check", "other.txt", ""], []),
    (["attach", ""], []),
    (["list", ""], []),
], ids=lambda value: " ".join(value))
def test_other_operands(complete, words, offered):
    assert complete(*words) == offered


def test_program_may_be_found_by_the_path(complete, pexctl, monkeypatch):
    programs = pexctl.directory / "programs"
    programs.mkdir()
    pexctl_program(programs)
    monkeypatch.setenv("PATH", f"{programs}:/usr/bin:/bin")
    assert complete("submit", "ba", program="pexctl") == ["backup"]
