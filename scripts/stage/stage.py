"""The temporary directory and everything that runs in it."""

import os
import shutil
import signal
import tempfile
from pathlib import Path

SOURCE_DIRECTORY = Path(__file__).resolve().parents[2]


def _leave(number, _frame):
    raise SystemExit(128 + number)


class Stage:
    """Owns a temporary directory and the processes started on it; a context manager.

    On leaving, by whatever way (also Ctrl-C and SIGTERM), all processes are stopped, the last started first, and the
    directory is removed unless `keep` is true.
    """

    def __init__(self, keep=False):
        self.keep = keep
        # Of the world only because Postfix and its delivery run as users of their own.
        self.directory = Path(tempfile.mkdtemp(prefix="vellum-stage."))
        self.directory.chmod(0o755)
        self._closers = []

    def __enter__(self):
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            signal.signal(number, _leave)
        return self

    def __exit__(self, *_):
        self.close()

    def path(self, *parts):
        """A path inside; the directories above it exist afterwards."""
        result = self.directory.joinpath(*parts)
        result.parent.mkdir(parents=True, exist_ok=True)
        return result

    def make_directory(self, name, mode=0o755):
        result = self.path(name)
        result.mkdir(exist_ok=True)
        result.chmod(mode)
        return result

    def at_end(self, closer):
        """Calls closer() when the stage ends. Last come, first called."""
        self._closers.append(closer)

    def close(self):
        # A second Ctrl-C must not leave half of it running.
        previous = {number: signal.signal(number, signal.SIG_IGN) for number in (signal.SIGINT, signal.SIGTERM)}
        try:
            while self._closers:
                try:
                    self._closers.pop()()
                except Exception as error:  # the others must be stopped all the same
                    print(f"while stopping: {error}")
            if self.keep:
                print(f"kept: {self.directory}")
            else:
                shutil.rmtree(self.directory, ignore_errors=True)
        finally:
            for number, handler in previous.items():
                signal.signal(number, handler)


def needs_root():
    """Why this cannot run as it is called, or None: Postfix' master process only works for root."""
    if os.geteuid() == 0:
        return None
    return "a private Postfix can only be started by root (Postfix itself insists)"
