"""The quota and the network counters of a described host."""

import pytest
from support import describedhost, snmp
from support.describedhost import expectedNetwork, expectedQuota
from support.host import NETWORK_COUNTERS, QUOTA_COUNTERS

INVENTORY = describedhost.INVENTORY

TABLES = {
    "quota": (QUOTA_COUNTERS, expectedQuota()),
    "network": (NETWORK_COUNTERS, expectedNetwork()),
}
each_table = pytest.mark.parametrize("table, expected", TABLES.values(), ids=TABLES.keys())


@pytest.fixture(scope="module", autouse=True)
def counters(describedHost):
    """An answer that the agent was late with is without them."""
    describedHost.waitForCounters()


def bytesIn(veid, instance=1):
    return NETWORK_COUNTERS + (1, 2, veid, instance)


def used(veid):
    return QUOTA_COUNTERS + (1, 1, veid)


@each_table
def test_a_getnext_walk_gives_every_row_once_in_order(client, table, expected):
    assert client.walk(table) == expected


@each_table
@pytest.mark.parametrize("maxRepetitions", [1, 5, 100])
def test_a_getbulk_walk_gives_the_same_rows(client, table, expected, maxRepetitions):
    assert client.bulkwalk(table, maxRepetitions) == expected


@each_table
def test_each_instance_alone_gives_its_value(client, table, expected):
    for varbind in expected:
        assert client.get([varbind.oid]) == [varbind]


@each_table
@pytest.mark.parametrize("column", [0, 6, 9, 10, 255])
def test_a_column_outside_the_table_has_no_value(client, table, expected, column):
    """The rows give their container's number under the tag behind the last column, but that is no column."""
    if table == QUOTA_COUNTERS and column == 6:
        return
    index = expected[0].oid[len(table) + 2 :]
    assert client.get([table + (1, column) + index])[0].tag in (snmp.NO_SUCH_INSTANCE, snmp.NO_SUCH_OBJECT)


def test_several_quota_instances_of_a_container_are_one_row_of_which_the_first_is_shown(client):
    assert client.get([used(101)])[0].value == 1000000
    assert client.getnext([used(101)])[0].oid == used(102)


def test_an_instance_that_is_no_number_has_the_number_0_and_one_that_begins_with_digits_has_theirs(client):
    assert client.get([bytesIn(101, 0)])[0].value == 8
    assert client.get([bytesIn(101, 7)])[0].value == 7
