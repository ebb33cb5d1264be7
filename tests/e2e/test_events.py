"""Events of the agent's socket: subscriptions, changes of environments, and alerts of a described host."""

import contextlib
import re
import signal
import time
import uuid

import pytest
from support.agentpeer import AgentPeer
from support.host import Host
from support.parts import Agent
from support.raising import AlertRaiser
from support.wait import waitUntil

DEADLINE_S = 10
WEB_EID = "0f8e5c1a-7a44-4c3b-9d1e-000000000101"
UNKNOWN_EID = bytes(range(16))
MAX_TEXT_BYTES = 256 * 1024
REPEAT_S = 2  # within it the agent has taken all that a test raises, on a busy machine too

INVENTORY = f"""
[[environment]]
name = "web"
veid = 101
eid = "{WEB_EID}"
[[environment]]
name = "web's double"
veid = 101
"""

_MORE = re.compile(rb" \(and (\d+) more\)$")


def writeLimits(agent, limits):
    agent.writeConfig('backend = "simulated"', f"[alerts]\n{limits}\n")


@contextlib.contextmanager
def runningAgent(limits="", inventory=INVENTORY):
    """An agent of its own, without the programs that use it."""
    host = Host()
    try:
        writeLimits(host.agent, limits)
        host.agent.writeInventory(inventory)
        host.agent.start()
        yield host.agent
    finally:
        host.closeAndJudge()


@pytest.fixture
def agent():
    """Lets every alert through."""
    with runningAgent("repeat_seconds = 0\nper_second = 100000\nburst = 100000") as agent:
        yield agent


@pytest.fixture
def subscriber(agent):
    with AgentPeer(Agent.SOCKET) as peer:
        yield peer.subscribe()


@pytest.fixture
def raiser(agent):
    with AlertRaiser() as made:
        yield made


def nextAlert(peer):
    (event,) = peer.nextEvents()
    assert event.type == b"resource_alert" and not event.HasField("environment_change")
    return event.resource_alert


def texts(events):
    return [bytes(event.resource_alert.text) for event in events]


def standsFor(text):
    counted = _MORE.search(text)
    return 1 + (int(counted.group(1)) if counted else 0)


def refusalOf(peer, **alert):
    peer.send(**alert)
    answer = peer.receiveFrame()
    assert answer.request_id == 1
    return answer.refusal.text.decode() if answer.HasField("refusal") else None


# ---- subscriptions --------------------------------------------------------------------------------------------------


def test_the_agent_offers_events_and_raising(agent):
    with AgentPeer(Agent.SOCKET) as peer:
        assert {b"events", b"raise"} <= set(peer.handshake().capabilities)


@pytest.mark.parametrize(
    "name", [b"", b"event", b"events\0", b"EVENTS", b"\xff", b"x" * 5000], ids=lambda name: repr(name[:8])
)
def test_anything_else_cannot_be_subscribed_to_and_the_connection_goes_on(agent, name):
    with AgentPeer(Agent.SOCKET) as peer:
        peer.handshake()
        answer = peer.askForEvents(name, requestId=77)
        assert answer.request_id == 77 and answer.HasField("refusal"), answer
        assert b"events" in answer.refusal.text and b"\0" not in answer.refusal.text
        assert peer.askForEvents(b"events", requestId=78).HasField("done")


def test_a_subscription_before_the_hello_is_refused(agent):
    with AgentPeer(Agent.SOCKET) as peer:
        assert peer.askForEvents().error.code == peer.schema.ERROR_MALFORMED
        assert peer.receiveFrame() is None


# ---- alerts ---------------------------------------------------------------------------------------------------------


def test_an_alert_is_told_with_all_its_parts_and_its_time(subscriber, raiser):
    before = time.time() * 1000
    raiser.alert(eid=UNKNOWN_EID, code=2, text=b"out of memory", value=7)
    (event,) = subscriber.nextEvents()
    assert int(before) <= event.time_ms <= time.time() * 1000
    assert event.type == b"resource_alert"
    alert = event.resource_alert
    assert (bytes(alert.eid), alert.code, bytes(alert.text), alert.value) == (UNKNOWN_EID, 2, b"out of memory", 7)


def test_a_number_means_the_first_container_of_the_list_with_it(subscriber, raiser):
    raiser.alert(veid=101)
    assert bytes(nextAlert(subscriber).eid) == uuid.UUID(WEB_EID).bytes


def test_an_alert_may_be_about_the_host_itself(subscriber, raiser):
    raiser.alert(eid=raiser.server)
    assert bytes(nextAlert(subscriber).eid) == raiser.server


@pytest.mark.parametrize(
    "text",
    [
        b"",
        b"\0",
        b"a\0b",
        b"\"double\" and 'single'",
        "größe 日本 🐳".encode(),
        b"\xff\xfe",
        b"two\nlines",
        b"x" * MAX_TEXT_BYTES,
    ],
    ids=lambda text: ascii(text[:20]),
)
def test_the_text_arrives_byte_for_byte(subscriber, raiser, text):
    raiser.alert(veid=101, text=text)
    assert bytes(nextAlert(subscriber).text) == text


