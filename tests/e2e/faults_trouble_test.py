"""Disks that are full, a database that is gone or refuses, a clock that jumps."""

import contextlib
import json
import os
import resource
import signal
import subprocess
import time
import unittest

from faults import INFECTED, PHONES, SPAM, FaultWorld, whose
from faults_port import milter_mail
from world import DELAY_MINUTES, wait_until

LONG = "VELLUM_FAULT_ROUNDS" in os.environ
MOST_MESSAGES = 3  # of a sender in half an hour, where there is a limit
BLOCK_MINUTES = 30
ENDPOINT_HOURS = 5


def setUpModule():
    global world
    world = FaultWorld(tuples=800)


def tearDownModule():
    world.close()


def use_settings(**sections):
    """Holds from now on; what is not given stays."""
    for name, values in sections.items():
        world.vellum.settings.setdefault(name, {}).update(values)
    world.vellum.write_settings()
    world.vellum.reload()


def assert_decides(sender):
    """A decision about a new tuple comes; it would not before the end of this test, if it waited for what is in trouble."""
    policy = world.policy()
    action = policy.ask("10.7.0.1", sender, "during@example.org")
    policy.close()
    if not action.startswith("DEFER_IF_PERMIT"):
        raise AssertionError(action)


def backup():
    return world.tool("backup")


class FullDisk(unittest.TestCase):
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
        world.settle()
        with self.small_disk(directory, stop, start):
            (directory / "small").write_bytes(bytes(20000))
            old, new = world.change()
            since = len(log())
            self.assertEqual(backup(), 1)
            wait_until(lambda: "No space left on device" in log()[since:], "what is wrong in the log")
            world.accepted_is_done()
            which = whose(world.tables(), (old, new))
            self.assertEqual(which["greylist"], 0, "its script is larger than what is free")
            for script in (world.vellum.directory / "state").glob("*.sql"):
                self.assertTrue(script.read_bytes().endswith(b"UNLOCK TABLES;\n"), script)
            assert_decides("jo@full.example")
            self.assert_recovers(directory)

    def assert_recovers(self, directory):
        subprocess.run(["mount", "-o", "remount,size=64m", directory], check=True)
        new = world.memory()
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        whose(world.tables(), (new,))

    def test_of_the_scripts(self):
        self.check(world.vellum.directory / "state", world.vellum.daemon.stop, world.start_daemon, world.vellum.log)

    def test_of_the_journal(self):
        self.check(world.vellum.directory / "journal", world.vellum.dbd.stop, world.vellum.start_dbd,
                   world.vellum.dbd_log)

    def test_file_size_limit_is_an_error_and_no_end(self):
        for process in (world.vellum.daemon, world.vellum.dbd):
            with self.subTest(process.name):
                world.settle()
                old, new = world.change()
                hard = resource.prlimit(process.pid, resource.RLIMIT_FSIZE)[1]
                resource.prlimit(process.pid, resource.RLIMIT_FSIZE, (30000, hard))
                try:
                    self.assertEqual(backup(), 1)
                finally:
                    self.assertTrue(process.running())
                    resource.prlimit(process.pid, resource.RLIMIT_FSIZE, (hard, hard))
                world.accepted_is_done()
                self.assertEqual(whose(world.tables(), (old, new))["greylist"], 0)
                self.assertEqual(backup(), 0)
                world.accepted_is_done()
                whose(world.tables(), (new,))


