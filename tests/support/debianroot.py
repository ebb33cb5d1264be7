"""A Debian of our own with its systemd, to install packages in; debianroot.sh does the work and explains how."""

import re
import shutil
import subprocess
import tempfile
from pathlib import Path

from .host import PROJECT
from .wait import waitUntil

ARCHIVE = PROJECT / "build/debian-root.tar"  # scripts/fetch-debian makes it
DEPENDENCIES = PROJECT / "build/debian-packages"  # likewise: what ours depend on
PACKAGES = PROJECT / "build/packages"  # scripts/build-packages makes them

_SCRIPT = Path(__file__).with_suffix(".sh")
_COMMAND_DEADLINE_S = 120
_SETTLED_WITHIN_S = 20
_ENVIRONMENT = ["PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive", "HOME=/root"]


def obstacle():
    """Why there can be no Debian to install in; empty when there can."""
    return "" if ARCHIVE.exists() else f"{ARCHIVE} is missing: scripts/fetch-debian makes it, with the network"


def builtPackages():
    """The packages an operator installs, without the debugging symbols."""
    return sorted(path for path in PACKAGES.glob("*.deb") if "-dbgsym_" not in path.name)


def repack(package, version, folder, change=lambda content: None):
    """Copies a package into `folder` as one of another version. `change` may change what is in it, and is given the
    folder that it is unpacked in. @return the copy"""
    content = Path(folder) / package.stem
    subprocess.run(["dpkg-deb", "-R", package, content], check=True)
    change(content)
    control = content / "DEBIAN/control"
    lines = control.read_text().splitlines(keepends=True)
    control.write_text("".join(f"Version: {version}\n" if line.startswith("Version:") else line for line in lines))
    made = Path(folder) / f"{package.name.split('_')[0]}_{version}.deb"
    command = ["dpkg-deb", "--root-owner-group", "-Zgzip", "-z1", "-b", content, made]
    subprocess.run(command, stdout=subprocess.DEVNULL, check=True)
    shutil.rmtree(content)
    return made


def _only(processes):
    return processes[0] if len(processes) == 1 else None


def _idsInside(pid):
    """The numbers of a process and of its session as the Debian sees them, as texts; empty when it is gone."""
    try:
        status = Path(f"/proc/{pid}/status").read_text()
    except OSError:
        return {}
    return {name: ids.split()[-1] for name, ids in re.findall(r"^(NSpid|NSsid):(.*)$", status, re.MULTILINE)}


_CONTAINER_SETUP = r"""
root=/var/lib/lxc/$1/rootfs
for folder in bin sbin etc proc sys dev tmp root usr/lib mnt; do mkdir -p $root/$folder; done
cp /bin/busybox $root/bin/busybox
for tool in sh sleep mount ip ping; do ln -s busybox $root/bin/$tool; done
ln -s ../bin/busybox $root/sbin/init
echo ::sysinit:/bin/true >$root/etc/inittab
printf 'ID=busyboxlab\nVERSION_ID="1.35"\n' >$root/usr/lib/os-release
ln -s ../usr/lib/os-release $root/etc/os-release
cat >/var/lib/lxc/$1/config <<CONFIG
lxc.rootfs.path = dir:$root
lxc.uts.name = $1.example.test
lxc.autodev = 1
lxc.tty.max = 0
lxc.mount.auto = proc:mixed sys:ro
lxc.net.0.type = veth
lxc.net.0.link = lxcbr0
lxc.net.0.flags = up
lxc.net.0.name = eth0
lxc.net.0.ipv4.address = $2/24
CONFIG
"""


