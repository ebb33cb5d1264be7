"""Counters of real containers: what is shown comes to what the kernel counts, whatever happens on the way."""

import re
import signal
import socket
import subprocess
import threading
from pathlib import Path

import pytest
from support.host import NETWORK_COUNTERS, QUOTA_COUNTERS, Host
from support.parts import Agent
from support.reportpeer import ReportPeer
from support.snmp import COUNTER64
from support.wait import waitUntil

PUSHED_WITHIN_S = 5
RECONNECT_DEADLINE_S = 10
STREAM_DEADLINE_S = 30
QUICK = "[monitoring]\nperiod_scale = 0.01\n"  # a report every 0.3 s instead of every 30 s
NEVER = "[monitoring]\nperiod_scale = 100\n"  # not before the test is over
MEBIBYTE = 1024 * 1024
PORT = 5000
INDEX = 4242  # of interfaces that the tests add

INSTANCE, BYTES_IN, PACKETS_IN, BYTES_OUT, PACKETS_OUT = range(1, 6)


class Proxy:
    """Stands between the agent and its clients, to cut their connections without harm to either. Its threads end with
    the connections."""

    def __init__(self, path, target):
        self._target = target
        self._lock = threading.Lock()
        self._open = []
        self.connections = 0
        Path(path).parent.mkdir(parents=True, exist_ok=True)
        Path(path).unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(path)
        self._listener.listen()
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client = self._listener.accept()[0]
            except OSError:
                return
            agent = socket.socket(socket.AF_UNIX)
            try:
                agent.connect(self._target)
            except OSError:
                client.close()
                continue
            with self._lock:
                self._open += [client, agent]
                self.connections += 1
            for pair in ((client, agent), (agent, client)):
                threading.Thread(target=self._carry, args=pair, daemon=True).start()

    @staticmethod
    def _carry(source, sink):
        try:
            while data := source.recv(65536):
                sink.sendall(data)
        except OSError:
            pass
        for end in (source, sink):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def cut(self):
        """Ends every connection there is; new ones are let through."""
        with self._lock:
            ends, self._open = self._open, []
        for end in ends:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self.cut()


@pytest.fixture(scope="module", autouse=True)
def containers(lab):
    for name in ("101", "102"):
        lab.do("create", name)


@pytest.fixture
def counted(lab):
    """A host whose agent counts the running containers 101 and 102 and reports often, behind a proxy."""
    made = Host()
    made.agent.SOCKET = f"{made.agent.folder}/socket"
    made.proxy = Proxy(Agent.SOCKET, made.agent.SOCKET)
    try:
        for name in ("101", "102"):
            if not isRunning(lab, name):
                lab.do("start", name)
        made.agent.writeConfig('backend = "lxc"', QUICK)
        made.agent.start(lab.launcher)
        made.snmpd.start()
        made.kxsnmp.start()
        made.waitForSubtree()
        yield made
    finally:
        try:
            made.closeAndJudge()
        finally:
            made.proxy.close()


def isRunning(lab, name):
    return lab.do("exec", "lxc-info", "-sH", "-n", name).strip() == "RUNNING"


def network(host):
    """(VE id, instance) -> column -> value. A walk is many requests, so a row that comes or goes meanwhile may be seen
    in some columns only."""
    rows = {}
    for varbind in host.client.bulkwalk(NETWORK_COUNTERS + (1,), 20):
        column, veid, instance = varbind.oid[-3:]
        rows.setdefault((veid, instance), {})[column] = varbind.value
    return rows


def quota(host):
    """VE id -> column -> value."""
    rows = {}
    for varbind in host.client.bulkwalk(QUOTA_COUNTERS + (1,), 20):
        assert varbind.tag == COUNTER64
        column, veid = varbind.oid[-2:]
        rows.setdefault(veid, {})[column] = varbind.value
    return rows


