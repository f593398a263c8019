"""Clients that want no good of a daemon, in numbers, and a mail server that has to be answered meanwhile."""

import multiprocessing
import os
import re
import resource
import socket
import struct
import time
from pathlib import Path

from .process import StageError, wait_until
from .vellum import PolicyClient

HALF_REQUEST = b"request=smtpd_access_policy\nprotocol_state=RCPT\nclient_addr"
FRAME_HEADER = struct.Struct("=II")  # type and length
LIST_TUPLES = 5
END_OF_LISTING = 4
MILTER_OFFER = struct.pack("!IcIII", 13, b"O", 6, 0x1FF, 0x1FFFFF)  # as Postfix begins
_CLIENT = b"C[192.0.2.1]\0" + b"4" + struct.pack("!H", 25) + b"192.0.2.1\0"
MILTER_CLIENT = MILTER_OFFER + struct.pack("!I", len(_CLIENT)) + _CLIENT  # and goes on: a client has connected to it


def allow_descriptors(count):
    """So many files may be open in this process and those that it starts."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < count:
        resource.setrlimit(resource.RLIMIT_NOFILE, (count, max(hard, count)))


def unix_client(path, patience=20):
    """Waits for room in the listener's queue; a socket with a time limit of Python's would not."""
    client = socket.socket(socket.AF_UNIX)
    client.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("@ll", patience, 0))
    client.connect(str(path))
    client.settimeout(patience)
    return client


def port_client(port, receive_buffer=None):
    client = socket.socket()
    client.settimeout(20)
    if receive_buffer:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.connect(("127.0.0.1", port))
    return client


def greet_milter(path):
    """Begins as a mail server does; the letter of what the filter answers, b"" when it closes the connection."""
    with unix_client(path) as client:
        client.sendall(MILTER_OFFER)
        reply = client.makefile("rb").read(5)
        return reply[4:5]


def count_listing(port):
    """How many records a whole listing of tuples has. Raises StageError when it is cut short."""
    with port_client(port) as client, client.makefile("rb", 1 << 20) as replies:
        client.sendall(FRAME_HEADER.pack(LIST_TUPLES, 0))
        records = -1  # the count comes first
        while header := replies.read(FRAME_HEADER.size):
            kind, length = FRAME_HEADER.unpack(header)
            if kind == END_OF_LISTING:
                return records
            replies.read(length)
            records += 1
    raise StageError(f"the listing ended after {records} records")


class Crowd:
    """Connections that are held open until leave()."""

    def __init__(self):
        self._members = []

    def __len__(self):
        return len(self._members)

    def join(self, count, connect, say=b""):
        """`count` more of what connect() makes, each saying `say`. One that is refused has come all the same."""
        for _ in range(count):
            client = connect()
            client.setblocking(False)
            self._members.append(client)
            self.tell(client, say)

    def try_join(self, count, connect, say=b""):
        """As many as the kernel's queues take."""
        for _ in range(count):
            try:
                self.join(1, connect, say)
            except (TimeoutError, BlockingIOError):
                return

    @staticmethod
    def tell(client, text):
        try:
            client.send(text)
        except (BrokenPipeError, ConnectionResetError, BlockingIOError):
            pass

    def drip(self, text, number):
        """The next byte of `text` from each."""
        for client in self._members:
            self.tell(client, text[number:number + 1])

    def read_to_the_end(self):
        """Reads from each until the other side has ended it, the connection then being closed; the bytes of each.

        A stopped one that was not cut off would get the rest of its listing now and then nothing: that raises
        TimeoutError.
        """
        received = []
        for client in self._members:
            client.settimeout(20)
            count = 0
            try:
                while piece := client.recv(1 << 20):
                    count += len(piece)
            except ConnectionResetError:
                pass
            received.append(count)
            client.close()
        self._members.clear()
        return received

    def leave(self):
        for client in self._members:
            client.close()
        self._members.clear()


def _ask_on(path, begun, stop, results):
    policy = PolicyClient(path)
    latencies = []
    try:
        while not stop.is_set():
            number = len(latencies)
            asked = time.perf_counter()
            # Every other message is new, which takes the cache exclusively.
            action = policy.ask(f"198.51.{100 + number % 2}.9", f"jo{number if number % 2 else 0}@healthy.example",
                                "ann@example.org")
            latencies.append(time.perf_counter() - asked)
            begun.set()
            if not action.startswith("DEFER_IF_PERMIT"):
                raise StageError(f"a mail was answered {action!r}")
            time.sleep(0.0005)
        results.send((latencies, None))
    except Exception as error:  # told to the test, whatever it is
        results.send((latencies, f"{type(error).__name__}: {error}"))
    finally:
        begun.set()


class HealthyMailServer:
    """Asks over one policy connection, all the time, in a process of its own; a context manager."""

    def __init__(self, path):
        fork = multiprocessing.get_context("fork")
        self._begun, self._stop = fork.Event(), fork.Event()
        self._results, theirs = fork.Pipe(duplex=False)
        self._process = fork.Process(target=_ask_on, args=(path, self._begun, self._stop, theirs), daemon=True)
        self.latencies = []

    def __enter__(self):
        self._process.start()
        if not self._begun.wait(90):
            raise StageError("the first mail was not answered")
        return self

    def __exit__(self, *_):
        self._stop.set()
        if not self._results.poll(90):
            self._process.kill()
            raise StageError("a mail was not answered")
        self.latencies, error = self._results.recv()
        self._process.join()
        if error:
            raise StageError(f"after {len(self.latencies)} mails: {error}")

    def microseconds(self, share):
        """The latency that this share of the mails did not exceed."""
        ordered = sorted(self.latencies)
        return round(ordered[min(len(ordered) - 1, int(share * len(ordered)))] * 1e6)


def memory_kib(pid, what="VmRSS"):
    return int(re.search(rf"^{what}:\s+(\d+) kB", Path(f"/proc/{pid}/status").read_text(), re.M)[1])


def open_files(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def wait_until_files(pid, most):
    wait_until(lambda: open_files(pid) <= most, f"the daemon to have at most {most} files open")


def fill_cache(path, count, together=200):
    """`count` tuples that were not there."""
    client = unix_client(path, patience=60)
    replies = client.makefile("rb")
    for begin in range(0, count, together):
        client.sendall(b"".join(
            b"request=smtpd_access_policy\nprotocol_state=RCPT\nclient_address=10.%d.%d.1\n"
            b"sender=filler%d@sender%d.example\nrecipient=ann@example.org\n\n"
            % (number >> 8 & 255, number & 255, number, number) for number in range(begin, begin + together)))
        for _ in range(together):
            replies.readline()
            replies.readline()
    replies.close()
    client.close()
