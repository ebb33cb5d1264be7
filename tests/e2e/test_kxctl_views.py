"""kxctl status, list and show: what an operator sees of the described host, compared with its description."""

import re
import tomllib
import unicodedata

import pytest
from support import describedhost
from support.host import SERVER_EID
from support.kxctl import DONE, REFUSED, UNREACHABLE, WRONG_USAGE, Terminal, document, run

INVENTORY = (
    describedhost.INVENTORY
    + """
[[environment]]
name = "six"
veid = 606
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000606"
state = 2
addresses = [ { address = "10.6.0.6", mask = "255.255.0.0" } ]
inet6_addresses = [ { address = "fd00::6", prefix_length = 64 } ]
[environment.counters.counters_kx_quota.""]
diskspace_used = "unknown"
"""
)
DESCRIBED = tomllib.loads(INVENTORY)["environment"]
CONTAINERS = [one for one in DESCRIBED if one.get("type", "lumetra") == "lumetra"]

STATES = {0: "unknown", 1: "stopped", 2: "running", 3: "frozen"}


def expected(described):
    """The JSON object of a described environment."""
    made = {"eid": described["eid"].lower(), "name": described["name"].split("\0")[0]}
    made["type"] = described.get("type", "lumetra")
    made["state"], made["transition"] = described.get("state", 0), described.get("transition", 0)
    same = ("veid", "hostname", "description", "os_template", "base_sample", "addresses", "inet6_addresses", "templates")
    return {**made, **{key: described[key] for key in same if key in described}}


def withoutWords(shown):
    return {key: value for key, value in shown.items() if key not in ("state_name", "transition_name", "counters")}


def byEid(environments):
    return {one["eid"]: one for one in environments}


def describedOnes(environments):
    """Without the host itself, which the agent adds."""
    host = document("status")["eid"]
    assert [one["type"] for one in environments if one["eid"] == host] == ["host"]
    return byEid(one for one in environments if one["eid"] != host)


def columnsTaken(text):
    """Places a text takes on a terminal."""
    return sum(0 if unicodedata.combining(c) else 2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)


# ---- status -------------------------------------------------------------------------------------------------------


def test_status_counts_what_is_described(describedHost):
    shown = document("status")
    (eid,) = describedHost.client.get([SERVER_EID])
    assert (shown["reachable"], shown["eid"]) == (True, eid.value.decode())
    assert re.fullmatch(r"kxagentd \d+\.\d+\.\d+", shown["agent"])
    assert shown["product_version"] == "7.0.1-42"
    assert 0 < shown["round_trip_ms"] < 5000
    counts = {}
    for one in CONTAINERS:
        word = STATES.get(one.get("state", 0), str(one.get("state", 0)))
        counts[word] = counts.get(word, 0) + 1
    assert shown["containers"] == {"total": len(CONTAINERS), "by_state": counts, "without_number": 1}
    assert shown["other_environments"] == len(DESCRIBED) - len(CONTAINERS) + 1  # the host itself


def test_status_is_readable(describedHost):
    done = run("status", text=True)
    assert (done.returncode, done.stderr) == (DONE, "")
    assert re.search(r"^Reachable:   yes, it answers in [\d.]+ ms$", done.stdout, re.MULTILINE)
    assert re.search(r"^Containers:  10: .*2 running, 1 frozen \(1 without a number\)$", done.stdout, re.MULTILINE)


# ---- list ---------------------------------------------------------------------------------------------------------


def test_all_that_is_listed_is_what_is_described(describedHost):
    shown = describedOnes(document("list", "--all")["environments"])
    assert {eid: withoutWords(one) for eid, one in shown.items()} == byEid(map(expected, DESCRIBED))


def test_the_list_has_numbered_containers_in_their_order(describedHost):
    numbers = [one["veid"] for one in document("list")["environments"]]
    assert numbers == sorted(one["veid"] for one in CONTAINERS if "veid" in one)
    lines = run("list", text=True).stdout.splitlines()
    assert lines[0].split() == ["VEID", "NAME", "HOSTNAME", "OS", "TEMPLATE", "STATE", "TRANSITION", "ADDRESSES"]
    assert [int(line.split()[0]) for line in lines[1:]] == numbers


@pytest.mark.parametrize(
    "arguments, states",
    [
        (["--state", "running"], {2}),
        (["-s", "0"], {0}),
        (["-s", "frozen", "--state=-1", "--state", "1"], {3, -1, 1}),
        (["--state", "stopped,2"], {1, 2}),
    ],
)
def test_the_list_can_be_filtered_by_state(describedHost, arguments, states):
    shown = document("list", *arguments)["environments"]
    described = [one for one in CONTAINERS if "veid" in one and one.get("state", 0) in states]
    assert {one["eid"] for one in shown} == {one["eid"].lower() for one in described}


def test_the_list_takes_words_patterns_columns_and_an_order(describedHost):
    named = document("list", "web", "10[12]")["environments"]
    assert [one["veid"] for one in named] == [101, 102]
    done = run("list", "--columns", "name,veid", "--sort", "name", "--reverse", text=True)
    assert (done.returncode, done.stderr) == (DONE, "")
    assert done.stdout.splitlines()[0].split() == ["NAME", "VEID"]
    names = [one["name"] for one in document("list", "--sort", "name")["environments"]]
    assert names == sorted(names)
    assert [line.split()[-1] for line in done.stdout.splitlines()[1:]] == [
        str(one["veid"]) for one in reversed(document("list", "--sort", "name")["environments"])
    ]
    done = run("list", "nobody*", text=True)
    assert (done.returncode, done.stdout) == (REFUSED, "") and "nobody*" in done.stderr


