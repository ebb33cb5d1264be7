"""The programs of a host under test: the master agent, the management agent and the sub-agent.

Each is started in a folder of its own below the host's folder and says where it logs. Single-threaded use.
"""

import os
import shlex
import signal
import socket
import subprocess
import uuid
from pathlib import Path

from . import process, sanitizers
from .snmp import SnmpClient, SnmpTimeout, parseOid
from .wait import waitUntil

START_DEADLINE_S = 20  # sanitized programs on a loaded machine included
STOP_DEADLINE_S = 20

SUBTREE = "1.3.6.1.4.1.53864.1.1"
_SYS_UPTIME = parseOid("1.3.6.1.2.1.1.3.0")
_PROBE_TIMEOUT_S = 0.5


def _launch(program, arguments, environment, log, launcher=()):
    """Starts a program in the foreground, its output going to the file `log`; `launcher` goes in front of it."""
    prefix = sanitizers.launcher() if sanitizers.isSanitized(program) else []
    with open(log, "ab") as output:
        return subprocess.Popen(
            [*prefix, *launcher, str(program), *map(str, arguments)],
            env={**os.environ, **environment},
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=output,
            process_group=0,  # a Ctrl-C on the terminal is for us; we end the programs in their order
        )


def _librarySettings(folder):
    """Environment of a program that uses net-snmp's library: its configuration is in `folder`. What the library
    stores at its end has the configuration's file name, so it must go to another folder."""
    return {"MIBS": "", "SNMPCONFPATH": str(folder), "SNMP_PERSISTENT_DIR": str(folder / "persistent")}


def _end(popen, signalNumber, what):
    """Signals a program and returns its exit status; a program that does not end is killed and reported."""
    if popen is None or popen.poll() is not None:
        return None if popen is None else popen.returncode
    popen.send_signal(signal.SIGCONT)
    popen.send_signal(signalNumber)
    try:
        return popen.wait(STOP_DEADLINE_S)
    except subprocess.TimeoutExpired:
        popen.kill()
        popen.wait()
        raise AssertionError(f"{what} did not end on signal {signalNumber}") from None


class Snmpd:
    """net-snmp's master agent on a port of its own; "public" may read and "private" may write our subtree."""

    def __init__(self, folder, port=1161, trapPorts=()):
        self.port = port
        self.folder = Path(folder)
        self.socket = self.folder / "agentx"
        self.log = self.folder / "log"
        self._popen = None
        self.folder.mkdir(parents=True)
        self._config = self.folder / "snmpd.conf"
        self._config.write_text(
            f"agentAddress udp:127.0.0.1:{port}\n"
            "dontLogTCPWrappersConnects yes\n"
            "master agentx\n"
            f"agentXSocket {self.socket}\n"
            "view kx included .1.3.6.1.2.1.1\n"
            f"view kx included .{SUBTREE}\n"
            "rocommunity public 127.0.0.1 -V kx\n"
            "rwcommunity private 127.0.0.1 -V kx\n"
            + "".join(f"trap2sink 127.0.0.1:{trapPort} public\n" for trapPort in trapPorts)
        )

    @property
    def pid(self):
        return self._popen.pid

    def start(self, isPublic=True):
        """Returns once it answers to the community "public", where `isPublic` says that it does."""
        arguments = ["-f", "-C", "-c", self._config, "-Lf", self.log]
        self._popen = _launch("/usr/sbin/snmpd", arguments, _librarySettings(self.folder), self.log)
        if isPublic:
            waitUntil(self._answers, START_DEADLINE_S, f"snmpd answers on port {self.port}")

    def _answers(self):
        if self._popen.poll() is not None:
            raise AssertionError(f"snmpd ended with status {self._popen.returncode}:\n{self.log.read_text()}")
        client = SnmpClient(self.port)
        try:
            return client.get([_SYS_UPTIME], timeoutSeconds=_PROBE_TIMEOUT_S)
        except SnmpTimeout:
            return None
        finally:
            client.close()

    def stop(self, signalNumber=signal.SIGTERM):
        return _end(self._popen, signalNumber, "snmpd")


class Snmptrapd:
    """net-snmp's trap receiver on a port of its own; what it gets it writes into a file, a line a trap."""

    # Sender's address, then the variables, separated so that no text can look like the separator's line end.
    _FORMAT = "%b\\t%v\\n"

    def __init__(self, folder, port=1162):
        self.port = port
        self.folder = Path(folder)
        self.log = self.folder / "log"
        self._popen = None
        self.folder.mkdir(parents=True)
        self._config = self.folder / "snmptrapd.conf"
        self._config.write_text(f"disableAuthorization yes\nformat2 {self._FORMAT}\n")

    def start(self):
        arguments = ["-f", "-n", "-m", "", "-On", "-C", "-c", self._config, "-Lf", self.log]
        arguments.append(f"udp:127.0.0.1:{self.port}")
        self._popen = _launch("/usr/sbin/snmptrapd", arguments, _librarySettings(self.folder), self.folder / "output")
        waitUntil(self._listens, START_DEADLINE_S, f"snmptrapd listens on port {self.port}")

    def _listens(self):
        if self._popen.poll() is not None:
            raise AssertionError(f"snmptrapd ended with status {self._popen.returncode}:\n{self.log.read_text()}")
        return f":{self.port:04X} " in Path("/proc/net/udp").read_text()

    def traps(self):
        """A list of the variables of each trap: pairs of an OID and a value as net-snmp prints it."""
        lines = self.log.read_text(errors="replace").splitlines() if self.log.exists() else []
        shown = (line.split("\t")[1:] for line in lines if line.startswith("UDP: "))
        return [[tuple(variable.split(" = ", 1)) for variable in variables] for variables in shown]

    def stop(self, signalNumber=signal.SIGTERM):
        return _end(self._popen, signalNumber, "snmptrapd")


