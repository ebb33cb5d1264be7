"""Floods of alerts in one message while managers walk: the sub-agent and the master agent never wait for each other for
good, and every alert is a trap or in a count.

By default some sizes, once; with KX_FLOODS=long all of them, ten rounds.
"""

import os
import re
import signal
import time
from collections import Counter
from pathlib import Path

import pytest
from support.askers import ANSWER_DEADLINE_S, UptimeAsker, Walker
from support.host import Host
from support.scriptedagent import ScriptedAgent
from support.traps import SINK_PORT
from support.wait import waitUntil

LONG = os.environ.get("KX_FLOODS") == "long"
ROUNDS = 10 if LONG else 1
SIZES = [700, 1000, 1500, 3000, 10000, 30000] if LONG else [1500, 3000, 10000]
MANAGERS = 3
COMPLETE_UP_TO = 3000  # alerts in one message
SETTLE_DEADLINE_S = 60
NEXT_TRAP_WITHIN_S = 3
ENDS_WITHIN_S = 2

MAX_FRAME_BYTES = 16 * 1024 * 1024
MOST_BYTES = 128 * 1024 * 1024

_DROPPED = re.compile(r"(\d+) alerts? not sent as traps?")


def varint(number):
    septets = b""
    while number > 0x7F:
        septets += bytes([0x80 | number & 0x7F])
        number >>= 7
    return septets + bytes([number])


@pytest.fixture
def scripted(sink):
    """A host whose management agent is a ScriptedAgent."""
    host = Host(trapPorts=[SINK_PORT])
    agent = ScriptedAgent()
    try:
        host.snmpd.start()
        host.kxsnmp.start()
        host.waitForSubtree()
        agent.waitForSubscription()
        host.scripted = agent
        yield host
    finally:
        agent.close()
        host.closeAndJudge()


def dropped(host):
    """How many alerts the log of kxsnmp counts as dropped."""
    lines = (_DROPPED.search(str(line)) for line in host.syslog.lines())
    return sum(int(found.group(1)) for found in lines if found)


def texts(traps):
    return Counter(trap.variables[1].value for trap in traps)


def assertSettled(host, sink, expected, before):
    """Every alert has become one trap, or was counted."""
    waitUntil(
        lambda: len(sink.traps()) + dropped(host) - before >= len(expected),
        SETTLE_DEADLINE_S,
        f"{len(expected)} alerts have become traps or were counted",
    )
    arrived = texts(sink.traps())
    assert arrived.total() + dropped(host) - before == len(expected)
    assert max(arrived.values()) == 1, "none comes twice"
    assert set(arrived) <= set(expected)


def assertNextAlertIsATrap(host, sink, text=b"the next one"):
    started = time.monotonic()
    host.scripted.send(host.scripted.alerts([text]))
    waitUntil(lambda: texts(sink.traps())[text], NEXT_TRAP_WITHIN_S, "the next alert is a trap")
    return time.monotonic() - started


@pytest.mark.parametrize("size", SIZES)
def test_a_flood_in_one_message_arrives_while_managers_walk(scripted, sink, size, record_property):
    askers = [Walker(scripted.snmpd.port) for _ in range(MANAGERS)] + [UptimeAsker(scripted.snmpd.port)]
    for asker in askers:
        asker.start()
    longest = 0
    try:
        for round_ in range(ROUNDS):
            sink.forget()
            before = dropped(scripted)
            expected = [b"flood %d, %d" % (round_, number) for number in range(size)]
            started = time.monotonic()
            scripted.scripted.send(scripted.scripted.alerts(expected))
            assertSettled(scripted, sink, expected, before)
            longest = max(longest, time.monotonic() - started)
            if size <= COMPLETE_UP_TO:
                assert dropped(scripted) == before
            assertNextAlertIsATrap(scripted, sink)
    finally:
        for asker in askers:
            asker.end()
    assert [asker.error for asker in askers] == [None] * len(askers)
    slowest = max(asker.longestS for asker in askers)
    figures = f"{size} alerts {ROUNDS} times: arrived within {longest:.2f} s, {dropped(scripted)} dropped, "
    figures += f"{sum(asker.answers for asker in askers)} answers, the slowest {slowest * 1000:.0f} ms"
    print(figures)
    record_property("figures", figures)
    assert slowest <= ANSWER_DEADLINE_S
    stopping = time.monotonic()
    scripted.kxsnmp.sendSignal(signal.SIGTERM)
    assert scripted.kxsnmp.waitForExit() == 0
    assert time.monotonic() - stopping <= ENDS_WITHIN_S


def emptyEvents(_, size):
    """The most events that fit: three bytes each."""
    return b"\xda\x51\x00" * (size // 3)


def alertsAboutNobody(agent, size):
    event = agent.schema.EventMessage()
    alert = event.events.add(type=b"resource_alert").resource_alert
    alert.eid, alert.text = b"n" * 16, b"text"
    one = event.SerializeToString()
    return one * (size // len(one))


def alertsWithLongTexts(agent, size):
    return agent.alerts([b"x" * 60000] * (size // 60100)).SerializeToString()


def peakBytes(pid):
    (line,) = [line for line in Path(f"/proc/{pid}/status").read_text().splitlines() if line.startswith("VmHWM")]
    return int(line.split()[1]) * 1024


@pytest.mark.parametrize("events", [emptyEvents, alertsAboutNobody, alertsWithLongTexts])
def test_the_largest_message_of_events_costs_little_memory_and_no_time(scripted, sink, events, record_property):
    agent = scripted.scripted
    message = events(agent, MAX_FRAME_BYTES - 16)
    askers = [Walker(scripted.snmpd.port), UptimeAsker(scripted.snmpd.port)]
    for asker in askers:
        asker.start()
    try:
        agent.sendRaw(b"\x62" + varint(len(message)) + message)
        agent.send(agent.alerts([b"behind it"]))
        waitUntil(lambda: texts(sink.traps())[b"behind it"], SETTLE_DEADLINE_S, "what comes behind it arrives")
    finally:
        for asker in askers:
            asker.end()
    assert [asker.error for asker in askers] == [None] * len(askers)
    slowest, peak = max(asker.longestS for asker in askers), peakBytes(scripted.kxsnmp.pid)
    figures = f"{events.__name__}: peak {peak / 2**20:.0f} MiB, the slowest answer {slowest * 1000:.0f} ms"
    print(figures)
    record_property("figures", figures)
    assert peak <= MOST_BYTES and slowest <= ANSWER_DEADLINE_S
