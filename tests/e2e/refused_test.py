"""A backup whose script the database takes from nobody: whoever watches is told, until one is run again."""

import json
import re
import signal
import unittest
import urllib.request

from world import World, free_port, wait_until


def setUpModule():
    global world, port
    world = World(postfix=False)
    port = free_port()
    world.vellum.settings["metrics"] = {"listen": f"inet:127.0.0.1:{port}"}
    world.vellum.write_settings()
    world.vellum.daemon.stop()
    world.vellum.start_daemon()


def tearDownModule():
    world.close()


def values(name):
    """The values of a metric by family."""
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=60) as answer:
        found = re.findall(rf'(?m)^{name}{{family="(\w+)"}} (\S+)$', answer.read().decode())
    return {family: float(value) for family, value in found}


def status():
    return json.loads(world.vellum.ctl("status", "--json"))


def watched(condition, what):
    """Waits until the daemon has looked; it looks at once on SIGHUP, but a script may be still to be run then."""
    def found():
        world.vellum.daemon.signal(signal.SIGHUP)
        return condition()
    return wait_until(found, what)


class Refused(unittest.TestCase):
    def test_a_refused_script_is_told_until_a_newer_one_is_run(self):
        policy = world.policy()
        self.addCleanup(policy.close)
        policy.ask("192.0.2.50", "jo@before.example", "a@example.org")
        older = status()["backup"]["ran"]  # of the daemon that ran before
        world.vellum.ctl("backup")
        watched(lambda: status()["backup"]["ran"] != older, "the first backup")
        ran = status()["backup"]["ran"]
        self.assertIsNone(status()["backup"]["refused"])
        self.assertEqual(values("vellum_backup_refused"), {"greylist": 0, "reputation": 0, "endpoint": 0})
        self.assertEqual(values("vellum_backup_last_success_timestamp_seconds")["greylist"], ran["accepted"])

        world.mariadb.query("ALTER TABLE grey_list ADD COLUMN Note int")
        policy.ask("192.0.2.50", "jo@after.example", "a@example.org")
        before = len(world.vellum.log())
        self.assertIn("accepted by the database daemon", world.vellum.ctl("backup"))
        refused = watched(lambda: status()["backup"]["refused"], "the refusal")
        self.assertIn("Column count doesn't match value count", refused["reason"])
        self.assertEqual(status()["backup"]["ran"], ran)
        text = world.vellum.ctl("status")
        self.assertRegex(text, r"(?m)^ +THE LAST SCRIPT WAS REFUSED, .*Column count doesn't match value count")
        self.assertRegex(text, r"(?m)^ +the tables hold the backup of ")
        self.assertEqual(text.count("REFUSED"), 1, "the other families are in order")
        world.logged("the last script of greylist was refused: .*Column count doesn't match value count", before)
        self.assertEqual(values("vellum_backup_refused"), {"greylist": 1, "reputation": 0, "endpoint": 0})
        self.assertEqual(values("vellum_backup_last_success_timestamp_seconds")["greylist"], ran["accepted"])
        self.assertRegex(world.vellum.ctl("top", "--once"), r"(?m)^greylist +.* ago, NEWER REFUSED ")

        # Both daemons forget nothing of it.
        world.vellum.dbd.stop()
        world.vellum.start_dbd()
        world.mariadb.query("ALTER TABLE grey_list DROP COLUMN Note")
        before = len(world.vellum.log())
        world.vellum.daemon.kill()
        world.vellum.start_daemon()
        world.logged("the last script of greylist was refused: ", before)
        self.assertEqual(status()["backup"]["refused"], refused)
        self.assertEqual(values("vellum_backup_refused")["greylist"], 1)

        before = len(world.vellum.log())
        world.vellum.ctl("backup")
        watched(lambda: status()["backup"]["refused"] is None, "the end of the refusal")
        world.logged("scripts of greylist are run again", before)
        self.assertGreater(status()["backup"]["ran"]["script"], refused["script"])
        self.assertNotIn("REFUSED", world.vellum.ctl("status"))
        self.assertEqual(values("vellum_backup_refused"), {"greylist": 0, "reputation": 0, "endpoint": 0})
