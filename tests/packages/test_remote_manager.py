"""A monitoring host that may read the containers, let in by the commands of the operations' manual."""

import re

import pytest
from support.host import PROJECT
from support.parts import SUBTREE

OWN_ADDRESS = "192.0.2.10"
MANAGER = "192.0.2.5"  # the manual's
OTHER = "192.0.2.6"
SYSTEM = "1.3.6.1.2.1.1"
NO_ANSWER = 1


def commands():
    (block,) = re.findall(r"^```sh manager\n(.*?)^```$", (PROJECT / "docs/operations.md").read_text(), re.M | re.S)
    return block


@pytest.fixture(scope="module", autouse=True)
def reached(debian):
    """The host has an address that others reach it at; those of the monitoring host and of another one are here too."""
    for address in (OWN_ADDRESS, MANAGER, OTHER):
        debian.do("ip", "address", "add", f"{address}/32", "dev", "lo")
    debian.do("bash", "-ec", commands())
    debian.waitForWalk(SUBTREE, lambda found: f"{SUBTREE}.1.0" in found, "kxsnmp has joined snmpd again")


def asked(debian, community, source, oid, status=0):
    """What a manager with the address `source` is shown."""
    options = ["-v2c", "-c", community, "-m", "", "-On", "-t", "1", "-r", "1", f"--clientaddr={source}"]
    return debian.do("snmpwalk", *options, OWN_ADDRESS, oid, status=status)


def test_the_monitoring_host_reads_the_containers(debian):
    assert f".{SUBTREE}.1.0 = STRING: " in asked(debian, "SECRET", MANAGER, SUBTREE)


def test_the_monitoring_host_reads_nothing_else(debian):
    assert " = No " in asked(debian, "SECRET", MANAGER, SYSTEM)


@pytest.mark.parametrize("community, source", [("SECRET", OTHER), ("public", OTHER), ("public", MANAGER)])
def test_nobody_else_is_answered(debian, community, source):
    asked(debian, community, source, SUBTREE, status=NO_ANSWER)


def test_this_host_is_shown_what_the_stock_configuration_shows(debian):
    assert debian.walk(SYSTEM)
