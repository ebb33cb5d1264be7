"""The packages where systemd is installed, and is not process 1: the documented command starts all three programs."""

import re

import pytest
from support import debianroot
from support.host import PROJECT
from support.parts import SUBTREE

NAME = "101"
STATE = f"{SUBTREE}.4.1.8.{NAME}"
PROGRAMS = ("snmpd", "kxagentd", "kxsnmp")


@pytest.fixture
def debian():
    made = debianroot.DebianRoot(init="none")
    try:
        made.install(debianroot.builtPackages())
        yield made
    finally:
        made.close()


def start(debian):
    (command,) = re.findall(r"^```sh sysv\n(.*?)^```$", (PROJECT / "docs/operations.md").read_text(), re.M | re.S)
    debian.do("bash", "-ec", command)


def idsOf(debian, program):
    return debian.do("sh", "-c", f"pidof {program} || true").split()


def test_init_scripts_start_and_stop_what_the_units_do(debian):
    debian.do("service", "lxc-net", "start")
    debian.createContainer(NAME, "10.0.3.77")
    assert [idsOf(debian, program) for program in PROGRAMS] == [[], [], []], "nothing is started by the installation"
    start(debian)
    debian.waitForWalk(SUBTREE, lambda found: found.get(STATE) == "INTEGER: 1", "the container is shown")
    debian.do("lxc-start", "-n", NAME)
    debian.waitForWalk(SUBTREE, lambda found: found.get(STATE) == "INTEGER: 2", "it runs")
    start(debian)
    debian.waitForWalk(SUBTREE, lambda found: found.get(STATE) == "INTEGER: 2", "it is shown again")
    assert [len(idsOf(debian, program)) for program in PROGRAMS] == [1, 1, 1]
    (pid,) = idsOf(debian, "kxsnmp")
    assert debian.do("stat", "-c", "%U", f"/proc/{pid}").strip() == "kxsnmp"
    debian.do("dpkg", "--purge", "kxsnmp", "kxagent", "libkxclient0")
    assert [idsOf(debian, program) for program in PROGRAMS[1:]] == [[], []]
    assert debian.do("find", "/etc", "/var", "/usr", "/run", "-xdev", "-name", "*kx*") == ""
