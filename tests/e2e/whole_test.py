"""Everything at once: both fronts, a mobile network's accounting, a content filter's verdict, all four families.

The counts of sender rate control live in memory only, so they are the one thing that a crash may cost.
"""

import json
import unittest

from stage.radius import PrivateRadius
from world import DOMAIN, Client, World, deferral_of, wait_until

SUBSCRIBER = "15555550142"
PHONE = Client("192.0.2.142", "phone-142.example", "phone.example")
PHONE_V6 = Client("2001:db8:142::1", "phone6-142.example", "phone.example")
SPAM = "X-Spam-Flag: YES\n"


def setUpModule():
    global world, radius
    world = World(milter={})
    radius = PrivateRadius(world.stage, world.mariadb, readers=world.mariadb.user)
    world.vellum.settings["endpoint"] = {"radius": True, "block_score": 3, "block_hours": 5}
    world.vellum.settings["rate_control"] = {"most_recipients": 4, "block_minutes": 10, "strangers": True}
    world.vellum.settings["reputation"] = {"reject_score": 90}
    world.vellum.write_settings()
    world.vellum.daemon.stop()
    world.vellum.start_daemon()


def tearDownModule():
    world.close()


def explained(client, sender, recipient=f"ann@{DOMAIN}"):
    return json.loads(world.vellum.ctl("explain", client.address, sender, recipient, "--json"))


def attempt(client, sender, *recipients, header="", subject="whole"):
    """One message; the replies to its recipients, and that to the message or None."""
    with world.session(client) as session:
        session.mail(sender)
        replies = [session.rcpt(recipient) for recipient in recipients]
        if not any(reply.code == 250 for reply in replies):
            return replies, None
        return replies, session.data(f"Subject: {subject}\n{header}\nHello.\n")


def counted(explanation):
    """The counters of all hours that reputation tells."""
    names = ("messages", "recipients", "invalid_recipients", "spam", "infected")
    return {name: sum(hour[name] for hour in explanation["reputation"]["hours"]) for name in names}


def hours(client):
    """The table's hours of an address, which look the same after a restart."""
    return [hour for hour in json.loads(world.vellum.ctl("reputation", "show", client.address, "--json"))["hours"]
            if any(value for name, value in hour.items() if name != "from")]


