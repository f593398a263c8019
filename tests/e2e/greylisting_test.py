"""What a mail server behind a real Postfix is told, and what is delivered."""

import unittest

from world import AUTO_EXEMPT_AFTER, DELAY_MINUTES, Client, World, deferral_of


def setUpModule():
    global world
    world = World()


def tearDownModule():
    world.close()


class Greylisting(unittest.TestCase):
    def tearDown(self):
        self.assertNotRegex(world.postfix.log(), r"warning: (problem talking to|timeout on|.*policy)")

    def assert_deferred(self, reply, recipient):
        self.assertEqual(str(reply), deferral_of(recipient))

    def assert_accepted(self, reply):
        self.assertEqual(reply.code, 250, str(reply))

    def test_first_sight_is_deferred_with_the_text_of_the_settings(self):
        replies, message = world.send(Client("192.0.2.10"), "first@one.example", "a@example.org")
        self.assert_deferred(replies[0], "a@example.org")
        self.assertIsNone(message)
        world.logged(r"action=greylist, reason=new, .*client_address=192\.0\.2\.10, "
                     r"sender=first@one\.example, recipient=a@example\.org")

    def test_retry_before_the_delay_is_deferred_and_after_it_delivered(self):
        client = Client("192.0.2.20", "mail.two.example")
        world.send(client, "jo@two.example", "b@example.org")
        world.clock.advance(minutes=DELAY_MINUTES - 1)
        early, _ = world.send(client, "jo@two.example", "b@example.org")
        self.assert_deferred(early[0], "b@example.org")
        world.clock.advance(minutes=1)
        replies, message = world.send(client, "jo@two.example", "b@example.org", subject="retried")
        self.assert_accepted(replies[0])
        self.assert_accepted(message)
        text = world.delivered("retried")[0]
        self.assertRegex(text, r"\nX-Greylist: delayed 30[0-9] seconds by vellumd at \S+; ")
        world.logged(r"reason=early-retry, .*client_address=192\.0\.2\.20")

    def test_known_sender_passes_at_once_and_its_mail_says_nothing_of_waiting(self):
        client = Client("192.0.2.30")
        world.send(client, "jo@three.example", "c@example.org")
        world.wait_out_the_delay()
        world.send(client, "jo@three.example", "c@example.org", subject="waited")
        replies, _ = world.send(client, "jo@three.example", "c@example.org", subject="known")
        self.assert_accepted(replies[0])
        self.assertNotIn("X-Greylist", world.delivered("known")[0])

    def test_header_is_there_once_however_many_recipients_had_to_wait(self):
        client, recipients = Client("192.0.2.40"), ("d1@example.org", "d2@example.org", "d3@example.org")
        first, _ = world.send(client, "jo@four.example", *recipients)
        for reply, recipient in zip(first, recipients):
            self.assert_deferred(reply, recipient)
        world.wait_out_the_delay()
        world.send(client, "jo@four.example", *recipients, subject="three recipients")
        for text in world.delivered("three recipients", count=3):
            self.assertEqual(text.count("X-Greylist:"), 1, text)

    def test_one_known_recipient_is_accepted_while_the_new_one_waits(self):
        client = Client("192.0.2.50")
        world.send(client, "jo@five.example", "e1@example.org")
        world.wait_out_the_delay()
        replies, message = world.send(client, "jo@five.example", "e1@example.org", "e2@example.org", subject="half")
        self.assert_accepted(replies[0])
        self.assert_deferred(replies[1], "e2@example.org")
        self.assert_accepted(message)
        self.assertEqual(len(world.delivered("half")), 1)

    def test_authenticated_client_passes(self):
        replies, _ = world.send(Client("192.0.2.60", login="jo"), "jo@six.example", "f@example.org")
        self.assert_accepted(replies[0])
        world.logged(r"reason=authenticated, .*client_address=192\.0\.2\.60.*user=jo")

    def test_exempt_client_passes_and_its_neighbour_waits(self):
        replies, _ = world.send(Client("198.51.100.15"), "jo@seven.example", "g@example.org")
        self.assert_accepted(replies[0])
        replies, _ = world.send(Client("198.51.100.16"), "jo@seven.example", "g@example.org")
        self.assert_deferred(replies[0], "g@example.org")

    def test_exempt_recipient_passes(self):
        replies, _ = world.send(Client("192.0.2.70"), "jo@seven.example", "postmaster@example.org")
        self.assert_accepted(replies[0])

    def test_network_and_domain_are_exempt_after_enough_tuples_have_passed(self):
        client = Client("203.0.113.10")
        senders = [f"jo{letter}@eight.example" for letter in "abcdefgh"[:AUTO_EXEMPT_AFTER]]
        for sender in senders:
            self.assert_deferred(world.send(client, sender, "h@example.org")[0][0], "h@example.org")
        world.wait_out_the_delay()
        for sender in senders[:-1]:
            world.send(client, sender, "h@example.org")
        replies, _ = world.send(client, "stranger@eight.example", "h@example.org")
        self.assert_deferred(replies[0], "h@example.org")
        world.send(client, senders[-1], "h@example.org")
        replies, _ = world.send(client, "another@eight.example", "h@example.org")
        self.assert_accepted(replies[0])
        self.assertIn("eight.example", [exemption["domain"] for exemption in world.vellum.exemptions()])
        replies, _ = world.send(client, "another@nine.example", "h@example.org")
        self.assert_deferred(replies[0], "h@example.org")

    def test_bounce_is_greylisted_like_any_other_mail(self):
        client = Client("192.0.2.80")
        replies, _ = world.send(client, "", "i@example.org")
        self.assert_deferred(replies[0], "i@example.org")
        world.wait_out_the_delay()
        replies, _ = world.send(client, "", "i@example.org", subject="undeliverable")
        self.assert_accepted(replies[0])
        self.assertIn("X-Greylist: delayed", world.delivered("undeliverable")[0])

    def test_ipv6_client_is_known_by_its_network(self):
        world.send(Client("2001:db8:1:2::a"), "jo@ten.example", "j@example.org")
        world.wait_out_the_delay()
        replies, _ = world.send(Client("2001:db8:1:2:ffff::b"), "jo@ten.example", "j@example.org")
        self.assert_accepted(replies[0])
        replies, _ = world.send(Client("2001:db8:1:3::a"), "jo@ten.example", "j@example.org")
        self.assert_deferred(replies[0], "j@example.org")

    def test_domain_in_other_letters_is_the_same_sender(self):
        client = Client("192.0.2.90")
        world.send(client, "jo@eleven.example", "k@example.org")
        world.wait_out_the_delay()
        replies, _ = world.send(client, "jo@ELEVEN.example", "k@EXAMPLE.org")
        self.assert_accepted(replies[0])

    def test_tuple_that_was_not_retried_in_its_first_life_waits_again(self):
        client = Client("192.0.2.100")
        world.send(client, "jo@twelve.example", "l@example.org")
        world.clock.advance(hours=5)
        replies, _ = world.send(client, "jo@twelve.example", "l@example.org")
        self.assert_deferred(replies[0], "l@example.org")
