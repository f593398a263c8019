"""A database that answers late, or not at all while its connections stand: no decision waits for it.

Between each daemon and the server stands a proxy that holds answers back. That a decision does not wait is told by the
order of events: it is answered while an answer to that daemon is held, before and after, on the same connections.
"""

import contextlib
import itertools
import subprocess
import unittest

from faults import FAMILIES, PHONES, FaultWorld, whose
from faults_port import EXPLAIN
from faults_proxy import Proxy
from stage.vellum import toml_file
from world import wait_until

LATE = 0.02  # seconds, for each piece of an answer; a script of all families has some thirty
SHORT_READ_TIMEOUT = 1  # seconds
# Answers to a new connection that go on first: greeting, account, session's settings; then lock and delete of a script.
AT_THE_ROWS = 3
IN_THE_SCRIPT = 6
QUESTIONS = 200  # decisions while the database is held


def setUpModule():
    global world, proxies
    world = FaultWorld(tuples=200, addresses=50, numbers=50)
    proxies = {}
    try:
        for process in (world.vellum.daemon, world.vellum.dbd):
            proxies[process.name] = Proxy(world.mariadb.port)
        use_proxies()
    except BaseException:
        tearDownModule()
        raise


def tearDownModule():
    for proxy in proxies.values():
        proxy.release()
    world.close()
    for proxy in proxies.values():
        proxy.close()


def use_proxies(**database):
    """Both daemons anew, each through its proxy, with these settings of its section."""
    vellum = world.vellum
    vellum.daemon.stop()
    vellum.dbd.stop()
    through = dict(vellum.settings["database"], **database)
    journal = {"socket": str(vellum.directory / "run/dbd.sock"), "journal": str(vellum.directory / "journal")}
    vellum.dbd_settings_path.write_text(toml_file({
        "log": {"target": str(vellum.directory / "vellum-dbd.log")},
        "database": dict(through, port=proxies["vellum-dbd"].port), "database_daemon": journal}))
    vellum.settings_path.write_text(toml_file(dict(
        vellum.settings, database=dict(through, port=proxies["vellumd"].port))))
    vellum.start_dbd()
    world.start_daemon()


