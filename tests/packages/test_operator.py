"""The commands of the documentation, as they stand there, typed on a Debian with a container by somebody who has nothing
else."""

import re
import shlex
import shutil

import pytest
from support import debianroot, umldebian
from support.host import PROJECT

CONTAINER = "web"

_FUNCTIONS = """
set -e
# wait_for WHAT COMMAND...: somebody who types is slower than what the command looks at.
wait_for() {
    what=$1
    shift
    for try in $(seq 60); do
        "$@" >/dev/null 2>&1 && return
        sleep 0.2
    done
    echo "never: $what"
    "$@" || journalctl --no-pager | tail -n 50
    exit 1
}
serves() { snmpget -v2c -c public 127.0.0.1 .1.3.6.1.4.1.53864.1.1.4.1.3.1000000 | grep web; }
told() { { cat /var/log/containers.log; journalctl -u snmptrapd; } | grep 'out of memory'; }
"""

# What has to be the case before a command makes sense.
_BEFORE = {
    "kxctl": "wait_for 'doctor is content' kxctl doctor",
    "snmptable": "wait_for 'the container is shown' serves",
    "snmpwalk": "wait_for 'the container is shown' serves",
    "lxc-cgroup": "wait_for 'the container is shown' serves",
    "cat": "wait_for 'the trap has arrived' told",
    "journalctl": "wait_for 'the trap has arrived' told",
}


def blocks(document):
    """The marked blocks of a document: what they are marked with, and their lines."""
    found = re.findall(r"^```sh(?: (\w+))?\n(.*?)^```$", (PROJECT / document).read_text(), re.MULTILINE | re.DOTALL)
    return [(mark, [line for line in text.splitlines() if line]) for mark, text in found]


def typed(lines):
    for line in lines:
        before = _BEFORE.get(line.split()[0])
        yield from [before] if before else []
        yield f"echo {shlex.quote('# ' + line)}"
        yield line + (" || true" if "lxc-attach" in line else "")  # what it runs is killed, as is intended


def script():
    """README first, then the operations' manual from its beginning to the removal at its end."""
    lines = [f"lxc-start -n {CONTAINER}"]
    # Built and downloaded before: see below.
    for mark, block in blocks("README.md"):
        lines += typed(block) if mark == "" else []
    lines += ["echo '# kernel counts'", f"grep '^oom_kill ' /sys/fs/cgroup/lxc.payload.{CONTAINER}/memory.events"]
    # Begins anew, so that what is seen from here on is of here on; the same alert is not told twice in a minute.
    lines += ["echo '=== operations'", f"lxc-stop -k -n {CONTAINER}", f"lxc-start -n {CONTAINER}"]
    lines += ["systemctl restart kxagentd kxsnmp", "kill $(pidof snmptrapd)", ": >/var/log/containers.log"]
    for mark, block in blocks("docs/operations.md"):
        lines += typed(block) if mark in ("", "upgrade", "remove") else []
    lines += ["echo '=== removed'", "! dpkg -l kxsnmp kxagent | grep ^ii"]
    return _FUNCTIONS + "\n".join(lines) + "\n"


def addContainer(files):
    """A busybox, as lxc-create would make it."""
    root = files / f"var/lib/lxc/{CONTAINER}/rootfs"
    for place in ("bin", "sbin", "etc", "proc", "sys", "dev", "tmp", "root"):
        (root / place).mkdir(parents=True)
    shutil.copy("/bin/busybox", root / "bin/busybox")
    for tool in ("bin/sh", "bin/tail", "bin/true", "sbin/init"):
        (root / tool).symlink_to("/bin/busybox")
    (root / "etc/inittab").write_text("::sysinit:/bin/true\n")
    config = [f"lxc.rootfs.path = dir:/var/lib/lxc/{CONTAINER}/rootfs", f"lxc.uts.name = {CONTAINER}.example.test"]
    config += ["lxc.autodev = 1", "lxc.tty.max = 0", "lxc.mount.auto = proc:mixed sys:ro", "lxc.net.0.type = empty"]
    (root.parent / "config").write_text("\n".join(config) + "\n")


@pytest.fixture(scope="module")
def session(tmp_path_factory):
    """What the operator has seen."""
    obstacle = umldebian.obstacle()
    assert not obstacle, obstacle
    folder = tmp_path_factory.mktemp("operator")
    files = folder / "files"
    addContainer(files)
    packages = files / "root/build/packages"
    packages.mkdir(parents=True)
    for package in debianroot.builtPackages():
        shutil.copy(package, packages)
    status, output = umldebian.run(folder, script())
    assert status == 0, output
    return output.partition("=== operations")


def outputOf(session, command):
    """What came after a command, up to the next one."""
    return session.split(f"# {command}\n", 1)[1].split("\n# ", 1)[0]


def test_the_readme_leads_there_in_eight_steps():
    assert sum(len(lines) for _, lines in blocks("README.md")) <= 8


def test_network_counters_are_shown_with_the_names_of_the_module(session):
    command = "snmptable -v2c -c public -M -/usr/share/kxsnmp/mibs -m CORVANE-MIB -Ci 127.0.0.1 kxVeNetstatTable"
    table = outputOf(session[0], command)
    assert "kxVeNetstatBytesIn" in table and "1000000." in table, table


def test_doctor_is_content(session):
    report = outputOf(session[2], "kxctl doctor")
    assert "FAIL" not in report and report.count("OK") > 5, report


@pytest.mark.parametrize("part", [0, 2], ids=["README", "operations"])
def test_the_container_is_shown_with_the_names_of_the_module(session, part):
    command = "snmptable -v2c -c public -M -/usr/share/kxsnmp/mibs -m CORVANE-MIB -Ci 127.0.0.1 kxVeTable"
    table = outputOf(session[part], command)
    header, row = [line for line in table.splitlines() if line.strip()][1:3]
    assert "kxVeHostname" in header and f"{CONTAINER}.example.test" in row, table


@pytest.mark.parametrize("part", [0, 2], ids=["README", "operations"])
def test_running_out_of_memory_arrives_as_a_trap_with_its_names(session, part):
    trap = outputOf(session[part], ["cat /var/log/containers.log", None, "journalctl -u snmptrapd"][part])
    assert "CORVANE-MIB::kxVeAlert" in trap and "CORVANE-MIB::kxVeId = Gauge32: 1000000" in trap, trap
    assert "CORVANE-MIB::kxVeAlertText = STRING: out of memory: processes were killed" in trap
    assert "CORVANE-MIB::kxVeAlertCode = INTEGER: 2" in trap


def test_the_value_of_the_trap_is_what_the_kernel_counts(session):
    told = re.search(r"kxVeAlertValue = Counter64: (\d+)", outputOf(session[0], "cat /var/log/containers.log"))
    assert f"oom_kill {told.group(1)}\n" in outputOf(session[0], "kernel counts")


def test_all_of_it_can_be_removed(session):
    assert "=== removed" in session[2]
