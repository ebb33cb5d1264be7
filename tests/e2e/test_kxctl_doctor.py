"""kxctl doctor, on hosts with and without what it looks for. What it says is to be done is done, where a test can."""

import json
import os
import re
import shutil
import signal
import subprocess
from contextlib import contextmanager
from pathlib import Path

import pytest
from support.kxctl import DEADLINE_S, DONE, REFUSED, command, document, run, runAsNobody, surroundings
from support.mibs import BASE_MODULES, MODULE_FILE
from support.parts import SUBTREE, Agent
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


def look(host, *arguments, user="root"):
    """All checks, whatever their results."""
    done = run("doctor", *places(host, user), "--json", *arguments, text=True)
    return {one["check"]: one for one in json.loads(done.stdout)["checks"]}


def lookUntil(host, name, result, user="root"):
    """Runs it until a check has that result, whatever the others have; @return the check"""

    def found():
        checks = look(host, user=user)
        return checks[name] if name in checks and checks[name]["result"] == result else None

    return waitUntil(found, REJOIN_DEADLINE_S, f"{name} is {result}")


def quotedIn(check):
    """The line of a configuration that is to be written."""
    return re.search('"([^"]+)"', check["todo"])[1]


def configureSnmpd(host, change, isPublic=True):
    """Starts snmpd anew with its configuration changed."""
    config = host.snmpd.folder / "snmpd.conf"
    config.write_text(change(config.read_text()))
    host.snmpd.stop()
    host.snmpd.start(isPublic)


@contextmanager
def pretender(folder, name, launcher=()):
    """Something else that runs under a program's name; @return its process id and its file"""
    folder.mkdir()
    program = Path(shutil.copy(shutil.which("sleep"), folder / name))
    started = subprocess.Popen([*launcher, program, "1000"])
    try:

        def running():
            pids = [started.pid, *Path(f"/proc/{started.pid}/task/{started.pid}/children").read_text().split()]
            return next((pid for pid in pids if Path(f"/proc/{pid}/comm").read_text() == f"{name}\n"), None)

        yield waitUntil(running, DEADLINE_S, f"{name} runs"), program
    finally:
        started.kill()
        started.wait()


def results(checks):
    return {name: one["result"] for name, one in checks.items()}


def test_a_host_on_which_all_runs_has_no_failure(whole):
    checks = examine(whole)
    fine = ["agent socket", "agent", "versions", "samples", "upgrade", "agentx socket", "agentx rights", "kxsnmp"]
    for name in [*fine, "view", "kxsnmp link"]:
        assert checks[name]["result"] == "OK", checks[name]
        assert "todo" not in checks[name]
    assert "FAIL" not in results(checks).values()
    assert all("todo" in one for one in checks.values() if one["result"] != "OK")
    assert re.search(r"came after [0-9.]+ s, with 1 containers$", checks["samples"]["words"])
    assert re.fullmatch(r"kxctl ([\d.]+), agent kxagentd \1", checks["versions"]["words"])


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
    assert re.search(r"^FAIL  agent  .*Permission denied.*: see the rights above$", done.stdout, re.MULTILINE)


def test_running_containers_without_counters_are_named(whole):
    whole.agent.writeInventory(INVENTORY)

    def silent():
        checks = examine(whole)
        return checks if checks["samples"]["result"] == "WARN" else None

    checks = waitUntil(silent, DEADLINE_S, "the agent has read its file")
    assert checks["samples"]["words"].endswith("running, but not in it: 101")


def test_containers_whose_disk_usage_is_unknown_are_named_with_why(whole):
    assert examine(whole)["disk usage"]["result"] == "OK"
    quota = '[environment.counters.counters_kx_quota.""]\ndiskspace_used = "unknown"\n'
    whole.agent.writeInventory(INVENTORY + COUNTERS + quota)
    check = lookUntil(whole, "disk usage", "WARN")
    assert check["words"].startswith("unknown of 101: nothing counts it separately")
    assert "project quotas" in check["todo"]


