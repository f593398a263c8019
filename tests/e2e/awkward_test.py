"""The awkward records on their whole way: decided, listed, saved, killed, started again, loaded again, listed.

What went in comes out, or the log says why not. Each record has a place of its own (a client network, a recipient), by
which it is found again whatever has become of it.
"""

import contextlib
import ipaddress
import json
import re
import time
import unittest

import awkward
from faults_port import Port, make_accounting, milter_mail, wait_for_subscriber
from world import AUTO_EXEMPT_AFTER, DELAY_MINUTES, Client, World, wait_until

SLICE_SECONDS = 120  # of endpoints, with the usual window of 30 minutes
LONGEST_LISTED_NUMBER = 35  # digits in a record of port 29001
RATE_LIMIT = 1000000  # with strangers counted; far above what is sent here


def setUpModule():
    global world
    world = World(policy=False, milter={})


def tearDownModule():
    world.close()


def use_settings(**sections):
    """Holds from now on; what is not given stays."""
    for name, values in sections.items():
        world.vellum.settings.setdefault(name, {}).update(values)
    world.vellum.write_settings()
    world.vellum.reload()


def in_bytes(record, key):
    """The listed value as it came."""
    if f"{key}_hex" in record:
        return bytes.fromhex(record[f"{key}_hex"])
    return record[key].encode()


def raw(text):
    return text.encode("utf-8", "surrogateescape")


def kept(sender):
    """How the daemon writes a sender."""
    return raw(awkward.KEPT_AS.get(sender, sender) or "<>")


def ask_all(envelopes):
    """Asks the policy server about each of them; answers the actions."""
    policy = world.policy()
    try:
        return [policy.ask(*envelope) for envelope in envelopes]
    finally:
        policy.close()


def canonical(address):
    return str(ipaddress.ip_address(address))


def quoted(value):
    return str(value) if isinstance(value, int) else "'" + value.replace("\\", "\\\\").replace("'", "''") + "'"


def empty(*tables):
    world.mariadb.query("; ".join(f"DELETE FROM {table}" for table in tables))


def fill(table, rows):
    """Replaces the rows of a table."""
    empty(table)
    values = ", ".join("(" + ", ".join(map(quoted, row)) + ")" for row in rows)
    world.mariadb.query(f"INSERT INTO {table} VALUES {values}")


class Records(unittest.TestCase):
    maxDiff = None
    TIMES = 0  # at the end of a listed record

    def check_way(self, listed, reload_command, unsaved=()):
        """Backup, kill, start, reload: `listed()` shows the same each time, but for what cannot be saved.

        The log must name that: `unsaved` are records of `listed()`, each of which begins with the words of its record.
        """
        expected = [record for record in listed() if record not in unsaved]
        world.vellum.ctl("backup")
        for record in unsaved:
            words = " ".join(word if isinstance(word, str) else word.decode() for word in record[:-self.TIMES])
            world.logged("0x03000199: .*" + re.escape(words))
        world.restart_after_kill()  # waits until the accepted backup is in the tables
        self.assertEqual(listed(), expected, "after the start")
        world.vellum.ctl(*reload_command)
        self.assertEqual(listed(), expected, "after a reload")


