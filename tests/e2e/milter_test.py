"""The milter front behind a real Postfix, alone."""

import ctypes
import json
import os
import platform
import signal
import unittest
from pathlib import Path

from world import DEFER_TEXT, Client, World, wait_until

SIGTIMEDWAIT = {"x86_64": 128, "aarch64": 137}  # the system call that sigwait() makes


def setUpModule():
    global world
    world = World(policy=False, milter={})


def tearDownModule():
    world.close()


class MilterFront(unittest.TestCase):
    def tearDown(self):
        self.assertNotRegex(world.postfix.log(), r"(warning|fatal): .*milter")

    def assert_deferred(self, reply):
        self.assertEqual(str(reply), f"450 4.2.0 {DEFER_TEXT}")

    def test_deferred_retried_and_delivered_with_the_header(self):
        client = Client("192.0.2.20", "mail.two.example")
        replies, message = world.send(client, "jo@two.example", "b1@example.org", "b2@example.org")
        self.assert_deferred(replies[0])
        self.assert_deferred(replies[1])
        self.assertIsNone(message)
        world.logged(r"action=greylist, reason=new, client_name=mail\.two\.example, client_address=192\.0\.2\.20, "
                     r"sender=jo@two\.example, recipient=b1@example\.org, seconds_left=300")
        world.wait_out_the_delay()
        replies, message = world.send(client, "jo@two.example", "b1@example.org", "b2@example.org", subject="retried")
        self.assertEqual([reply.code for reply in replies], [250, 250])
        self.assertEqual(message.code, 250)
        for text in world.delivered("retried", count=2):
            self.assertRegex(text, r"\nX-Greylist: delayed 30[0-9] seconds by vellumd at \S+; ")
            self.assertEqual(text.count("X-Greylist:"), 1, text)

    def test_percent_sign_reaches_the_client_as_it_is(self):
        world.vellum.settings["greylist"]["defer_text"] = "100% busy for %SECONDS% s"
        world.vellum.write_settings()
        world.vellum.reload()
        replies, _ = world.send(Client("192.0.2.30"), "jo@three.example", "c@example.org")
        self.assertEqual(str(replies[0]), "450 4.2.0 100% busy for 300 s")
        world.vellum.settings["greylist"]["defer_text"] = DEFER_TEXT
        world.vellum.write_settings()
        world.vellum.reload()

    def test_several_messages_over_one_connection(self):
        client = Client("192.0.2.40")
        with world.session(client) as session:
            for number in range(3):
                session.mail(f"jo{'abc'[number]}@four.example")
                self.assert_deferred(session.rcpt("d@example.org"))
                session.reset()
        world.wait_out_the_delay()
        with world.session(client) as session:
            for number in range(3):
                session.mail(f"jo{'abc'[number]}@four.example")
                self.assertEqual(session.rcpt("d@example.org").code, 250)
                self.assertEqual(session.data(f"Subject: of four {number}\n\nHello.\n").code, 250)
        for number in range(3):
            self.assertIn("X-Greylist: delayed", world.delivered(f"of four {number}")[0])

    def test_refused_recipient_is_not_decided(self):
        replies, _ = world.send(Client("192.0.2.50"), "jo@five.example", world.postfix.nobody)
        self.assertTrue(str(replies[0]).startswith("550 5.1.1"), replies[0])
        self.assertNotIn(world.postfix.nobody, [record["recipient"] for record in world.vellum.tuples()])

    def test_authenticated_client_passes(self):
        replies, _ = world.send(Client("192.0.2.60", login="jo"), "jo@six.example", "f@example.org")
        self.assertEqual(replies[0].code, 250)
        world.logged(r"reason=authenticated, .*client_address=192\.0\.2\.60.*user=jo")

    def test_ipv6_client(self):
        world.send(Client("2001:db8:1:2::a"), "jo@seven.example", "g@example.org")
        world.wait_out_the_delay()
        replies, _ = world.send(Client("2001:db8:1:2:ffff::b"), "jo@seven.example", "g@example.org")
        self.assertEqual(replies[0].code, 250)

    def test_reload_ends_no_connection(self):
        with world.session(Client("192.0.2.80")) as session:
            session.mail("jo@eight.example")
            world.vellum.reload()
            world.vellum.reload()
            self.assert_deferred(session.rcpt("h@example.org"))


