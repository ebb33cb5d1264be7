"""Where traps end up under test: a receiver that keeps exactly what was on the wire."""

import socket
from typing import NamedTuple

from .snmp import parseOid, parseTrap
from .wait import waitUntil

SYS_UPTIME = parseOid("1.3.6.1.2.1.1.3.0")
SNMP_TRAP_OID = parseOid("1.3.6.1.6.3.1.1.4.1.0")
ENTERPRISE = parseOid("1.3.6.1.4.1.53864")
ALERT_TRAP = ENTERPRISE + (2, 0, 1)

_MAX_DATAGRAM_BYTES = 65535
_SO_RCVBUFFORCE = 33  # asm-generic/socket.h; the module lacks it
_RECEIVE_BUFFER_BYTES = 8 * 1024 * 1024  # a storm of traps must not be lost in the test's own socket


class Trap(NamedTuple):
    """A trap: its OID, and the variables behind the two that every trap has."""

    oid: tuple
    variables: list


SINK_PORT = 1163


class TrapSink:
    """Receives traps on a port of 127.0.0.1. Single-threaded use."""

    def __init__(self, port=SINK_PORT):
        self.port = port
        self._traps = []
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, _RECEIVE_BUFFER_BYTES)
        self._socket.bind(("127.0.0.1", port))
        self._socket.setblocking(False)

    def close(self):
        self._socket.close()

    def traps(self):
        """All traps of ours so far."""
        while True:
            try:
                datagram = self._socket.recv(_MAX_DATAGRAM_BYTES)
            except BlockingIOError:
                return list(self._traps)
            uptime, oid, *variables = parseTrap(datagram)
            assert (uptime.oid, oid.oid) == (SYS_UPTIME, SNMP_TRAP_OID), "the first two variables of every trap"
            if oid.value[: len(ENTERPRISE)] == ENTERPRISE:  # the master agent has traps of its own
                self._traps.append(Trap(oid.value, variables))

    def forget(self):
        """Begins anew: what has arrived does not count any more."""
        self.traps()
        self._traps = []

    def waitFor(self, count, deadlineSeconds=5):
        """All traps, once there are `count`."""
        return waitUntil(
            lambda: self.traps() if len(self.traps()) >= count else None,
            deadlineSeconds,
            f"{count} traps have arrived, there are {len(self._traps)}",
        )