class HeldDatabase(unittest.TestCase):
    def setUp(self):
        world.settle()

    def tearDown(self):
        for proxy in proxies.values():
            proxy.release()
            proxy.delay = 0
        world.accepted_is_done()
        self.assertEqual(world.load(), [])

    @contextlib.contextmanager
    def held(self, name, *words, after=0):
        """vellumctl asks for something, and the database's answers on the way of it are held, but for the first ones."""
        proxy = proxies[name]
        proxy.stall(after)
        asking = subprocess.Popen(world.vellum.command(*words), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_until(proxy.held, "an answer of the database to be held")
            yield proxy, asking
        finally:
            proxy.release()
            asking.wait(60)

    def assert_decides(self, proxy):
        """Each kind of decision, and every front, while nothing comes from the database."""
        self.assertGreater(proxy.held(), 0)
        before = (proxy.passed, proxy.given_up)
        policy = world.policy()
        for number in range(QUESTIONS):
            action = policy.ask(f"10.7.{number}.1", f"jo{number}@{self.id()}.example", "during@example.org")
            self.assertTrue(action.startswith("DEFER_IF_PERMIT"), action)
        self.assertEqual(policy.ask("198.51.100.1", "jo@rule.example", "during@example.org"), "DUNNO")
        self.assertEqual(policy.ask("10.8.0.1", "jo@exempt.example", "during@example.org"), "DUNNO")
        policy.close()
        world.mail("10.7.0.1")
        world.mail(next(iter(PHONES)))
        self.assertGreater(proxy.held(), 0)
        self.assertEqual((proxy.passed, proxy.given_up), before, "the database was to be held all the while")


class SlowDatabase(HeldDatabase):

    def test_late_answers_change_nothing_but_the_time(self):
        for proxy in proxies.values():
            proxy.delay = LATE
        _, new = world.change()
        self.assertEqual(world.tool("backup"), 0)
        world.accepted_is_done()
        whose(world.tables(), (new,))
        self.assertEqual(world.load(), [])
        whose(world.memory(), (new,))
        world.restart_after_kill()
        whose(world.memory(), (new,))

    def test_decisions_during_a_backup(self):
        world.change()
        with self.held("vellumd", "backup") as (proxy, asking):
            self.assert_decides(proxy)
            self.assertIsNone(asking.poll())
        self.assertEqual(asking.returncode, 0)
        world.accepted_is_done()
        self.assertEqual(world.tool("backup"), 0)
        world.accepted_is_done()
        self.assertEqual(world.memory()["greylist"], world.tables()["greylist"])

    def test_decisions_during_the_script_which_is_done_later(self):
        for after in (0, IN_THE_SCRIPT):
            with self.subTest(after=after):
                _, new = world.change()
                with self.held("vellum-dbd", "backup", after=after) as (proxy, asking):
                    self.assertEqual(asking.wait(60), 0, "it was accepted")
                    self.assert_decides(proxy)
                    self.assertFalse(world.is_settled())
                world.accepted_is_done()
                whose(world.tables(), (new,))

    def test_decisions_during_each_load(self):
        for family, after in itertools.product(FAMILIES, (0, AT_THE_ROWS)):
            with self.subTest(family, after=after):
                before = world.settle()
                with self.held("vellumd", family, "reload", after=after) as (proxy, asking):
                    self.assert_decides(proxy)
                    self.assertIsNone(asking.poll())
                self.assertEqual(asking.returncode, 0)
                self.assertEqual(world.load(), [])
                self.assertLessEqual(before[family], world.memory()[family])

    def test_decisions_while_every_lookup_of_a_subscriber_waits(self):
        world.restart_after_kill()  # nobody is known
        proxy = proxies["vellumd"]
        proxy.stall()
        policy = world.policy()
        for number in range(50):  # far more than look up at once
            policy.ask(f"10.41.0.{number}", "jo@lookup.example", "", protocol_state="CONNECT")
        address, number = next(iter(PHONES.items()))
        policy.ask(address, "jo@lookup.example", "", protocol_state="CONNECT")
        policy.close()
        wait_until(lambda: proxy.held() >= 1, "lookups to be held")
        with world.port() as port:
            self.assertIsNone(world.explained(port, address)["subscriber"])
            self.assert_decides(proxy)
            self.assertIsNone(port.answer(EXPLAIN, {"address": address})["endpoint"]["subscriber"])
            proxy.release()
            world.know_subscriber(port, address, number)


class ReadTimeout(HeldDatabase):
    """The answer does not come within the read timeout: the daemon gives the connection up."""

    @classmethod
    def setUpClass(cls):
        use_proxies(read_timeout_seconds=SHORT_READ_TIMEOUT)

    @classmethod
    def tearDownClass(cls):
        use_proxies()

    @staticmethod
    def wait_until_given_up(proxy):
        since = proxy.given_up
        wait_until(lambda: proxy.given_up > since, "the daemon to give its connection up")

    def test_a_script_is_run_again_and_done_when_answers_come(self):
        old, new = world.change()
        with self.held("vellum-dbd", "backup", after=IN_THE_SCRIPT) as (proxy, asking):
            self.assertEqual(asking.wait(60), 0)
            self.wait_until_given_up(proxy)
            wait_until(lambda: "accepted scripts wait and are tried again" in world.vellum.dbd_log(), "that in the log")
            whose(world.tables(), (old,))
        world.accepted_is_done()
        whose(world.tables(), (new,))

    def test_a_load_that_is_given_up_never_lets_an_empty_cache_over_the_tables(self):
        for family in FAMILIES:
            with self.subTest(family):
                before = world.settle()
                with self.held("vellumd", family, "reload", after=AT_THE_ROWS) as (proxy, asking):
                    self.wait_until_given_up(proxy)
                    self.assertNotEqual(asking.wait(60), 0)
                    world.tool("backup", "--timeout", "1")  # which needs the database, too
                world.tool("backup")
                world.accepted_is_done()
                whose(world.tables(), (before,))
                self.assertEqual(world.load(), [])
                whose(world.memory(), (before,))

    def test_a_lookup_that_is_given_up_is_made_again(self):
        world.restart_after_kill()
        proxy = proxies["vellumd"]
        proxy.stall()
        address, number = next(iter(PHONES.items()))
        policy = world.policy()
        policy.ask(address, "jo@lookup.example", "", protocol_state="CONNECT")
        policy.close()
        wait_until(proxy.held, "a lookup to be held")
        self.wait_until_given_up(proxy)
        world.logged("subscribers cannot be looked up")
        proxy.release()
        with world.port() as port:
            world.know_subscriber(port, address, number)


if __name__ == "__main__":
    unittest.main()
