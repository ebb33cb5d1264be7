"""Real containers: what LXC does is in the table within a second."""

import re
import subprocess
from pathlib import Path

import pytest
from support.host import APPLICATION_TEMPLATES, ENTRY, IP_ADDRESSES, PRODUCT_VERSION, Host
from support.snmp import IP_ADDRESS, OCTET_STRING, UNSIGNED32, Varbind
from support.wait import waitUntil

SET_UP_WITHIN_S = 20
NOTICED_WITHIN_S = 1.0
ADDRESS_NOTICED_WITHIN_S = 2.0
STOPPED, RUNNING, FROZEN = 1, 2, 3
FIRST_GIVEN_NUMBER = 1000000

NAME, HOSTNAME, DESCRIPTION, OS_TEMPLATE, BASE_SAMPLE, STATE, TRANSITION = range(3, 10)


@pytest.fixture
def labHost(lab):
    """A host whose agent reads the lab's containers: "101" and "102", and "web", which has no number as its name."""
    made = Host()
    try:
        for name in ("101", "102", "web"):
            lab.do("create", name)
        made.agent.writeConfig('backend = "lxc"')
        made.agent.start(lab.launcher)
        made.snmpd.start()
        made.kxsnmp.start()
        made.waitForSubtree()
        waitUntil(lambda: len(table(made)) >= 3, SET_UP_WITHIN_S, "the three containers are shown")
        yield made
    finally:
        try:
            lab.destroyAll()
        finally:
            made.closeAndJudge()


def table(host):
    """VE id -> column -> value. A walk is many requests, so a row that comes or goes meanwhile may be seen in some
    columns only."""
    rows = {}
    for varbind in host.client.bulkwalk(ENTRY, 20):
        column, veid = varbind.oid[-2:]
        rows.setdefault(veid, {})[column] = varbind.value
    return rows


def addresses(host, veid):
    """The rows of a container in the address table: address -> column -> dotted quad. A walk is many requests, so a
    row that comes or goes meanwhile may be seen in one column only."""
    rows = {}
    for varbind in host.client.bulkwalk(IP_ADDRESSES + (1,), 20):
        assert varbind.tag == IP_ADDRESS
        column, owner, *quad = varbind.oid[len(IP_ADDRESSES) + 1 :]
        if owner == veid:
            rows.setdefault(".".join(map(str, quad)), {})[column] = ".".join(map(str, varbind.value))
    return rows


def waitForAddresses(host, veid, masks):
    expected = {address: {1: address, 2: mask} for address, mask in masks.items()}
    waitUntil(
        lambda: addresses(host, veid) == expected, ADDRESS_NOTICED_WITHIN_S, f"container {veid} is shown with {masks}"
    )


def waitForState(host, veid, state):
    def shown():
        row = table(host).get(veid)
        return row is not None and (row.get(STATE), row.get(TRANSITION)) == (state, 0)

    waitUntil(shown, NOTICED_WITHIN_S, f"container {veid} is shown in state {state}")


def test_three_containers_are_shown_with_their_configuration(labHost, lab):
    rows = table(labHost)
    assert {veid: row[NAME] for veid, row in rows.items()} == {101: b"101", 102: b"102", FIRST_GIVEN_NUMBER: b"web"}
    for row in rows.values():
        assert row[HOSTNAME] == row[NAME] + b".example.test"
        assert row[OS_TEMPLATE] == b"busyboxlab/1.35"
        assert (row[STATE], row[TRANSITION]) == (STOPPED, 0)


@pytest.mark.parametrize("name, veid", [("101", 101), ("web", FIRST_GIVEN_NUMBER)])
def test_start_freeze_unfreeze_and_stop_are_seen_within_a_second(labHost, lab, name, veid):
    for action, state in [
        ("start", RUNNING),
        ("freeze", FROZEN),
        ("unfreeze", RUNNING),
        ("stop", STOPPED),
        ("start", RUNNING),
    ]:
        lab.do(action, name)
        waitForState(labHost, veid, state)
    others = {other: row[STATE] for other, row in table(labHost).items() if other != veid}
    assert set(others.values()) == {STOPPED}


def test_addresses_are_the_configured_ones_until_it_runs_and_then_those_it_has(labHost, lab):
    address, prefix = lab.configuredAddress("101")
    assert prefix == 16
    waitForAddresses(labHost, 101, {address: "255.255.0.0"})
    lab.do("start", "101")
    waitForState(labHost, 101, RUNNING)
    lab.ip("101", "addr", "add", "10.99.0.1/24", "dev", "eth0")
    waitForAddresses(labHost, 101, {address: "255.255.0.0", "10.99.0.1": "255.255.255.0"})
    lab.ip("101", "addr", "add", "10.99.1.1/32", "dev", "lo")
    lab.ip("101", "addr", "del", f"{address}/{prefix}", "dev", "eth0")
    waitForAddresses(labHost, 101, {"10.99.0.1": "255.255.255.0", "10.99.1.1": "255.255.255.255"})
    lab.do("freeze", "101")
    lab.ip("101", "addr", "del", "10.99.0.1/24", "dev", "eth0")
    waitForAddresses(labHost, 101, {"10.99.1.1": "255.255.255.255"})
    lab.do("stop", "101")
    waitForAddresses(labHost, 101, {address: "255.255.0.0"})
    assert set(addresses(labHost, 102)) == {lab.configuredAddress("102")[0]}


