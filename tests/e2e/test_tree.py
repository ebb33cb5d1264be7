"""The whole subtree of a described host: read in every way, it is one and the same tree."""

import random

import pytest
from support import describedhost, snmp
from support.describedhost import NO_NUMBER, ROWS, expectedTables, hasTwin
from support.host import (
    APPLICATION_TEMPLATES,
    ENTRY,
    IP_ADDRESSES,
    NETWORK_COUNTERS,
    PRODUCT_VERSION,
    QUOTA_COUNTERS,
    ROOT,
    SERVER_EID,
)
from support.snmp import COUNTER64, INTEGER, OCTET_STRING, UNSIGNED32, Varbind

INVENTORY = describedhost.INVENTORY


@pytest.fixture(scope="module", autouse=True)
def counters(describedHost):
    """An answer that the agent was late with is without them."""
    describedHost.waitForCounters()


@pytest.fixture
def wholeTree(client):
    """The expected tables behind the scalars. The server's identifier is the agent's own, so it is asked."""
    scalars = client.get([SERVER_EID, PRODUCT_VERSION])
    return scalars + expectedTables()


def test_getnext_from_the_root_visits_the_scalars_and_then_the_tables(client, wholeTree):
    assert client.walk(ROOT) == wholeTree
    assert [varbind.oid for varbind in wholeTree[:3]] == [SERVER_EID, PRODUCT_VERSION, ENTRY + (1, 0)]


@pytest.mark.parametrize("maxRepetitions", [1, 7, 100])
def test_a_getbulk_walk_of_everything_gives_the_same(client, wholeTree, maxRepetitions):
    assert client.bulkwalk(ROOT, maxRepetitions) == wholeTree


def test_getbulk_past_the_last_instance_says_that_the_view_ends(client, wholeTree):
    answer = client.getbulk(0, 3, [wholeTree[-1].oid])
    assert {varbind.tag for varbind in answer} == {snmp.END_OF_MIB_VIEW}


def test_a_get_of_each_instance_gives_its_value(client, wholeTree):
    for varbind in wholeTree:
        assert client.get([varbind.oid]) == [varbind]


def test_a_get_of_many_instances_at_once_keeps_the_order_asked_for(client, wholeTree):
    wanted = [varbind for varbind in wholeTree if not hasTwin(varbind.oid)]
    random.Random(1).shuffle(wanted)
    for batch in (wanted[start : start + 50] for start in range(0, len(wanted), 50)):
        assert client.get([varbind.oid for varbind in batch]) == batch


@pytest.mark.parametrize(
    "target",
    [
        Varbind(ENTRY + (4, 101), OCTET_STRING, b"changed"),
        Varbind(ENTRY + (8, 101), INTEGER, 1),
        Varbind(ENTRY + (1, 555), UNSIGNED32, 555),
        Varbind(SERVER_EID, OCTET_STRING, b"changed"),
        Varbind(PRODUCT_VERSION, OCTET_STRING, b"changed"),
        Varbind(IP_ADDRESSES + (1, 2, 101, 10, 0, 0, 1), snmp.IP_ADDRESS, bytes([255, 0, 0, 0])),
        Varbind(IP_ADDRESSES + (1, 1, 101, 10, 0, 0, 2), snmp.IP_ADDRESS, bytes([10, 0, 0, 2])),
        Varbind(APPLICATION_TEMPLATES + (1, 2, 101, 1, ord("a")), UNSIGNED32, 7),
        Varbind(QUOTA_COUNTERS + (1, 2, 101), COUNTER64, 7),
        Varbind(NETWORK_COUNTERS + (1, 2, 101, 1), COUNTER64, 0),
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
_INTERESTING_SUB_IDS += [5, 6, 7, 64, 113, 114, 115, ord("n"), 195, 254]  # beside parts of addresses and names


def _randomOid(generator, known):
    """An OID at, beside, before, behind or below known ones; never above the subtree's root."""
    oid = list(generator.choice(known))
    for _ in range(generator.randrange(3)):
        position = generator.randrange(len(ROOT), len(oid))
        oid[position] = generator.choice(_INTERESTING_SUB_IDS)
    action = generator.randrange(4)
    if action == 0:
        del oid[generator.randrange(len(ROOT), len(oid)) :]
    elif action == 1 and len(oid) < snmp.MAX_OID_LENGTH:
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
    known = [varbind.oid for varbind in wholeTree if operation == "getnext" or not hasTwin(varbind.oid)]
    ask, agrees = {
        "get": (client.get, _agreesWithGet),
        "getnext": (client.getnext, _agreesWithGetnext),
    }[operation]
    for _ in range(100):
        asked = [_randomOid(generator, known) for _ in range(generator.randrange(1, 6))]
        for oid, answer in zip(asked, ask(asked), strict=True):
            assert agrees(wholeTree, oid, answer), f"{operation} {snmp.formatOid(oid)} of {asked}: {answer}"
