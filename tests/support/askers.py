"""Managers that ask again and again, each on a thread, and note the longest that an answer took."""

import threading
import time

from .host import ENTRY, ROOT
from .snmp import SnmpClient, parseOid

ANSWER_DEADLINE_S = 1.0
_SYS_UPTIME = parseOid("1.3.6.1.2.1.1.3.0")
_NUMBERS = ENTRY + (1,)  # the column of containers' numbers


class Asker(threading.Thread):
    """Asks until end() is called. An exception is kept in `error` and ends it too."""

    def __init__(self):
        super().__init__()
        self.longestS = 0.0
        self.answers = 0
        self.error = None
        self._ending = threading.Event()

    def run(self):
        try:
            while not self._ending.is_set():
                started = time.monotonic()
                self.ask()
                self.longestS = max(self.longestS, time.monotonic() - started)
                self.answers += 1
        except Exception as error:  # whatever it is, the test reports it
            self.error = error

    def end(self):
        self._ending.set()
        self.join()


class Walker(Asker):
    """A manager that walks everything, a step at a time."""

    def __init__(self, port):
        super().__init__()
        self.rows = []  # that each finished walk has visited
        self._visited = 0
        self._last = ROOT
        self._client = SnmpClient(port)

    def ask(self):
        (varbind,) = self._client.getnext([self._last], timeoutSeconds=3 * ANSWER_DEADLINE_S)
        if varbind.value is not None and varbind.oid[: len(ROOT)] == ROOT:
            self._last = varbind.oid
            self._visited += varbind.oid[: len(_NUMBERS)] == _NUMBERS
        else:
            self.rows.append(self._visited)
            self._last, self._visited = ROOT, 0

    def end(self):
        super().end()
        self._client.close()


class UptimeAsker(Asker):
    """A manager that asks the master agent for what it answers by itself, some times a second."""

    def __init__(self, port):
        super().__init__()
        self._client = SnmpClient(port)

    def ask(self):
        self._client.get([_SYS_UPTIME], timeoutSeconds=3 * ANSWER_DEADLINE_S)
        self._ending.wait(0.02)

    def end(self):
        super().end()
        self._client.close()