class DatabaseTrouble(unittest.TestCase):
    """Gone, stopped, refusing, out of connections: decisions go on, and what was held is saved when it is over.

    While the trouble lasts every decision must come: nothing ends the trouble before the last of them.
    """

    def check(self, begin, end, saves=1, lasts=lambda: True):
        world.settle()
        old, _ = world.change()
        begin()
        try:
            self.assertTrue(lasts())
            assert_decides(f"jo@{self.id()}.example")
            saving = subprocess.Popen(world.vellum.command("backup"), stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL)
            self.addCleanup(saving.wait)
            self.addCleanup(saving.kill)
            for number in range(20):
                assert_decides(f"jo{number}@{self.id()}.example")
            self.assertTrue(lasts())
            if saves is not None:
                self.assertEqual(saving.wait(60), saves)
        finally:
            end()
        saving.wait(60)
        world.accepted_is_done()
        new = world.memory()
        found = world.tables()
        if saves:  # it was refused; others than the greylist's may have been accepted
            self.assertEqual(found["greylist"], old["greylist"])
        for family in ("reputation", "endpoint", "lists"):  # a backup may have begun before the last new tuple came
            self.assertIn(found[family], (old[family], new[family]), family)
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        whose(world.tables(), (new,))

    def test_gone(self):
        self.check(world.mariadb.kill, world.mariadb.start, lasts=lambda: not world.mariadb.process.running())

    def test_stopped(self):
        process = world.mariadb.process

        def is_stopped():
            with open(f"/proc/{process.pid}/stat", encoding="ascii") as stat:
                return stat.read().rsplit(")", 1)[1].split()[0] == "T"
        self.check(lambda: (process.signal(signal.SIGSTOP), wait_until(is_stopped, "the server to stop")),
                   lambda: process.signal(signal.SIGCONT), saves=None, lasts=is_stopped)

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
        self.check(lambda: sessions.extend(world.mariadb.take_all_connections()),
                   lambda: world.mariadb.give_back(sessions))

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


