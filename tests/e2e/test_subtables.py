"""The address and the template table of a described host."""

import pytest
from support import describedhost, snmp
from support.describedhost import ADDRESSES, NAME_114, NAME_120, NO_NUMBER, expectedAddresses, expectedTemplates
from support.host import APPLICATION_TEMPLATES, IP_ADDRESSES
from support.snmp import IP_ADDRESS, OCTET_STRING, UNSIGNED32, Varbind

INVENTORY = describedhost.INVENTORY

TABLES = {
    "addresses": (IP_ADDRESSES, expectedAddresses()),
    "templates": (APPLICATION_TEMPLATES, expectedTemplates()),
}
each_table = pytest.mark.parametrize("table, expected", TABLES.values(), ids=TABLES.keys())

def address(veid, *quad):
    """The index of an address."""
    return (veid, *quad)


def template(veid, name):
    """The index of a template."""
    return (veid, len(name.encode()), *name.encode())


def indexes(client, table):
    """The indexes of a table, as a walk of its first column finds them."""
    return [varbind.oid[len(table) + 2 :] for varbind in client.walk(table + (1, 1))]


@each_table
def test_a_getnext_walk_gives_every_row_once_in_order(client, table, expected):
    assert client.walk(table) == expected


@each_table
@pytest.mark.parametrize("maxRepetitions", [1, 3, 100])
def test_a_getbulk_walk_gives_the_same_rows(client, table, expected, maxRepetitions):
    assert client.bulkwalk(table, maxRepetitions) == expected


@each_table
def test_getbulk_of_both_columns_gives_the_rows_side_by_side(client, table, expected):
    rows = len(expected) // 2
    answer = client.getbulk(0, rows, [table + (1, 1), table + (1, 2)])
    assert sorted(answer) == expected
    assert [varbind.oid[len(table) + 1] for varbind in answer] == [1, 2] * rows


@each_table
@pytest.mark.parametrize("column", [0, 3, 4, 255])
def test_a_column_outside_the_table_has_no_value(client, table, expected, column):
    """Tag 3 gives the rows their index, but is no column."""
    index = expected[0].oid[len(table) + 2 :]
    assert client.get([table + (1, column) + index])[0].tag in (snmp.NO_SUCH_INSTANCE, snmp.NO_SUCH_OBJECT)


@each_table
def test_one_row_asked_for_several_times_in_one_request_is_answered_each_time(client, table, expected):
    wanted = expected[:2] * 3
    assert client.get([varbind.oid for varbind in wanted]) == wanted


def test_an_address_row_is_indexed_by_number_and_address_and_carries_the_addresses_bytes(client):
    index = address(101, 10, 0, 0, 1)
    assert client.get([IP_ADDRESSES + (1, 1) + index, IP_ADDRESSES + (1, 2) + index]) == [
        Varbind(IP_ADDRESSES + (1, 1, 101, 10, 0, 0, 1), IP_ADDRESS, bytes([10, 0, 0, 1])),
        Varbind(IP_ADDRESSES + (1, 2, 101, 10, 0, 0, 1), IP_ADDRESS, bytes([255, 255, 255, 0])),
    ]


def test_an_address_that_is_no_dotted_quad_is_shown_as_all_ones_and_so_is_a_wrong_mask(client):
    allOnes = bytes([255] * 4)
    assert client.get([IP_ADDRESSES + (1, 1) + address(7, 255, 255, 255, 255)])[0].value == allOnes
    assert client.get([IP_ADDRESSES + (1, 2) + address(7, 10, 0, 0, 1)])[0].value == allOnes


def test_of_two_rows_with_one_index_the_first_is_answered_and_the_walk_goes_on(client):
    """Container 100 has two addresses that are none, and 10.0.0.1 in two spellings."""
    assert client.get([IP_ADDRESSES + (1, 2) + address(100, 255, 255, 255, 255)])[0].value == bytes([0, 0, 0, 64])
    assert client.get([IP_ADDRESSES + (1, 2) + address(100, 10, 0, 0, 1)])[0].value == bytes([255, 0, 0, 255])
    assert len(ADDRESSES[100]) == 4
    after = client.getnext([IP_ADDRESSES + (1, 1) + address(100, 255, 255, 255, 255)])[0]
    assert after.oid == IP_ADDRESSES + (1, 1, 101, 9, 255, 0, 1)


def test_one_address_in_several_containers_is_a_row_of_each(client):
    found = [index for index in indexes(client, IP_ADDRESSES) if index[1:] == (10, 0, 0, 1)]
    assert found == [address(veid, 10, 0, 0, 1) for veid in (7, 100, 101)]


@each_table
@pytest.mark.parametrize("veid", [0, NO_NUMBER, 2**32 - 7])
def test_a_container_without_a_positive_number_has_no_rows(client, table, expected, veid):
    assert all(index[0] != veid for index in indexes(client, table))
    hidden = {IP_ADDRESSES: address(veid, 10, 9, 9, 9), APPLICATION_TEMPLATES: template(veid, "hidden")}[table]
    assert client.get([table + (1, 1) + hidden])[0].tag == snmp.NO_SUCH_INSTANCE


def test_a_template_with_an_empty_name_has_an_index_of_length_0(client):
    oid = APPLICATION_TEMPLATES + (1, 1, 101, 0)
    assert client.get([oid]) == [Varbind(oid, OCTET_STRING, b"")]


def test_a_template_with_an_empty_version_has_version_0(client):
    oid = APPLICATION_TEMPLATES + (1, 2) + template(101, "php")
    assert client.get([oid]) == [Varbind(oid, UNSIGNED32, 0)]


def test_a_name_that_just_fits_into_an_oid_is_shown_and_a_longer_one_is_not(client):
    longest = APPLICATION_TEMPLATES + (1, 1) + template(101, NAME_114)
    assert len(longest) == snmp.MAX_OID_LENGTH
    assert client.get([longest])[0].value == NAME_114.encode()
    names = [varbind.value for varbind in client.walk(APPLICATION_TEMPLATES + (1, 1))]
    assert NAME_120.encode() not in names