class Agent:
    """kxagentd in the foreground, with a configuration and an inventory file of its own."""

    SOCKET = "/var/opt/orma/agent/agent.sock"  # the path that clients have built in

    def __init__(self, folder, program, reportFolder):
        self.program = Path(program)
        self.folder = Path(folder)
        self.log = self.folder / "log"
        self.inventory = self.folder / "inventory.toml"
        self.config = self.folder / "kxagentd.toml"
        self.popen = None
        self._reportFolder = reportFolder
        self.folder.mkdir(parents=True)
        self.writeConfig('backend = "simulated"')

    def writeConfig(self, backendLine, extra=""):
        self.config.write_text(
            f'socket = "{self.SOCKET}"\n'
            f'state_directory = "{self.folder}/state"\n'
            f"{backendLine}\n"
            "[simulated]\n"
            f'inventory = "{self.inventory}"\n'
            f"{extra}\n"
        )

    def writeInventory(self, text):
        """Replaces the inventory file in one step, as an editor does."""
        fresh = self.inventory.with_suffix(".new")
        fresh.write_bytes(text.encode() if isinstance(text, str) else text)
        fresh.rename(self.inventory)

    @property
    def pid(self):
        return self.popen.pid

    def start(self, launcher=()):
        """Starts the agent and returns once it says that it is ready. `launcher` goes in front of the command."""
        (self.folder / "state").mkdir(exist_ok=True)
        notifyPath = self.folder / "notify"
        notifyPath.unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
            notify.bind(str(notifyPath))
            notify.setblocking(False)
            surroundings = {**sanitizers.environment(self._reportFolder), "NOTIFY_SOCKET": str(notifyPath)}
            arguments = ["--config", self.config]
            self.popen = _launch(self.program, arguments, surroundings, self.log, launcher)
            waitUntil(lambda: self._isReady(notify), START_DEADLINE_S, "kxagentd is ready")

    def _isReady(self, notify):
        if self.popen.poll() is not None:
            raise AssertionError(f"kxagentd ended with status {self.popen.returncode}:\n{self.log.read_text()}")
        try:
            return "READY=1" in notify.recv(4096).decode().split("\n")
        except BlockingIOError:
            return False

    def sendSignal(self, number):
        self.popen.send_signal(number)

    def lines(self):
        """What it logged, over all its starts."""
        return self.log.read_text(errors="replace").splitlines()

    def stop(self, signalNumber=signal.SIGTERM):
        return _end(self.popen, signalNumber, "kxagentd")


class Kxsnmp:
    """The sub-agent. It detaches itself, so it is found by a mark in its environment and waited for by adoption:
    this process must be a subreaper."""

    def __init__(self, folder, program, agentxSocket, reportFolder):
        self.program = Path(program)
        self.folder = Path(folder)
        self.pid = None
        self._reportFolder = reportFolder
        self.folder.mkdir(parents=True)
        (self.folder / "kxsnmp.conf").write_text(f"agentXSocket {agentxSocket}\nagentXPingInterval 2\n")

    def start(self, arguments=(), launcher=()):
        """Starts it and returns the exit status of the process that was started, which detaches and leaves.
        KX_LAUNCHER, for example "valgrind --log-file=/tmp/valgrind.%p", goes in front of the command unless `launcher` does."""
        launcher = launcher or shlex.split(os.environ.get("KX_LAUNCHER", ""))
        mark = f"KX_TEST_MARK={uuid.uuid4()}"
        status = self.startOnly(arguments, launcher, mark)
        if status == 0:
            self.pid = waitUntil(lambda: process.findDaemon(mark), START_DEADLINE_S, "kxsnmp has detached itself")
            # Between us and the daemon was the leader of its session, which has left and is ours to bury.
            process.waitForExit(os.getsid(self.pid), START_DEADLINE_S)
        return status

    def startOnly(self, arguments=(), launcher=(), mark="KX_TEST_MARK=none"):
        name, value = mark.split("=")
        surroundings = {**_librarySettings(self.folder), **sanitizers.environment(self._reportFolder), name: value}
        output = self.folder / "output"
        return _launch(self.program, arguments, surroundings, output, launcher).wait(START_DEADLINE_S)

    def sendSignal(self, number):
        os.kill(self.pid, number)

    def waitForExit(self):
        status = process.waitForExit(self.pid, STOP_DEADLINE_S)
        self.pid = None
        return status

    def stop(self, signalNumber=signal.SIGTERM):
        """@return its exit status, None when it was not running"""
        if self.pid is None:
            return None
        self.sendSignal(signal.SIGCONT)
        self.sendSignal(signalNumber)
        return self.waitForExit()

    def kill(self):
        if self.pid is not None:
            process.endHard(self.pid)
            self.waitForExit()


def commandLine(port, tool="snmpwalk"):
    """What a person types to see the subtree."""
    return shlex.join([tool, "-v2c", "-c", "public", f"127.0.0.1:{port}", SUBTREE])
