"""The milter front over TCP behind a real Postfix, beside the policy front."""

import json
import socket
import struct
import unittest

from stage.crowd import MILTER_OFFER
from world import DEFER_TEXT, Client, World, deferral_of, free_port, wait_until


def setUpModule():
    global world
    world = World(policy=True, milter={"listen": f"inet:127.0.0.1:{free_port()}"})


def tearDownModule():
    world.close()


def counted(front):
    """The front's decisions by reason, without those that never came."""
    [decisions] = [one["decisions"] for one in json.loads(world.vellum.ctl("status", "--json"))["fronts"]
                   if one["front"] == front]
    return {one["reason"]: one["count"] for one in decisions if one["count"]}


NO_HEADERS = 0x20  # of the steps that a milter does without


def negotiated_steps():
    """The mask of what the front does not want to be told, or not to be waited for, in its answer to an offer of all."""
    host, port = world.vellum.milter_address.split(":")[1:]
    with socket.create_connection((host, int(port)), timeout=20) as client:
        client.sendall(MILTER_OFFER)
        _, letter, _, _, steps = struct.unpack("!IcIII", client.makefile("rb").read(17))
    assert letter == b"O", letter
    return steps


class MilterOverTcp(unittest.TestCase):
    def test_headers_are_asked_for_only_while_a_rule_looks_at_one(self):
        with_rules = negotiated_steps()
        self.assertEqual(with_rules & NO_HEADERS, 0)
        settings = world.vellum.settings["milter"]
        for names, wanted in ((["spam_headers"], 0), (["spam_headers", "infected_headers"], NO_HEADERS)):
            settings.update({name: [] for name in names})
            world.vellum.write_settings()
            self.assertIn("settings read again", world.vellum.reload())
            self.assertEqual(negotiated_steps(), with_rules | wanted, names)
        for name in ("spam_headers", "infected_headers"):
            del settings[name]
        world.vellum.write_settings()
        world.vellum.reload()
        self.assertEqual(negotiated_steps(), with_rules)

    def test_mail_is_decided_counted_and_told_by_front(self):
        client = Client("192.0.2.20")
        replies, _ = world.send(client, "jo@two.example", "a@example.org")
        self.assertEqual(str(replies[0]), deferral_of("a@example.org", DEFER_TEXT), "the policy front is asked first")
        world.wait_out_the_delay()
        replies, message = world.send(client, "jo@two.example", "a@example.org", subject="over tcp")
        self.assertEqual([replies[0].code, message.code], [250, 250])
        self.assertIn("X-Greylist: delayed", world.delivered("over tcp")[0])

        def told():
            answer = json.loads(world.vellum.ctl("explain", client.address, "jo@two.example", "--json"))
            return sum(hour["messages"] for hour in answer["reputation"]["hours"]) == 1
        wait_until(told, "the milter front to count the message")
        self.assertEqual(counted("policy"), {"new": 1, "passed": 1})
        self.assertEqual(counted("milter"), {"known": 1}, "one decision of each front, and no sum of them")
        status = world.vellum.ctl("status")
        self.assertRegex(status, r"(?m)^Decisions .*\n(.*\n)*\s+policy pass passed +1$")
        self.assertRegex(status, r"(?m)^\s+milter pass known +1$")
        self.assertNotRegex(world.postfix.log(), r"(warning|fatal): .*milter")
