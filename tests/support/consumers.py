"""Programs of others that read what we publish, each run as an operator runs it, against a host under test."""

import json
import os
import subprocess

from .host import PROJECT
from .parts import SUBTREE
from .snmp import COUNTER64, INTEGER, IP_ADDRESS, OCTET_STRING, UNSIGNED32, Varbind, parseOid

CONSUMERS = PROJECT / "consumers"
NODE_MODULES = PROJECT / "build/npm/node_modules"
_MANAGERS = PROJECT / "tests/support/managers"
_DEADLINE_S = 60

# What walks a subtree with an SNMP implementation of its own.
WALKERS = {
    "node": ["node", _MANAGERS / "walk.js"],
    "perl": ["perl", _MANAGERS / "walk.pl"],
}


def run(command, environment=None, check=True, text=""):
    """Runs a command with `text` as its input. @return what subprocess.run does, outputs as texts"""
    done = subprocess.run(
        list(map(str, command)),
        env={**os.environ, **(environment or {})},
        input=text,
        capture_output=True,
        text=True,
        timeout=_DEADLINE_S,
        check=False,
    )
    if check and done.returncode:
        raise AssertionError(f"{command[0]} ended with status {done.returncode}: {done.stdout}{done.stderr}")
    return done


def _varbind(oid, tag, shown):
    values = {
        OCTET_STRING: bytes.fromhex,
        IP_ADDRESS: lambda quad: bytes(parseOid(quad)),
        INTEGER: int,
        UNSIGNED32: int,
        COUNTER64: int,
    }
    return Varbind(parseOid(oid), tag, values[tag](shown))


def tablesOfPanel(frames, transformations):
    """What Grafana makes of the answers of a panel's queries: tables, lists of rows by the columns' titles."""
    text = json.dumps({"frames": frames, "transformations": transformations})
    return json.loads(run(["node", _MANAGERS / "grafana.js"], {"NODE_PATH": str(NODE_MODULES)}, text=text).stdout)


def walkWith(walker, method, port):
    """Everything below our subtree, as another implementation sees it: a list of Varbind."""
    done = run([*WALKERS[walker], port, SUBTREE, method], {"NODE_PATH": str(NODE_MODULES)})
    return [_varbind(*entry) for entry in json.loads(done.stdout)]
