"""What the fault tests share: the whole state of memory and of all nine tables, changing it, comparing it.

A state is, for each family, the set of its rows, each with its table's name and every column as text; "lists" are the
three tables that no backup touches. What the tables hold and what memory holds is told in the same form. Two columns are
on no port and are known here from what was loaded and sent since: an exemption's creation time, and how an endpoint's
score is spread over time slices.
"""

import contextlib
import os
import socket
import struct
import subprocess
import time

from faults_plan import Plan
from faults_port import (BOTH_LISTS, EXPLAIN, RELEASE, RELOAD_ENDPOINTS, RELOAD_GREYLIST, RELOAD_REPUTATION,
                         REMOVE_ENDPOINT, STATUS, Port, make_accounting, milter_mail,
                         wait_for_subscriber)
from reputation_test import WEIGHTS, hour_score
from stage.process import StageError
from world import AUTO_EXEMPT_AFTER, DELAY_MINUTES, World, wait_until

FAMILIES = ("greylist", "reputation", "endpoint")
TABLES = {"greylist": ("grey_list", "autoexempt"),
          "reputation": ("sender_reputation", "sender_reputation_state"),
          "endpoint": ("mms_reputation", "mms_reputation_expiry"),
          "lists": ("mms_blacklist", "mms_exempt", "mms_repuation_score")}
EXEMPT_SECONDS = 36 * 86400  # as the world's settings say
SLICE_SECONDS = 10080 // 15 * 60  # of endpoints: so long that no test sees the next one
SPAM = ("X-Spam-Flag", "YES")
INFECTED = ("X-Virus-Status", "Infected")
PHONES = {f"10.40.0.{number}": f"1555555{number:04}" for number in range(1, 5)}  # whose mail is counted
LISTED_PHONES = {f"10.40.1.{number}": f"1555556{number:04}" for number in range(1, 5)}  # who are on a list, or not
OLD_EXEMPTIONS = 3
BLOCK_SCORE = 20  # of a subscriber; reached now and then, so that expiry times change, too


