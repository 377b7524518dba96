"""One run of a program of scripts/ that works in a directory of its own."""

import os
import pathlib
import signal
import subprocess

from harness import DEADLINE


class ScriptRun:
    """`directory` is empty, and the program works in a part of it whose name begins with `prefix`."""

    prefix: str
    deadline = 6 * DEADLINE

    def __init__(self, directory, command, **environment):
        self.directory = directory
        self.process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, env={**os.environ, "TMPDIR": str(directory), **environment},
            # Tests that a shell runs in the background ignore SIGINT, and so would the program.
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))

    def end(self):
        """The exit status, standard output and standard error. Nothing may be left."""
        try:
            out, err = self.process.communicate(timeout=self.deadline)
        except subprocess.TimeoutExpired:
            self.process.terminate()
            raise
        finally:
            forgotten = self.children()
            for pid in forgotten:
                os.kill(pid, signal.SIGKILL)
        assert forgotten == {}
        assert list(self.directory.iterdir()) == []
        return self.process.returncode, out, err

    def children(self):
        """The processes that work in the run's directory: their ids and command lines."""
        found = {}
        for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
            try:
                found[int(path.parent.name)] = path.read_bytes()
            except OSError:  # ended meanwhile
                pass
        return {pid: line for pid, line in found.items()
                if f"{self.directory}/{self.prefix}".encode() in line}
