"""Other users of the machine: what they are kept from, and what the daemons keep to themselves.

The daemons are started by root and become the user `daemon`; the stranger is `nobody`. Both exist on every machine.
"""

import errno
import os
import pwd
import re
import socket
import stat
import subprocess
import unittest
from pathlib import Path

from world import Stage, free_port, wait_until
from stage.crowd import FRAME_HEADER, LIST_TUPLES
from stage.mariadb import PrivateMariaDb
from stage.vellum import PolicyClient, Vellum, toml_file

SERVICE = pwd.getpwnam("daemon")
STRANGER = pwd.getpwnam("nobody")
PACKAGING = Path(__file__).resolve().parents[2] / "packaging"


def setUpModule():
    global stage, mariadb, vellum
    stage = Stage(keep=bool(os.environ.get("VELLUM_KEEP_STAGE")))
    stage.__enter__()
    try:
        mariadb = PrivateMariaDb(stage)
        vellum = Vellum(stage, os.environ["VELLUM_PROGRAMS"], mariadb, milter={"socket_mode": "0600"})
        vellum.settings["policy"]["socket_mode"] = "0600"
        vellum.write_settings()
        give(vellum.directory, SERVICE)
        for process in (vellum.dbd, vellum.daemon):
            process.command += ["--user", SERVICE.pw_name]
        # What a careless starter leaves must not matter.
        previous = os.umask(0)
        try:
            vellum.start()
        finally:
            os.umask(previous)
        client = PolicyClient(vellum.policy_socket)
        client.ask("192.0.2.1", "jo@one.example", "ann@example.org")
        client.close()
        vellum.ctl("backup")
    except BaseException:
        stage.close()
        raise


def tearDownModule():
    stage.close()


def give(directory, account):
    """All below a directory, and itself, to that user."""
    for path in [directory, *directory.rglob("*")]:
        os.chown(path, account.pw_uid, account.pw_gid, follow_symlinks=False)


def as_user(account, work):
    """Calls work() in a child that has become that user; what it answers as text, or the name of the system's error."""
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        try:
            os.setgroups([])
            os.setresgid(account.pw_gid, account.pw_gid, account.pw_gid)
            os.setresuid(account.pw_uid, account.pw_uid, account.pw_uid)
            try:
                answer = str(work())
            except OSError as error:
                answer = errno.errorcode.get(error.errno, str(error))
            os.write(writing, answer.encode())
        finally:
            os._exit(0)
    os.close(writing)
    with os.fdopen(reading) as answers:
        answer = answers.read()
    os.waitpid(child, 0)
    return answer


def connect_unix(path):
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(path))
        return "connected"


def ask_port(port):
    """What comes over a connection to the port before it ends."""
    with socket.socket() as client:
        client.settimeout(60)
        client.connect(("127.0.0.1", port))
        received = b""
        try:
            client.sendall(FRAME_HEADER.pack(LIST_TUPLES, 0))
            client.shutdown(socket.SHUT_WR)
            while piece := client.recv(65536):
                received += piece
        except OSError:  # cut off already
            pass
        return received


class Stranger(unittest.TestCase):
    def test_gets_no_byte_from_the_port_and_is_logged_once(self):
        self.assertGreater(len(ask_port(vellum.port)), 560, "root is served")
        for _ in range(20):
            self.assertEqual(as_user(STRANGER, lambda: ask_port(vellum.port)), "b''")
        refused = rf"refused 127\.0\.0\.1:\d+: user {STRANGER.pw_uid} may not speak here \(said once for each user\)"
        wait_until(lambda: re.search(refused, vellum.log()), "the refusal in the log")
        self.assertEqual(len(re.findall("may not speak here", vellum.log())), 1)

    def test_the_daemons_own_user_is_served_on_the_port(self):
        self.assertGreater(len(as_user(SERVICE, lambda: ask_port(vellum.port))), 560)

    def test_cannot_connect_to_sockets_that_are_not_open_to_him(self):
        for name in ("policy.sock", "milter.sock", "dbd.sock"):
            path = vellum.directory / "run" / name
            self.assertEqual(as_user(STRANGER, lambda: connect_unix(path)), "EACCES", name)
            self.assertEqual(as_user(SERVICE, lambda: connect_unix(path)), "connected", name)

    def test_cannot_read_settings_state_journal_scripts_scores_or_log(self):
        state = Path(vellum.settings["state"]["directory"])
        for path in (vellum.settings_path, vellum.dbd_settings_path, state / "greylist.sql", state / "vellumd.lock",
                     vellum.directory / "vellumd.log", vellum.directory / "vellum-dbd.log"):
            self.assertTrue(path.exists(), path)
            self.assertEqual(as_user(STRANGER, path.read_bytes), "EACCES", path)
        for directory in (state, vellum.directory / "journal", "/var/spool/tmp"):  # the last for scores
            self.assertEqual(as_user(STRANGER, lambda: os.listdir(directory)), "EACCES", directory)

    def test_cannot_look_into_the_processes_nor_can_the_same_user(self):
        for process in (vellum.daemon, vellum.dbd):
            for account in (STRANGER, SERVICE):
                for name in ("environ", "mem", "maps"):
                    answer = as_user(account, lambda: open(f"/proc/{process.pid}/{name}", "rb").read(1))
                    self.assertIn(answer, ("EACCES", "EPERM"), f"{process.name} {name} as {account.pw_name}")


