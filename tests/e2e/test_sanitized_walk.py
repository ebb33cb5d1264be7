"""Walks with an agent that comes and goes, and while traps are sent, meant for builds with sanitizers:
KX_BUILD=build/asan, build/tsan.

A sanitizer's report of either program, a leak found at the orderly end included, fails the test that caused it.
"""

import itertools
import os
import signal
import threading

import pytest
from support import snmp
from support.host import ENTRY, NETWORK_COUNTERS, PRODUCT_VERSION, QUOTA_COUNTERS, ROOT, SERVER_EID, TABLE
from support.host import Host, buildFolder
from support.raising import AlertRaiser
from support.traps import SINK_PORT
from support.wait import waitUntil


# The long form of the first reads: KX_FIRST_READ_STARTS=25 KX_FIRST_READ_CONTAINERS=10000.
STARTS = int(os.environ.get("KX_FIRST_READ_STARTS", "3"))
STARTED_CONTAINERS = int(os.environ.get("KX_FIRST_READ_CONTAINERS", "300" if buildFolder().name in ("asan", "tsan") else "2000"))
PUSHES_EVERY_SECOND = "[monitoring]\nperiod_scale = 0.0334\n"
PUSHES_ALL_THE_TIME = "[monitoring]\nperiod_scale = 0.01\n"
A_HUNDRED = '[host]\ngenerate = 100\nproduct_version = "1"\n'
RECONNECT_DEADLINE_S = 30  # sanitized programs are slow to start
ROUNDS = 4
WALKS = 20
ALERTS = 300
ALERTS_AT_ONCE = 10
WALKERS = 2
CHANGED_EVERY_S = 0.1
FIRST_GENERATED_NUMBER = 2001
ARRIVES_WITHIN_S = 60
LEAK_WALKS = 60 if "asan" in buildFolder().name else WALKS  # a leak is only found where one is looked for


def rows(host):
    return len(host.client.bulkwalk(ENTRY + (1,), 50))


def test_a_walk_goes_on_while_the_agent_comes_and_goes(host):
    host.snmpd.start()
    host.kxsnmp.start()
    host.waitForSubtree()
    assert rows(host) == 0
    for round_ in range(ROUNDS):
        count = 100 + 10 * round_
        host.agent.writeInventory(f"[host]\ngenerate = {count}\n")
        host.agent.start()
        waitUntil(lambda: rows(host) == count, RECONNECT_DEADLINE_S, f"{count} rows are shown")  # noqa: B023
        host.agent.stop(signal.SIGKILL if round_ % 2 else signal.SIGTERM)
        assert len(host.client.bulkwalk(TABLE, 20)) == 9 * count
    assert host.stopAll() == 0


def test_walks_and_changes_of_the_inventory_at_the_same_time(host):
    host.startAll(A_HUNDRED)
    done = threading.Event()
    failures = []

    def change():
        for number in range(30):
            host.agent.writeInventory(f"{A_HUNDRED}[[environment]]\nname = 'extra'\nveid = {number + 1}\n")
            if done.wait(0.05):
                break

    changer = threading.Thread(target=change)
    changer.start()
    try:
        for _ in range(WALKS):
            if len(host.client.bulkwalk(ENTRY + (3,), 50)) < 100:
                failures.append("rows are missing")
    finally:
        done.set()
        changer.join()
    assert not failures
    assert host.stopAll() == 0


def test_first_reads_of_counters_meet_pushes_under_a_walking_manager(host):
    """A query's answer is stored without the lock under which pushes are stored."""
    host.agent.writeConfig('backend = "simulated"', PUSHES_EVERY_SECOND)
    host.agent.writeInventory(f"[host]\ngenerate = {STARTED_CONTAINERS}\n")
    host.snmpd.start()
    host.agent.start()
    for _ in range(STARTS):
        host.kxsnmp.start()
        host.waitForSubtree(RECONNECT_DEADLINE_S)
        walker = Walker(host.snmpd.port, QUOTA_COUNTERS, 0)
        walker.start()
        try:
            host.waitForCounters()
            assert len(host.client.getbulk(0, 50, [NETWORK_COUNTERS], timeoutSeconds=20)) == 50
        finally:
            walker.end()
        assert walker.error is None
        assert host.kxsnmp.stop() == 0


