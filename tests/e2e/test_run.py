"""scripts/run without its building: what its user sees, and what is left when it is killed."""

import os
import re
import shlex
import signal
import subprocess

import pytest
from support import process
from support.host import PROJECT
from support.kxctl import DEADLINE_S
from support.tmux import Screen
from support.wait import waitUntil

COLUMNS, LINES = 80, 24
RUN_DEADLINE_S = 40
DEMO = PROJECT / "scripts/demo-host"


@pytest.fixture
def shown(tmp_path):
    """Its screen, once it shows containers."""
    screen = Screen(tmp_path, COLUMNS, LINES, [DEMO])
    try:
        waitUntil(lambda: "Ctrl-C ends this." in screen.lines(), RUN_DEADLINE_S, "it is running")
        yield screen
        screen.close()
        waitUntil(lambda: not processesOfRuns(), DEADLINE_S, "it has ended all that it started")
    finally:
        screen.close()


def processesOfRuns():
    pids = [int(name) for name in os.listdir("/proc") if name.isdigit()]
    return [pid for pid in pids if process.isAlive(pid) and any(map(isOfRun, environment(pid)))]


def environment(pid):
    try:
        with open(f"/proc/{pid}/environ", "rb") as found:
            return found.read().split(b"\0")
    except OSError:
        return []


def isOfRun(variable):
    return variable.startswith(b"KX_RUN=")


def test_its_screen_fits_the_terminal_and_says_whose_containers_these_are(shown):
    lines = shown.lines()
    assert lines[0] == "No LXC containers here: these are made up (scripts/demo-inventory.toml)."
    head = next(line for line in lines if line.startswith("VEID"))
    assert "NAME" in head and "STATE" in head
    assert any(re.match(r"101 +web-front ", line) for line in lines)
    assert any(re.fullmatch(r"\.\.\. \d+ more lines: scripts/show-tables --port \d+", line) for line in lines)


def test_the_line_that_it_prints_reaches_it_with_kxctl(shown):
    text = "".join(line.ljust(COLUMNS) for line in shown.lines())
    program, socket = re.search(r"(/\S+/kxctl) --socket (\S+) top", re.sub(r"\s+\Z", "", text)).groups()
    done = subprocess.run([program, "--socket", socket, "status"], capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stderr
    assert "Containers:  7: " in done.stdout


def test_killed_it_leaves_nothing(shown):
    pid = shown.pid()
    folder = re.search(r"--socket (/\S+?)/agent/", "".join(shown.lines())).group(1)
    assert len(processesOfRuns()) >= 3 and os.path.exists(folder)
    os.kill(pid, signal.SIGKILL)
    waitUntil(lambda: not processesOfRuns() and not os.path.exists(folder), DEADLINE_S, "nothing is left")


def test_elsewhere_than_on_a_terminal_it_shows_everything():
    done = subprocess.run([DEMO, "--once"], capture_output=True, text=True, timeout=RUN_DEADLINE_S, check=False)
    assert done.returncode == 0, done.stderr
    assert "made up" in done.stdout and "Network counters:" in done.stdout and "BASE SAMPLE" in done.stdout
    assert shlex.split(done.stdout.splitlines()[-1])[1] == "--socket"
