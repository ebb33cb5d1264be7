"""What comes with kxctl: completion in bash, and the manual page."""

import re
import subprocess

import pytest
from support.host import PROJECT
from support.kxctl import PROGRAM, run

COMPLETION = PROJECT / "ctl/kxctl.bash-completion"
MANUAL = PROJECT / "man/kxctl.1"

INVENTORY = "".join(f'[[environment]]\nname = "$(touch /pwned) {veid}"\nveid = {veid}\n' for veid in (101, 102, 2001))
INVENTORY += '[[environment]]\nname = "web-1.front"\nveid = 2002\n[[environment]]\nname = "--json"\nveid = 2003\n'

# What bash does when Tab is pressed behind these words.
_ASK = """
source "$1"; shift
kxctl() { "$KXCTL" "$@"; }
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
_kxctl
printf '%s\\n' "${COMPREPLY[@]}"
"""

COMMANDS = ["status", "list", "show", "events", "counters", "top", "doctor", "alert"]
ANYWHERE = {"--socket", "--no-color", "--version", "--help"}


def proposed(*words):
    done = subprocess.run(
        ["bash", "--norc", "-c", _ASK, "bash", COMPLETION, "kxctl", *words],
        env={"PATH": "/usr/bin:/bin", "KXCTL": str(PROGRAM)},
        capture_output=True,
        text=True,
        timeout=20,
        check=True,
    )
    assert done.stderr == ""
    return done.stdout.split()


@pytest.mark.parametrize(
    "words, expected",
    [
        (("",), COMMANDS),
        (("s",), ["status", "show"]),
        (("--no",), ["--no-color"]),
        (("list", "--st"), ["--state"]),
        (("list", "--state", "f"), ["frozen"]),
        (("list", "-s", "f"), ["frozen"]),
        (("top", "--sort", "=", "p"), ["packets-in", "packets-out"]),
        (("top", "--sort", "="), ["id", "name", "state", "in", "out", "packets-in", "packets-out", "used", "quota"]),
        (("alert", ""), ["raise"]),
        (("counters", "--class", ""), ["counters_kx_quota", "counters_kx_net"]),
        (("list", "--sort", "n"), ["name"]),
        (("status", ""), []),
        (("alert", "raise", "--text-file", ""), []),
        (("frobnicate", ""), COMMANDS),
    ],
)
def test_commands_options_and_words_are_proposed(words, expected):
    assert proposed(*words) == expected


def test_every_command_proposes_the_options_that_its_help_has():
    for name in COMMANDS:
        words = ["alert", "raise"] if name == "alert" else [name]
        helped = set(re.findall(r"(?<![\w-])--[a-z-]+", run(*words, "--help", text=True).stdout.split("Options:")[1]))
        shown = set(proposed(*words, "--"))
        assert shown - ANYWHERE <= helped and ANYWHERE <= shown
        assert "--json" in helped


def test_numbers_of_containers_are_proposed_and_names_that_need_no_quotes(describedHost):
    for words in (["show"], ["list"], ["counters"], ["alert", "raise", "--ve"]):
        assert proposed(*words, "") == ["101", "102", "2001", "2002", "2003", "web-1.front"]
        assert proposed(*words, "10") == ["101", "102"]
        assert proposed(*words, "w") == ["web-1.front"]


def test_without_an_agent_no_numbers_are_proposed():
    assert proposed("--socket", "/nowhere/agent.sock", "show", "") == []


# ---- the manual page ----------------------------------------------------------------------------------------------


def test_the_manual_page_has_every_command_and_option():
    source = MANUAL.read_text(encoding="utf-8").replace("\\-", "-")
    for name in COMMANDS:
        words = ["alert", "raise"] if name == "alert" else [name]
        section = re.search(rf"^\.SS {' '.join(words)}$(.*?)^\.S[SH] ", source, re.MULTILINE | re.DOTALL).group(1)
        for option in set(proposed(*words, "--")) - ANYWHERE:
            assert option in section, (name, option)
    for word in ANYWHERE | {"NO_COLOR", "MIBDIRS", "TERM"}:
        assert word in source
