"""The life of kxsnmp: start-up, shutdown, and the parts around it coming, going and standing still."""

import itertools
import os
import shutil
import signal
import time

import pytest
from support import process, snmp
from support.host import ENTRY, PRODUCT_VERSION, ROOT, SERVER_EID, TABLE
from support.syslog import INFO, WARNING
from support.wait import waitUntil

NO_SERVER = b"00000000-0000-0000-0000-000000000000"
ANSWER_DEADLINE_S = 1.0
RECONNECT_DEADLINE_S = 10  # the client library waits up to 5 s between attempts
MASTER_BACK_DEADLINE_S = 3.0

ONE_CONTAINER = '[host]\nproduct_version = "1"\n[[environment]]\nname = "first"\nveid = 101\n'
ANOTHER_CONTAINER = '[host]\nproduct_version = "2"\n[[environment]]\nname = "second"\nveid = 202\n'

_REGISTRATIONS = ["KxVeTable", "KxVeIpAddrTable", "KxVeAppAddrTable", "KxVeQuotaTable", "KxVeNetstatTable"]
INITIALIZING = (WARNING, "CorvaneMIB: Initializing the CorvaneMIB module")
UP = (INFO, "kxsnmp is up and running.")
START_UP = [
    INITIALIZING,
    *itertools.chain.from_iterable(
        [(WARNING, f"Initializing the {name}"), (WARNING, f"Done initializing the {name}")] for name in _REGISTRATIONS
    ),
    (WARNING, "CorvaneMIB: Done initalizing CorvaneMIB module"),
    UP,
]
SHUTDOWN = [
    (WARNING, "CorvaneMIB: Finalizing the CorvaneMIB module"),
    (WARNING, "CorvaneMIB: Done finalizing CorvaneMIB module"),
]
_LIBRARY_LINES = ("NET-SNMP version", "AgentX ", "Warning: Failed to connect to the agentx", "Created directory: ")


def ownMessages(host, pid):
    """What kxsnmp logged, without what the SNMP library says of its connection to the master agent."""
    lines = [(line.priority, line.text.rstrip("\n")) for line in host.syslog.lines(pid)]
    return [line for line in lines if not line[1].startswith(_LIBRARY_LINES)]


def waitForMessage(host, message, deadlineSeconds=20):
    waitUntil(lambda: message in ownMessages(host, host.kxsnmp.pid), deadlineSeconds, f"logged: {message[1]}")


def names(host):
    """Column 3 of all rows."""
    return [varbind.value for varbind in host.client.walk(ENTRY + (3,))]


def waitForFirst(host):
    """After a start of kxsnmp, which answers before it has reached the agent."""
    waitUntil(lambda: names(host) == [b"first"], RECONNECT_DEADLINE_S, "the container is shown")


def answerTo(host, oid):
    """One GET, sent once. Fails unless it is answered within a second."""
    started = time.monotonic()
    answer = host.client.get([oid], timeoutSeconds=ANSWER_DEADLINE_S)[0]
    assert time.monotonic() - started <= ANSWER_DEADLINE_S
    return answer


def assertNothingThere(host):
    """Every kind of object, asked once, answered within a second, with nothing in it."""
    assert answerTo(host, ENTRY + (3, 101)).tag == snmp.NO_SUCH_INSTANCE
    assert answerTo(host, SERVER_EID).value == NO_SERVER
    assert answerTo(host, PRODUCT_VERSION) == snmp.Varbind(PRODUCT_VERSION, snmp.OCTET_STRING, b"")


# ---- start-up and shutdown --------------------------------------------------------------------------------------


def test_starting_logs_each_step_in_order_with_its_priority(host):
    host.startAll(ONE_CONTAINER)
    waitForMessage(host, UP)
    assert ownMessages(host, host.kxsnmp.pid) == START_UP


@pytest.mark.parametrize("stopSignal", [signal.SIGTERM, signal.SIGINT], ids=lambda number: number.name)
def test_a_stop_signal_ends_it_with_status_0_and_both_final_messages(host, stopSignal):
    host.startAll(ONE_CONTAINER)
    waitForMessage(host, UP)
    pid = host.kxsnmp.pid
    assert host.kxsnmp.stop(stopSignal) == 0
    assert ownMessages(host, pid) == START_UP + SHUTDOWN


def test_a_second_stop_signal_changes_nothing(host):
    host.startAll(ONE_CONTAINER)
    waitForMessage(host, UP)
    pid = host.kxsnmp.pid
    for stopSignal in (signal.SIGTERM, signal.SIGTERM, signal.SIGINT):
        host.kxsnmp.sendSignal(stopSignal)
    assert host.kxsnmp.waitForExit() == 0
    assert ownMessages(host, pid) == START_UP + SHUTDOWN


