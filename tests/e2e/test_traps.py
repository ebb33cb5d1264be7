"""Alerts of a described host as traps, through the real master agent."""

import signal

import pytest
from support.host import Host
from support.parts import Snmptrapd
from support.raising import AlertRaiser
from support.snmp import COUNTER64, INTEGER, OCTET_STRING, UNSIGNED32, Varbind, parseOid
from support.traps import ALERT_TRAP, SINK_PORT, MuteSink, waitForSubscription
from support.wait import waitUntil

TRAPD_PORT = 1162

VEID = parseOid("1.3.6.1.4.1.53864.1.1.4.1.1")
TEXT = parseOid("1.3.6.1.4.1.53864.1.1.9")
CODE = parseOid("1.3.6.1.4.1.53864.1.1.10")
VALUE = parseOid("1.3.6.1.4.1.53864.1.1.11")

NO_NUMBER = 4294967295
PROBED = 102  # the container whose alerts show whether alerts arrive
UNNUMBERED_EID = bytes.fromhex("0f8e5c1a7a444c3b9d1e0000000000ff")

INVENTORY = """
[[environment]]
name = "web"
veid = 101
[[environment]]
name = "database"
veid = 102
[[environment]]
name = "unnumbered"
eid = "0f8e5c1a-7a44-4c3b-9d1e-0000000000ff"
"""

RECONNECT_DEADLINE_S = 20
RESUBSCRIBE_DEADLINE_S = 10


@pytest.fixture
def host(sink):
    """A running host that sends its traps to the sink."""
    made = Host(trapPorts=[TRAPD_PORT, SINK_PORT])
    try:
        made.startAll(INVENTORY)
        sink.waitForSubscription(PROBED)
        yield made
    finally:
        made.closeAndJudge()


@pytest.fixture
def raiser(host):
    with AlertRaiser() as made:
        yield made


def variables(veid, text, code, value):
    return [
        Varbind(VEID, UNSIGNED32, veid),
        Varbind(TEXT, OCTET_STRING, text),
        Varbind(CODE, INTEGER, code),
        Varbind(VALUE, COUNTER64, value),
    ]


# ---- what is in a trap ----------------------------------------------------------------------------------------------


def test_an_alert_becomes_a_trap_with_its_container_and_its_three_parts(raiser, sink):
    raiser.alert(veid=101, code=2, text=b"out of memory", value=7)
    (trap,) = sink.waitFor(1)
    assert trap.oid == ALERT_TRAP
    assert trap.variables[:4] == variables(101, b"out of memory", 2, 7)


@pytest.mark.parametrize(
    "text",
    [b"", b"\0", b"a\0b", b"\"double\" and 'single'", "größe 日本 🐳".encode(), b"\xff\xfe no UTF-8", b"l" * 1000, b"two\nlines"],
    ids=ascii,
)
def test_the_text_arrives_byte_for_byte(raiser, sink, text):
    raiser.alert(veid=101, text=text)
    (trap,) = sink.waitFor(1)
    assert trap.variables[1] == Varbind(TEXT, OCTET_STRING, text)


@pytest.mark.parametrize("code", [0, 1, 2, 3, -1, 2**31 - 1, -(2**31)])
def test_the_code_arrives_as_it_is(raiser, sink, code):
    raiser.alert(veid=101, code=code)
    (trap,) = sink.waitFor(1)
    assert trap.variables[2] == Varbind(CODE, INTEGER, code)


@pytest.mark.parametrize("value", [0, 1, 2**32 - 1, 2**32, 2**63 - 1, -1, -(2**63)])
def test_the_value_arrives_in_all_its_64_bits(raiser, sink, value):
    """A negative value is the unsigned one with the same bits: there is no signed type of 64 bits."""
    raiser.alert(veid=101, value=value)
    (trap,) = sink.waitFor(1)
    assert trap.variables[3] == Varbind(VALUE, COUNTER64, value % 2**64)


def test_an_alert_about_a_container_without_a_number_has_the_highest_number(raiser, sink):
    raiser.alert(eid=UNNUMBERED_EID, text=b"unnumbered")
    (trap,) = sink.waitFor(1)
    assert trap.variables[:2] == variables(NO_NUMBER, b"unnumbered", 0, 0)[:2]


