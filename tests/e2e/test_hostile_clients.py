"""Clients that mean harm, as far as a member of the agent's group can: the agent stays small and goes on serving root."""

import contextlib
import os
import struct
import subprocess
import sys
import textwrap

import pytest
from support.agentpeer import AgentPeer
from support.host import Host
from support.parts import Agent
from support.wait import waitUntil

DEADLINE_S = 20
MAX_BYTES = 128 * 1024 * 1024
CONTAINERS = 2000
GROUP_MEMBER = 4242  # a user that is not root; the test's agent admits whoever is in its socket's group


def memoryOf(pid):
    with open(f"/proc/{pid}/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


@contextlib.contextmanager
def runningAgent():
    host = Host()
    try:
        host.agent.writeInventory(f"[host]\ngenerate = {CONTAINERS}\n")
        host.agent.start()
        yield host.agent
    finally:
        host.closeAndJudge()


@pytest.fixture
def agent():
    with runningAgent() as running:
        yield running


def isServed():
    with AgentPeer(Agent.SOCKET, timeoutSeconds=DEADLINE_S) as peer:
        peer.handshake()
        return len(peer.snapshot()) == CONTAINERS + 1


def test_requests_with_millions_of_fields_cost_no_memory(agent):
    before = memoryOf(agent.pid)
    for _ in range(20):
        with AgentPeer(Agent.SOCKET) as peer:
            peer.handshake()
            body = b"\x12\x00" * 700_000  # as many empty identifiers
            frame = b"\x92\x01" + varint(len(body)) + body
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                peer.sendBytes(struct.pack(">I", len(frame)) + frame)
                assert peer.receiveFrame().error.code == peer.schema.ERROR_MALFORMED
    assert memoryOf(agent.pid) < before + 16 * 1024 * 1024
    assert isServed()


def test_answers_that_nobody_reads_stay_bounded_and_the_memory_comes_back(agent):
    before = memoryOf(agent.pid)
    with contextlib.ExitStack() as stack:
        peers = [stack.enter_context(AgentPeer(Agent.SOCKET)) for _ in range(30)]
        for peer in peers:
            peer.handshake()
            for _ in range(8):
                peer.ask("snapshot_request")
            peer.askForEvents()
        assert isServed()
        assert memoryOf(agent.pid) < MAX_BYTES
    assert isServed()
    waitUntil(lambda: memoryOf(agent.pid) < before + 16 * 1024 * 1024, DEADLINE_S, "the memory comes back")


def varint(number):
    encoded = b""
    while number > 0x7F:
        encoded += bytes([number & 0x7F | 0x80])
        number >>= 7
    return encoded + bytes([number])


IDLE_MEMBER = textwrap.dedent(
    """
    import os, socket, sys
    path, uid, gid = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    os.setgroups([]); os.setgid(gid); os.setuid(uid)
    taken = []
    for _ in range(300):
        one = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        one.connect(path)
        taken.append(one)
    print("ready", flush=True)
    sys.stdin.read()
    """
)


def test_idle_connections_of_a_group_member_keep_root_not_out(agent):
    group = os.stat(Agent.SOCKET).st_gid
    member = subprocess.Popen(
        [sys.executable, "-c", IDLE_MEMBER, Agent.SOCKET, str(GROUP_MEMBER), str(group)],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
    )
    try:
        assert member.stdout.readline() == b"ready\n"
        for _ in range(50):
            with AgentPeer(Agent.SOCKET) as peer:
                peer.handshake()
        assert isServed()
        assert memoryOf(agent.pid) < MAX_BYTES
    finally:
        member.kill()
        member.communicate()
