"""Random faults under load: whatever is killed, stopped, restarted or rewritten, everything is right again at once.

KX_FAULT_SECONDS sets the duration (default: two minutes), KX_FAULT_SEED the sequence; a failure names both.
"""

import os
import random
import re
import signal
import time

from support import process
from support.askers import ANSWER_DEADLINE_S, Asker
from support.host import ENTRY, ROOT, Host
from support.raising import AlertRaiser
from support.snmp import SnmpClient, SnmpError, SnmpTimeout
from support.traps import SINK_PORT, SYS_UPTIME, TrapSink
from support.wait import waitUntil

DURATION_S = float(os.environ.get("KX_FAULT_SECONDS", "120"))
SEED = int(os.environ.get("KX_FAULT_SEED", str(random.randrange(2**32))))

CONTAINERS = 40
FIRST_NUMBER = 2001  # of the generated containers: these are in every inventory
RIGHT_AGAIN_S = 3.0
# snmpd needs a second for a request that a stopped sub-agent leaves unanswered, kxsnmp two to find a new snmpd.
AFTERMATH_S = 3.0
LOST_WITH_AGENT_S = 0.15  # what an agent has known for less than this may be lost when it is killed
WARM_UP_FAULTS = 10
GROWTH_BYTES = 16 * 1024 * 1024

NUMBERS = ENTRY + (1,)
MORE = re.compile(rb" \(and (\d+) more\)$")
LOST = re.compile(r"(\d+) (?:alerts not sent as traps|traps sent and not confirmed)")


def inventory(extra):
    """The generated containers and one that differs with each rewrite."""
    return f'[host]\ngenerate = {CONTAINERS}\n[[environment]]\nname = "extra"\nveid = {extra}\n'


class Manager(Asker):
    """Asks without an end; remembers when answers were late or did not come."""

    def __init__(self, port):
        super().__init__()
        self.late = []  # begin and end of each question that took longer than it may
        self._client = SnmpClient(port)

    def ask(self):
        started = time.monotonic()
        try:
            self.question(self._client)
        except (SnmpTimeout, SnmpError):
            self._ending.wait(0.05)
        if time.monotonic() - started > ANSWER_DEADLINE_S:
            self.late.append((started, time.monotonic()))

    def end(self):
        super().end()
        self._client.close()


class UptimeManager(Manager):
    def question(self, client):
        client.get([SYS_UPTIME])
        self._ending.wait(0.02)


class GetManager(Manager):
    def question(self, client):
        client.get([ENTRY + (column, FIRST_NUMBER + column) for column in range(1, 10)])


class WalkManager(Manager):
    """From one instance to the next, `repetitions` a question."""

    def __init__(self, port, repetitions):
        super().__init__(port)
        self._repetitions = repetitions
        self._last = ROOT

    def question(self, client):
        last = client.getbulk(0, self._repetitions, [self._last])[-1]
        inside = last.value is not None and last.oid[: len(ROOT)] == ROOT
        self._last = last.oid if inside else ROOT