class FaultWorld(World):
    """A world without Postfix, filled with some of every family, whose whole state is told and changed.

    `tuples`, `addresses`, `numbers`: of how much the state is made, and so how long a script is. `new_addresses`: so many
    changes bring an address that reputation has not known; later ones take those again, so that the state stays small.
    """

    def __init__(self, tuples=1000, addresses=300, numbers=200, new_addresses=10000):
        super().__init__(milter={}, postfix=False)
        self._changes = 0
        self._created = {}  # (network, domain): the exemption's creation time
        self._slices = {}  # number: {slice: [spam, infected]}, as memory holds them
        self._numbers = numbers
        self._new_addresses = new_addresses
        self.changed_tuples = max(3, tuples // 15)
        try:
            # More rules than a hundredth of it, and more exemptions, would be refused.
            self.vellum.settings["greylist"]["max_records"] = max(tuples, 100 * (OLD_EXEMPTIONS + 2))
            self.vellum.settings["endpoint"] = {"window_minutes": 10080, "radius": True, "blacklisted": "pass",
                                                "block_score": BLOCK_SCORE, "block_hours": 1000}
            self.vellum.write_settings()
            self.plans = {process.name: Plan(self.stage.path(f"{process.name}.plan"), process)
                          for process in (self.vellum.daemon, self.vellum.dbd)}
            self.vellum.daemon.stop()
            self.vellum.dbd.stop()
            self._fill(addresses)
            self.vellum.start_dbd()
            self.start_daemon()
            for name, plan in self.plans.items():
                if not plan.is_mapped():
                    raise StageError(f"{name} has not got the library by which its calls fail")
            self.change(tuples)
            self.settle()
        except BaseException:
            self.close()
            raise

    def now(self):
        return time.time() + self.clock.offset()

    def _fill(self, count):
        hour = int(self.now() // 3600)
        self._old_addresses = [f"10.9.{number // 200}.{number % 200}" for number in range(count)]
        self.insert("sender_reputation", [(address, hour - number % 3, 3, 4, 1, 0, 1)
                                          for number, address in enumerate(self._old_addresses)])
        self.insert("sender_reputation_state", [(address, number % 4)
                                                for number, address in enumerate(self._old_addresses)])
        self.insert("autoexempt", [(f"10.8.{number}.0/24", "exempt.example", 1, 2000000000)
                                   for number in range(OLD_EXEMPTIONS)])
        self.insert("mms_repuation_score", [("15555550001", 7, 0), ("15555550002", 9, 2000000000)])
        self._fill_numbers()
        make_accounting(self.mariadb, PHONES | LISTED_PHONES)

    def _fill_numbers(self):
        slice_number = int(self.now() // SLICE_SECONDS)
        numbers = [str(20000000000 + self._changes * 1000 + number) for number in range(self._numbers)]
        self.insert("mms_reputation", [(number, slice_number - number_of % 5, 1, 2)
                                       for number_of, number in enumerate(numbers)])
        self.insert("mms_reputation_expiry", [(number, 0) for number in numbers])

    def insert(self, table, rows):
        values = ", ".join("(" + ", ".join(repr(value) for value in row) + ")" for row in rows)
        self.mariadb.query(f"INSERT INTO {table} VALUES {values}")

    # What is held

    def tables(self):
        """The state in the tables, at one moment; waits for whoever has locked them."""
        names = [name for tables in TABLES.values() for name in tables]
        rows = self.mariadb.query("LOCK TABLES " + ", ".join(f"{name} READ" for name in names) + "; " +
                                  "; ".join(f"SELECT '{name}', {name}.* FROM {name}" for name in names) +
                                  "; UNLOCK TABLES")
        state = {family: set() for family in TABLES}
        family_of = {name: family for family, tables in TABLES.items() for name in tables}
        for name, *values in rows:
            state[family_of[name]].add((name, *values))
        return state

    def port(self):
        return contextlib.closing(Port(self.vellum.port))

    def memory(self):
        """The state in memory, as the tables would hold it. The scores told with it are checked."""
        with self.port() as port:
            return {"greylist": self._tuples(port) | self._exemptions(port), "reputation": self._reputation(port),
                    "endpoint": self._endpoints(port), "lists": self._lists}

    def reputation(self):
        """That part of it which a load does not replace; also while nobody has learned what memory holds."""
        with self.port() as port:
            return {"reputation": self._reputation(port)}

    @staticmethod
    def _tuples(port):
        delay = DELAY_MINUTES * 60
        return {("grey_list", network, sender, recipient, str(passes - delay), str(expiry))
                for network, sender, recipient, passes, expiry in port.tuples()}

    def _exemptions(self, port):
        rows = set()
        for network, domain, expiry in port.exemptions():
            created = self._created.setdefault((network, domain), expiry - EXEMPT_SECONDS)
            rows.add(("autoexempt", network, domain, str(created), str(expiry)))
        return rows

    def _reputation(self, port):
        before = int(self.now() // 3600)
        listed = port.addresses()
        after = int(self.now() // 3600)
        hours = port.hours([address for address, _, _ in listed])
        rows = set()
        for address, told, state in listed:
            counters = {hour: counters[:5] for hour, counters in hours[address].items()}
            if told not in {score_at(hour, counters) for hour in (before, after)}:
                raise StageError(f"{address} has the score {told} with {counters}")
            if any(any(nine[5:]) for nine in hours[address].values()):
                raise StageError(f"{address} has counted what no mail tells: {hours[address]}")
            rows |= {("sender_reputation", address, str(hour), *map(str, five)) for hour, five in counters.items()}
            if counters:
                rows.add(("sender_reputation_state", address, str(state)))
        return rows

    def _endpoints(self, port):
        rows = set()
        for number, told, expiry in port.endpoints():
            slices = self._slices.get(number, {})
            if told != sum(map(sum, slices.values())):
                raise StageError(f"{number} has the score {told} with {slices}")
            rows |= {("mms_reputation", number, str(at), *map(str, both)) for at, both in slices.items()}
            rows.add(("mms_reputation_expiry", number, str(expiry)))
        return rows

    # Starting and loading

    def learn(self):
        """Memory holds what the tables do, as far as that is on no port; after each load."""
        held = self.tables()
        for table, network, domain, created, *_ in held["greylist"]:
            if table == "autoexempt":
                self._created[network, domain] = int(created)
        self._slices = {}
        for table, number, at, *both in held["endpoint"]:
            if table == "mms_reputation":
                self._slices.setdefault(number, {})[int(at)] = [int(one) for one in both]
        self._lists = held["lists"]

    def start_daemon(self):
        self.vellum.start_daemon()
        self.learn()

    def restart_after_kill(self):
        self.vellum.daemon.kill()
        self.start_daemon()

    def load(self):
        """The families that could not be loaded."""
        # One after the other, so that the n-th call of something is the same one each time.
        failed = [family for family in FAMILIES if self.tool(family, "reload") != 0]
        if not failed:
            self.learn()
        return failed

    def load_directly(self):
        """The same with less done by the daemon than for vellumctl; answers the families whose request went wrong."""
        failed = []
        for family, request in zip(FAMILIES, (RELOAD_GREYLIST, RELOAD_REPUTATION, RELOAD_ENDPOINTS)):
            try:
                with self.port() as port:
                    port.send(request)
                    port.hours(["192.0.2.255"])  # nobody's; its answer tells that the load is over
            except (OSError, StageError):
                failed.append(family)
        if not failed:
            self.learn()
        return failed

    def tool(self, *words, **environment):
        """The exit status of a call of vellumctl."""
        return subprocess.run(self.vellum.command(*words), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              check=False, timeout=120, env=dict(os.environ, **environment)).returncode

    def bring_back(self):
        """A daemon that found no memory may have ended; it is started again, as its unit would do.

        Answers the exit codes of those that had ended.
        """
        wait_until(lambda: self.is_settled() or not self.vellum.dbd.running(), "the database daemon to answer, or to end")
        wait_until(lambda: self.answers() or not self.vellum.daemon.running(), "the state daemon to answer, or to end")
        ended = [process.wait() for process in (self.vellum.dbd, self.vellum.daemon) if not process.running()]
        if not self.vellum.dbd.running():
            self.vellum.start_dbd()
        if not self.vellum.daemon.running():
            self.start_daemon()
        return ended

    # Changing

    def change(self, tuples=None):
        """Gives memory a state that differs from the tables in each of their six; answers (tables, memory)."""
        self._changes += 1
        if not self._others():
            self._fill_numbers()
            self.vellum.ctl("endpoint", "reload")
            self.learn()
        with self.port() as port:
            self._edit_tables(port)
            old = self.tables()
            self._lists = old["lists"]
            self._mail_to_be_greylisted(tuples or self.changed_tuples)
            self._earn_exemption(port)
            self._mail_that_is_counted()
            self._mail_of_phones(port)
            self._remove_endpoint(port)
        new = self.memory()
        for table in (name for family in FAMILIES for name in TABLES[family]):
            brought = table != "sender_reputation_state" or self._changes <= self._new_addresses
            if brought and rows_of(old, table) == rows_of(new, table):
                raise StageError(f"no change of {table}")
        return old, new

    def _edit_tables(self, port):
        """By hand, as an administrator would: an exemption and tuples dropped, states and lists changed; then loaded."""
        turn = self._changes
        tuples = f"LIKE '%@change{turn - 4}.example'" if turn > 5 else "= ''"  # the first ones stay
        phones = sorted(LISTED_PHONES.values())
        address = self._old_addresses[turn % len(self._old_addresses)]
        self.mariadb.query(
            "DELETE FROM autoexempt WHERE CreationTime > 1; "
            f"DELETE FROM grey_list WHERE SenderEmailAddress {tuples} OR SenderEmailAddress LIKE '%@earned%'; "
            f"UPDATE sender_reputation_state SET State = (State + 1) % 4 WHERE ClientIPAddress = '{address}'; "
            "DELETE FROM mms_blacklist; DELETE FROM mms_exempt; "
            f"INSERT INTO mms_blacklist VALUES ('{phones[turn % 2]}'); "
            f"INSERT INTO mms_exempt VALUES ('{phones[2 + turn % 2]}')")
        port.send(RELOAD_GREYLIST)
        port.send(RELOAD_REPUTATION)
        port.send(RELOAD_ENDPOINTS, BOTH_LISTS)
        port.answer(STATUS)

    def _mail_to_be_greylisted(self, count):
        policy = self.policy()
        for number in range(count):
            policy.ask(f"10.{100 + self._changes % 100}.{number % 250}.1", f"s{number}x@change{self._changes}.example",
                       "faults@example.org")
        policy.close()

    def _earn_exemption(self, port):
        domain = f"earned{self._changes}.example"
        policy = self.policy()
        for local in "abcdef"[:AUTO_EXEMPT_AFTER]:
            envelope = ("10.50.0.1", f"{local}@{domain}", "faults@example.org")
            port.answer(RELEASE, dict(zip(("address", "sender", "recipient"), envelope)))
            policy.ask(*envelope)
        policy.close()

    def mail(self, address, *headers, refused=0):
        """A message that is let through and counted."""
        if milter_mail(self.vellum.milter_socket, address, "jo@counted.example", headers=headers,
                       refused=refused) not in b"ac":
            raise StageError(f"mail of {address} is refused")

    def _mail_that_is_counted(self):
        known = self._old_addresses[(7 * self._changes) % len(self._old_addresses)]
        number = self._changes % self._new_addresses
        for address in (known, f"10.60.{number // 200}.{number % 200}"):
            self.mail(address, SPAM, refused=1)
            self.mail(address, INFECTED)

    def _mail_of_phones(self, port):
        for address, number in list(PHONES.items())[self._changes % 2::2]:
            self.know_subscriber(port, address, number)
            self.mail(address, SPAM)
            self.mail(address, SPAM, INFECTED)
            both = self._slices.setdefault(number, {}).setdefault(int(self.now() // SLICE_SECONDS), [0, 0])
            both[0] += 2
            both[1] += 1

    def explained(self, port, address):
        return port.answer(EXPLAIN, {"address": address})["endpoint"]

    def know_subscriber(self, port, address, number):
        wait_for_subscriber(self, port, address, number)

    def _others(self):
        """Subscribers that are no phones, to be removed one by one."""
        return [number for number in self._slices if number not in PHONES.values()]

    def _remove_endpoint(self, port):
        number = self._others()[0]
        port.send(REMOVE_ENDPOINT, number.encode())
        del self._slices[number]
        port.answer(STATUS)

    def check_lists(self):
        """Both lists in memory are those of the tables, told by what becomes of a subscriber's mail."""
        on = {table: {values[0] for name, *values in self._lists if name == table}
              for table in ("mms_blacklist", "mms_exempt")}
        with self.port() as port:
            for address, number in LISTED_PHONES.items():
                self.know_subscriber(port, address, number)
                told = self.explained(port, address)
                if (told["blacklisted"], told["exempt"]) != (number in on["mms_blacklist"], number in on["mms_exempt"]):
                    raise StageError(f"{number} is told to be {told}; on the lists are {on}")

    # Done with what was asked

    def accepted_is_done(self):
        """Waits until every accepted script has been run."""
        wait_until(self.is_settled, "the database daemon to be done with every script", interval=0.005)

    def is_settled(self):
        """Whether it is done with all that it has accepted; not when it does not answer."""
        with socket.socket(socket.AF_UNIX) as asking:
            asking.settimeout(10)
            try:
                asking.connect(str(self.vellum.directory / "run/dbd.sock"))
                asking.sendall(struct.pack("=ii", 0, 2) + b"/\0")  # request code 0 is this question
                return asking.recv(4) == struct.pack("=i", 0)
            except OSError:
                return False

    def answers(self):
        """Whether the state daemon does; one that is about to end is running still."""
        try:
            with self.port() as port:
                port.answer(STATUS)
            return True
        except (OSError, StageError):
            return False

    def settle(self):
        """No faults any more: everything runs, and tables and memory hold one state, which is answered."""
        for plan in self.plans.values():
            plan.disarm()
        self.accepted_is_done()
        state = self.memory()
        stored = self.tables()
        if state != stored:
            self.vellum.ctl("backup")
            self.accepted_is_done()
            stored = self.tables()
        for family in TABLES:
            if state[family] != stored[family]:
                raise StageError(f"{family}: {difference(state[family], stored[family])} after a backup without faults")
        return stored


def score_at(current, hours):
    """The score of an address; hours that lie ahead, since the clock was set back, count without a weight."""
    looked_at = {hour: counters for hour, counters in hours.items() if hour > current - len(WEIGHTS)}
    past = [hour for hour in looked_at if hour <= current]
    if not past:
        return 0
    scores = {hour: hour_score(*counters) for hour, counters in looked_at.items() if counters[0] and counters[1]}
    weighted = sum(one * (WEIGHTS[current - hour] if hour <= current else 1) for hour, one in scores.items())
    return min(100, weighted // sum(WEIGHTS[:current - min(past) + 1]))


def rows_of(state, table):
    return {row for rows in state.values() for row in rows if row[0] == table}


def after_load(tables, memory):
    """What memory holds when the tables are loaded into it: of reputation, also what only memory had."""
    keys = {row[:-5] if row[0] == "sender_reputation" else row[:-1] for row in tables["reputation"]}
    kept = {row for row in memory["reputation"]
            if (row[:-5] if row[0] == "sender_reputation" else row[:-1]) not in keys}
    return dict(tables, reputation=tables["reputation"] | kept)


def difference(left, right):
    """Two states in a few words."""
    return (f"{len(left - right)} and {len(right - left)} of {len(left)} and {len(right)} are in one only, such as "
            f"{sorted(left - right)[:2]} and {sorted(right - left)[:2]}")


def whose(found, states):
    """For each family, which of the states it is; AssertionError when it is none, or not one alone of them."""
    which = {}
    for family in TABLES:
        same = [number for number, state in enumerate(states) if found[family] == state[family]]
        if not same:
            told = "; ".join(difference(found[family], state[family]) for state in states)
            raise AssertionError(f"{family} is none of the states: {told}")
        which[family] = same[0]
    return which


__all__ = ["FAMILIES", "TABLES", "FaultWorld", "PHONES", "after_load", "difference", "rows_of", "whose"]
