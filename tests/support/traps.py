"""Where traps end up under test: a receiver that keeps exactly what was on the wire."""

import socket
from itertools import count
from typing import NamedTuple

from .raising import AlertRaiser
from .snmp import parseOid, parseTrap
from .wait import DeadlineExceeded, waitUntil

SYS_UPTIME = parseOid("1.3.6.1.2.1.1.3.0")
SNMP_TRAP_OID = parseOid("1.3.6.1.6.3.1.1.4.1.0")
ENTERPRISE = parseOid("1.3.6.1.4.1.53864")
ALERT_TRAP = ENTERPRISE + (2, 0, 1)

_MAX_DATAGRAM_BYTES = 65535
_SO_RCVBUFFORCE = 33  # asm-generic/socket.h; the module lacks it
_RECEIVE_BUFFER_BYTES = 8 * 1024 * 1024  # a storm of traps must not be lost in the test's own socket


PROBE_CODE = 7777  # of the alerts that find out whether alerts arrive; no test's own
_PROBE_PATIENCE_S = 0.2  # on a machine that is busy more of them are on their way; all are waited for
_ARRIVES_WITHIN_S = 20
_probes = count()


class Trap(NamedTuple):
    """A trap: its OID, and the variables behind the two that every trap has."""

    oid: tuple
    variables: list


SINK_PORT = 1163


class _Receiver:
    """Receives datagrams on a port of 127.0.0.1 and answers none."""

    def __init__(self, port=SINK_PORT):
        self.port = port
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, _RECEIVE_BUFFER_BYTES)
        self._socket.bind(("127.0.0.1", port))
        self._socket.setblocking(False)

    def close(self):
        self._socket.close()

    def _received(self):
        """What has come since the last time."""
        try:
            while True:
                yield self._socket.recv(_MAX_DATAGRAM_BYTES)
        except BlockingIOError:
            return


class MuteSink(_Receiver):
    """Receives informs, which it does not acknowledge, as long as somebody asks. Single-threaded use."""

    def __init__(self, port=SINK_PORT):
        super().__init__(port)
        self._datagrams = []

    def count(self, text):
        """How often an alert with this text has come."""
        self._datagrams += self._received()
        return sum(text in datagram for datagram in self._datagrams)


class TrapSink(_Receiver):
    """Receives traps. Single-threaded use."""

    def __init__(self, port=SINK_PORT):
        super().__init__(port)
        self._traps = []

    def traps(self):
        """All traps of ours so far."""
        for datagram in self._received():
            uptime, oid, *variables = parseTrap(datagram)
            assert (uptime.oid, oid.oid) == (SYS_UPTIME, SNMP_TRAP_OID), "the first two variables of every trap"
            if oid.value[: len(ENTERPRISE)] == ENTERPRISE:  # the master agent has traps of its own
                self._traps.append(Trap(oid.value, variables))
        return list(self._traps)

    def forget(self):
        """Begins anew: what has arrived does not count any more."""
        self.traps()
        self._traps = []

    def waitFor(self, count, deadlineSeconds=_ARRIVES_WITHIN_S):
        """All traps, once there are `count`."""
        return waitUntil(
            lambda: self.traps() if len(self.traps()) >= count else None,
            deadlineSeconds,
            f"{count} traps have arrived, there are {len(self._traps)}",
        )

    def waitForSubscription(self, veid, deadlineSeconds=_ARRIVES_WITHIN_S):
        """Returns once alerts about a container arrive, and forgets what has arrived until then."""

        def hasArrived(text):
            return any(text in trap.variables[1].value for trap in self.traps())

        waitForSubscription(veid, hasArrived, deadlineSeconds)
        self.forget()


def waitForSubscription(veid, hasArrived, deadlineSeconds=_ARRIVES_WITHIN_S):
    """Returns once alerts arrive as traps. kxsnmp subscribes to them in its own time and is told of none before.

    What finds it out are alerts with PROBE_CODE about the container `veid`; in the end none of them is on its way any
    more. `hasArrived`: whether there is a trap whose text has this one in it, as bytes.
    """
    raised = []

    def isHeard():
        raised.append(b"is anybody there, %d." % next(_probes))
        with AlertRaiser() as raiser:
            raiser.alert(veid=veid, code=PROBE_CODE, text=raised[-1])
        try:
            return waitUntil(lambda: any(map(hasArrived, raised)), _PROBE_PATIENCE_S, "one arrives")
        except DeadlineExceeded:
            return False

    waitUntil(isHeard, deadlineSeconds, "alerts arrive as traps")
    waitUntil(lambda: hasArrived(raised[-1]), deadlineSeconds, "the last of them has arrived as well")