class GreylistRecords(Records):
    @classmethod
    def setUpClass(cls):
        use_settings(greylist={"fold_extension": False, "fold_bounce_digits": False})

    def assert_deferred(self, envelopes):
        for envelope, action in zip(envelopes, ask_all(envelopes)):
            self.assertTrue(action.startswith("DEFER_IF_PERMIT"), (envelope, action))

    def test_tuples(self):
        senders = awkward.SENDERS + awkward.RAW_SENDERS
        envelopes = [(f"10.1.{number}.1", sender, "tuples@example.org") for number, sender in enumerate(senders)]
        envelopes += [(f"10.2.{number}.1", "tuples@example.net", recipient)
                      for number, recipient in enumerate(senders) if recipient]
        envelopes += [(address, f"address{number}@example.net", "tuples@example.org")
                      for number, address in enumerate(awkward.ADDRESSES)]
        self.assert_deferred(envelopes)

        self.TIMES = 2

        def listed():
            return sorted((record["network"], in_bytes(record, "sender"), in_bytes(record, "recipient"),
                           record["pass_time"], record["expiry"]) for record in world.vellum.tuples()
                          if "tuples@" in record["sender"] + record["recipient"])
        expected = {(awkward.ADDRESSES.get(address) or address.rsplit(".", 1)[0] + ".0/24", kept(sender),
                     kept(recipient)) for address, sender, recipient in envelopes}
        self.assertEqual([record[:3] for record in listed()], sorted(expected))
        unsaved = [record for record in listed() if max(map(len, record[1:3])) > awkward.LONGEST_STORED]
        self.assertEqual(len(unsaved), 6, "three as senders, three as recipients")
        self.check_way(listed, ("greylist", "reload"), unsaved)

    def test_what_is_no_mailbox_passes_and_the_log_says_so(self):
        before = world.vellum.tuples()
        for sender in awkward.NO_MAILBOXES:
            self.assertEqual(ask_all([("10.3.0.1", sender, "nobody@example.org")]), ["DUNNO"], sender)
        self.assertEqual(ask_all([("10.3.0.1", "jo@example.net", awkward.NO_MAILBOXES[0])]), ["DUNNO"])
        world.logged(r'sender="\\x01\\x02\\x7f@awkward\.example".*problem="sender is no mailbox"')
        world.logged(r'sender="line\\rend@awkward\.example".*problem="sender is no mailbox"')
        world.logged(r'recipient="\\x01\\x02\\x7f@awkward\.example", problem="recipient is no mailbox"')
        self.assertEqual(world.vellum.tuples(), before)

    def test_exemptions(self):
        networks = {f"10.4.{number}.0/24": domain for number, domain in enumerate(awkward.DOMAINS)}
        envelopes = [(f"10.4.{number}.1", f"{local}@{domain}", "earns@example.org")
                     for number, domain in enumerate(awkward.DOMAINS) for local in "abcdef"[:AUTO_EXEMPT_AFTER]]
        # Also the networks: a domain that a table takes, from each awkward address.
        envelopes += [(address, f"{local}@network{number}.example", "earns@example.org")
                      for number, address in enumerate(awkward.ADDRESSES) for local in "abcdef"[:AUTO_EXEMPT_AFTER]]
        self.assert_deferred(envelopes)
        world.wait_out_the_delay()
        for envelope, action in zip(envelopes, ask_all(envelopes)):
            self.assertFalse(action.startswith("DEFER_IF_PERMIT"), (envelope, action))

        def listed():
            return sorted((record["network"], in_bytes(record, "domain"), record["expiry"])
                          for record in world.vellum.exemptions())
        expected = {(network, raw(domain)) for network, domain in networks.items()
                    if domain not in awkward.NEVER_EXEMPT}
        expected |= {(network, b"network%d.example" % number)
                     for number, network in enumerate(awkward.ADDRESSES.values())}
        self.assertEqual([record[:2] for record in listed()], sorted(expected))
        self.check_way(listed, ("greylist", "reload"))


class CountedRecords(Records):
    """What is learnt of real mail that a real mail server took."""

    @classmethod
    def setUpClass(cls):
        use_settings(greylist={"enabled": False}, rate_control={"strangers": True, "most_messages": RATE_LIMIT})

    @classmethod
    def tearDownClass(cls):
        use_settings(greylist={"enabled": True}, rate_control={"strangers": False})

    def test_senders_of_rate_control(self):
        through = []
        for number, sender in enumerate(awkward.SENDERS):
            replies, message = world.send(Client(f"192.0.2.{number + 1}"), sender, "counted@example.org")
            if replies[0].code == 250 and message.code == 250:
                through.append(sender)
        self.assertGreaterEqual(len(through), len(awkward.SENDERS) - 3, through)
        counted = [raw(sender) for sender in through if sender]  # nobody answers for a bounce
        listed = {in_bytes(record, "sender"): record for record in json.loads(world.vellum.ctl("rate", "list", "--json"))}
        self.assertEqual(sorted(listed), sorted(counted))
        self.assertEqual({record["totals"][0] for record in listed.values()}, {1})

    def test_addresses_of_sender_reputation(self):
        for address in awkward.ADDRESSES:
            world.send(Client(address), "jo@counted.example", "counted@example.org")

        def listed():
            return sorted((record["address"], record["state"], record["score"])
                          for record in json.loads(world.vellum.ctl("reputation", "list", "--json")))
        # Postfix tells a mapped address as the IPv4 address that it is.
        expected = {canonical(address.removeprefix("::ffff:")) for address in awkward.ADDRESSES}
        self.assertLessEqual(expected, {canonical(record[0]) for record in listed()})
        self.check_way(listed, ("reputation", "reload"))


