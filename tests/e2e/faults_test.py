"""Faults: killed at any instant, disks that are full, calls that fail, a database in trouble, a clock that jumps.

The tables are always one whole old or new state of each family, and after a restart the daemon serves one of them. The
usual run is short; VELLUM_FAULT_ROUNDS sets the kills of each program (scripts/faults), VELLUM_FAULT_SEED the seed.
"""

import contextlib
import errno
import os
import random
import resource
import signal
import subprocess
import time
import unittest

from faults import FAMILIES, FaultWorld, Plan, difference
from world import DELAY_MINUTES, wait_until

ROUNDS = int(os.environ.get("VELLUM_FAULT_ROUNDS", "6"))  # kills of each program
LONG = "VELLUM_FAULT_ROUNDS" in os.environ
SEED = int(os.environ.get("VELLUM_FAULT_SEED", random.randrange(1 << 32)))


def setUpModule():
    global world
    world = FaultWorld()


def tearDownModule():
    world.close()


class FaultCase(unittest.TestCase):
    def assert_one_of(self, found, states, what):
        """`found` is, for each family, that of one of the states."""
        for family in FAMILIES:
            if not any(found[family] == state[family] for state in states):
                told = "; ".join(difference(found[family], state[family]) for state in states)
                self.fail(f"{what}: {family} is none of the states: {told}")


def decided_seconds(sender):
    """How long one decision about a new tuple takes."""
    begun = time.monotonic()
    policy = world.policy()
    action = policy.ask("10.7.0.1", sender, "during@example.org")
    policy.close()
    if not action.startswith("DEFER_IF_PERMIT"):
        raise AssertionError(action)
    return time.monotonic() - begun


def backup(**more):
    """The exit status of `vellumctl backup`."""
    return subprocess.run(world.vellum.command("backup"), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          check=False, timeout=60, env=dict(os.environ, **more)).returncode


def load():
    """Whether all families could be loaded."""
    return [subprocess.run(world.vellum.command(family, "reload"), capture_output=True, check=False, timeout=60)
            .returncode for family in FAMILIES] == [0] * len(FAMILIES)


def scripts_are_whole():
    """Every script that the state daemon has written; a broken one would be run by a restore."""
    for script in (world.vellum.directory / "state").glob("*.sql"):
        if not script.read_bytes().endswith(b"UNLOCK TABLES;\n"):
            return False
    return True