def test_walks_of_a_settled_host_leave_nothing_allocated(host):
    host.startAll(A_HUNDRED)
    for _ in range(LEAK_WALKS):
        assert len(host.client.bulkwalk(TABLE, 50)) == 900
        assert len(host.client.get([SERVER_EID, PRODUCT_VERSION])) == 2
        assert host.client.get([ENTRY + (1, 1)])[0].tag == snmp.NO_SUCH_INSTANCE
    assert host.stopAll() == 0


# ---- traps meanwhile ------------------------------------------------------------------------------------------------


@pytest.fixture
def alertedHost(sink):
    """A running host of a hundred containers whose every alert is told, and becomes a trap that the sink gets."""
    made = Host(trapPorts=[SINK_PORT])
    try:
        made.agent.writeConfig(
            'backend = "simulated"',
            "[alerts]\nrepeat_seconds = 0\nper_second = 10000\nburst = 10000\n" + PUSHES_ALL_THE_TIME,
        )
        made.startAll(A_HUNDRED)
        sink.waitForSubscription(FIRST_GENERATED_NUMBER)
        yield made
    finally:
        made.closeAndJudge()


class Walker(threading.Thread):
    """Walks a subtree again and again until end()."""

    def __init__(self, port, root=ROOT, atLeast=900):
        super().__init__()
        self._root, self._atLeast = root, atLeast
        self.walks = 0
        self.error = None
        self._client = snmp.SnmpClient(port, timeoutSeconds=20)
        self._ending = threading.Event()

    def run(self):
        try:
            while not self._ending.is_set():
                assert len(self._client.bulkwalk(self._root, 20)) >= self._atLeast
                self.walks += 1
        except (snmp.SnmpTimeout, snmp.SnmpError, AssertionError) as error:
            self.error = error
        finally:
            self._client.close()

    def end(self):
        self._ending.set()
        self.join()


def raiseAlerts():
    """@return the texts"""
    texts = [b"alert %d" % number for number in range(ALERTS)]
    with AlertRaiser() as raiser:
        for begin in range(0, ALERTS, ALERTS_AT_ONCE):
            for text in texts[begin : begin + ALERTS_AT_ONCE]:
                raiser.send(veid=FIRST_GENERATED_NUMBER, text=text)
            for _ in range(ALERTS_AT_ONCE):
                raiser.confirm()
    return texts


class Changer(threading.Thread):
    """Changes the inventory, adding and removing a container, until end()."""

    def __init__(self, agent):
        super().__init__()
        self._agent = agent
        self._ending = threading.Event()

    def run(self):
        extra = "[[environment]]\nname = 'extra'\nveid = 1\n"
        for number in itertools.count():
            self._agent.writeInventory(A_HUNDRED + extra * (number % 2))
            if self._ending.wait(CHANGED_EVERY_S):
                return

    def end(self):
        self._ending.set()
        self.join()


def test_traps_are_sent_while_walks_are_answered(alertedHost, sink):
    """Traps are sent by one thread and requests answered by another, through one connection to the master agent, while
    counters are pushed and containers come and go."""
    walkers = [Walker(alertedHost.snmpd.port) for _ in range(WALKERS)]
    changer = Changer(alertedHost.agent)
    for thread in [*walkers, changer]:
        thread.start()
    try:
        waitUntil(lambda: all(walker.walks or walker.error for walker in walkers), ARRIVES_WITHIN_S, "they walk")
        expected = raiseAlerts()
        traps = sink.waitFor(ALERTS, ARRIVES_WITHIN_S)
    finally:
        for thread in [*walkers, changer]:
            thread.end()
    assert [walker.error for walker in walkers] == [None] * WALKERS
    assert [trap.variables[1].value for trap in traps] == expected
    assert alertedHost.kxsnmp.stop() == 0
    assert alertedHost.agent.stop() == 0
