"""Both daemons with the rights that their systemd units leave them, and no more: everything they do has to work so."""

import os
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

from strangers_test import PACKAGING, SERVICE, give
from world import Stage, wait_until
from stage.mariadb import PrivateMariaDb
from stage.vellum import PolicyClient, Vellum

FILTER = Path(__file__).with_name("service_filter.py")


def setUpModule():
    global stage, vellum
    if shutil.which("systemd-analyze") is None:
        raise unittest.SkipTest("systemd-analyze, which knows the sets of system calls, is not installed")
    stage = Stage(keep=bool(os.environ.get("VELLUM_KEEP_STAGE")))
    stage.__enter__()
    try:
        mariadb = PrivateMariaDb(stage)
        vellum = Vellum(stage, os.environ["VELLUM_PROGRAMS"], mariadb, milter={})
        vellum.write_settings()
        give(vellum.directory, SERVICE)
        for process, name in ((vellum.dbd, "vellum-dbd"), (vellum.daemon, "vellumd")):
            process.command[:0] = filtered(name)
        vellum.start()
    except BaseException:
        stage.close()
        raise


def tearDownModule():
    stage.close()


def filtered(name):
    """The words before a command that make it run under that unit's filter."""
    return [sys.executable, str(FILTER), str(PACKAGING / "systemd" / f"{name}.service"), SERVICE.pw_name]


class UnitsFilter(unittest.TestCase):
    def test_forbids_what_it_says(self):
        forbidden = "import os; os.chroot('/')"
        ran = subprocess.run([*filtered("vellumd"), sys.executable, "-c", forbidden], capture_output=True, text=True,
                             check=False)
        self.assertIn("PermissionError", ran.stderr)

    def test_decides_lists_saves_reloads_and_is_there_again_after_a_restart(self):
        client = PolicyClient(vellum.policy_socket)
        client.ask("192.0.2.1", "jo@one.example", "ann@example.org")
        self.assertEqual(len(vellum.tuples()), 1)
        self.assertIn("settings read again", vellum.reload())
        vellum.ctl("backup")
        wait_until(lambda: "is done" in vellum.dbd_log(), "the script to be run")
        client.close()
        self.assertEqual(vellum.daemon.terminate(), 0)
        vellum.start_daemon()
        self.assertEqual(len(vellum.tuples()), 1)
        self.assertIn('"database"', vellum.ctl("status", "--json"))
        for log in (vellum.log(), vellum.dbd_log()):
            self.assertNotRegex(log, "(?i)not permitted|permission denied")
        self.assertEqual(vellum.daemon.terminate(), 0)
        self.assertEqual(vellum.dbd.terminate(), 0)
