"""Rows of the address table come, go and move with the containers' lists."""

from support import snmp
from support.host import IP_ADDRESSES
from support.wait import waitUntil

CHANGED_WITHIN_S = 5.0  # how soon is for the tests of a host's life; the machine may be busy


def indexes(host):
    """The indexes of all addresses, as a walk of the first column finds them."""
    return [varbind.oid[len(IP_ADDRESSES) + 2 :] for varbind in host.client.walk(IP_ADDRESSES + (1, 1))]


def environment(name, rest):
    return f'[[environment]]\nname = "{name}"\n{rest}\n'


def test_rows_come_and_go_with_the_lists(host):
    one = 'addresses = [ { address = "10.0.0.1", mask = "255.0.0.0" } ]\n'
    host.startAll(environment("first", "veid = 101\n" + one) + environment("second", "veid = 102"))
    assert indexes(host) == [(101, 10, 0, 0, 1)]
    host.agent.writeInventory(environment("first", "veid = 101") + environment("second", "veid = 102\n" + one))
    waitUntil(lambda: indexes(host) == [(102, 10, 0, 0, 1)], CHANGED_WITHIN_S, "the address has moved")
    host.agent.writeInventory(environment("first", "veid = 101") + environment("second", "veid = 102"))
    waitUntil(lambda: indexes(host) == [], CHANGED_WITHIN_S, "the address is gone")
    assert host.client.getnext([IP_ADDRESSES])[0].tag == snmp.END_OF_MIB_VIEW


def test_a_thousand_rows_are_walked_in_order_whatever_their_order_in_the_agent(host):
    """1,000 rows in 40 containers, addresses falling and containers shuffled."""
    expected, inventory = [], ""
    for veid in [1 + (7 * number) % 40 for number in range(40)]:
        quads = [(10, veid, 0, last) for last in range(25)]
        listed = ", ".join(
            f'{{ address = "{".".join(map(str, quad))}", mask = "255.0.0.0" }}' for quad in reversed(quads)
        )
        inventory += environment(f"c{veid}", f"veid = {veid}\naddresses = [ {listed} ]")
        expected += [(veid, *quad) for quad in quads]
    host.startAll(inventory)
    assert indexes(host) == sorted(expected)