@pytest.mark.parametrize("code", [0, 1, 2, 3, -1, 2**31 - 1, -(2**31)])
@pytest.mark.parametrize("value", [0, 2**63 - 1, -(2**63)])
def test_code_and_value_arrive_as_they_are(subscriber, raiser, code, value):
    raiser.alert(veid=101, code=code, value=value)
    alert = nextAlert(subscriber)
    assert (alert.code, alert.value) == (code, value)


@pytest.mark.parametrize(
    ("alert", "words"),
    [
        ({"veid": 102}, "no container with the number 102"),
        ({"veid": 0}, "no container with the number 0"),
        ({"veid": -(2**31)}, "no container with the number -2147483648"),
        ({"eid": b""}, "has 0"),
        ({"eid": bytes(15)}, "has 15"),
        ({"eid": bytes(17)}, "has 17"),
        ({"veid": 101, "text": b"x" * (MAX_TEXT_BYTES + 1)}, "262145 bytes"),
    ],
    ids=lambda part: str(part)[:30],
)
def test_what_cannot_be_raised_is_refused_in_words_and_the_connection_goes_on(subscriber, raiser, alert, words):
    assert words in refusalOf(raiser, **alert)
    raiser.alert(veid=101, text=b"after it")
    assert bytes(nextAlert(subscriber).text) == b"after it", "what was refused is not told"


def test_an_alert_about_nobody_is_refused(raiser):
    frame = raiser.schema.Frame(request_id=1)
    frame.alert_raise.SetInParent()
    raiser.sendFrame(frame)
    assert b"no target" in raiser.receiveFrame().refusal.text


def test_a_real_host_takes_no_alerts(tmp_path):
    host = Host()
    try:
        host.agent.writeConfig('backend = "lxc"', f'[lxc]\npath = "{tmp_path}"')
        host.agent.start()
        with AlertRaiser() as raiser:
            assert "only a described host" in refusalOf(raiser, veid=101)
            assert "only a described host" in refusalOf(raiser, eid=raiser.server)
    finally:
        host.close()
        host.removeFolder()


# ---- changes of environments ----------------------------------------------------------------------------------------


def changesIn(events):
    assert all(event.type == b"environment_change" and not event.HasField("resource_alert") for event in events)
    return [(event.environment_change.kind, bytes(event.environment_change.name)) for event in events]


def environment(name, more=""):
    return f'[[environment]]\nname = "{name}"\n{more}\n'


def test_every_environment_that_comes_changes_or_goes_is_told():
    with runningAgent(inventory=environment("a") + environment("b")) as agent, AgentPeer(Agent.SOCKET) as peer:
        schema = peer.subscribe().schema
        before = time.time() * 1000
        agent.writeInventory(environment("b", "state = 2\ntransition = -3") + environment("c", "state = 1"))
        events = peer.events(3)
        assert all(int(before) <= event.time_ms <= time.time() * 1000 for event in events)
        assert changesIn(events) == [
            (schema.CHANGE_REMOVED, b"a"),
            (schema.CHANGE_MODIFIED, b"b"),
            (schema.CHANGE_ADDED, b"c"),
        ]
        changes = [event.environment_change for event in events]
        assert [(change.state, change.transition) for change in changes] == [(0, 0), (2, -3), (1, 0)]
        eids = {bytes(one.configuration.name): bytes(one.eid) for one in snapshotOfAnother()}
        assert [bytes(change.eid) for change in changes[1:]] == [eids[b"b"], eids[b"c"]]


def snapshotOfAnother():
    with AgentPeer(Agent.SOCKET) as peer:
        peer.handshake()
        return peer.snapshot()


@pytest.mark.parametrize("more", ['description = ""', "addresses = []", "veid = 5", 'hostname = "x"'])
def test_any_difference_is_told(more):
    with runningAgent(inventory=environment("a")) as agent, AgentPeer(Agent.SOCKET) as peer:
        peer.subscribe()
        agent.writeInventory(environment("a", more))
        assert changesIn(peer.events(1)) == [(peer.schema.CHANGE_MODIFIED, b"a")]


def test_what_does_not_change_is_not_told():
    with runningAgent(inventory=environment("a") + environment("b")) as agent, AgentPeer(Agent.SOCKET) as peer:
        peer.subscribe()
        agent.writeInventory("# the same, the other way round\n" + environment("b") + environment("a"))
        waitUntil(lambda: any("read again" in line for line in agent.lines()), DEADLINE_S, "it is read again")
        agent.writeInventory(environment("a"))
        assert changesIn(peer.events(1)) == [(peer.schema.CHANGE_REMOVED, b"b")]


def test_a_restart_of_the_agent_is_no_change():
    with runningAgent() as agent:
        agent.stop()
        agent.start()
        with AgentPeer(Agent.SOCKET) as peer:
            peer.subscribe()
            agent.writeInventory(INVENTORY + environment("fresh"))
            assert changesIn(peer.events(1)) == [(peer.schema.CHANGE_ADDED, b"fresh")]