def veids(host):
    """The containers that are in both tables, and those that are in one of them."""
    inNetwork = {veid for veid, _ in network(host)}
    inQuota = set(quota(host))
    return inNetwork & inQuota, inNetwork | inQuota


def waitForContainers(host, expected):
    waitUntil(lambda: veids(host) == (expected, expected), PUSHED_WITHIN_S, f"{expected} are in both tables")


def kernels(lab, name, interface="eth0"):
    """What the kernel counts: column -> value."""
    text = Path(f"/proc/{lab.init(name)}/net/dev").read_text()
    numbers = re.search(rf"^ *{interface}:(.*)$", text, re.MULTILINE).group(1).split()
    columns = {BYTES_IN: 0, PACKETS_IN: 1, BYTES_OUT: 8, PACKETS_OUT: 9}
    return {column: int(numbers[position]) for column, position in columns.items()}


def indexOf(lab, name, interface="eth0"):
    return int(lab.ip(name, "-o", "link", "show", interface).split(":")[0])


def waitForKernels(host, lab, name, interface="eth0", deadlineSeconds=PUSHED_WITHIN_S):
    """Waits until a container's interface shows what the kernel counts, and returns that."""
    key = (int(name), indexOf(lab, name, interface))
    seen = {}

    def same():
        seen["shown"] = network(host).get(key)
        seen["kernel"] = {INSTANCE: key[1], **kernels(lab, name, interface)}
        return seen["shown"] == seen["kernel"]

    try:
        waitUntil(same, deadlineSeconds, f"{interface} of {name} shows the kernel's counters")
    except AssertionError as error:
        raise AssertionError(f"{error}: {seen}") from None
    return seen["shown"]


class Stream:
    """A connection from container 102 to container 101. What is sent goes at once; close() waits until all of it has
    arrived and returns how many bytes that were."""

    def __init__(self, lab):
        self._lab = lab
        address = lab.configuredAddress("101")[0]
        # nc hands its connection on: it would carry a KiB at a time itself.
        sink = f"nc -l -p {PORT} -e /bin/sh -c 'busybox wc -c >&3' 3>&1"
        self._sink = lab.spawn("101", sink, stdout=subprocess.PIPE)
        init = lab.init("101")
        waitUntil(lambda: self._listens(init), STREAM_DEADLINE_S, "101 listens")
        source = f"nc {address} {PORT} -e /bin/sh -c 'cat <&3' 3<&0"
        self._source = lab.spawn("102", source, stdin=subprocess.PIPE)

    @staticmethod
    def _listens(init):
        text = "".join(Path(f"/proc/{init}/net/{kind}").read_text() for kind in ("tcp", "tcp6"))
        return re.search(rf":{PORT:04X} [0:]+ 0A", text)

    def send(self, mebibytes):
        for _ in range(mebibytes):
            self._source.stdin.write(bytes(MEBIBYTE))
        self._source.stdin.flush()

    def sendDuring(self, mebibytes, action):
        """Does something while it sends."""
        sender = threading.Thread(target=self.send, args=(mebibytes,))
        sender.start()
        try:
            action()
        finally:
            sender.join(STREAM_DEADLINE_S)
        assert not sender.is_alive()

    def close(self):
        self._source.stdin.close()
        assert self._source.wait(STREAM_DEADLINE_S) == self._sink.wait(STREAM_DEADLINE_S) == 0
        return int(self._sink.stdout.read())

    def end(self):
        for process in (self._source, self._sink):
            if process.poll() is None:
                self._lab.end(process)


@pytest.fixture
def stream(lab, counted):
    made = Stream(lab)
    yield made
    made.end()


def sendPackets(lab, name, count, target, interface="eth0"):
    """Sends packets and returns once so many have gone; whether somebody answers them is not waited for."""
    wanted = kernels(lab, name, interface)[PACKETS_OUT] + count
    sender = lab.spawn(name, f"exec ping -q -c {count} -i 0.01 {target}", stdout=subprocess.DEVNULL)
    try:
        waitUntil(
            lambda: kernels(lab, name, interface)[PACKETS_OUT] >= wanted, STREAM_DEADLINE_S, f"{name} has sent {count}"
        )
    finally:
        lab.end(sender)


