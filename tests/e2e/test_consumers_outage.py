"""What consumers are told when a part of the chain is missing: every part has an alert of its own."""

import pytest
from support import process
from support.nagios import CRITICAL, OK, check
from support.prometheus import HASTE, WINDOW, Prometheus, SnmpExporter, hastyConfig
from support.wait import waitUntil

PATIENCE_S = 60
INVENTORY = """
[[environment]]
name = "web"
veid = 101
state = 2
[environment.counters.counters_kx_net."2"]
packets_in = { value = 10, per_second = 100 }
packets_out = { value = 20, per_second = 200 }
"""


@pytest.fixture
def watchedHost(host):
    """A host whose management agent has never been reached, with a Prometheus that scrapes it."""
    host.agent.writeConfig('backend = "simulated"', HASTE)
    host.agent.writeInventory(INVENTORY)
    host.snmpd.start()
    host.kxsnmp.start()
    host.waitForSubtree()
    with SnmpExporter(host.folder), Prometheus(host.folder, hastyConfig(host.folder, host.snmpd.port)) as running:
        host.prometheus = running
        yield host


def waitForAlerts(host, *names):
    waitUntil(lambda: host.prometheus.firing() == set(names), PATIENCE_S, f"the alerts that fire are {names}")


def test_each_part_that_is_missing_is_told_by_its_own_alert(watchedHost):
    waitForAlerts(watchedHost, "KxServerIdMissing")
    status, line = check(watchedHost.snmpd.port, "check_kxsnmp!agent")
    assert (status, "has not reached the management agent" in line) == (CRITICAL, True), line

    watchedHost.agent.start()
    waitForAlerts(watchedHost)
    assert check(watchedHost.snmpd.port, "check_kxsnmp!agent")[0] == OK
    counting = f"rate(kxVeNetstatPacketsIn[{WINDOW}]) > 0"
    waitUntil(lambda: watchedHost.prometheus.query(counting), PATIENCE_S, "packets count")

    process.endHard(watchedHost.agent.pid)
    waitForAlerts(watchedHost, "KxCountersStandStill")

    watchedHost.kxsnmp.stop()
    waitForAlerts(watchedHost, "KxSubAgentDown")

    watchedHost.snmpd.stop()
    waitForAlerts(watchedHost, "KxScrapeFails")
