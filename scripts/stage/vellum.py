"""Vellum's daemons on the stage, and its tools."""

import json
import os
import signal
import socket
import subprocess
from pathlib import Path

from .process import Process, StageError, accepts_connections, accepts_unix_connections, free_port, wait_until


def toml(value):
    """A value as TOML writes it."""
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, (int, float)):
        return str(value)
    if isinstance(value, (list, tuple)):
        return "[" + ", ".join(toml(item) for item in value) + "]"
    return json.dumps(str(value))  # the escapes of a TOML string are those of JSON


def toml_file(tables):
    """{"section": {"key": value}} as a settings file; a list of dictionaries makes an array of tables."""
    lines = []
    for name, table in tables.items():
        for one in table if isinstance(table, list) else [table]:
            lines.append(f"[[{name}]]" if isinstance(table, list) else f"[{name}]")
            lines += [f"{key} = {toml(value)}" for key, value in one.items()]
            lines.append("")
    return "\n".join(lines)


def make_score_directory():
    """The fixed directory of vellumd's score dump: private, and never one that is there already."""
    try:
        os.mkdir("/var/spool/tmp", 0o700)
    except (FileExistsError, PermissionError):
        pass  # then only the rebuild of endpoint scores is refused, unless it is ours


class Vellum:
    """vellumd, vellum-dbd, vellumctl and vellum-replay from the directory `programs`, on the database `mariadb`.

    `greylist` and `milter` are the sections of these names (without the latter there is no milter front); `clock`, a
    MovableClock, is what vellumd goes by when it is given.
    """

    def __init__(self, stage, programs, mariadb, greylist=None, clock=None, milter=None):
        self.programs = Path(programs)
        self.port = free_port()
        self.directory = stage.make_directory("vellum")
        run = stage.make_directory("vellum/run")
        state = stage.make_directory("vellum/state", 0o700)
        self.policy_socket = run / "policy.sock"
        self.milter_socket = run / "milter.sock"
        self._dbd_socket = run / "dbd.sock"
        self.settings_path = self.directory / "vellumd.toml"
        self.rules_path = self.directory / "rules.toml"
        database = {"host": "127.0.0.1", "port": mariadb.port, "user": mariadb.user, "password": mariadb.password}
        self.settings = {
            "log": {"target": str(self.directory / "vellumd.log")},
            "database": database,
            "database_daemon": {"socket": str(self._dbd_socket)},
            "state": {"directory": str(state)},
            "ipc": {"port": self.port},
            "policy": {"listen": [f"unix:{self.policy_socket}"]},
            "greylist": dict(greylist or {}, rules=str(self.rules_path)),
        }
        if milter is not None:
            self.settings["milter"] = {"listen": f"unix:{self.milter_socket}", **milter}
        self.write_rules([])
        self.write_settings()
        # Started first and so stopped last: the state daemon's last backup needs the database daemon.
        self.dbd_settings_path = self.directory / "vellum-dbd.toml"
        self.dbd_settings_path.write_text(toml_file({
            "log": {"target": str(self.directory / "vellum-dbd.log")},
            "database": database,
            "database_daemon": {"socket": str(self._dbd_socket), "journal": str(self.directory / "journal")},
        }))
        self.dbd_settings_path.chmod(0o600)
        self.dbd = Process(stage, "vellum-dbd", [self.programs / "vellum-dbd", "--config", self.dbd_settings_path],
                           self.directory / "vellum-dbd.out")
        make_score_directory()
        self._clock = clock.environment() if clock else {}
        self.daemon = Process(stage, "vellumd", [self.programs / "vellumd", "--config", self.settings_path],
                              self.directory / "vellumd.out", self._clock)

    @property
    def milter_address(self):
        """Where the milter front listens, as main.cf writes it; None without one."""
        return self.settings.get("milter", {}).get("listen")

    def write_settings(self):
        self.settings_path.write_text(toml_file(self.settings))
        self.settings_path.chmod(0o600)

    def write_rules(self, rules):
        """`rules` as dictionaries with id, sender, ..."""
        self.rules_path.write_text(toml_file({"rule": rules}))

    def start_dbd(self):
        self.dbd.start()
        self.dbd.started(lambda: accepts_unix_connections(self._dbd_socket))

    def start_daemon(self):
        self.daemon.start()
        self.await_daemon()

    def await_daemon(self):
        self.daemon.started(lambda: accepts_unix_connections(self.policy_socket) and accepts_connections(self.port))

    def start(self):
        self.start_dbd()
        self.start_daemon()

    def log(self):
        """What it has logged, behind what it has said outside of its log, which is only the end of a start that failed."""
        path = self.directory / "vellumd.log"
        return self.daemon.log() + (path.read_text(errors="replace") if path.exists() else "")

    def dbd_log(self):
        path = self.directory / "vellum-dbd.log"
        return (path.read_text(errors="replace") if path.exists() else "") + self.dbd.log()

    def reload(self):
        """SIGHUP; waits until the daemon says what came of it, and returns that part of its log."""
        before = len(self.log())
        self.daemon.signal(signal.SIGHUP)

        def told():
            news = self.log()[before:]
            return news if "settings read again" in news or "stay as they were" in news else ""
        return wait_until(told, "the daemon to read its settings again")

    def command(self, *arguments):
        """The words of a call of vellumctl."""
        return [str(self.programs / "vellumctl"), "--port", str(self.port), *arguments]

    def ctl(self, *arguments, expect=0):
        """Calls vellumctl; returns its output. Raises StageError for another exit code than expected."""
        ran = subprocess.run(self.command(*arguments), capture_output=True, text=True, check=False,
                             env=dict(os.environ, **self._clock))
        if ran.returncode != expect:
            raise StageError(f"vellumctl {' '.join(arguments)} ended with {ran.returncode}: {ran.stdout}{ran.stderr}")
        return ran.stdout

    def start_ctl(self, *arguments):
        """Calls vellumctl and does not wait for it; what it says is lost."""
        return subprocess.Popen(self.command(*arguments), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def tuples(self):
        return json.loads(self.ctl("greylist", "list", "--json"))

    def exemptions(self):
        return json.loads(self.ctl("greylist", "exemptions", "--json"))


class PolicyClient:
    """Asks the policy server as a mail server would, over one connection."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(60)
        self._socket.connect(str(path))
        self._replies = self._socket.makefile("rb")

    def close(self):
        self._replies.close()
        self._socket.close()

    def ask_raw(self, request):
        """`request` as bytes; returns the action."""
        self._socket.sendall(request)
        action = self._replies.readline()
        self._replies.readline()
        if not action.startswith(b"action="):
            raise StageError(f"the policy server answered {action!r}")
        return action[len(b"action="):].decode(errors="replace").rstrip("\n")

    def ask(self, address, sender, recipient, **more):
        attributes = {"request": "smtpd_access_policy", "protocol_state": "RCPT", "client_address": address,
                      "sender": sender, "recipient": recipient, **more}
        text = "".join(f"{name}={value}\n" for name, value in attributes.items()) + "\n"
        return self.ask_raw(text.encode("utf-8", "surrogateescape"))