class FaultRun:
    """A running host, its managers, and what has been done to it."""

    def __init__(self, host, sink):
        self.host = host
        self.sink = sink
        self.random = random.Random(SEED)
        self.veid = 101
        self.raised = 0
        self.history = []  # name and begin of each fault
        self.excused = {"snmpd": [], "subtree": []}  # when the one or the other need not answer
        self.client = SnmpClient(host.snmpd.port)
        port = host.snmpd.port
        self.uptime = UptimeManager(port)
        self.managers = [GetManager(port), WalkManager(port, 1), WalkManager(port, 1), WalkManager(port, 30)]

    # ---- faults ----

    def _away(self, part):
        """`part` ends, hard or in order, and comes back after a moment."""
        part.stop(signal.SIGKILL if self.random.random() < 0.5 else signal.SIGTERM)
        time.sleep(self.random.choice([0, 0.2, 1.5]))
        part.start()

    def _pause(self, pid, longest):
        os.kill(pid, signal.SIGSTOP)
        time.sleep(self.random.uniform(0.05, longest))
        os.kill(pid, signal.SIGCONT)

    def _during(self, kinds, fault):
        begun = time.monotonic()
        fault()
        for kind in kinds:
            self.excused[kind].append((begun, time.monotonic() + AFTERMATH_S))

    def restartSnmpd(self):
        self._during(["snmpd", "subtree"], lambda: self._away(self.host.snmpd))

    def restartKxsnmp(self):
        self._during(["subtree"], lambda: self._away(self.host.kxsnmp))

    def restartAgent(self):
        time.sleep(LOST_WITH_AGENT_S)
        self._away(self.host.agent)

    def pauseSnmpd(self):
        self._during(["snmpd", "subtree"], lambda: self._pause(self.host.snmpd.pid, 3))

    def pauseKxsnmp(self):
        self._during(["subtree"], lambda: self._pause(self.host.kxsnmp.pid, 3))

    def pauseAgent(self):
        self._pause(self.host.agent.pid, 3)

    def rewriteInventory(self):
        self.veid = self.random.randrange(101, 200)
        self.host.agent.writeInventory(inventory(self.veid))

    def raiseAlerts(self):
        count = self.random.choice([1, 5, 60])
        with AlertRaiser() as raiser:
            for number in range(count):
                veid = FIRST_NUMBER + self.random.randrange(CONTAINERS)
                raiser.alert(veid=veid, code=1 + number % 2, text=b"fault %d" % (self.raised + number))
        self.raised += count

    # ---- what must hold ----

    def numbers(self):
        try:
            return [varbind.value for varbind in self.client.bulkwalk(NUMBERS, 30)]
        except (SnmpTimeout, SnmpError):
            return None

    def waitUntilRight(self):
        expected = [self.veid, *range(FIRST_NUMBER, FIRST_NUMBER + CONTAINERS)]
        waitUntil(lambda: self.numbers() == expected, RIGHT_AGAIN_S, f"the table is right again after {self.history[-1][0]}")

    def assertNobodyEnded(self):
        for pid in (self.host.snmpd.pid, self.host.kxsnmp.pid, self.host.agent.pid):
            assert process.isAlive(pid), f"process {pid} has ended by itself after {self.history[-3:]}"

    def accounted(self):
        """Alerts that have come as traps, that traps' texts count, or that kxsnmp has logged as lost."""
        count = 0
        for trap in self.sink.traps():
            text = trap.variables[1].value
            counted = MORE.search(text)
            count += text.startswith(b"fault ") * (1 + (int(counted.group(1)) if counted else 0))
        return count + sum(int(number) for line in self.host.syslog.lines() for number in LOST.findall(line.text))

    def unexcused(self):
        """Late answers of moments in which everything was there to answer."""
        kinds = [("snmpd", self.uptime)] + [("subtree", manager) for manager in self.managers]
        return [
            (type(manager).__name__, round(end - begin, 2), self._near(begin))
            for kind, manager in kinds
            for begin, end in manager.late
            if not any(begin < excuse[1] and end > excuse[0] for excuse in self.excused[kind])
        ]

    def _near(self, moment):
        return [name for name, begun in self.history if -1 < moment - begun < 10][-3:]

    def run(self):
        faults = [
            self.restartSnmpd, self.restartKxsnmp, self.restartAgent, self.pauseSnmpd, self.pauseKxsnmp, self.pauseAgent,
            self.rewriteInventory, self.raiseAlerts, self.raiseAlerts,
        ]  # fmt: skip
        for manager in (self.uptime, *self.managers):
            manager.start()
        ending = time.monotonic() + DURATION_S
        before = None
        while time.monotonic() < ending:
            fault = self.random.choice(faults)
            self.history.append((fault.__name__, time.monotonic()))
            fault()
            if self.random.random() < 0.5:  # else the next one comes on top of it
                self.waitUntilRight()
                self.assertNobodyEnded()
            if len(self.history) == WARM_UP_FAULTS:
                before = self.resident()
        self.waitUntilRight()
        self.assertNobodyEnded()
        return before

    def resident(self):
        return [process.residentBytes(pid) for pid in (self.host.kxsnmp.pid, self.host.agent.pid)]

    def end(self):
        for manager in (self.uptime, *self.managers):
            if manager.is_alive():
                manager.end()
        self.client.close()


def test_random_faults_leave_everything_right_and_answers_prompt(record_property):
    sink = TrapSink()
    host = Host(trapPorts=[SINK_PORT])
    run = FaultRun(host, sink)
    try:
        host.startAll(inventory(run.veid))
        sink.waitForSubscription(FIRST_NUMBER)
        before = run.run()
        waitUntil(lambda: run.accounted() >= run.raised, 30, "each alert has come or was counted")
        after = run.resident()
        late = run.unexcused()
        answers = sum(manager.answers for manager in (run.uptime, *run.managers))
        figures = f"seed {SEED}: {len(run.history)} faults, {run.raised} alerts, {answers} answers, late {late}; "
        figures += f"resident {before} -> {after}"
        print(figures)
        record_property("figures", figures)
        assert [manager.error for manager in (run.uptime, *run.managers)] == [None] * 5
        assert not late
        assert before is None or all(now < then + GROWTH_BYTES for then, now in zip(before, after))
    finally:
        run.end()
        sink.close()
        host.closeAndJudge()
