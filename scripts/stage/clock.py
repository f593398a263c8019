"""A clock that a test moves ahead: hours of greylisting in no time.

The programs started with environment() see the real time plus offset(); they are not changed for it. Their timeouts
and intervals (the monotonic clock) stay real.
"""

import glob

from .process import StageError


class MovableClock:
    def __init__(self, stage):
        libraries = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
        if not libraries:
            raise StageError("libfaketimeMT.so.1 is missing: scripts/install-packages brings it")
        self._library = libraries[0]
        self._file = stage.path("clock")
        self._offset = 0
        self._write()

    def _write(self):
        # Written beside and renamed: a program must never read half of it.
        fresh = self._file.with_suffix(".new")
        fresh.write_text(f"{self._offset:+}\n")
        fresh.rename(self._file)

    def environment(self):
        return {"LD_PRELOAD": self._library, "FAKETIME_TIMESTAMP_FILE": str(self._file), "FAKETIME_NO_CACHE": "1",
                "FAKETIME_DONT_FAKE_MONOTONIC": "1", "FAKETIME_DISABLE_SHM": "1", "NO_FAKE_STAT": "1"}

    def offset(self):
        return self._offset

    def advance(self, seconds=0, minutes=0, hours=0, days=0):
        self._offset += seconds + 60 * (minutes + 60 * (hours + 24 * days))
        self._write()
