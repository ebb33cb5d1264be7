"""kxctl doctor, on hosts with and without what it looks for."""

import os
import re

import pytest
from support.kxctl import DEADLINE_S, DONE, NOBODY, REFUSED, document, run, runAsNobody
from support.parts import Agent
from support.wait import waitUntil

INVENTORY = '[host]\nproduct_version = "7.0.1-42"\n[[environment]]\nname = "web"\nveid = 101\nstate = 2\n'
COUNTERS = '[environment.counters.counters_kx_net."1"]\nbytes_in = 1\n'
REJOIN_DEADLINE_S = 20
QUICK_SAMPLES = "[monitoring]\nperiod_scale = 0.05\n"


@pytest.fixture
def whole(host):
    """A host on which all runs."""
    host.agent.writeConfig('backend = "simulated"', QUICK_SAMPLES)
    host.startAll(INVENTORY + COUNTERS)
    return host


def places(host, user="root"):
    """Options that say where this host's SNMP agent is."""
    return ["--agentx", str(host.snmpd.socket), "--snmp-address", f"127.0.0.1:{host.snmpd.port}", "--user", user]


def examine(host, *arguments, user="root", status=DONE):
    shown = document("doctor", *places(host, user), *arguments, status=status)
    assert shown["ok"] == (status == DONE)
    return {one["check"]: one for one in shown["checks"]}


def results(checks):
    return {name: one["result"] for name, one in checks.items()}


def test_a_host_on_which_all_runs_has_no_failure(whole):
    checks = examine(whole)
    fine = ["agent socket", "agent", "versions", "protocol", "samples", "agentx socket", "agentx rights", "kxsnmp"]
    for name in [*fine, "view", "kxsnmp link"]:
        assert checks[name]["result"] == "OK", checks[name]
        assert "todo" not in checks[name]
    assert "FAIL" not in results(checks).values()
    assert all("todo" in one for one in checks.values() if one["result"] != "OK")
    assert re.search(r"came after [0-9.]+ s, with 1 containers$", checks["samples"]["words"])
    assert re.fullmatch(r"kxctl ([\d.]+), agent kxagentd \1", checks["versions"]["words"])
    cgroups2 = os.path.exists("/sys/fs/cgroup/cgroup.controllers")
    assert checks["cgroups"]["words"].startswith("version 2" if cgroups2 else "version 1")


def test_each_check_is_a_line(whole):
    done = run("doctor", *places(whole), text=True)
    assert (done.returncode, done.stderr) == (DONE, "")
    lines = done.stdout.splitlines()
    assert all(re.match(r"(OK|WARN|FAIL) +[a-z ]+ {2,}\S", line) for line in lines)
    assert len(lines) == len(examine(whole))


def test_an_absent_agent_is_a_failure_with_what_to_do(whole):
    whole.agent.stop()
    checks = examine(whole, status=REFUSED)
    assert checks["agent socket"]["result"] == "FAIL"
    assert Agent.SOCKET in checks["agent socket"]["words"] and "kxagentd" in checks["agent socket"]["todo"]
    assert checks["view"]["result"] == "OK"


def test_what_is_no_socket_and_a_mib_module_that_is_missing_are_told(host, tmp_path, monkeypatch):
    monkeypatch.setenv("MIBDIRS", str(tmp_path))
    wrong = tmp_path / "file"
    wrong.write_text("")
    checks = examine(host, "--socket", wrong, status=REFUSED)
    assert "is not a socket" in checks["agent socket"]["words"]
    assert checks["mib"]["result"] == "WARN" and "MIBDIRS" in checks["mib"]["todo"]


def test_who_has_no_rights_is_told_what_to_do(whole):
    done = runAsNobody(whole.folder / "everybody", "doctor", *places(whole))
    assert done.returncode == REFUSED
    assert re.search(r"^FAIL  rights +you may not use .*: run this as root, or .*usermod", done.stdout, re.MULTILINE)
    assert re.search(r"^FAIL  agent .*Permission denied", done.stdout, re.MULTILINE)