def test_the_list_shows_addresses_and_templates_of_a_container(describedHost):
    (line,) = [line for line in run("list", text=True).stdout.splitlines() if line.split()[0] == "101"]
    shown = ["101", "web", "web.example", "debian/12", "running", "-", "10.0.0.9,192.168.3.4,10.0.0.1,9.255.0.1"]
    assert re.split(r" {2,}", line.strip()) == shown


def test_addresses_of_both_kinds_and_unknown_use_are_shown(describedHost):
    (line,) = [line for line in run("list", "six", text=True).stdout.splitlines() if line.split()[0] == "606"]
    assert line.endswith("10.6.0.6,fd00::6")
    shown = run("show", "six", text=True).stdout
    assert re.search(r"^Addresses: +10\.6\.0\.6/16\n +fd00::6/64$", shown, re.MULTILINE)
    assert re.search(r"^diskspace +unknown ", shown, re.MULTILINE)
    assert re.search(r"^ +606 +six +unknown ", run("counters", "six", text=True).stdout, re.MULTILINE)
    assert re.search(r"^ +606 +six .* unknown +-$", run("top", "--once", text=True).stdout, re.MULTILINE)


@pytest.mark.parametrize("width", [132, 80, 40, 9])
def test_the_list_fits_the_terminal_and_breaks_no_character(describedHost, width):
    terminal = Terminal(width, 24, "list", NO_COLOR="1")
    try:
        assert terminal.wait() == DONE
        lines = terminal.read().decode().splitlines()
    finally:
        terminal.close()
    assert len([line for line in lines if line]) == 1 + len([one for one in CONTAINERS if "veid" in one])
    assert max(map(columnsTaken, lines)) <= width
    assert "\ufffd" not in "".join(lines) and "\x1b" not in "".join(lines)


@pytest.mark.parametrize(
    "arguments, environment, colours",
    [((), {}, True), (("--no-color",), {}, False), ((), {"NO_COLOR": "1"}, False), ((), {"TERM": "dumb"}, False)],
)
def test_colours_are_for_terminals(describedHost, arguments, environment, colours):
    terminal = Terminal(80, 24, "list", *arguments, **environment)
    try:
        assert terminal.wait() == DONE
        assert (b"\x1b[32mrunning\x1b[0m" in terminal.read()) == colours
    finally:
        terminal.close()
    assert b"\x1b" not in run("list").stdout


# ---- show ---------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("described", DESCRIBED, ids=lambda one: one["eid"][-12:])
def test_everything_of_an_environment_is_shown(describedHost, described):
    shown = document("show", described["eid"])
    assert withoutWords(shown) == expected(described)
    counters = described.get("counters", {})
    assert set(shown["counters"]) == set(counters)
    for name, instances in counters.items():
        assert {one["instance"]: one["counters"] for one in shown["counters"][name]} == instances


@pytest.mark.parametrize("word", ["101", "web", "0f8e5c1a-7a44-4c3b-9d1e-000000000101"])
def test_a_container_is_found_by_number_name_and_identifier(describedHost, word):
    done = run("show", word, text=True)
    assert (done.returncode, done.stderr) == (DONE, "")
    for shown in ("Name:         web", "Host name:    web.example", "192.168.3.4/25", "nginx 1.24", '"" 8'):
        assert shown in done.stdout
    assert re.search(r"^diskspace +977K +1\.9M +8\.0E +7d +\[\.+\] +0%$", done.stdout, re.MULTILINE)
    assert re.search(r"^1 +1000 +10 +9223372036854775807 +20$", done.stdout, re.MULTILINE)


def test_a_negative_number_goes_behind_two_dashes(describedHost):
    assert "a negative number" in run("show", "--", "-7", text=True).stdout


def test_what_is_not_there_is_told(describedHost):
    done = run("show", "no\x1b[2Jbody", text=True)
    assert (done.returncode, done.stdout) == (REFUSED, "")
    assert "no\\x1b[2Jbody" in done.stderr and "kxctl list --all" in done.stderr


def test_no_text_of_a_container_reaches_the_terminal_raw(describedHost):
    shown = run("show", "102", text=True).stdout + run("list", "--all", text=True).stdout
    assert "\\t tab and\\n new line" in shown
    assert "\t" not in shown and "\0" not in shown


# ---- agents that are not there, and wrong usage -------------------------------------------------------------------


@pytest.mark.parametrize("arguments", [["status"], ["list"], ["show", "1"], ["top"], ["top", "--once"]])
def test_an_absent_agent_is_named(arguments):
    done = run(*arguments, "--socket", "/nowhere/agent.sock", text=True)
    assert (done.returncode, done.stdout) == (UNREACHABLE, "")
    assert done.stderr == "kxctl: /nowhere/agent.sock: No such file or directory (is kxagentd running?)\n"


def test_status_in_json_says_that_the_agent_is_absent():
    shown = document("status", "--socket", "/nowhere/agent.sock", status=UNREACHABLE)
    assert shown["reachable"] is False and "/nowhere/agent.sock" in shown["error"]


@pytest.mark.parametrize(
    "arguments, word",
    [
        (["list", "--state", "melting"], "melting"),
        (["list", "--columns", "name,colour"], "colour"),
        (["show"], "ve"),
        (["show", "a", "b"], "b"),
        (["top", "--sort", "colour"], "colour"),
        (["top", "--interval", "0"], "outside of 0.1 to 3600"),
        (["top", "--once", "--count", "2"], "--once"),
        (["doctor", "--snmp-address", "-x"], "-x"),
        (["doctor", "127.0.0.1"], "127.0.0.1 is no option of snmpget"),
    ],
)
def test_wrong_usage_is_named(arguments, word):
    done = run(*arguments, text=True)
    assert (done.returncode, done.stdout) == (WRONG_USAGE, "")
    assert word in done.stderr
