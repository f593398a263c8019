"""Thousands of clients that mean no good: mail is decided meanwhile, memory stays bounded, and it passes by itself."""

import contextlib
import os
import re
import subprocess
import time
import unittest
from pathlib import Path

from world import Stage, free_port, wait_until
from stage.crowd import (Crowd, HALF_REQUEST, FRAME_HEADER, HealthyMailServer, LIST_TUPLES, MILTER_CLIENT, MILTER_OFFER,
                         allow_descriptors, count_listing, fill_cache, greet_milter, memory_kib, open_files,
                         port_client, unix_client, wait_until_files)
from stage.mariadb import PrivateMariaDb
from stage.process import StageError
from stage.vellum import PolicyClient, Vellum, toml_file

TUPLES = 50_000  # a listing of them is 28 MB, seven times what waits for one client
POLICY_CLIENTS = 10_000
PORT_CLIENTS = 1_000
STOPPED_LISTINGS = 200
MILTER_CLIENTS = 2_500

# What the connections may take, from the limits of the daemon, in KiB.
OUTPUT_OF_ALL = 64 << 10     # listings whose client does not read
INPUT_OF_ALL = 64 << 10      # frames that are not whole
PORT_CLIENT = 64 + 16        # a first piece of output, and of input
POLICY_CLIENT = 16           # half a request, answers
MILTER_MEMBER = 16           # the milter library's
WORKERS = 64 * 1024          # stacks, and the allocator's arenas
NEW_TUPLES = 64 << 10        # of the mails that are decided meanwhile

# What it was measured to take, with some slack, in KiB beyond what it has before: far below those limits.
PEAK = 190 << 10
AFTERWARDS = 150 << 10       # the allocator keeps some of it
TUPLE_BYTES = 568            # of a listing

NOTES_OF_A_KIND = 20         # in a minute


def setUpModule():
    global stage, mariadb
    allow_descriptors(20_000)
    stage = Stage(keep=bool(os.environ.get("VELLUM_KEEP_STAGE")))
    stage.__enter__()
    try:
        mariadb = PrivateMariaDb(stage)
    except BaseException:
        stage.close()
        raise


def tearDownModule():
    stage.close()


