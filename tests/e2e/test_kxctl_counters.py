"""kxctl counters: what an operator sees of the counters of a described host."""

import re

import pytest
from support.kxctl import document, run

INVENTORY = """
[[environment]]
name = "web"
veid = 101
[environment.counters.counters_kx_quota.""]
diskspace_used = 1000
inodes_used = 7
[environment.counters.counters_kx_net."2"]
bytes_in = 5000
packets_out = 3
[[environment]]
name = "no \\u001b[31mnumber"
[environment.counters.counters_kx_net."2"]
bytes_in = 9223372036854775807
"""


def kxctl(*arguments):
    return run("counters", *arguments, text=True)


def cells(line):
    return re.split(r" {2,}", line.strip())


def test_each_class_is_a_table_with_readable_sizes(describedHost):
    done = kxctl()
    assert (done.returncode, done.stderr) == (0, "")
    quota, network = (part.splitlines() for part in done.stdout.split("\n\n"))
    assert quota[0] == "counters_kx_quota" and cells(quota[1])[:3] == ["VEID", "NAME", "DISK USED"]
    assert cells(quota[2])[:3] == ["101", "web", "1000"]
    assert network[0] == "counters_kx_net" and cells(network[1])[:4] == ["VEID", "NAME", "INSTANCE", "BYTES IN"]
    assert cells(network[2]) == ["101", "web", "2", "4.9K", "-", "-", "3"]


def test_containers_and_a_class_are_chosen_with_the_same_totals_each_time(describedHost):
    for word in ("web", "101", "w*"):
        name, head, *rows = kxctl(word, "--class", "counters_kx_net", "--exact").stdout.splitlines()
        assert (name, cells(head)[3:5]) == ("counters_kx_net", ["bytes_in", "packets_in"])
        assert [cells(row) for row in rows] == [["101", "web", "2", "5000", "-", "-", "3"]]


def test_json_has_exact_values_and_everything_that_is_known_of_the_container(describedHost):
    rows = document("counters", "--class", "counters_kx_net")["counters"]
    web = next(row for row in rows if row.get("veid") == 101)
    assert web["name"] == "web" and web["instance"] == "2" and web["class"] == "counters_kx_net"
    assert web["counters"] == {"bytes_in": 5000, "packets_out": 3}
    other = next(row for row in rows if "veid" not in row)
    assert other["counters"]["bytes_in"] == 2**63 - 1
    assert len(other["eid"]) == 36


def test_a_name_cannot_move_the_cursor(describedHost):
    assert "\x1b" not in kxctl().stdout


def test_an_unknown_class_or_container_is_named_and_refused(describedHost):
    for arguments in (["--class", "counters_kx_none"], ["nobody"]):
        done = kxctl(*arguments)
        assert done.returncode == 1
        assert arguments[-1] in done.stderr


@pytest.mark.parametrize("arguments", [["--class"], ["--no-such-option"]])
def test_wrong_usage_is_told(describedHost, arguments):
    assert kxctl(*arguments).returncode == 2


def test_an_agent_that_is_not_there_is_told():
    done = kxctl("--socket", "/nowhere/agent.sock")
    assert done.returncode == 3
    assert "/nowhere/agent.sock" in done.stderr
