"""A permanent storm of alerts at a simulated host, and the account of what became of them."""

import re
import threading
import time
from collections import Counter

from .raising import AlertRaiser

_MORE = re.compile(rb" \(and (\d+) more\)$")
_LOST = re.compile(r"(\d+) alerts not sent as traps|ended: (\d+) traps sent and not confirmed")
_BATCH_S = 0.05


class Storm(threading.Thread):
    """Raises alerts about the containers in turn until it is told to end; the value of each is its number."""

    def __init__(self, numbers, perSecond):
        super().__init__()
        self.raised = 0
        self.error = None
        self._numbers = numbers
        self._batch = max(1, round(perSecond * _BATCH_S))
        self._ending = threading.Event()

    def run(self):
        try:
            with AlertRaiser() as raiser:
                raiser.setTimeout(20)
                while not self._ending.wait(_BATCH_S):
                    self._raiseBatch(raiser)
        except Exception as error:  # the test reports it
            self.error = error

    def _raiseBatch(self, raiser):
        for _ in range(self._batch):
            number = self._numbers[self.raised % len(self._numbers)]
            raiser.send(veid=number, code=1, text=b"storm", value=self.raised)
            self.raised += 1
        for _ in range(self._batch):
            raiser.confirm()

    def end(self):
        self._ending.set()
        self.join()


def signalsIn(traps):
    """How many alerts the traps stand for: themselves, and those that their texts count."""
    counted = (_MORE.search(trap.variables[1].value) for trap in traps)
    return sum(1 + (int(found.group(1)) if found else 0) for found in counted)


def lost(host):
    """How many alerts, or traps, kxsnmp's log counts as not sent or not confirmed."""
    found = (_LOST.search(str(line)) for line in host.syslog.lines())
    return sum(int(match.group(1) or match.group(2)) for match in found if match)


def repeated(traps):
    """Container and value of the alerts that came as a trap more than once."""
    alerts = Counter((trap.variables[0].value, trap.variables[3].value) for trap in traps)
    return [alert for alert, times in alerts.items() if times > 1]


def sleepUnder(askers, seconds):
    """Lets time pass; returns early when an asker has failed."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline and not any(asker.error for asker in askers):
        time.sleep(0.05)
