"""Changes while mail flows: settings and rules, and what they say when they are wrong."""

import subprocess
import unittest

from world import DEFER_TEXT, EXEMPT_RULES, Client, World, deferral_of, free_port


def setUpModule():
    global world
    world = World()


def tearDownModule():
    world.close()


class Reload(unittest.TestCase):
    def setUp(self):
        self.addCleanup(self.put_back)

    def put_back(self):
        world.vellum.settings["greylist"]["defer_text"] = DEFER_TEXT
        world.vellum.settings["greylist"]["delay_minutes"] = 5
        world.vellum.write_settings()
        world.vellum.write_rules(EXEMPT_RULES)
        world.vellum.reload()

    def test_new_settings_and_rules_hold_and_no_connection_is_lost(self):
        with world.session(Client("192.0.2.10")) as session:
            session.mail("jo@one.example")
            self.assertEqual(str(session.rcpt("a@example.org")), deferral_of("a@example.org"))
            world.vellum.settings["greylist"]["defer_text"] = "Later, please"
            world.vellum.write_settings()
            world.vellum.write_rules([{"id": 1, "recipient": "b@example.org"}])
            self.assertIn("settings read again", world.vellum.reload())
            # The same smtpd process, and so the same connection to the policy server.
            self.assertEqual(str(session.rcpt("c@example.org")), deferral_of("c@example.org", "Later, please"))
            self.assertEqual(session.rcpt("b@example.org").code, 250)
        self.assertNotRegex(world.postfix.log(), r"warning: (problem talking to|timeout on|.*policy)")

    def test_open_policy_connection_is_served_across_a_reload(self):
        policy = world.policy()
        self.addCleanup(policy.close)
        self.assertTrue(policy.ask("192.0.2.11", "jo@two.example", "a@example.org").startswith("DEFER_IF_PERMIT 4.2.0"))
        world.vellum.reload()
        self.assertTrue(policy.ask("192.0.2.11", "jo@two.example", "b@example.org").startswith("DEFER_IF_PERMIT 4.2.0"))

    def test_bad_rules_are_refused_with_file_and_line_and_the_running_ones_stay(self):
        for text, complaint in (("[[rule]]\nid = 1\n", "rules.toml:1:"),
                                ("[[rule]]\nid = 1\nsender = \"/(/\"\n", "rules.toml:3:"),
                                ("[[rule]]\nid = 1\nclient = \"192.0.2.0/24\"\nsnder = \"x\"\n", "rules.toml:4:")):
            world.vellum.rules_path.write_text(text)
            self.assertIn(complaint, self.refusal_of_reload())
            replies, _ = world.send(Client("198.51.100.1"), "jo@three.example", "d@example.org")
            self.assertEqual(replies[0].code, 250, "rule 10 is still there")

    def test_bad_settings_are_refused_with_file_and_line_and_the_running_ones_stay(self):
        world.vellum.settings["greylist"]["delay_minutes"] = -5
        world.vellum.write_settings()
        self.assertRegex(self.refusal_of_reload(), r"vellumd\.toml:\d+: .*delay_minutes = -5")
        replies, _ = world.send(Client("192.0.2.12"), "jo@four.example", "e@example.org")
        self.assertEqual(str(replies[0]), deferral_of("e@example.org"))

    def refusal_of_reload(self):
        before = len(world.vellum.log())
        world.vellum.reload()
        world.logged("stay as they were", before)
        return world.vellum.log()[before:]

    def test_what_needs_a_restart_is_said_at_each_reload_until_then(self):
        before = world.vellum.settings["greylist"].get("max_records")
        world.vellum.settings["greylist"]["max_records"] = 12345
        world.vellum.write_settings()
        for _ in range(2):
            self.assertIn("[greylist] max_records was changed: that takes effect at the next start",
                          world.vellum.reload())
        if before is None:
            del world.vellum.settings["greylist"]["max_records"]
        else:
            world.vellum.settings["greylist"]["max_records"] = before
        world.vellum.write_settings()
        self.assertNotIn("was changed", world.vellum.reload())


class BadInput(unittest.TestCase):
    def test_request_without_a_client_address_is_answered_and_the_connection_lives(self):
        policy = world.policy()
        self.addCleanup(policy.close)
        self.assertEqual(policy.ask("", "jo@five.example", "f@example.org"), "DUNNO")
        self.assertTrue(policy.ask("192.0.2.13", "jo@five.example", "f@example.org").startswith("DEFER_IF_PERMIT"))

    def test_start_with_bad_settings_fails_with_its_own_exit_code(self):
        path = world.stage.path("bad.toml")
        path.write_text("[greylist]\ndelay_minuets = 5\n")
        ran = subprocess.run([world.vellum.programs / "vellumd", "--config", path], capture_output=True, text=True,
                             check=False)
        self.assertEqual(ran.returncode, 78)
        self.assertRegex(ran.stderr, r"bad\.toml:2: .*delay_minuets")

    def test_tools_tell_when_there_is_no_daemon(self):
        ran = subprocess.run([world.vellum.programs / "vellumctl", "--port", str(free_port()), "status"],
                             capture_output=True, text=True, check=False)
        self.assertEqual(ran.returncode, 3)
        self.assertIn("Connection refused", ran.stderr)
