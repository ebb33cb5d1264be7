"""The MIB module and the base modules it stands on: for the tools that read them, and as values for tests."""

import ast
import os
import re
import subprocess
from pathlib import Path
from typing import NamedTuple

from .host import PROJECT
from .parts import START_DEADLINE_S, Snmptrapd
from .snmp import COUNTER64, INTEGER, IP_ADDRESS, OCTET_STRING, UNSIGNED32, parseOid
from .wait import waitUntil

MODULE = "CORVANE-MIB"
MODULE_FILE = PROJECT / "mibs" / f"{MODULE}.txt"
BASE_MODULES = PROJECT / "mibs/base"  # in the package, as Debian has none

SYNTAX_TAGS = {
    "Enumeration": INTEGER,
    "Integer32": INTEGER,
    "CounterBasedGauge64": COUNTER64,
    "OctetString": OCTET_STRING,
    "Unsigned32": UNSIGNED32,
    "Counter64": COUNTER64,
    "IpAddress": IP_ADDRESS,
}
_DEADLINE_S = 30


def netSnmpSettings():
    """Environment of a net-snmp tool: it knows the module, and nothing of the machine's own configuration."""
    modules = {"MIBDIRS": f"{MODULE_FILE.parent}:{BASE_MODULES}", "MIBS": f"SNMPv2-MIB:{MODULE}"}
    return {**modules, "SNMPCONFPATH": f"{os.devnull}/none"}


def run(command):
    """Runs a tool that reads modules, whatever its status. @return what subprocess.run does, outputs as texts"""
    return subprocess.run(
        list(map(str, command)),
        env={**os.environ, **netSnmpSettings(), "SMIPATH": str(BASE_MODULES)},
        capture_output=True,
        text=True,
        timeout=_DEADLINE_S,
        check=False,
    )


def shown(command):
    """What a tool shows. Raises unless it succeeds."""
    done = run(command)
    if done.returncode:
        raise AssertionError(f"{command[0]} ended with status {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout


def lint(path):
    """All that smilint has to say of a module. Its exit status says nothing."""
    done = run(["smilint", "-c", os.devnull, "-l", 6, path])
    return done.stdout + done.stderr


class Syntax(NamedTuple):
    tag: int  # on the wire
    sizes: list  # pairs of the least and the most bytes of a text; empty: any
    names: dict  # of numbers


class Object(NamedTuple):
    """A scalar or a column."""

    name: str
    oid: tuple
    access: str  # smidump's word: noaccess, notifyonly, readonly
    syntax: Syntax
    units: str


class Table(NamedTuple):
    name: str
    columns: list  # the readable ones, in the order of their OIDs
    index: list


class Module:
    """What is in the module, as smidump reads it."""

    def __init__(self, path=MODULE_FILE):
        dump = shown(["smidump", "-c", os.devnull, "-f", "python", path])
        self._dump = ast.literal_eval(dump.partition("\nMIB = ")[2])
        nodes = self._dump["nodes"]
        self.objects = {name: self._object(name, node) for name, node in nodes.items() if "syntax" in node}
        self.readable = [each for each in self.objects.values() if each.access == "readonly"]
        self.tables = {name: self._table(name, node) for name, node in nodes.items() if node["nodetype"] == "table"}
        self.notifications = self._dump["notifications"]

    def oids(self):
        """The OID of everything that has a name."""
        kinds = ("nodes", "notifications", "groups", "compliances")
        return {name: parseOid(node["oid"]) for kind in kinds for name, node in self._dump[kind].items()}

    def listedNumbers(self, convention):
        """The numbers that the description of a textual convention lists, and their names."""
        described = self._dump["typedefs"][convention]["description"]
        return {int(number): name for name, number in re.findall(r"^(\w+)\((\d+)\):", described, re.MULTILINE)}

    def _object(self, name, node):
        syntax = self._syntax(node["syntax"]["type"])
        return Object(name, parseOid(node["oid"]), node["access"], syntax, node.get("units", ""))

    def _syntax(self, kind):
        described = kind if "basetype" in kind else self._dump["typedefs"].get(kind["name"], {})
        sizes = [(int(size["min"]), int(size["max"])) for size in described.get("ranges", [])]
        numbers = {key: value for key, value in described.items() if isinstance(value, dict) and "number" in value}
        names = {int(value["number"]): key for key, value in numbers.items()}
        return Syntax(SYNTAX_TAGS[described.get("basetype", kind.get("name"))], sizes, names)

    def _table(self, name, node):
        entry = parseOid(node["oid"]) + (1,)
        columns = sorted((each for each in self.readable if each.oid[:-1] == entry), key=lambda each: each.oid)
        (row,) = (each for each in self._dump["nodes"].values() if parseOid(each["oid"]) == entry)
        return Table(name, columns, [self.objects[index] for index in row["linkage"]])


class NamingSnmptrapd(Snmptrapd):
    """net-snmp's trap receiver with the module, as an operator starts it: variables have names."""

    def start(self):
        command = ["/usr/sbin/snmptrapd", "-f", "-n", "-C", "-c", self._config, "-Lf", self.log]
        settings = {**netSnmpSettings(), "SNMP_PERSISTENT_DIR": str(Path(self.folder) / "persistent")}
        with open(self.folder / "output", "ab") as output:
            self._popen = subprocess.Popen(
                [*map(str, command), f"udp:127.0.0.1:{self.port}"],
                env={**os.environ, **settings},
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=output,
                process_group=0,
            )
        waitUntil(self._listens, START_DEADLINE_S, f"snmptrapd listens on port {self.port}")
