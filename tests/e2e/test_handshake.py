"""What the management agent's socket refuses: with one clear log line each, and serving the others on."""

import contextlib
import os
import socket
import stat
import struct

import pytest
from support.agentpeer import AgentPeer
from support.host import ENTRY
from support.parts import Agent
from support.wait import waitUntil

INVENTORY = '[[environment]]\nname = "first"\nveid = 101\n'
MAX_FRAME_BYTES = 1536 * 1024
MAX_CONNECTIONS = 256
NOBODY = 65534


@pytest.fixture
def agent(describedHost):
    """The running agent, once its log is as quiet as before the test."""
    return describedHost.agent


@contextlib.contextmanager
def oneNewLine(agent, *words):
    """What is done inside makes the agent log exactly one line, in which all the words occur."""
    before = len(agent.lines())
    yield
    waitUntil(lambda: len(agent.lines()) > before, 5, "the agent logs the refusal")
    assertServedOn()
    fresh = agent.lines()[before:]
    assert len(fresh) == 1, fresh
    for word in words:
        assert word.lower() in fresh[0].lower(), fresh[0]


def assertServedOn():
    """A well-behaved client is answered. It logs nothing, and what came before it in the log is complete."""
    with AgentPeer(Agent.SOCKET) as peer:
        peer.handshake()
        assert b"first" in [environment.configuration.name for environment in peer.snapshot()]


def assertRefused(peer, code):
    frame = peer.receiveFrame()
    assert frame is not None and frame.HasField("error"), frame
    assert frame.error.code == code, frame
    assert frame.error.text
    assert peer.receiveFrame() is None, "the connection is closed behind the error"


@pytest.fixture(autouse=True)
def theSubagentIsServedOn(describedHost, others):
    """Whatever a peer does, the sub-agent beside it sees changes as before."""
    yield
    assert describedHost.client.get([ENTRY + (3, 101)])[0].value == b"first"


def test_a_well_behaved_peer_gets_the_server_identifier_and_all_environments(agent):
    with AgentPeer(Agent.SOCKET) as peer:
        hello = peer.handshake()
        assert hello.protocol_major == 1
        assert len(hello.server_eid) == 16
        environments = peer.snapshot()
    assert [(environment.type, environment.configuration.name) for environment in environments][1:] == [
        (b"lumetra", b"first")
    ]
    assert environments[0].type == b"host" and environments[0].eid == hello.server_eid


@pytest.mark.parametrize("major", [0, 2, 4294967295])
def test_a_wrong_version_is_refused_in_words(agent, major):
    with oneNewLine(agent, "version", str(major), f"{os.getpid()}"), AgentPeer(Agent.SOCKET) as peer:
        peer.sendHello(major=major)
        assertRefused(peer, peer.schema.ERROR_PROTOCOL_VERSION)


def test_another_minor_version_is_served(agent):
    with AgentPeer(Agent.SOCKET) as peer:
        peer.sendHello(minor=7)
        assert peer.receiveFrame().HasField("hello")


@pytest.mark.parametrize("length", [MAX_FRAME_BYTES + 1, 2**32 - 1])
def test_a_frame_over_the_limit_is_refused_before_its_content_comes(agent, length):
    with oneNewLine(agent, str(length)), AgentPeer(Agent.SOCKET) as peer:
        peer.sendBytes(struct.pack(">I", length))
        assertRefused(peer, peer.schema.ERROR_MALFORMED)


def test_a_frame_over_the_limit_after_the_handshake_is_refused_too(agent):
    with oneNewLine(agent, str(MAX_FRAME_BYTES + 1)), AgentPeer(Agent.SOCKET) as peer:
        peer.handshake()
        peer.sendBytes(struct.pack(">I", MAX_FRAME_BYTES + 1) + b"x" * 100000)
        assertRefused(peer, peer.schema.ERROR_MALFORMED)