def test_counters_that_do_not_come_are_told_and_come_with_another_period(whole):
    whole.agent.stop()
    whole.agent.writeConfig('backend = "simulated"', "[monitoring]\nperiod_scale = 100\n")
    whole.agent.start()
    checks = examine(whole, status=REFUSED)
    assert checks["agent"]["result"] == "OK"
    assert checks["samples"]["result"] == "FAIL"
    assert re.fullmatch(r"no sample of counters has come within 5\.\d s", checks["samples"]["words"])
    assert "period_scale in kxagentd.toml" in checks["samples"]["todo"]
    whole.agent.writeConfig('backend = "simulated"', QUICK_SAMPLES)
    whole.agent.sendSignal(signal.SIGHUP)
    lookUntil(whole, "samples", "OK")


# ---- the host -----------------------------------------------------------------------------------------------------

HYBRID = "version 1, with an empty tree of version 2"


def mounts():
    """Where -> type and options, of what is mounted last there."""
    lines = (line.split() for line in Path("/proc/self/mounts").read_text().splitlines())
    return {where: (kind, options.split(",")) for _, where, kind, options, *_ in lines}


def examineAfter(host, *commands):
    """In a mount namespace in which the commands were carried out."""
    script = "\n".join(["set -e", *commands, 'exec "$@"'])
    launcher = ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh"]
    arguments = [*launcher, *command("doctor", *places(host), "--json")]
    done = subprocess.run(
        arguments, env=surroundings(), capture_output=True, text=True, timeout=DEADLINE_S, check=False
    )
    assert done.stderr == ""
    return {one["check"]: one for one in json.loads(done.stdout)["checks"]}


def test_the_control_groups_are_those_that_this_machine_has_mounted(host):
    kinds = {where: kind for where, (kind, _) in mounts().items()}
    expected = {"check": "cgroups", "result": "OK", "words": "version 1"}
    if kinds.get("/sys/fs/cgroup") == "cgroup2":
        expected["words"] = "version 2"
    elif kinds.get("/sys/fs/cgroup/unified") == "cgroup2":
        expected["words"] = HYBRID
    assert examine(host, status=REFUSED)["cgroups"] == expected


@pytest.mark.parametrize(
    ("result", "words", "commands"),
    [
        ("OK", "version 2", ["mount -t cgroup2 none /sys/fs/cgroup"]),
        ("OK", "version 1", ["mount -t tmpfs none /sys/fs/cgroup", "mkdir /sys/fs/cgroup/memory"]),
        (
            "OK",
            HYBRID,
            [
                "mount -t tmpfs none /sys/fs/cgroup",
                "mkdir /sys/fs/cgroup/memory /sys/fs/cgroup/unified",
                "mount -t cgroup2 none /sys/fs/cgroup/unified",
            ],
        ),
        ("WARN", "none at /sys/fs/cgroup", ["mount -t tmpfs none /sys/fs/cgroup"]),
    ],
)
def test_control_groups_of_each_version_are_told(host, result, words, commands):
    check = examineAfter(host, *commands)["cgroups"]
    assert (check["result"], check["words"]) == (result, words)


def test_containers_in_memory_have_no_quotas(host):
    assert mounts()["/var/lib/lxc"][0] == "tmpfs"
    assert examine(host, status=REFUSED)["quotas"] == {
        "check": "quotas",
        "result": "WARN",
        "words": "the kernel or the file system has none for /var/lib/lxc",
        "todo": "put the containers on ext4 or xfs, mounted with -o prjquota, if limits are to be shown",
    }


def test_quotas_are_on_where_the_file_system_is_mounted_with_them(host):
    kind, options = mounts()["/"]
    if kind != "ext4":
        pytest.skip(f"what this machine's {kind} answers is not known beforehand")
    check = examine(host, "--lxc-path", "/", status=REFUSED)["quotas"]
    if not os.path.exists("/proc/sys/fs/quota"):
        assert (check["result"], check["words"]) == ("WARN", "the kernel or the file system has none for /")
    elif "prjquota" in options:
        assert (check["result"], check["words"]) == ("OK", "project quotas are on for /")
    else:
        assert (check["result"], check["words"]) == ("WARN", "project quotas are off for /")
        assert check["todo"].startswith("mount its file system with -o prjquota ")


