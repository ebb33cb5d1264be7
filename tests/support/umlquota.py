#!/usr/bin/python3
"""Project quotas of real containers, in a user-mode-linux guest: the kernels of most test machines have none. The guest
has nothing but cgroup v2, which most test machines do not have either: so what limits of it are hit is seen there too.

Imported, this is the side of the host. Run as a program it is the side of the guest: it makes containers with quotas,
starts our programs beside them, and writes down what they publish and what the guest's own tools say.
"""

import contextlib
import json
import os
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from support import lxclab, privatehost, uml  # noqa: E402
from support.agentpeer import AgentPeer  # noqa: E402
from support.host import QUOTA_COUNTERS, Host, buildFolder  # noqa: E402
from support.parts import Agent  # noqa: E402
from support.traps import SINK_PORT, TrapSink  # noqa: E402
from support.wait import DeadlineExceeded, waitUntil  # noqa: E402

_GUEST_DEADLINE_S = 300  # some 30 s where nothing else runs
_INIT = Path(__file__).with_suffix(".sh")
_DISK_BYTES = 64 * 1024 * 1024
_DISK = "/mnt/disk"
_OUT = Path("/mnt/out")
_BLOCK = 1024  # repquota's unit of space
_SAMPLE_DEADLINE_S = 60
_ALERT_DEADLINE_S = 60  # quotas are looked at every few seconds, and the guest is slow
_COMMAND_DEADLINE_S = 60
_SERVICE_QUIET_S = 6  # an alert about the host would have come after some two seconds
_HEARD_WITHIN_S = 0.5  # or the next alert is raised
_QUOTA = re.compile("disk space|inodes")  # in what is told of quotas, and of nothing else

# Reports come often, and every kill is told.
_SETTINGS = "[monitoring]\nperiod_scale = 0.01\n[alerts]\nrepeat_seconds = 0.001\n"


# ---- on the host ----------------------------------------------------------------------------------------------------


def obstacle():
    """Why no guest can run on this machine; empty when one can."""
    for tool in ("mkfs.ext4", "setquota", "repquota"):
        if shutil.which(tool) is None:
            return f"{tool} is not installed"
    return uml.obstacle() or lxclab.obstacle()


def run(folder):
    """Runs the guest to its end in a folder for its files. Returns what the guest has written down."""
    folder = Path(folder)
    disk = folder / "disk"
    with open(disk, "wb") as image:
        image.truncate(_DISK_BYTES)
    options = ["-q", "-F", "-O", "quota,project", "-E", "quotatype=prjquota"]
    subprocess.run(["mkfs.ext4", *options, str(disk)], check=True)
    out = folder / "out"
    out.mkdir()
    settings = {"KX_OUT": out, "KX_GUEST": Path(__file__).resolve(), "KX_BUILD": buildFolder()}
    console = uml.boot(folder, _INIT, "512M", _GUEST_DEADLINE_S, ubd0=disk, **settings)
    result = out / "result.json"
    if not result.exists():
        log = out / "guest.log"
        said = log.read_text(errors="replace") if log.exists() else console.read_text(errors="replace")
        raise AssertionError(f"the guest has no result:\n{said}")
    return json.loads(result.read_text())


def reported(look):
    """Project -> bytes used, soft and hard limit, end of grace, and the same of inodes, as the tool prints them."""
    rows = re.findall(r"^#(\d+) +[-+]{2}((?: +\d+){8})$", look["report"], re.MULTILINE)
    columns = {int(project): [int(number) for number in numbers.split()] for project, numbers in rows}
    return {project: [blocks * _BLOCK for blocks in row[:3]] + row[3:] for project, row in columns.items()}


def published(look):
    """VE id -> columns in their order, as a look found them."""
    return {int(veid): columns for veid, columns in look["published"].items()}


# ---- in the guest ---------------------------------------------------------------------------------------------------


def _do(*words):
    streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT}
    done = subprocess.run(words, **streams, text=True, check=False)
    if done.returncode:
        raise AssertionError(f"{' '.join(words)}: {done.stdout}")
    return done.stdout


def _moveToDisk(lab, name):
    """Puts a container's root folder on the disk, below the project that has its number."""
    root = f"{_DISK}/{name}"
    os.mkdir(root)
    _do("chattr", "-p", name, root)
    _do("chattr", "+P", root)  # whatever is made in it belongs to the project
    config = f"/var/lib/lxc/{name}/config"
    lab.do("exec", "cp", "-a", f"/var/lib/lxc/{name}/rootfs/.", root)
    lab.do("exec", "sed", "-i", f"s,^lxc.rootfs.path.*,lxc.rootfs.path = dir:{root},", config)


def _inside(lab, name, script):
    lab.do("exec", "lxc-attach", "-n", name, "--", "/bin/sh", "-c", script)