@pytest.mark.parametrize(
    "garbage",
    [b"\0\0\0\4\xff\xff\xff\xff", b"\0\0\0\0", b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", b"\0\0\0\2\x4a\x00"],
    ids=["no message", "an empty frame", "another protocol", "a ping before the hello"],
)
def test_garbage_is_refused(agent, garbage):
    with oneNewLine(agent), AgentPeer(Agent.SOCKET) as peer:
        peer.sendBytes(garbage)
        assertRefused(peer, peer.schema.ERROR_MALFORMED)


def test_a_second_hello_is_refused(agent):
    with oneNewLine(agent), AgentPeer(Agent.SOCKET) as peer:
        peer.handshake()
        peer.sendHello()
        assertRefused(peer, peer.schema.ERROR_MALFORMED)


def test_a_hello_that_comes_byte_by_byte_is_served(agent):
    with AgentPeer(Agent.SOCKET) as peer:
        frame = peer.schema.Frame()
        frame.hello.protocol_major = 1
        payload = frame.SerializeToString()
        for byte in struct.pack(">I", len(payload)) + payload:
            peer.sendBytes(bytes([byte]))
        assert peer.receiveFrame().HasField("hello")


def test_only_root_and_the_group_may_open_the_socket(agent):
    assert stat.S_IMODE(os.stat(Agent.SOCKET).st_mode) == 0o660
    assert stat.S_IMODE(os.stat(os.path.dirname(Agent.SOCKET)).st_mode) == 0o755


def _connectAsNobody(report):
    """In a child process: connects without the right to and reports what it got, as one byte."""
    os.setgroups([])
    os.setgid(NOBODY)
    os.setuid(NOBODY)
    with AgentPeer(Agent.SOCKET) as peer:
        frame = peer.receiveFrame()
        isRefusal = frame is not None and frame.error.code == peer.schema.ERROR_NOT_ALLOWED
        os.write(report, b"r" if isRefusal and peer.receiveFrame() is None else b"?")


def test_a_peer_without_the_right_is_refused_even_where_the_file_lets_it_in(agent):
    reading, writing = os.pipe()
    AgentPeer(Agent.SOCKET).close()  # the schema is loaded before the child gives up its rights
    os.chmod(Agent.SOCKET, 0o666)
    try:
        with oneNewLine(agent, str(NOBODY)):
            child = os.fork()
            if child == 0:
                try:
                    _connectAsNobody(writing)
                finally:
                    os._exit(0)
            os.close(writing)
            assert os.read(reading, 1) == b"r"
            os.waitpid(child, 0)
    finally:
        os.chmod(Agent.SOCKET, 0o660)
        os.close(reading)


def connections():
    """Accepted connections of the agent, by the kernel's list of sockets: "03" is connected."""
    with open("/proc/net/unix", encoding="ascii") as listed:
        return sum(line.endswith(Agent.SOCKET + "\n") and line.split()[5] == "03" for line in listed)


@pytest.fixture(scope="module")
def others(describedHost):
    """Connections of the sub-agent itself. Asked for before any test has made one."""
    return connections()


def test_the_257th_connection_is_refused(others, agent):
    """Of the 256 the sub-agent holds its own. A place that becomes free is given to the next one."""
    with contextlib.ExitStack() as stack:
        peers = []

        def fill():
            peer = stack.enter_context(AgentPeer(Agent.SOCKET))
            peer.sendHello()
            frame = peer.receiveFrame()
            peers.append(peer)
            return frame

        waitUntil(lambda: connections() == others, 10, "the connections of earlier tests are gone")
        while len(peers) < MAX_CONNECTIONS - others:
            assert fill().HasField("hello"), f"connection {len(peers) + 1} is refused"
        before = len(agent.lines())
        with AgentPeer(Agent.SOCKET) as late:
            assertRefused(late, late.schema.ERROR_TOO_MANY_CONNECTIONS)
        assert b"first" in [environment.configuration.name for environment in peers[0].snapshot()]
        fresh = agent.lines()[before:]
        assert len(fresh) == 1 and "256" in fresh[0], fresh

        peers[-1].close()
        waitUntil(lambda: fill().HasField("hello"), 5, "a free place is given away")


def test_a_peer_that_leaves_in_the_middle_of_a_frame_disturbs_nobody(agent):
    with AgentPeer(Agent.SOCKET) as peer:
        peer.handshake()
        peer.sendBytes(struct.pack(">I", 1000) + b"half")
    assertServedOn()


def test_a_second_agent_on_the_same_socket_ends_with_a_clear_error(describedHost, tmp_path):
    second = Agent(tmp_path / "second", describedHost.agent.program, describedHost.reportFolder)
    second.writeInventory(INVENTORY)
    with pytest.raises(AssertionError, match="ended with status 1"):
        second.start()
    assert Agent.SOCKET in second.log.read_text()
    assertServedOn()


def test_a_silent_connection_is_closed_in_the_end(agent):
    with oneNewLine(agent), AgentPeer(Agent.SOCKET, timeoutSeconds=10) as peer:
        frame = peer.receiveFrame()
        assert frame is None or frame.HasField("error")


def test_connections_that_come_and_go_leave_no_descriptor_behind(agent):
    def descriptors():
        return len(os.listdir(f"/proc/{agent.pid}/fd"))

    before = descriptors()
    for _ in range(300):
        with socket.socket(socket.AF_UNIX) as passing:
            passing.connect(Agent.SOCKET)
    waitUntil(lambda: descriptors() <= before, 10, "the descriptors are closed")
