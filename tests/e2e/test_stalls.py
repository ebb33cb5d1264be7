"""A permanent storm of alerts while the master agent, or the sub-agent, stands still for a while: they never lock each other
up, everybody answers again at once, no trap comes twice, and every alert is a trap or in a count.

By default for 5 s; with KX_FLOODS=long also for 30 s and 60 s.
"""

import os
import signal
import time

import pytest
from support.askers import ANSWER_DEADLINE_S, UptimeAsker
from support.host import Host
from support.raising import AlertRaiser
from support.storming import Storm, lost, repeated, signalsIn, sleepUnder
from support.traps import SINK_PORT
from support.wait import waitUntil

LONG = os.environ.get("KX_FLOODS") == "long"
STALLS_S = [5, 30, 60] if LONG else [5]
CONTAINERS = 100
NUMBERS = range(2001, 2001 + CONTAINERS)
BYSTANDER = 2000 + CONTAINERS  # no storm about this one
DEFAULT_LIMITS = "repeat_seconds = 2"  # but for that, which would have the test wait for a minute
HIGHEST_LIMITS = "repeat_seconds = 0\nper_second = 100000\nburst = 100000"
STORMS_PER_SECOND = {DEFAULT_LIMITS: 200, HIGHEST_LIMITS: 2000}
SETTLE_DEADLINE_S = 90
NEXT_TRAP_WITHIN_S = 3
ENDS_WITHIN_S = 2


@pytest.fixture(params=[DEFAULT_LIMITS, HIGHEST_LIMITS], ids=["default limits", "highest limits"])
def stormed(request, sink):
    """A host under a storm."""
    host = Host(trapPorts=[SINK_PORT])
    storm = None
    try:
        host.agent.writeConfig('backend = "simulated"', f"[alerts]\n{request.param}\n")
        host.startAll(f"[host]\ngenerate = {CONTAINERS}\n")
        sink.waitForSubscription(BYSTANDER)
        storm = host.storm = Storm(NUMBERS[:-1], STORMS_PER_SECOND[request.param])
        storm.start()
        sink.waitFor(1)
        yield host
    finally:
        if storm:
            storm.end()
        host.closeAndJudge()


def kxsnmpEnds(host):
    """@return in how many seconds of SIGTERM"""
    started = time.monotonic()
    host.kxsnmp.sendSignal(signal.SIGTERM)
    assert host.kxsnmp.waitForExit() == 0
    return time.monotonic() - started


def nextAlertIsATrap(host, sink):
    """@return in how many seconds"""
    text = b"the next one %f" % time.monotonic()
    started = time.monotonic()
    with AlertRaiser() as raiser:
        raiser.alert(veid=BYSTANDER, text=text)
    waitUntil(
        lambda: any(trap.variables[1].value == text for trap in sink.traps()), NEXT_TRAP_WITHIN_S, "the next alert is a trap"
    )
    return time.monotonic() - started


@pytest.mark.parametrize("seconds", STALLS_S)
@pytest.mark.parametrize("who", ["snmpd", "kxsnmp"])
def test_a_storm_goes_on_after_somebody_stood_still(stormed, sink, who, seconds, record_property):
    stopped = getattr(stormed, who)
    asker = UptimeAsker(stormed.snmpd.port)
    if who == "kxsnmp":
        asker.start()
    os.kill(stopped.pid, signal.SIGSTOP)
    sleepUnder([asker], seconds)
    os.kill(stopped.pid, signal.SIGCONT)
    if who == "snmpd":
        asker.start()
    within = nextAlertIsATrap(stormed, sink)
    sleepUnder([asker], 2)
    asker.end()
    stormed.storm.end()
    assert stormed.storm.error is None and asker.error is None
    raised = stormed.storm.raised + 1
    waitUntil(
        lambda: signalsIn(sink.traps()) + lost(stormed) >= raised, SETTLE_DEADLINE_S, "each alert is a trap or in a count"
    )
    figures = f"{who} stopped for {seconds} s: {raised} alerts, {len(sink.traps())} traps, {lost(stormed)} counted as "
    figures += f"lost, the next one within {within:.1f} s; sysUpTime in {asker.longestS * 1000:.0f} ms"
    print(figures)
    record_property("figures", figures)
    assert asker.longestS <= ANSWER_DEADLINE_S
    assert repeated(sink.traps()) == []
    assert signalsIn(sink.traps()) <= raised
    assert kxsnmpEnds(stormed) <= ENDS_WITHIN_S


@pytest.mark.parametrize("who", ["snmpd", "kxsnmp"])
def test_every_alert_is_a_trap_or_in_a_count_when_somebody_was_killed(stormed, sink, who, record_property):
    if who == "snmpd":
        stormed.snmpd.stop(signal.SIGKILL)
        stormed.snmpd.start()
    else:
        stormed.kxsnmp.kill()
        stormed.kxsnmp.start()
    stormed.waitForSubtree()
    within = nextAlertIsATrap(stormed, sink)
    stormed.storm.end()
    assert stormed.storm.error is None
    raised = stormed.storm.raised + 1
    waitUntil(
        lambda: signalsIn(sink.traps()) + lost(stormed) >= raised, SETTLE_DEADLINE_S, "each alert is a trap or in a count"
    )
    figures = f"{who} killed: {raised} alerts, {signalsIn(sink.traps())} in {len(sink.traps())} traps, "
    figures += f"{lost(stormed)} counted as lost, the next one within {within:.1f} s"
    print(figures)
    record_property("figures", figures)


@pytest.mark.parametrize("seconds", [0.5, 3, 12] if LONG else [3])
def test_sigterm_ends_the_sub_agent_under_a_storm_while_the_master_stands_still(stormed, seconds):
    os.kill(stormed.snmpd.pid, signal.SIGSTOP)
    sleepUnder([stormed.storm], seconds)
    try:
        assert kxsnmpEnds(stormed) <= ENDS_WITHIN_S
    finally:
        os.kill(stormed.snmpd.pid, signal.SIGCONT)