def test_a_stop_signal_while_it_finalises_changes_nothing(host):
    host.startAll(ONE_CONTAINER)
    waitForMessage(host, UP)
    pid = host.kxsnmp.pid
    host.kxsnmp.sendSignal(signal.SIGTERM)
    waitForMessage(host, SHUTDOWN[0])
    host.kxsnmp.sendSignal(signal.SIGTERM)
    assert host.kxsnmp.waitForExit() == 0
    assert ownMessages(host, pid) == START_UP + SHUTDOWN


def test_it_stops_in_order_without_master_and_without_agent(host):
    host.kxsnmp.start()
    waitForMessage(host, UP)
    pid = host.kxsnmp.pid
    assert host.kxsnmp.stop() == 0
    assert ownMessages(host, pid) == START_UP + SHUTDOWN


@pytest.mark.parametrize("stopSignal", [signal.SIGTERM, signal.SIGINT], ids=lambda number: number.name)
def test_a_stop_signal_during_start_up_ends_it_at_once(host, stopSignal):
    # A standing agent keeps the first connection waiting, which is where the signal then arrives.
    host.agent.writeInventory(ONE_CONTAINER)
    host.agent.start()
    host.agent.sendSignal(signal.SIGSTOP)
    host.kxsnmp.start()
    pid = host.kxsnmp.pid
    waitForMessage(host, INITIALIZING)
    assert host.kxsnmp.stop(stopSignal) == -stopSignal
    assert ownMessages(host, pid) == [INITIALIZING]


def test_the_command_line_is_ignored(host):
    host.snmpd.start()
    assert host.kxsnmp.start(arguments=["--help", "-f", "no-such-file"]) == 0
    waitForMessage(host, UP)
    host.waitForSubtree()


def test_it_exits_with_status_1_and_says_nothing_of_its_own_when_it_cannot_detach(host):
    program = shutil.copy(host.kxsnmp.program, host.folder / "kxsnmp-copy")
    # A user without the right to a second process; the capability is for reaching the libraries.
    unprivileged = ["setpriv", "--reuid", "65534", "--clear-groups"]
    unprivileged += ["--inh-caps", "-all,+dac_override", "--ambient-caps", "+dac_override", "--bounding-set", "+all"]
    host.kxsnmp.program = program
    assert host.kxsnmp.startOnly(launcher=["prlimit", "--nproc=1", *unprivileged]) == 1
    assert [text for text in host.syslog.texts() if "netsnmp_daemonize" not in text] == []


def test_a_closed_socket_never_kills_it(host):
    host.startAll(ONE_CONTAINER)
    assert signal.SIGPIPE in process.signalMask(host.kxsnmp.pid, "SigIgn")


def test_only_the_main_thread_takes_signals(host):
    host.startAll(ONE_CONTAINER)
    pid = host.kxsnmp.pid
    others = [thread for thread in process.threadIds(pid) if thread != pid]
    assert others, "the client library's event loop has a thread of its own"
    for thread in others:
        assert {signal.SIGTERM, signal.SIGINT} <= process.signalMask(pid, "SigBlk", thread)
    assert not {signal.SIGTERM, signal.SIGINT} & process.signalMask(pid, "SigBlk")


def test_stopped_and_started_again_it_serves_as_before(host):
    host.startAll(ONE_CONTAINER)
    assert host.kxsnmp.stop() == 0
    waitUntil(lambda: not host.isSubtreeAnswered(), 5, "the master agent forgets the subtree")
    host.kxsnmp.start()
    host.waitForSubtree()
    waitForFirst(host)


# ---- the master agent ---------------------------------------------------------------------------------------------


def test_started_before_the_master_agent_it_serves_once_that_is_there(host):
    host.agent.writeInventory(ONE_CONTAINER)
    host.agent.start()
    host.kxsnmp.start()
    waitForMessage(host, UP)
    host.snmpd.start()
    host.waitForSubtree(MASTER_BACK_DEADLINE_S)
    waitForFirst(host)


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_after_a_restart_of_the_master_agent_the_subtree_is_back(host, how):
    host.startAll(ONE_CONTAINER)
    host.snmpd.stop(how)
    host.snmpd.start()
    host.waitForSubtree(MASTER_BACK_DEADLINE_S)
    assert names(host) == [b"first"]
    assert host.kxsnmp.stop() == 0


def test_it_outlives_many_restarts_of_the_master_agent(host):
    host.startAll(ONE_CONTAINER)
    descriptors = None
    for _ in range(5):
        host.snmpd.stop()
        host.snmpd.start()
        host.waitForSubtree(MASTER_BACK_DEADLINE_S)
        count = len(os.listdir(f"/proc/{host.kxsnmp.pid}/fd"))
        assert descriptors in (None, count)
        descriptors = count


