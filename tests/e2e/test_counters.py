"""Counters: their columns follow the vocabulary, their values follow what the agent reports."""

import signal
import time

import pytest
from support import snmp
from support.host import ENTRY, NETWORK_COUNTERS, QUOTA_COUNTERS
from support.snmp import COUNTER64, UNSIGNED32, Varbind
from support.wait import DeadlineExceeded, waitUntil

ANSWER_DEADLINE_S = 1.0
PUSHED_WITHIN_S = 5
RECONNECT_DEADLINE_S = 10
QUICK = "[monitoring]\nperiod_scale = 0.01\n"  # a report every 0.3 s instead of every 30 s


def container(name, veid, **counters):
    """A described container; `net` and `quota` are its counters, instance to TOML."""
    text = f'[[environment]]\nname = "{name}"\nveid = {veid}\n'
    for short, instances in counters.items():
        for instance, values in instances.items():
            text += f'[environment.counters.counters_kx_{short}."{instance}"]\n{values}\n'
    return text


def both(name, veid, bytesIn=0, used=0):
    return container(name, veid, net={"1": f"bytes_in = {bytesIn}"}, quota={"": f"diskspace_used = {used}"})


def bytesIn(veid, instance=1):
    return NETWORK_COUNTERS + (1, 2, veid, instance)


def used(veid):
    return QUOTA_COUNTERS + (1, 1, veid)


def shown(host, oid):
    """One value; None when there is no such instance."""
    varbind = host.client.get([oid])[0]
    return varbind.value


def waitForValue(host, oid, value, deadlineSeconds=PUSHED_WITHIN_S):
    """For first values too: the request that starts the monitoring is answered before the counters have come when the
    agent takes its time."""
    last = []

    def isShown():
        last[:] = [shown(host, oid)]
        return last == [value]

    try:
        waitUntil(isShown, deadlineSeconds, f"{value} is shown")
    except DeadlineExceeded as late:
        raise AssertionError(f"{late}, but {last[0]}") from None


def waitForVeids(host, table, expected):
    waitUntil(lambda: veids(host, table) == expected, PUSHED_WITHIN_S, f"the containers {expected} are shown")


def veids(host, table):
    return sorted({varbind.oid[len(table) + 2] for varbind in host.client.walk(table + (1, 1))})


def quick(host, inventory):
    """Starts everything, with an agent that reports often."""
    host.agent.writeConfig('backend = "simulated"', QUICK)
    host.startAll(inventory)


# ---- the vocabulary decides -------------------------------------------------------------------------------------------


def vocabulary(className, *ids):
    listed = ", ".join(f'{{ id = "{name}", counter_type = 1 }}' for name in ids)
    return f"[vocabulary.{className}]\nparameters = [ {listed} ]\n"


def test_columns_follow_the_order_of_the_vocabulary(host):
    host.startAll(
        vocabulary("counters_kx_quota", "z", "a", "m")
        + container("web", 101, quota={"": "a = 1\nm = 2\nz = 3"}, net={"1": "bytes_in = 1"})
    )
    waitForValue(host, QUOTA_COUNTERS + (1, 1, 101), 3)
    assert [shown(host, QUOTA_COUNTERS + (1, column, 101)) for column in (1, 2, 3)] == [3, 1, 2]


def unknownTags(host):
    """The columns that were said to be unknown, in the order of the log lines."""
    said = "problem encountered in operator[]: unknown tag "
    logged = [text for text in host.syslog.texts() if "unknown tag" in text]
    assert all(text.startswith(said) for text in logged), logged
    return [int(text.removeprefix(said)) for text in logged]


def test_a_vocabulary_with_fewer_names_leaves_columns_without_a_value_and_says_so(host):
    host.startAll(
        vocabulary("counters_kx_net", "bytes_in")
        + container("web", 101, quota={"": "diskspace_used = 1"}, net={"1": "bytes_in = 5"})
    )
    waitForValue(host, bytesIn(101), 5)
    assert host.client.get([NETWORK_COUNTERS + (1, 1, 101, 1)])[0] == Varbind(
        NETWORK_COUNTERS + (1, 1, 101, 1), UNSIGNED32, 1
    )
    for column in (3, 4, 5):
        oid = NETWORK_COUNTERS + (1, column, 101, 1)
        # The null value that the table gives is no answer to the master agent.
        assert host.client.get([oid])[0] == Varbind(oid, snmp.NO_SUCH_INSTANCE, None)
    assert unknownTags(host) == [3, 4, 5]
    assert [varbind.oid for varbind in host.client.walk(NETWORK_COUNTERS)] == [
        NETWORK_COUNTERS + (1, 1, 101, 1),
        bytesIn(101),
    ]


