"""kxctl top on a pseudo terminal, and elsewhere."""

import json
import re
import signal
import subprocess
from pathlib import Path

import pytest
from support.kxctl import DEADLINE_S, DONE, REFUSED, Terminal, command, run, surroundings
from support.tmux import Screen
from support.wait import waitUntil

ENTER, LEAVE = b"\x1b[?1049h", b"\x1b[?25h\x1b[?1049l"
HOME, DRAWN = b"\x1b[H", b"\x1b[?2026l"

INVENTORY = """
[host]
product_version = "7.0.1-42"
[[environment]]
name = "busy"
veid = 101
state = 2
[environment.counters.counters_kx_quota.""]
diskspace_used = 95
diskspace_hardlimit = 100
[environment.counters.counters_kx_net."2"]
bytes_in = { value = 1000, per_second = 50000 }
bytes_out = { value = 5000000000, per_second = 100 }
packets_in = { value = 1000, per_second = 500 }
[environment.counters.counters_kx_net."3"]
bytes_in = { value = 7, per_second = 10000 }
[[environment]]
name = "idle \\u001b[31m größe"
veid = 102
state = 3
[environment.counters.counters_kx_net."2"]
bytes_out = { value = 0, per_second = 300 }
[[environment]]
name = "off"
veid = 103
state = 1
"""

ALL_ALERTS = "[alerts]\nrepeat_seconds = 0\nper_second = 100000\nburst = 100000\n"


@pytest.fixture
def agentHost(host):
    host.agent.writeConfig('backend = "simulated"', ALL_ALERTS)
    host.agent.writeInventory(INVENTORY)
    host.agent.start()
    return host


@pytest.fixture
def top(agentHost):
    """Starts kxctl top on terminals, and ends what is still running in the end."""
    started = []

    def start(*arguments, interval="0.2"):
        terminal = Terminal(100, 24, "top", "--interval", interval, *arguments, NO_COLOR="1")
        started.append(terminal)
        waitUntil(lambda: "busy" in "".join(screen(terminal)), DEADLINE_S, "the first sample is drawn")
        return terminal

    yield start
    for terminal in started:
        terminal.close()


def screen(terminal):
    """The lines of the last picture that was drawn whole."""
    pictures = terminal.read().split(HOME)
    whole = [picture.split(DRAWN)[0] for picture in pictures[1:] if DRAWN in picture]
    return re.sub(rb"\x1b\[[JK]", b"", whole[-1]).decode().replace("\r", "").split("\n") if whole else []


def waitForScreen(terminal, condition, what):
    waitUntil(lambda: condition(screen(terminal)), DEADLINE_S, what)
    return screen(terminal)


def numbersShown(lines):
    return [int(found.group(1)) for line in lines if (found := re.match(r" *(\d+)  ", line))]


def isStopped(pid):
    return Path(f"/proc/{pid}/stat").read_text().rsplit(") ", 1)[1].startswith("T")


def waitForAlert(terminal, text, shown):
    """Raises it until it is seen: the subscription stands some time after the screen does."""

    def isSeen():
        run("alert", "raise", "--ve", "101", "--code", "2", "--text", text, "--value", "7")
        return re.search(rf"^\d\d:\d\d:\d\d  {shown}$", "\n".join(screen(terminal)), re.MULTILINE)

    waitUntil(isSeen, DEADLINE_S, "the alert is shown")


def assertRestored(terminal):
    assert terminal.isRestored()
    assert terminal.read().endswith(LEAVE) and terminal.read().count(ENTER) == terminal.read().count(LEAVE)


# ---- in place -----------------------------------------------------------------------------------------------------


