#!/usr/bin/python3
"""Project quotas of real containers, in a user-mode-linux guest: the kernels of most test machines have none.

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
from support.host import QUOTA_COUNTERS, Host, buildFolder  # noqa: E402
from support.traps import SINK_PORT, TrapSink  # noqa: E402
from support.wait import DeadlineExceeded, waitUntil  # noqa: E402

_GUEST_DEADLINE_S = 120  # some 25 s where nothing else runs
_INIT = Path(__file__).with_suffix(".sh")
_DISK_BYTES = 64 * 1024 * 1024
_DISK = "/mnt/disk"
_OUT = Path("/mnt/out")
_BLOCK = 1024  # repquota's unit of space
_SAMPLE_DEADLINE_S = 20
_ALERT_DEADLINE_S = 30  # quotas are looked at every few seconds, and the guest is slow


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


def _useUpAndFree(lab, sink):
    """101 goes on until there is no space left, and then has all of it again. Returns what was told."""
    sink.waitFor(2, _ALERT_DEADLINE_S)  # the two soft limits that were exceeded from the beginning
    _inside(lab, "101", "dd if=/dev/zero of=/root/more bs=1M count=4")
    os.sync()
    sink.waitFor(3, _ALERT_DEADLINE_S)
    os.unlink(f"{_DISK}/101/root/file")
    os.unlink(f"{_DISK}/101/root/more")
    os.sync()
    sink.waitFor(5, _ALERT_DEADLINE_S)
    return _alerts(sink)


def _guest():
    privatehost.becomeSubreaper()
    lab = lxclab.LxcLab()
    sink = TrapSink()
    host = Host(trapPorts=(SINK_PORT,))
    looks = []
    try:
        _makeContainers(lab)
        host.agent.writeConfig('backend = "lxc"', "[monitoring]\nperiod_scale = 0.01\n")
        host.agent.start(lab.launcher)
        host.snmpd.start()
        host.kxsnmp.start()
        host.waitForSubtree()
        # Events are subscribed to with the link, so an alert from now on becomes a trap.
        waitUntil(lambda: set(_published(host)) == {101, 102, 103}, _SAMPLE_DEADLINE_S, "all containers are published")
        _exceedSoftLimits(lab)
        waitUntil(lambda: _published(host)[101][3] and _published(host)[102][7], _SAMPLE_DEADLINE_S, "grace begins to run")
        looks.append(_settled(host))
        alerts = _useUpAndFree(lab, sink)
        looks.append(_settled(host))
    finally:
        host.close()
        log = host.agent.lines()
        host.removeFolder()
        sink.close()
        lab.close()
    result = {"kernel": os.uname().release, "looks": looks, "alerts": alerts, "log": log}
    (_OUT / "result.json").write_text(json.dumps(result))


if __name__ == "__main__":
    _guest()
