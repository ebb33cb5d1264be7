"""The checks of consumers/nagios, run as Nagios runs them: macros filled in, by a shell."""

import re

import pytest
from support.consumers import CONSUMERS
from support.host import QUOTA_COUNTERS
from support.nagios import CONFIGURATION, CRITICAL, OK, UNKNOWN, WARNING, check, commandLines, runLine

DAY_S = 86400

# Containers whose numbers say what is the matter with them.
RUNNING, FROZEN, STOPPED, ODD, ROOMY, TIGHT, FULL, GRACE, LATE, NOT_THERE = range(101, 111)
INVENTORY = "\n".join(
    f'[[environment]]\nname = "ve{veid}"\nveid = {veid}\nstate = {state}\n'
    f'[environment.counters.counters_kx_quota.""]\n' + "\n".join(quota)
    for veid, state, quota in [
        (RUNNING, 2, ()),
        (FROZEN, 3, ()),
        (STOPPED, 1, ()),
        (ODD, 0, ()),
        (ROOMY, 2, ("diskspace_used = 8000000000", "inodes_used = 80000")),
        (TIGHT, 2, ("diskspace_used = 8000000001", "inodes_used = 80001")),
        (FULL, 2, ("diskspace_used = 9500000001", "inodes_used = 95001")),
        (GRACE, 2, ("diskspace_grace = 604800", "inodes_grace = 0")),
        (LATE, 2, ("diskspace_grace = 604800", f"inodes_grace = {DAY_S}")),
    ]
)


@pytest.fixture(scope="module")
def describedHost(describedHost):
    """An answer that the agent was late with is without counters."""
    describedHost.waitForCounters(QUOTA_COUNTERS)
    return describedHost


@pytest.mark.parametrize(
    ("call", "status", "shown"),
    [
        (f"check_kxsnmp_state!{RUNNING}", OK, "state 2"),
        (f"check_kxsnmp_state!{FROZEN}", WARNING, "state *3*"),
        (f"check_kxsnmp_state!{STOPPED}", CRITICAL, "state *1*"),
        (f"check_kxsnmp_state!{ODD}", CRITICAL, "state *0*"),
        (f"check_kxsnmp_state!{NOT_THERE}", UNKNOWN, ""),
        (f"check_kxsnmp_space!{ROOMY}!8000000000!9500000000", OK, "used 8000000000 bytes"),
        (f"check_kxsnmp_space!{TIGHT}!8000000000!9500000000", WARNING, "used *8000000001* bytes"),
        (f"check_kxsnmp_space!{FULL}!8000000000!9500000000", CRITICAL, "used *9500000001* bytes"),
        (f"check_kxsnmp_inodes!{ROOMY}!80000!95000", OK, "inodes 80000"),
        (f"check_kxsnmp_inodes!{TIGHT}!80000!95000", WARNING, "inodes *80001*"),
        (f"check_kxsnmp_inodes!{FULL}!80000!95000", CRITICAL, "inodes *95001*"),
        (f"check_kxsnmp_grace!{RUNNING}", OK, "grace 0 0"),
        (f"check_kxsnmp_grace!{GRACE}", WARNING, "grace *604800* 0"),
        (f"check_kxsnmp_grace!{LATE}", CRITICAL, "grace *604800* *86400*"),
        ("check_kxsnmp_server", OK, ""),
    ],
)
def test_a_check_tells_what_is_the_matter(describedHost, call, status, shown):
    answered, line = check(describedHost.snmpd.port, call)
    assert (answered, shown in line) == (status, True), line


def test_each_service_of_the_configuration_calls_a_command_that_is_there():
    calls = re.findall(r"check_command +(\S+?)(?:!|\n)", CONFIGURATION)
    assert set(calls) == set(commandLines())


def test_the_commands_of_the_readme_answer(describedHost):
    lines = re.findall(r"^\./(check_snmp .*)$", (CONSUMERS / "README.md").read_text(), re.MULTILINE)
    here = f" -H 127.0.0.1 -p {describedHost.snmpd.port} "
    answers = [runLine("$USER1$/" + line.replace(" -H 192.0.2.10 ", here), {})[0] for line in lines]
    assert answers == [OK, OK, OK]
