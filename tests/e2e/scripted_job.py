"""A job that runs until the test lets it go on."""

import os

from harness import request, wait_until


class GatedJob:
    """A script that waits for open() and then answers "done".

    It reads a FIFO to its end, which leaves the daemon as deaf as any long job does.
    """

    # A signal makes Lua's calls fail, so they are repeated: the job runs to its end regardless.
    _text = """
        local gate, reason
        repeat
            gate, reason = io.open(args)
        until gate or not reason:find("Interrupted")
        repeat until gate:read("*a")
        gate:close()
        return "done"
    """

    def __init__(self, scripts, name="gated"):
        scripts.add(name, self._text)
        self._fifo = scripts.directory / (name + ".fifo")
        self._writer = None
        os.mkfifo(self._fifo)
        self.request = request(name, str(self._fifo))

    def wait_until_running(self):
        wait_until(self._try_to_open, "the job to run")

    def open(self):
        """Lets the running job end."""
        os.close(self._writer)
        self._writer = None

    def abandon(self):
        """Leaves nothing to wait for, neither to a running job nor to later ones."""
        if self._writer is not None:
            self.open()
        wake = os.open(self._fifo, os.O_RDWR)
        os.unlink(self._fifo)
        os.close(wake)

    def _try_to_open(self):
        try:
            self._writer = os.open(self._fifo, os.O_WRONLY | os.O_NONBLOCK)
        except OSError:  # ENXIO: nobody reads yet
            return False
        return True
