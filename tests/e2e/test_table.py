"""The container table of a described host, compared whole: every OID, type and value."""

import random

import pytest
from support import snmp
from support.host import ENTRY, PRODUCT_VERSION, ROOT, SERVER_EID, TABLE
from support.snmp import INTEGER, OCTET_STRING, UNSIGNED32, Varbind

LONG_NAME = "n" * 255
LONG_DESCRIPTION = "0123456789" * 400
NO_SAMPLE = "00000000-0000-0000-0000-000000000000"
NO_NUMBER = 4294967295

INVENTORY = f"""
[host]
product_version = "7.0.1-42"

[[environment]]
name = "first of another type"
type = "host"
veid = 11
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000011"

[[environment]]
name = "web"
veid = 101
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000101"
hostname = "web.example"
description = "front end"
os_template = {{ name = "debian", version = "12" }}
base_sample = "0f8e5c1a-7a44-4c3b-9d1e-0000000000aa"
state = 2
transition = 0

[[environment]]
name = "zero"
veid = 0
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000000"
state = 1
transition = 1

[[environment]]
name = "between, and its type differs in case"
type = "Lumetra"
veid = 150
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000150"

[[environment]]
name = "without a number"
eid = "0f8e5c1a-7a44-4c3b-9d1e-0000000000ff"
hostname = "nameless.example"
os_template = {{ name = "alpine", version = "" }}
state = 3
transition = 4

[[environment]]
name = "between, and its type is longer"
type = "lumetra2"
veid = 151
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000151"

[[environment]]
name = "between, and its type is empty"
type = ""
veid = 152
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000152"

[[environment]]
name = "with \\"double\\" and 'single' quotes"
veid = 7
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000007"
hostname = '"quoted"'
description = "a \\\\ and a \\""
os_template = {{ name = "", version = "9" }}

[[environment]]
name = "seen\\u0000unseen"
veid = 103
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000103"
hostname = "host\\u0000unseen"
description = "\\u0000all unseen"
os_template = {{ name = "fedora", version = "39" }}

[[environment]]
name = "größe 日本 \\U0001F433"
veid = 102
eid = "0F8E5C1A-7A44-4C3B-9D1E-000000000102"
hostname = "münchen.example"
description = "\\t tab and\\n new line"

[[environment]]
name = ""
veid = 2147483647
eid = "0f8e5c1a-7a44-4c3b-9d1e-00007fffffff"
hostname = ""
description = ""
os_template = {{ name = "", version = "" }}
state = -1
transition = 2147483647

[[environment]]
name = "{LONG_NAME}"
veid = 100
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000100"
description = "{LONG_DESCRIPTION}"
state = -2147483648
transition = 5

[[environment]]
name = "a negative number"
veid = -7
eid = "0f8e5c1a-7a44-4c3b-9d1e-0000fffffff9"
base_sample = "{NO_SAMPLE}"

[[environment]]
name = "last of another type"
type = "template"
veid = 9999
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000009999"
"""

_EID = "0f8e5c1a-7a44-4c3b-9d1e-"

# VE id: identifier, name, host name, description, OS template, base sample, state, transition.
ROWS = {
    0: (_EID + "000000000000", "zero", "", "", "", NO_SAMPLE, 1, 1),
    7: (_EID + "000000000007", "with \"double\" and 'single' quotes", '"quoted"', 'a \\ and a "', "", NO_SAMPLE, 0, 0),
    100: (_EID + "000000000100", LONG_NAME, "", LONG_DESCRIPTION, "", NO_SAMPLE, -2147483648, 5),
    101: (_EID + "000000000101", "web", "web.example", "front end", "debian/12", _EID + "0000000000aa", 2, 0),
    102: (_EID + "000000000102", "größe 日本 🐳", "münchen.example", "\t tab and\n new line", "", NO_SAMPLE, 0, 0),
    103: (_EID + "000000000103", "seen", "host", "", "fedora/39", NO_SAMPLE, 0, 0),
    2147483647: (_EID + "00007fffffff", "", "", "", "", NO_SAMPLE, -1, 2147483647),
    4294967289: (_EID + "0000fffffff9", "a negative number", "", "", "", NO_SAMPLE, 0, 0),
    NO_NUMBER: (_EID + "0000000000ff", "without a number", "nameless.example", "", "alpine", NO_SAMPLE, 3, 4),
}

