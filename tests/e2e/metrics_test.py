"""What is measured, over HTTP and in a terminal, and which unit of a pair backs up."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time
import unittest
import urllib.error
import urllib.request
from pathlib import Path

from world import Client, World, free_port, wait_until

from stage.vellum import toml_file  # found once world is imported


def setUpModule():
    global world, port
    world = World()
    port = free_port()
    world.vellum.settings["metrics"] = {"listen": f"inet:127.0.0.1:{port}"}
    restart()


def tearDownModule():
    world.close()


def restart():
    world.vellum.write_settings()
    world.vellum.daemon.stop()
    world.vellum.start_daemon()


def get(path):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=60) as answer:
        return answer.read().decode()


def value(name, **labels):
    """The value of one sample; None when there is none."""
    for line in get("/metrics").splitlines():
        match = re.fullmatch(r"(\w+)(?:\{(.*)\})? (\S+)", line)
        if match and match[1] == name and dict(re.findall(r'(\w+)="([^"]*)"', match[2] or "")) == labels:
            return float(match[3])
    return None


class Http(unittest.TestCase):
    def test_mail_moves_the_counters(self):
        new = {"front": "policy", "action": "greylist", "reason": "new"}
        before, messages = value("vellum_decisions_total", **new), value("vellum_messages_total", front="policy")
        world.send(Client("192.0.2.40"), "jo@metrics.example", "a@example.org", "b@example.org")
        self.assertEqual(value("vellum_decisions_total", **new), before + 2)
        self.assertEqual(value("vellum_messages_total", front="policy"), messages + 1)
        self.assertEqual(value("vellum_cache_entries", cache="tuples"), len(world.vellum.tuples()))
        self.assertEqual(value("vellum_database_up"), 1)
        self.assertEqual(value("vellum_database_daemon_up"), 1)

    def test_one_decision_in_eight_is_timed(self):
        timed = value("vellum_decision_duration_seconds_count")
        policy = world.policy()  # one connection is served by one thread
        self.addCleanup(policy.close)
        for number in range(8):
            policy.ask("192.0.2.42", "jo@timed.example", f"{number}@example.org")
        self.assertGreater(value("vellum_decision_duration_seconds_count"), timed)

    def test_backups_and_listings_are_counted(self):
        world.vellum.ctl("backup")
        self.assertGreaterEqual(value("vellum_backups_total", family="greylist", outcome="success"), 1)
        self.assertLess(value("vellum_backup_age_seconds", family="greylist"), 600)
        before = value("vellum_requests_total", request="list_exemptions", outcome="success") or 0
        world.vellum.exemptions()
        wait_until(lambda: value("vellum_requests_total", request="list_exemptions", outcome="success") == before + 1,
                   "the listing in the metrics")

    def test_every_metric_is_documented_and_every_documented_one_is_told(self):
        page = (Path(__file__).resolve().parents[2] / "docs/metrics.md").read_text()
        documented = set(re.findall(r"^\| `(vellum_\w+)` \|", page, re.MULTILINE))
        world.vellum.ctl("backup")  # some are only told once there was a backup, and a request
        world.vellum.exemptions()

        def told():
            return set(re.findall(r"^# TYPE (vellum_\w+) ", get("/metrics"), re.MULTILINE))
        wait_until(lambda: len(told()) >= len(documented), "all metrics")
        self.assertEqual(told(), documented)

    def test_nothing_else_is_served(self):
        with self.assertRaises(urllib.error.HTTPError) as refused:
            get("/etc/passwd")
        self.assertEqual(refused.exception.code, 404)

    def test_port_in_use_ends_the_start_with_the_reason(self):
        settings = dict(world.vellum.settings, state={"directory": str(world.stage.make_directory("other"))},
                        ipc={"port": free_port()},
                        policy={"listen": [f"unix:{world.stage.path('other.sock')}"]}, log={"target": "stderr"})
        path = world.stage.path("other.toml")
        path.write_text(toml_file(settings))
        path.chmod(0o600)
        ran = subprocess.run([world.vellum.programs / "vellumd", "--config", path], capture_output=True, text=True,
                             check=False, timeout=120)
        self.assertNotEqual(ran.returncode, 0)
        self.assertIn("metrics cannot be served: ", ran.stderr)
        self.assertIn(f"inet:127.0.0.1:{port}: bind: Address already in use", ran.stderr)


class Top(unittest.TestCase):
    def test_one_page_without_a_terminal(self):
        page = world.vellum.ctl("top", "--once")
        self.assertRegex(page, r"(?m)^database up, database daemon up, unit active$")
        self.assertRegex(page, r"(?m)^policy +\d")
        self.assertRegex(page, r"(?m)^LATENCY  p50 ")

    def run_in_terminal(self, end):
        """Starts it on a terminal of 20 lines, lets it show two pages and ends it; its exit status and its output."""
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 20, 60, 0, 0))
        before = termios.tcgetattr(slave)
        process = subprocess.Popen(world.vellum.command("top"), stdin=slave, stdout=slave, stderr=slave,
                                   start_new_session=True)
        shown = b""
        try:
            while shown.count(b"\x1b[J") < 2:
                self.assertTrue(select.select([master], [], [], 60)[0], "nothing is shown")
                shown += os.read(master, 65536)
            end(process, master)
            status = process.wait(60)
            while select.select([master], [], [], 0)[0]:
                shown += os.read(master, 65536)
            self.assertEqual(termios.tcgetattr(slave), before, "the terminal is as it was")
        finally:
            process.kill()
            os.close(master)
            os.close(slave)
        return status, shown.decode()

    def check(self, end):
        status, shown = self.run_in_terminal(end)
        self.assertEqual(status, 0)
        self.assertTrue(shown.startswith("\x1b[?1049h\x1b[?25l\x1b[Hvellumd "), shown[:100])
        self.assertTrue(shown.endswith("\x1b[?25h\x1b[?1049l"), shown[-100:])
        for page in shown.split("\x1b[H")[1:]:
            lines = re.sub(r"\x1b\[\??[0-9]*[A-Za-z]", "", page).replace("\r", "").split("\n")
            self.assertLessEqual(len(lines), 20)
            self.assertLessEqual(max(map(len, lines)), 60)

    def test_q_leaves_and_the_terminal_is_restored(self):
        self.check(lambda process, master: os.write(master, b"xq"))

    def test_interrupt_leaves_and_the_terminal_is_restored(self):
        self.check(lambda process, master: process.send_signal(signal.SIGINT))


class Pair(unittest.TestCase):
    def test_the_unit_that_is_not_active_leaves_the_tables_alone(self):
        state = world.stage.path("pair-state")
        resynced = world.stage.path("resynced")
        resync = ["/bin/sh", "-c", f"echo $VELLUM_FAMILY >> {resynced}"]
        state.write_text("standby\n")
        world.vellum.settings["high_availability"] = {"active_file": str(state), "resync_command": resync,
                                                      "answer_holds_seconds": 0}
        world.send(Client("192.0.2.41"), "jo@pair.example", "a@example.org")
        world.vellum.write_settings()
        world.vellum.reload()
        rows = world.mariadb.query("SELECT COUNT(*) FROM grey_list")
        world.vellum.daemon.stop()
        for of in ("", " of sender reputation", " of endpoints"):
            self.assertIn(f"no last backup{of}: this unit is not the active one", world.vellum.log())
        self.assertEqual(world.mariadb.query("SELECT COUNT(*) FROM grey_list"), rows)
        world.vellum.start_daemon()
        self.assertEqual(value("vellum_high_availability_active"), 0)
        self.assertIn("Unit         STANDBY", world.vellum.ctl("status"))
        self.assertIn("unit STANDBY", world.vellum.ctl("top", "--once"))
        self.assertFalse(resynced.exists())

        # The other unit has written the tables meanwhile. They are loaded before this one writes them.
        world.mariadb.query("INSERT INTO grey_list VALUES ('198.51.100.0/24', 'jo@other.example', 'a@example.org', "
                            f"{int(time.time())}, {int(time.time()) + 90000})")
        state.write_text("active\n")
        world.vellum.daemon.signal(signal.SIGHUP)
        for tables in ("the tables", "the tables of sender reputation", "the endpoint tables"):
            world.logged(f": {tables} that the other unit has written are loaded: backups are on again")
        self.assertIn("jo@other.example", [one["sender"] for one in world.vellum.tuples()])
        world.vellum.daemon.stop()
        self.assertEqual(sorted(resynced.read_text().split()), ["endpoint", "greylist", "reputation"])
        senders = [row[0] for row in world.mariadb.query("SELECT SenderEmailAddress FROM grey_list")]
        self.assertIn("jo@other.example", senders)
        del world.vellum.settings["high_availability"]
        world.vellum.write_settings()
        world.vellum.start_daemon()