def _makeContainers(lab):
    """101 and 102 have limits, 103 has none."""
    for name in ("101", "102", "103"):
        lab.do("create", name)
        _moveToDisk(lab, name)
        lab.do("start", name)
    _do("setquota", "-P", "-t", "3600", "7200", _DISK)
    _do("setquota", "-P", "101", "4096", "9000", "1000", "2000", _DISK)
    _do("setquota", "-P", "102", "20000", "30000", "100", "300", _DISK)


def _exceedSoftLimits(lab):
    """101 uses more space than its soft limit allows, 102 more inodes."""
    _inside(lab, "101", "dd if=/dev/zero of=/root/file bs=1M count=5")
    _inside(lab, "102", "i=0; while [ $i -lt 120 ]; do : >/root/$i; i=$((i + 1)); done")
    os.sync()  # space that is not on the disk yet is not counted yet


def _published(host):
    """VE id -> columns in their order."""
    rows = {}
    for varbind in host.client.bulkwalk(QUOTA_COUNTERS + (1,), 20):
        rows.setdefault(varbind.oid[-1], []).append(varbind.value)
    return rows


def _isGraceRunning(host):
    """Of 101's space and of 102's inodes. A container whose counters come and go has no row, or half a one."""
    rows = _published(host)
    full = [rows[veid] for veid in (101, 102) if len(rows.get(veid, [])) == 8]
    return len(full) == 2 and full[0][3] and full[1][7]


def _look(host):
    """What is published, what the system's own tool says, and when that was."""
    before = time.time()
    rows = _published(host)
    report = _do("repquota", "-P", "-p", _DISK)
    return {"published": rows, "report": report, "begun": before, "ended": time.time()}


def _settled(host):
    """A look when what the containers did is published: a sample may have been read while they did it. Where it never
    is, the last look tells how far it came.
    """
    looks = []

    def used(rows):
        return {veid: (row[0], row[4]) for veid, row in rows.items() if veid != 0}

    def isTold():
        looks.append(_look(host))
        return used(published(looks[-1])) == used(reported(looks[-1]))

    with contextlib.suppress(DeadlineExceeded):
        waitUntil(isTold, _SAMPLE_DEADLINE_S, "usage is published")
    return looks[-1]


def _alerts(sink):
    """What was told so far: number of the container, code, text and value."""
    alerts = []
    for trap in sink.traps():
        veid, text, code, value = (variable.value for variable in trap.variables[:4])
        alerts.append([veid, code, text.decode(), value])
    return alerts


def _quotaAlerts(sink):
    return [alert for alert in _alerts(sink) if _QUOTA.search(alert[2])]


def _waitForQuotaAlerts(sink, count):
    def haveCome():
        return len(_quotaAlerts(sink)) >= count

    try:
        waitUntil(haveCome, _ALERT_DEADLINE_S, f"{count} alerts about quotas have arrived")
    except DeadlineExceeded as late:
        raise AssertionError(f"{late}: {_alerts(sink)}") from None


def _useUpAndFree(lab, sink):
    """101 goes on until there is no space left, and then has all of it again."""
    _waitForQuotaAlerts(sink, 2)  # the two soft limits that were exceeded from the beginning
    _inside(lab, "101", "dd if=/dev/zero of=/root/more bs=1M count=4")
    os.sync()
    _waitForQuotaAlerts(sink, 3)
    os.unlink(f"{_DISK}/101/root/file")
    os.unlink(f"{_DISK}/101/root/more")
    os.sync()
    _waitForQuotaAlerts(sink, 5)


def _freeInodes(sink):
    """102 has all of its inodes again. What is told of that comes from a later look at quotas than all that was told
    before, so whatever was told without a reason has come by then too."""
    for number in range(120):
        os.unlink(f"{_DISK}/102/root/{number}")
    os.sync()
    _waitForQuotaAlerts(sink, 6)


# ---- limits of cgroup v2 --------------------------------------------------------------------------------------------


def _countIn(lab, controller, file, key):
    lines = (lab.cgroup("103", controller) / file).read_text().splitlines()
    return int(next(line.split()[1] for line in lines if line.split()[0] == key))


def _kills(lab):
    return _countIn(lab, "memory", "memory.events", "oom_kill")


def _alertsOf103(sink, text):
    """Of those that are over the text begins with other words."""
    return [alert for alert in _alerts(sink) if alert[0] == 103 and alert[2].startswith(text)]


def _runOutOfMemory(lab, sink):
    """Has processes of 103 killed for lack of memory until that is told, and nothing of it is on its way any more.
    Events are subscribed to some time after the link has been made, and what is told of quotas is told once only.
    Returns what was told, and how many were killed."""

    def told():
        return _alertsOf103(sink, "out of memory")

    def isHeard():
        lab.spawn("103", "exec tail /dev/zero").wait(_COMMAND_DEADLINE_S)
        try:
            return waitUntil(told, _HEARD_WITHIN_S, "it is told")
        except DeadlineExceeded:
            return None

    waitUntil(isHeard, _ALERT_DEADLINE_S, "alerts arrive")
    waitUntil(lambda: told()[-1][3] == _kills(lab), _ALERT_DEADLINE_S, "the last of them has arrived as well")
    return {"alerts": told(), "kills": _kills(lab)}