class DebianRoot:
    """Holds a running Debian. Its network is its own, with nothing but a loopback; commands run in it as root."""

    def __init__(self, init="systemd"):
        """`init`: "none" for one without an init system, as in many containers."""
        self._folder = tempfile.mkdtemp(prefix="kxdebian")
        command = [_SCRIPT, ARCHIVE, self._folder, init]
        self._errors = tempfile.TemporaryFile("w+")
        self._holder = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._errors, text=True
        )
        words = self._holder.stdout.readline().split()
        if len(words) != 2 or words[0] != "ready":
            self.close()
            raise AssertionError(f"no Debian came up: {words} {self.errors()}")
        self.pid = words[1]
        self.launcher = ["nsenter", "--mount", "--net", "--pid", "--cgroup", "--target", self.pid, "--"]

    def errors(self):
        self._errors.seek(0)
        return self._errors.read()

    def path(self, inside):
        """A file of its as seen from here."""
        return Path(f"/proc/{self.pid}/root") / inside.lstrip("/")

    def do(self, *command, status=0, **options):
        """Runs a command in it and returns what it prints; raises when it does not end with `status`."""
        done = subprocess.run(
            [*self.launcher, "env", "-i", *_ENVIRONMENT, *map(str, command)],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            timeout=_COMMAND_DEADLINE_S,
            check=False,
            **options,
        )
        if done.returncode != status:
            raise AssertionError(f"{command} ended with status {done.returncode}: {done.stdout}")
        return done.stdout

    def install(self, packages):
        """Installs packages as an operator does who has everything that they depend on."""
        for package in packages:
            shutil.copy(package, self.path("/root"))
        self.do("dpkg", "-i", *(f"/root/{package.name}" for package in packages))

    def createContainer(self, name, address):
        """A real container, stopped: a busybox with one address of lxcbr0's network, 10.0.3.0/24. lxc-start starts
        it; it ends with the Debian."""
        self.do("sh", "-e", "-c", _CONTAINER_SETUP, "sh", name, address)

    def processesOf(self, unit):
        """Process ids, as seen from here, of all that a unit runs."""
        group = self.do("systemctl", "show", "--property=ControlGroup", "--value", unit).strip()
        if not group:  # it does not run; what has no name would be the root of all groups
            return []
        try:
            return [int(word) for word in self.path(f"/sys/fs/cgroup{group}/cgroup.procs").read_text().split()]
        except OSError:  # it has ended meanwhile, and its group with it
            return []

    def processOf(self, unit):
        """The one process that a unit runs in the foreground, once it has settled."""
        return waitUntil(lambda: _only(self.processesOf(unit)), _SETTLED_WITHIN_S, f"{unit} runs one process")

    def daemonOf(self, unit):
        """The one process that a unit runs which goes into the background in two steps, once it has settled. What is
        between the two may be alone in the unit as well, but it is in the session of what systemd started, or leads
        its own."""

        def settled():
            pid = _only(self.processesOf(unit))
            shown = self.do("systemctl", "show", "--property=ExecStart", "--value", unit)
            ids = _idsInside(pid)
            passing = (ids.get("NSpid"), re.search(r"\bpid=(\d+)", shown).group(1))
            return pid if ids and ids["NSsid"] not in passing else None

        return waitUntil(settled, _SETTLED_WITHIN_S, f"{unit} runs one process, which has detached itself")

    def walk(self, oid):
        """OID -> value as net-snmp prints it, through the master agent on its usual port, as the community public."""
        printed = self.do("snmpwalk", "-v2c", "-c", "public", "-m", "", "-On", "-t", "3", "127.0.0.1", oid)
        pairs = (line.partition(" = ") for line in printed.splitlines())
        return {name.lstrip("."): value for name, _, value in pairs if not value.startswith("No ")}

    def waitForWalk(self, oid, condition, what, deadlineSeconds=20):
        """Walks until `condition` holds for what was found, and returns that."""

        def found():
            try:
                walked = self.walk(oid)
            except AssertionError:  # the master agent is being started again
                return None
            return (walked,) if condition(walked) else None  # nothing may be what is waited for

        return waitUntil(found, deadlineSeconds, what)[0]

    def logs(self):
        return self.do("journalctl", "--no-pager", "-o", "short-monotonic")

    def close(self):
        self._holder.stdin.close()
        self._holder.wait(_COMMAND_DEADLINE_S)
        self._holder.stdout.close()
        Path(self._folder).rmdir()
