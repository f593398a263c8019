#!/usr/bin/env python3
"""Runs the end-to-end tests: the real daemons behind a real Postfix, over a real MariaDB, all of them private.

    tests/e2e/run.py --programs build/release/bin [-k PATTERN]

Needs root, as Postfix' master process does; calls itself through sudo when it has to. Exit code 77 when that is not
possible. VELLUM_KEEP_STAGE=1 leaves the temporary directories; VELLUM_TEST_RESULTS names a directory for counts.
"""

import argparse
import json
import os
import subprocess
import sys
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent


def become_root():
    if os.geteuid() == 0:
        return
    kept = [f"{name}={value}" for name, value in os.environ.items() if name.startswith("VELLUM_")]
    command = ["sudo", "-n", "env", "PYTHONDONTWRITEBYTECODE=1", *kept, sys.executable, *sys.argv]
    try:
        may = subprocess.run(["sudo", "-n", "true"], capture_output=True, check=False).returncode == 0
    except FileNotFoundError:
        may = False
    if not may:
        print("skipped: only root can start a private Postfix, and sudo does not let us")
        sys.exit(77)
    sys.exit(subprocess.run(command, check=False).returncode)


class ToldAtOnce(unittest.TextTestResult):
    """Tells why a test failed where it failed, too: a reader who sees only a part of a long output has it there."""

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.stream.writeln(self.failures[-1][1])

    def addError(self, test, err):
        super().addError(test, err)
        self.stream.writeln(self.errors[-1][1])


def main():
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("--programs", required=True, help="directory of vellumd and the others")
    options.add_argument("-k", dest="patterns", action="append", help="only tests whose name matches")
    chosen = options.parse_args()
    become_root()
    os.environ["VELLUM_PROGRAMS"] = str(Path(chosen.programs).resolve())
    sys.dont_write_bytecode = True
    sys.path.insert(0, str(HERE))

    loader = unittest.TestLoader()
    if chosen.patterns:
        loader.testNamePatterns = [pattern if "*" in pattern else f"*{pattern}*" for pattern in chosen.patterns]
    suite = loader.discover(str(HERE), pattern="*_test.py", top_level_dir=str(HERE))
    result = unittest.TextTestRunner(verbosity=2, resultclass=ToldAtOnce).run(suite)
    if results := os.environ.get("VELLUM_TEST_RESULTS"):
        report = {"tests": result.testsRun, "failures": len(result.failures), "errors": len(result.errors)}
        Path(results, "e2e.json").write_text(json.dumps(report))
    sys.exit(0 if result.wasSuccessful() and result.testsRun else 1)


if __name__ == "__main__":
    main()
