"""A whole host under test, made of the parts, in a folder that goes away with it."""

import os
import shutil
import tempfile
from pathlib import Path

from . import sanitizers
from .parts import SUBTREE, Agent, Kxsnmp, Snmpd
from .snmp import NO_SUCH_INSTANCE, SnmpClient, SnmpTimeout, formatOid, parseOid
from .syslog import SyslogCollector
from .wait import waitUntil

PROJECT = Path(__file__).resolve().parents[2]

ROOT = parseOid(SUBTREE)
SERVER_EID = ROOT + (1, 0)
PRODUCT_VERSION = ROOT + (2, 0)
TABLE = ROOT + (4,)
ENTRY = TABLE + (1,)
IP_ADDRESSES = ROOT + (5,)
APPLICATION_TEMPLATES = ROOT + (6,)
QUOTA_COUNTERS = ROOT + (7,)
NETWORK_COUNTERS = ROOT + (8,)
_COUNTERS_WITHIN_S = 60  # a report comes every 30 s
_NO_SERVER = b"00000000-0000-0000-0000-000000000000"
_NO_ROW_OF_LAST_TABLE = ROOT + (8, 1, 1, 0, 0)


def buildFolder():
    """The build under test: KX_BUILD, relative to the project, or the release build."""
    return PROJECT / os.environ.get("KX_BUILD", "build/release")


class Host:
    """Starts nothing by itself but the syslog collector. close() ends whatever runs."""

    def __init__(self, build=None, port=1161, trapPorts=()):
        build = Path(build) if build else buildFolder()
        self.folder = Path(tempfile.mkdtemp(prefix="kxhost"))
        self.folder.chmod(0o755)
        self.reportFolder = self.folder / "reports"
        self.reportFolder.mkdir()
        self.syslog = SyslogCollector()
        self.snmpd = Snmpd(self.folder / "snmpd", port, trapPorts)
        self.agent = Agent(self.folder / "agent", build / "agent/kxagentd", self.reportFolder)
        self.kxsnmp = Kxsnmp(self.folder / "kxsnmp", build / "daemon/kxsnmp", self.snmpd.socket, self.reportFolder)
        self.client = SnmpClient(port)

    def startAll(self, inventory=None):
        """Starts the three programs and returns when our subtree is answered with what the agent tells."""
        if inventory is not None:
            self.agent.writeInventory(inventory)
        self.snmpd.start()
        self.agent.start()
        self.kxsnmp.start()
        self.waitForSubtree()
        # Everything is answered before the agent is reached too; on a busy machine that may take some attempts.
        waitUntil(self._isAgentReached, 20, "the agent is reached")

    def _isAgentReached(self):
        try:
            return self.client.get([SERVER_EID])[0].value not in (None, _NO_SERVER)
        except SnmpTimeout:
            return False

    def waitForSubtree(self, deadlineSeconds=20):
        waitUntil(self.isSubtreeAnswered, deadlineSeconds, "the subtree is answered")

    def isSubtreeAnswered(self):
        """kxsnmp registers its objects one after the other, so the first and the last are asked."""
        try:
            first = self.client.get([SERVER_EID], timeoutSeconds=2)[0]
            last = self.client.get([_NO_ROW_OF_LAST_TABLE], timeoutSeconds=2)[0]
        except SnmpTimeout:
            return False
        return first.value is not None and last.tag == NO_SUCH_INSTANCE

    def waitForCounters(self, *tables):
        """Returns once the tables of counters have rows, both unless they are given. The first answer is without them
        where the agent was late with it."""
        for table in tables or (QUOTA_COUNTERS, NETWORK_COUNTERS):
            what = f"the counters of {formatOid(table)} are shown"
            waitUntil(lambda: self._hasRows(table), _COUNTERS_WITHIN_S, what)  # noqa: B023

    def _hasRows(self, table):
        try:
            found = self.client.getnext([table])[0]
        except SnmpTimeout:
            return False
        return found.value is not None and found.oid[: len(table)] == table

    def reports(self):
        """What sanitizers said of any of our programs."""
        return sanitizers.reports(self.reportFolder)

    def logs(self):
        """Everything logged, for the report of a failed test: pairs of a title and a text."""
        found = [("syslog", "\n".join(str(line) for line in self.syslog.lines()))]
        for path in (self.agent.log, self.snmpd.log, self.kxsnmp.folder / "output"):
            if path.exists():
                found.append((str(path.relative_to(self.folder)), path.read_text(errors="replace")[-20000:]))
        return found + [("sanitizer report", text) for text in self.reports()]

    def stopAll(self):
        """Ends everything in the ordinary way; raises when a part does not end. @return kxsnmp's exit status"""
        try:
            status = self.kxsnmp.stop()
        finally:
            self.kxsnmp.kill()
            try:
                self.agent.stop()
            finally:
                self.snmpd.stop()
        return status

    def close(self):
        try:
            self.stopAll()
        finally:
            self.client.close()
            self.syslog.close()

    def closeAndJudge(self):
        """Ends everything and leaves nothing; a sanitizer's report is a failure."""
        try:
            self.close()
            reports = self.reports()
        finally:
            self.removeFolder()
        assert not reports, "\n".join(reports)

    def removeFolder(self):
        """After close(), and after reports() was asked."""
        shutil.rmtree(self.folder, ignore_errors=True)
