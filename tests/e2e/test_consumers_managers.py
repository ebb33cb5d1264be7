"""Managers with SNMP implementations of their own see the same tree as ours, value for value."""

import pytest
from support import describedhost
from support.consumers import WALKERS, walkWith
from support.describedhost import expectedTables
from support.host import PRODUCT_VERSION, SERVER_EID

INVENTORY = describedhost.INVENTORY


@pytest.fixture(scope="module")
def describedHost(describedHost):
    """An answer that the agent was late with is without counters."""
    describedHost.waitForCounters()
    return describedHost


@pytest.mark.parametrize("method", ["getnext", "getbulk"])
@pytest.mark.parametrize("walker", WALKERS)
def test_a_walk_of_everything_finds_the_expected_tree(describedHost, client, walker, method):
    scalars = client.get([SERVER_EID, PRODUCT_VERSION])
    assert walkWith(walker, method, describedHost.snmpd.port) == scalars + expectedTables()
