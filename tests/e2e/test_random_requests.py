"""Random requests through the real master agent: every answer is what a walk of the same host says it must be.

KX_RANDOM_REQUESTS: how many, default 1,000. With KX_LAUNCHER=valgrind... (tests/support/parts.py) kxsnmp runs below valgrind.
"""

import bisect
import os
import random

import pytest
from support import describedhost, snmp
from support.host import ROOT, SERVER_EID

INVENTORY = describedhost.INVENTORY
REQUESTS = int(os.environ.get("KX_RANDOM_REQUESTS", "1000"))
SEED = 20240117
SUB_IDS = [0, 1, 2, 3, 4, 5, 9, 10, 101, 255, 2**31 - 1, 2**31, 2**32 - 1]
EXCEPTIONS = (snmp.NO_SUCH_OBJECT, snmp.NO_SUCH_INSTANCE)


class Model:
    """What a walk has found, and what each request must get."""

    def __init__(self, found):
        self._found = sorted(found)
        self._oids = [one.oid for one in self._found]

    def get(self, oid):
        at = bisect.bisect_left(self._oids, oid)
        return self._found[at] if self._oids[at : at + 1] == [oid] else None

    def next(self, oid):
        """None behind the last one."""
        at = bisect.bisect_right(self._oids, oid)
        return self._found[at] if at < len(self._found) else None


class Requests:
    """Random names: those of the walk, parts of them, and others near them."""

    def __init__(self, found):
        self._random = random.Random(SEED)
        self._oids = [one.oid for one in found]

    def kind(self):
        return self._random.choice(["get", "getnext", "getbulk"])

    def number(self, largest):
        return self._random.randint(0, largest)

    def names(self):
        return [self._name() for _ in range(self._random.randint(1, 6))]

    def _name(self):
        oid = list(self._random.choice(self._oids))
        change = self._random.randrange(5)
        if change == 0:
            del oid[max(len(ROOT), len(oid) - self._random.randrange(5)) :]
        elif change == 1:
            oid += [self._random.choice(SUB_IDS)] * self._random.randint(1, 4)
        elif change == 2:
            oid[self._random.randrange(len(ROOT), len(oid))] = self._random.choice(SUB_IDS)
        elif change == 3 and self._random.randrange(10) == 0:
            oid += [self._random.choice(SUB_IDS)] * (snmp.MAX_OID_LENGTH - len(oid))
        return tuple(oid[: snmp.MAX_OID_LENGTH])


def checkNext(got, expected, oid):
    if expected is None:
        assert got.tag == snmp.END_OF_MIB_VIEW or got.oid[: len(ROOT)] != ROOT, oid
    else:
        assert got == expected, oid


def check(client, model, requests):
    names, kind = requests.names(), requests.kind()
    if kind == "get":
        for oid, got in zip(names, client.get(names), strict=True):
            expected = model.get(oid)
            assert got == expected if expected else (got.oid == oid and got.tag in EXCEPTIONS), names
    elif kind == "getnext":
        for oid, got in zip(names, client.getnext(names), strict=True):
            checkNext(got, model.next(oid), names)
    else:
        repetitions, position = requests.number(4), list(names)
        answer = client.getbulk(0, repetitions, names)
        for at, got in enumerate(answer):
            column = at % len(names)
            if position[column] is not None:
                expected = model.next(position[column])
                checkNext(got, expected, names)
                position[column] = expected and expected.oid


@pytest.fixture(scope="module")
def countedHost(describedHost):
    describedHost.waitForCounters()
    return describedHost


def test_random_requests_get_what_a_walk_shows(countedHost, client):
    found = client.walk(ROOT)
    assert found[0].oid == SERVER_EID and len(found) > 50
    model, requests = Model(found), Requests(found)
    for _ in range(REQUESTS):
        check(client, model, requests)
