"""A storm of alerts while managers walk the tables: everybody goes on answering, and nothing is lost uncounted."""

import re
import threading
import time

from support.host import ROOT, Host
from support.raising import AlertRaiser
from support.snmp import SnmpClient, SnmpTimeout
from support.traps import SINK_PORT, TrapSink
from support.wait import waitUntil

CONTAINERS = 100
FIRST_GENERATED_NUMBER = 2001
ALERTS = 5000
WALKERS = 5
ANSWER_DEADLINE_S = 1.0
SETTLE_DEADLINE_S = 60

_MORE = re.compile(rb" \(and (\d+) more\)$")


class Walker(threading.Thread):
    """Walks everything again and again, and notes the longest that an answer took."""

    def __init__(self, port):
        super().__init__()
        self.longestS = 0.0
        self.answers = 0
        self.error = None
        self._client = SnmpClient(port)
        self._ending = threading.Event()

    def run(self):
        try:
            last = ROOT
            while not self._ending.is_set():
                last = self._step(last)
        except (SnmpTimeout, AssertionError) as error:
            self.error = error
        finally:
            self._client.close()

    def _step(self, last):
        started = time.monotonic()
        (varbind,) = self._client.getnext([last], timeoutSeconds=3 * ANSWER_DEADLINE_S)
        self.longestS = max(self.longestS, time.monotonic() - started)
        self.answers += 1
        return varbind.oid if varbind.value is not None and varbind.oid[: len(ROOT)] == ROOT else ROOT

    def end(self):
        self._ending.set()
        self.join()


def standsFor(trap):
    """How many alerts a trap stands for: itself and those that its text counts."""
    counted = _MORE.search(trap.variables[1].value)
    return 1 + (int(counted.group(1)) if counted else 0)


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
    walkers = []
    try:
        host.agent.writeConfig('backend = "simulated"', "[alerts]\nrepeat_seconds = 2\n")
        host.startAll(f"[host]\ngenerate = {CONTAINERS}\n")
        sink.waitForSubscription(FIRST_GENERATED_NUMBER)
        walkers = [Walker(host.snmpd.port) for _ in range(WALKERS)]
        for walker in walkers:
            walker.start()
        raisedInS = raiseAll()
        waitUntil(
            lambda: sum(map(standsFor, sink.traps())) >= ALERTS, SETTLE_DEADLINE_S, "every alert has come or was counted"
        )
        for walker in walkers:
            walker.end()
        traps = sink.traps()
        assert sum(map(standsFor, traps)) == ALERTS
        assert [walker.error for walker in walkers] == [None] * WALKERS
        longest = max(walker.longestS for walker in walkers)
        figures = f"{ALERTS} alerts in {raisedInS:.2f} s, {len(traps)} traps, "
        figures += f"{sum(walker.answers for walker in walkers)} answers, the slowest {longest * 1000:.0f} ms"
        print(figures)
        record_property("figures", figures)
        assert longest <= ANSWER_DEADLINE_S
        assert host.kxsnmp.stop() == 0
    finally:
        for walker in walkers:
            walker.end()
        host.close()
        sink.close()
        reports = host.reports()
        host.removeFolder()
    assert not reports, "\n".join(reports)