def test_samples_are_drawn_in_place_with_rates_and_a_bar(top):
    terminal = top()
    lines = waitForScreen(terminal, lambda lines: re.search(r" 5\dK ", "".join(lines)), "rates are known")
    assert len(lines) <= 24 and max(map(len, lines)) <= 100
    assert re.search(r"3 containers: 1 frozen, 1 running, 1 stopped$", lines[0])
    assert re.search(r"^ *101  busy +running +5\dK +\d\d+ +\d{3} +0 +95  \[#########\.\]  95%$", lines[3])
    assert "idle \\x1b[31m größe" in lines[4]
    assert terminal.read().startswith(ENTER) and terminal.read().count(HOME) > 2
    terminal.type(b"q")
    assert terminal.wait() == DONE
    assertRestored(terminal)


def test_keys_choose_the_column_and_turn_the_order_round(top):
    terminal = top("--sort", "id")
    assert numbersShown(screen(terminal)) == [101, 102, 103]
    terminal.type(b"r")
    waitForScreen(terminal, lambda lines: numbersShown(lines) == [103, 102, 101], "the order is turned round")
    terminal.type(b"r\x1b[C")
    waitForScreen(terminal, lambda lines: "by name " in lines[1], "the next column is chosen")
    terminal.type(b"\x1b[D\x1b[D")
    lines = waitForScreen(terminal, lambda lines: "by quota " in lines[1], "columns go round")
    assert numbersShown(lines) == [101, 102, 103]
    terminal.resize(100, 5)
    waitForScreen(terminal, lambda lines: numbersShown(lines) == [101, 102], "the terminal is smaller")
    terminal.type(b"\x1b[B")
    waitForScreen(terminal, lambda lines: lines[1].startswith("2-3 of 3"), "it is scrolled")


def test_a_search_is_typed_and_escape_ends_it(top):
    terminal = top()
    terminal.type(b"/BUS")
    waitForScreen(terminal, lambda lines: lines[1] == "Search: BUS_" and numbersShown(lines) == [101], "it is found")
    terminal.type(b"\x1b")
    waitForScreen(terminal, lambda lines: len(numbersShown(lines)) == 3, "all are shown again")
    terminal.type(b"?")
    waitForScreen(terminal, lambda lines: "Home, End" in "".join(lines), "the keys are shown")


@pytest.mark.parametrize("columns", [100, 80, 64, 50])
def test_a_real_terminal_shows_every_column_of_full_lines(agentHost, tmp_path, columns):
    """What was written to a line's last column is there, on each line."""
    name = "a-long-name-" + "x" * 60 + "END"
    agentHost.agent.writeInventory(INVENTORY.replace('"busy"', f'"{name}"').replace("95", "100"))
    waitUntil(lambda: run("show", name).returncode == DONE, DEADLINE_S, "the agent has read it")
    terminal = Screen(tmp_path, columns, 24, command("top", "--interval", "0.2", "--sort", "quota", "--no-color"))

    def isWhole(line):
        return len(line) == columns and "a-long-" in line and "…" in line and line.endswith("100%")

    try:
        waitUntil(lambda: any(map(isWhole, terminal.lines())), DEADLINE_S, "the row is whole")
    finally:
        terminal.close()


def test_it_follows_the_size_of_the_terminal_at_once(top):
    terminal = top(interval="3600")
    terminal.resize(40, 10)
    lines = waitForScreen(terminal, lambda lines: lines[0].endswith("…"), "it is drawn anew")
    assert len(lines) <= 10 and max(map(len, lines)) == 40
    terminal.resize(120, 30)
    waitForScreen(terminal, lambda lines: lines[0].endswith("stopped") and len(lines) > 20, "it is drawn anew")


def test_alerts_come_up_at_the_bottom_at_once(top):
    terminal = top(interval="3600")
    assert "No alerts so far" in screen(terminal)
    waitForAlert(terminal, "nearly\x1b full", r"critical  101 busy  nearly\\x1b full \(7\)")
    assert "Latest alerts" in screen(terminal)


