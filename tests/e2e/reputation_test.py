"""Sender reputation through the tables, port 29001, backups and a crash; the score beside a model of its own."""

import json
import random
import time
import unittest

from world import World, wait_until

WEIGHTS = [12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1]  # by age in hours


def setUpModule():
    global world
    world = World()


def tearDownModule():
    world.close()


def hour_score(messages, recipients, invalid, infected, spam):
    """What one hour scores; the counters here are small, so nothing wraps."""
    if messages >= 21:
        for ratio in (infected * 100 // messages, spam * 100 // messages, invalid * 100 // recipients):
            if ratio > 70:
                return ratio
    bad = invalid + ((infected + spam) // 2 if messages <= 9 else infected + spam)
    all_of_them = messages + (recipients if invalid else messages)
    return 100 if bad > all_of_them else bad * 100 // all_of_them


def score(hours, current):
    """`hours`: {hour: five counters}."""
    counted = {hour: counters for hour, counters in hours.items() if 0 <= current - hour < 12}
    if not counted:
        return 0
    total = sum(WEIGHTS[:current - min(counted) + 1])
    weighted = sum(hour_score(*counters) * WEIGHTS[current - hour] for hour, counters in counted.items()
                   if counters[0] and counters[1])
    return min(100, weighted // total)


def listed():
    return {entry["address"]: entry for entry in json.loads(world.vellum.ctl("reputation", "list", "--json"))}


def now_hour():
    return int((time.time() + world.clock.offset()) // 3600)


def insert(entries):
    for address, (state, hours) in entries.items():
        world.mariadb.query(f"INSERT INTO sender_reputation_state VALUES ('{address}', {state})")
        for hour, counters in hours.items():
            world.mariadb.query(f"INSERT INTO sender_reputation VALUES ('{address}', {hour}, "
                                f"{', '.join(map(str, counters))})")


class SenderReputation(unittest.TestCase):
    def test_entries_of_the_tables_are_scored_saved_and_there_after_a_crash(self):
        seed = random.randrange(1 << 32)
        chosen = random.Random(seed)
        current = now_hour()
        addresses = [f"192.0.2.{n}" for n in range(1, 30)] + ["2001:db8::1", "::ffff:192.0.2.1", "::1"]
        entries = {address: (chosen.randrange(4), {
            current - age: tuple(chosen.randrange(40) for _ in range(5))
            for age in chosen.sample(range(14), chosen.randrange(1, 9))}) for address in addresses}
        insert(entries)
        self.assertIn("hours loaded", world.vellum.ctl("reputation", "reload"))

        before, found, after = now_hour(), listed(), now_hour()
        self.assertEqual(sorted(found), sorted(addresses))
        for address, (state, hours) in entries.items():
            with self.subTest(address=address, seed=seed, hours=hours):
                self.assertEqual(found[address]["state"], state)
                self.assertEqual(found[address]["last_change"], max(hours) * 3600)
                self.assertIn(found[address]["score"], {score(hours, at) for at in (before, after)})

        shown = json.loads(world.vellum.ctl("reputation", "show", addresses[0], "--json"))
        of_table = entries[addresses[0]][1]
        for hour in shown["hours"]:
            counters = of_table.get(hour["from"] // 3600, (0,) * 5)
            self.assertEqual((hour["messages"], hour["recipients"], hour["invalid_recipients"], hour["infected"],
                              hour["spam"]), counters)

        world.vellum.ctl("reputation", "set-state", addresses[0], "blocked")
        world.logged("0x03000193: 192.0.2.1\n")
        self.assertEqual(listed()[addresses[0]]["state"], entries[addresses[0]][0], "it is only logged")

        world.mariadb.query("DELETE FROM sender_reputation")
        world.vellum.ctl("backup")
        rows = sum(len(hours) for _, hours in entries.values())
        wait_until(lambda: int(world.mariadb.query("SELECT COUNT(*) FROM sender_reputation")[0][0]) == rows,
                   f"{rows} rows in sender_reputation")
        saved = listed()
        world.restart_after_kill()
        self.assertEqual({address: entry["state"] for address, entry in listed().items()},
                         {address: entry["state"] for address, entry in saved.items()})

    def test_tables_that_cannot_be_loaded_are_never_written_over(self):
        world.mariadb.query("INSERT INTO sender_reputation_state VALUES ('nowhere', 1)")
        world.mariadb.query("INSERT INTO sender_reputation VALUES ('nowhere', 5, 1, 1, 1, 1, 1)")
        rows = world.mariadb.query("SELECT COUNT(*) FROM sender_reputation")
        try:
            world.restart_after_kill()
            status = json.loads(world.vellum.ctl("status", "--json"))
            self.assertFalse(status["reputation"]["backup"]["allowed"])
            world.vellum.ctl("backup", expect=1)
            self.assertEqual(world.mariadb.query("SELECT COUNT(*) FROM sender_reputation"), rows)
        finally:
            world.mariadb.query("DELETE FROM sender_reputation WHERE ClientIPAddress = 'nowhere'")
        world.vellum.ctl("reputation", "reload")
        self.assertTrue(json.loads(world.vellum.ctl("status", "--json"))["reputation"]["backup"]["allowed"])


if __name__ == "__main__":
    unittest.main()