def ordinals():
    """1, 2, 3, ...: each in a long run; in a short one with ever larger gaps."""
    nth = 1
    while True:
        yield nth
        nth += 1 if LONG and nth < 60 or nth < 3 else max(1, nth // 4 if LONG else 2 * nth)


class FailingCalls(FaultCase):
    """The n-th call of a function fails, for n = 1, 2, ... until it is no longer reached."""

    def setUp(self):
        self.stored = world.settle()
        self.failures = 0

    def tearDown(self):
        print(f"{self.failures} failures ... ", end="", flush=True)

    def check_saving(self, plan, functions, environment=None):
        for function, error in functions:
            for nth in ordinals():
                with self.subTest(function=function, nth=nth):
                    old, new = self.stored, world.change(3)
                    plan.arm(function, nth, error)
                    status = backup(**(environment or {}))
                    if status == 0:
                        wait_until(lambda: world.is_settled() or not world.vellum.dbd.running(), "the script to be run")
                    failed = plan.disarm()
                    what = f"{function} {nth}, status {status}"
                    # A tool that has no memory at all may also abort.
                    self.assertIn(status, (0, 1, 3, 4) + ((-signal.SIGABRT,) if environment else ()), what)
                    self.bring_back()
                    world.accepted_is_done()
                    self.stored = world.tables()
                    self.assert_one_of(self.stored, (new,) if status == 0 else (old, new), what)
                    self.assertTrue(scripts_are_whole(), what)
                    self.failures += failed
                    if failed:
                        continue
                    self.assertEqual(status, 0, what)
                if not failed:
                    break

    def bring_back(self):
        """A daemon that found no memory may have ended; it is started again, as its unit would do."""
        if not world.vellum.dbd.running():
            world.vellum.start_dbd()
        if not world.vellum.daemon.running():
            world.vellum.start_daemon()

    def test_state_daemon_that_saves(self):
        self.check_saving(world.plans["vellumd"], [
            ("write", errno.ENOSPC), ("sync", errno.EIO), ("rename", errno.EACCES), ("connect", errno.ECONNREFUSED),
            ("send", errno.EPIPE), ("receive", errno.ECONNRESET), ("query", 0), ("allocation", errno.ENOMEM)])

    def test_database_daemon_that_runs_the_script(self):
        self.check_saving(world.plans["vellum-dbd"], [
            ("write", errno.ENOSPC), ("sync", errno.EIO), ("rename", errno.EACCES), ("connect", errno.ECONNREFUSED),
            ("send", errno.EPIPE), ("receive", errno.ECONNRESET), ("query", 0), ("allocation", errno.ENOMEM)])

    def test_vellumctl_that_asks_for_a_backup(self):
        plan = Plan(world.stage.path("vellumctl.plan"))
        self.check_saving(plan, [("connect", errno.ECONNREFUSED), ("send", errno.EPIPE), ("receive", errno.ECONNRESET),
                                 ("allocation", errno.ENOMEM)], plan.environment)

    def test_state_daemon_that_loads(self):
        plan = world.plans["vellumd"]
        for function, error in [("connect", errno.ECONNREFUSED), ("send", errno.EPIPE), ("receive", errno.ECONNRESET),
                                ("query", 0), ("allocation", errno.ENOMEM)]:
            for nth in ordinals():
                what = f"{function} {nth}"
                plan.arm(function, nth, error)
                loaded = load()
                failed = plan.disarm()
                self.failures += failed
                self.bring_back()
                self.assert_one_of(world.tables(), (self.stored,), what)
                if not failed:
                    self.assertTrue(loaded, what)
                    self.assert_one_of(world.memory(), (self.stored,), what)
                    break
                self.assertTrue(load(), what)
                self.assert_one_of(world.memory(), (self.stored,), what)


class FullDisk(FaultCase):
    @contextlib.contextmanager
    def small_disk(self, directory, stop, start):
        """A file system of 64 KiB at a directory whose daemon starts on it."""
        stop()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k,mode=0700", "none", directory], check=True)
        try:
            start()
            yield
            stop()
        finally:
            subprocess.run(["umount", "-l", directory], check=True)
        start()

    def check(self, directory, stop, start, log):
        old = world.settle()
        with self.small_disk(directory, stop, start):
            (directory / "small").write_bytes(bytes(20000))
            new = world.change()
            since = len(log())
            self.assertEqual(backup(), 1)
            wait_until(lambda: "No space left on device" in log()[since:], "what is wrong in the log")
            world.accepted_is_done()
            left = world.tables()
            self.assertEqual(left["greylist"], old["greylist"], "its script is larger than what is free")
            self.assert_one_of(left, (old, new), "a full disk")
            self.assertTrue(scripts_are_whole())
            self.assertLess(decided_seconds("jo@full.example"), 1)
            self.assert_recovers(directory)

    def assert_recovers(self, directory):
        subprocess.run(["mount", "-o", "remount,size=64m", directory], check=True)
        new = world.memory()
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        self.assert_one_of(world.tables(), (new,), "after space was made")

    def test_of_the_scripts(self):
        self.check(world.vellum.directory / "state", world.vellum.daemon.stop, world.vellum.start_daemon,
                   world.vellum.log)

    def test_of_the_journal(self):
        self.check(world.vellum.directory / "journal", world.vellum.dbd.stop, world.vellum.start_dbd,
                   world.vellum.dbd_log)

    def test_file_size_limit_is_an_error_and_no_end(self):
        for process in (world.vellum.daemon, world.vellum.dbd):
            with self.subTest(process.name):
                old = world.settle()
                new = world.change()
                hard = resource.prlimit(process.pid, resource.RLIMIT_FSIZE)[1]
                resource.prlimit(process.pid, resource.RLIMIT_FSIZE, (50000, hard))
                try:
                    self.assertEqual(backup(), 1)
                finally:
                    self.assertTrue(process.running())
                    resource.prlimit(process.pid, resource.RLIMIT_FSIZE, (hard, hard))
                world.accepted_is_done()
                self.assertEqual(world.tables()["greylist"], old["greylist"])
                self.assertEqual(backup(), 0)
                world.accepted_is_done()
                self.assert_one_of(world.tables(), (new,), process.name)


class DatabaseTrouble(FaultCase):
    """Gone, slow, refusing, out of connections: decisions go on, and what was held is saved when it is over."""

    PATIENCE = 1  # seconds for a decision; one that waited for the database would take five and more

    def check(self, begin, end, saves=1):
        old = world.settle()
        begin()
        try:
            self.assertLess(decided_seconds(f"jo@{self.id()}.example"), self.PATIENCE)
            saving = subprocess.Popen(world.vellum.command("backup"), stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL)
            self.addCleanup(saving.wait)
            self.addCleanup(saving.kill)
            for number in range(20):
                self.assertLess(decided_seconds(f"jo{number}@{self.id()}.example"), self.PATIENCE)
            if saves is not None:
                self.assertEqual(saving.wait(60), saves)
        finally:
            end()
        saving.wait(60)
        world.accepted_is_done()
        new = world.memory()
        self.assert_one_of(world.tables(), (old, new), self.id())
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        self.assert_one_of(world.tables(), (new,), self.id())

    def test_gone(self):
        self.check(world.mariadb.kill, world.mariadb.start)

    def test_slow(self):
        process = world.mariadb.process
        self.check(lambda: process.signal(signal.SIGSTOP), lambda: process.signal(signal.SIGCONT), saves=None)

    def test_refusing(self):
        user = f"'{world.mariadb.user}'@'127.0.0.1'"
        quoted = world.mariadb.password.replace("'", "''")
        self.check(lambda: world.mariadb.query(f"ALTER USER {user} IDENTIFIED BY 'changed'"),
                   lambda: world.mariadb.query(f"ALTER USER {user} IDENTIFIED BY '{quoted}'"))

    def test_rights_revoked(self):
        rights = f"{world.mariadb.database}.*"
        user = f"'{world.mariadb.user}'@'127.0.0.1'"
        self.check(lambda: world.mariadb.query(f"REVOKE ALL ON {rights} FROM {user}"),
                   lambda: world.mariadb.query(f"GRANT ALL ON {rights} TO {user}"), saves=None)

    def test_out_of_connections(self):
        sessions = []

        def take_all():
            world.mariadb.query("SET GLOBAL max_connections = 10")  # the least that there is
            sessions.extend(world.mariadb.session() for _ in range(10))

        def give_back():
            for session in sessions:
                session.kill()
                session.wait()
                session.stdin.close()
            wait_until(self.server_takes_more, "a server with room")
            world.mariadb.query("SET GLOBAL max_connections = 151")
        self.check(take_all, give_back)

    @staticmethod
    def server_takes_more():
        return int(world.mariadb.query("SELECT COUNT(*) FROM information_schema.processlist")[0][0]) < 5

    @unittest.skipUnless(LONG, "minutes; scripts/faults runs it")
    def test_is_said_once_and_so_is_its_end(self):
        since = len(world.vellum.log())
        world.mariadb.kill()
        world.logged("the database does not answer; decisions go on from memory", since)
        time.sleep(130)  # two more looks
        world.mariadb.start()
        wait_until(lambda: "the database answers again" in world.vellum.log()[since:], "the end of it", patience=120)
        self.assertEqual(world.vellum.log()[since:].count("the database does not answer"), 1)
        self.assertEqual(world.vellum.log()[since:].count("the database answers again"), 1)


class Clock(FaultCase):
    """The wall clock is set while the daemon runs."""

    def tearDown(self):
        world.clock.advance(seconds=-world.clock.offset())

    def ask(self):
        policy = world.policy()
        try:
            return policy.ask("10.6.0.1", f"jo@{self.id()}.example", "clock@example.org")
        finally:
            policy.close()

    def assert_deferred(self):
        self.assertTrue(self.ask().startswith("DEFER_IF_PERMIT"))

    def assert_passes(self):
        self.assertFalse(self.ask().startswith("DEFER_IF_PERMIT"))

    def test_back_an_hour_loses_nothing_and_a_tuple_waits_for_its_time(self):
        self.assert_deferred()
        held = world.memory()
        world.clock.advance(hours=-1)
        self.assert_deferred()
        self.assert_one_of(world.memory(), (held,), "set back")
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        self.assert_one_of(world.tables(), (held,), "saved")
        world.restart_after_kill()
        self.assert_one_of(world.memory(), (held,), "started again")
        world.clock.advance(hours=1, minutes=DELAY_MINUTES)
        self.assert_passes()

    def test_forward_a_day_restarts_who_waited_and_keeps_who_had_passed(self):
        world.settle()
        self.assert_deferred()
        world.clock.advance(minutes=DELAY_MINUTES)
        self.assert_passes()
        held = world.memory()
        world.clock.advance(days=1)
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        world.restart_after_kill()
        self.assertEqual(world.memory()["greylist"], held["greylist"], "what has expired is still known until it is asked")
        self.assert_passes()
        policy = world.policy()
        self.addCleanup(policy.close)
        waited = sorted(record for record in held["greylist"] if record[0] == "t" and "@change" in record[2])[0]
        action = policy.ask(waited[1].replace("0/24", "1"), waited[2], waited[3])
        self.assertTrue(action.startswith("DEFER_IF_PERMIT"), "its first life of four hours was over")


class Kill(FaultCase):
    """kill -9 at a random instant of a backup and its script (two rounds of three), or of a load."""

    def setUp(self):
        self.chance = random.Random(f"{SEED} {self.id()}")
        self.left = [0, 0]  # how often the old greylist was in the tables after the kill, and the new one
        world.settle()

    def tearDown(self):
        print(f"seed {SEED}, {ROUNDS} rounds: {self.left[0]} left the old rows, {self.left[1]} the new ... ",
              end="", flush=True)

    def rounds(self, kill_while_saving, kill_while_loading):
        for number in range(ROUNDS):
            old = world.settle()
            what = f"seed {SEED}, round {number}"
            if number % 3 == 2:
                kill_while_loading(old, what)
            else:
                new = world.change()
                kill_while_saving(old, new, what)

    def save_and_kill(self, victim):
        backup = world.vellum.start_ctl("backup")
        # Any instant will do, and the early ones more often: asking takes some milliseconds, the script some hundred.
        time.sleep(10 ** self.chance.uniform(-2.5, -0.5))
        victim.kill()
        backup.wait()

    def check_left(self, old, new, what):
        found = world.tables()
        self.assert_one_of(found, (old, new), what)
        self.left[found["greylist"] == new["greylist"]] += 1

    def load_and_kill(self, victim):
        loads = [world.vellum.start_ctl(family, "reload") for family in FAMILIES]
        time.sleep(self.chance.uniform(0, 0.1))
        victim.kill()
        for load in loads:
            load.wait()

    def load_all(self):
        for family in FAMILIES:
            world.vellum.ctl(family, "reload")

    def test_state_daemon(self):
        def saving(old, new, what):
            self.save_and_kill(world.vellum.daemon)
            self.check_left(old, new, what)
            world.vellum.start_daemon()
            stored = world.tables()
            self.assert_one_of(stored, (old, new), what)
            self.assert_one_of(world.memory(), (stored,), f"{what}, started again")

        def loading(old, what):
            world.vellum.daemon.kill()
            world.vellum.daemon.start()
            time.sleep(self.chance.uniform(0, 0.4))
            world.vellum.daemon.kill()
            self.assert_one_of(world.tables(), (old,), what)
            world.vellum.start_daemon()
            self.assert_one_of(world.memory(), (old,), what)
        self.rounds(saving, loading)

    def test_database_daemon(self):
        def saving(old, new, what):
            self.save_and_kill(world.vellum.dbd)
            self.check_left(old, new, what)
            world.vellum.start_dbd()
            world.accepted_is_done()
            self.assert_one_of(world.tables(), (old, new), what)
            self.assert_one_of(world.memory(), (new,), what)

        def loading(old, what):
            self.load_and_kill(world.vellum.dbd)
            world.vellum.start_dbd()
            self.assert_one_of(world.tables(), (old,), what)
            self.assert_one_of(world.memory(), (old,), what)
        self.rounds(saving, loading)

    def test_database(self):
        def saving(old, new, what):
            self.save_and_kill(world.mariadb)
            world.mariadb.start()
            self.check_left(old, new, what)
            world.accepted_is_done()
            self.assert_one_of(world.tables(), (old, new), what)
            self.assert_one_of(world.memory(), (new,), what)

        def loading(old, what):
            self.load_and_kill(world.mariadb)
            world.mariadb.start()
            self.assert_one_of(world.tables(), (old,), what)
            self.load_all()
            self.assert_one_of(world.memory(), (old,), what)
        self.rounds(saving, loading)


if __name__ == "__main__":
    unittest.main()
