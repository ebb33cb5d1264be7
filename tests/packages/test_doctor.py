"""kxctl doctor on a Debian with its stock configuration: what it says is to be done is done, and it looks again."""

import json
import re

import pytest
from support.wait import waitUntil

DROP_IN = "/etc/snmp/snmpd.conf.d/kxsnmp.conf"
SNMP_CONF = "/etc/snmp/snmp.conf"
LIBRARY = "/usr/lib/x86_64-linux-gnu/libkxclient.so.0"
SETTLED_WITHIN_S = 20


def examine(debian):
    """What each check says, whether all is well or not."""
    printed = debian.do("sh", "-c", "kxctl doctor --json || test $? = 1")
    return {one["check"]: one for one in json.loads(printed)["checks"]}


def lookUntil(debian, name, result):
    """Looks until a check has that result; @return the check"""

    def found():
        check = examine(debian).get(name, {})
        return check if check.get("result") == result else None

    return waitUntil(found, SETTLED_WITHIN_S, f"{name} is {result}")


def quotedIn(check):
    """The line of a configuration that is to be written."""
    return re.search('"([^"]+)"', check["todo"])[1]


def withoutLine(debian, path, beginning):
    debian.do("sed", "-i", f"/^{beginning}/d", path)


def writeToSnmpd(debian, check):
    """Puts the line that a check has told into snmpd's configuration, and starts it anew."""
    debian.path("/etc/snmp/snmpd.conf.d/advice.conf").write_text(quotedIn(check) + "\n")
    debian.do("systemctl", "restart", "snmpd")


def namesOfProcesses(debian):
    """Of all that run, those in containers included."""
    return debian.do("sh", "-c", "cat /proc/[0-9]*/comm || true").splitlines()


@pytest.fixture(autouse=True)
def stock(debian):
    """All is as it was installed, before and after each test."""
    dropIn, snmpConf = debian.path(DROP_IN).read_text(), debian.path(SNMP_CONF).read_text()
    for name in ("agentx rights", "kxsnmp", "view", "kxsnmp link"):
        lookUntil(debian, name, "OK")
    yield
    debian.path(DROP_IN).write_text(dropIn)
    debian.path(SNMP_CONF).write_text(snmpConf)
    debian.do("rm", "-f", "/etc/snmp/snmpd.conf.d/advice.conf")
    debian.do("chmod", "0755", "/var/agentx")
    debian.do("systemctl", "reset-failed", "snmpd", "kxsnmp")
    debian.do("systemctl", "restart", "snmpd")


def test_a_community_that_is_shown_nothing_is_shown_the_subtree(debian):
    withoutLine(debian, DROP_IN, "view")
    debian.do("systemctl", "restart", "snmpd")
    check = lookUntil(debian, "view", "FAIL")
    assert examine(debian)["kxsnmp"]["result"] == "OK"
    writeToSnmpd(debian, check)
    lookUntil(debian, "view", "OK")


def test_a_folder_that_snmpd_has_closed_is_opened(debian):
    """snmpd makes it so where there is none; the rights that it is told to give do not change one that is there."""
    debian.do("systemctl", "stop", "snmpd")
    debian.do("rm", "-r", "/var/agentx")
    withoutLine(debian, DROP_IN, "agentXPerms")
    debian.do("systemctl", "start", "snmpd")
    check = lookUntil(debian, "agentx rights", "FAIL")
    assert check["words"] == "kxsnmp may not use /var/agentx (root:root 0700)"
    debian.do("sh", "-c", check["todo"])
    # Now the socket stands in the way.
    check = lookUntil(debian, "agentx rights", "FAIL")
    assert "kxsnmp may not use /var/agentx/master " in check["words"]
    writeToSnmpd(debian, check)
    for name in ("agentx rights", "kxsnmp", "view", "kxsnmp link"):
        lookUntil(debian, name, "OK")


def test_the_line_for_the_sockets_rights_is_the_one_that_is_installed(debian):
    installed = re.search("^agentXPerms .*$", debian.path(DROP_IN).read_text(), re.MULTILINE)[0]
    withoutLine(debian, DROP_IN, "agentXPerms")
    debian.do("systemctl", "restart", "snmpd")
    assert quotedIn(lookUntil(debian, "agentx rights", "FAIL")) == installed


def test_a_sub_agent_that_does_not_run_is_started(debian):
    debian.do("systemctl", "stop", "kxsnmp")
    check = examine(debian)["kxsnmp"]
    assert check["result"] == "FAIL"
    debian.do("sh", "-c", check["todo"].partition(";")[0])
    lookUntil(debian, "kxsnmp", "OK")


@pytest.mark.parametrize(
    ("file", "units"),
    [("/usr/sbin/kxsnmp", ["kxsnmp"]), ("/usr/sbin/kxagentd", ["kxagentd"]), (LIBRARY, ["kxsnmp"])],
    ids=["sub-agent", "agent", "library"],
)
def test_what_was_replaced_while_it_runs_is_started_anew(debian, file, units):
    """As dpkg replaces files."""
    assert examine(debian)["upgrade"]["result"] == "OK"
    debian.do("sh", "-e", "-c", 'at=$(readlink -f "$1"); cp -a "$at" "$at.new"; mv "$at.new" "$at"', "sh", file)
    check = examine(debian)["upgrade"]
    assert check["result"] == "WARN" and all(f"{unit} (process " in check["words"] for unit in units)
    assert check["todo"] == " ".join(["systemctl restart", *units])
    debian.do("sh", "-c", check["todo"])
    lookUntil(debian, "upgrade", "OK")


def test_a_sub_agent_in_a_container_is_not_this_hosts(debian):
    debian.createContainer("decoy", "10.0.3.78")
    root = debian.path("/var/lib/lxc/decoy/rootfs")
    (root / "bin/decoy").write_text("#!/bin/sh\necho -n kxsnmp >/proc/$$/comm\nsleep 1000\nexit\n")
    (root / "bin/decoy").chmod(0o755)
    (root / "etc/inittab").write_text("::respawn:/bin/decoy\n")
    debian.do("systemctl", "stop", "kxsnmp")
    debian.do("lxc-start", "-n", "decoy")
    try:
        waitUntil(lambda: "kxsnmp" in namesOfProcesses(debian), SETTLED_WITHIN_S, "the decoy runs")
        assert examine(debian)["kxsnmp"]["words"] == "it does not run"
    finally:
        debian.do("lxc-stop", "-k", "-n", "decoy")
        debian.do("systemctl", "start", "kxsnmp")


def test_names_are_made_to_resolve_one_obstacle_after_the_other(debian):
    translate = ["snmptranslate", "-IR", "-On", "kxVeTable"]
    check = examine(debian)["mib"]
    assert check["words"].startswith("CORVANE-MIB stands on modules that are missing: SNMPv2-SMI")
    debian.path(SNMP_CONF).write_text(f"{debian.path(SNMP_CONF).read_text()}\n{quotedIn(check)}\n")
    check = examine(debian)["mib"]
    assert check["words"] == "net-snmp's tools can read CORVANE-MIB, but do not load it by themselves"
    debian.do(*translate, status=2)
    text = debian.path(SNMP_CONF).read_text()
    assert "\nmibs :\n" in text
    debian.path(SNMP_CONF).write_text(text.replace("\nmibs :\n", f"\n{quotedIn(check)}\n"))
    assert examine(debian)["mib"]["result"] == "OK"
    assert debian.do(*translate).strip() == ".1.3.6.1.4.1.53864.1.1.4"
