"""kxagentd as an operator meets it: its options, its configuration, its signals."""

import os
import re
import signal
import subprocess

import pytest
from support.host import ENTRY, buildFolder
from support.wait import waitUntil

KXAGENTD = buildFolder() / "agent/kxagentd"
DEADLINE_S = 10

ONE = '[[environment]]\nname = "first"\nveid = 101\n'
OTHER = '[[environment]]\nname = "second"\nveid = 202\n'


def run(*arguments):
    return subprocess.run([KXAGENTD, *arguments], capture_output=True, text=True, timeout=DEADLINE_S, check=False)


def names(host):
    return [varbind.value for varbind in host.client.walk(ENTRY + (3,))]


def waitForLine(host, pattern):
    def found():
        return [line for line in host.agent.lines() if re.search(pattern, line)]

    return waitUntil(found, DEADLINE_S, f"the agent logs {pattern}")


@pytest.fixture
def config(tmp_path):
    def write(text):
        path = tmp_path / "kxagentd.toml"
        path.write_text(text)
        return path

    return write


def test_it_tells_its_version():
    done = run("--version")
    assert done.returncode == 0
    assert re.fullmatch(r"kxagentd \d+\.\d+\.\d+\n", done.stdout)


def test_an_unknown_option_is_refused():
    done = run("--frobnicate")
    assert done.returncode == 2
    assert "--frobnicate" in done.stderr + done.stdout


def test_a_good_configuration_is_found_good(config, tmp_path):
    inventory = tmp_path / "inventory.toml"
    inventory.write_text(ONE)
    done = run("--check-config", "--config", config(f'backend = "simulated"\n[simulated]\ninventory = "{inventory}"\n'))
    assert (done.returncode, done.stderr) == (0, "")


@pytest.mark.parametrize(
    ("text", "place", "word"),
    [
        ('backend = "simulated"\nsockt = "/x"\n', "2:1", "sockt"),
        ("socket = 5\n", "1:10", "socket"),
        ('backend = "cloud"\n', "1:11", "backend"),
        ("[lxc]\npath = 'relative'\n", "2:8", "path"),
        ("[monitoring]\nperiod_scale = 0\n", "2:16", "period_scale"),
        ('socket = "/unfinished\n', "1:", ""),
    ],
)
def test_a_wrong_configuration_is_reported_with_line_and_column(config, text, place, word):
    path = config(text)
    for arguments in (["--check-config", "--config", path], ["--config", path]):
        done = run(*arguments)
        assert done.returncode == 1
        assert f"{path}:{place}" in done.stderr and word in done.stderr
        assert len(done.stderr.splitlines()) == 1


def test_a_configuration_file_that_was_named_must_be_there(tmp_path):
    done = run("--check-config", "--config", tmp_path / "missing.toml")
    assert done.returncode == 1
    assert "missing.toml" in done.stderr


def test_checking_looks_into_the_inventory_too(config, tmp_path):
    inventory = tmp_path / "inventory.toml"
    inventory.write_text('[[environment]]\nname = "first"\nveid = "many"\n')
    path = config(f'backend = "simulated"\n[simulated]\ninventory = "{inventory}"\n')
    done = run("--check-config", "--config", path)
    assert done.returncode == 1
    assert f"{inventory}:3:8" in done.stderr


def test_an_orderly_stop_ends_with_status_0_and_removes_the_socket(host):
    for number in (signal.SIGTERM, signal.SIGINT):
        host.agent.writeInventory(ONE)
        host.agent.start()
        assert os.path.exists(host.agent.SOCKET)
        assert host.agent.stop(number) == 0
        assert not os.path.exists(host.agent.SOCKET)


def test_the_socket_is_open_to_root_and_group_only_in_a_folder_open_to_all(host):
    host.agent.writeInventory(ONE)
    host.agent.start()
    assert os.stat(host.agent.SOCKET).st_mode & 0o777 == 0o660
    assert os.stat(os.path.dirname(host.agent.SOCKET)).st_mode & 0o777 == 0o755


def test_a_hangup_takes_up_the_changed_configuration(host, tmp_path):
    host.startAll(ONE)
    elsewhere = tmp_path / "elsewhere.toml"
    elsewhere.write_text(OTHER)
    host.agent.inventory = elsewhere
    host.agent.writeConfig('backend = "simulated"')
    host.agent.sendSignal(signal.SIGHUP)
    waitUntil(lambda: names(host) == [b"second"], DEADLINE_S, "the other inventory is shown")


def test_a_hangup_with_a_wrong_configuration_keeps_the_old_one(host):
    host.startAll(ONE)
    host.agent.writeConfig('backend = "cloud"')
    host.agent.sendSignal(signal.SIGHUP)
    waitForLine(host, r"kxagentd\.toml:3:11")
    assert names(host) == [b"first"]
    host.agent.writeInventory(OTHER)
    waitUntil(lambda: names(host) == [b"second"], DEADLINE_S, "the old inventory is still watched")
    assert host.agent.stop() == 0


def test_it_may_open_as_many_files_as_the_system_lets_it(host):
    host.agent.writeInventory(ONE)
    host.agent.start(launcher=["prlimit", "--nofile=100:900"])
    with open(f"/proc/{host.agent.pid}/limits", encoding="ascii") as limits:
        soft, hard = re.search(r"Max open files\s+(\d+)\s+(\d+)", limits.read()).groups()
    assert (soft, hard) == ("900", "900")