# ---- the management agent -----------------------------------------------------------------------------------------


def test_without_the_agent_everything_is_answered_and_empty(host):
    host.snmpd.start()
    host.kxsnmp.start()
    host.waitForSubtree()
    assertNothingThere(host)
    assert host.client.walk(TABLE) == []
    assert [varbind.oid for varbind in host.client.walk(ROOT)] == [SERVER_EID, PRODUCT_VERSION]


def test_the_first_request_after_the_agent_has_come_is_answered_with_data(host):
    host.snmpd.start()
    host.kxsnmp.start()
    host.waitForSubtree()
    assertNothingThere(host)
    host.agent.writeInventory(ONE_CONTAINER)
    host.agent.start()
    assert answerTo(host, ENTRY + (3, 101)).value == b"first"
    assert answerTo(host, PRODUCT_VERSION).value == b"1"
    assert answerTo(host, SERVER_EID).value not in (b"", NO_SERVER)


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_the_agent_ends_and_comes_back_with_other_containers(host, how):
    host.startAll(ONE_CONTAINER)
    host.agent.stop(how)
    assert answerTo(host, ENTRY + (3, 101)).value == b"first", "the last known state is answered"
    host.agent.writeInventory(ANOTHER_CONTAINER)
    host.agent.start()
    waitUntil(lambda: names(host) == [b"second"], RECONNECT_DEADLINE_S, "the new containers are shown")
    assert answerTo(host, PRODUCT_VERSION).value == b"2"
    assert host.kxsnmp.stop() == 0


def test_a_change_of_the_inventory_is_shown_within_a_second(host):
    host.startAll(ONE_CONTAINER)
    assert names(host) == [b"first"]
    host.agent.writeInventory(ONE_CONTAINER + ANOTHER_CONTAINER.split("\n", 2)[2])
    waitUntil(lambda: names(host) == [b"first", b"second"], 1, "the added container is shown")
    host.agent.writeInventory(ANOTHER_CONTAINER)
    waitUntil(lambda: names(host) == [b"second"], 1, "the removed container is gone")


def test_a_wrong_inventory_file_is_reported_and_the_last_good_one_stays(host):
    host.startAll(ONE_CONTAINER)
    host.agent.writeInventory('[[environment]]\nname = "third"\nveid = "not a number"\n')
    waitUntil(
        lambda: any("inventory.toml:3:" in line for line in host.agent.lines()), 5, "the error is logged with its line"
    )
    assert names(host) == [b"first"]
    host.agent.writeInventory(ANOTHER_CONTAINER)
    waitUntil(lambda: names(host) == [b"second"], 1, "the corrected file is shown")


def test_an_agent_that_stands_still_before_the_first_connection_delays_no_answer(host):
    host.snmpd.start()
    host.agent.writeInventory(ONE_CONTAINER)
    host.agent.start()
    host.agent.sendSignal(signal.SIGSTOP)
    host.kxsnmp.start()
    host.waitForSubtree()
    assertNothingThere(host)
    # A search passes through every column of every table, and looks for the agent each time.
    started = time.monotonic()
    answer = host.client.getnext([ENTRY + (1,)], timeoutSeconds=ANSWER_DEADLINE_S)[0]
    assert time.monotonic() - started <= ANSWER_DEADLINE_S
    assert answer.tag == snmp.END_OF_MIB_VIEW
    host.agent.sendSignal(signal.SIGCONT)
    waitUntil(lambda: answerTo(host, ENTRY + (3, 101)).value == b"first", 5, "the container is shown")


def test_an_agent_that_stands_still_after_the_first_connection_delays_no_answer(host):
    host.startAll(ONE_CONTAINER)
    host.agent.sendSignal(signal.SIGSTOP)
    for _ in range(3):
        assert answerTo(host, ENTRY + (3, 101)).value == b"first"
        assert answerTo(host, PRODUCT_VERSION).value == b"1"
    host.agent.sendSignal(signal.SIGCONT)
    host.agent.writeInventory(ANOTHER_CONTAINER)
    waitUntil(lambda: names(host) == [b"second"], RECONNECT_DEADLINE_S, "changes are shown again")


def test_it_stops_in_order_while_the_agent_stands_still(host):
    host.startAll(ONE_CONTAINER)
    host.agent.sendSignal(signal.SIGSTOP)
    pid = host.kxsnmp.pid
    assert host.kxsnmp.stop() == 0
    assert ownMessages(host, pid) == START_UP + SHUTDOWN