class Clock(unittest.TestCase):
    """The wall clock is set while the daemon runs."""

    def setUp(self):
        world.settle()

    def tearDown(self):
        world.clock.advance(seconds=-world.clock.offset())
        self.assertEqual(world.load(), [])

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

    def save_and_restart(self):
        """Answers what was saved, which memory then holds."""
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        world.restart_after_kill()
        return world.tables()

    def test_back_an_hour_loses_nothing_and_a_tuple_waits_for_its_time(self):
        world.change()
        self.assert_deferred()
        held = world.memory()
        world.clock.advance(hours=-1)
        self.assert_deferred()
        whose(world.memory(), (held,))
        whose(self.save_and_restart(), (held,))
        whose(world.memory(), (held,))
        world.clock.advance(hours=1, minutes=DELAY_MINUTES)
        self.assert_passes()

    def test_forward_a_day_restarts_who_waited_and_keeps_who_had_passed(self):
        self.assert_deferred()
        world.clock.advance(minutes=DELAY_MINUTES)
        self.assert_passes()
        held = world.memory()
        world.clock.advance(days=1)
        self.save_and_restart()
        self.assertEqual(world.memory()["greylist"], held["greylist"], "what has expired is still known until it is asked")
        self.assert_passes()
        policy = world.policy()
        self.addCleanup(policy.close)
        waited = sorted(row for row in held["greylist"] if row[0] == "grey_list" and "@change" in row[2])[0]
        action = policy.ask(waited[1].replace("0/24", "1"), waited[2], waited[3])
        self.assertTrue(action.startswith("DEFER_IF_PERMIT"), "its first life of four hours was over")

    # A block of rate control

    def block(self, sender):
        """Sends more than is allowed, and answers how often it was let through."""
        return [milter_mail(world.vellum.milter_socket, "10.61.0.1", sender) in b"ac" for _ in range(MOST_MESSAGES + 2)]

    def is_blocked(self, sender):
        return milter_mail(world.vellum.milter_socket, "10.61.0.1", sender) not in b"ac"

    def check_block(self, **step):
        use_settings(rate_control={"strangers": True, "most_messages": MOST_MESSAGES, "block_minutes": BLOCK_MINUTES})
        self.addCleanup(use_settings, rate_control={"strangers": False, "most_messages": 0})
        sender = f"{self.id()}@rate.example"
        self.assertEqual(self.block(sender), [True] * (MOST_MESSAGES + 1) + [False])
        listed = self.listed_block(sender)
        self.assertLess(abs(listed["blocked_until"] - BLOCK_MINUTES * 60 - world.now()), 60)
        world.clock.advance(**step)
        return sender, listed

    @staticmethod
    def listed_block(sender):
        return next(record for record in json.loads(world.vellum.ctl("rate", "list", "--json"))
                    if record["sender"] == sender)

    def test_back_an_hour_a_sender_stays_blocked_until_his_time(self):
        sender, listed = self.check_block(hours=-1)
        self.assertTrue(self.is_blocked(sender))
        self.assertEqual(self.listed_block(sender)["blocked_until"], listed["blocked_until"])
        world.clock.advance(minutes=60 + BLOCK_MINUTES - 1)
        self.assertTrue(self.is_blocked(sender), "a minute early")
        world.clock.advance(minutes=1, seconds=30)
        self.assertFalse(self.is_blocked(sender))

    def test_forward_a_day_a_sender_is_free_and_counted_anew(self):
        sender, _ = self.check_block(days=1)
        self.assertEqual(self.block(sender), [True] * (MOST_MESSAGES + 1) + [False])

    def test_back_an_hour_a_sender_is_still_counted(self):
        use_settings(rate_control={"strangers": True, "most_messages": MOST_MESSAGES, "block_minutes": BLOCK_MINUTES})
        self.addCleanup(use_settings, rate_control={"strangers": False, "most_messages": 0})
        sender = f"{self.id()}@rate.example"
        self.assertFalse(self.is_blocked(sender))
        world.clock.advance(hours=-1)
        passed = self.block(sender)
        self.assertIn(False, passed, "the limit holds on a clock that was set back")

    # The end of an endpoint's automatic blacklisting

    def check_endpoint(self, **step):
        """A subscriber is blacklisted, and the clock set; answers his address, and until when he is."""
        use_settings(endpoint={"blacklisted": "reject", "block_hours": ENDPOINT_HOURS, "block_score": 1})
        self.addCleanup(use_settings, endpoint={"blacklisted": "pass", "block_hours": 1000, "block_score": 20})
        self.address, self.number = list(PHONES.items())[0]
        world.vellum.ctl("endpoint", "remove", self.number)
        with world.port() as port:
            world.know_subscriber(port, self.address, self.number)
        world.mail(self.address, SPAM, INFECTED)
        until = self.blacklisted_until()
        self.assertLess(abs(until - ENDPOINT_HOURS * 3600 - world.now()), 60)
        self.assertTrue(self.is_rejected())
        world.clock.advance(**step)
        return until

    def blacklisted_until(self):
        return next(record["expiry"] for record in json.loads(world.vellum.ctl("endpoint", "list", "--json"))
                    if record["number"] == self.number)

    def is_rejected(self):
        with world.port() as port:
            world.know_subscriber(port, self.address, self.number)
        return milter_mail(world.vellum.milter_socket, self.address, "jo@counted.example") not in b"ac"

    def test_back_an_hour_a_subscriber_stays_blacklisted_until_his_time(self):
        until = self.check_endpoint(hours=-1)
        self.assertTrue(self.is_rejected())
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        world.restart_after_kill()
        self.assertEqual(self.blacklisted_until(), until)
        world.clock.advance(hours=ENDPOINT_HOURS + 1, minutes=-1)
        self.assertTrue(self.is_rejected(), "a minute early")
        world.clock.advance(minutes=2)
        self.assertFalse(self.is_rejected())

    def test_forward_a_day_a_subscriber_is_free_and_keeps_his_score(self):
        until = self.check_endpoint(days=1)
        self.assertFalse(self.is_rejected())
        self.assertEqual(backup(), 0)
        world.accepted_is_done()
        world.restart_after_kill()
        self.assertEqual(self.blacklisted_until(), until)
        self.assertFalse(self.is_rejected())


if __name__ == "__main__":
    unittest.main()
