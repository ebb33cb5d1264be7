"""A small SNMPv2c client that shows exactly what was on the wire.

net-snmp's tools print values through MIB files and display hints and retry by themselves; a test of types, bytes
and response times needs neither. Values come back as: int for the integer types, bytes for strings and
addresses, a tuple for OIDs, None for null and for the three exceptions.
"""

import random
import socket
import time
from typing import NamedTuple, Union

INTEGER, OCTET_STRING, NULL, OID = 0x02, 0x04, 0x05, 0x06
IP_ADDRESS, COUNTER32, UNSIGNED32, TIMETICKS, COUNTER64 = 0x40, 0x41, 0x42, 0x43, 0x46
NO_SUCH_OBJECT, NO_SUCH_INSTANCE, END_OF_MIB_VIEW = 0x80, 0x81, 0x82

NO_ACCESS, NOT_WRITABLE = 6, 17  # error-status values of RFC 3416, section 3
MAX_OID_LENGTH = 128  # RFC 3416, section 4.1

_SEQUENCE = 0x30
_GET, _GETNEXT, _RESPONSE, _SET, _GETBULK = 0xA0, 0xA1, 0xA2, 0xA3, 0xA5
_TRAP_2 = 0xA7
_VERSION_2C = 1
_MAX_DATAGRAM_BYTES = 65535
_UNSIGNED_TAGS = (COUNTER32, UNSIGNED32, TIMETICKS, COUNTER64)
_EMPTY_TAGS = (NULL, NO_SUCH_OBJECT, NO_SUCH_INSTANCE, END_OF_MIB_VIEW)

Oid = tuple


class Varbind(NamedTuple):
    oid: Oid
    tag: int
    value: Union[int, bytes, tuple, None]


class SnmpTimeout(Exception):
    """No answer came in time."""


class SnmpError(Exception):
    """The answer has a non-zero error-status."""

    def __init__(self, status, index):
        super().__init__(f"error-status {status}, error-index {index}")
        self.status = status
        self.index = index


def parseOid(text):
    """'1.3.6.1' or '.1.3.6.1' as a tuple."""
    return tuple(int(part) for part in text.strip(".").split("."))


def formatOid(oid):
    return ".".join(str(part) for part in oid)


# ---- BER ----------------------------------------------------------------------------------------------------


