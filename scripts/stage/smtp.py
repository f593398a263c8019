"""An SMTP client that can say for whom it speaks (XCLIENT) and shows what was said."""

import smtplib
from dataclasses import dataclass


@dataclass
class Client:
    """Where a message comes from, as the mail server shall see it."""
    address: str
    name: str = "[UNAVAILABLE]"  # its reverse name
    helo: str = "client.example.net"
    login: str = ""  # not empty: an authenticated client


@dataclass
class Reply:
    code: int
    text: str

    def __str__(self):
        return f"{self.code} {self.text}"


def _xtext(value):
    return "".join(c if 33 <= ord(c) <= 126 and c not in "+=" else f"+{ord(c):02X}" for c in value)


class Session:
    """One SMTP connection, one client. `said` gets every line that goes either way, with "C: " or "S: " before it."""

    def __init__(self, port, client, said=None):
        self.said = said if said is not None else []
        self._smtp = smtplib.SMTP("127.0.0.1", port, timeout=60, local_hostname="localhost")
        self._smtp.ehlo()
        address = f"IPV6:{client.address}" if ":" in client.address else client.address
        attributes = f"ADDR={address} NAME={_xtext(client.name)} HELO={_xtext(client.helo)}"
        if client.login:
            attributes += f" LOGIN={_xtext(client.login)}"
        xclient = self._command(f"XCLIENT {attributes}")
        if xclient.code != 220:
            raise smtplib.SMTPException(f"XCLIENT {attributes}: {xclient}")
        self._command(f"EHLO {client.helo}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.quit()

    def quit(self):
        try:
            self._smtp.quit()
        except (OSError, smtplib.SMTPException):
            pass

    def _command(self, line):
        self.said.append(f"C: {line}")
        self._smtp.send(f"{line}\r\n".encode("utf-8", "surrogateescape"))
        return self._reply()

    def _reply(self):
        code, text = self._smtp.getreply()
        reply = Reply(code, text.decode(errors="replace"))
        self.said.append(f"S: {str(reply)}")
        return reply

    def mail(self, sender):
        """`sender` without angle brackets; empty for a bounce."""
        return self._command(f"MAIL FROM:<{sender}>")

    def rcpt(self, recipient):
        return self._command(f"RCPT TO:<{recipient}>")

    def data(self, text):
        begun = self._command("DATA")
        if begun.code != 354:
            return begun
        self._smtp.send(text.replace("\n", "\r\n").encode() + b"\r\n.\r\n")
        return self._reply()

    def reset(self):
        return self._command("RSET")


def send(port, client, sender, recipients, subject="a message", said=None):
    """One whole attempt. Returns the replies to the recipients, and that to the message (None when all were deferred)."""
    with Session(port, client, said) as session:
        begun = session.mail(sender)
        if begun.code != 250:
            return [begun] * len(recipients), None
        replies = [session.rcpt(recipient) for recipient in recipients]
        if not any(reply.code == 250 for reply in replies):
            return replies, None
        return replies, session.data(f"Subject: {subject}\nFrom: someone@example.com\n\nHello.\n")