# What snmpd puts behind ours.
SNMPDS_OWN = (".1.3.6.1.6.3.1.1.4.3.0", "OID: .1.3.6.1.4.1.53864.2")

SHOWN = [
    (
        {"veid": 101, "code": -2, "text": b'say "yes"', "value": 2**63 - 1},
        ["Gauge32: 101", 'STRING: "say \\"yes\\""', "INTEGER: -2", "Counter64: 9223372036854775807"],
    ),
    (
        {"eid": UNNUMBERED_EID, "code": -(2**31), "text": b"", "value": -1},
        ["Gauge32: 4294967295", '""', "INTEGER: -2147483648", "Counter64: 18446744073709551615"],
    ),
    (
        {"veid": 101, "code": 2, "text": "a\0ü".encode(), "value": -(2**63)},
        ["Gauge32: 101", "Hex-STRING: 61 00 C3 BC ", "INTEGER: 2", "Counter64: 9223372036854775808"],
    ),
]


def test_snmptrapd_shows_the_traps(host, raiser, sink):
    trapd = Snmptrapd(host.folder / "snmptrapd", TRAPD_PORT)
    trapd.start()
    try:
        for alert, _ in SHOWN:
            raiser.alert(**alert)
        traps = waitUntil(lambda: len(trapd.traps()) == len(SHOWN) and trapd.traps(), 20, "snmptrapd shows the traps")
    finally:
        trapd.stop()
    oids = [f".1.3.6.1.4.1.53864.1.1.{place}" for place in ("4.1.1", "9", "10", "11")]
    for (uptime, oid, *rest), (_, values) in zip(traps, SHOWN, strict=True):
        assert oid == (".1.3.6.1.6.3.1.1.4.1.0", "OID: .1.3.6.1.4.1.53864.2.0.1")
        assert rest == [*zip(oids, values), SNMPDS_OWN]


SENT_AT_MOST = 6  # by net-snmp, a second apart
INFORMED_WITHIN_S = 30


def test_an_inform_is_repeated_some_times_unless_it_is_acknowledged():
    """snmptrapd acknowledges it, and so gets it once; whoever does not gets it again, but not for ever."""
    host, mute = Host(), MuteSink()
    trapd = Snmptrapd(host.folder / "snmptrapd", TRAPD_PORT)
    try:
        with open(host.snmpd.folder / "snmpd.conf", "a", encoding="ascii") as config:
            config.writelines(f"informsink 127.0.0.1:{port} public\n" for port in (TRAPD_PORT, SINK_PORT))
        trapd.start()
        host.startAll(INVENTORY)
        waitForSubscription(PROBED, lambda text: trapd.log.exists() and text in trapd.log.read_bytes())
        with AlertRaiser() as raiser:
            raiser.alert(veid=101, text=b"the first")
            waitUntil(lambda: mute.count(b"the first") >= SENT_AT_MOST, INFORMED_WITHIN_S, "it is repeated")
            raiser.alert(veid=101, text=b"the second")
        waitUntil(lambda: mute.count(b"the second") > 1, INFORMED_WITHIN_S, "the next one is repeated")
        assert mute.count(b"the first") == SENT_AT_MOST
        shown = [text for trap in trapd.traps() for _, text in trap if "the first" in text or "the second" in text]
        assert shown == ['STRING: "the first"', 'STRING: "the second"']
    finally:
        trapd.stop()
        mute.close()
        host.close()
        host.removeFolder()


# ---- what gives no trap ---------------------------------------------------------------------------------------------


def assertOnlyTrapIs(raiser, sink, text):
    """Everything before has been handled once an alert that counts has arrived."""
    raiser.alert(veid=101, text=text)
    assert [trap.variables[1].value for trap in sink.waitFor(1)] == [text]


def test_an_alert_about_the_host_itself_gives_no_trap(raiser, sink):
    raiser.alert(eid=raiser.server, code=2, text=b"the host's own")
    assertOnlyTrapIs(raiser, sink, b"end")


def test_an_alert_about_an_unknown_environment_gives_no_trap(raiser, sink):
    raiser.alert(eid=bytes(range(16)), text=b"unknown")
    raiser.alert(eid=bytes(16), text=b"nothing")
    assertOnlyTrapIs(raiser, sink, b"end")


