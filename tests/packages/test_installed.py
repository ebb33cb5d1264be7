"""The packages on a Debian with its stock snmpd configuration: what runs, as whom, and what a manager sees."""

import os
import re
import signal
from pathlib import Path

import pytest
from support.host import PROJECT
from support.parts import SUBTREE
from support.wait import waitUntil

EXAMPLE = "/usr/share/doc/kxagent/examples/inventory.toml"
INVENTORY = "/etc/kxagent/inventory.toml"
CONFIG = "/etc/kxagent/kxagentd.toml"
NAME_OF_101 = f"{SUBTREE}.4.1.3.101"
CANNOT_REACH_AGENT = 3
RESTARTS = 10
BACK_WITHIN_S = 8  # kxsnmp waits 2 of them before it looks for snmpd; without a setting it would wait 15


@pytest.fixture(scope="module", autouse=True)
def described(debian):
    """The host that the example describes, set up as its first lines say."""
    debian.do("cp", EXAMPLE, INVENTORY)
    config = debian.path(CONFIG)
    config.write_text(config.read_text().replace('#backend = "auto"', 'backend = "simulated"'))
    debian.do("systemctl", "reload", "kxagentd")


def statusOf(process):
    """What /proc says of a process: name -> value."""
    lines = Path(f"/proc/{process}/status").read_text().splitlines()
    return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}


def test_the_community_public_sees_the_containers(debian):
    walked = debian.waitForWalk(SUBTREE, lambda found: NAME_OF_101 in found, "the described containers are shown")
    assert walked[NAME_OF_101] == 'STRING: "web"'
    assert walked[f"{SUBTREE}.2.0"] == 'STRING: "7.0.1-42"'
    assert walked[f"{SUBTREE}.5.1.1.101.192.0.2.101"] == "IpAddress: 192.0.2.101"


def test_what_the_stock_configuration_shows_is_still_shown(debian):
    assert "1.3.6.1.2.1.1.3.0" in debian.walk("1.3.6.1.2.1.1")


def test_the_sub_agent_is_unprivileged(debian):
    status = statusOf(debian.daemonOf("kxsnmp"))
    user = debian.do("id", "-u", "kxsnmp").strip()
    group = debian.do("getent", "group", "kxagent").split(":")[2]
    assert set(status["Uid"].split()) == {user} and user != "0"
    assert int(status["CapBnd"], 16) == int(status["CapEff"], 16) == 0
    assert group in status["Groups"].split()
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")


def test_the_agent_has_the_capabilities_of_its_unit_and_no_others(debian):
    status = statusOf(debian.processOf("kxagentd"))
    dacReadSearch, sysPtrace, sysAdmin = 2, 19, 21
    assert int(status["CapBnd"], 16) == int(status["CapEff"], 16) == 1 << dacReadSearch | 1 << sysPtrace | 1 << sysAdmin
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")


def test_a_sub_agent_that_crashed_is_started_again(debian):
    crashed = debian.daemonOf("kxsnmp")
    os.kill(crashed, signal.SIGSEGV)
    waitUntil(lambda: crashed not in debian.processesOf("kxsnmp"), 10, "it has crashed")
    debian.daemonOf("kxsnmp")
    debian.waitForWalk(SUBTREE, lambda found: NAME_OF_101 in found, "the containers are shown again")


def test_the_unit_does_not_start_beside_a_sub_agent_started_by_hand(debian):
    """It ignores its command line, and so starts whatever was asked of it."""
    debian.do("systemctl", "stop", "kxsnmp")
    debian.do("runuser", "-u", "kxsnmp", "-G", "kxagent", "--", "/usr/sbin/kxsnmp", "--help")
    waitUntil(lambda: len(debian.do("pidof", "kxsnmp").split()) == 1, 10, "it has detached itself")
    pid = debian.do("pidof", "kxsnmp").strip()
    debian.do("systemctl", "start", "kxsnmp", status=1)
    assert debian.do("pidof", "kxsnmp").strip() == pid
    assert f"kxsnmp runs already, as process {pid}, and not started by systemd" in debian.logs()
    debian.do("sh", "-c", f"kill {pid}; while pidof kxsnmp; do sleep 0.1; done")
    debian.do("systemctl", "reset-failed", "kxsnmp")
    debian.do("systemctl", "start", "kxsnmp")
    debian.daemonOf("kxsnmp")
    debian.waitForWalk(SUBTREE, lambda found: NAME_OF_101 in found, "the containers are shown again")


