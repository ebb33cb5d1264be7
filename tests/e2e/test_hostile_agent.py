"""An agent that sends without measure, or does not read: the sub-agent answers on, and stays small."""

import re
import struct
import time

import pytest
from support import process
from support.agentscript import ScriptedAgent, encoded
from support.host import NETWORK_COUNTERS, SERVER_EID
from support.wait import waitUntil

MIB = 1024 * 1024
MAX_BYTES = 128 * MIB
FRAME_BYTES = 16 * MIB
ANSWER_DEADLINE_S = 1.0
ATTACK_S = 4.0
MAX_BYTES_AFTER = 32 * MIB


def varint(number):
    encodedNumber = bytearray()
    while number > 127:
        encodedNumber.append(number & 127 | 128)
        number >>= 7
    return bytes(encodedNumber) + bytes([number])


def field(number, content):
    return varint(number << 3 | 2) + varint(len(content)) + content


def frameOf(body, content):
    """A frame whose body is of this number, and as long as a frame may be."""
    payload = field(body, content)
    return struct.pack(">I", len(payload)) + payload


def filled(part, size=FRAME_BYTES - 16):
    return part * (size // len(part))


SNAPSHOT_CHUNK, DELTA, VOCABULARY_SET, EVENT_MESSAGE, COUNTER_SAMPLE = 5, 6, 8, 12, 19


def sendingOn(peer, data):
    while True:
        peer.sendBytes(data)


def pingsUnread(peer):
    peer.serveFirstData()
    ping = peer.schema.Frame(request_id=2**63)
    ping.ping.SetInParent()
    sendingOn(peer, encoded(ping) * 1000)


def tinyEnvironments(peer):
    peer.sendBytes(frameOf(SNAPSHOT_CHUNK, filled(field(4, b""))))
    peer.readUntilClosed()


def tinyChanges(peer):
    peer.serveFirstData()
    peer.sendBytes(frameOf(DELTA, filled(field(3, b""))))
    peer.readUntilClosed()


def hugeSnapshot(peer):
    for index in range(1000):
        frame = peer.schema.Frame()
        frame.snapshot_chunk.generation = 1
        frame.snapshot_chunk.index = index
        for number in range(1000):
            environment = frame.snapshot_chunk.environments.add(eid=struct.pack(">QQ", index, number))
            environment.type = b"lumetra"
            environment.configuration.description = b"x" * 4000
        peer.send(frame)


def vocabulariesOfNothing(peer):
    peer.serveFirstData()
    sendingOn(peer, frameOf(VOCABULARY_SET, filled(field(1, b""))))


def largeVocabularies(peer):
    peer.serveFirstData()
    sendingOn(peer, frameOf(VOCABULARY_SET, field(1, field(1, b"x" * (FRAME_BYTES - 64)))))


def endlessReport(peer):
    """Once it is asked for counters: parts without end, each of one megabyte and with as many rows as fit."""
    peer.serveFirstData()
    while True:
        request = peer.read()
        if request is None:
            return
        if request.HasField("monitor_start"):
            break
    frame = peer.schema.Frame()
    frame.counter_sample.monitor = request.request_id
    frame.counter_sample.continued = True
    group = frame.counter_sample.groups.add(class_name=b"counters_kx_net")
    rows = MIB // 24
    group.eids = struct.pack(">QQ", 0, 1) * rows
    group.instances.extend([b"%d" % row for row in range(rows)])
    sendingOn(peer, encoded(frame))


def partOfAFrame(peer):
    peer.serveFirstData()
    peer.sendBytes(struct.pack(">I", FRAME_BYTES) + bytes(FRAME_BYTES - 1))
    peer.readUntilClosed()


def quietLink(peer):
    peer.serveFirstData()
    while True:
        request = peer.read()
        if request is None:
            return
        if request.HasField("ping"):
            request.pong.SetInParent()
            peer.send(request)


def emptyAlerts(peer):
    sendingOn(peer, frameOf(EVENT_MESSAGE, filled(field(1307, b""))))


def manyAlerts(peer):
    alert = field(1, struct.pack(">QQ", 0, 99)) + field(3, b"out of memory")
    sendingOn(peer, frameOf(EVENT_MESSAGE, filled(field(1307, field(1, b"resource_alert") + field(3, alert)))))


def peakBytes(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return int(re.search(r"VmHWM:\s+(\d+)", status.read()).group(1)) * 1024


def assertAnswersWhile(host, seconds):
    """Asks for what needs the agent, and for counters, which are asked of it."""
    late = []
    until = time.monotonic() + seconds
    while time.monotonic() < until:
        started = time.monotonic()
        host.client.getnext([NETWORK_COUNTERS], timeoutSeconds=5)
        host.client.get([SERVER_EID], timeoutSeconds=5)
        if time.monotonic() - started > ANSWER_DEADLINE_S:
            late.append(time.monotonic() - started)
    assert len(late) <= 1, f"answers came late: {late}"  # one busy moment of the machine is forgiven


LINKS = [
    pingsUnread,
    tinyEnvironments,
    tinyChanges,
    hugeSnapshot,
    vocabulariesOfNothing,
    largeVocabularies,
    endlessReport,
    partOfAFrame,
]


@pytest.mark.parametrize(
    ("link", "events"),
    [(link, None) for link in LINKS] + [(quietLink, emptyAlerts), (quietLink, manyAlerts)],
    ids=lambda script: script.__name__ if script else "",
)
def test_memory_is_bounded_and_given_back(host, link, events):
    host.snmpd.start()
    with ScriptedAgent(link, *([events] if events else [])) as agent:
        host.kxsnmp.start()
        host.waitForSubtree()
        assertAnswersWhile(host, ATTACK_S)
        assert agent.connections > 0
        peak = peakBytes(host.kxsnmp.pid)
    print(f"{link.__name__} {events.__name__ if events else ''}: at most {peak / MIB:.0f} MiB")
    assert peak < MAX_BYTES
    waitUntil(lambda: process.residentBytes(host.kxsnmp.pid) < MAX_BYTES_AFTER, 10, "the memory is given back")