# ---- coming to what the kernel counts -------------------------------------------------------------------------------


def sendAndCompare(host, lab, stream, mebibytes, inTheMiddle=lambda: None):
    """Sends so much, half of it while something is done; both ends then show the kernel's very numbers."""
    before = {name: kernels(lab, name) for name in ("101", "102")}
    key = (101, indexOf(lab, "101"))
    stream.send(mebibytes // 4)
    waitUntil(
        lambda: network(host).get(key, {}).get(BYTES_IN, 0) > before["101"][BYTES_IN],
        PUSHED_WITHIN_S,
        "some of it is shown",
    )
    stream.sendDuring(mebibytes // 2, inTheMiddle)
    stream.send(mebibytes // 4)
    assert stream.close() == mebibytes * MEBIBYTE
    received = waitForKernels(host, lab, "101", deadlineSeconds=RECONNECT_DEADLINE_S)
    sent = waitForKernels(host, lab, "102", deadlineSeconds=RECONNECT_DEADLINE_S)
    assert received[BYTES_IN] - before["101"][BYTES_IN] > mebibytes * MEBIBYTE
    assert sent[BYTES_OUT] - before["102"][BYTES_OUT] > mebibytes * MEBIBYTE
    assert received[PACKETS_IN] > before["101"][PACKETS_IN] and sent[PACKETS_OUT] > before["102"][PACKETS_OUT]


def test_what_one_container_sends_to_another_is_counted_exactly(counted, lab, stream):
    sendAndCompare(counted, lab, stream, 100)
    tags = {varbind.tag for varbind in counted.client.bulkwalk(NETWORK_COUNTERS + (1, BYTES_IN), 20)}
    assert tags == {COUNTER64}


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL], ids=lambda number: number.name)
def test_it_is_counted_exactly_though_the_agent_was_restarted(counted, lab, stream, how):
    def restart():
        counted.agent.stop(how)
        counted.agent.start(lab.launcher)

    sendAndCompare(counted, lab, stream, 20, restart)


def test_it_is_counted_exactly_though_the_connection_was_cut(counted, lab, stream):
    before = counted.proxy.connections

    def cutTwice():
        for _ in range(2):
            known = counted.proxy.connections
            counted.proxy.cut()
            # What was known is shown until the loss is noticed.
            waitUntil(lambda: counted.proxy.connections > known, RECONNECT_DEADLINE_S, "it is back")  # noqa: B023
            waitUntil(lambda: network(counted), RECONNECT_DEADLINE_S, "counters are shown again")

    sendAndCompare(counted, lab, stream, 20, cutTwice)
    assert counted.proxy.connections >= before + 2
    assert counted.agent.popen.poll() is None


# ---- containers that come and go ------------------------------------------------------------------------------------


def test_a_stopped_container_is_in_neither_table_and_a_started_one_counts_from_its_start(counted, lab):
    sendPackets(lab, "102", 30, lab.configuredAddress("101")[0])
    earlier = waitForKernels(counted, lab, "102")
    waitForContainers(counted, {101, 102})
    lab.do("stop", "102")
    waitForContainers(counted, {101})
    lab.do("start", "102")
    waitForContainers(counted, {101, 102})
    assert waitForKernels(counted, lab, "102")[BYTES_OUT] < earlier[BYTES_OUT]


def test_a_frozen_container_stays_in_both_tables(counted, lab):
    waitForContainers(counted, {101, 102})
    lab.do("freeze", "102")
    try:
        for _ in range(2):
            sendPackets(lab, "101", 1, lab.configuredAddress("102")[0])
            waitForKernels(counted, lab, "101")
            assert veids(counted) == ({101, 102}, {101, 102})
        waitForKernels(counted, lab, "102")
    finally:
        lab.do("unfreeze", "102")


def addInterface(lab, name, packets):
    """An interface whose other end is in the container too, and packets sent through it."""
    lab.ip(name, "link", "add", "name", "extra", "index", str(INDEX), "type", "veth", "peer", "name", "other")
    lab.ip(name, "addr", "add", "10.99.0.1/24", "dev", "extra")
    for end in ("extra", "other"):
        lab.ip(name, "link", "set", end, "up")
    lab.ip(name, "neigh", "add", "10.99.0.2", "lladdr", "02:00:00:00:00:01", "dev", "extra")
    sendPackets(lab, name, packets, "10.99.0.2", "extra")


def test_an_interface_that_is_added_to_a_running_container_has_a_row_of_its_index(counted, lab):
    waitForKernels(counted, lab, "101")
    addInterface(lab, "101", 3)
    assert waitForKernels(counted, lab, "101", "extra")[PACKETS_OUT] >= 3
    lab.ip("101", "link", "del", "extra")
    waitUntil(lambda: (101, INDEX) not in network(counted), PUSHED_WITHIN_S, "its row is gone")
    waitForKernels(counted, lab, "101")


def setPeriod(host, settings):
    before = readings(host)
    host.agent.writeConfig('backend = "lxc"', settings)
    host.agent.sendSignal(signal.SIGHUP)
    waitUntil(lambda: readings(host) > before, PUSHED_WITHIN_S, "the configuration is read again")


def readings(host):
    return sum("read the configuration again" in line for line in host.agent.lines())


def test_a_container_that_was_restarted_between_two_reports_shows_its_new_counters(counted, lab):
    addInterface(lab, "102", 30)
    earlier = waitForKernels(counted, lab, "102", "extra")
    oldIndex = indexOf(lab, "102")
    setPeriod(counted, NEVER)
    with ReportPeer(counted.agent.SOCKET, PUSHED_WITHIN_S) as reports:
        lab.do("stop", "102")
        lab.do("start", "102")
        addInterface(lab, "102", 1)
        assert not reports.sees(), "it was restarted between two reports"
        setPeriod(counted, QUICK)
        reports.waitForReports(1)
    later = waitForKernels(counted, lab, "102", "extra", RECONNECT_DEADLINE_S)
    assert 0 < later[PACKETS_OUT] < earlier[PACKETS_OUT]
    waitForKernels(counted, lab, "102")
    instances = {instance for veid, instance in network(counted) if veid == 102}
    present = {indexOf(lab, "102", interface) for interface in ("eth0", "extra", "other")}
    assert instances == present, f"no row is left of the interface that was {oldIndex}"


def test_a_container_without_network_has_one_row_of_zeros(counted, lab):
    lab.do("create", "103")
    lab.takeNetwork("103")
    lab.do("start", "103")
    try:
        waitForContainers(counted, {101, 102, 103})
        rows = {key: row for key, row in network(counted).items() if key[0] == 103}
        assert rows == {(103, 0): {INSTANCE: 0, BYTES_IN: 0, PACKETS_IN: 0, BYTES_OUT: 0, PACKETS_OUT: 0}}
    finally:
        lab.do("destroy", "103")


# ---- quotas ---------------------------------------------------------------------------------------------------------


def test_without_project_quotas_all_columns_are_zero_and_the_agent_says_so_once(counted, lab):
    waitForContainers(counted, {101, 102})
    for _ in range(2):
        sendPackets(lab, "101", 1, lab.configuredAddress("102")[0])
        waitForKernels(counted, lab, "101")
    assert quota(counted) == {veid: dict.fromkeys(range(1, 9), 0) for veid in (101, 102)}
    said = [line for line in counted.agent.lines() if "project quota" in line]
    assert len(said) == 1, said