def test_an_agent_that_goes_away_is_waited_for(top, agentHost):
    terminal = top()
    agentHost.agent.stop()
    lines = waitForScreen(terminal, lambda lines: "is kxagentd running?" in lines[1], "the loss is told")
    assert numbersShown(lines)
    agentHost.agent.writeInventory(INVENTORY.replace("veid = 103", "veid = 113"))
    agentHost.agent.start()
    waitForScreen(terminal, lambda lines: 113 in numbersShown(lines) and "by in" in lines[1], "it is back")
    waitForAlert(terminal, "again", r"critical  101 busy  again \(7\)")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT])
def test_signals_end_it_and_restore_the_terminal(top, number):
    terminal = top()
    assert not terminal.isRestored()
    terminal.popen.send_signal(number)
    assert terminal.wait() == DONE
    assertRestored(terminal)


def test_control_c_and_a_crash_restore_the_terminal(top):
    terminal = top()
    terminal.type(b"\x03")
    assert terminal.wait() == DONE
    assertRestored(terminal)
    terminal = top()
    terminal.popen.send_signal(signal.SIGABRT)
    assert terminal.wait() == -signal.SIGABRT
    assertRestored(terminal)


def test_it_can_be_stopped_and_goes_on(top):
    terminal = top()
    terminal.type(b"\x1a")
    waitUntil(terminal.isRestored, DEADLINE_S, "the terminal is given back")
    waitUntil(lambda: isStopped(terminal.popen.pid), DEADLINE_S, "it stands still")
    assertRestored(terminal)
    pictures = terminal.read().count(HOME)
    terminal.popen.send_signal(signal.SIGCONT)
    waitUntil(lambda: terminal.read().count(HOME) > pictures, DEADLINE_S, "it draws again")
    assert not terminal.isRestored()
    terminal.type(b"q")
    assert terminal.wait() == DONE
    assertRestored(terminal)


# ---- elsewhere ----------------------------------------------------------------------------------------------------


def test_once_shows_one_sample_with_rates_and_no_escapes(agentHost):
    done = run("top", "--once", "--interval", "0.3", text=True)
    assert (done.returncode, done.stderr) == (DONE, "")
    assert "\x1b" not in done.stdout and done.stdout.count("VEID") == 1
    assert re.search(r"^ *101  busy +running +5\dK ", done.stdout, re.MULTILINE)


def test_samples_for_programs_have_exact_numbers(agentHost):
    done = run("top", "--json", "--count", "3", "--interval", "0.3", "--sort", "out", text=True)
    assert (done.returncode, done.stderr) == (DONE, "")
    samples = [json.loads(line) for line in done.stdout.splitlines()]
    assert len(samples) == 3
    for sample in samples:
        assert sample["sorted_by"] == "out"
        assert [one["veid"] for one in sample["containers"]] == [102, 101, 103]
        idle, busy, off = sample["containers"]
        assert abs(busy["per_second"]["bytes_in"] - 60000) < 600
        assert abs(idle["per_second"]["bytes_out"] - 300) <= 4
        assert busy["diskspace"] == {"used": 95, "softlimit": 0, "hardlimit": 100, "grace": 0, "percent": 95}
        assert "per_second" not in off and "diskspace" not in off


def test_without_a_terminal_it_goes_on_below_and_ends_when_its_reader_does(agentHost, tmp_path):
    line = subprocess.list2cmdline(map(str, command("top", "--interval", "0.1")))
    piped = subprocess.run(
        ["bash", "-c", f"set -o pipefail; {line} | head -n 12"],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=DEADLINE_S,
        check=False,
        env=surroundings(TERM="xterm"),
    )
    assert (piped.returncode, piped.stderr) == (DONE, "")
    assert piped.stdout.count("VEID") == 2 and "\x1b" not in piped.stdout


def test_a_full_disk_is_an_error(agentHost):
    with open("/dev/full", "wb") as full:
        done = subprocess.run(
            command("top", "--once", "--interval", "0.1"),
            stdout=full,
            stderr=subprocess.PIPE,
            timeout=DEADLINE_S,
            check=False,
            env=surroundings(),
        )
    assert done.returncode == REFUSED and b"No space left" in done.stderr