class StoredCounters(Records):
    """The ends of the columns, which no mail reaches in a test: from the tables, and back into them."""

    def test_counters_of_sender_reputation(self):
        hour = int((time.time() + world.clock.offset()) // 3600)
        rows = [(f"10.5.0.{number}", hour, *counters) for number, counters in enumerate(awkward.COUNTERS)]
        rows += [("10.5.1.0", period, 1, 2, 3, 4, 5) for period in (0, 1, hour - 11, hour + 1, awkward.INT_MAX)]
        rows += [(address, hour, 1, 2, 3, 4, 5) for address in map(canonical, awkward.ADDRESSES)]
        fill("sender_reputation", rows)
        fill("sender_reputation_state", [(address, 2) for address in sorted({row[0] for row in rows})])
        world.vellum.daemon.kill()
        world.vellum.start_daemon()

        def listed():
            return json.loads(world.vellum.ctl("reputation", "list", "--json"))
        self.assertEqual(sorted(canonical(record["address"]) for record in listed()), sorted({row[0] for row in rows}))
        empty("sender_reputation", "sender_reputation_state")  # so that the rows are those of the backup
        self.check_way(listed, ("reputation", "reload"))
        saved = world.mariadb.query("SELECT * FROM sender_reputation")
        self.assertEqual(sorted((canonical(row[0]), *map(int, row[1:])) for row in saved), sorted(rows))

    def test_numbers_of_endpoints(self):
        slice_number = int((time.time() + world.clock.offset()) // SLICE_SECONDS) + 5
        counts = [(f"99{number}", *counters[-2:]) for number, counters in enumerate(awkward.COUNTERS)]
        counts += [(number, 1, 2) for number in awkward.NUMBERS]
        empty("mms_blacklist", "mms_exempt")
        fill("mms_reputation", [(number, slice_number, *both) for number, *both in counts] +
             [(text, slice_number, 1, 2) for text in awkward.NO_NUMBERS])
        fill("mms_reputation_expiry", [(number, awkward.INT_MAX) for number, *_ in counts] +
             [(text, 0) for text in awkward.NO_NUMBERS])
        world.vellum.ctl("endpoint", "reload")
        for text in awkward.NO_NUMBERS:
            world.logged("0x03000166: row of mms_reputation skipped: " + ".*is no subscriber number")

        def listed():
            return sorted(json.loads(world.vellum.ctl("endpoint", "list", "--json")), key=json.dumps)
        expected = [{"number": number[:LONGEST_LISTED_NUMBER], "score": sum(both), "expiry": awkward.INT_MAX}
                    for number, *both in counts]
        self.assertEqual(listed(), sorted(expected, key=json.dumps))
        empty("mms_reputation", "mms_reputation_expiry")
        self.check_way(listed, ("endpoint", "reload"))
        saved = world.mariadb.query("SELECT * FROM mms_reputation")
        self.assertEqual(sorted((row[0], *map(int, row[1:])) for row in saved),
                         sorted((number, slice_number, *both) for number, *both in counts))

    # What is beyond the ends

    @staticmethod
    def hours_of(addresses):
        """{address: {hour: five counters}}, as port 29001 tells them."""
        with contextlib.closing(Port(world.vellum.port)) as port:
            return {address: {hour: tuple(counters[:5]) for hour, counters in hours.items()}
                    for address, hours in port.hours(addresses).items()}

    def save_and_restart(self, *logged):
        """`logged`: patterns that the backup must leave in the log, which a kill would cut."""
        world.vellum.ctl("backup")
        for pattern in logged:
            world.logged(pattern)
        world.restart_after_kill()

    @staticmethod
    def cut(counter, hour, address):
        return (f"0x03000185: cut: counter {counter} in period {hour} of address {address}: "
                "it is beyond the column's range, whose end is stored\n")

    def test_counters_below_zero_are_read_as_unsigned_and_saved_as_the_columns_end(self):
        hour = int((time.time() + world.clock.offset()) // 3600)
        rows = {f"10.5.2.{number}": counters for number, counters in enumerate(awkward.NEGATIVE_COUNTERS)}
        fill("sender_reputation", [(address, hour, *counters) for address, counters in rows.items()])
        fill("sender_reputation_state", [(address, 3) for address in rows])
        world.restart_after_kill()
        unsigned = {address: {hour: tuple(one % (1 << 32) for one in counters)} for address, counters in rows.items()}
        self.assertEqual(self.hours_of(rows), unsigned)
        empty("sender_reputation", "sender_reputation_state")
        self.save_and_restart(*(self.cut(counter % (1 << 32), hour, address)
                                for address, counters in rows.items() for counter in counters if counter < 0))
        stored = {address: {hour: tuple(min(one, awkward.INT_MAX) for one in hours[hour])}
                  for address, hours in unsigned.items()}
        self.assertEqual(self.hours_of(rows), stored)

    def test_hours_and_states_below_zero(self):
        hour = int((time.time() + world.clock.offset()) // 3600)
        counters = (1, 2, 3, 4, 5)
        fill("sender_reputation", [("10.5.3.0", period, *counters) for period in (-1, awkward.INT_MIN, hour)] +
             [("10.5.3.1", hour, *counters), ("10.5.3.2", -1, *counters)])
        fill("sender_reputation_state", [("10.5.3.0", -1), ("10.5.3.1", awkward.INT_MIN), ("10.5.3.2", 1)])
        world.restart_after_kill()
        addresses = ("10.5.3.0", "10.5.3.1", "10.5.3.2")
        self.assertEqual(self.hours_of(addresses), {
            "10.5.3.0": {hour: counters, awkward.INT_MIN % (1 << 32): counters, (1 << 32) - 1: counters},
            "10.5.3.1": {hour: counters}, "10.5.3.2": {(1 << 32) - 1: counters}})
        self.save_and_restart(*(
            f"0x03000185: not stored: period {period} of address {address}: the period is beyond the column's range\n"
            for address, period in [("10.5.3.0", 1 << 31), ("10.5.3.0", (1 << 32) - 1), ("10.5.3.2", (1 << 32) - 1)]))
        self.assertEqual(sorted(world.mariadb.query("SELECT * FROM sender_reputation")),
                         [[address, str(hour), *map(str, counters)] for address in addresses[:2]])
        states = [row for row in world.mariadb.query("SELECT * FROM sender_reputation_state") if row[0] in addresses[:2]]
        self.assertEqual(sorted(states), [["10.5.3.0", "-1"], ["10.5.3.1", str(awkward.INT_MIN)]])
        self.assertEqual(self.hours_of(addresses), {"10.5.3.0": {hour: counters}, "10.5.3.1": {hour: counters},
                                                    "10.5.3.2": {}})

    def test_mail_counted_on_top_of_the_columns_end(self):
        client = Client("10.5.4.1")
        hour = int((time.time() + world.clock.offset()) // 3600)
        fill("sender_reputation", [(client.address, hour, *[awkward.INT_MAX] * 5)])
        fill("sender_reputation_state", [(client.address, 0)])
        world.restart_after_kill()
        use_settings(greylist={"enabled": False})
        self.addCleanup(use_settings, greylist={"enabled": True})
        replies, message = world.send(client, "jo@ends.example", "counted@example.org", world.postfix.nobody)
        self.assertEqual((replies[0].code, message.code), (250, 250))
        more = awkward.INT_MAX + 1
        counted = {client.address: {hour: (more, more + 1, more, awkward.INT_MAX, awkward.INT_MAX)}}
        wait_until(lambda: self.hours_of([client.address]) == counted, "the message to be counted")
        self.save_and_restart(*(self.cut(counter, hour, client.address) for counter in (more, more + 1)))
        self.assertEqual(self.hours_of([client.address]), {client.address: {hour: (awkward.INT_MAX,) * 5}})

    def test_times_of_the_greylist(self):
        tuples = [(f"10.6.{number}.0/24", "jo@times.example", "times@example.org", *both)
                  for number, both in enumerate(awkward.TIMES)]
        # An exemption whose time is over is dropped, so these live.
        exemptions = [(f"10.6.{number}.0/24", "times.example", begin, awkward.INT_MAX)
                      for number, begin in enumerate(sorted({begin for begin, _ in awkward.TIMES}))]
        fill("grey_list", tuples)
        fill("autoexempt", exemptions)
        world.vellum.ctl("greylist", "reload")

        def listed():
            return (sorted((record["network"], record["pass_time"], record["expiry"]) for record in world.vellum.tuples()),
                    sorted((record["network"], record["expiry"]) for record in world.vellum.exemptions()))
        expected = (sorted((row[0], row[3] + 60 * DELAY_MINUTES, row[4]) for row in tuples),
                    sorted((row[0], row[3]) for row in exemptions))
        self.assertEqual(listed(), expected)
        empty("grey_list", "autoexempt")
        self.save_and_restart()
        self.assertEqual(listed(), expected)
        for table, rows in (("grey_list", tuples), ("autoexempt", exemptions)):
            self.assertEqual(sorted(world.mariadb.query(f"SELECT * FROM {table}")),
                             sorted([str(value) for value in row] for row in rows))

    def test_counts_slices_and_expiries_of_endpoints_below_zero(self):
        slice_number = int((time.time() + world.clock.offset()) // SLICE_SECONDS) + 5
        counts = {f"98{number}": counters[-2:] for number, counters in enumerate(awkward.NEGATIVE_COUNTERS)}
        fill("mms_reputation", [(number, slice_number, *both) for number, both in counts.items()] +
             [("9898", -1, 1, 2), ("9899", awkward.INT_MIN, 1, 2)])
        fill("mms_reputation_expiry", [(number, -1) for number in counts] +
             [("9898", awkward.INT_MIN), ("9899", awkward.INT_MAX)])
        world.vellum.ctl("endpoint", "reload")
        world.logged("0x03000166: 2 rows of mms_reputation skipped: their slices lie ahead")

        def listed():
            return {record["number"]: (record["score"], record["expiry"])
                    for record in json.loads(world.vellum.ctl("endpoint", "list", "--json"))}
        loaded = {number: (sum(both) % (1 << 32), -1) for number, both in counts.items()}
        # What is blacklisted is held without the slices that nobody can score.
        self.assertEqual(listed(), loaded | {"9899": (0, awkward.INT_MAX)})
        empty("mms_reputation", "mms_reputation_expiry")
        self.save_and_restart()
        stored = {number: [min(one % (1 << 32), awkward.INT_MAX) for one in both] for number, both in counts.items()}
        unsaved = {number for number, (score, _) in loaded.items() if score == 0}
        self.assertEqual(sorted(world.mariadb.query("SELECT * FROM mms_reputation")),
                         sorted([number, str(slice_number), *map(str, both)] for number, both in stored.items()
                                if number not in unsaved))
        self.assertEqual(listed(), {number: (sum(both) % (1 << 32), -1) for number, both in stored.items()
                                    if number not in unsaved})

    def test_message_counted_on_top_of_an_endpoints_ends(self):
        phone, number = "10.45.0.1", "155555599"
        make_accounting(world.mariadb, {phone: number})
        world.vellum.settings["endpoint"] = {"radius": True}
        world.vellum.write_settings()
        # Of this slice and the next, should it begin meanwhile: a message is counted on top of either.
        slice_number = int((time.time() + world.clock.offset()) // SLICE_SECONDS)
        slices = range(slice_number, slice_number + 2)
        fill("mms_reputation", [(number, one, awkward.INT_MAX, 0) for one in slices])
        fill("mms_reputation_expiry", [(number, awkward.INT_MAX)])
        world.restart_after_kill()
        with contextlib.closing(Port(world.vellum.port)) as port:
            wait_for_subscriber(world, port, phone, number)
        use_settings(greylist={"enabled": False}, endpoint={"blacklisted": "pass"})
        self.addCleanup(use_settings, greylist={"enabled": True}, endpoint={"blacklisted": "reject"})
        self.assertIn(milter_mail(world.vellum.milter_socket, phone, "jo@ends.example",
                                  headers=[("X-Spam-Flag", "YES")]), b"ac")

        def listed():
            return [(record["score"], record["expiry"]) for record in
                    json.loads(world.vellum.ctl("endpoint", "list", "--json")) if record["number"] == number]
        self.assertEqual(listed(), [(2 * awkward.INT_MAX + 1, awkward.INT_MAX)])
        self.save_and_restart()
        self.assertEqual(listed(), [(2 * awkward.INT_MAX, awkward.INT_MAX)])
        self.assertEqual(world.mariadb.query("SELECT * FROM mms_reputation ORDER BY Period"),
                         [[number, str(one), str(awkward.INT_MAX), "0"] for one in slices])

    def test_numbers_of_both_endpoint_lists(self):
        account = ("--settings", str(world.vellum.settings_path))
        for name in ("blacklist", "exempt"):
            world.vellum.ctl("endpoint", name, "add", *awkward.NUMBERS, *account)
            for text in awkward.NO_NUMBERS:
                world.vellum.ctl("endpoint", name, "add", *account, "--", text, expect=2)

            def listed(of=name):
                return sorted(json.loads(world.vellum.ctl("endpoint", of, "list", "--json", *account)))
            self.assertEqual(listed(), sorted(awkward.NUMBERS))
            self.check_way(listed, ("endpoint", "reload"))


if __name__ == "__main__":
    unittest.main()