def test_the_process_that_the_sub_agent_leaves_behind_is_not_taken_for_it(debian):
    """systemd may see either when it looks; a wrong choice ends both, so it is given some opportunities."""
    for _ in range(RESTARTS):
        debian.do("systemctl", "reset-failed", "kxsnmp")  # so many starts in a row would be too many for it
        debian.do("systemctl", "restart", "kxsnmp")
        running = debian.daemonOf("kxsnmp")
        started = debian.do("systemctl", "show", "--property=NRestarts,ActiveState", "kxsnmp").split()
        assert started == ["NRestarts=0", "ActiveState=active"]
        assert debian.daemonOf("kxsnmp") == running


def test_a_restart_of_snmpd_takes_the_tables_away_for_a_moment_only(debian):
    settings = debian.path("/etc/snmp/kxsnmp.conf").read_text()
    assert re.findall(r"^[^#\n].*", settings, re.MULTILINE) == ["agentXPingInterval 2"]
    debian.do("systemctl", "restart", "snmpd")
    debian.waitForWalk(SUBTREE, lambda found: NAME_OF_101 in found, "the containers are shown again", BACK_WITHIN_S)


def test_root_may_ask_the_agent(debian):
    assert "BYTES IN" in debian.do("kxctl", "counters")


def test_a_user_outside_of_the_group_may_not(debian):
    debian.do("runuser", "-u", "nobody", "--", "kxctl", "counters", status=CANNOT_REACH_AGENT)


def test_a_member_of_the_group_may(debian):
    debian.do("runuser", "-u", "nobody", "-G", "kxagent", "--", "kxctl", "counters")


def test_the_agentx_socket_is_for_the_sub_agent_only(debian):
    assert debian.do("stat", "-c", "%a %U %G", "/var/agentx/master").split() == ["660", "Debian-snmp", "kxsnmp"]


def documentedFolders():
    """Path, mode, owner and group of every folder that the packages have made at the start of the system."""
    for file in sorted((PROJECT / "packaging/tmpfiles").glob("*.conf")):
        yield from re.findall(r"^d (\S+) +0(\d+) (\S+) (\S+)$", file.read_text(), re.MULTILINE)


def test_folders_have_the_modes_and_owners_that_the_packages_give_them(debian):
    wanted = {path: [mode, owner, group] for path, mode, owner, group in documentedFolders()}
    assert wanted.keys() >= {"/var/opt/orma/agent", "/var/lib/kxagent", "/var/agentx"}
    assert {path: debian.do("stat", "-c", "%a %U %G", path).split() for path in wanted} == wanted


# What bash does when Tab is pressed behind "kxctl sh": it asks the file with the command's name.
_TAB = r"""
. /usr/share/bash-completion/completions/kxctl
COMP_WORDS=(kxctl sh) COMP_CWORD=1
$(complete -p kxctl | sed 's/.*-F \([^ ]*\).*/\1/')
echo "${COMPREPLY[@]}"
"""


def test_bash_completes_the_commands_of_kxctl(debian):
    assert debian.do("bash", "--norc", "-c", _TAB) == "show\n"


def test_the_documented_command_lets_a_user_ask_the_agent(debian):
    (command,) = re.findall(r"^adduser alice .*$", (PROJECT / "docs/operations.md").read_text(), re.MULTILINE)
    debian.do("useradd", "alice")
    asks = ["runuser", "-u", "alice", "--", "kxctl", "counters"]
    debian.do(*asks, status=CANNOT_REACH_AGENT)
    debian.do(*command.split())
    assert "BYTES IN" in debian.do(*asks)


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
        "/etc/init.d/kxagentd",
        "/etc/init.d/kxsnmp",
        "/etc/snmp/kxsnmp.conf",
        "/etc/snmp/snmpd.conf.d/kxsnmp.conf",
    }
