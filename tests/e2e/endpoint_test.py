"""Endpoints: lists and scores through vellumctl, and what survives the daemon's end and its crash."""

import json
import os
import time
import unittest

from world import World, wait_until

SCORE_DIRECTORY = "/var/spool/tmp"
BLACKLISTED_UNTIL = 2114377200  # in 2037
SLICE_SECONDS = 120


def setUpModule():
    global world
    world = World()


def tearDownModule():
    world.close()


def endpoint(*words):
    """What `vellumctl endpoint ...` answers."""
    return world.vellum.ctl("endpoint", *words)


def with_account(*words):
    return endpoint(*words, "--settings", str(world.vellum.settings_path))


def in_memory():
    return json.loads(endpoint("list", "--json"))


def stored():
    return world.mariadb.query("SELECT MSISDN, Period, Spam, Infected FROM mms_reputation ORDER BY 1, 2")


class Endpoints(unittest.TestCase):
    def setUp(self):
        for table in ("mms_reputation", "mms_reputation_expiry", "mms_blacklist", "mms_exempt"):
            world.mariadb.query(f"DELETE FROM {table}")
        now = int(time.time())
        slices = now // SLICE_SECONDS
        # Ahead of time by some minutes, so the counts are scored for the length of the test.
        world.mariadb.query(f"INSERT INTO mms_reputation VALUES ('15555550100', {slices + 5}, 3, 4), "
                            f"('15555550101', {slices + 5}, 1, 0)")
        world.mariadb.query("INSERT INTO mms_reputation_expiry VALUES "
                            f"('15555550100', {BLACKLISTED_UNTIL}), ('15555550101', 0)")
        endpoint("reload")
        self.records = [{"number": "15555550100", "score": 7, "expiry": BLACKLISTED_UNTIL},
                        {"number": "15555550101", "score": 1, "expiry": 0}]

    def test_what_was_loaded_is_listed_and_survives_an_orderly_end(self):
        self.assertEqual(in_memory(), self.records)
        before = stored()
        world.vellum.daemon.stop()
        world.logged("last backup of endpoints: 2 slices of 2 subscribers are with the database daemon")
        world.vellum.start_daemon()
        self.assertEqual(in_memory(), self.records)
        self.assertEqual(stored(), before)

    def test_removed_endpoint_is_gone_from_the_tables_after_the_next_backup(self):
        endpoint("remove", "15555550100")
        self.assertEqual(in_memory(), self.records[1:])
        world.vellum.daemon.stop()
        wait_until(lambda: [row[0] for row in stored()] == ["15555550101"], "one row in mms_reputation")
        world.vellum.start_daemon()
        self.assertEqual(in_memory(), self.records[1:])

    def test_lists_survive_a_kill(self):
        with_account("blacklist", "add", "15555550102", "15555550103")
        with_account("exempt", "add", "15555550104")
        with_account("blacklist", "remove", "15555550103")
        world.restart_after_kill()
        self.assertEqual(json.loads(with_account("blacklist", "list", "--json")), ["15555550102"])
        self.assertEqual(json.loads(with_account("exempt", "list", "--json")), ["15555550104"])
        self.assertEqual(in_memory(), self.records)

    def test_partial_load_is_never_written_over_the_tables(self):
        world.mariadb.query("INSERT INTO mms_reputation VALUES ('', 1, 1, 1)")
        world.mariadb.query("INSERT INTO mms_reputation_expiry VALUES ('', 0)")
        before = stored()
        world.restart_after_kill()
        world.logged("the endpoint tables could not be loaded: .*Invalid EndpointReputation Entry")
        world.vellum.daemon.stop()
        world.logged("no last backup of endpoints: ")
        self.assertEqual(stored(), before)
        world.mariadb.query("DELETE FROM mms_reputation WHERE MSISDN = ''")
        world.mariadb.query("DELETE FROM mms_reputation_expiry WHERE MSISDN = ''")
        world.vellum.start_daemon()
        self.assertEqual(in_memory(), self.records)

    def test_scores_are_dumped_into_their_table(self):
        about = os.lstat(SCORE_DIRECTORY)
        if about.st_uid != os.geteuid() or about.st_mode & 0o022:
            self.skipTest(f"{SCORE_DIRECTORY} of this machine belongs to somebody else")
        world.restart_after_kill()  # a rebuild within 300 seconds would show the last one's scores
        shown = json.loads(with_account("scores", "--sort", "score", "--json"))
        self.assertEqual(shown, self.records[::-1])
        self.assertEqual(world.mariadb.query("SELECT MSISDN, score FROM mms_repuation_score ORDER BY 1"),
                         [["15555550100", "7"], ["15555550101", "1"]])
        self.assertFalse(os.path.exists(f"{SCORE_DIRECTORY}/mms_repuation_score.txt"))
