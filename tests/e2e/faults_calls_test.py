"""Calls that fail: the n-th write, allocation, statement, ... of a program, for n = 1, 2, ... until it is no longer reached.

Whatever fails, each family's tables are the old or the new state, and the next time all is well. The usual run leaves
gaps between the n; the long one (VELLUM_FAULT_ROUNDS is set, scripts/faults) leaves none.
"""

import errno
import itertools
import json
import os
import shutil
import signal
import unittest

from faults import FAMILIES, FaultWorld, after_load, rows_of, whose
from faults_plan import Plan
from stage.vellum import accepts_connections, accepts_unix_connections
from world import wait_until

LONG = "VELLUM_FAULT_ROUNDS" in os.environ
MOST = 50000  # calls of one function; there are far fewer

ERRORS = {"write": errno.ENOSPC, "sync": errno.EIO, "rename": errno.EACCES, "connect": errno.ECONNREFUSED,
          "send": errno.EPIPE, "receive": errno.ECONNRESET, "read": errno.EIO, "query": 0, "allocation": errno.ENOMEM,
          "library allocation": errno.ENOMEM}
# What is called, so that each of these must have failed at least once.
SAVED_BY_STATE_DAEMON = ("write", "sync", "rename", "connect", "send", "receive", "query", "allocation",
                         "library allocation")
RUN_BY_DATABASE_DAEMON = ("write", "sync", "rename", "connect", "send", "receive", "read", "query", "allocation",
                          "library allocation")
RESTORED_BY_STATE_DAEMON = ("connect", "send", "receive", "read", "query", "allocation", "library allocation")
LOADED_BY_STATE_DAEMON = ("connect", "send", "receive", "query", "allocation", "library allocation")
ASKED_BY_TOOL = ("connect", "send", "receive", "allocation")
# How a daemon may end without memory. The client library itself uses some of its memory without a look.
ENDS = {"allocation": (-signal.SIGABRT,), "library allocation": (-signal.SIGABRT, -signal.SIGSEGV)}
CANNOT_START = 69
SCRIPTS = {"greylist": "greylist.sql", "reputation": "reputation.sql", "endpoint": "endpoint.sql"}


def setUpModule():
    global world
    world = FaultWorld(tuples=15, addresses=5, numbers=5, new_addresses=5)


def tearDownModule():
    world.close()


def ordinals(gaps=not LONG):
    """1, 2, 3, ...: each, or with ever larger gaps."""
    nth = 1
    while nth < MOST:
        yield nth
        nth += 3 * nth if gaps and nth > 1 else 1
    raise AssertionError(f"{MOST} calls and no end")


def scripts_are_whole():
    """Every script that the state daemon has written; a broken one would be run by a restore."""
    return all(script.read_bytes().endswith(b"UNLOCK TABLES;\n")
               for script in (world.vellum.directory / "state").glob("*.sql"))


def backups_that_are_off():
    """The families of which memory does not hold the whole, as the daemon knows."""
    status = json.loads(world.vellum.ctl("status", "--json"))
    gates = {"greylist": status, "reputation": status["reputation"], "endpoint": status["endpoints"]}
    return [family for family, gate in gates.items() if not gate["backup"]["allowed"]]