def test_a_folder_of_containers_that_is_not_there_is_told(host):
    check = examine(host, "--lxc-path", "/nowhere", status=REFUSED)["quotas"]
    assert check["words"] == "/nowhere: No such file or directory"
    assert check["todo"] == "--lxc-path tells where the containers are"


# ---- what runs ----------------------------------------------------------------------------------------------------


def test_what_runs_is_named_by_its_process(whole):
    assert examine(whole)["upgrade"] == {
        "check": "upgrade",
        "result": "OK",
        "words": f"what is installed is what runs: kxagentd (process {whole.agent.pid}), "
        f"kxsnmp (process {whole.kxsnmp.pid})",
    }


@pytest.mark.parametrize("name", ["kxagentd", "kxsnmp"])
def test_what_runs_from_a_file_that_is_gone_is_older_than_what_is_installed(whole, tmp_path, name):
    with pretender(tmp_path / "bin", name) as (pid, program):
        assert look(whole)["upgrade"]["result"] == "OK"
        program.unlink()
        check = look(whole)["upgrade"]
        assert check["result"] == "WARN"
        assert check["words"] == f"an older one runs than is installed: {name} (process {pid})"
        assert check["todo"] == f"systemctl restart {name}"


def test_whether_it_is_older_cannot_be_told_to_others_than_root(whole):
    done = runAsNobody(whole.folder / "everybody", "doctor", *places(whole))
    assert re.search(r"^WARN  upgrade .* cannot be told of kxagentd .*: run this as root$", done.stdout, re.MULTILINE)


# ---- the SNMP side ------------------------------------------------------------------------------------------------


def test_a_view_without_the_subtree_is_told_with_the_line_that_adds_it(whole):
    """The view has the name that it has on Debian."""

    def withoutSubtree(config):
        return re.sub(r"view kx included \.1\.3\.6\.1\.4.*\n", "", config).replace(" kx", " systemonly")

    configureSnmpd(whole, withoutSubtree)
    check = lookUntil(whole, "view", "FAIL")
    joined = examine(whole, status=REFUSED)["kxsnmp"]
    assert joined["words"] == f"it runs (process {whole.kxsnmp.pid}), and snmpd has 1 sub-agent connections"
    configureSnmpd(whole, lambda config: config + quotedIn(check) + "\n")
    lookUntil(whole, "view", "OK")
    assert examine(whole)["kxsnmp"]["result"] == "OK"


def test_a_community_that_gets_no_answer_is_told(whole):
    checks = examine(whole, "--community", "wrong", status=REFUSED)
    assert checks["view"]["result"] == "FAIL"
    assert "Timeout" in checks["view"]["words"] and "-v2c -c COMMUNITY" in checks["view"]["todo"]


SNMPV3 = {"-u": "operator", "-l": "authPriv", "-a": "SHA", "-A": "authenticated", "-x": "AES", "-X": "encrypted"}
SNMPV3_DEFAULTS = """defVersion 3
defSecurityName operator
defSecurityLevel authPriv
defAuthType SHA
defAuthPassphrase authenticated
defPrivType AES
defPrivPassphrase encrypted
"""


def test_a_host_with_snmpv3_only_is_asked_as_snmpget_would(whole, tmp_path, monkeypatch):
    def withoutCommunities(config):
        config = re.sub(r"(?m)^r[ow]community .*\n", "", config)
        return config + "createUser operator SHA authenticated AES encrypted\nrouser operator priv -V kx\n"

    configureSnmpd(whole, withoutCommunities, isPublic=False)
    check = lookUntil(whole, "view", "FAIL")
    assert "does not answer" in check["words"] and "-- -v2c" in check["todo"] and "-v3 -u USER" in check["todo"]
    options = ["--", "-v3", *(word for option in SNMPV3.items() for word in option)]
    waitUntil(lambda: look(whole, *options)["view"]["result"] == "OK", REJOIN_DEADLINE_S, "the user sees the subtree")
    assert look(whole, *options[:-1], "wrong-words")["view"]["result"] == "FAIL"
    (tmp_path / "snmp.conf").write_text(SNMPV3_DEFAULTS)
    monkeypatch.setenv("SNMPCONFPATH", str(tmp_path))
    assert look(whole)["view"]["result"] == "OK"


