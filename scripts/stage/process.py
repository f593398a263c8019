"""Child processes that end when their starter does, free ports, and waiting for a condition."""

import ctypes
import os
import signal
import socket
import subprocess
import time

_PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None, use_errno=True)
PATIENCE_SECONDS = 60  # only ever used up when something is broken


class StageError(Exception):
    """Something on the stage did not do what it had to."""


def wait_until(condition, what, patience=PATIENCE_SECONDS, interval=0.02):
    """Waits until condition() is true and returns what it answered. Raises StageError naming `what` when it never is."""
    end = time.monotonic() + patience
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > end:
            raise StageError(f"waited {patience} s in vain for {what}")
        time.sleep(interval)


def free_port():
    """A TCP port of 127.0.0.1 that nobody uses now."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def accepts_connections(port):
    with socket.socket() as probe:
        probe.settimeout(1)
        return probe.connect_ex(("127.0.0.1", port)) == 0


def accepts_unix_connections(path):
    with socket.socket(socket.AF_UNIX) as probe:
        probe.settimeout(1)
        return probe.connect_ex(str(path)) == 0


def _end_with_parent():
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


class Process:
    """One program: started, watched, stopped. Its output goes to `log`, a path; a restart appends."""

    def __init__(self, stage, name, command, log, environment=None):
        self.name = name
        self.command = [str(word) for word in command]
        self.log_path = log
        self.environment = dict(os.environ, **(environment or {}))
        self._child = None
        stage.at_end(self.stop)

    def start(self):
        with open(self.log_path, "ab") as log, open(os.devnull, "rb") as nothing:
            # The new session keeps a terminal's Ctrl-C from the children: the stage stops them in order.
            self._child = subprocess.Popen(self.command, stdin=nothing, stdout=log, stderr=log,
                                           env=self.environment, start_new_session=True, preexec_fn=_end_with_parent)

    @property
    def pid(self):
        return self._child.pid

    def running(self):
        return self._child is not None and self._child.poll() is None

    def log(self):
        return self.log_path.read_text(errors="replace") if self.log_path.exists() else ""

    def started(self, condition):
        """Waits until condition() holds; gives up at once when the program ends first."""
        def holds_or_ended():
            return condition() or not self.running()
        wait_until(holds_or_ended, f"{self.name} to start; its log:\n{self.log()[-4000:]}")
        if not self.running():
            raise StageError(f"{self.name} ended with {self._child.returncode} instead of starting:\n{self.log()[-4000:]}")

    def signal(self, number):
        self._child.send_signal(number)

    def kill(self):
        """kill -9, as a crash would look."""
        if self.running():
            self._child.kill()
        if self._child is not None:
            self._child.wait()

    def wait(self, patience=PATIENCE_SECONDS):
        """Waits for the end and returns the exit code."""
        try:
            return self._child.wait(patience)
        except subprocess.TimeoutExpired as error:
            raise StageError(f"{self.name} has not ended after {patience} s:\n{self.log()[-4000:]}") from error

    def terminate(self, patience=PATIENCE_SECONDS):
        """SIGTERM; waits for the end and returns the exit code."""
        self._child.terminate()
        return self.wait(patience)

    def stop(self):
        """As gently as it allows."""
        if self.running():
            self._child.terminate()
            try:
                self._child.wait(30)
            except subprocess.TimeoutExpired:
                self.kill()
