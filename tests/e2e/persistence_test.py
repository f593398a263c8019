"""What survives: crashes of the daemons and of the database, backups at bad moments, senders that no table likes."""

import json
import unittest

import awkward
from awkward import LONGEST_STORED
from world import Client, World, deferral_of, identity, wait_until


def setUpModule():
    global world
    world = World()


def tearDownModule():
    world.close()


def stored_tuples():
    return int(world.mariadb.query("SELECT COUNT(*) FROM grey_list")[0][0])


def storable():
    """What the daemon holds and a table can hold."""
    return sorted(record for record in map(identity, world.vellum.tuples()) if len(record[1]) <= LONGEST_STORED)


def in_table():
    return sorted(tuple(row) for row in world.mariadb.query(
        "SELECT ClientIPAddress, SenderEmailAddress, RecipientEmailAddress FROM grey_list"))


def wait_for_stored(count):
    wait_until(lambda: stored_tuples() == count, f"{count} rows in grey_list")


class Persistence(unittest.TestCase):
    def test_awkward_senders_are_each_known_after_backup_kill_and_restart(self):
        client = Client("192.0.2.200")
        through = []
        for sender in awkward.SENDERS:
            reply = world.send(client, sender, "awkward@example.org")[0][0]
            if reply.code >= 500:
                continue  # Postfix itself would not have it
            self.assertEqual(str(reply), deferral_of("awkward@example.org"), sender)
            through.append(sender)
        self.assertGreaterEqual(len(through), len(awkward.SENDERS) - 3, through)
        world.wait_out_the_delay()
        for sender in through:
            self.assertEqual(world.send(client, sender, "awkward@example.org")[0][0].code, 250, sender)
        before = sorted(map(identity, world.vellum.tuples()))
        self.assertEqual(len(set(before)), len(before))
        stored = storable()
        self.assertEqual(len(before) - len(stored), 3, "one byte too long, and two that agree in their beginning")

        world.vellum.ctl("backup")
        wait_for_stored(len(stored))
        for record in set(before) - set(stored):
            world.logged("0x03000199: .*" + record[1][:LONGEST_STORED])
        world.restart_after_kill()

        self.assertEqual(sorted(map(identity, world.vellum.tuples())), stored)
        for sender in through:
            if len(sender) <= LONGEST_STORED:
                self.assertEqual(world.send(client, sender, "awkward@example.org")[0][0].code, 250, sender)

    def test_reload_request_finds_the_same_as_a_restart(self):
        world.send(Client("192.0.2.201"), "jo@reload.example", "a@example.org")
        before = storable()
        world.vellum.ctl("backup")
        wait_for_stored(len(before))
        world.vellum.ctl("greylist", "reload")
        self.assertEqual(sorted(map(identity, world.vellum.tuples())), before)

    def test_mail_goes_on_while_the_state_daemon_is_dead_and_it_comes_back_with_its_state(self):
        client = Client("192.0.2.202")
        world.send(client, "jo@crash.example", "b@example.org")
        world.vellum.ctl("backup")
        wait_for_stored(len(storable()))
        world.vellum.daemon.kill()
        replies, message = world.send(client, "jo@crash.example", "b@example.org")
        self.assertEqual((replies[0].code, message.code), (250, 250), "main.cf says default_action=DUNNO")
        world.vellum.start_daemon()
        replies, _ = world.send(client, "jo@crash.example", "b@example.org")
        self.assertEqual(str(replies[0]), deferral_of("b@example.org"))
        world.wait_out_the_delay()
        replies, _ = world.send(client, "jo@crash.example", "b@example.org")
        self.assertEqual(replies[0].code, 250)

    def test_decisions_go_on_without_the_database_and_backups_when_it_is_back(self):
        client = Client("192.0.2.203")
        world.send(client, "before@down.example", "c@example.org")
        world.mariadb.kill()
        replies, _ = world.send(client, "during@down.example", "c@example.org")
        self.assertEqual(str(replies[0]), deferral_of("c@example.org"))
        world.wait_out_the_delay()
        for sender in ("before@down.example", "during@down.example"):
            self.assertEqual(world.send(client, sender, "c@example.org")[0][0].code, 250, sender)
        world.mariadb.start()
        world.vellum.ctl("backup")
        wait_for_stored(len(storable()))
        senders = [row[0] for row in world.mariadb.query("SELECT SenderEmailAddress FROM grey_list")]
        self.assertIn("during@down.example", senders)

    def test_accepted_backup_survives_a_crash_of_the_database_daemon(self):
        self.check_accepted_backup("journal.example", world.vellum.dbd.kill, world.vellum.start_dbd)

    def test_accepted_backup_survives_a_crash_of_the_database(self):
        self.check_accepted_backup("server.example", world.mariadb.kill, world.mariadb.start)

    def check_accepted_backup(self, domain, crash, start):
        before = stored_tuples()
        for number in range(3):
            world.send(Client("192.0.2.204"), f"jo{number}x@{domain}", "d@example.org")
        held = storable()
        self.assertNotEqual(len(held), before)
        with world.mariadb.locked("grey_list"):  # the script waits for the table meanwhile
            world.vellum.ctl("backup")
            crash()
        start()
        wait_for_stored(len(held))
        self.assertEqual([row for row in in_table() if row[1].endswith(domain)],
                         [row for row in held if row[1].endswith(domain)])


class OrderlyStop(unittest.TestCase):
    def test_everything_known_is_in_the_tables_after_sigterm(self):
        client = Client("192.0.2.205")
        world.send(client, "last@stop.example", "f@example.org")
        tuples, exemptions = self.listed()
        self.assertEqual(world.vellum.daemon.terminate(), 0)
        wait_for_stored(len(tuples))
        self.assertEqual(world.vellum.dbd.terminate(), 0)
        world.vellum.start()
        self.assertEqual(self.listed(), (tuples, exemptions))

    def test_nothing_is_lost_when_the_database_is_away_at_the_end(self):
        client = Client("192.0.2.206")
        world.send(client, "last@away.example", "g@example.org")
        listed = self.listed()
        world.mariadb.kill()
        self.assertEqual(world.vellum.daemon.terminate(), 0)
        world.mariadb.start()
        world.vellum.start_daemon()  # waits until the database daemon has run the last backup
        self.assertEqual(self.listed(), listed)

    @staticmethod
    def listed():
        """All that can be stored, with all its times."""
        tuples = [record for record in world.vellum.tuples() if len(record["sender"]) <= LONGEST_STORED]
        return sorted(map(json.dumps, tuples)), sorted(map(json.dumps, world.vellum.exemptions()))
