"""What every end-to-end test stands on: a stage with MariaDB, both daemons and Postfix, and a clock to move."""

import os
import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts"))

from stage.clock import MovableClock  # noqa: E402
from stage.mariadb import PrivateMariaDb  # noqa: E402
from stage.postfix import PrivatePostfix  # noqa: E402
from stage.process import free_port, wait_until  # noqa: E402
from stage.smtp import Client, Session, send  # noqa: E402
from stage.stage import Stage  # noqa: E402
from stage.vellum import PolicyClient, Vellum  # noqa: E402

DOMAIN = "example.org"  # the recipients'
DEFER_TEXT = "Please come back in a while"
DELAY_MINUTES = 5
AUTO_EXEMPT_AFTER = 3

EXEMPT_RULES = [
    {"id": 10, "client": "198.51.100.0/28"},
    {"id": 20, "recipient": "/^postmaster@/"},
]


class World:
    def __init__(self, policy=True, milter=None, postfix=True):
        """`policy`: Postfix asks the policy server; `milter`: it asks the milter, with these settings of its section.

        Without `postfix` there is none, and a test asks by policy().
        """
        self.stage = Stage(keep=bool(os.environ.get("VELLUM_KEEP_STAGE")))
        self.stage.__enter__()
        try:
            self.clock = MovableClock(self.stage)
            self.mariadb = PrivateMariaDb(self.stage)
            self.vellum = Vellum(self.stage, os.environ["VELLUM_PROGRAMS"], self.mariadb, clock=self.clock, greylist={
                "delay_minutes": DELAY_MINUTES, "first_life_hours": 4, "life_days": 36,
                "auto_exempt_after": AUTO_EXEMPT_AFTER, "defer_text": DEFER_TEXT}, milter=milter)
            self.vellum.write_rules(EXEMPT_RULES)
            self.vellum.start()
            self.postfix = postfix and PrivatePostfix(
                self.stage, [DOMAIN], policy=f"unix:{self.vellum.policy_socket}" if policy else None,
                milter=self.vellum.milter_address)
        except BaseException:
            self.stage.close()
            raise

    def close(self):
        self.stage.close()

    def send(self, client, sender, *recipients, subject="a message"):
        """One attempt through Postfix; the replies to the recipients, and that to the message or None."""
        return send(self.postfix.port, client, sender, recipients, subject)

    def session(self, client):
        return Session(self.postfix.port, client)

    def policy(self):
        return PolicyClient(self.vellum.policy_socket)

    def wait_out_the_delay(self):
        self.clock.advance(minutes=DELAY_MINUTES)

    def logged(self, pattern, since=0):
        """Waits until the state daemon's log matches; its lines come a moment late."""
        return wait_until(lambda: re.search(pattern, self.vellum.log()[since:]), f"{pattern} in the daemon's log")

    def delivered(self, subject, count=1):
        """The texts of `count` delivered messages with this subject."""
        def found():
            texts = [text for text in self.postfix.delivered() if f"\nSubject: {subject}\n" in text]
            return texts if len(texts) >= count else None
        return wait_until(found, f"{count} delivered messages with the subject {subject!r}")

    def restart_after_kill(self):
        """kill -9 of the state daemon, and a new one."""
        self.vellum.daemon.kill()
        self.vellum.start_daemon()


def identity(record):
    """What a listed tuple is about, without its times."""
    return record["network"], record["sender"], record["recipient"]


def deferral_of(recipient, text=DEFER_TEXT):
    """What Postfix makes of our answer."""
    return f"450 4.2.0 <{recipient}>: Recipient address rejected: {text}"


__all__ = ["AUTO_EXEMPT_AFTER", "Client", "DEFER_TEXT", "DELAY_MINUTES", "DOMAIN", "EXEMPT_RULES", "World",
           "deferral_of", "free_port", "identity", "wait_until"]