class NarrowestModes(unittest.TestCase):
    maxDiff = None

    def test_every_file_that_the_daemons_make_is_theirs_and_nobody_elses(self):
        # Scripts and what is made of them come and go while the database daemon works.
        wait_until(lambda: not list((vellum.directory / "journal").glob("*.sql*")), "the backups to be in the tables")
        made = {}
        for path in sorted(vellum.directory.rglob("*")):
            name = str(path.relative_to(vellum.directory))
            if path.suffix in (".toml", ".out") or name in ("run", "state"):
                continue  # the stage's
            status = path.lstat()
            owner = pwd.getpwuid(status.st_uid).pw_name
            made[name] = f"{stat.filemode(status.st_mode)} {owner}"
        self.assertEqual(made, {
            "journal": "drwx------ daemon",
            "journal/failed": "drwx------ daemon",
            "journal/lock": "-rw------- daemon",
            "journal/outcomes": "-rw------- daemon",
            "run/dbd.sock": "srw-rw---- daemon",
            "run/milter.sock": "srw------- daemon",
            "run/policy.sock": "srw------- daemon",
            "state/endpoint.sql": "-rw------- daemon",
            "state/greylist.sql": "-rw------- daemon",
            "state/reputation.sql": "-rw------- daemon",
            "state/vellumd.lock": "-rw------- daemon",
            "vellum-dbd.log": "-rw------- daemon",
            "vellumd.log": "-rw------- daemon",
        })


class Root(unittest.TestCase):
    def test_is_given_up_for_good_with_groups_and_capabilities(self):
        for process in (vellum.daemon, vellum.dbd):
            status = dict(re.findall(r"^(\w+):\t(.*?)\s*$", Path(f"/proc/{process.pid}/status").read_text(), re.M))
            expected = {"Uid": "\t".join([str(SERVICE.pw_uid)] * 4), "Gid": "\t".join([str(SERVICE.pw_gid)] * 4),
                        "Groups": " ".join(map(str, os.getgrouplist("daemon", SERVICE.pw_gid))),
                        "CapInh": "0" * 16, "CapPrm": "0" * 16, "CapEff": "0" * 16, "CapAmb": "0" * 16, "CapBnd": "0" * 16,
                        "NoNewPrivs": "1"}
            self.assertEqual({name: status[name] for name in expected}, expected, process.name)

    def test_who_has_given_it_up_does_not_warn_of_it(self):
        self.assertNotIn("runs as root", vellum.log() + vellum.dbd_log())

    def test_threads_have_given_it_up_too(self):
        for process in (vellum.daemon, vellum.dbd):
            for thread in Path(f"/proc/{process.pid}/task").iterdir():
                self.assertRegex((thread / "status").read_text(), r"(?m)^CapEff:\t0{16}$", process.name)

    def run_program(self, program, *arguments, **how):
        return subprocess.run([vellum.programs / program, *arguments], capture_output=True, text=True, check=False,
                              timeout=60, **how)

    def test_to_become_a_user_that_is_not_there_ends_the_start(self):
        for program, settings in (("vellumd", vellum.settings_path), ("vellum-dbd", vellum.dbd_settings_path)):
            ran = self.run_program(program, "--config", settings, "--user", "no-such-user")
            self.assertEqual((ran.returncode, ran.stderr),
                             (69, f"{program}: giveUpRights (code 4, Privileges): there is no user \"no-such-user\" "
                                  "on this machine\n"))

    def test_only_root_can_become_another_user(self):
        ran = self.run_program("vellumd", "--config", vellum.settings_path, "--user", "daemon", "--check",
                               user=STRANGER.pw_uid, group=STRANGER.pw_gid, extra_groups=[])
        self.assertEqual((ran.returncode, ran.stderr),
                         (69, "vellumd: giveUpRights (code 4, Privileges): only root can become user \"daemon\"\n"))

    def test_a_user_that_it_is_already_may_be_named_by_number(self):
        ran = self.run_program("vellumd", "--config", vellum.settings_path, "--user", str(SERVICE.pw_uid), "--check",
                               user=SERVICE.pw_uid, group=SERVICE.pw_gid, extra_groups=[])
        self.assertEqual((ran.returncode, ran.stderr), (0, ""))

    def test_settings_that_the_user_may_not_read_end_the_start(self):
        path = stage.path("root-only.toml")
        path.write_text("")
        path.chmod(0o600)
        ran = self.run_program("vellumd", "--config", path, "--user", "daemon", "--check")
        self.assertEqual(ran.returncode, 78)
        self.assertIn("Permission denied", ran.stderr)


