"""What the fault tests share: the whole state of memory and tables, changing it, and putting the daemons back."""

import json
import mmap
import os
import socket
import struct
import time
from pathlib import Path

from stage.process import StageError
from world import DELAY_MINUTES, World, wait_until

FAMILIES = ("greylist", "reputation", "endpoint")
TUPLES = 1500  # held at most, so a state loses some when it gains some, and scripts stay of one size
NEW_TUPLES = 100  # of one change
NUMBERS_AT_ONCE = 300
SLICE_SECONDS = 10080 // 15 * 60  # of endpoints: so long that no test sees the next one

_TABLES_OF = {
    "greylist": [("grey_list", "'t', ClientIPAddress, SenderEmailAddress, RecipientEmailAddress, CreationTime, ExpiryTime"),
                 ("autoexempt", "'x', ClientIPAddressMask, Domain, ExpiryTime")],
    "reputation": [("sender_reputation_state", "'r', ClientIPAddress, State"), ("sender_reputation", None)],
    "endpoint": [("mms_reputation", "'n', MSISDN, Spam, Infected"),
                 ("mms_reputation_expiry", "'e', MSISDN, expiry")],
}


class FaultWorld(World):
    """A world without Postfix, filled with some of every family, whose whole state is told and changed."""

    def __init__(self):
        super().__init__(postfix=False)
        self._changes = 0
        try:
            self.vellum.settings["greylist"]["max_records"] = TUPLES
            self.vellum.settings["endpoint"] = {"window_minutes": 10080}
            self.vellum.write_settings()
            self.plans = {process.name: Plan(self.stage.path(f"{process.name}.plan"), process)
                          for process in (self.vellum.daemon, self.vellum.dbd)}
            self.vellum.daemon.stop()
            self.vellum.dbd.stop()
            self._fill()
            self.vellum.start()
            self.change(TUPLES)
            self.settle()
        except BaseException:
            self.close()
            raise

    def _fill(self):
        hour = int((time.time() + self.clock.offset()) // 3600)
        addresses = [f"10.9.{number // 200}.{number % 200}" for number in range(400)]
        self.insert("sender_reputation", [(address, hour, 3, 4, 1, 0, 1) for address in addresses])
        self.insert("sender_reputation_state", [(address, number % 4) for number, address in enumerate(addresses)])
        self.insert("autoexempt", [(f"10.8.{number}.0/24", "exempt.example", 1, 2000000000) for number in range(200)])

    def insert(self, table, rows):
        values = ", ".join("(" + ", ".join(repr(value) for value in row) + ")" for row in rows)
        self.mariadb.query(f"INSERT INTO {table} VALUES {values}")

    def tables(self):
        """What the tables hold, by family, each as one transaction left it."""
        names = [f"{table} READ" for tables in _TABLES_OF.values() for table, _ in tables]
        selects = [f"SELECT '{family}', {columns} FROM {table}" for family, tables in _TABLES_OF.items()
                   for table, columns in tables if columns]
        rows = self.mariadb.query("LOCK TABLES " + ", ".join(names) + "; " + "; ".join(selects) + "; UNLOCK TABLES")
        state = {family: set() for family in FAMILIES}
        numbers = {}
        for family, kind, *values in rows:
            if kind in ("n", "e"):
                numbers.setdefault(values[0], {"n": 0, "e": 0})[kind] += sum(map(int, values[1:]))
            else:
                state[family].add((kind, *values))
        state["endpoint"] = {(number, str(both["n"]), str(both["e"])) for number, both in numbers.items()}
        return state

    def memory(self):
        """What the state daemon holds, in the same form."""
        delay = DELAY_MINUTES * 60
        tuples = {("t", record["network"], record["sender"], record["recipient"], str(record["pass_time"] - delay),
                   str(record["expiry"])) for record in self.vellum.tuples()}
        exemptions = {("x", record["network"], record["domain"], str(record["expiry"]))
                      for record in self.vellum.exemptions()}
        reputation = {("r", record["address"], str(record["state"])) for record in self._listed("reputation")}
        endpoints = {(record["number"], str(record["score"]), str(record["expiry"])) for record in self._listed("endpoint")}
        return {"greylist": tuples | exemptions, "reputation": reputation, "endpoint": endpoints}

    def _listed(self, family):
        return json.loads(self.vellum.ctl(family, "list", "--json"))

    def change(self, count=NEW_TUPLES):
        """Gives memory a state that the tables do not hold yet, and answers it."""
        self._changes += 1
        policy = self.policy()
        for number in range(count):
            policy.ask(f"10.{self._changes % 250}.{number % 250}.1", f"s{number}x@change{self._changes}.example",
                       "faults@example.org")
        policy.close()
        endpoints = self._listed("endpoint")
        if len(endpoints) > 1:
            self.vellum.ctl("endpoint", "remove", endpoints[0]["number"])
        return self.memory()

    def more_numbers(self):
        """Subscriber numbers for some more changes, in tables and memory."""
        slice_number = int((time.time() + self.clock.offset()) // SLICE_SECONDS)
        self.mariadb.query("DELETE FROM mms_reputation; DELETE FROM mms_reputation_expiry")
        numbers = [str(15555000000 + number) for number in range(NUMBERS_AT_ONCE)]
        self.insert("mms_reputation", [(number, slice_number, 1, 2) for number in numbers])
        self.insert("mms_reputation_expiry", [(number, 0) for number in numbers])
        self.vellum.ctl("endpoint", "reload")

    def accepted_is_done(self):
        """Waits until every accepted script has been run."""
        wait_until(self.is_settled, "the database daemon to be done with every script")

    def is_settled(self):
        """Whether it is done with all that it has accepted; not when it does not answer."""
        with socket.socket(socket.AF_UNIX) as asking:
            asking.settimeout(10)
            try:
                asking.connect(str(self.vellum.directory / "run/dbd.sock"))
                asking.sendall(struct.pack("=ii", 0, 2) + b"/\0")  # request code 0 is this question
                return asking.recv(4) == struct.pack("=i", 0)
            except OSError:
                return False

    def settle(self):
        """No faults any more: everything runs, and tables and memory hold one state, which is answered."""
        for plan in self.plans.values():
            plan.disarm()
        self.accepted_is_done()
        state = self.memory()
        if len(state["endpoint"]) < 2:
            self.more_numbers()
            state = self.memory()
        if state != self.tables():
            self.vellum.ctl("backup")
            self.accepted_is_done()
        stored = self.tables()
        for family in FAMILIES:
            if state[family] != stored[family]:
                raise StageError(f"{family}: {difference(state[family], stored[family])} after a backup without faults")
        return stored


def difference(left, right):
    """Two states in a few words."""
    return (f"{len(left - right)} and {len(right - left)} of {len(left)} and {len(right)} are in one only, such as "
            f"{sorted(left - right)[:2]} and {sorted(right - left)[:2]}")


class Plan:
    """Which call of which function fails in a program; tests/support/faults/FailNth.cpp says how."""

    NUMBERS = {"write": 1, "sync": 2, "send": 3, "connect": 4, "query": 5, "allocation": 6, "rename": 7, "receive": 8}

    def __init__(self, path, process=None):
        path.write_bytes(struct.pack("=Iii", 0, 0, 0))
        with open(path, "r+b") as file:
            self._bytes = mmap.mmap(file.fileno(), 12)
        self.environment = {"VELLUM_FAULT_PLAN": str(path)}
        if process is not None:
            preloaded = process.environment.get("LD_PRELOAD")
            process.environment.update(self.environment, LD_PRELOAD=f"{preloaded}:{library()}" if preloaded else library())
        self.environment["LD_PRELOAD"] = library()

    def arm(self, function, nth, error):
        self.disarm()
        self._bytes[4:12] = struct.pack("=ii", nth, error)
        self._bytes[0:4] = struct.pack("=I", self.NUMBERS[function])

    def disarm(self):
        """Answers whether the call came that was to fail."""
        self._bytes[0:4] = struct.pack("=I", 0)
        return struct.unpack("=i", self._bytes[4:8])[0] == 0


def library():
    return str(Path(os.environ["VELLUM_PROGRAMS"]).parent / "lib/libvellum_fail_nth.so")


__all__ = ["FAMILIES", "FaultWorld", "Plan", "difference"]
