"""What a report of the counters of 10,000 containers costs both programs."""

import os

from support.agentpeer import AgentPeer
from support.host import NETWORK_COUNTERS, QUOTA_COUNTERS
from support.parts import Agent
from support.wait import waitUntil

CONTAINERS = 10000
FIRST_GENERATED_NUMBER = 2001
COST_LIMIT_MS = 100
REPORTS = 5  # measured in one go
ROUNDS = 3  # the cheapest counts: the others were paid for by what else the machine did

_TICKS_PER_S = os.sysconf("SC_CLK_TCK")


class ReportCounter(AgentPeer):
    """Sees the periods go by: it monitors one container that does not exist, in the same period as kxsnmp."""

    def __init__(self):
        super().__init__(Agent.SOCKET, timeoutSeconds=20)
        self.handshake()
        frame = self.schema.Frame(request_id=1)
        frame.monitor_start.classes.append(b"counters_kx_net")
        frame.monitor_start.eids.append(bytes(16))
        frame.monitor_start.period_seconds = 30
        self.sendFrame(frame)
        assert self.receiveFrame().HasField("done")

    def waitForReports(self, count):
        for _ in range(count):
            assert self.receiveFrame().HasField("counter_sample")


def processorMs(pid):
    with open(f"/proc/{pid}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) * 1000 / _TICKS_PER_S


def costs(host, reports):
    """@return processor milliseconds of kxagentd and of kxsnmp, a report of both classes"""
    pids = (host.agent.pid, host.kxsnmp.pid)
    reports.waitForReports(1)
    before = [processorMs(pid) for pid in pids]
    reports.waitForReports(REPORTS)
    return [(processorMs(pid) - start) / REPORTS for pid, start in zip(pids, before)]


def test_a_report_of_ten_thousand_containers_costs_each_program_at_most_a_tenth_of_a_second(host, record_property):
    host.agent.writeConfig('backend = "simulated"', "[monitoring]\nperiod_scale = 0.02\n")
    host.startAll(f"[host]\ngenerate = {CONTAINERS}\n")
    for oid in (NETWORK_COUNTERS + (1, 1, FIRST_GENERATED_NUMBER, 2), QUOTA_COUNTERS + (1, 1, FIRST_GENERATED_NUMBER)):
        waitUntil(lambda: host.client.get([oid])[0].value, 20, "the class is monitored")  # noqa: B023
    with ReportCounter() as reports:
        agent, kxsnmp = map(min, zip(*(costs(host, reports) for _ in range(ROUNDS))))
    figures = f"a report of {CONTAINERS} x 12 counters: kxagentd {agent:.0f} ms, kxsnmp {kxsnmp:.0f} ms"
    print(figures)
    record_property("figures", figures)
    assert agent <= COST_LIMIT_MS
    assert kxsnmp <= COST_LIMIT_MS
