"""A private MariaDB server."""

import contextlib
import os
import subprocess

from .process import Process, StageError, accepts_connections, free_port, wait_until

# Small files, so that a data directory is made in a second or two; nothing here is about speed.
_SIZES = ["--innodb-log-file-size=8M", "--innodb-data-file-path=ibdata1:10M:autoextend"]


class PrivateMariaDb:
    """Listens on a free port of 127.0.0.1 and on a socket. The account `user` may use `database` and nothing else."""

    user = "vellum"
    password = "only for 'this' stage"
    database = "fe_sender_history"

    def __init__(self, stage):
        self.port = free_port()
        self.directory = stage.make_directory("mariadb", 0o700)
        self.socket = self.directory / "socket"
        # A server that starts removes every temporary table it finds in its tmpdir, those of a running one too.
        self._temporary = stage.make_directory("mariadb/tmp", 0o700)
        self._user_option = f"--user={'root' if os.geteuid() == 0 else os.geteuid()}"
        self._make_data(stage.path("mariadb", "install.log"))
        self.process = Process(stage, "mariadbd", [
            "/usr/sbin/mariadbd", "--no-defaults", self._user_option, f"--datadir={self.directory}/data",
            f"--tmpdir={self._temporary}", f"--socket={self.socket}", f"--pid-file={self.directory}/pid",
            "--bind-address=127.0.0.1", f"--port={self.port}", "--skip-name-resolve", "--performance-schema=OFF",
            "--innodb-buffer-pool-size=32M", *_SIZES], stage.path("mariadb", "server.log"))
        self.start()
        quoted = self.password.replace("'", "''")
        self.query(f"CREATE USER '{self.user}'@'127.0.0.1' IDENTIFIED BY '{quoted}'; "
                   f"GRANT ALL ON {self.database}.* TO '{self.user}'@'127.0.0.1'", database="mysql")

    def _make_data(self, log_path):
        with open(log_path, "ab") as log:
            made = subprocess.run(["mariadb-install-db", "--no-defaults", self._user_option, "--skip-test-db",
                                   "--auth-root-authentication-method=normal", f"--datadir={self.directory}/data",
                                   f"--tmpdir={self._temporary}", *_SIZES], stdout=log, stderr=log, check=False)
        if made.returncode != 0:
            raise StageError(f"mariadb-install-db failed:\n{log_path.read_text(errors='replace')[-4000:]}")

    def start(self):
        self.process.start()
        self.process.started(lambda: self.socket.exists() and accepts_connections(self.port))

    def kill(self):
        self.process.kill()
        self.socket.unlink(missing_ok=True)

    def _client(self, *options):
        return ["mariadb", "--no-defaults", "-N", "-B", "-n", "--default-character-set=binary", "-u", "root",
                f"--socket={self.socket}", *options]

    def session(self):
        """An idle session of the server's root, a process that the caller ends."""
        client = subprocess.Popen(self._client("mysql"), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True)
        client.stdin.write("SELECT 'open';\n")
        client.stdin.flush()
        client.stdout.readline()  # nothing when the server has no room for it
        client.stdout.close()
        return client

    def take_all_connections(self):
        """Idle sessions, as many as it allows from now on; its root still has one more."""
        self.query("SET GLOBAL max_connections = 10")  # the least that there is
        return [self.session() for _ in range(10)]

    def give_back(self, sessions):
        for session in sessions:
            session.kill()
            session.wait()
            session.stdin.close()
        wait_until(lambda: int(self.query("SELECT COUNT(*) FROM information_schema.processlist")[0][0]) < 9,
                   "a server with room")
        self.query("SET GLOBAL max_connections = 151")

    @contextlib.contextmanager
    def locked(self, table):
        """Keeps everybody from writing to a table. The server may be killed meanwhile."""
        client = subprocess.Popen(self._client(self.database), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True)
        try:
            client.stdin.write(f"LOCK TABLES {table} READ; SELECT 'locked';\n")
            client.stdin.flush()
            if client.stdout.readline() != "locked\n":
                raise StageError(f"no lock on {table}")
            yield
        finally:
            client.kill()
            client.wait()
            client.stdin.close()
            client.stdout.close()

    def query(self, statements, database=None):
        """Runs statements as the server's root; returns the rows as lists of text."""
        ran = subprocess.run(self._client("-e", statements, database or self.database), capture_output=True,
                             check=False)
        if ran.returncode != 0:
            raise StageError(f"{statements}: {ran.stderr.decode(errors='replace')}")
        return [line.split("\t") for line in ran.stdout.decode(errors="replace").splitlines()]