def _length(count):
    if count < 0x80:
        return bytes([count])
    body = count.to_bytes((count.bit_length() + 7) // 8, "big")
    return bytes([0x80 | len(body)]) + body


def _tlv(tag, body):
    return bytes([tag]) + _length(len(body)) + body


def _integer(value, tag=INTEGER):
    return _tlv(tag, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def _base128(number):
    septets = [number & 0x7F]
    while number > 0x7F:
        number >>= 7
        septets.append(0x80 | (number & 0x7F))
    return bytes(reversed(septets))


def _oid(oid):
    first, second, *rest = oid
    return _tlv(OID, b"".join(map(_base128, [first * 40 + second, *rest])))


def _value(tag, value):
    if tag in _EMPTY_TAGS:
        return _tlv(tag, b"")
    if tag == OID:
        return _oid(value)
    return _integer(value, tag) if isinstance(value, int) else _tlv(tag, value)


class _Reader:
    """Takes tag-length-value elements off the front of a byte string."""

    def __init__(self, data):
        self._data = data
        self._position = 0

    def __bool__(self):
        return self._position < len(self._data)

    def _take(self, count):
        if count > len(self._data) - self._position:
            raise ValueError("truncated BER")
        self._position += count
        return self._data[self._position - count : self._position]

    def element(self):
        tag, length = self._take(2)
        if length & 0x80:
            length = int.from_bytes(self._take(length & 0x7F), "big")
        return tag, self._take(length)

    def expect(self, tag):
        found, body = self.element()
        if found != tag:
            raise ValueError(f"BER tag {found:#x} where {tag:#x} was due")
        return body

    def integer(self):
        return int.from_bytes(self.expect(INTEGER), "big", signed=True)


def _decodeOid(body):
    parts, number = [], 0
    for byte in body:
        number = number << 7 | byte & 0x7F
        if not byte & 0x80:
            parts.append(number)
            number = 0
    first = min(parts[0] // 40, 2)
    return (first, parts[0] - first * 40, *parts[1:])


def _decodeValue(tag, body):
    if tag == INTEGER:
        return int.from_bytes(body, "big", signed=True)
    if tag in _UNSIGNED_TAGS:
        return int.from_bytes(body, "big")
    if tag == OID:
        return _decodeOid(body)
    if tag in _EMPTY_TAGS:
        if body:
            raise ValueError(f"content in an empty value, tag {tag:#x}")
        return None
    return bytes(body)


def _decodeVarbinds(body):
    varbinds, reader = [], _Reader(body)
    while reader:
        one = _Reader(reader.expect(_SEQUENCE))
        oid = _decodeOid(one.expect(OID))
        tag, content = one.element()
        varbinds.append(Varbind(oid, tag, _decodeValue(tag, content)))
    return varbinds


def parseTrap(datagram):
    """The varbinds of an SNMPv2 trap. Raises ValueError for anything else."""
    message = _Reader(_Reader(datagram).expect(_SEQUENCE))
    if message.integer() != _VERSION_2C:
        raise ValueError("no SNMPv2c message")
    message.expect(OCTET_STRING)
    pdu = _Reader(message.expect(_TRAP_2))
    for _ in range(3):
        pdu.integer()
    return _decodeVarbinds(pdu.expect(_SEQUENCE))


# ---- the client ---------------------------------------------------------------------------------------------


class SnmpClient:
    """Asks one agent on 127.0.0.1. Single-threaded; never retries."""

    def __init__(self, port, community="public", timeoutSeconds=5.0):
        self.timeoutSeconds = timeoutSeconds
        self._community = community.encode()
        self._requestId = random.randrange(1, 2**30)
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.connect(("127.0.0.1", port))

    def close(self):
        self._socket.close()

    def get(self, oids, timeoutSeconds=None):
        return self._ask(_GET, 0, 0, [(oid, NULL, None) for oid in oids], timeoutSeconds)

    def getnext(self, oids, timeoutSeconds=None):
        return self._ask(_GETNEXT, 0, 0, [(oid, NULL, None) for oid in oids], timeoutSeconds)

    def getbulk(self, nonRepeaters, maxRepetitions, oids, timeoutSeconds=None):
        varbinds = [(oid, NULL, None) for oid in oids]
        return self._ask(_GETBULK, nonRepeaters, maxRepetitions, varbinds, timeoutSeconds)

    def set(self, varbinds, timeoutSeconds=None):
        return self._ask(_SET, 0, 0, varbinds, timeoutSeconds)

    def walk(self, root):
        """All varbinds below `root` by GETNEXT. Raises when the agent does not go forward."""
        return self._collect(root, lambda oid: self.getnext([oid]))

    def bulkwalk(self, root, maxRepetitions=10):
        """All varbinds below `root` by GETBULK. Raises when the agent does not go forward."""
        return self._collect(root, lambda oid: self.getbulk(0, maxRepetitions, [oid]))

    @staticmethod
    def _collect(root, ask):
        found, last = [], tuple(root)
        while True:
            for varbind in ask(last):
                if varbind.tag == END_OF_MIB_VIEW or varbind.oid[: len(root)] != tuple(root):
                    return found
                if varbind.oid <= last:
                    raise AssertionError(f"a walk went from {formatOid(last)} to {formatOid(varbind.oid)}")
                last = varbind.oid
                found.append(varbind)

    def _ask(self, pdu, second, third, varbinds, timeoutSeconds):
        message = self._message(pdu, second, third, varbinds)
        try:
            self._socket.send(message)
        except ConnectionRefusedError:
            # The kernel reports the refusal of an earlier datagram on the next send, which it then drops.
            self._socket.send(message)
        return self._answer(self.timeoutSeconds if timeoutSeconds is None else timeoutSeconds)

    def _message(self, pdu, second, third, varbinds):
        """A datagram with the next request number."""
        self._requestId += 1
        listed = b"".join(_tlv(_SEQUENCE, _oid(oid) + _value(tag, value)) for oid, tag, value in varbinds)
        fields = _integer(self._requestId) + _integer(second) + _integer(third) + _tlv(_SEQUENCE, listed)
        message = _integer(_VERSION_2C) + _tlv(OCTET_STRING, self._community) + _tlv(pdu, fields)
        return _tlv(_SEQUENCE, message)

    def _answer(self, timeoutSeconds):
        deadline = time.monotonic() + timeoutSeconds
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                raise SnmpTimeout(f"no answer within {timeoutSeconds:g} s")
            self._socket.settimeout(left)
            try:
                requestId, status, index, varbinds = self._parse(self._socket.recv(_MAX_DATAGRAM_BYTES))
            except socket.timeout:
                continue
            except ConnectionRefusedError as error:
                raise SnmpTimeout("nobody listens on the agent's port") from error
            if requestId != self._requestId:
                continue  # the late answer to a request that was given up
            if status:
                raise SnmpError(status, index)
            return varbinds

    @staticmethod
    def _parse(datagram):
        message = _Reader(_Reader(datagram).expect(_SEQUENCE))
        message.integer()
        message.expect(OCTET_STRING)
        pdu = _Reader(message.expect(_RESPONSE))
        requestId, status, index = pdu.integer(), pdu.integer(), pdu.integer()
        return requestId, status, index, _decodeVarbinds(pdu.expect(_SEQUENCE))