COLUMNS = range(1, 10)


def expectedTable():
    """Every varbind of the table in OID order."""
    varbinds = []
    for veid, values in ROWS.items():
        varbinds.append(Varbind(ENTRY + (1, veid), UNSIGNED32, veid))
        for column, value in enumerate(values, start=2):
            isText = isinstance(value, str)
            typed = (OCTET_STRING, value.encode()) if isText else (INTEGER, value)
            varbinds.append(Varbind(ENTRY + (column, veid), *typed))
    return sorted(varbinds)


@pytest.fixture
def client(describedHost):
    return describedHost.client


@pytest.fixture
def wholeTree(client):
    """The expected table behind the scalars. The server's identifier is the agent's own, so it is asked."""
    scalars = client.get([SERVER_EID, PRODUCT_VERSION])
    return scalars + expectedTable()


def test_a_getnext_walk_of_the_table_gives_every_row_and_ends(client):
    assert client.walk(TABLE) == expectedTable()


@pytest.mark.parametrize("maxRepetitions", [1, 2, 10, 50, 200])
def test_a_getbulk_walk_gives_the_same_rows(client, maxRepetitions):
    assert client.bulkwalk(TABLE, maxRepetitions) == expectedTable()


def test_getbulk_of_nine_columns_gives_the_rows_side_by_side(client):
    answer = client.getbulk(0, len(ROWS), [ENTRY + (column,) for column in COLUMNS])
    assert sorted(answer) == expectedTable()
    assert [varbind.oid[-2] for varbind in answer] == list(COLUMNS) * len(ROWS)


def test_getbulk_with_non_repeaters_steps_over_each_once(client):
    answer = client.getbulk(2, 3, [ROOT, ENTRY + (2,), ENTRY + (1,), ENTRY + (8, 100)])
    indexes = sorted(ROWS)
    expected = [SERVER_EID, ENTRY + (2, indexes[0])]
    for row, afterRow100 in zip(indexes, indexes[3:]):
        expected += [ENTRY + (1, row), ENTRY + (8, afterRow100)]
    assert [varbind.oid for varbind in answer] == expected[: 2 + 3 * 2]


def test_getbulk_past_the_last_column_says_that_the_view_ends(client):
    answer = client.getbulk(0, 3, [ENTRY + (9, NO_NUMBER)])
    assert {varbind.tag for varbind in answer} == {snmp.END_OF_MIB_VIEW}


def test_a_get_of_each_instance_gives_its_value(client):
    for varbind in expectedTable():
        assert client.get([varbind.oid]) == [varbind]


def test_a_get_of_all_instances_at_once_keeps_the_order_asked_for(client):
    wanted = expectedTable()
    random.Random(1).shuffle(wanted)
    assert client.get([varbind.oid for varbind in wanted]) == wanted


def test_a_get_of_one_instance_several_times_answers_each(client):
    wanted = [varbind for varbind in expectedTable() if varbind.oid[-1] == 101]
    assert client.get([varbind.oid for varbind in wanted] * 3) == wanted * 3


def test_a_container_without_a_number_has_the_highest_index_and_ends_the_column(client):
    oid = ENTRY + (4, NO_NUMBER)
    assert client.get([oid])[0].value == b"nameless.example"
    assert client.getnext([oid])[0].oid == ENTRY + (5, 0)
    assert client.getnext([ENTRY + (9, NO_NUMBER)])[0].tag == snmp.END_OF_MIB_VIEW


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
    assert client.getnext([ENTRY + (10,)])[0].tag == snmp.END_OF_MIB_VIEW


def test_getnext_from_the_root_visits_the_scalars_and_then_the_tables(client, wholeTree):
    assert client.walk(ROOT) == wholeTree
    assert [varbind.oid for varbind in wholeTree[:3]] == [SERVER_EID, PRODUCT_VERSION, ENTRY + (1, 0)]


def test_the_scalars_are_the_server_and_the_product_version(describedHost, client):
    server, version = client.get([SERVER_EID, PRODUCT_VERSION])
    assert version == Varbind(PRODUCT_VERSION, OCTET_STRING, b"7.0.1-42")
    assert server.tag == OCTET_STRING
    assert len(server.value) == 36 and server.value.decode() != NO_SAMPLE
    assert client.get([SERVER_EID]) == [server]