class Secrets(unittest.TestCase):
    def test_password_is_in_no_log_no_process_list_and_no_environment(self):
        password = mariadb.password.encode()
        self.assertIn(password, vellum.settings_path.read_bytes().replace(b'\\"', b'"'), "the test knows what it seeks")
        for path in sorted(vellum.directory.rglob("*")):
            if path.is_file() and path.suffix != ".toml":
                self.assertNotIn(password, path.read_bytes(), path)
        for process in (vellum.daemon, vellum.dbd):
            for name in ("cmdline", "environ"):
                self.assertNotIn(password, Path(f"/proc/{process.pid}/{name}").read_bytes(), f"{process.name} {name}")

    def test_password_that_the_server_refuses_is_not_told(self):
        settings = {name: dict(keys) for name, keys in vellum.settings.items()}
        settings["database"]["password"] = "a wrong secret"
        settings["log"]["target"] = "stderr"
        settings["state"]["directory"] = str(stage.make_directory("wrong", 0o700))
        settings["ipc"]["port"] = free_port()
        path = stage.path("wrong.toml")
        path.write_text(toml_file(settings))
        ran = subprocess.run([vellum.programs / "vellumd", "--config", path], capture_output=True, text=True,
                             check=False, timeout=120)
        self.assertEqual(ran.returncode, 69, ran.stderr)
        self.assertIn("Access denied", ran.stderr)
        self.assertNotIn("a wrong secret", ran.stdout + ran.stderr)

    def test_no_core_can_be_written(self):
        for process in (vellum.daemon, vellum.dbd):
            limits = Path(f"/proc/{process.pid}/limits").read_text()
            self.assertRegex(limits, r"(?m)^Max core file size +0 +0 +bytes", process.name)
            # Only of a process that gives no core do others find the files owned by root.
            self.assertEqual(os.stat(f"/proc/{process.pid}/environ").st_uid, 0, process.name)


    def test_tool_that_reads_the_settings_writes_no_core_either(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:  # so that it is there while it is looked at
            port = str(silent.getsockname()[1])
            tool = subprocess.Popen([vellum.programs / "vellumctl", "--port", port, "status"],
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            try:
                with silent.accept()[0]:
                    limits = Path(f"/proc/{tool.pid}/limits").read_text()
                    self.assertRegex(limits, r"(?m)^Max core file size +0 +0 +bytes")
                    self.assertEqual(as_user(STRANGER, lambda: open(f"/proc/{tool.pid}/environ", "rb").read(1)),
                                     "EACCES")
            finally:
                tool.kill()
                tool.wait()


class SymbolicLinks(unittest.TestCase):
    """In a directory that others may write to, a link is their choice of what the daemon writes."""

    def setUp(self):
        self.shared = stage.make_directory(f"shared-{self.id().rsplit('.', 1)[1]}", 0o777)
        self.victim = stage.path(f"victim-{self.shared.name}")
        self.victim.write_text("precious\n")
        self.victim.chmod(0o600)

    def refusal(self, program, settings):
        path = stage.path("links.toml")
        path.write_text(toml_file(settings))
        ran = subprocess.run([vellum.programs / program, "--config", path], capture_output=True, text=True,
                             check=False, timeout=60)
        self.assertEqual(ran.returncode, 69, ran.stderr)
        self.assertEqual((self.victim.read_text(), stat.S_IMODE(self.victim.stat().st_mode)), ("precious\n", 0o600))
        return ran.stderr

    def link(self, name):
        path = self.shared / name
        os.symlink(self.victim, path)
        return path

    def settings(self):
        settings = {name: dict(keys) for name, keys in vellum.settings.items()}
        settings["log"]["target"] = "stderr"
        settings["state"]["directory"] = str(stage.make_directory(f"state-{self.shared.name}", 0o700))
        settings["ipc"]["port"] = free_port()
        settings["policy"]["listen"] = ["inet:127.0.0.1:0"]
        settings["milter"]["listen"] = ""
        return settings

    def dbd_settings(self):
        return {"log": {"target": "stderr"}, "database": vellum.settings["database"],
                "database_daemon": {"socket": str(self.shared / "s"), "journal": str(self.shared / "journal")}}

    def test_log_file(self):
        link = self.link("log")
        for program, settings in (("vellumd", self.settings()), ("vellum-dbd", self.dbd_settings())):
            settings["log"]["target"] = str(link)
            self.assertIn(f"cannot open log file {link}: it is a symbolic link", self.refusal(program, settings))

    def test_policy_socket(self):
        settings = self.settings()
        settings["policy"]["listen"] = [f"unix:{self.link('s')}"]
        self.assertIn("there is another file at this path", self.refusal("vellumd", settings))

    def test_milter_socket(self):
        settings = self.settings()
        settings["milter"]["listen"] = f"unix:{self.link('s')}"
        self.assertIn("there is another file at this path", self.refusal("vellumd", settings))

    def test_socket_of_the_database_daemon(self):
        self.link("s")
        self.assertIn("there is another file at this path", self.refusal("vellum-dbd", self.dbd_settings()))

    def test_lock_of_the_state_directory(self):
        settings = self.settings()
        settings["state"]["directory"] = str(self.shared)
        self.link("vellumd.lock")
        said = self.refusal("vellumd", settings)
        self.assertIn("Too many levels of symbolic links", said)
        self.assertIn("warning: this daemon runs as root, which it does not need", said)

    def test_lock_of_the_journal(self):
        os.mkdir(self.shared / "journal", 0o700)
        os.symlink(self.victim, self.shared / "journal" / "lock")
        said = self.refusal("vellum-dbd", self.dbd_settings())
        self.assertIn("Too many levels of symbolic links", said)
        self.assertIn("warning: this daemon runs as root, which it does not need", said)

    def test_backup_script_replaces_the_link(self):
        script = Path(vellum.settings["state"]["directory"]) / "greylist.sql"
        script.unlink()
        os.symlink(self.victim, script)
        self.victim.chmod(0o666)
        vellum.ctl("backup")
        self.assertEqual(self.victim.read_text(), "precious\n")
        self.assertFalse(script.is_symlink())


class ServiceFiles(unittest.TestCase):
    HARDENED = {"User": "vellum", "Group": "vellum", "NoNewPrivileges": "yes", "CapabilityBoundingSet": "",
                "AmbientCapabilities": "", "ProtectSystem": "strict", "ProtectHome": "yes", "PrivateTmp": "yes",
                "PrivateDevices": "yes", "RestrictNamespaces": "yes", "RestrictSUIDSGID": "yes", "LimitCORE": "0",
                "UMask": "0077", "StateDirectoryMode": "0700", "LogsDirectoryMode": "0750", "ProtectProc": "invisible"}

    def test_units_ask_for_nothing_that_is_not_needed(self):
        families = {"vellumd": "AF_UNIX AF_INET AF_INET6 AF_NETLINK", "vellum-dbd": "AF_UNIX AF_INET AF_INET6"}
        for name, allowed in families.items():
            text = (PACKAGING / "systemd" / f"{name}.service").read_text()
            keys = dict(re.findall(r"^(\w+)=(.*)$", text, re.M))
            expected = {**self.HARDENED, "RestrictAddressFamilies": allowed}
            self.assertEqual({key: keys.get(key) for key in expected}, expected, name)

    def test_directories_that_the_package_makes_have_the_narrowest_modes(self):
        made = dict(re.findall(r"^d (\S+) (\d+ \S+ \S+)", (PACKAGING / "tmpfiles.conf").read_text(), re.M))
        self.assertEqual(made, {"/run/vellum": "0755 vellum vellum", "/var/spool/postfix/vellum": "0710 vellum postfix",
                                "/var/spool/tmp": "0700 vellum vellum"})