def test_events_of_other_types_give_no_trap(host, raiser, sink):
    host.agent.writeInventory(INVENTORY + '[[environment]]\nname = "fresh"\nveid = 103\n')
    waitUntil(lambda: host.client.get([VEID + (103,)])[0].value == 103, 20, "the new container is shown")
    assertOnlyTrapIs(raiser, sink, b"end")


# ---- several, and again ---------------------------------------------------------------------------------------------


def test_alerts_arrive_each_once_in_their_order(raiser, sink):
    texts = [b"alert %d" % number for number in range(50)]
    for text in texts:
        raiser.alert(veid=101, text=text)
    assert [trap.variables[1].value for trap in sink.waitFor(len(texts))] == texts


def test_alerts_about_a_container_that_has_just_come_find_it(host, raiser, sink):
    for veid in range(201, 211):
        host.agent.writeInventory(INVENTORY + f'[[environment]]\nname = "fresh"\nveid = {veid}\n')
        waitUntil(lambda: canRaise(raiser, veid), 20, "the agent has read the inventory again")  # noqa: B023
        assert sink.waitFor(veid - 200)[-1].variables[0].value == veid


def canRaise(raiser, veid):
    """Raises an alert, as soon as the agent knows the container."""
    raiser.send(veid=veid, text=b"%d" % veid)
    return raiser.receiveFrame().HasField("done")


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_alerts_arrive_each_once_after_every_restart_of_the_agent(host, sink, how):
    for round in range(3):
        host.agent.stop(how)
        host.agent.start()
        sink.waitForSubscription(PROBED, RECONNECT_DEADLINE_S)
        with AlertRaiser() as raiser:
            raiser.alert(veid=101, text=b"round %d" % round)
            raiser.alert(veid=101, text=b"end")
        assert [trap.variables[1].value for trap in sink.waitFor(2)] == [b"round %d" % round, b"end"]
        sink.forget()


def test_alerts_arrive_after_a_restart_of_the_master_agent(host, sink, raiser):
    host.snmpd.stop()
    host.snmpd.start()
    host.waitForSubtree()
    raiser.alert(veid=101, text=b"after the restart")
    assert [trap.variables[1].value for trap in sink.waitFor(1)] == [b"after the restart"]


def test_alerts_arrive_when_the_agent_comes_after_kxsnmp(sink):
    host = Host(trapPorts=[SINK_PORT])
    try:
        host.snmpd.start()
        host.kxsnmp.start()
        host.waitForSubtree()
        host.agent.writeInventory(INVENTORY)
        host.agent.start()
        # The link is tried with each request; no event can come before the first of them.
        assert host.client.get([VEID + (101,)])[0].value == 101
        sink.waitForSubscription(PROBED, RECONNECT_DEADLINE_S)
    finally:
        host.closeAndJudge()


def test_kxsnmp_ends_in_order_while_alerts_come(host, raiser):
    for number in range(200):
        raiser.send(veid=101, text=b"alert %d" % number)
    assert host.kxsnmp.stop() == 0


def test_a_subscriber_that_stands_still_holds_up_no_other_and_keeps_its_connection(host, sink):
    """Large texts fill what the agent keeps for a subscriber; another one gets them all at once."""
    host.agent.writeConfig('backend = "simulated"', "[alerts]\nper_second = 10000\nburst = 10000\n")
    host.agent.sendSignal(signal.SIGHUP)
    waitUntil(lambda: "read the configuration again" in host.agent.log.read_text(), 20, "it is read again")
    host.kxsnmp.sendSignal(signal.SIGSTOP)
    with AlertRaiser() as raiser, AlertRaiser() as other:
        request = other.schema.Frame(request_id=5)
        request.event_subscribe.name = b"events"
        other.sendFrame(request)
        assert other.receiveFrame().HasField("done")
        for number in range(40):
            raiser.alert(veid=101, text=b"%d " % number + b"x" * 100000)
            message = other.receiveFrame().event_message
            assert bytes(message.events[0].resource_alert.text).startswith(b"%d " % number)
    assert not [line for line in host.agent.lines() if "closed" in line and "kxsnmp" in line]
    host.kxsnmp.sendSignal(signal.SIGCONT)
    sink.waitForSubscription(PROBED, RESUBSCRIBE_DEADLINE_S)