class WholeDaemon(unittest.TestCase):
    def test_mail_is_deferred_counted_blocked_explained_saved_and_there_after_a_crash(self):
        self.subscriber_of_an_address_is_known_soon()
        self.mail_of_both_fronts_is_counted_once()
        self.subscriber_with_too_much_spam_is_blacklisted()
        self.sender_with_too_many_recipients_waits()
        self.everything_saved_is_there_after_a_crash()
        self.subscriber_can_be_forgiven()

    def subscriber_of_an_address_is_known_soon(self):
        radius.account("Start", SUBSCRIBER, PHONE.address, "session-1")
        replies, _ = attempt(PHONE, "jo@phone.example", f"ann@{DOMAIN}")
        self.assertEqual(str(replies[0]), deferral_of(f"ann@{DOMAIN}"))
        wait_until(lambda: explained(PHONE, "jo@phone.example")["endpoint"]["subscriber"] == SUBSCRIBER,
                   "the subscriber to be looked up")

    def mail_of_both_fronts_is_counted_once(self):
        world.wait_out_the_delay()
        replies, message = attempt(PHONE, "jo@phone.example", f"ann@{DOMAIN}", world.postfix.nobody, header=SPAM,
                                   subject="once")
        self.assertEqual([reply.code for reply in replies], [250, 550])
        self.assertEqual(message.code, 250)
        text = world.delivered("once")[0]
        self.assertEqual(text.count("X-Greylist: delayed"), 1, text)
        told = explained(PHONE, "jo@phone.example")
        expected = {"messages": 1, "recipients": 2, "invalid_recipients": 1, "spam": 1, "infected": 0}
        self.assertEqual(counted(told), expected)
        self.assertEqual(told["rate"]["totals"], expected)
        self.assertEqual(told["endpoint"]["score"], 1)
        self.assertEqual(told["verdict"]["action"], "pass")

    def subscriber_with_too_much_spam_is_blacklisted(self):
        for number in range(2):
            attempt(PHONE, "jo@phone.example", f"ann@{DOMAIN}", header=SPAM)
        world.logged(rf"action=block, subscriber={SUBSCRIBER}, reason=score, total=3, limit=3, seconds=18000")
        replies, _ = attempt(PHONE, "jo@phone.example", f"ann@{DOMAIN}")
        self.assertRegex(str(replies[0]), r"^554 5\.7\.1 .*Mail from this subscriber is not accepted")
        told = explained(PHONE, "jo@phone.example")
        self.assertGreater(told["endpoint"]["blacklisted_until"], 0)
        self.assertEqual(told["verdict"]["action"], "reject")
        self.assertIn(SUBSCRIBER, world.vellum.ctl("explain", PHONE.address, "jo@phone.example", f"ann@{DOMAIN}"))

        radius.account("Start", SUBSCRIBER, PHONE_V6.address, "session-2")
        attempt(PHONE_V6, "jo@elsewhere.example", f"ann@{DOMAIN}")
        wait_until(lambda: attempt(PHONE_V6, "jo@elsewhere.example", f"ann@{DOMAIN}")[0][0].code == 554,
                   "the subscriber to be known at another address")

    def sender_with_too_many_recipients_waits(self):
        client = Client("192.0.2.143")
        recipients = [f"r{number}@{DOMAIN}" for number in range(5)]
        attempt(client, "jo@toomany.example", *recipients)
        world.wait_out_the_delay()
        self.assertEqual(attempt(client, "jo@toomany.example", *recipients)[1].code, 250)
        world.logged("action=block, sender=jo@toomany.example, reason=recipients, total=5, limit=4, seconds=600")
        replies, _ = attempt(client, "jo@toomany.example", f"ann@{DOMAIN}")
        self.assertRegex(str(replies[0]), r"^450 4\.7\.1 .*Too much mail from this sender, .* in \d+ seconds")
        world.vellum.ctl("rate", "reset", "jo@toomany.example")
        for _ in range(2):
            replies, end = attempt(client, "jo@toomany.example", f"ann@{DOMAIN}")
            self.assertEqual(replies[0].code, 250, "five tuples of its network and domain have passed: it is exempt")
            self.assertEqual(end.code, 250)

    def everything_saved_is_there_after_a_crash(self):
        def state():
            return {"tuples": world.vellum.tuples(), "exemptions": world.vellum.exemptions(),
                    "reputation": {client.address: hours(client) for client in (PHONE, PHONE_V6, Client("192.0.2.143"))},
                    "endpoints": json.loads(world.vellum.ctl("endpoint", "list", "--json"))}

        before = state()
        self.assertEqual([hour["messages"] for hour in before["reputation"][PHONE.address]], [3])
        self.assertEqual(before["endpoints"][0]["score"], 3)
        world.vellum.ctl("backup")
        self.wait_for_rows("grey_list", len(before["tuples"]))
        self.wait_for_rows("sender_reputation", 2)
        wait_until(lambda: world.mariadb.query("SELECT MSISDN, SUM(Spam) FROM mms_reputation GROUP BY 1") ==
                   [[SUBSCRIBER, "3"]], "the subscriber's spam in mms_reputation")
        world.restart_after_kill()
        self.assertEqual(state(), before)
        told = explained(PHONE, "jo@phone.example")
        self.assertEqual(sum(told["rate"]["totals"].values()), 0, "rates are counted anew")
        wait_until(lambda: attempt(PHONE, "jo@phone.example", f"ann@{DOMAIN}")[0][0].code == 554,
                   "the blacklisted subscriber to be refused after the restart")

    def subscriber_can_be_forgiven(self):
        world.vellum.ctl("endpoint", "remove", SUBSCRIBER)
        self.assertEqual(explained(PHONE, "jo@phone.example")["endpoint"]["blacklisted_until"], 0)
        replies, _ = attempt(PHONE, "jo@phone.example", f"ann@{DOMAIN}")
        self.assertEqual(replies[0].code, 250, "the tuple passed long ago")
        radius.account("Stop", SUBSCRIBER, PHONE.address, "session-1")

    @staticmethod
    def wait_for_rows(table, count):
        wait_until(lambda: int(world.mariadb.query(f"SELECT COUNT(*) FROM {table}")[0][0]) == count,
                   f"{count} rows in {table}")


if __name__ == "__main__":
    unittest.main()
