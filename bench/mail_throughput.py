#!/usr/bin/env python3
"""Messages per second through Postfix, without a filter, with the policy front, and with the policy and milter fronts.

    bench/mail_throughput.py [--programs build/release/bin] [--messages N] [--sessions N] [--rounds N]

Three Postfix instances of the same configuration, one vellumd on a private MariaDB. Each round sends the same messages
through each instance by turns, with Postfix' own load generator, so that all three have the same machine; the medians
of the rounds are compared. Every message is a connection of its own, one recipient, 2 KiB, and is thrown away after
Postfix has queued it. The tuple is known, as that of most mail is. Needs root.
"""

import argparse
import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "scripts"))

from stage.clock import MovableClock  # noqa: E402
from stage.mariadb import PrivateMariaDb  # noqa: E402
from stage.postfix import PrivatePostfix  # noqa: E402
from stage.process import StageError  # noqa: E402
from stage.stage import SOURCE_DIRECTORY, Stage  # noqa: E402
from stage.vellum import Vellum  # noqa: E402

SENDER = "jo@load.example"
RECIPIENT = "ann@sink.example"
DELAY_MINUTES = 5
TARGETS = {"policy": 0.95, "policy and milter": 0.90}


def seconds(postfix, messages, sessions):
    """How long the messages take; every one must be accepted."""
    begun = time.monotonic()
    ran = subprocess.run(["/usr/sbin/smtp-source", "-s", str(sessions), "-m", str(messages), "-l", "2048",
                          "-f", SENDER, "-t", RECIPIENT, f"inet:127.0.0.1:{postfix.port}"],
                         capture_output=True, text=True, check=False)
    if ran.returncode != 0:
        raise StageError(f"smtp-source: {ran.stdout}{ran.stderr}{postfix.log()[-2000:]}")
    return time.monotonic() - begun


def make_tuple_known(vellum, clock, port):
    """The sender's first attempt, and a retry after the delay."""
    for _ in range(2):
        subprocess.run(["/usr/sbin/smtp-source", "-f", SENDER, "-t", RECIPIENT, f"inet:127.0.0.1:{port}"],
                       capture_output=True, check=False)
        clock.advance(minutes=DELAY_MINUTES)
    if not any(one["sender"] == SENDER for one in vellum.tuples()):
        raise StageError(f"the tuple did not come to be: {vellum.log()[-2000:]}")


def main():
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("--programs", default=str(SOURCE_DIRECTORY / "build/release/bin"))
    options.add_argument("--messages", type=int, default=2000, help="of a round (default %(default)s)")
    options.add_argument("--sessions", type=int, default=8, help="at once (default %(default)s)")
    options.add_argument("--rounds", type=int, default=7, help="(default %(default)s)")
    chosen = options.parse_args()
    with Stage() as stage:
        clock = MovableClock(stage)
        vellum = Vellum(stage, chosen.programs, PrivateMariaDb(stage), clock=clock, milter={},
                        greylist={"delay_minutes": DELAY_MINUTES, "auto_exempt_after": 0})
        vellum.start()
        policy, milter = f"unix:{vellum.policy_socket}", f"unix:{vellum.milter_socket}"
        contenders = {
            "no filter": PrivatePostfix(stage, ["example.org"], name="bare", thrown_away=["sink.example"]),
            "policy": PrivatePostfix(stage, ["example.org"], policy, name="policy", thrown_away=["sink.example"]),
            "policy and milter": PrivatePostfix(stage, ["example.org"], policy, milter, name="both",
                                                thrown_away=["sink.example"]),
        }
        make_tuple_known(vellum, clock, contenders["policy"].port)
        for postfix in contenders.values():  # its processes are started, its caches warm
            seconds(postfix, chosen.messages // 4, chosen.sessions)
        taken = {name: [] for name in contenders}
        for _ in range(chosen.rounds):
            for name, postfix in contenders.items():
                taken[name].append(seconds(postfix, chosen.messages, chosen.sessions))
        print(f"{chosen.messages} messages a round, {chosen.sessions} at once, median of {chosen.rounds} rounds")
        for name, times in taken.items():
            share = statistics.median(bare / own for bare, own in zip(taken["no filter"], times))
            target = f", target {TARGETS[name]:.2f}" if name in TARGETS else ""
            print(f"  {name:18} {chosen.messages / statistics.median(times):7.0f} a second, {share:.3f} of no "
                  f"filter{target}")


if __name__ == "__main__":
    main()