def test_an_update_of_a_whole_host_drops_no_subscriber_that_reads():
    count = 20000
    with runningAgent() as agent, AgentPeer(Agent.SOCKET, timeoutSeconds=30) as peer:
        peer.subscribe()
        agent.writeInventory(f"[host]\ngenerate = {count}\n" + INVENTORY)
        assert len({name for _, name in changesIn(peer.events(count))}) == count
        assert not any("dropped" in line for line in agent.lines())


def test_who_learns_of_a_container_by_an_event_has_its_delta_already():
    with runningAgent() as agent, AgentPeer(Agent.SOCKET) as listing, AgentPeer(Agent.SOCKET) as peer:
        listing.handshake()
        listing.snapshot()
        peer.subscribe()
        for number in range(20):
            agent.writeInventory(INVENTORY + environment(f"fresh {number}"))
            waitUntil(lambda: peer.nextEvents(), DEADLINE_S, "an event comes")
            listing.setTimeout(0)
            assert listing.receiveFrame().HasField("delta")
            listing.setTimeout(DEADLINE_S)


# ---- subscribers that do not read -----------------------------------------------------------------------------------


def test_a_subscriber_that_does_not_read_gets_the_latest_of_each_source_for_all_others(agent, subscriber, raiser):
    before = len(agent.lines())
    count = 60
    with AgentPeer(Agent.SOCKET) as silent:
        silent.subscribe()
        for number in range(count):
            raiser.alert(veid=101, text=b"%d " % number + b"x" * 100 * 1024)
            assert bytes(nextAlert(subscriber).text).startswith(b"%d " % number)
        got = []
        while sum(map(standsFor, got)) < count:
            got += texts(silent.nextEvents())
        assert sum(map(standsFor, got)) == count and len(got) < 30
        assert got[-1].startswith(b"%d " % (count - 1))
    held, caughtUp = agent.lines()[before:]
    assert 'peer "peer"' in held and "does not read its events" in held
    assert "reads its events again" in caughtUp


# ---- how often ------------------------------------------------------------------------------------------------------


def raiseMany(count, **alert):
    with AlertRaiser() as raiser:
        for number in range(count):
            raiser.send(value=number, **{"veid": 101, **alert})
        for _ in range(count):
            raiser.confirm()


def test_the_same_alert_is_counted_and_told_again_when_its_time_is_over():
    with runningAgent(f"repeat_seconds = {REPEAT_S}"), AgentPeer(Agent.SOCKET) as peer:
        peer.subscribe()
        raiseMany(10, text=b"out of memory")
        first, again = peer.events(2)
        assert texts([first, again]) == [b"out of memory", b"out of memory (and 8 more)"]
        assert (first.resource_alert.value, again.resource_alert.value) == (0, 9)


def test_what_is_beyond_the_rate_waits_and_everything_adds_up():
    """Of each container the latest waits; the others that it stands for are counted in its text."""
    containers, rounds = 40, 25
    inventory = "".join(environment(f"ct{number}", f"veid = {number}") for number in range(1, containers + 1))
    limits = "repeat_seconds = 1\nper_second = 40\nburst = 10"
    with runningAgent(limits, inventory), AgentPeer(Agent.SOCKET) as peer, AlertRaiser() as raiser:
        peer.subscribe()
        started = time.monotonic()
        for number in range(rounds):
            for veid in range(1, containers + 1):
                raiser.alert(veid=veid, code=1 + number % 2, text=b"round %d" % (number % 3))
        events = []
        while sum(map(standsFor, texts(events))) < rounds * containers:
            events.extend(peer.nextEvents())
            assert len(events) <= 10 + 40 * (time.monotonic() - started) + 1, "more than the rate allows"
        assert sum(map(standsFor, texts(events))) == rounds * containers
        assert len(events) < rounds * containers / 2


def test_an_alert_that_is_over_is_not_told_again():
    with runningAgent(f"repeat_seconds = {REPEAT_S}"), AgentPeer(Agent.SOCKET) as peer, AlertRaiser() as raiser:
        peer.subscribe()
        raiseMany(3, code=2, text=b"low")
        raiser.alert(veid=101, code=0, text=b"over")
        events = peer.events(3)
        assert texts(events) == [b"low", b"over", b"over (and 1 more)"]


def test_a_hangup_changes_the_limits():
    with runningAgent() as agent, AgentPeer(Agent.SOCKET) as peer:
        peer.subscribe()
        raiseMany(2, text=b"held back")
        writeLimits(agent, "repeat_seconds = 0")
        agent.sendSignal(signal.SIGHUP)
        assert texts(peer.events(2)) == [b"held back", b"held back"]
        writeLimits(agent, "repeat_seconds = -5")
        agent.sendSignal(signal.SIGHUP)
        waitUntil(lambda: any("repeat_seconds" in line for line in agent.lines()), DEADLINE_S, "it is reported")
        raiseMany(3, text=b"as before")
        assert len(peer.events(3)) == 3