def test_the_product_version_is_the_agents_own(labHost):
    told = subprocess.run([labHost.agent.program, "--version"], stdout=subprocess.PIPE, text=True, check=True).stdout
    assert labHost.client.get([PRODUCT_VERSION])[0].value.decode() == told.split()[-1]


def test_the_agent_takes_all_descriptors_that_it_may_have(labHost, lab):
    labHost.agent.stop()
    labHost.agent.start([*lab.launcher, "prlimit", "--nofile=64:4000"])
    limits = Path(f"/proc/{labHost.agent.pid}/limits").read_text()
    assert re.search(r"Max open files\s+4000\s+4000", limits), limits


def test_create_and_destroy_are_seen_within_a_second(labHost, lab):
    lab.do("create", "103", "fresh.example")
    waitUntil(lambda: 103 in table(labHost), NOTICED_WITHIN_S, "the new container is shown")
    assert table(labHost)[103][HOSTNAME] == b"fresh.example"
    lab.do("start", "103")
    waitForState(labHost, 103, RUNNING)
    lab.do("destroy", "103")
    waitUntil(lambda: 103 not in table(labHost), NOTICED_WITHIN_S, "the destroyed container is gone")
    assert len(table(labHost)) == 3


def test_a_container_that_ends_by_itself_is_seen_within_a_second(labHost, lab):
    lab.do("start", "102")
    waitForState(labHost, 102, RUNNING)
    # What it does may end what does it; how that went is told by the container's state.
    poweroff = lab.spawn("102", "exec /bin/poweroff -f")
    try:
        waitForState(labHost, 102, STOPPED)
    finally:
        poweroff.wait(SET_UP_WITHIN_S)


def test_the_file_beside_the_configuration_adds_description_and_base_sample_and_templates(labHost, lab):
    sample = "0f8e5c1a-7a44-4c3b-9d1e-0000000000aa"
    listed = '[ { name = "nginx", version = "124" }, { name = "b", version = "2.6" }, { name = "php" } ]'
    text = f'description = "front end"\nbase_sample = "{sample}"\ntemplates = {listed}\n'
    lab.writeFile("/var/lib/lxc/101/kx.toml", text)

    def shown():
        row = table(labHost)[101]
        return (row[DESCRIPTION], row[BASE_SAMPLE]) == (b"front end", sample.encode())

    waitUntil(shown, NOTICED_WITHIN_S, "description and base sample are shown")
    assert labHost.client.walk(APPLICATION_TEMPLATES) == templates(101, {"b": 2, "php": 0, "nginx": 124})
    lab.writeFile("/var/lib/lxc/101/kx.toml", "templates = []\n")
    waitUntil(lambda: not labHost.client.walk(APPLICATION_TEMPLATES), NOTICED_WITHIN_S, "no template is shown")


def templates(veid, versions):
    """The template table of one container; the index of a name is its length and its bytes."""
    indexes = {name: (veid, len(name), *name.encode()) for name in versions}
    names = [Varbind(APPLICATION_TEMPLATES + (1, 1) + indexes[name], OCTET_STRING, name.encode()) for name in versions]
    numbers = [Varbind(APPLICATION_TEMPLATES + (1, 2) + indexes[name], UNSIGNED32, versions[name]) for name in versions]
    return names + numbers


def test_one_malformed_configuration_hides_no_other_container(labHost, lab):
    lab.do("create", "104")
    waitUntil(lambda: 104 in table(labHost), NOTICED_WITHIN_S, "the container is shown")
    lab.writeFile("/var/lib/lxc/104/config", "lxc.no.such.key = 1\n")
    lab.do("start", "101")
    waitForState(labHost, 101, RUNNING)
    assert {101, 102, FIRST_GIVEN_NUMBER} <= set(table(labHost))
    lab.do("exec", "rm", "-r", "/var/lib/lxc/104")
    waitUntil(lambda: 104 not in table(labHost), NOTICED_WITHIN_S, "the removed container is gone")


def test_given_numbers_and_identifiers_survive_a_restart_of_the_agent(labHost, lab):
    before = table(labHost)
    lab.do("destroy", "web")
    waitUntil(lambda: len(table(labHost)) == 2, NOTICED_WITHIN_S, "the destroyed container is gone")
    labHost.agent.stop()
    labHost.agent.start(lab.launcher)
    lab.do("create", "another")
    lab.do("create", "web")
    waitUntil(lambda: len(table(labHost)) == 4, 10, "all containers are shown")
    after = table(labHost)
    assert after[FIRST_GIVEN_NUMBER] == before[FIRST_GIVEN_NUMBER]
    assert after[FIRST_GIVEN_NUMBER + 1][NAME] == b"another"


def test_containers_that_run_before_the_agent_starts_are_shown_running(labHost, lab):
    labHost.agent.stop()
    lab.do("start", "101")
    lab.do("start", "102")
    lab.do("freeze", "102")
    labHost.agent.start(lab.launcher)
    expected = {101: RUNNING, 102: FROZEN, FIRST_GIVEN_NUMBER: STOPPED}
    waitUntil(
        lambda: {veid: row.get(STATE) for veid, row in table(labHost).items()} == expected, 10, "all states are right"
    )
