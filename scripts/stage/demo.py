"""Vellum at work on a private mail server, for a person to watch. Called by scripts/demo."""

import argparse
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

from .clock import MovableClock
from .mariadb import PrivateMariaDb
from .postfix import PrivatePostfix
from .process import StageError, wait_until
from .smtp import Client, send
from .stage import SOURCE_DIRECTORY, Stage, needs_root
from .vellum import Vellum

DELAY_MINUTES = 1
AUTO_EXEMPT_AFTER = 3
REPLAY_LINES = 31  # of what vellum-replay tells; by hour, network and sender follow
SAMPLE = SOURCE_DIRECTORY / "tests/data/sample-envelopes.tsv"

RULES = [
    {"id": 10, "recipient": "/^(postmaster|abuse)@/"},
    {"id": 30, "reverse_dns": "*.partner.example", "sender": "*@partner.example"},
]


@dataclass
class Letter:
    who: str
    client: Client
    sender: str
    recipients: tuple
    retries: bool = True


SHOP = Client("192.0.2.25", "mail.shop.example", "mail.shop.example")
LETTERS = [
    Letter("a shop", SHOP, "orders@shop.example", ("ann@example.org", "bob@example.org")),
    Letter("its colleague", SHOP, "billing@shop.example", ("ann@example.org",)),
    Letter("another", SHOP, "returns@shop.example", ("ann@example.org",)),
    Letter("a bounce", Client("198.51.100.7", "mx.college.example", "mx.college.example"), "", ("bob@example.org",)),
    Letter("IPv6, from a pool", Client("2001:db8:77:1::a", "out1.pool.example", "out1.pool.example"),
           "kim@pool.example", ("cat@example.org",)),
    Letter("an odd sender", Client("203.0.113.9", helo="odd.example"), "o'neill=100%@odd.example",
           ("ann@example.org",)),
    Letter("a spam robot", Client("203.0.113.66", helo="dyn-66.example"), "prize@bulk.example",
           ("ann@example.org",), retries=False),
    Letter("a spam robot", Client("203.0.113.140", helo="dyn-140.example"), "winner@bulk.example",
           ("bob@example.org",), retries=False),
]
EXEMPT_LETTERS = [
    Letter("a partner (rule 30)", Client("198.51.100.30", "mail.partner.example", "mail.partner.example"),
           "sales@partner.example", ("bob@example.org",)),
    Letter("to postmaster (rule 10)", Client("203.0.113.70"), "help@stuck.example", ("postmaster@example.org",)),
    Letter("a logged-in user", Client("203.0.113.80", login="ann"), "ann@example.org", ("bob@example.org",)),
]


class Show:
    """What the watcher sees, and the facts for the summary at the end."""

    def __init__(self):
        self._bold = ("\033[1m", "\033[0m") if sys.stdout.isatty() else ("", "")
        self._steps = 0
        self.facts = []

    def step(self, title):
        self._steps += 1
        print(f"\n{self._bold[0]}-- {self._steps}. {title}{self._bold[1]}", flush=True)

    @staticmethod
    def say(text=""):
        for line in text.rstrip("\n").split("\n"):
            print(f"   {line}", flush=True)

    def said(self, command, output):
        """A command and what it said."""
        self.say(f"$ {command}")
        self.say(output)

    def fact(self, text, holds):
        """Something that must be so; told now and in the summary."""
        self.facts.append((text, bool(holds)))
        self.say(f"[{'ok' if holds else 'NOT SO'}] {text}")


