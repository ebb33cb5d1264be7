"""check_kxsnmp with the configuration of consumers/nagios, run as Nagios runs it; and Icinga's, read by Icinga."""

import re

import pytest
from support.consumers import CONSUMERS, run
from support.host import QUOTA_COUNTERS
from support.nagios import CRITICAL, FOLDER, OK, UNKNOWN, WARNING, calls, check

# Containers whose names say what is the matter with them.
CONTAINERS = {
    "web": (2, ["diskspace_used = 8000000000", "diskspace_hardlimit = 10000000000"]),
    "tight": (2, ["diskspace_used = 8000000001", "diskspace_softlimit = 9000000000", "diskspace_hardlimit = 10000000000", "inodes_used = 5"]),
    "full": (2, ["diskspace_used = 96", "diskspace_softlimit = 100", "inodes_used = 951", "inodes_hardlimit = 1000"]),
    "free": (2, ["diskspace_used = 1073741824"]),
    "idle": (2, []),  # nothing is known of its quota
    "held": (3, ["diskspace_used = 11", "diskspace_softlimit = 10", "diskspace_grace = 604800"]),
    "late": (2, ["diskspace_used = 11", "diskspace_softlimit = 10", "diskspace_grace = 3599"]),
    "over": (2, ["diskspace_used = 11", "diskspace_softlimit = 10"]),
    "off": (1, None),
    "odd": (9, None),
    "it's=a|b\\nc": (2, ["diskspace_used = 1"]),
}


def described(number, name, state, quota):
    lines = ["[[environment]]", f'name = "{name}"', f"veid = {number}", f"state = {state}"]
    return lines if quota is None else [*lines, '[environment.counters.counters_kx_quota.""]', *quota]


INVENTORY = "\n".join(
    line for number, (name, each) in enumerate(CONTAINERS.items(), 101) for line in described(number, name, *each)
)


@pytest.fixture(scope="module")
def describedHost(describedHost):
    """An answer that the agent was late with is without counters."""
    describedHost.waitForCounters(QUOTA_COUNTERS)
    return describedHost


@pytest.mark.parametrize(
    ("call", "status", "line"),
    [
        ("state!-n web", OK, "STATE OK - web is running | unknown=0 stopped=0 running=1 frozen=0"),
        ("state!-n held", WARNING, "STATE WARNING - held is frozen |"),
        ("state!-n off", CRITICAL, "STATE CRITICAL - off is stopped |"),
        ("state!-n off --allow-stopped", OK, "STATE OK - off is stopped |"),
        ("state!-n odd", CRITICAL, "STATE CRITICAL - odd is in state 9 |"),
        ("state!-n web -n 'l*'", OK, "STATE OK - all 2 are well |"),
        ("state", CRITICAL, "STATE CRITICAL - 3 of 11: off is stopped, ... |"),
        ("state!-n gone", UNKNOWN, "STATE UNKNOWN - there is no container gone"),
        (
            "space!-n web",
            OK,
            "SPACE OK - web: 7.5 GiB used, 80 % of 9.3 GiB | 'web'=8000000000B;8000000000;9500000000;0;10000000000",
        ),
        ("space!-n tight", WARNING, "SPACE WARNING - tight: 7.5 GiB used, 80 % of 9.3 GiB |"),
        ("space!-n full", CRITICAL, "SPACE CRITICAL - full: 96 B used, 96 % of 100 B | 'full'=96B;80;95;0;100"),
        ("space!-n free", OK, "SPACE OK - free: 1.0 GiB used, no limit | 'free'=1073741824B;;;0;"),
        ("space!-n free -w 1024M -c 2G", OK, "SPACE OK - free: 1.0 GiB used, no limit | 'free'=1073741824B;1073741824;2147483648;0;"),
        ("space!-n free -w 0.5G -c 2G", WARNING, "SPACE WARNING - free"),
        ("space!-n free -w 100 -c 1023M", CRITICAL, "SPACE CRITICAL - free"),
        ("space!-n idle", UNKNOWN, "SPACE UNKNOWN - idle: usage is unknown"),
        ("space!-n off", UNKNOWN, "SPACE UNKNOWN - off does not run"),
        ("space!-n 'it*'", OK, "SPACE OK - it's=a?b?c: 1 B used, no limit | 'it''s_a?b?c'=1B;;;0;"),
        ("space", CRITICAL, "SPACE CRITICAL - 6 of 9: full: 96 B used, 96 % of 100 B, ... |"),
        ("inodes!-n full", CRITICAL, "INODES CRITICAL - full: 951 inodes used, 95 % of 1000 inodes | 'full'=951;800;950;0;1000"),
        ("inodes!-n full -w 951 -c 952", OK, "INODES OK - full"),
        ("grace!-n web", OK, "GRACE OK - all 2 are well"),
        ("grace!-n held", WARNING, "GRACE WARNING - held: 10080 minutes of grace left for space"),
        ("grace!-n late", CRITICAL, "GRACE CRITICAL - late: 59 minutes of grace left for space"),
        ("grace!-n late -c 59m", WARNING, "GRACE WARNING - late"),
        ("grace!-n over", CRITICAL, "GRACE CRITICAL - over: above the soft limit of space, without grace"),
        ("agent", OK, "AGENT OK - the management agent is "),
        ("space!-w lots", UNKNOWN, "UNKNOWN - lots is no threshold for space"),
        ("weather", UNKNOWN, "UNKNOWN - "),
    ],
)
def test_a_check_reports_status_text_and_performance(describedHost, call, status, line):
    answered, output = check(describedHost.snmpd.port, f"check_kxsnmp!{call}")
    assert (answered, output.startswith(line)) == (status, True), output


