"""A Debian of its own, started from a folder by systemd-nspawn, without a network.

    machine.run("systemctl", "stop", "pex-command")   runs a command in it, as root
    machine.path("/etc/hosts")                        a file of it, seen from outside
    machine.wait_for_journal("Started", since)        waits for a line of the unit's journal
"""

import functools
import os
import pathlib
import signal
import subprocess

import harness

DEADLINE = 120
UNIT = "pex-command"

wait_until = functools.partial(harness.wait_until, deadline=DEADLINE)


class Machine:
    def __init__(self, root):
        self.root = pathlib.Path(root)
        self._console = self.root.with_suffix(".console")
        self._container = None
        self._leader = None

    def boot(self):
        """Returns whether it has come up; console() tells more."""
        # Its console is read to its end, so that it must not end.
        self._container = subprocess.Popen(
            ["systemd-nspawn", "--quiet", f"--directory={self.root}", "--register=no", "--keep-unit",
             "--private-network", "--console=pipe", "--boot"],
            stdin=subprocess.PIPE, stdout=open(self._console, "wb"), stderr=subprocess.STDOUT)
        wait_until(lambda: self._is_up() or self._container.poll() is not None,
                   lambda: "the machine to start:\n" + self.console())
        return self._container.poll() is None

    def console(self):
        return self._console.read_text(errors="replace")[-3000:]

    def path(self, path):
        return self.root / path.lstrip("/")

    def run(self, *command, status=0, user=None, **options):
        """Runs a command to its end, checks its exit status (None: any), returns its output."""
        as_user = ["runuser", "-u", user, "--"] if user else []
        done = subprocess.run([*self._enter(), *as_user, *command], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=DEADLINE, **options)
        assert status in (None, done.returncode), (done.returncode, done.stdout)
        return done.stdout

    def start(self, *command):
        return subprocess.Popen([*self._enter(), *command], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def property(self, name):
        return self.run("systemctl", "show", UNIT, "--property=" + name, "--value").strip()

    def mark(self):
        return len(self.journal())

    def journal(self, since=0):
        """The unit's messages, and systemd's about it."""
        return self.run("journalctl", "--unit=" + UNIT, "--output=cat", "--quiet")[since:]

    def wait_for_journal(self, text, since=0):
        wait_until(lambda: text in self.journal(since),
                   lambda: f"{text!r} in the journal:\n{self.journal(since)}")
        return self.journal(since)

    def shut_down(self):
        if self._container is None:
            return
        self._container.send_signal(signal.SIGTERM)
        try:
            self._container.wait(DEADLINE)
        finally:
            if self._container.poll() is None:
                os.kill(self._leader, signal.SIGKILL)
                self._container.wait(DEADLINE)
            self._container.stdin.close()

    def _is_up(self):
        children = pathlib.Path(
            f"/proc/{self._container.pid}/task/{self._container.pid}/children").read_text().split()
        if len(children) != 1:
            return False
        self._leader = int(children[0])
        state = subprocess.run([*self._enter(), "systemctl", "is-system-running"], text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
        return state.stdout.strip() in ["running", "degraded"]

    def _enter(self):
        return ["nsenter", f"--target={self._leader}", "--mount", "--uts", "--ipc", "--net", "--pid",
                "--root", "--wd"]