def test_a_vocabulary_with_more_names_than_columns_shows_the_first_of_them(host):
    names = [f"c{number}" for number in range(12)]
    values = "\n".join(f"{name} = {number}" for number, name in enumerate(names))
    host.startAll(
        vocabulary("counters_kx_quota", *names)
        + container("web", 101, quota={"": values}, net={"1": "bytes_in = 1"})
    )
    waitForValue(host, QUOTA_COUNTERS + (1, 8, 101), 7)
    assert [varbind.value for varbind in host.client.walk(QUOTA_COUNTERS)] == list(range(8))


def test_a_class_without_names_has_index_columns_only(host):
    host.startAll("[vocabulary.counters_kx_net]\nparameters = []\n" + both("web", 101, bytesIn=5))
    waitForValue(host, NETWORK_COUNTERS + (1, 1, 101, 1), 1)
    assert unknownTags(host) == []
    for column in (2, 3, 4, 5):
        assert host.client.get([NETWORK_COUNTERS + (1, column, 101, 1)])[0].tag == snmp.NO_SUCH_INSTANCE
    assert unknownTags(host) == [2, 3, 4, 5]
    assert [varbind.value for varbind in host.client.walk(NETWORK_COUNTERS)] == [1]


def test_a_walk_ends_though_no_counter_of_a_class_has_a_value(host):
    """Of a container's quota there is nothing to see but counters: the walk goes over it to the next table."""
    containers = both("web", 101, bytesIn=5) + both("database", 102, bytesIn=6)
    host.startAll(vocabulary("counters_kx_quota") + containers)
    waitForVeids(host, NETWORK_COUNTERS, [101, 102])
    waitUntil(lambda: isMonitored(host), PUSHED_WITHIN_S, "quotas are monitored")
    assert host.client.walk(QUOTA_COUNTERS) == host.client.bulkwalk(QUOTA_COUNTERS, 20) == []
    assert host.client.getnext([QUOTA_COUNTERS])[0].oid == NETWORK_COUNTERS + (1, 1, 101, 1)
    assert set(unknownTags(host)) == {1}, "where a column has no value those behind it have none either"


def isMonitored(host):
    """Whether there are rows of quotas: one that has no value is complained of."""
    assert host.client.get([used(101)])[0].tag == snmp.NO_SUCH_INSTANCE
    return unknownTags(host)


def test_a_parameter_without_a_name_is_no_column_and_a_counter_without_a_type_is_replaced(host):
    """The traffic table shows what increases add up to; what is no increase must not be added up."""
    parameters = '[vocabulary.counters_kx_net]\nparameters = [ { id = "b", counter_type = 2 }, {}, { id = "a" } ]\n'
    first, second, third = (NETWORK_COUNTERS + (1, column, 101, 1) for column in (2, 3, 4))

    def inventory(a, b):
        return parameters + container("web", 101, net={"1": f"a = {a}\nb = {b}"})

    quick(host, inventory(7, 100))
    for a, b in ((7, 100), (7, 101), (7, 105), (30, 106), (2, 107)):
        host.agent.writeInventory(inventory(a, b))
        waitForValue(host, first, b)
        waitForValue(host, second, a)
    assert host.client.get([third])[0] == Varbind(third, snmp.NO_SUCH_INSTANCE, None)
    assert [varbind.value for varbind in host.client.walk(NETWORK_COUNTERS)] == [1, 107, 2]


# ---- following the agent ------------------------------------------------------------------------------------------------


def test_a_growing_counter_is_followed_exactly(host):
    """What is shown is the sum of what was reported: it must come to the counter itself and no further."""
    quick(host, both("web", 101, bytesIn=1000, used=10))
    waitForValue(host, bytesIn(101), 1000)
    for value in (1500, 1501, 10**12, 700):
        host.agent.writeInventory(both("web", 101, bytesIn=value, used=value))
        waitForValue(host, bytesIn(101), value)
        waitForValue(host, used(101), value)


def test_a_container_that_reports_nothing_disappears_from_both_tables_and_comes_back(host):
    other = both("other", 102, bytesIn=1)
    quick(host, both("web", 101, bytesIn=1000) + other)
    waitForVeids(host, NETWORK_COUNTERS, [101, 102])
    waitForVeids(host, QUOTA_COUNTERS, [101, 102])
    host.agent.writeInventory(container("web", 101) + other)
    waitForVeids(host, NETWORK_COUNTERS, [102])
    waitForVeids(host, QUOTA_COUNTERS, [102])
    assert shown(host, ENTRY + (3, 101)) == b"web", "the container itself is there all the same"
    host.agent.writeInventory(both("web", 101, bytesIn=70, used=3) + other)
    waitForValue(host, bytesIn(101), 70)  # counted from its start
    waitForValue(host, used(101), 3)
    waitForVeids(host, NETWORK_COUNTERS, [101, 102])
    waitForVeids(host, QUOTA_COUNTERS, [101, 102])


