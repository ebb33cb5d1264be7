"""A storm of alerts while managers walk the tables: everybody goes on answering, and nothing is lost uncounted."""

import re
import time
from collections import Counter

from support.agentpeer import AgentPeer
from support.askers import ANSWER_DEADLINE_S, Asker, Walker
from support.host import Host
from support.parts import Agent
from support.raising import AlertRaiser
from support.traps import SINK_PORT, TrapSink
from support.wait import waitUntil

CONTAINERS = 100
FIRST_GENERATED_NUMBER = 2001
ALERTS = 5000
WALKERS = 5
SETTLE_DEADLINE_S = 60

_MORE = re.compile(rb" \(and (\d+) more\)$")


class Client(Asker):
    """A client of the management agent that connects, introduces itself and asks for a sign of life."""

    def ask(self):
        with AgentPeer(Agent.SOCKET, timeoutSeconds=3 * ANSWER_DEADLINE_S) as peer:
            peer.handshake()
            peer.ask("ping")
            assert peer.receiveFrame().HasField("pong")


def alertsOfEach(traps):
    """Container -> how many alerts were told of it: those that came and those that their texts count."""
    alerts = Counter()
    for trap in traps:
        counted = _MORE.search(trap.variables[1].value)
        alerts[trap.variables[0].value] += 1 + (int(counted.group(1)) if counted else 0)
    return alerts


def raiseAll():
    """@return how long it took, in seconds"""
    started = time.monotonic()
    with AlertRaiser() as raiser:
        unanswered = 0
        for number in range(ALERTS):
            veid = FIRST_GENERATED_NUMBER + number % CONTAINERS
            raiser.send(veid=veid, code=1 + number % 2, text=b"storm %d" % (number % 7), value=number)
            unanswered += 1
            if unanswered == 500:  # the agent's answers must not fill its buffer
                for _ in range(unanswered):
                    raiser.confirm()
                unanswered = 0
        for _ in range(unanswered):
            raiser.confirm()
    return time.monotonic() - started


def test_a_storm_of_alerts_is_delivered_or_counted_while_everybody_answers(record_property):
    sink = TrapSink()
    host = Host(trapPorts=[SINK_PORT])
    askers = []
    try:
        host.agent.writeConfig('backend = "simulated"', "[alerts]\nrepeat_seconds = 2\n")
        host.startAll(f"[host]\ngenerate = {CONTAINERS}\n")
        sink.waitForSubscription(FIRST_GENERATED_NUMBER)
        walkers = [Walker(host.snmpd.port) for _ in range(WALKERS)]
        client = Client()
        askers = [*walkers, client]
        for asker in askers:
            asker.start()
        raisedInS = raiseAll()
        waitUntil(
            lambda: alertsOfEach(sink.traps()).total() >= ALERTS, SETTLE_DEADLINE_S, "each alert has come or was counted"
        )
        waitUntil(
            lambda: all(walker.rows or walker.error for walker in walkers), SETTLE_DEADLINE_S, "all have walked once"
        )
        for asker in askers:
            asker.end()
        traps = sink.traps()
        numbers = range(FIRST_GENERATED_NUMBER, FIRST_GENERATED_NUMBER + CONTAINERS)
        assert alertsOfEach(traps) == {number: ALERTS // CONTAINERS for number in numbers}
        assert [asker.error for asker in askers] == [None] * len(askers)
        assert {rows for walker in walkers for rows in walker.rows} == {CONTAINERS}
        longest = max(walker.longestS for walker in walkers)
        figures = f"{ALERTS} alerts in {raisedInS:.2f} s, {len(traps)} traps, "
        figures += f"{sum(walker.answers for walker in walkers)} answers, the slowest {longest * 1000:.0f} ms; "
        figures += f"of the agent {client.answers}, the slowest {client.longestS * 1000:.0f} ms"
        print(figures)
        record_property("figures", figures)
        assert longest <= ANSWER_DEADLINE_S and client.longestS <= ANSWER_DEADLINE_S
        assert host.kxsnmp.stop() == 0
    finally:
        for asker in askers:
            asker.end()
        sink.close()
        host.closeAndJudge()
