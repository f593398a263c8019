"""A start while the database is away, and one when it is back."""

import unittest

from stage.process import StageError
from world import World, wait_until


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

    def refused_start(self):
        """What the daemon logs of a start that must fail."""
        before = len(world.vellum.log())
        world.vellum.daemon.start()
        self.assertEqual(world.vellum.daemon.wait(), 69)
        return world.vellum.log()[before:]

    def test_daemon_refuses_and_serves_what_it_held_once_the_database_is_there(self):
        self.seen("jo@settled.example")
        world.vellum.daemon.terminate()
        wait_until(lambda: "settled.example" in str(world.mariadb.query("SELECT SenderEmailAddress FROM grey_list")),
                   "the last backup to be in the table")
        world.mariadb.kill()
        try:
            news = self.refused_start()
            self.assertRegex(news, r"the start failed: .*Can't connect to")
            self.assertNotIn("serving", news)
        finally:
            world.mariadb.start()
        world.vellum.start_daemon()
        self.assertIn("jo@settled.example", self.senders())

    def test_backup_that_waits_in_the_journal_is_in_the_tables_before_they_are_loaded(self):
        world.vellum.settings["database_daemon"]["timeout_seconds"] = 2
        world.vellum.write_settings()
        world.vellum.reload()
        self.seen("jo@journal.example")
        world.mariadb.kill()
        try:
            world.vellum.daemon.terminate()
            self.assertRegex(world.vellum.log(), r"last backup: .* are with the database daemon")
            news = self.refused_start()
            self.assertIn("waiting for the database daemon to finish the last backup", news)
            self.assertIn("the database daemon has not finished the last backup; its log says why", news)
        finally:
            world.mariadb.start()
        self.start_when_settled()
        self.assertIn("jo@journal.example", self.senders())

    def start_when_settled(self):
        """As a service manager would: again, until the database daemon has come to it."""
        for _ in range(30):
            try:
                return world.vellum.start_daemon()
            except StageError:
                self.assertEqual(world.vellum.daemon.wait(), 69)
        return self.fail("the database daemon does not come to the last backup")
