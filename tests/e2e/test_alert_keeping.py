"""Alerts that must not be lost: for consumers that are away or slow, over the agent's restarts, and alarms of containers
that are gone."""

import contextlib
import re
import signal

import pytest
from support.agentpeer import AgentPeer
from support.host import Host
from support.parts import Agent
from support.raising import AlertRaiser
from support.wait import waitUntil

DEADLINE_S = 20
HIGH_LIMITS = "repeat_seconds = 0\nper_second = 100000\nburst = 100000"
_MORE = re.compile(rb" \(and (\d+) more\)$")


def inventoryOf(*numbers):
    return "[host]\n" + "".join(f'[[environment]]\nname = "ct{number}"\nveid = {number}\n' for number in numbers)


@contextlib.contextmanager
def runningAgent(limits="", numbers=(101, 102)):
    host = Host()
    try:
        host.agent.writeConfig('backend = "simulated"', f"[alerts]\n{limits}\n")
        host.agent.writeInventory(inventoryOf(*numbers))
        host.agent.start()
        yield host.agent
    finally:
        host.closeAndJudge()


class Consumer(AgentPeer):
    """A consumer that acknowledges what it has taken."""

    def __init__(self, name=b"kxsnmp"):
        super().__init__(Agent.SOCKET, timeoutSeconds=DEADLINE_S)
        self.subscribe(consumer=name)

    def alerts(self, signals, acknowledging=True):
        """The alerts that stand for so many signals."""
        alerts = []
        while (got := sum(map(standsFor, alerts))) < signals:
            frame = self.receiveFrame()
            alerts += [event.resource_alert for event in frame.event_message.events if event.HasField("resource_alert")]
            if acknowledging and frame.event_message.sequence:
                self.acknowledge(frame.event_message.sequence)
        assert got == signals
        return alerts


def standsFor(alert):
    counted = _MORE.search(bytes(alert.text))
    return 1 + (int(counted.group(1)) if counted else 0)


def stateOf(agent):
    path = agent.folder / "state/alerts.state"
    return path.read_bytes() if path.exists() else b""


def waitUntilKept(agent, text):
    waitUntil(lambda: text in stateOf(agent), DEADLINE_S, f"{text} is kept")


def restart(agent, signalNumber):
    agent.popen.send_signal(signalNumber)
    agent.popen.wait(DEADLINE_S)
    agent.start()


def raiseAlert(**alert):
    with AlertRaiser() as raiser:
        raiser.alert(**alert)


class EnvironmentList(AgentPeer):
    """A client's list of environments, kept up to date. Names of those that are gone are in `departed`."""

    def __init__(self, capabilities=(b"departed",)):
        super().__init__(Agent.SOCKET, timeoutSeconds=DEADLINE_S)
        self.handshake(capabilities=capabilities)
        self._known = {bytes(each.eid): each for each in self.snapshot()}

    def waitFor(self, names, departed):
        while (self.names(False), self.names(True)) != (names, departed):
            delta = self.receiveFrame().delta
            for eid in delta.removed_eids:
                del self._known[bytes(eid)]
            self._known.update({bytes(each.eid): each for each in delta.changed})

    def names(self, departed):
        return {
            each.configuration.name.decode()
            for each in self._known.values()
            if each.departed == departed and each.type == b"lumetra"
        }

    def eidOf(self, name):
        (eid,) = [eid for eid, each in self._known.items() if each.configuration.name == name.encode()]
        return eid


# ---- consumers ------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("end", [signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_what_was_raised_while_the_consumer_was_away_survives_the_agent(end):
    with runningAgent() as agent:
        with Consumer() as first:
            raiseAlert(veid=101, code=2, text=b"sent, not acknowledged", value=1)
            first.alerts(1, acknowledging=False)
        raiseAlert(veid=102, code=1, text=b"while it was away", value=2)
        raiseAlert(veid=101, code=1, text=b"the latest", value=3)
        waitUntilKept(agent, b"the latest")
        restart(agent, end)
        with Consumer() as second:
            got = second.alerts(3)
        assert [(bytes(each.text), each.code, each.value) for each in got] == [
            (b"the latest (and 1 more)", 1, 3),
            (b"while it was away", 1, 2),
        ]
        with Consumer() as third:
            raiseAlert(veid=101, code=0, text=b"fresh")
            assert [bytes(each.text) for each in third.alerts(1)] == [b"fresh"], "what was acknowledged is forgotten"