def test_running_containers_without_counters_are_named(whole):
    whole.agent.writeInventory(INVENTORY)

    def silent():
        checks = examine(whole)
        return checks if checks["samples"]["result"] == "WARN" else None

    checks = waitUntil(silent, DEADLINE_S, "the agent has read its file")
    assert checks["samples"]["words"].endswith("running, but not in it: 101")


# ---- the SNMP side ------------------------------------------------------------------------------------------------


def test_a_view_without_the_subtree_is_told_with_the_lines_to_add(whole):
    config = whole.snmpd.folder / "snmpd.conf"
    config.write_text(re.sub(r"view kx included \.1\.3\.6\.1\.4.*\n", "", config.read_text()))
    whole.snmpd.stop()
    whole.snmpd.start()

    def isJoined():
        checks = {one["check"]: one for one in document("doctor", *places(whole), status=REFUSED)["checks"]}
        return checks if checks["kxsnmp"]["result"] == "OK" else None

    checks = waitUntil(isJoined, REJOIN_DEADLINE_S, "the sub-agent has joined again")
    assert checks["view"]["result"] == "FAIL"
    assert "view kxsnmp included .1.3.6.1.4.1.53864" in checks["view"]["todo"]


def test_a_community_that_gets_no_answer_is_told(whole):
    checks = examine(whole, "--community", "wrong", status=REFUSED)
    assert checks["view"]["result"] == "FAIL"
    assert "Timeout" in checks["view"]["words"] and "--community" in checks["view"]["todo"]


def test_an_absent_sub_agent_is_told(host):
    host.snmpd.start()
    checks = examine(host, status=REFUSED)
    assert checks["kxsnmp"]["result"] == "FAIL" and "systemctl start kxsnmp" in checks["kxsnmp"]["todo"]
    assert checks["view"]["result"] == "WARN"


def test_an_absent_master_is_told(host):
    checks = examine(host, status=REFUSED)
    assert checks["agentx socket"]["result"] == "FAIL" and "master agentx" in checks["agentx socket"]["todo"]
    assert checks["view"]["result"] == "FAIL" and "does not answer" in checks["view"]["words"]


def test_rights_to_the_masters_socket_are_those_of_the_sub_agents_user(whole):
    os.chmod(whole.snmpd.socket, 0o660)
    os.chown(whole.snmpd.socket, 0, NOBODY)
    assert examine(whole, user="nobody")["agentx rights"]["result"] == "OK"
    os.chmod(whole.snmpd.folder, 0o700)
    checks = examine(whole, user="nobody", status=REFUSED)
    assert str(whole.snmpd.folder) in checks["agentx rights"]["words"]
    assert "agentXPerms" in checks["agentx rights"]["todo"]
    assert examine(whole, user="kx-no-such-user")["agentx rights"]["result"] == "WARN"


def test_a_sub_agent_that_has_not_reached_the_agent_is_told(host):
    elsewhere = host.folder / "agent.sock"
    host.agent.config.write_text(host.agent.config.read_text().replace(Agent.SOCKET, str(elsewhere)))
    host.startAll(INVENTORY + COUNTERS)
    for socket in (Agent.SOCKET, elsewhere):
        checks = examine(host, "--socket", socket, status=REFUSED)
        assert (checks["view"]["result"], checks["kxsnmp link"]["result"]) == ("OK", "FAIL")
        assert "kxagent kxsnmp" in checks["kxsnmp link"]["todo"]


def test_a_host_without_snmp_tools_can_still_be_examined(whole):
    checks = {}
    done = run("doctor", *places(whole), env={"PATH": "/nowhere"}, text=True)
    for line in done.stdout.splitlines():
        checks[line[6:19].strip()] = line
    assert checks["view"].startswith("WARN") and "apt-get install snmp" in checks["view"]


# ---- the MIB module -----------------------------------------------------------------------------------------------


def test_the_mib_module_is_found_where_the_tools_look(host, tmp_path, monkeypatch):
    monkeypatch.setenv("MIBDIRS", f"/nowhere:{tmp_path}")
    (tmp_path / "CORVANE-MIB.txt").write_text("CORVANE-MIB DEFINITIONS ::= BEGIN END\n")
    found = examine(host, status=REFUSED)["mib"]
    assert (found["result"], found["words"]) == ("OK", str(tmp_path / "CORVANE-MIB.txt"))
