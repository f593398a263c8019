"""A private FreeRADIUS that keeps the accounting of a mobile network in the stage's MariaDB."""

import subprocess
from pathlib import Path

from .process import Process, StageError, free_port
from .stage import SOURCE_DIRECTORY

INSTALLED = Path("/etc/freeradius/3.0")
_CONFIGURATION = SOURCE_DIRECTORY / "tests/data/radiusd.conf"
_SECRET = "of-the-stage"
_USER = "radius"
_PASSWORD = "of-the-stage-too"


class PrivateRadius:
    """Makes the database "msisdn" with the tables that FreeRADIUS ships, which `readers` may read."""

    def __init__(self, stage, mariadb, readers):
        self._directory = stage.make_directory("radius", 0o700)
        mariadb.query("CREATE DATABASE msisdn", database="mysql")
        mariadb.query((INSTALLED / "mods-config/sql/main/mysql/schema.sql").read_text(), database="msisdn")
        mariadb.query(f"CREATE USER '{_USER}'@'127.0.0.1' IDENTIFIED BY '{_PASSWORD}'; "
                      f"GRANT ALL ON msisdn.* TO '{_USER}'@'127.0.0.1'; "
                      f"GRANT SELECT ON msisdn.* TO '{readers}'@'127.0.0.1'", database="mysql")
        self._port = free_port()
        text = _CONFIGURATION.read_text()
        for word, value in {"DIRECTORY": self._directory, "SECRET": _SECRET, "DATABASE_PORT": mariadb.port,
                            "USER": _USER, "PASSWORD": _PASSWORD, "INSTALLED": INSTALLED, "PORT": self._port}.items():
            text = text.replace(f"%{word}%", str(value))
        (self._directory / "radiusd.conf").write_text(text)
        self.process = Process(stage, "FreeRADIUS", ["/usr/sbin/freeradius", "-f", "-d", self._directory, "-n", "radiusd"],
                               self._directory / "output")
        self.process.start()
        self.process.started(lambda: "Ready to process requests" in self.log())

    def log(self):
        path = self._directory / "log"
        return path.read_text(errors="replace") if path.exists() else ""

    def account(self, status, number, address, session):
        """Sends one accounting request ("Start", "Interim-Update", "Stop") and waits for its answer."""
        attribute = "Framed-IPv6-Prefix" if ":" in address else "Framed-IP-Address"
        value = f"{address}/128" if ":" in address else address
        request = "\n".join([f"Acct-Status-Type = {status}", f"User-Name = {number}", f"Calling-Station-Id = {number}",
                             f"Acct-Session-Id = {session}", "NAS-IP-Address = 192.0.2.254",
                             f"{attribute} = {value}"]) + "\n"
        ran = subprocess.run(["radclient", "-r", "10", "-t", "3", f"127.0.0.1:{self._port}", "acct", _SECRET],
                             input=request, capture_output=True, text=True, check=False)
        if ran.returncode != 0:
            raise StageError(f"the RADIUS server has not taken a request: {ran.stdout}{ran.stderr}{self.log()[-2000:]}")
