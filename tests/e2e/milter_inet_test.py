"""The milter front over TCP behind a real Postfix, beside the policy front."""

import json
import unittest

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


class MilterOverTcp(unittest.TestCase):
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
