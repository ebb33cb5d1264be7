"""kxctl counters: what an operator sees of the counters of a described host."""

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


def test_both_classes_are_shown_in_the_vocabularys_order(describedHost):
    done = kxctl()
    assert (done.returncode, done.stderr) == (0, "")
    lines = done.stdout.splitlines()
    assert "counters_kx_quota  101 web  diskspace_used=1000  inodes_used=7" in lines
    assert "counters_kx_net  101 web  [2]  bytes_in=5000  packets_out=3" in lines


def test_one_class_is_shown_alone_and_again_with_the_same_totals(describedHost):
    for _ in range(2):
        done = kxctl("counters_kx_net")
        assert "counters_kx_net  101 web  [2]  bytes_in=5000  packets_out=3" in done.stdout.splitlines()
        assert "quota" not in done.stdout


def test_json_has_exact_values_and_everything_that_is_known_of_the_container(describedHost):
    rows = document("counters", "counters_kx_net")["counters"]
    web = next(row for row in rows if row.get("veid") == 101)
    assert web["name"] == "web" and web["instance"] == "2" and web["class"] == "counters_kx_net"
    assert web["counters"] == {"bytes_in": 5000, "packets_out": 3}
    other = next(row for row in rows if "veid" not in row)
    assert other["counters"]["bytes_in"] == 2**63 - 1
    assert len(other["eid"]) == 36


def test_a_name_cannot_move_the_cursor(describedHost):
    assert "\x1b" not in kxctl().stdout


def test_an_unknown_class_is_named_and_refused(describedHost):
    done = kxctl("counters_kx_none")
    assert done.returncode == 1
    assert "counters_kx_none" in done.stderr


@pytest.mark.parametrize("arguments", [["a", "b"], ["--no-such-option"]])
def test_wrong_usage_is_told(describedHost, arguments):
    assert kxctl(*arguments).returncode == 2


def test_an_agent_that_is_not_there_is_told():
    done = kxctl("--socket", "/nowhere/agent.sock")
    assert done.returncode == 3
    assert "/nowhere/agent.sock" in done.stderr