class Overload(unittest.TestCase):
    def start(self, descriptors="20000:20000", **sections):
        """A daemon that may open so many files, with these settings added."""
        vellum = Vellum(stage, os.environ["VELLUM_PROGRAMS"], mariadb, milter={})
        for name, keys in {"log": {"decisions": False}, **sections}.items():
            vellum.settings[name].update(keys)
        vellum.write_settings()
        for log in ("vellumd.log", "vellumd.out"):
            (vellum.directory / log).unlink(missing_ok=True)  # of the test before
        vellum.daemon.command = ["prlimit", f"--nofile={descriptors}", *vellum.daemon.command]
        vellum.start_dbd()
        self.addCleanup(vellum.dbd.kill)
        vellum.start_daemon()
        self.addCleanup(vellum.daemon.kill)
        self.vellum = vellum
        return vellum

    def policy(self):
        return unix_client(self.vellum.policy_socket)

    def milter(self):
        return unix_client(self.vellum.milter_socket)

    def port(self):
        return port_client(self.vellum.port)

    def crowd(self):
        crowd = Crowd()
        self.addCleanup(crowd.leave)
        return crowd

    def notes(self, pattern):
        return re.findall(pattern, self.vellum.log())

    def assert_noted_once(self, pattern):
        wait_until(lambda: self.notes(pattern), f"{pattern} in the log")
        self.assertEqual(len(self.notes(pattern)), 1)

    @contextlib.contextmanager
    def log_told_on_failure(self):
        try:
            yield
        except BaseException:
            print("\n  the daemon said:", *self.vellum.log().splitlines()[-40:], sep="\n  ")
            raise

    def is_greeted(self):
        try:
            return greet_milter(self.vellum.milter_socket) == b"O"
        except TimeoutError:
            return False

    def is_everybody_served(self):
        """Not so while somebody is turned away."""
        try:
            self.assert_everybody_is_served()
        except (OSError, StageError):
            return False
        return True

    def assert_everybody_is_served(self):
        client = PolicyClient(self.vellum.policy_socket)
        self.assertRegex(client.ask("192.0.2.1", "jo@after.example", "ann@example.org"), "^DEFER_IF_PERMIT 4.2.0 ")
        client.close()
        wait_until(lambda: greet_milter(self.vellum.milter_socket) == b"O", "the milter front to answer")
        self.assertIn("backups", self.vellum.ctl("status"))

    def test_mail_is_decided_among_thousands_of_idle_slow_and_stopped_clients(self):
        vellum = self.start(policy={"max_connections": 2 * POLICY_CLIENTS})
        fill_cache(vellum.policy_socket, TUPLES)
        files, memory = open_files(vellum.daemon.pid), memory_kib(vellum.daemon.pid)
        log_before = len(vellum.log().splitlines())
        crowd, slow, slow_port, slow_milter, stopped = (self.crowd() for _ in range(5))
        with HealthyMailServer(vellum.policy_socket) as mails:
            crowd.join(POLICY_CLIENTS * 3 // 5, self.policy)
            crowd.join(POLICY_CLIENTS // 5, self.policy, HALF_REQUEST)
            slow.join(POLICY_CLIENTS // 5, self.policy)
            crowd.join(PORT_CLIENTS // 4, self.port)
            slow_port.join(PORT_CLIENTS // 4, self.port)
            crowd.join(PORT_CLIENTS // 2, self.port, FRAME_HEADER.pack(LIST_TUPLES, 1 << 20)[:7])
            crowd.join(MILTER_CLIENTS // 4, self.milter)
            slow_milter.join(MILTER_CLIENTS // 4, self.milter)
            crowd.join(MILTER_CLIENTS // 2, self.milter, b"\0\0\0\x0dO\0\0")
            stopped.join(STOPPED_LISTINGS, lambda: port_client(vellum.port, receive_buffer=4096),
                         FRAME_HEADER.pack(LIST_TUPLES, 0))
            for number in range(4):
                slow.drip(HALF_REQUEST, number)
                slow_port.drip(FRAME_HEADER.pack(LIST_TUPLES, 1), number)
                slow_milter.drip(MILTER_OFFER, number)
                time.sleep(1)  # that is what they do
            most_open = open_files(vellum.daemon.pid)
            # The stopped ones are cut off after a second each at most, as many at a time as there are workers; each
            # listing that fails leaves a record.
            wait_until(lambda: len(self.notes("0x03000171")) >= STOPPED_LISTINGS, "all stopped listings to be cut off",
                       patience=120)
            received = stopped.read_to_the_end()
            # Frames that do not get whole end, too. Policy and milter clients stay: there is room for them.
            wait_until_files(vellum.daemon.pid, files + POLICY_CLIENTS + PORT_CLIENTS // 4 + MILTER_CLIENTS + 4)
        with_the_crowd = memory_kib(vellum.daemon.pid)
        peak = memory_kib(vellum.daemon.pid, "VmHWM")
        bound = (memory + OUTPUT_OF_ALL + INPUT_OF_ALL + WORKERS + NEW_TUPLES + POLICY_CLIENTS * POLICY_CLIENT
                 + (PORT_CLIENTS + STOPPED_LISTINGS) * PORT_CLIENT + MILTER_CLIENTS * MILTER_MEMBER)
        lines = len(vellum.log().splitlines()) - log_before
        print(f"\n  {len(mails.latencies)} mails decided meanwhile: p50 {mails.microseconds(.5)} us, "
              f"p99 {mails.microseconds(.99)} us, slowest {mails.microseconds(1)} us; {most_open} files open; memory "
              f"{memory} KiB before, {peak} KiB at most (bound {bound}), {with_the_crowd} KiB when the stopped ones "
              f"are gone; {lines} lines of log")
        self.assertEqual(len(received), STOPPED_LISTINGS)
        self.assertLess(max(received), TUPLES * TUPLE_BYTES, "none of them got its whole listing")
        self.assertLess(peak, memory + PEAK)
        self.assertLess(with_the_crowd, memory + PEAK)
        self.assertGreater(most_open, POLICY_CLIENTS + PORT_CLIENTS + MILTER_CLIENTS, "they were really there")
        self.assertGreater(len(mails.latencies), 100)
        self.assertLess(peak, bound)
        self.assertLessEqual(len(self.notes("cut off: takes nothing any more")), NOTES_OF_A_KIND)
        # A listing that fails leaves its record, which log readers rely on; only users who are served can ask for one.
        self.assertLessEqual(lines, 2 * NOTES_OF_A_KIND + STOPPED_LISTINGS)

        for members in (crowd, slow, slow_port, slow_milter):
            members.leave()
        self.assertGreaterEqual(count_listing(vellum.port), TUPLES)
        self.assert_everybody_is_served()
        wait_until_files(vellum.daemon.pid, files + 4)
        afterwards = memory_kib(vellum.daemon.pid)
        print(f"  {afterwards} KiB when everybody has left")
        self.assertLess(afterwards, memory + AFTERWARDS)

    def test_clients_beyond_the_maximum_are_refused_and_that_is_said_once(self):
        most = 40
        vellum = self.start(policy={"max_connections": most}, ipc={"max_connections": most},
                            milter={"max_connections": most})
        files = open_files(vellum.daemon.pid)
        crowd = self.crowd()
        with HealthyMailServer(vellum.policy_socket) as mails:
            crowd.join(1_000, self.policy, HALF_REQUEST)
            crowd.join(1_000, self.port)
            wait_until(lambda: self.notes(f"refused .*: {most} connections are open already"), "refusals on the port")
            wait_until(lambda: self.notes("the most allowed; closing new ones"), "refusals of policy clients")
            wait_until_files(vellum.daemon.pid, files + 2 * most)
            filtered = self.crowd()
            filtered.join(most, self.milter, MILTER_CLIENT)
            unseen = self.crowd()
            unseen.join(20, self.milter, MILTER_CLIENT)
            self.assert_noted_once(f"milter: {most} connections, the most that are looked at; mail of others goes on unseen")
            filtered.leave()
            self.assert_noted_once("milter: there is room for new connections again")
            unseen.leave()
        self.assertGreater(len(mails.latencies), 10)
        self.assertLessEqual(len(self.notes("connections are open already")), NOTES_OF_A_KIND)
        self.assertEqual(len(self.notes("the most allowed; closing new ones")), 1)
        crowd.leave()
        wait_until_files(vellum.daemon.pid, files + 4)
        self.assert_everybody_is_served()
        self.assert_noted_once("policy: there is room for new connections again")

    def test_mail_is_decided_beside_ten_thousand_milter_clients(self):
        vellum = self.start()
        files = open_files(vellum.daemon.pid)
        silent, half = self.crowd(), self.crowd()
        with HealthyMailServer(vellum.policy_socket) as mails:
            silent.join(9_000, self.milter)
            half.join(1_000, self.milter, MILTER_OFFER[:7])
            # The library now and then forgets one that comes in the midst of such a burst, until the next one comes.
            wait_until(self.is_greeted, "the filter to look at new mail")
            self.assertGreater(open_files(vellum.daemon.pid), 10_000, "they were really there")
        self.assertGreater(len(mails.latencies), 100)
        print(f"\n  {len(mails.latencies)} mails decided meanwhile: p50 {mails.microseconds(.5)} us, "
              f"p99 {mails.microseconds(.99)} us; {memory_kib(vellum.daemon.pid, 'VmHWM')} KiB at most")
        silent.leave()
        half.leave()
        wait_until_files(vellum.daemon.pid, files + 4)
        self.assert_everybody_is_served()

    def test_limit_of_open_files_is_raised_and_one_that_is_too_low_is_told(self):
        told = (r"this process may have 5000 files open, max_connections of \[policy\], \[milter\] and \[ipc\] want "
                r"(\d+); when none is left, new clients wait or are turned away\n")
        for maximum, warnings in ((1_901, ["5001"]), (1_900, [])):
            vellum = self.start(descriptors="1024:5000", policy={"max_connections": maximum},
                                milter={"max_connections": 2_000}, ipc={"max_connections": 1_000})
            limits = Path(f"/proc/{vellum.daemon.pid}/limits").read_text()
            self.assertRegex(limits, r"(?m)^Max open files +5000 +5000 ")
            vellum.daemon.stop()  # by then its log is written
            vellum.dbd.stop()
            self.assertEqual(self.notes(told), warnings)

    def test_mail_is_decided_while_no_file_descriptor_is_left(self):
        descriptors = 200
        vellum = self.start(descriptors=f"{descriptors}:{descriptors}")
        crowd = self.crowd()
        with self.log_told_on_failure(), HealthyMailServer(vellum.policy_socket) as mails:
            # Half a frame has ten seconds; the others stay, and there is room for them without it.
            crowd.try_join(descriptors, self.port, FRAME_HEADER.pack(LIST_TUPLES, 1)[:7])
            wait_until(lambda: self.notes("no file descriptor is left for it"), "refusals on the port")
            crowd.try_join(descriptors // 4, self.policy, HALF_REQUEST)
            crowd.try_join(descriptors // 8, self.milter)
            wait_until(lambda: self.notes("policy: no new connections for the moment: Too many open files"),
                       "the daemon to say what is wrong")
            # Nobody leaves: it is the daemon that ends those who do not finish their frames. Those who had to wait for
            # it on the port have their ten seconds, too.
            self.assert_noted_once("policy: accepting connections again")
            wait_until(self.is_everybody_served, "everybody to be served again")
        print(f"\n  {len(mails.latencies)} mails decided with no descriptor left: p50 {mails.microseconds(.5)} us, "
              f"p99 {mails.microseconds(.99)} us")
        self.assertGreater(len(mails.latencies), 100)
        self.assertEqual(len(self.notes("policy: no new connections for the moment")), 1)
        self.assertLessEqual(len(self.notes("no file descriptor is left for it")), NOTES_OF_A_KIND)
        self.assertLess(open_files(vellum.daemon.pid), descriptors - 20)
        crowd.leave()
        self.assert_everybody_is_served()


class SecondDaemon(unittest.TestCase):
    """Started beside one that runs, it refuses, says why, and the first one goes on."""

    @classmethod
    def setUpClass(cls):
        cls.vellum = Vellum(stage, os.environ["VELLUM_PROGRAMS"], mariadb, milter={})
        cls.vellum.start()

    @classmethod
    def tearDownClass(cls):
        cls.vellum.daemon.stop()
        cls.vellum.dbd.stop()

    def refusal(self, **sections):
        """What vellumd says with the settings of the other one, but these."""
        settings = {name: dict(keys) for name, keys in self.vellum.settings.items()}
        settings["ipc"]["port"] = free_port()
        settings["log"]["target"] = "stderr"
        for name, keys in sections.items():
            settings[name].update(keys)
        path = stage.path("second.toml")
        path.write_text(toml_file(settings))
        ran = subprocess.run([self.vellum.programs / "vellumd", "--config", path], capture_output=True, text=True,
                             check=False, timeout=60)
        self.assertEqual(ran.returncode, 69, ran.stderr)
        client = PolicyClient(self.vellum.policy_socket)
        self.assertRegex(client.ask("192.0.2.1", "jo@one.example", "ann@example.org"), "^DEFER_IF_PERMIT")
        client.close()
        self.assertEqual(greet_milter(self.vellum.milter_socket), b"O")
        return ran.stderr.splitlines()[-1]

    def test_on_the_same_state_directory_is_refused(self):
        lock = self.vellum.settings["state"]["directory"] + "/vellumd.lock"
        self.assertEqual(self.refusal(policy={"listen": ["inet:127.0.0.1:0"]}, milter={"listen": "inet:127.0.0.1:0"}),
                         f"vellumd: InstanceLock (code 4, InstanceLock): {lock}: the state directory is in use by "
                         f"process {self.vellum.daemon.pid}")

    def test_on_the_same_policy_socket_is_refused(self):
        state = str(stage.make_directory("second-policy", 0o700))
        self.assertEqual(self.refusal(state={"directory": state}, milter={"listen": "inet:127.0.0.1:0"}),
                         "vellumd: UnixListener (code 4): cannot listen on "
                         f"{self.vellum.policy_socket}: another process listens there")

    def test_on_the_same_milter_socket_is_refused(self):
        state = str(stage.make_directory("second-milter", 0o700))
        self.assertEqual(self.refusal(state={"directory": state}, policy={"listen": ["inet:127.0.0.1:0"]}),
                         "vellumd: UnixListener (code 4): cannot listen on "
                         f"{self.vellum.milter_socket}: another process listens there")

    def test_database_daemon_on_the_same_journal_is_refused(self):
        ran = subprocess.run([self.vellum.programs / "vellum-dbd", "--config", self.vellum.dbd_settings_path],
                             capture_output=True, text=True, check=False, timeout=60)
        self.assertEqual(ran.returncode, 69)
        self.assertEqual(ran.stderr, "vellum-dbd: Journal (code 4): another vellum-dbd uses the journal "
                         f"{self.vellum.directory / 'journal'}\n")
