"""A start while the database is away, and one when it is back."""

import json
import re
import signal
import time
import unittest

from world import World, free_port, wait_until


WAITS = r" error: the database does not answer, the start waits for it: .*Can't connect to"


def setUpModule():
    global world
    world = World(postfix=False)


def tearDownModule():
    world.close()


class DatabaseAwayAtStart(unittest.TestCase):
    def seen(self, sender):
        policy = world.policy()
        self.addCleanup(policy.close)
        self.assertIn("4.2.0", policy.ask("192.0.2.7", sender, "a@example.org"))

    def senders(self):
        return [record["sender"] for record in world.vellum.tuples()]

    @staticmethod
    def stored():
        return [row[0] for row in world.mariadb.query("SELECT SenderEmailAddress FROM grey_list")]

    def end_with(self, sender):
        """Ends the daemon once it knows the sender and the tables do; answers where its log goes on from here."""
        self.seen(sender)
        world.vellum.daemon.terminate()
        wait_until(lambda: sender in self.stored(), "the last backup to be in the table")
        return len(world.vellum.log())

    def start_that_waits(self):
        """Starts the daemon while the server is away; when it waits, what it has logged since."""
        before = len(world.vellum.log())
        world.vellum.daemon.start()

        def told():
            news = world.vellum.log()[before:]
            return news if "the start waits" in news else ""
        return wait_until(told, "the daemon to say what it waits for")

    def assert_waited_and_serves(self, before):
        """Said once, its end once, and then the start as always, in what was logged since `before`."""
        wait_until(lambda: " info: serving\n" in world.vellum.log()[before:], "the daemon to serve")
        news = world.vellum.log()[before:]
        self.assertEqual(news.count("the start waits for it"), 1, news)
        self.assertEqual(news.count(" warning: the database answers, the start goes on\n"), 1, news)
        self.assertNotIn("does not answer; decisions go on", news)

    def test_daemon_waits_and_serves_what_it_held_once_the_database_is_there(self):
        before = self.end_with("jo@settled.example")
        world.mariadb.kill()
        try:
            self.assertRegex(self.start_that_waits(), WAITS)
            time.sleep(2.5)  # it asks again, and says nothing more
            self.assertNotIn("serving", world.vellum.log()[before:])
        finally:
            world.mariadb.start()
        world.vellum.await_daemon()
        self.assert_waited_and_serves(before)
        self.assertIn("jo@settled.example", self.senders())

    def test_daemon_that_waits_ends_when_told_to_and_saves_nothing(self):
        before = self.end_with("jo@untouched.example")
        world.mariadb.kill()
        try:
            self.start_that_waits()
            world.vellum.daemon.signal(signal.SIGHUP)  # for later
            world.vellum.daemon.signal(signal.SIGTERM)
            self.assertEqual(world.vellum.daemon.wait(), 0)
        finally:
            world.mariadb.start()
        news = world.vellum.log()[before:]
        self.assertTrue(news.endswith(" info: ended while the start waited for the database\n"), news)
        self.assertNotIn("backup", news)
        self.assertIn("jo@untouched.example", self.stored())
        world.vellum.start_daemon()

    def test_settings_are_read_again_after_the_wait_when_they_were_to_be_meanwhile(self):
        world.vellum.daemon.terminate()
        before = len(world.vellum.log())
        world.mariadb.kill()
        try:
            self.start_that_waits()
            world.vellum.daemon.signal(signal.SIGHUP)
        finally:
            world.mariadb.start()
        world.vellum.await_daemon()
        wait_until(lambda: "settings read again" in world.vellum.log()[before:], "the settings to be read again")
        self.assert_waited_and_serves(before)

    def test_server_without_a_free_connection_is_waited_for(self):
        world.vellum.daemon.terminate()
        world.vellum.dbd.stop()
        before = len(world.vellum.log())
        taken = world.mariadb.take_all_connections()
        try:
            self.assertRegex(self.start_that_waits(), "the start waits for it: .*Too many connections")
        finally:
            world.mariadb.give_back(taken)
        world.vellum.start_dbd()
        world.vellum.await_daemon()
        self.assert_waited_and_serves(before)

    def test_server_that_the_settings_named_wrongly_is_found_after_a_hangup(self):
        world.vellum.daemon.terminate()
        before = len(world.vellum.log())
        right = world.vellum.settings["database"]["port"]
        world.vellum.settings["database"]["port"] = free_port()
        world.vellum.write_settings()
        self.start_that_waits()
        world.vellum.settings["database"]["port"] = right
        world.vellum.write_settings()
        world.vellum.daemon.signal(signal.SIGHUP)
        world.vellum.await_daemon()
        self.assert_waited_and_serves(before)
        self.assertIn(f"[database] read again from {world.vellum.settings_path}", world.vellum.log()[before:])

    def test_tables_are_not_loaded_while_a_backup_waits_that_cannot_be_run(self):
        self.timeout(2)
        world.vellum.reload()
        self.seen("jo@pending.example")
        with world.mariadb.locked("grey_list"):
            before = len(world.vellum.log())
            world.vellum.daemon.terminate()
            self.assertRegex(world.vellum.log()[before:], r"last backup: .* are with the database daemon")
            before = len(world.vellum.log())
            world.vellum.daemon.start()
            self.assertEqual(world.vellum.daemon.wait(), 69)
            news = world.vellum.log()[before:]
            self.assertEqual(news.count("waiting for the database daemon to finish the last backup"), 1, news)
            self.assertIn("the database daemon has not finished the last backup; its log says why", news)
            self.assertNotIn("serving", news)
        self.timeout(60)
        world.vellum.start_daemon()
        self.assertIn("jo@pending.example", self.senders())

    @staticmethod
    def timeout(seconds):
        """How long the daemon waits for the database daemon, from its next start or reload on."""
        world.vellum.settings["database_daemon"]["timeout_seconds"] = seconds
        world.vellum.write_settings()

    def test_backup_that_waits_in_the_journal_is_in_the_tables_before_they_are_loaded(self):
        self.timeout(2)
        world.vellum.reload()
        self.seen("jo@journal.example")
        world.mariadb.kill()
        try:
            before = len(world.vellum.log())
            world.vellum.daemon.terminate()
            self.assertRegex(world.vellum.log()[before:], r"last backup: .* are with the database daemon")
            self.timeout(60)
            before = len(world.vellum.log())
            self.start_that_waits()
        finally:
            world.mariadb.start()
        world.vellum.await_daemon()
        self.assert_waited_and_serves(before)
        self.assertIn("jo@journal.example", self.senders())


class DatabaseAwayLater(unittest.TestCase):
    def looks(self):
        """A reload is followed by a look at the database, whose time is told in whole seconds."""
        asked = int(time.time())

        def looked():
            world.vellum.reload()
            return self.database()["as_of"] > asked
        wait_until(looked, "a look at the database", interval=0.5)

    def database(self):
        return json.loads(world.vellum.ctl("status", "--json"))["database"]

    def test_is_said_once_and_so_is_its_end(self):
        before = len(world.vellum.log())
        world.mariadb.kill()
        try:
            for _ in range(3):
                self.looks()
                self.assertFalse(self.database()["reachable"])
        finally:
            world.mariadb.start()
        for _ in range(3):
            self.looks()
            self.assertTrue(self.database()["reachable"])
        said = [line for line in world.vellum.log()[before:].splitlines() if "the database " in line]
        self.assertEqual(len(said), 2, said)
        self.assertRegex(said[0], " error: the database does not answer; decisions go on from memory: .*Can't connect to")
        self.assertRegex(said[1], " warning: the database answers again$")