@pytest.mark.parametrize("end", [signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_what_waits_for_its_turn_survives_the_agent(end):
    with runningAgent("repeat_seconds = 86400\nper_second = 0.01\nburst = 1") as agent, Consumer() as first:
        raiseAlert(veid=101, code=2, text=b"told")
        raiseAlert(veid=101, code=2, text=b"told")
        raiseAlert(veid=102, code=2, text=b"waits")
        raiseAlert(veid=102, code=2, text=b"waits longer")
        first.alerts(1)
        waitUntilKept(agent, b"waits longer")
        agent.writeConfig('backend = "simulated"')
        restart(agent, end)
        with Consumer() as second:
            got = second.alerts(3)
        assert {bytes(each.text) for each in got} == {b"told", b"waits longer (and 1 more)"}


def test_twenty_thousand_alerts_are_delivered_or_in_a_count_however_slowly_they_are_read():
    count = 20000
    with runningAgent(HIGH_LIMITS) as agent, Consumer() as consumer, Consumer(b"") as live:
        with AlertRaiser() as raiser:
            for number in range(count):
                raiser.send(veid=101 + number % 2, code=1, text=b"a text of some length %d" % number)
                if number % 100 == 99:
                    for _ in range(100):
                        raiser.confirm()
        consumer.alerts(count)
        live.alerts(count)
        assert not any("dropped peer" in line for line in agent.lines())


def test_a_state_that_is_damaged_is_set_aside():
    with runningAgent() as agent, Consumer():
        raiseAlert(veid=101, code=2, text=b"kept")
        waitUntilKept(agent, b"kept")
        agent.stop()
        (agent.folder / "state/alerts.state").write_bytes(b"\xff\xff\xff")
        agent.start()
        assert any("alerts that were kept are lost" in line for line in agent.lines())
        assert (agent.folder / "state/alerts.state.damaged").read_bytes() == b"\xff\xff\xff"
        with Consumer() as consumer:
            raiseAlert(veid=101, code=2, text=b"later")
            consumer.alerts(1)


def test_two_consumers_of_one_name_are_named_in_the_log():
    with runningAgent() as agent:
        with Consumer():
            with Consumer():
                waitUntil(lambda: any("are both subscribed" in line for line in agent.lines()), DEADLINE_S, "a line")
            waitUntil(lambda: any("is still subscribed" in line for line in agent.lines()), DEADLINE_S, "it is over")


# ---- alarms of containers that are gone -----------------------------------------------------------------------------


def test_an_alarm_is_cleared_before_its_container_goes_and_the_container_stays_until_that_is_acknowledged():
    with runningAgent() as agent, EnvironmentList() as aware, EnvironmentList(()) as plain, Consumer() as consumer:
        eid = aware.eidOf("ct101")
        raiseAlert(veid=101, code=2, text=b"out of memory", value=5)
        consumer.alerts(1)
        agent.writeInventory(inventoryOf(102))
        (clear,) = consumer.alerts(1, acknowledging=False)
        assert (bytes(clear.eid), clear.code, clear.value) == (eid, 0, 5)
        aware.waitFor({"ct102"}, {"ct101"})
        plain.waitFor({"ct102"}, set())
        with EnvironmentList() as late, EnvironmentList(()) as latePlain:
            assert late.names(True) == {"ct101"} and latePlain.names(False) == {"ct102"}
            consumer.acknowledge(2)
            late.waitFor({"ct102"}, set())
        aware.waitFor({"ct102"}, set())


def test_a_container_that_comes_back_is_one_like_any_other():
    with runningAgent() as agent, EnvironmentList() as aware, Consumer() as consumer:
        raiseAlert(veid=101, code=2, text=b"out of memory")
        agent.writeInventory(inventoryOf(102))
        aware.waitFor({"ct102"}, {"ct101"})
        agent.writeInventory(inventoryOf(101, 102))
        aware.waitFor({"ct101", "ct102"}, set())
        consumer.alerts(2)
        aware.waitFor({"ct101", "ct102"}, set())


@pytest.mark.parametrize("end", [signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_an_alarm_whose_container_goes_while_the_agent_is_down_is_cleared(end):
    with runningAgent() as agent:
        with Consumer() as first:
            raiseAlert(veid=101, code=2, text=b"out of memory")
            first.alerts(1)
        waitUntilKept(agent, b"out of memory")
        agent.popen.send_signal(end)
        agent.popen.wait(DEADLINE_S)
        agent.writeInventory(inventoryOf(102))
        agent.start()
        with EnvironmentList() as aware:
            assert aware.names(True) == {"ct101"}
            eid = aware.eidOf("ct101")
            with Consumer() as second:
                (clear,) = second.alerts(1)
                assert (bytes(clear.eid), clear.code) == (eid, 0)
                aware.waitFor({"ct102"}, set())


def test_an_alarm_of_a_simulated_host_is_raised_until_it_is_cleared_over_restarts_and_reloads():
    with runningAgent() as agent, EnvironmentList() as aware:
        with Consumer() as consumer:
            raiseAlert(veid=101, code=2, text=b"stays")
            raiseAlert(veid=102, code=2, text=b"is cleared")
            raiseAlert(veid=102, code=0, text=b"over")
            consumer.alerts(3)
        agent.sendSignal(signal.SIGHUP)
        restart(agent, signal.SIGTERM)
        with Consumer() as consumer, EnvironmentList() as aware:
            eid = aware.eidOf("ct101")
            agent.writeInventory(inventoryOf())
            (clear,) = consumer.alerts(1)
            assert (bytes(clear.eid), clear.code) == (eid, 0)
            aware.waitFor(set(), set())
