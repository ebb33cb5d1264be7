"""Walks with an agent that comes and goes, meant for builds with sanitizers: KX_BUILD=build/asan, build/tsan.

A sanitizer's report of either program, a leak found at the orderly end included, fails the test that caused it.
"""

import signal
import threading

from support import snmp
from support.host import ENTRY, PRODUCT_VERSION, SERVER_EID, TABLE, buildFolder
from support.wait import waitUntil

A_HUNDRED = '[host]\ngenerate = 100\nproduct_version = "1"\n'
RECONNECT_DEADLINE_S = 30  # sanitized programs are slow to start
ROUNDS = 4
WALKS = 20
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


def test_walks_of_a_settled_host_leave_nothing_allocated(host):
    host.startAll(A_HUNDRED)
    for _ in range(LEAK_WALKS):
        assert len(host.client.bulkwalk(TABLE, 50)) == 900
        assert len(host.client.get([SERVER_EID, PRODUCT_VERSION])) == 2
        assert host.client.get([ENTRY + (1, 1)])[0].tag == snmp.NO_SUCH_INSTANCE
    assert host.stopAll() == 0