def test_a_container_that_is_not_in_one_class_is_swept_from_the_other(host):
    quick(host, both("web", 101, bytesIn=5) + container("half", 102, net={"1": "bytes_in = 7"}))
    # Each class is monitored from its first request on, and reports come in the order of the monitors. Only a report
    # of quotas that comes last leaves its sweep to be seen: so the traffic is asked for first.
    waitForVeids(host, NETWORK_COUNTERS, [101, 102])
    waitForVeids(host, QUOTA_COUNTERS, [101])
    waitForVeids(host, NETWORK_COUNTERS, [101])


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_the_total_is_right_after_the_agent_was_restarted(host, how):
    quick(host, both("web", 101, bytesIn=1000))
    waitForValue(host, bytesIn(101), 1000)
    waitForValue(host, used(101), 0)
    for value in (5000, 5001):
        host.agent.stop(how)
        host.agent.writeInventory(both("web", 101, bytesIn=value, used=3))
        host.agent.start()
        waitForValue(host, bytesIn(101), value, RECONNECT_DEADLINE_S)
        waitForValue(host, used(101), 3, RECONNECT_DEADLINE_S)


def test_a_frozen_agent_delays_no_answer(host):
    host.startAll(both("web", 101, bytesIn=1000, used=4))
    waitForValue(host, bytesIn(101), 1000)
    host.agent.sendSignal(signal.SIGSTOP)
    try:
        assert answeredInTime(host, host.client.get, used(101)).tag == snmp.NO_SUCH_INSTANCE
        assert answeredInTime(host, host.client.get, used(101)).tag == snmp.NO_SUCH_INSTANCE
        assert answeredInTime(host, host.client.getnext, QUOTA_COUNTERS).oid == NETWORK_COUNTERS + (1, 1, 101, 1)
        assert answeredInTime(host, host.client.get, bytesIn(101)).value == 1000, "what is known is shown"
    finally:
        host.agent.sendSignal(signal.SIGCONT)
    waitForValue(host, used(101), 4)
    assert shown(host, bytesIn(101)) == 1000


def answeredInTime(host, ask, oid):
    started = time.monotonic()
    (varbind,) = ask([oid], timeoutSeconds=2 * ANSWER_DEADLINE_S)
    assert time.monotonic() - started <= ANSWER_DEADLINE_S
    return varbind


def test_without_the_agent_there_are_no_counters(host):
    host.snmpd.start()
    host.kxsnmp.start()
    host.waitForSubtree()
    assert host.client.walk(QUOTA_COUNTERS) == host.client.walk(NETWORK_COUNTERS) == []


def test_values_are_counters_of_64_bits(host):
    host.startAll(both("web", 101, bytesIn=2**63 - 1))
    waitForValue(host, bytesIn(101), 2**63 - 1)
    assert host.client.get([bytesIn(101)]) == [Varbind(bytesIn(101), COUNTER64, 2**63 - 1)]


def test_a_walk_never_sees_half_a_report(host):
    """All containers of a report have the same value, so a bulk read of a column must show one value only."""
    count = 300

    def inventory(value):
        return "".join(both(f"c{veid}", veid, bytesIn=value, used=value) for veid in range(1, count + 1))

    quick(host, inventory(0))
    waitForVeids(host, QUOTA_COUNTERS, list(range(1, count + 1)))

    def isWhole(value):
        answer = host.client.getbulk(0, 1, [QUOTA_COUNTERS + (1, 1, veid) for veid in range(0, 60, 7)])
        seen = {varbind.value for varbind in answer}
        assert len(seen) == 1, f"one request shows {seen}"
        return seen == {value}

    for value in (1, 2, 3):
        host.agent.writeInventory(inventory(value))
        waitUntil(lambda: isWhole(value), PUSHED_WITHIN_S, f"{value} is shown of all")  # noqa: B023


# ---- numbers that change --------------------------------------------------------------------------------------------


def test_containers_that_swap_numbers_or_get_new_ones_show_their_own_counters(host):
    quick(host, both("a", 101, bytesIn=1000) + both("b", 102, bytesIn=10))
    waitForValue(host, bytesIn(101), 1000)
    waitForValue(host, bytesIn(102), 10)
    host.agent.writeInventory(both("a", 102, bytesIn=1000) + both("b", 101, bytesIn=10))
    waitForValue(host, bytesIn(101), 10)
    waitForValue(host, bytesIn(102), 1000)
    host.agent.writeInventory(both("a", 103, bytesIn=1000) + both("c", 101, bytesIn=7))
    waitForValue(host, bytesIn(103), 1000)
    waitForValue(host, bytesIn(101), 7)
    waitForVeids(host, NETWORK_COUNTERS, [101, 103])
