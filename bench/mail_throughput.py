#!/usr/bin/env python3
"""Messages per second through Postfix, without a filter, with the policy front, and with the policy and milter fronts;
and beside them fronts that see the same and do nothing (NoopFronts): what they lose is Postfix' own part.

    bench/mail_throughput.py [--programs build/release/bin] [--messages N] [--sessions N] [--rounds N] [--json]

Postfix instances of the same configuration, one vellumd on a private MariaDB. Each round sends the same messages
through each instance by turns, with Postfix' own load generator, so that all have the same machine, and each has each
place in a round about as often as the others; the share is the median of the rounds' shares. Every message is a
connection of its own, one recipient, 2 KiB, and is thrown away after Postfix has queued it. The tuple is known, as that
of most mail is. Needs root, as Postfix does.
"""

import argparse
import json
import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "scripts"))

from stage.mariadb import PrivateMariaDb  # noqa: E402
from stage.postfix import PrivatePostfix  # noqa: E402
from stage.process import Process, StageError, accepts_unix_connections  # noqa: E402
from stage.stage import SOURCE_DIRECTORY, Stage, needs_root  # noqa: E402
from stage.vellum import Vellum  # noqa: E402

SENDER = "jo@load.example"
RECIPIENT = "ann@sink.example"


def seconds(postfix, messages, sessions):
    """How long the messages take; every one must be accepted."""
    begun = time.monotonic()
    ran = subprocess.run(["/usr/sbin/smtp-source", "-s", str(sessions), "-m", str(messages), "-l", "2048",
                          "-f", SENDER, "-t", RECIPIENT, f"inet:127.0.0.1:{postfix.port}"],
                         capture_output=True, text=True, check=False)
    if ran.returncode != 0:
        raise StageError(f"smtp-source: {ran.stdout}{ran.stderr}{postfix.log()[-2000:]}")
    return time.monotonic() - begun


def make_tuple_known(vellum, port):
    """The sender's first attempt, which is put off, and a retry; there is no delay in between."""
    for _ in range(2):
        subprocess.run(["/usr/sbin/smtp-source", "-f", SENDER, "-t", RECIPIENT, f"inet:127.0.0.1:{port}"],
                       capture_output=True, check=False)
    if not any(one["sender"] == SENDER for one in vellum.tuples()):
        raise StageError(f"the tuple did not come to be: {vellum.log()[-2000:]}")


def start_noop_fronts(stage, programs):
    """The addresses of a policy server and a milter that do nothing."""
    sockets = [stage.path("noop", name) for name in ("policy.sock", "milter.sock")]
    noop = Process(stage, "NoopFronts", [Path(programs) / "NoopFronts", *sockets], stage.path("noop", "out"))
    noop.start()
    noop.started(lambda: all(accepts_unix_connections(path) for path in sockets))
    return [f"unix:{path}" for path in sockets]


def show(chosen, taken):
    """`taken`: the seconds of each round, by the name of the contender."""
    if not chosen.json:
        print(f"{chosen.messages} messages a round, {chosen.sessions} at once, median of {chosen.rounds} rounds")
    for name, times in taken.items():
        rate = chosen.messages / statistics.median(times)
        share = statistics.median(bare / own for bare, own in zip(taken["no filter"], times))
        if chosen.json:
            print(json.dumps({"case": name, "messages_per_second": round(rate), "share": round(share, 3)}))
        else:
            print(f"  {name:24} {rate:7.0f} a second, {share:.3f} of no filter")


def main():
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("--programs", default=str(SOURCE_DIRECTORY / "build/release/bin"))
    options.add_argument("--messages", type=int, default=2000, help="of a round (default %(default)s)")
    options.add_argument("--sessions", type=int, default=8, help="at once (default %(default)s)")
    options.add_argument("--rounds", type=int, default=7, help="(default %(default)s)")
    options.add_argument("--json", action="store_true", help="the figures as one object a line")
    chosen = options.parse_args()
    if needs_root():
        sys.exit(f"mail_throughput.py: {needs_root()}")
    with Stage() as stage:
        vellum = Vellum(stage, chosen.programs, PrivateMariaDb(stage), milter={},
                        greylist={"delay_minutes": 0, "auto_exempt_after": 0})
        vellum.start()
        policy, milter = f"unix:{vellum.policy_socket}", f"unix:{vellum.milter_socket}"
        noop_policy, noop_milter = start_noop_fronts(stage, chosen.programs)
        fronts = {
            "no filter": (None, None),
            "policy": (policy, None),
            "policy and milter": (policy, milter),
            "no-op policy": (noop_policy, None),
            "no-op policy and milter": (noop_policy, noop_milter),
        }
        contenders = {name: PrivatePostfix(stage, ["example.org"], *asked, name=name.replace(" ", "-"),
                                           thrown_away=["sink.example"]) for name, asked in fronts.items()}
        make_tuple_known(vellum, contenders["policy"].port)
        for postfix in contenders.values():  # its processes are started, its caches warm
            seconds(postfix, chosen.messages // 4, chosen.sessions)
        taken = {name: [] for name in contenders}
        names = list(contenders)
        for turn in range(chosen.rounds):
            for name in names[turn % len(names):] + names[:turn % len(names)]:
                taken[name].append(seconds(contenders[name], chosen.messages, chosen.sessions))
        show(chosen, taken)


if __name__ == "__main__":
    main()