class Counting(unittest.TestCase):
    """What is learnt of real mail, and what comes of it."""

    @classmethod
    def setUpClass(cls):
        world.vellum.settings["greylist"]["enabled"] = False
        world.vellum.settings["rate_control"] = {"most_recipients": 5, "block_minutes": 10, "strangers": True}
        world.vellum.settings["reputation"] = {"reject_score": 60}
        world.vellum.write_settings()
        world.vellum.reload()

    @classmethod
    def tearDownClass(cls):
        world.vellum.settings["greylist"]["enabled"] = True
        del world.vellum.settings["rate_control"], world.vellum.settings["reputation"]
        world.vellum.write_settings()
        world.vellum.reload()

    def send(self, client, sender, *recipients, header=""):
        with world.session(client) as session:
            session.mail(sender)
            replies = [session.rcpt(recipient) for recipient in recipients]
            if any(reply.code == 250 for reply in replies):
                session.data(f"Subject: counted\n{header}\nHello.\n")
            return replies

    def explained(self, address, sender, recipient="x@example.org"):
        return json.loads(world.vellum.ctl("explain", address, sender, recipient, "--json"))

    def test_message_is_counted_once_with_what_the_content_filter_said(self):
        client = Client("192.0.2.110")
        self.send(client, "jo@counted.example", "a@example.org", world.postfix.nobody, header="X-Spam-Flag: YES\n")
        told = self.explained("192.0.2.110", "jo@counted.example")
        expected = {"messages": 1, "recipients": 2, "invalid_recipients": 1, "spam": 1, "infected": 0}
        self.assertEqual(told["rate"]["totals"], expected)
        hours = told["reputation"]["hours"]
        self.assertEqual({key: sum(hour[key] for hour in hours) for key in expected}, expected)

    def test_sender_who_sends_too_much_waits_and_can_be_reset(self):
        client = Client("192.0.2.120")
        self.send(client, "jo@toomuch.example", *[f"r{number}@example.org" for number in range(6)])
        world.logged(r"action=block, sender=jo@toomuch\.example, reason=recipients, total=6, limit=5, seconds=600")
        replies = self.send(client, "jo@toomuch.example", "a@example.org")
        self.assertRegex(str(replies[0]), r"^450 4\.7\.1 Too much mail from this sender, please try again in \d+ seconds$")
        self.assertEqual(self.explained("192.0.2.120", "jo@toomuch.example")["verdict"]["reason"], "sender-blocked")
        self.assertIn("jo@toomuch.example", world.vellum.ctl("rate", "list", "--blocked"))
        self.assertEqual(world.vellum.ctl("greylist", "release", "192.0.2.120", "jo@toomuch.example", "b@example.org"),
                         "192.0.2.0/24 jo@toomuch.example b@example.org: need not wait any more, but something else "
                         "holds it: defer, sender-blocked\n")
        self.assertEqual(world.vellum.ctl("rate", "reset", "jo@toomuch.example"),
                         "jo@toomuch.example: the block is lifted, and its mail is counted afresh\n")
        for number in range(2):
            self.assertEqual(self.send(client, "jo@toomuch.example", "a@example.org")[0].code, 250, number)
        self.assertEqual(self.explained("192.0.2.120", "jo@toomuch.example")["rate"]["totals"]["recipients"], 2)

    def test_address_of_bad_reputation_is_rejected(self):
        client = Client("192.0.2.130")
        for number in range(2):
            self.send(client, f"jo{number}@spam.example", "a@example.org", header="X-Spam-Flag: YES\n")
        replies = self.send(client, "al@spam.example", "a@example.org", "b@example.org")
        self.assertEqual([reply.code for reply in replies], [250, 250], "two messages score 25")
        for number in range(60):
            self.send(client, f"x{number}@spam.example", "a@example.org", header="X-Spam-Flag: YES\n")
            if self.explained("192.0.2.130", "al@spam.example")["reputation"]["score"] >= 60:
                break
        replies = self.send(client, "al@spam.example", "a@example.org")
        self.assertEqual(str(replies[0]), "550 5.7.1 Mail from this address has a bad reputation")
        world.logged(r"action=reject, reason=bad-reputation, .*client_address=192\.0\.2\.130.*, score=")


class Release(unittest.TestCase):
    def test_released_mail_passes_at_once(self):
        client = Client("192.0.2.140")
        replies, _ = world.send(client, "jo@released.example", "a@example.org")
        self.assertEqual(replies[0].code, 450)
        self.assertEqual(world.vellum.ctl("greylist", "release", "192.0.2.140", "jo@released.example", "a@example.org"),
                         "192.0.2.0/24 jo@released.example a@example.org: the next message passes\n")
        replies, _ = world.send(client, "jo@released.example", "a@example.org")
        self.assertEqual(replies[0].code, 250)


class SignalThatTheLibraryTook(unittest.TestCase):
    """The milter library waits for signals to end in a thread of its own. What that one takes, the daemon never sees."""

    def waiting_thread(self):
        """Its number; None until it is in sigwait()."""
        for task in Path(f"/proc/{world.vellum.daemon.pid}/task").iterdir():
            if (task / "syscall").read_text().split()[0] == str(SIGTIMEDWAIT[platform.machine()]):
                return int(task.name)
        return None

    def test_daemon_saves_everything_and_ends_for_its_service_manager(self):
        if platform.machine() not in SIGTIMEDWAIT:
            self.skipTest(f"the number of a system call is not known for {platform.machine()}")
        world.send(Client("192.0.2.150"), "jo@kept.example", "a@example.org")
        before = world.vellum.log()
        thread = wait_until(self.waiting_thread, "the library's thread to wait for a signal")
        tgkill = ctypes.CDLL(None, use_errno=True).tgkill
        self.assertEqual(tgkill(world.vellum.daemon.pid, thread, signal.SIGTERM), 0, os.strerror(ctypes.get_errno()))
        self.assertEqual(world.vellum.daemon.wait(), 75)
        news = world.vellum.log()[len(before):]
        self.assertIn("the milter front has ended by itself: its library took a signal to end", news)
        self.assertRegex(news, r"last backup: .* are with the database daemon")
        self.assertRegex(news, r"\bended\n")
        world.vellum.start_daemon()
        self.assertIn("jo@kept.example", [tuple["sender"] for tuple in world.vellum.tuples()])
