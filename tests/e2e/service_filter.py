#!/usr/bin/env python3
"""Runs a program with no more rights than its systemd unit leaves it, where no systemd runs.

    service_filter.py UNIT USER PROGRAM [ARGUMENT...]

Applies the unit's SystemCallFilter=, SystemCallErrorNumber=, RestrictAddressFamilies=, CapabilityBoundingSet= (which has
to be empty), NoNewPrivileges= and LimitCORE=, and becomes the user. What a name like @system-service stands for,
systemd-analyze says. Needs root.
"""

import ctypes
import errno
import os
import pwd
import re
import resource
import socket
import subprocess
import sys
from pathlib import Path

ALLOW = 0x7FFF0000
EQUAL = 4
PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS = 24, 38


class Comparison(ctypes.Structure):
    """struct scmp_arg_cmp of libseccomp."""
    _fields_ = [("argument", ctypes.c_uint), ("operation", ctypes.c_int), ("a", ctypes.c_uint64), ("b", ctypes.c_uint64)]


def calls_of(name):
    """The system calls that a name of SystemCallFilter= stands for."""
    if not name.startswith("@"):
        return {name}
    text = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager", name], capture_output=True, text=True,
                          check=True).stdout
    members = [line.strip() for line in text.splitlines()[1:] if line.strip() and not line.strip().startswith("#")]
    return set().union(*map(calls_of, members))


def allowed_calls(filters):
    """The first line makes it a list of what is allowed; each further one adds to it, or with ~ takes away."""
    allowed = calls_of("@default")  # always allowed
    for line in filters:
        named = set().union(*map(calls_of, line.lstrip("~").split()))
        allowed = allowed - named if line.startswith("~") else allowed | named
    return allowed


def denial(number):
    return 0x00050000 | number


def install(allowed, families, number):
    library = ctypes.CDLL("libseccomp.so.2")
    library.seccomp_init.restype = ctypes.c_void_p
    context = ctypes.c_void_p(library.seccomp_init(denial(number)))
    for name in sorted(allowed - {"socket"}):
        call = library.seccomp_syscall_resolve_name(name.encode())
        if call >= 0:  # the others are of other machines
            if library.seccomp_rule_add(context, ALLOW, call, 0) != 0:
                sys.exit(f"service_filter: no rule for {name}")
    call = library.seccomp_syscall_resolve_name(b"socket")
    for family in families:
        only = Comparison(0, EQUAL, family, 0)
        if library.seccomp_rule_add_array(context, ALLOW, call, 1, ctypes.byref(only)) != 0:
            sys.exit(f"service_filter: no rule for family {family}")
    if library.seccomp_load(context) != 0:
        sys.exit("service_filter: the filter cannot be loaded")


def main():
    unit, user, *command = sys.argv[1:]
    lines = re.findall(r"^(\w+)=(.*)$", Path(unit).read_text(), re.M)
    values = dict(lines)
    filters = [value for key, value in lines if key == "SystemCallFilter"]
    families = [getattr(socket, name) for name in values["RestrictAddressFamilies"].split()]
    allowed = allowed_calls(filters)
    number = getattr(errno, values["SystemCallErrorNumber"])
    if values["CapabilityBoundingSet"] or values["LimitCORE"] != "0" or values["NoNewPrivileges"] != "yes":
        sys.exit(f"service_filter: {unit} leaves more rights than this can grant")
    account = pwd.getpwnam(user)
    libc = ctypes.CDLL(None, use_errno=True)
    for capability in range(64):
        libc.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    os.initgroups(user, account.pw_gid)
    os.setresgid(account.pw_gid, account.pw_gid, account.pw_gid)
    os.setresuid(account.pw_uid, account.pw_uid, account.pw_uid)
    os.umask(0o077)
    if libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0:
        sys.exit("service_filter: new rights cannot be refused")
    install(allowed, families, number)
    os.execv(command[0], command)


if __name__ == "__main__":
    main()
