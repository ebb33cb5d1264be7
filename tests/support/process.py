"""Looking at and ending processes, those that detached themselves included."""

import os
import re
import signal

from .wait import waitUntil


def children():
    """Process ids of our children, adopted ones included. By a scan: `children` in /proc lists one thread's."""
    return [int(entry) for entry in os.listdir("/proc") if entry.isdigit() and _field(int(entry), "PPid") == os.getpid()]


def _status(pid):
    try:
        with open(f"/proc/{pid}/status", encoding="utf-8", errors="replace") as status:
            return status.read()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def _field(pid, name, base=10):
    match = re.search(rf"^{name}:\s+([0-9a-fA-F]+)", _status(pid), re.MULTILINE)
    return int(match.group(1), base) if match else None


def residentBytes(pid):
    """Resident set of a process, in bytes."""
    return _field(pid, "VmRSS") * 1024


def isAlive(pid):
    match = re.search(r"^State:\s+(\S)", _status(pid), re.MULTILINE)
    return bool(match) and match.group(1) not in "ZX"


def threadIds(pid):
    return sorted(int(entry) for entry in os.listdir(f"/proc/{pid}/task"))


def signalMask(pid, name, thread=None):
    """The set of signals of a thread (default: the main one), `name` being SigBlk, SigIgn or SigCgt."""
    mask = _field(f"{pid}/task/{thread or pid}", name, 16)
    return {number for number in range(1, 65) if mask >> (number - 1) & 1}


def hasEnvironment(pid, variable):
    try:
        with open(f"/proc/{pid}/environ", "rb") as environment:
            return variable.encode() in environment.read().split(b"\0")
    except (FileNotFoundError, ProcessLookupError, PermissionError):
        return False


def findDaemon(variable):
    """The process that detached itself for good: it is ours by adoption, has `variable` in its environment, and
    is in a session that is neither ours nor its own (a daemon forks once more after it has left ours)."""
    for pid in children():
        try:
            session = os.getsid(pid)
        except ProcessLookupError:
            continue
        if session not in (pid, os.getsid(0)) and isAlive(pid) and hasEnvironment(pid, variable):
            return pid
    return None


def waitForExit(pid, deadlineSeconds):
    """Waits for an adopted child and returns its status: the exit status, or minus the signal's number."""

    def ended():
        found, status = os.waitpid(pid, os.WNOHANG)
        return (os.waitstatus_to_exitcode(status),) if found else None

    return waitUntil(ended, deadlineSeconds, f"process {pid} ends")[0]


def endHard(pid):
    """SIGKILL to one process, also to a stopped one. No error when it is gone already."""
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
