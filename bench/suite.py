#!/usr/bin/env python3
"""Runs every benchmark, one after the other, and writes what they measured to docs/performance.md.

    scripts/bench [--quick] [--anyway] [--only NAME]... [--output FILE]

A full run takes some twelve minutes on two cores and writes the part between the two marks of docs/performance.md; a
quick one takes some two, with smaller caches and few turns, and prints what it would write. A program that fails or
takes too long is said with its reason and left out. Refuses to start on a machine that is busy with something else.
"""

import argparse
import json
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import machine  # noqa: E402
import report  # noqa: E402

SOURCE_DIRECTORY = Path(__file__).resolve().parents[1]
PROGRAMS = SOURCE_DIRECTORY / "build/release/bin"
RESULTS = SOURCE_DIRECTORY / "build/bench"
DOCUMENT = SOURCE_DIRECTORY / "docs/performance.md"
BUSY = 0.10  # of all processors, by others, above which figures tell more about them
PATIENCE = 60  # seconds for the machine to become quiet
PEERS = "noop,vellumd,postgrey,sqlgrey,greylistd,postfwd,policyd-rate-limit"
OURS = "noop,vellum-noop,vellumd"

# Name, program, arguments of a full run, arguments of a quick one, the most seconds that a full run may take.
RUNS = [
    ("decision", "DecisionBench", "--tuples 10000 --tuples 1000000 --turns 5", "--tuples 10000 --turns 3", 300),
    ("latency", "LatencyBench", "--turns 4", "--tuples 100000 --turns 1", 200),
    ("front", "PolicyBench", f"--servers {OURS} --keys known,new --rounds 5 --milliseconds 600",
     f"--servers {OURS} --keys known --connections 4 --tuples 100000 --rounds 2 --milliseconds 300", 300),
    ("peers", "PolicyBench", f"--servers {PEERS} --keys known,new --connections 4 --rounds 3 --milliseconds 1000",
     f"--servers {PEERS} --keys known --connections 4 --tuples 100000 --rounds 1 --milliseconds 500", 300),
    ("mail", "mail_throughput.py", "--rounds 9", "--messages 300 --rounds 3", 240),
    ("backup", "BackupBench", "--turns 7", "--tuples 100000 --turns 3", 120),
    ("load", "LoadBench", "--turns 5", "--tuples 100000 --turns 2", 240),
    ("listing", "ListingBench", "--turns 7", "--tuples 100000 --turns 3", 120),
    ("reputation", "ReputationBench", "--turns 5", "--turns 1", 120),
    ("rates", "RateControlBench", "--turns 5", "--tuples 10000 --turns 1", 120),
    ("endpoints", "EndpointBench", "--turns 5", "--tuples 1000 --turns 1", 120),
    ("radius", "RadiusBench", "--turns 5", "--tuples 10000 --turns 1", 120),
    ("metrics", "MetricsBench", "--turns 7", "--tuples 10000 --turns 1", 180),
    ("logger", "LoggerBench", "", "", 60),
]


def command_of(program, arguments, results):
    """The words of a call, and how its output is read."""
    if program == "PolicyBench":
        return [PROGRAMS / program, *arguments, "--json", results]
    if program == "LoggerBench":
        return [PROGRAMS / program, *arguments, "--benchmark_format=json"]
    if program == "mail_throughput.py":
        return [SOURCE_DIRECTORY / "bench" / program, *arguments, "--json"]
    return [PROGRAMS / program, *arguments, "--json"]


def figures_of(program, output, results):
    """A list of objects, whatever way the program writes them."""
    if program == "PolicyBench":
        return json.loads(results.read_text())
    if program == "LoggerBench":
        return json.loads(output)["benchmarks"]
    return [json.loads(line) for line in output.splitlines() if line.startswith("{")]


def run(name, program, arguments, seconds):
    """Returns (figures, why there are none). Everything that it started is gone afterwards."""
    results = RESULTS / f"{name}.json"
    results.unlink(missing_ok=True)
    process = subprocess.Popen([str(word) for word in command_of(program, arguments.split(), results)],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, start_new_session=True)
    try:
        output, errors = process.communicate(timeout=seconds)
    except subprocess.TimeoutExpired:
        process.terminate()  # the chance to stop what it has started
        try:
            process.communicate(timeout=30)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
        return [], f"it took longer than {seconds} seconds"
    sys.stderr.write(errors)
    try:
        figures = figures_of(program, output, results)
    except (OSError, ValueError, KeyError):
        figures = []
    results.write_text(json.dumps(figures, indent=1) + "\n")
    if process.returncode != 0 and not figures:
        last = (errors.strip() or output.strip()).splitlines()[-1:]
        return [], f"it ended with {process.returncode}" + (f": {last[0]}" if last else "")
    return figures, "" if figures else "it wrote no figures"


def wait_for_quiet(anyway):
    """Returns how busy others keep the machine; ends the program when that is too much."""
    deadline = time.monotonic() + PATIENCE
    while True:
        busy = machine.busy(3)
        if busy <= BUSY or anyway:
            return busy
        if time.monotonic() > deadline:
            sys.exit(f"scripts/bench: other work takes {busy:.0%} of the processors (load {os.getloadavg()[0]:.1f}); "
                     "figures would tell about that. Later, or with --anyway.")
        print(f"other work takes {busy:.0%} of the processors; waiting", flush=True)


def run_all(chosen):
    """Returns {name: figures}, {name: why there are none}, and how busy the others were at most."""
    figures, failures, busiest = {}, {}, 0
    for name, program, full, quick, seconds in RUNS:
        if chosen.only and name not in chosen.only:
            continue
        busiest = max(busiest, machine.busy(1))
        begun = time.monotonic()
        print(f"{name:12}", end="", flush=True)
        figures[name], failure = run(name, program, quick if chosen.quick else full, seconds)
        if failure:
            failures[name] = f"{program}: {failure}"
        print(f"{time.monotonic() - begun:5.0f} s  {failure or 'measured'}", flush=True)
    return figures, failures, busiest


def main():
    options = argparse.ArgumentParser(prog="scripts/bench", description=__doc__,
                                      formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("--quick", action="store_true", help="smaller and shorter; nothing is written")
    options.add_argument("--anyway", action="store_true", help="on a busy machine, too; the document then says so")
    options.add_argument("--only", action="append", choices=[one[0] for one in RUNS], help="and no other; nothing is "
                         "written")
    options.add_argument("--output", type=Path, help="a document with the two marks, to be written in any case")
    chosen = options.parse_args()
    RESULTS.mkdir(parents=True, exist_ok=True)
    begun = time.monotonic()
    about = machine.describe(SOURCE_DIRECTORY)
    wait_for_quiet(chosen.anyway)
    figures, failures, busiest = run_all(chosen)
    about["busy"], about["very_busy"] = busiest, busiest > BUSY
    about["minutes"] = (time.monotonic() - begun) / 60
    text = report.text(about, figures, failures, chosen.quick)
    document = chosen.output or (None if chosen.quick or chosen.only else DOCUMENT)
    if document:
        report.insert(document, text)
        print(f"written: {document}")
    else:
        print(text)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