class Demo:
    def __init__(self, stage, show, programs, fast):
        self.stage, self.show, self.fast = stage, show, fast
        self.clock = MovableClock(stage) if fast else None
        self.programs = Path(programs)

    def play(self):
        self.set_up()
        self.first_attempts()
        self.early_retries()
        self.wait()
        self.retries()
        self.automatic_exemption()
        self.backup()
        self.crash()
        self.orderly_stop()
        self.replay()

    def ctl(self, *arguments):
        output = self.vellum.ctl(*arguments)
        self.show.said(f"vellumctl --port {self.vellum.port} {' '.join(arguments)}", output)

    # What came of one attempt, with the replies that matter.
    def attempt(self, letter, subject):
        said = []
        replies, message = send(self.postfix.port, letter.client, letter.sender, letter.recipients, subject, said)
        for recipient, reply in zip(letter.recipients, replies):
            self.show.say(f"{letter.who}: {letter.client.address}  <{letter.sender}> -> <{recipient}>")
            self.show.say(f"    {reply}")
        return replies, message

    def set_up(self):
        self.show.step("A mail server of its own")
        self.mariadb = PrivateMariaDb(self.stage)
        self.vellum = Vellum(self.stage, self.programs, self.mariadb, clock=self.clock, greylist={
            "delay_minutes": DELAY_MINUTES, "auto_exempt_after": AUTO_EXEMPT_AFTER,
            "host_name": "mx.example.org"})
        self.vellum.write_rules(RULES)
        self.vellum.start()
        self.postfix = PrivatePostfix(self.stage, ["example.org"], policy=f"unix:{self.vellum.policy_socket}")
        self.show.say(f"MariaDB     127.0.0.1:{self.mariadb.port}")
        self.show.say(f"vellum-dbd  {' '.join(self.vellum.dbd.command[1:])}  (pid {self.vellum.dbd.pid})")
        self.show.say(f"vellumd     {' '.join(self.vellum.daemon.command[1:])}  (pid {self.vellum.daemon.pid})")
        self.show.say(f"Postfix     127.0.0.1:{self.postfix.port}, {self.postfix.configuration}/main.cf, which says")
        policy = [line for line in self.postfix.main_cf.splitlines() if "check_policy_service" in line]
        self.show.say("\n".join(["    smtpd_recipient_restrictions ="] + policy))

    def first_attempts(self):
        self.show.step("First attempts: strangers are asked to come back, exempt mail passes")
        deferred = []
        for letter in LETTERS:
            replies, _ = self.attempt(letter, "first attempt")
            deferred += [reply.code == 450 for reply in replies]
        self.show.fact(f"all {len(deferred)} recipients of strangers were deferred", all(deferred))
        passed = [self.attempt(letter, "exempt")[0][0].code == 250 for letter in EXEMPT_LETTERS]
        self.show.fact(f"all {len(passed)} exempt messages were accepted at once", all(passed))

    def early_retries(self):
        self.show.step("A retry that comes too early")
        replies, _ = self.attempt(LETTERS[0], "early")
        self.show.fact("a retry that came too early was deferred again", all(reply.code == 450 for reply in replies))
        self.show.say()
        self.show.say("What the daemon holds, over its port:")
        self.ctl("greylist", "list")

    def wait(self):
        if self.fast:
            self.show.step(f"The clock of vellumd is moved ahead by {DELAY_MINUTES} min")
            self.clock.advance(minutes=DELAY_MINUTES)
            return
        self.show.step(f"Waiting for the delay of {DELAY_MINUTES} min (--fast moves the clock instead)")
        end = time.monotonic() + 60 * DELAY_MINUTES + 1
        while (left := end - time.monotonic()) > 0:
            if sys.stdout.isatty():
                print(f"\r   {left:3.0f} s ", end="", flush=True)
            time.sleep(min(1, left))
        if sys.stdout.isatty():
            print("\r   over ")

    def retries(self):
        self.show.step("The strangers that come back are let in; the robots never do")
        accepted = []
        for letter in LETTERS:
            if letter.retries:
                if letter.client.address == "2001:db8:77:1::a":
                    letter.client.address = "2001:db8:77:1::b"  # the next machine of the pool
                replies, _ = self.attempt(letter, f"retry of {letter.who}")
                accepted += [reply.code == 250 for reply in replies]
        self.show.fact(f"all {len(accepted)} retries were accepted", all(accepted))
        count = len(accepted) + len(EXEMPT_LETTERS)
        texts = self.postfix.wait_for_delivered(count)
        shop = [text for text in texts if "Subject: retry of a shop" in text]
        self.show.say()
        self.show.say("The delivered mail of the shop begins:")
        self.show.say("\n".join(f"    {line}" for line in shop[0].splitlines()[:8]))
        self.show.fact("the header X-Greylist is there once, for each of the two recipients",
                       [text.count("X-Greylist: delayed") for text in shop] == [1, 1])
        self.show.fact(f"{count} messages were delivered, none of them from a robot",
                       len(texts) == count and not any("bulk.example" in text for text in texts))

    def automatic_exemption(self):
        self.show.step(f"{AUTO_EXEMPT_AFTER} tuples of one network and domain have passed: an automatic exemption")
        self.ctl("greylist", "exemptions")
        replies, _ = self.attempt(Letter("the shop, a new sender", SHOP, "news@shop.example", ("cat@example.org",)),
                                  "exempt by habit")
        self.show.fact("a sender never seen before was accepted at once", replies[0].code == 250)
        self.show.say()
        self.show.say("The log of the daemon has a line for each decision; the last three:")
        wait_until(lambda: "reason=auto-exempt" in self.vellum.log(), "the decision in the log")
        self.show.say("\n".join([line for line in self.vellum.log().splitlines() if "client_address=" in line][-3:]))

    def rows(self, table):
        return int(self.mariadb.query(f"SELECT COUNT(*) FROM {table}")[0][0])

    def stored(self, tuples, exemptions):
        """Waits until vellum-dbd has run the script. True when the tables hold that many rows then."""
        wait_until(lambda: (self.rows("grey_list"), self.rows("autoexempt")) == (tuples, exemptions),
                   f"{tuples} and {exemptions} rows in the tables")
        return True

    def backup(self):
        self.show.step("A backup: vellumd writes a script, vellum-dbd runs it, all or nothing")
        self.ctl("backup")
        tuples, exemptions = len(self.vellum.tuples()), len(self.vellum.exemptions())
        self.show.fact(f"the tables hold it: {tuples} rows of grey_list, {exemptions} of autoexempt",
                       self.stored(tuples, exemptions))
        self.show.said("mariadb fe_sender_history -e 'SELECT * FROM grey_list LIMIT 3'",
                       "\n".join("  ".join(row) for row in self.mariadb.query("SELECT * FROM grey_list LIMIT 3")))
        self.ctl("status")

    def crash(self):
        self.show.step("kill -9")
        before = sorted((r["network"], r["sender"], r["recipient"]) for r in self.vellum.tuples())
        self.show.say(f"$ kill -9 {self.vellum.daemon.pid}")
        self.vellum.daemon.kill()
        replies, _ = self.attempt(Letter("a stranger meanwhile", Client("192.0.2.99"), "new@meanwhile.example",
                                         ("bob@example.org",)), "meanwhile")
        self.show.fact("Postfix goes on without the daemon (default_action=DUNNO)", replies[0].code == 250)
        self.vellum.start_daemon()
        self.show.say(f"started again, pid {self.vellum.daemon.pid}")
        self.ctl("greylist", "list")
        after = sorted((r["network"], r["sender"], r["recipient"]) for r in self.vellum.tuples())
        self.show.fact(f"after kill -9 and a restart all {len(before)} tuples are still there", before == after)
        replies, _ = self.attempt(LETTERS[3], "known after the crash")
        self.show.fact("and mail that had passed before passes at once", replies[0].code == 250)

    def orderly_stop(self):
        self.show.step("SIGTERM: a last backup, then the end")
        self.attempt(Letter("one more stranger", Client("192.0.2.150"), "late@evening.example", ("cat@example.org",)),
                     "late")
        tuples, exemptions = len(self.vellum.tuples()), len(self.vellum.exemptions())
        self.show.say(f"$ kill {self.vellum.daemon.pid}")
        code = self.vellum.daemon.terminate()
        self.show.say("\n".join(self.vellum.log().splitlines()[-4:]))
        self.show.fact("vellumd ended with exit code 0", code == 0)
        self.show.fact(f"the tables hold the last state: {tuples} and {exemptions} rows",
                       self.stored(tuples, exemptions))

    def replay(self):
        self.show.step("What would greylisting have done to recorded mail? (vellum-replay, no daemon needed)")
        ran = subprocess.run([str(self.programs / "vellum-replay"), str(SAMPLE)], capture_output=True, text=True,
                             check=False)
        told = (ran.stdout + ran.stderr).splitlines()
        self.show.said(f"vellum-replay {SAMPLE.relative_to(SOURCE_DIRECTORY)}",
                       "\n".join([*told[:REPLAY_LINES], "..."] if len(told) > REPLAY_LINES else told))
        self.show.fact("recorded mail was played without a daemon", ran.returncode == 0)


def summary(show):
    show.step("What came of it")
    for text, holds in show.facts:
        show.say(f"{'ok    ' if holds else 'NOT SO'}  {text}")
    return all(holds for _, holds in show.facts)


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--programs", required=True)
    options.add_argument("--fast", action="store_true")
    options.add_argument("--keep", action="store_true")
    chosen = options.parse_args()
    if problem := needs_root():
        sys.exit(f"demo: {problem}")
    show = Show()
    try:
        with Stage(chosen.keep) as stage:
            Demo(stage, show, chosen.programs, chosen.fast).play()
            all_hold = summary(show)
    except StageError as error:
        sys.exit(f"demo: {error}")
    show.say()
    show.say("Everything that was started has been stopped" + ("." if chosen.keep else ", and its directory removed."))
    sys.exit(0 if all_hold else 1)


if __name__ == "__main__":
    main()