def test_two_sub_agents_are_told_and_one_is_kept(whole, tmp_path):
    with pretender(tmp_path / "bin", "kxsnmp") as (pid, _):
        check = examine(whole, status=REFUSED)["sub-agents"]
        pids = sorted([whole.kxsnmp.pid, int(pid)])
        assert check["words"] == f"2 run (processes {pids[0]}, {pids[1]}): every alert is sent as often"
        # None is a service's here, so the one that has the lowest number is kept.
        assert check["todo"] == f"keep one: kill {pids[1]}"
        subprocess.run(["sh", "-c", check["todo"].removeprefix("keep one: ")], check=True)
        waitUntil(lambda: "sub-agents" not in look(whole), DEADLINE_S, "one is left")


def test_an_absent_sub_agent_is_told(host):
    host.snmpd.start()
    checks = examine(host, status=REFUSED)
    assert checks["kxsnmp"]["result"] == "FAIL" and "systemctl start kxsnmp" in checks["kxsnmp"]["todo"]
    assert checks["view"]["result"] == "WARN"


def test_a_sub_agent_in_a_container_is_not_this_hosts(host, tmp_path):
    host.snmpd.start()
    launcher = ["unshare", "--pid", "--fork", "--kill-child"]
    with pretender(tmp_path / "bin", "kxsnmp", launcher):
        assert examine(host, status=REFUSED)["kxsnmp"]["words"] == "it does not run"
    with pretender(tmp_path / "more", "kxsnmp") as (pid, _):
        assert examine(host, status=REFUSED)["kxsnmp"]["words"] == f"it runs (process {pid}), but has not joined snmpd"


def test_of_several_sub_agents_the_one_that_has_joined_counts(host, tmp_path):
    """In a network namespace of its own, as its unit has it, its connections are its own."""
    host.agent.writeInventory(INVENTORY)
    host.snmpd.start()
    host.agent.start()
    with pretender(tmp_path / "first", "kxsnmp"):
        host.kxsnmp.start(launcher=["unshare", "--net"])
        with pretender(tmp_path / "last", "kxsnmp"):
            configureSnmpd(host, lambda config: config.replace(f"view kx included .{SUBTREE}\n", ""))
            lookUntil(host, "view", "FAIL")
            words = examine(host, status=REFUSED)["kxsnmp"]["words"]
            assert words == f"it runs (process {host.kxsnmp.pid}), and snmpd has 1 sub-agent connections"


def test_an_absent_master_is_told(host):
    checks = examine(host, status=REFUSED)
    assert checks["agentx socket"]["result"] == "FAIL" and "master agentx" in checks["agentx socket"]["todo"]
    assert checks["view"]["result"] == "FAIL" and "does not answer" in checks["view"]["words"]


def test_rights_to_the_masters_socket_are_those_of_the_sub_agents_user(whole):
    check = examine(whole, user="nobody", status=REFUSED)["agentx rights"]
    assert f"nobody may not use {whole.snmpd.socket} (" in check["words"]
    configureSnmpd(whole, lambda config: config + quotedIn(check) + "\n")
    lookUntil(whole, "agentx rights", "OK", user="nobody")
    lookUntil(whole, "kxsnmp", "OK")


def test_rights_to_the_folder_of_the_masters_socket_are_told(whole):
    configureSnmpd(whole, lambda config: config + "agentXPerms 0666\n")
    lookUntil(whole, "kxsnmp", "OK")
    whole.snmpd.folder.chmod(0o700)
    check = examine(whole, user="nobody", status=REFUSED)["agentx rights"]
    assert check["words"] == f"nobody may not use {whole.snmpd.folder} (root:root 0700)"
    subprocess.run(["sh", "-c", check["todo"]], check=True)
    assert examine(whole, user="nobody")["agentx rights"]["result"] == "OK"