class FailingCalls(unittest.TestCase):
    def setUp(self):
        world.bring_back()
        self.assertEqual(world.load(), [])  # whatever another test has left
        world.settle()
        self.failures = {}
        self.loads_missed = 0
        self.plan = None
        self.addCleanup(world.bring_back)

    def tearDown(self):
        for plan in (self.plan, *world.plans.values()):
            plan.disarm()
        print(f"{sum(self.failures.values())} failures {self.failures} ... ", end="", flush=True)

    def for_each(self, plan, functions, attempt, gaps=not LONG, in_a_row=1):
        """attempt(function, nth, what) makes a call fail by arm() and answers whether failed() told that it came.

        The first attempt that goes wrong ends the test. `in_a_row`: so many attempts without a failure are the end.
        """
        self.plan = plan
        for function in functions:
            self.failures[function] = missed = 0
            for nth in ordinals(gaps):
                what = f"{function} {nth}"
                try:
                    failed = attempt(function, nth)
                except Exception as error:
                    raise AssertionError(f"{what}: {error}\n{world.vellum.log()[-2000:]}") from error
                self.failures[function] += failed
                missed = 0 if failed else missed + 1
                if missed == in_a_row:
                    break
            self.assertGreater(self.failures[function], 0, f"no {function} has failed")

    def arm(self, function, nth):
        self.plan.arm(function, nth, ERRORS[function])

    def bring_back(self, function, refused=()):
        """Who found no memory may have ended, and one that starts with a `refused` code; nobody in another way."""
        for code in world.bring_back():
            if code not in refused:
                self.assertIn("allocation", function, f"a daemon ended with {code}")
                self.assertIn(code, ENDS[function])

    # A backup and its script

    def check_saving(self, plan, functions, environment=None):
        def attempt(function, nth):
            old, new = world.change(2)
            self.arm(function, nth)
            status = world.tool("backup", **(environment or {}))
            if status == 0:
                wait_until(lambda: world.is_settled() or not world.vellum.dbd.running(), "the script to be run",
                           interval=0.005)
            failed = self.plan.disarm()
            # A tool that has no memory at all may also abort.
            self.assertIn(status, (0, 1, 3, 4) + ((-signal.SIGABRT,) if environment else ()))
            self.bring_back(function)
            world.accepted_is_done()
            whose(world.tables(), (new,) if status == 0 else (old, new))
            # What was not accepted, or is done, must not be run at the next start. Where the tool has given up, the
            # daemon may still be about to hand over a script.
            wait_until(lambda: not list((world.vellum.directory / "journal").glob("*.sql")), "the journal to be empty")
            self.assertTrue(scripts_are_whole())
            if not failed:
                self.assertEqual(status, 0)
            return failed
        self.for_each(plan, functions, attempt)

    def test_state_daemon_that_saves(self):
        self.check_saving(world.plans["vellumd"], SAVED_BY_STATE_DAEMON)

    def test_database_daemon_that_runs_the_script(self):
        self.check_saving(world.plans["vellum-dbd"], RUN_BY_DATABASE_DAEMON)

    def test_vellumctl_that_asks_for_a_backup(self):
        plan = Plan(world.stage.path("vellumctl.plan"))
        self.check_saving(plan, ASKED_BY_TOOL, plan.environment)
        self.assertTrue(plan.is_mapped())

    # A restore

    def two_states(self):
        """Two directories with the scripts of all families, and their states; the tables hold the second one."""
        states = []
        for name in ("one", "other"):
            world.change()
            state = world.settle()
            directory = world.stage.make_directory(f"{self.id()}-{name}")
            for script in SCRIPTS.values():
                shutil.copy(world.vellum.directory / "state" / script, directory)
            states.append((directory, state))
        return states

    def test_state_daemon_that_restores(self):
        states = self.two_states()
        stored = {family: 1 for family in FAMILIES}  # which of the two
        lists = states[1][1]["lists"]
        families = itertools.cycle(FAMILIES)

        def attempt(function, nth):
            family = next(families)
            other = 1 - stored[family]
            old = dict({one: states[number][1][one] for one, number in stored.items()}, lists=lists)
            new = dict(old, **{family: states[other][1][family]})
            self.arm(function, nth)
            status = world.tool("restore", "--yes", str(states[other][0] / SCRIPTS[family]))
            failed = self.plan.disarm()
            self.assertIn(status, (0, 1, 3, 4))
            self.bring_back(function)
            tables = world.tables()
            if whose(tables, (new,) if status == 0 else (old, new))[family] == 1 or status == 0:
                stored[family] = other
            if status == 0:
                world.learn()
                whose(world.memory(), (new,))
            held = world.reputation()
            self.assertEqual(world.load(), [])
            whose(world.memory(), (after_load(tables, held),))
            self.assertTrue(failed or status == 0)
            return failed
        self.for_each(world.plans["vellumd"], RESTORED_BY_STATE_DAEMON, attempt, in_a_row=len(FAMILIES))

    # A load

    def test_state_daemon_that_loads_never_saves_what_it_could_not_load(self):
        log = world.vellum.directory / "vellumd.log"

        def attempt(function, nth):
            old, new = world.change(2)
            since = log.stat().st_size
            self.arm(function, nth)
            not_loaded = world.load_directly()
            failed = self.plan.disarm()
            self.bring_back(function)
            off = backups_that_are_off()
            self.loads_missed += len(off)
            world.tool("backup")
            world.accepted_is_done()
            tables = world.tables()
            with open(log, "rb") as text:
                text.seek(since)
                tried_again = b"backups are on again" in text.read()  # the daemon itself, once a minute
            if not tried_again:
                # The greylist's two tables are loaded apart, so one may be loaded and the other be memory's still.
                halves = [dict(old, greylist=rows_of(one, "grey_list") | rows_of(other, "autoexempt"))
                          for one, other in ((old, new), (new, old))]
                which = whose(tables, (old, new, after_load(old, new), *halves))
                self.assertEqual([family for family in off if which[family] != 0], [])
            if not failed:
                self.assertEqual(not_loaded, [])
                whose(tables, (after_load(old, new),))
            self.assertEqual(world.load(), [])
            whose(world.memory(), (tables, after_load(tables, new)))
            return failed
        self.for_each(world.plans["vellumd"], LOADED_BY_STATE_DAEMON, attempt)
        self.assertGreater(self.loads_missed, 0, "backups were never off")

    # A start

    def check_starting(self, functions, gaps):
        stored = world.settle()
        vellum = world.vellum

        def ended_or_serves():
            return not vellum.daemon.running() or (accepts_unix_connections(vellum.policy_socket) and
                                                   accepts_connections(vellum.port))

        def attempt(function, nth):
            vellum.daemon.kill()
            self.arm(function, nth)
            vellum.daemon.start()
            wait_until(ended_or_serves, "the daemon to start, or to end")
            if vellum.daemon.running():
                world.tool("backup")
            failed = self.plan.disarm()
            self.bring_back(function, refused=(CANNOT_START,))
            world.accepted_is_done()
            whose(world.tables(), (stored,))
            if world.tool("backup") != 0:  # it runs without having loaded
                self.assertTrue(failed)
                self.assertEqual(world.load(), [])
            whose(world.memory(), (stored,))
            return failed
        self.for_each(world.plans["vellumd"], functions, attempt, gaps=gaps)

    def test_state_daemon_that_starts_never_saves_what_it_could_not_load(self):
        self.check_starting(("connect", "query", "send", "receive", "library allocation"), not LONG)

    def test_state_daemon_that_starts_without_memory_never_saves_what_it_could_not_load(self):
        self.check_starting(("allocation",), True)  # tens of thousands, a second each


if __name__ == "__main__":
    unittest.main()
