"""What the figures of a benchmark were measured on, and how busy it is."""

import os
import platform
import subprocess
import time
from datetime import datetime, timezone
from pathlib import Path


def _times():
    """Seconds since the start of the machine, of all processors together: in all, and idle."""
    fields = [int(one) for one in Path("/proc/stat").read_text().split("\n", 1)[0].split()[1:9]]
    return sum(fields), fields[3] + fields[4]


def busy(seconds):
    """The share of all processors that is used, while the caller sleeps."""
    total, idle = _times()
    time.sleep(seconds)
    total_after, idle_after = _times()
    return 1 - (idle_after - idle) / max(total_after - total, 1)


def _line(path, name):
    for line in Path(path).read_text().splitlines():
        key, _, value = line.partition(":")
        if key.strip() == name:
            return value.strip()
    return "unknown"


def _output(*command, **options):
    ran = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    return ran.stdout.strip() if ran.returncode == 0 else ""


def describe(source_directory):
    system = platform.freedesktop_os_release()
    compiler = _output("c++", "--version").splitlines()
    changed = _output("git", "status", "--porcelain", "--untracked-files=no", cwd=source_directory)
    return {
        "date": datetime.now(timezone.utc).strftime("%d %B %Y, %H:%M UTC").lstrip("0"),
        "processor": _line("/proc/cpuinfo", "model name"),
        "cores": os.cpu_count(),
        "memory": f"{int(_line('/proc/meminfo', 'MemTotal').split()[0]) / 2**20:.0f} GiB",
        "virtual": "hypervisor" in _line("/proc/cpuinfo", "flags").split(),
        "kernel": platform.release(),
        "system": system.get("PRETTY_NAME", system.get("NAME", "unknown")),
        "compiler": compiler[0] if compiler else "unknown",
        "commit": (_output("git", "rev-parse", "--short", "HEAD", cwd=source_directory) or "unknown") +
                  (" and changes" if changed else ""),
        "load": os.getloadavg()[0],
    }
