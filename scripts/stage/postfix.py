"""A private Postfix: its own configuration, queue, log and port. It takes mail over SMTP for the given domains, asks the
policy server or the milter, and delivers into one maildir. All other mail is thrown away, nothing is sent out."""

import os
import pwd
import subprocess
from pathlib import Path

from .process import Process, StageError, accepts_connections, free_port, wait_until

PROGRAMS = Path("/usr/lib/postfix/sbin")

_MAIN = """\
compatibility_level = 3.6
queue_directory = {queue}
data_directory = {data}
daemon_directory = {programs}
command_directory = /usr/sbin
mail_owner = postfix
setgid_group = postdrop
maillog_file = {log}
maillog_file_prefixes = {directory}

myhostname = mx.example.org
myorigin = $myhostname
inet_interfaces = 127.0.0.1
inet_protocols = all
mydestination =
mynetworks =
alias_maps =
alias_database =

# One maildir for everybody, and no way out.
virtual_mailbox_domains = {domains}
virtual_mailbox_base = {mail}
virtual_mailbox_maps = static:inbox/
virtual_uid_maps = static:{uid}
virtual_gid_maps = static:{gid}
relay_domains = {thrown_away}
default_transport = discard:
relay_transport = discard:
relayhost =

# The client tells with XCLIENT where the mail comes from; nobody is asked about it.
smtpd_authorized_xclient_hosts = 127.0.0.0/8
smtpd_peername_lookup = no
disable_dns_lookups = yes
smtpd_error_sleep_time = 0
smtpd_hard_error_limit = 10000
smtpd_client_connection_count_limit = 0
in_flow_delay = 0
notify_classes =

smtpd_relay_restrictions = reject_unauth_destination
smtpd_recipient_restrictions =
    check_recipient_access inline:{{ {{ {nobody} = 550 5.1.1 There is no such mailbox }} }}
"""

_ASK_POLICY = """\
    check_policy_service {{ {policy}, timeout=10s, default_action=DUNNO }}
"""

_ASK_MILTER = """\
smtpd_milters = {milter}
milter_default_action = tempfail
"""

# service type private unpriv chroot wakeup maxproc command
_MASTER = """\
127.0.0.1:{port} inet n - n - - smtpd
pickup    unix  n - n 60 1 pickup
cleanup   unix  n - n - 0 cleanup
qmgr      unix  n - n 300 1 qmgr
rewrite   unix  - - n - - trivial-rewrite
bounce    unix  - - n - 0 bounce
defer     unix  - - n - 0 bounce
trace     unix  - - n - 0 bounce
verify    unix  - - n - 1 verify
flush     unix  n - n 1000? 0 flush
proxymap  unix  - - n - - proxymap
proxywrite unix - - n - 1 proxymap
showq     unix  n - n - - showq
error     unix  - - n - - error
retry     unix  - - n - - error
discard   unix  - - n - - discard
virtual   unix  - n n - - virtual
anvil     unix  - - n - 1 anvil
scache    unix  - - n - 1 scache
postlog   unix-dgram n - n - 1 postlogd
"""


class PrivatePostfix:
    def __init__(self, stage, domains, policy=None, milter=None, name="postfix", thrown_away=()):
        """`policy` and `milter` as main.cf writes them: "unix:/path" or "inet:127.0.0.1:port"; None is not asked.

        `name` tells several on one stage apart; mail to the domains `thrown_away` is taken, and goes nowhere.
        """
        self.nobody = f"nobody@{domains[0]}"  # the one mailbox that there is not
        self.port = free_port()
        self.directory = stage.make_directory(name)
        self.configuration = stage.make_directory(f"{name}/etc")
        self.log_path = self.directory / "mail.log"
        self.mail = stage.make_directory(f"{name}/mail")
        owner = pwd.getpwnam("nobody")
        os.chown(self.mail, owner.pw_uid, owner.pw_gid)
        data = stage.make_directory(f"{name}/data")
        os.chown(data, pwd.getpwnam("postfix").pw_uid, -1)
        self.main_cf = _MAIN.format(
            queue=stage.make_directory(f"{name}/queue"), data=data, programs=PROGRAMS, log=self.log_path,
            directory=self.directory, domains=" ".join(domains), mail=self.mail, uid=owner.pw_uid, gid=owner.pw_gid,
            nobody=self.nobody, thrown_away=" ".join(thrown_away))
        if policy:
            self.main_cf += _ASK_POLICY.format(policy=policy)
        if milter:
            self.main_cf += _ASK_MILTER.format(milter=milter)
        (self.configuration / "main.cf").write_text(self.main_cf)
        (self.configuration / "master.cf").write_text(_MASTER.format(port=self.port))
        self._make_queue()
        # Its master is started here, not by "postfix start", so that it is our child and ends when we do.
        self.process = Process(stage, "Postfix", [PROGRAMS / "master", "-c", self.configuration, "-d"],
                               self.directory / "master.out")
        self.process.start()
        self.process.started(lambda: accepts_connections(self.port))

    def _make_queue(self):
        checked = subprocess.run(["/usr/sbin/postfix", "-c", str(self.configuration), "check"], capture_output=True,
                                 text=True, check=False)
        if checked.returncode != 0:
            raise StageError(f"postfix check failed: {checked.stdout}{checked.stderr}{self.log()}")

    def log(self):
        return self.log_path.read_text(errors="replace") if self.log_path.exists() else ""

    def delivered(self):
        """The delivered messages as text, in the order of delivery; one for each recipient."""
        files = sorted(self.mail.glob("inbox/new/*"), key=lambda file: file.stat().st_mtime_ns)
        return [file.read_text(errors="replace") for file in files]

    def wait_for_delivered(self, count):
        wait_until(lambda: len(self.delivered()) >= count, f"{count} delivered messages")
        return self.delivered()