def test_a_user_that_is_not_there_has_no_rights_to_look_at(whole):
    assert examine(whole, user="kx-no-such-user")["agentx rights"]["result"] == "WARN"


def test_who_may_not_look_at_the_masters_socket_is_told_so(whole):
    whole.snmpd.folder.chmod(0o700)
    done = runAsNobody(whole.folder / "everybody", "doctor", *places(whole))
    assert re.search(r"^WARN  agentx socket .*: you may not look: run this as root$", done.stdout, re.MULTILINE)


def test_a_sub_agent_that_has_not_reached_the_agent_is_told(host):
    elsewhere = host.folder / "agent.sock"
    host.agent.config.write_text(host.agent.config.read_text().replace(Agent.SOCKET, str(elsewhere)))
    host.agent.writeInventory(INVENTORY)
    host.snmpd.start()
    host.agent.start()
    host.kxsnmp.start()
    host.waitForSubtree()
    for socket in (Agent.SOCKET, elsewhere):
        checks = examine(host, "--socket", socket, status=REFUSED)
        assert (checks["view"]["result"], checks["kxsnmp link"]["result"]) == ("OK", "FAIL")
        assert "kxagent kxsnmp" in checks["kxsnmp link"]["todo"]


def test_a_host_without_snmp_tools_can_still_be_examined(whole):
    checks = {}
    done = run("doctor", *places(whole), env={"PATH": "/nowhere"}, text=True)
    for line in done.stdout.splitlines():
        checks[line[6:19].strip()] = line
    for name in ("view", "mib"):
        assert checks[name].startswith("WARN") and "apt-get install snmp" in checks[name]


# ---- the MIB module -----------------------------------------------------------------------------------------------


def test_names_are_made_to_resolve_one_obstacle_after_the_other(host, tmp_path, monkeypatch):
    folder, config = tmp_path / "mibs", tmp_path / "snmp.conf"
    folder.mkdir()
    config.write_text("mibs :\n")  # as Debian has it
    monkeypatch.setenv("MIBDIRS", str(folder))
    monkeypatch.setenv("SNMPCONFPATH", str(tmp_path))
    monkeypatch.delenv("MIBS", raising=False)

    def mib():
        found = examine(host, status=REFUSED)["mib"]
        assert ("todo" in found) == (found["result"] == "WARN")
        return found

    assert mib()["words"] == f"net-snmp's tools do not find CORVANE-MIB in {folder}"
    shutil.copy(MODULE_FILE, folder)
    assert mib()["words"].startswith("CORVANE-MIB stands on modules that are missing: SNMPv2-SMI")
    shutil.copytree(BASE_MODULES, folder, dirs_exist_ok=True)
    check = mib()
    assert check["words"] == "net-snmp's tools can read CORVANE-MIB, but do not load it by themselves"
    config.write_text(quotedIn(check) + "\n")
    assert mib() == {"check": "mib", "result": "OK", "words": "net-snmp's tools know the names of CORVANE-MIB"}


def test_modules_that_the_environment_names_go_before_those_of_the_configuration(host, monkeypatch, tmp_path):
    (tmp_path / "snmp.conf").write_text("mibs SNMPv2-MIB:CORVANE-MIB\n")
    monkeypatch.setenv("SNMPCONFPATH", str(tmp_path))
    monkeypatch.setenv("MIBDIRS", f"{MODULE_FILE.parent}:{BASE_MODULES}")
    monkeypatch.setenv("MIBS", "SNMPv2-MIB")
    assert "in MIBS, which the environment has" in examine(host, status=REFUSED)["mib"]["todo"]
    monkeypatch.setenv("MIBS", "SNMPv2-MIB:CORVANE-MIB")
    assert examine(host, status=REFUSED)["mib"]["result"] == "OK"
