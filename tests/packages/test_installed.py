"""The packages on a Debian with its stock snmpd configuration: what runs, as whom, and what a manager sees."""

import os
import signal
from pathlib import Path

import pytest
from support.parts import SUBTREE
from support.wait import waitUntil

EXAMPLE = "/usr/share/doc/kxagent/examples/inventory.toml"
INVENTORY = "/etc/kxagent/inventory.toml"
CONFIG = "/etc/kxagent/kxagentd.toml"
NAME_OF_101 = f"{SUBTREE}.4.1.3.101"
CANNOT_REACH_AGENT = 3
RESTARTS = 10


@pytest.fixture(scope="module", autouse=True)
def described(debian):
    """The host that the example describes, set up as its first lines say."""
    debian.do("cp", EXAMPLE, INVENTORY)
    config = debian.path(CONFIG)
    config.write_text(config.read_text().replace('#backend = "auto"', 'backend = "simulated"'))
    debian.do("systemctl", "reload", "kxagentd")


def processOf(debian, unit):
    """The one process that a unit runs, once it has settled."""
    return waitUntil(lambda: _only(debian.processesOf(unit)), 10, f"{unit} runs one process")


def statusOf(debian, unit):
    """What /proc says of the one process of a unit: name -> value."""
    lines = Path(f"/proc/{processOf(debian, unit)}/status").read_text().splitlines()
    return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}


def _only(processes):
    return processes[0] if len(processes) == 1 else None


def test_the_community_public_sees_the_containers(debian):
    walked = debian.waitForWalk(SUBTREE, lambda found: NAME_OF_101 in found, "the described containers are shown")
    assert walked[NAME_OF_101] == 'STRING: "web"'
    assert walked[f"{SUBTREE}.2.0"] == 'STRING: "7.0.1-42"'
    assert walked[f"{SUBTREE}.5.1.1.101.192.0.2.101"] == "IpAddress: 192.0.2.101"


def test_what_the_stock_configuration_shows_is_still_shown(debian):
    assert "1.3.6.1.2.1.1.3.0" in debian.walk("1.3.6.1.2.1.1")


def test_the_sub_agent_is_unprivileged(debian):
    status = statusOf(debian, "kxsnmp")
    user = debian.do("id", "-u", "kxsnmp").strip()
    group = debian.do("getent", "group", "kxagent").split(":")[2]
    assert set(status["Uid"].split()) == {user} and user != "0"
    assert int(status["CapBnd"], 16) == int(status["CapEff"], 16) == 0
    assert group in status["Groups"].split()
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")


def test_the_agent_has_the_capabilities_of_its_unit_and_no_others(debian):
    status = statusOf(debian, "kxagentd")
    dacReadSearch, sysPtrace, sysAdmin = 2, 19, 21
    assert int(status["CapBnd"], 16) == int(status["CapEff"], 16) == 1 << dacReadSearch | 1 << sysPtrace | 1 << sysAdmin
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")


def test_a_sub_agent_that_crashed_is_started_again(debian):
    crashed = processOf(debian, "kxsnmp")
    os.kill(crashed, signal.SIGSEGV)
    waitUntil(lambda: _only([p for p in debian.processesOf("kxsnmp") if p != crashed]), 10, "another kxsnmp runs")
    debian.waitForWalk(SUBTREE, lambda found: NAME_OF_101 in found, "the containers are shown again")


def test_the_process_that_the_sub_agent_leaves_behind_is_not_taken_for_it(debian):
    """systemd may see either when it looks; a wrong choice ends both, so it is given some opportunities."""
    for _ in range(RESTARTS):
        debian.do("systemctl", "reset-failed", "kxsnmp")  # so many starts in a row would be too many for it
        debian.do("systemctl", "restart", "kxsnmp")
        running = processOf(debian, "kxsnmp")
        started = debian.do("systemctl", "show", "--property=NRestarts,ActiveState", "kxsnmp").split()
        assert started == ["NRestarts=0", "ActiveState=active"]
        assert processOf(debian, "kxsnmp") == running


def test_a_restart_of_snmpd_takes_the_tables_away_for_a_moment_only(debian):
    debian.do("systemctl", "restart", "snmpd")
    debian.waitForWalk(SUBTREE, lambda found: NAME_OF_101 in found, "the containers are shown again", 10)


def test_root_may_ask_the_agent(debian):
    assert "bytes_in" in debian.do("kxctl", "counters")


def test_a_user_outside_of_the_group_may_not(debian):
    debian.do("runuser", "-u", "nobody", "--", "kxctl", "counters", status=CANNOT_REACH_AGENT)


def test_a_member_of_the_group_may(debian):
    debian.do("runuser", "-u", "nobody", "-G", "kxagent", "--", "kxctl", "counters")


def test_the_agentx_socket_is_for_the_sub_agent_only(debian):
    assert debian.do("stat", "-c", "%a %U %G", "/var/agentx/master").split() == ["660", "Debian-snmp", "kxsnmp"]


def test_the_units_say_nothing_that_systemd_complains_about(debian):
    units = ["/lib/systemd/system/kxsnmp.service", "/lib/systemd/system/kxagentd.service"]
    complaints = debian.do("systemd-analyze", "verify", "--man=no", *units)
    assert not [line for line in complaints.splitlines() if "kx" in line]


def test_every_program_has_its_manual_page_and_the_configurations_are_kept_on_upgrades(debian):
    pages = ["man8/kxsnmp.8", "man8/kxagentd.8", "man5/kxagentd.toml.5", "man1/kxctl.1"]
    debian.do("ls", *(f"/usr/share/man/{page}.gz" for page in pages))
    files = debian.do("dpkg-query", "-W", "-f", "${Conffiles}\n", "kxsnmp", "kxagent")
    assert {line.split()[0] for line in files.splitlines() if line.strip()} == {
        "/etc/kxagent/kxagentd.toml",
        "/etc/snmp/kxsnmp.conf",
        "/etc/snmp/snmpd.conf.d/kxsnmp.conf",
    }
