"""What a person sees who types net-snmp's commands."""

import re
import subprocess

import pytest
from support.host import PROJECT, buildFolder
from support.parts import SUBTREE

INVENTORY = """
[host]
product_version = "7.0.1-42"
[[environment]]
name = "web"
veid = 101
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000101"
hostname = "web.example"
description = "a description that is too long for one column of a terminal, and has a\\nsecond line"
os_template = { name = "debian", version = "12" }
state = 2
addresses = [ { address = "192.0.2.1", mask = "255.255.255.0" } ]
templates = [ { name = "nginx", version = "1.24" } ]
[[environment]]
name = "database"
veid = 102
state = 3
transition = 4
[[environment]]
name = "unnumbered"
"""

NUMBER_OF_VALUES = 2 + 3 * 9 + 2 + 2


def typed(host, tool, *arguments):
    """Runs a tool as a person does and returns the lines it shows. -m "" : no MIB files are installed."""
    command = [tool, "-v2c", "-c", "public", "-m", "", "-On", f"127.0.0.1:{host.snmpd.port}", *arguments]
    done = subprocess.run(command, capture_output=True, text=True, check=True, timeout=60)
    return done.stdout.splitlines()


@pytest.mark.parametrize("tool", ["snmpwalk", "snmpbulkwalk"])
def test_a_walk_shows_the_scalars_and_the_tables_and_ends(describedHost, tool):
    *shown, end = "\n".join(typed(describedHost, tool, SUBTREE)).split("\n.")
    assert "No more variables left in this MIB View" in end
    assert len(shown) == NUMBER_OF_VALUES
    assert f'{SUBTREE}.2.0 = STRING: "7.0.1-42"' in shown
    assert f'{SUBTREE}.4.1.4.101 = STRING: "web.example"' in shown
    assert f"{SUBTREE}.4.1.1.4294967295 = Gauge32: 4294967295" in shown
    assert f"{SUBTREE}.5.1.2.101.192.0.2.1 = IpAddress: 255.255.255.0" in shown
    assert shown[-1] == f"{SUBTREE}.6.1.2.101.5.110.103.105.110.120 = Gauge32: 1"


def test_a_get_shows_one_value(describedHost):
    assert typed(describedHost, "snmpget", f"{SUBTREE}.4.1.8.101") == [f".{SUBTREE}.4.1.8.101 = INTEGER: 2"]


def test_a_get_of_a_container_that_is_not_there_says_so(describedHost):
    shown = typed(describedHost, "snmpget", f"{SUBTREE}.4.1.8.555")
    assert shown == [f".{SUBTREE}.4.1.8.555 = No Such Instance currently exists at this OID"]


def test_snmptable_style_bulk_get_of_columns_is_answered(describedHost):
    columns = [f"{SUBTREE}.4.1.{column}" for column in (1, 3, 8)]
    shown = typed(describedHost, "snmpbulkget", "-Cr3", *columns)
    assert [line.split(" ")[0][1:] for line in shown[:3]] == [f"{column}.101" for column in columns]
    assert len(shown) == 9


def shownTables(host):
    command = [PROJECT / "scripts/show-tables", "--port", str(host.snmpd.port)]
    return subprocess.run(command, capture_output=True, text=True, check=True, timeout=60).stdout


def test_show_tables_names_the_columns_and_the_states(describedHost):
    shown = shownTables(describedHost)
    lines = shown.splitlines()
    header = next(line for line in lines if line.startswith("VEID"))
    row = next(line for line in lines if line.startswith("101 "))

    def cell(name):
        return row[header.index(name) :].split("  ")[0].strip()

    assert "7.0.1-42" in shown
    assert cell("NAME") == "web"
    assert cell("HOSTNAME") == "web.example"
    assert cell("OS TEMPLATE") == "debian/12"
    assert cell("STATE") == "2 running"
    assert cell("TRANSITION") == "0 none"
    assert cell("DESCRIPTION").startswith("a description") and cell("DESCRIPTION").endswith("…")
    assert any("3 frozen" in line and "4 thawing" in line for line in lines)
    assert any(line.startswith("4294967295") and "unnumbered" in line for line in lines)


def test_show_tables_shows_addresses_and_templates_with_their_containers(describedHost):
    rows = [line.split() for line in shownTables(describedHost).splitlines()]
    assert ["101", "192.0.2.1", "255.255.255.0"] in rows
    assert ["101", "nginx", "1"] in rows
    assert ["VEID", "ADDRESS", "MASK"] in rows and ["VEID", "TEMPLATE", "VERSION"] in rows


def test_the_program_has_no_function_that_the_agent_library_would_call_instead_of_its_own():
    command = ["nm", "-D", "--defined-only", buildFolder() / "daemon/kxsnmp"]
    exported = subprocess.run(command, capture_output=True, text=True, check=True)
    assert not re.search(r" init_\w+$", exported.stdout, re.MULTILINE)


def test_the_pictures_of_the_readme_show_what_they_are_there_for():
    images = PROJECT / "docs/images"
    top, walk = (re.sub("<[^>]*>", "", (images / name).read_text()) for name in ("top.svg", "walk.svg"))
    assert re.search(r"web-front\s+running\s+\d", top) and "[###" in top and "Latest alerts" in top
    assert all(words in walk for words in ("snmptable -v2c", "kxVeTable", "web1.example.net", "kxVeIpAddrTable"))
    assert "/tmp" not in top + walk and "annot" not in walk