def _runOutOfProcesses(lab, sink):
    """Lets 103 have as many processes as it may, and some more. Returns what was told, and how often it was refused."""
    bomb = lab.spawn("103", "i=0; while [ $i -lt 100 ]; do sleep 20 & i=$((i + 1)); done; wait")
    try:
        waitUntil(lambda: _alertsOf103(sink, "the limit of processes"), _ALERT_DEADLINE_S, "that limit's hit is told")
        hits = _countIn(lab, "pids", "pids.events", "max")
    finally:
        lab.end(bomb)
    return {"alerts": _alertsOf103(sink, "the limit of processes"), "hits": hits}


# ---- the host's memory ----------------------------------------------------------------------------------------------


def _hostAlerts(peer, eid, deadlineSeconds):
    """Codes of the alerts about the host: those that have come when one was raised, or none has within a time."""
    codes = []

    def isRaised():
        events = [event.resource_alert for event in peer.nextEvents() if event.type == b"resource_alert"]
        codes.extend(alert.code for alert in events if bytes(alert.eid) == eid)
        return codes

    peer.setTimeout(deadlineSeconds)
    with contextlib.suppress(DeadlineExceeded, TimeoutError):
        waitUntil(isRaised, deadlineSeconds, "it is raised")
    return codes


def _leaveLittleMemory():
    """Has the guest's kernel keep most of what is free to itself. Were all of it used, the machine that the guest runs on
    would have to have as much."""
    free = int(re.search(r"MemFree: +(\d+)", Path("/proc/meminfo").read_text()).group(1))
    Path("/proc/sys/vm/min_free_kbytes").write_text(str(max(free - 120 * 1024, free // 4)))


def _hog(group):
    """Takes memory in a cgroup until it is killed, before any other process."""
    script = f"echo 1000 >/proc/$$/oom_score_adj && echo $$ >{group}/cgroup.procs && exec tail /dev/zero"
    return subprocess.run(["/bin/sh", "-c", script], check=False).returncode


def _runHostOutOfMemory():
    """Has a process killed for the limit of a cgroup beside the containers', and then one for the host's sake. Returns
    how they ended, and what was raised about the host."""
    service = Path("/sys/fs/cgroup/service")
    (service / "inner").mkdir(parents=True)
    (service / "cgroup.subtree_control").write_text("+memory")
    found = {}
    with AgentPeer(Agent.SOCKET, timeoutSeconds=_COMMAND_DEADLINE_S) as peer:
        host = bytes(peer.handshake().server_eid)
        peer.askForEvents()
        for name, limit in ("service", str(16 * 1024 * 1024)), ("host", "max"):
            (service / "memory.max").write_text(limit)
            if name == "host":
                _leaveLittleMemory()
            ended = _hog(service / "inner")
            raised = _hostAlerts(peer, host, _SERVICE_QUIET_S if name == "service" else _ALERT_DEADLINE_S)
            found[name] = {"ended": ended, "raised": raised}
    return found


# ---- all of it ------------------------------------------------------------------------------------------------------


def _guest():
    privatehost.becomeSubreaper()
    lab = lxclab.LxcLab()
    sink = TrapSink()
    host = Host(trapPorts=(SINK_PORT,))
    looks = []
    try:
        _makeContainers(lab)
        host.agent.writeConfig('backend = "lxc"', _SETTINGS)
        host.agent.start(lab.launcher)
        host.snmpd.start()
        host.kxsnmp.start()
        host.waitForSubtree()
        waitUntil(lambda: set(_published(host)) == {101, 102, 103}, _SAMPLE_DEADLINE_S, "all containers are published")
        memory = _runOutOfMemory(lab, sink)
        processes = _runOutOfProcesses(lab, sink)
        outOfMemory = _runHostOutOfMemory()
        _exceedSoftLimits(lab)
        waitUntil(lambda: _isGraceRunning(host), _SAMPLE_DEADLINE_S, "grace begins to run")
        looks.append(_settled(host))
        _useUpAndFree(lab, sink)
        looks.append(_settled(host))
        _freeInodes(sink)
        alerts = _quotaAlerts(sink)
    finally:
        host.close()
        log = host.agent.lines()
        host.removeFolder()
        sink.close()
        lab.close()
    result = {"kernel": os.uname().release, "looks": looks, "alerts": alerts, "log": log}
    result |= {"memory": memory, "processes": processes, "host": outOfMemory}
    (_OUT / "result.json").write_text(json.dumps(result))


if __name__ == "__main__":
    _guest()
