"""Makes a described host report alerts, over the agent's own socket."""

from .agentpeer import AgentPeer
from .parts import Agent


class AlertRaiser(AgentPeer):
    """One connection to the agent, on which alerts are raised one after the other."""

    def __init__(self, path=Agent.SOCKET):
        super().__init__(path)
        self.server = bytes(self.handshake().server_eid)

    def send(self, veid=None, eid=None, code=1, text=b"", value=0):
        """Sends the request and does not wait for its answer."""
        frame = self.schema.Frame(request_id=1)
        request = frame.alert_raise
        if veid is not None:
            request.veid = veid
        else:
            request.eid = eid
        request.code, request.text, request.value = code, text, value
        self.sendFrame(frame)

    def confirm(self):
        """Waits for the answer to one request. Raises when it was refused."""
        frame = self.receiveFrame()
        if frame is None or not frame.HasField("done"):
            raise AssertionError(f"the alert was not raised: {frame}")

    def alert(self, **alert):
        self.send(**alert)
        self.confirm()
