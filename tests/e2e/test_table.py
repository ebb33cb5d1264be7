"""The container table of a described host, compared whole: every OID, type and value."""

import pytest
from support import describedhost, snmp
from support.describedhost import NO_NUMBER, ROWS, expectedAddresses, expectedContainers
from support.host import ENTRY, ROOT, SERVER_EID, TABLE

INVENTORY = describedhost.INVENTORY
COLUMNS = range(1, 10)


def test_a_getnext_walk_of_the_table_gives_every_row_and_ends(client):
    assert client.walk(TABLE) == expectedContainers()


@pytest.mark.parametrize("maxRepetitions", [1, 2, 10, 50, 200])
def test_a_getbulk_walk_gives_the_same_rows(client, maxRepetitions):
    assert client.bulkwalk(TABLE, maxRepetitions) == expectedContainers()


def test_getbulk_of_nine_columns_gives_the_rows_side_by_side(client):
    answer = client.getbulk(0, len(ROWS), [ENTRY + (column,) for column in COLUMNS])
    assert sorted(answer) == expectedContainers()
    assert [varbind.oid[-2] for varbind in answer] == list(COLUMNS) * len(ROWS)


def test_getbulk_with_non_repeaters_steps_over_each_once(client):
    answer = client.getbulk(2, 3, [ROOT, ENTRY + (2,), ENTRY + (1,), ENTRY + (8, 100)])
    indexes = sorted(ROWS)
    expected = [SERVER_EID, ENTRY + (2, indexes[0])]
    for row, afterRow100 in zip(indexes, indexes[3:]):
        expected += [ENTRY + (1, row), ENTRY + (8, afterRow100)]
    assert [varbind.oid for varbind in answer] == expected[: 2 + 3 * 2]


def test_a_get_of_one_instance_several_times_answers_each(client):
    wanted = [varbind for varbind in expectedContainers() if varbind.oid[-1] == 101]
    assert client.get([varbind.oid for varbind in wanted] * 3) == wanted * 3


def test_a_container_without_a_number_has_the_highest_index_and_ends_the_column(client):
    oid = ENTRY + (4, NO_NUMBER)
    assert client.get([oid])[0].value == b"nameless.example"
    assert client.getnext([oid])[0].oid == ENTRY + (5, 0)
    assert client.getnext([ENTRY + (9, NO_NUMBER)])[0] == expectedAddresses()[0]


def test_environments_of_other_types_are_no_rows(client):
    others = [ENTRY + (1, veid) for veid in (11, 150, 151, 152, 9999)]
    assert {varbind.tag for varbind in client.get(others)} == {snmp.NO_SUCH_INSTANCE}


@pytest.mark.parametrize("column", [0, 10, 11, 255])
def test_a_column_outside_the_table_has_no_value(client, column):
    """The SNMP library itself refuses such a column, as no object at all, before the table is asked."""
    for veid in (0, 101, 555):
        assert client.get([ENTRY + (column, veid)])[0].tag in (snmp.NO_SUCH_INSTANCE, snmp.NO_SUCH_OBJECT)


def test_getnext_from_column_zero_finds_the_first_column(client):
    assert client.getnext([ENTRY + (0, 101)])[0].oid == ENTRY + (1, 0)


def test_getnext_from_column_ten_leaves_the_table(client):
    assert client.getnext([ENTRY + (10,)])[0] == expectedAddresses()[0]
