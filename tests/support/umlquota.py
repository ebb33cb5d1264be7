#!/usr/bin/python3
"""Project quotas of real containers, in a user-mode-linux guest: the kernels of most test machines have none.

Imported, this is the side of the host. Run as a program it is the side of the guest: it makes containers with quotas,
starts our programs beside them, and writes down what they publish and what the guest's own tools say.
"""

import json
import os
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from support import lxclab, privatehost  # noqa: E402
from support.host import QUOTA_COUNTERS, Host, buildFolder  # noqa: E402
from support.wait import waitUntil  # noqa: E402

_GUEST_DEADLINE_S = 120  # some 25 s where nothing else runs
_KERNEL = "linux.uml"
_INIT = Path(__file__).with_suffix(".sh")
_DISK_BYTES = 64 * 1024 * 1024
_DISK = "/mnt/disk"
_OUT = Path("/mnt/out")


# ---- on the host ----------------------------------------------------------------------------------------------------


def obstacle():
    """Why no guest can run on this machine; empty when one can."""
    for tool in (_KERNEL, "mkfs.ext4", "setquota", "repquota"):
        if shutil.which(tool) is None:
            return f"{tool} is not installed"
    return lxclab.obstacle()


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
    command = [_KERNEL, "mem=512M", "root=/dev/root", "rootfstype=hostfs", "rootflags=/", "ro", f"ubd0={disk}"]
    command += [f"uml_dir={folder}/uml", f"init={_INIT}", "con=null", "con0=fd:0,fd:1", "quiet"]
    command += [f"KX_OUT={out}", f"KX_GUEST={Path(__file__).resolve()}", f"KX_BUILD={buildFolder()}"]
    console = folder / "console"
    with open(console, "wb") as output:
        guest = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output, process_group=0)
        try:
            guest.wait(_GUEST_DEADLINE_S)
        finally:
            # It runs as several processes, which are a group.
            if guest.poll() is None:
                os.killpg(guest.pid, signal.SIGKILL)
                guest.wait()
    result = out / "result.json"
    if not result.exists():
        log = out / "guest.log"
        said = log.read_text(errors="replace") if log.exists() else console.read_text(errors="replace")
        raise AssertionError(f"the guest has no result:\n{said}")
    return json.loads(result.read_text())


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


def _makeContainers(lab):
    """101 uses more space than its soft limit, 102 more inodes, 103 has no limit."""
    for name in ("101", "102", "103"):
        lab.do("create", name)
        _moveToDisk(lab, name)
        lab.do("start", name)
    _do("setquota", "-P", "-t", "3600", "7200", _DISK)
    _do("setquota", "-P", "101", "4096", "9000", "1000", "2000", _DISK)
    _do("setquota", "-P", "102", "20000", "30000", "100", "300", _DISK)
    inside = "dd if=/dev/zero of=/root/file bs=1M count=5"
    lab.do("exec", "lxc-attach", "-n", "101", "--", "/bin/sh", "-c", inside)
    inside = "i=0; while [ $i -lt 120 ]; do : >/root/$i; i=$((i + 1)); done"
    lab.do("exec", "lxc-attach", "-n", "102", "--", "/bin/sh", "-c", inside)
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
    published = _published(host)
    report = _do("repquota", "-P", "-p", _DISK)
    return {"published": published, "report": report, "begun": before, "ended": time.time()}


def _guest():
    privatehost.becomeSubreaper()
    lab = lxclab.LxcLab()
    host = Host()
    looks = []
    try:
        _makeContainers(lab)
        host.agent.writeConfig('backend = "lxc"', "[monitoring]\nperiod_scale = 0.01\n")
        host.agent.start(lab.launcher)
        host.snmpd.start()
        host.kxsnmp.start()
        host.waitForSubtree()
        waitUntil(lambda: set(_published(host)) == {101, 102, 103}, 20, "all containers are published")
        looks.append(_look(host))
        used = looks[0]["published"][101][0]
        os.unlink(f"{_DISK}/101/root/file")
        os.sync()
        waitUntil(lambda: _published(host)[101][0] < used, 20, "the new usage is published")
        looks.append(_look(host))
    finally:
        host.close()
        log = host.agent.lines()
        host.removeFolder()
        lab.close()
    (_OUT / "result.json").write_text(json.dumps({"kernel": os.uname().release, "looks": looks, "log": log}))


if __name__ == "__main__":
    _guest()