def test_a_scalar_has_one_instance_only(client):
    for oid in (ROOT + (1,), ROOT + (1, 1), ROOT + (2, 1), ROOT + (1, 0, 0)):
        assert client.get([oid])[0].tag in (snmp.NO_SUCH_INSTANCE, snmp.NO_SUCH_OBJECT)
    assert client.getnext([SERVER_EID])[0].oid == PRODUCT_VERSION


@pytest.mark.parametrize("table", [5, 6, 7, 8])
def test_a_table_without_rows_is_passed_over(client, table):
    entry = ROOT + (table, 1)
    assert client.walk(ROOT + (table,)) == []
    assert client.get([entry + (1, 101)])[0].tag == snmp.NO_SUCH_INSTANCE


@pytest.mark.parametrize(
    "target",
    [
        Varbind(ENTRY + (4, 101), OCTET_STRING, b"changed"),
        Varbind(ENTRY + (8, 101), INTEGER, 1),
        Varbind(ENTRY + (1, 555), UNSIGNED32, 555),
        Varbind(SERVER_EID, OCTET_STRING, b"changed"),
        Varbind(PRODUCT_VERSION, OCTET_STRING, b"changed"),
        Varbind(ROOT + (5, 1, 1, 101, 10, 0, 0, 1), snmp.IP_ADDRESS, bytes([10, 0, 0, 1])),
    ],
    ids=lambda varbind: snmp.formatOid(varbind.oid),
)
def test_a_set_is_refused_and_changes_nothing(describedHost, client, wholeTree, target):
    writer = snmp.SnmpClient(describedHost.snmpd.port, community="private")
    try:
        with pytest.raises(snmp.SnmpError) as refusal:
            writer.set([target])
    finally:
        writer.close()
    assert refusal.value.status in (snmp.NOT_WRITABLE, snmp.NO_ACCESS)
    assert client.walk(ROOT) == wholeTree


# ---- random requests against a sorted model -------------------------------------------------------------------

_INTERESTING_SUB_IDS = [0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 99, 127, 128, 255, 256, 65536, 2147483646, 2147483648]
_INTERESTING_SUB_IDS += [*ROWS, *(veid + 1 for veid in ROWS if veid < NO_NUMBER), *(veid - 1 for veid in ROWS if veid)]


def _randomOid(generator, known):
    """An OID at, beside, before, behind or below known ones; never above the subtree's root."""
    oid = list(generator.choice(known))
    for _ in range(generator.randrange(3)):
        position = generator.randrange(len(ROOT), len(oid))
        oid[position] = generator.choice(_INTERESTING_SUB_IDS)
    action = generator.randrange(4)
    if action == 0:
        del oid[generator.randrange(len(ROOT), len(oid)) :]
    elif action == 1:
        oid.append(generator.choice(_INTERESTING_SUB_IDS))
    return tuple(oid)


def _modelGet(tree, oid):
    for varbind in tree:
        if varbind.oid == oid:
            return varbind
    return None


def _modelGetnext(tree, oid):
    for varbind in tree:
        if varbind.oid > oid:
            return varbind
    return None


def _agreesWithGet(tree, asked, answer):
    expected = _modelGet(tree, asked)
    if expected is None:
        return answer.oid == asked and answer.tag in (snmp.NO_SUCH_INSTANCE, snmp.NO_SUCH_OBJECT)
    return answer == expected


def _agreesWithGetnext(tree, asked, answer):
    expected = _modelGetnext(tree, asked)
    return answer.tag == snmp.END_OF_MIB_VIEW if expected is None else answer == expected


@pytest.mark.parametrize("seed", range(5))
@pytest.mark.parametrize("operation", ["get", "getnext"])
def test_random_requests_agree_with_a_sorted_model(client, wholeTree, operation, seed):
    generator = random.Random(seed)
    known = [varbind.oid for varbind in wholeTree]
    ask, agrees = {
        "get": (client.get, _agreesWithGet),
        "getnext": (client.getnext, _agreesWithGetnext),
    }[operation]
    for _ in range(100):
        asked = [_randomOid(generator, known) for _ in range(generator.randrange(1, 6))]
        for oid, answer in zip(asked, ask(asked), strict=True):
            assert agrees(wholeTree, oid, answer), f"{operation} {snmp.formatOid(oid)} of {asked}: {answer}"