def test_all_containers_are_listed_the_worst_first(describedHost):
    _, output = check(describedHost.snmpd.port, "check_kxsnmp!state")
    statuses = [line.partition(":")[0] for line in output.splitlines()[1:]]
    assert statuses == [CRITICAL] * 2 + [WARNING] + [OK] * 8


def test_a_host_that_does_not_answer_is_unknown():
    status, output = check(1, "check_kxsnmp!state!-t 1")
    assert (status, output) == (UNKNOWN, "STATE UNKNOWN - Timeout: No Response from 127.0.0.1:1")


def test_each_service_of_the_configuration_gets_an_answer(describedHost):
    outputs = [check(describedHost.snmpd.port, call)[1] for call in calls()]
    assert len(outputs) == 7 and all(re.match("[A-Z]+ (OK|WARNING|CRITICAL) - ", output) for output in outputs), outputs


ICINGA = CONSUMERS / "icinga/kxsnmp.conf"


def test_icinga_makes_the_services_of_the_example(tmp_path):
    """Its comment has a host as an example, which is read with it."""
    example = re.sub(r"^ \* ?", "", re.search(r"^ \*   object Host.*?^ \*   }$", ICINGA.read_text(), re.M | re.S)[0], flags=re.M)
    config = tmp_path / "icinga2.conf"
    head = f'const PluginDir = "{FOLDER}"\ninclude <itl>\ntemplate Host "generic-host" {{ check_command = "dummy" }}\n'
    config.write_text(f'{head}include "{ICINGA}"\n{example}\n')
    as_root = ["--define", "RunAsUser=root", "--define", "RunAsGroup=root"]
    done = run(["icinga2", "daemon", "-C", "-c", config, "--define", f"CacheDir={tmp_path}", *as_root], check=False)
    assert done.returncode == 0 and "Instantiated 9 Services" in done.stdout, done.stdout + done.stderr
    assert "warning" not in done.stdout


def test_icinga_gives_the_check_options_that_it_has():
    options = set(re.findall(r'^    "(-[^"]+)" = ', ICINGA.read_text(), re.MULTILINE))
    known = run([FOLDER / "check_kxsnmp", "--help"]).stdout
    assert {"-H", "-n", "-w"} <= options and all(re.search(rf"(^|[ ,]){option}\b", known, re.M) for option in options)
