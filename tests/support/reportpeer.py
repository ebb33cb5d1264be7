"""Sees the agent's reports of counters go by."""

from .agentpeer import AgentPeer
from .parts import Agent

KXSNMPS_PERIOD_S = 30  # reports of monitors that have one period come together


class ReportPeer(AgentPeer):
    """Monitors one container that does not exist, in the same period as kxsnmp."""

    def __init__(self, path=Agent.SOCKET, timeoutSeconds=20):
        super().__init__(path, timeoutSeconds)
        self._timeoutSeconds = timeoutSeconds
        self.handshake()
        frame = self.schema.Frame(request_id=1)
        frame.monitor_start.classes.append(b"counters_kx_net")
        frame.monitor_start.eids.append(bytes(16))
        frame.monitor_start.period_seconds = KXSNMPS_PERIOD_S
        self.sendFrame(frame)
        assert self.receiveFrame().HasField("done")

    def waitForReports(self, count):
        for _ in range(count):
            assert self.receiveFrame().HasField("counter_sample")

    def sees(self):
        """A report that was not waited for; None when there was none."""
        self.setTimeout(0)
        try:
            return self.receiveFrame()
        except BlockingIOError:
            return None
        finally:
            self.setTimeout(self._timeoutSeconds)
