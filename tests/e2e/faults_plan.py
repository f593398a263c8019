"""Which call of which function fails in a program under test; tests/support/faults/FailNth.cpp says how."""

import mmap
import os
import struct
from pathlib import Path

FUNCTIONS = {"write": 1, "sync": 2, "send": 3, "connect": 4, "query": 5, "allocation": 6, "rename": 7, "receive": 8,
             "read": 9, "library allocation": 10}
MANY = (1 << 31) - 1


class Plan:
    """Of one program. `process` gets it with its next start; another one is started with `environment`."""

    def __init__(self, path, process=None):
        path.write_bytes(struct.pack("=Iiii", 0, 0, 0, 0))
        with open(path, "r+b") as file:
            self._bytes = mmap.mmap(file.fileno(), 16)
        self.environment = {"VELLUM_FAULT_PLAN": str(path)}
        if process is not None:
            preloaded = process.environment.get("LD_PRELOAD")
            process.environment.update(self.environment, LD_PRELOAD=f"{preloaded}:{library()}" if preloaded else library())
        self.environment["LD_PRELOAD"] = library()

    def is_mapped(self):
        """Whether a program has the plan: the loader only warns when it does not find the library."""
        return struct.unpack("=i", self._bytes[12:16])[0] == 1

    def arm(self, function, nth, error):
        self.disarm()
        self._bytes[4:12] = struct.pack("=ii", nth, error)
        self._bytes[0:4] = struct.pack("=I", FUNCTIONS[function])

    def disarm(self):
        """Answers whether the call came that was to fail."""
        self._bytes[0:4] = struct.pack("=I", 0)
        return struct.unpack("=i", self._bytes[4:8])[0] == 0

    def count(self, function):
        """Begins to count calls; counted() ends it and answers their number."""
        self.arm(function, MANY, 0)

    def counted(self):
        self.disarm()
        return MANY - struct.unpack("=i", self._bytes[4:8])[0]


def library():
    path = Path(os.environ["VELLUM_PROGRAMS"]).parent / "lib/libvellum_fail_nth.so"
    if not path.exists():
        raise FileNotFoundError(f"{path} is not built: no call would ever fail")
    return str(path)


__all__ = ["Plan"]
