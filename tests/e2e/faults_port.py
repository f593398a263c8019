"""What the fault tests ask of port 29001 and of the milter socket, over connections of their own: hundreds of requests
for the price of one vellumctl."""

import contextlib
import ipaddress
import json
import socket
import struct

from world import wait_until  # which knows where the stage is
from stage.crowd import MILTER_OFFER, unix_client
from stage.process import StageError
from stage.radius import INSTALLED

HEADER = struct.Struct("=II")
END_OF_LISTING = 4
COUNT = 3
TUPLES, EXEMPTIONS, ADDRESSES, HOURS, ENDPOINTS = 5, 7, 10, 26, 20
RELOAD_GREYLIST, RELOAD_REPUTATION, RELOAD_ENDPOINTS, REMOVE_ENDPOINT = 9, 12, 19, 23
BOTH_LISTS = struct.pack("=I", 3)  # what of the endpoints a reload is about
STATUS, EXPLAIN, RELEASE = 0x564C0000, 0x564C0004, 0x564C0005
ANSWER = 0x564C0100


def packed(address):
    """An address as ip_addr_t."""
    parsed = ipaddress.ip_address(address)
    return struct.pack("=i16s", parsed.version, parsed.packed)


def unpacked(ip_addr):
    family, raw = struct.unpack("=i16s", ip_addr)
    return str(ipaddress.IPv4Address(raw[:4]) if family == 4 else ipaddress.IPv6Address(raw))


def text_at(record, begin, size):
    return record[begin:begin + size].split(b"\0")[0].decode("utf-8", "surrogateescape")


class Port:
    """One connection. A request that is not answered as it should be is a StageError."""

    def __init__(self, port):
        self._socket = socket.create_connection(("127.0.0.1", port), 60)
        self._replies = self._socket.makefile("rb", 1 << 20)

    def close(self):
        self._replies.close()
        self._socket.close()

    def send(self, kind, payload=b""):
        self._socket.sendall(HEADER.pack(kind, len(payload)) + payload)

    def _unit(self):
        header = self._replies.read(HEADER.size)
        if len(header) < HEADER.size:
            raise StageError("the state daemon has closed the connection")
        kind, length = HEADER.unpack(header)
        return kind, self._replies.read(length)

    def answer(self, kind, request=None):
        """The daemon's JSON answer. After a request that has none, this one tells that it is done."""
        self.send(kind, json.dumps(request or {}).encode())
        told, payload = self._unit()
        answer = json.loads(payload)
        if told != ANSWER or "error" in answer:
            raise StageError(f"request {kind:#x} is answered by {answer}")
        return answer

    def records(self, kind, payload=b""):
        """The records of a listing."""
        self.send(kind, payload)
        return list(self._listed())

    def _listed(self):
        while (unit := self._unit())[0] != END_OF_LISTING:
            if unit[0] != COUNT:
                yield unit[1]

    def tuples(self):
        """(network, sender, recipient, from when on it passes, expiry)"""
        return [(self._network(record), text_at(record, 28, 257), text_at(record, 285, 257),
                 *struct.unpack("=qq", record[544:560])) for record in self.records(TUPLES)]

    def exemptions(self):
        """(network, domain, expiry)"""
        return [(self._network(record), text_at(record, 28, 257), struct.unpack("=q", record[552:560])[0])
                for record in self.records(EXEMPTIONS)]

    @staticmethod
    def _network(record):
        return f"{unpacked(record[4:24])}/{struct.unpack('=I', record[24:28])[0]}"

    def addresses(self):
        """(address, score, state)"""
        return [(unpacked(record[:20]), *struct.unpack("=Ii", record[20:28])) for record in self.records(ADDRESSES)]

    def hours(self, addresses):
        """{address: {hour: nine counters}}, asked for at once and read afterwards."""
        for address in addresses:
            self.send(HOURS, packed(address))
        return {address: {hour: counters for hour, *counters in map(struct.Struct("=10I").unpack, self._listed())}
                for address in addresses}

    def endpoints(self):
        """(number, score, expiry)"""
        return [(text_at(record, 0, 36), *struct.unpack("=Iq", record[36:48])) for record in self.records(ENDPOINTS)]


def milter_mail(path, address, sender, recipient="postmaster@example.org", refused=0, headers=()):
    """One message of one client that Postfix tells of; the last answer of the filter, b"a" or b"c" when it is taken.

    `refused`: recipients that the mail server does not know, besides the one that it does. `headers`: (name, value).
    """
    with contextlib.closing(unix_client(path)) as client, client.makefile("rb") as answers:
        def send(letter, *texts, raw=b""):
            data = letter + raw + b"".join(text.encode() + b"\0" for text in texts)
            client.sendall(struct.pack("!I", len(data)) + data)

        def answer():
            length = struct.unpack("!I", answers.read(4))[0]
            return answers.read(length)[:1]

        client.sendall(MILTER_OFFER)
        answer()
        send(b"C", raw=b"[UNAVAILABLE]\0" + b"4" + struct.pack("!H", 25) + address.encode() + b"\0")
        send(b"M", f"<{sender}>")
        for number in range(refused):
            send(b"D", "{rcpt_mailer}", "error", "{rcpt_host}", "5.1.1", raw=b"R")
            send(b"R", f"<nobody{number}@example.org>")
            answer()
        send(b"D", "{rcpt_mailer}", "local", "{rcpt_host}", "", raw=b"R")
        send(b"R", f"<{recipient}>")
        if (refusal := answer()) not in b"ac":
            send(b"Q")
            return refusal
        for name, value in headers:
            send(b"L", name, value)
        send(b"E")
        while (last := answer()) in b"ihm":
            pass
        send(b"Q")
        return last


def make_accounting(mariadb, subscribers):
    """The accounting database, with an open session for each of {address: number}."""
    mariadb.query("CREATE DATABASE msisdn", database="mysql")
    mariadb.query((INSTALLED / "mods-config/sql/main/mysql/schema.sql").read_text(), database="msisdn")
    mariadb.query(f"GRANT SELECT ON msisdn.* TO '{mariadb.user}'@'127.0.0.1'", database="mysql")
    sessions = ", ".join(f"('{address}', '{address}', '{number}', '{address}', NOW())"
                         for address, number in subscribers.items())
    mariadb.query("INSERT INTO radacct (acctsessionid, acctuniqueid, callingstationid, framedipaddress, acctstarttime) "
                  f"VALUES {sessions}", database="msisdn")


def wait_for_subscriber(world, port, address, number):
    """Waits until the daemon has looked him up; what it knows it keeps for ten minutes."""
    def known():
        if port.answer(EXPLAIN, {"address": address})["endpoint"]["subscriber"] == number:
            return True
        policy = world.policy()
        policy.ask(address, "jo@counted.example", "", protocol_state="CONNECT")
        policy.close()
        return False
    wait_until(known, f"{number} to be looked up", interval=0.005)


__all__ = ["BOTH_LISTS", "EXPLAIN", "Port", "RELEASE", "RELOAD_ENDPOINTS", "RELOAD_GREYLIST", "RELOAD_REPUTATION",
           "REMOVE_ENDPOINT", "STATUS", "make_accounting", "milter_mail",
           "wait_for_subscriber"]
