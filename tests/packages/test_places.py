"""kxagentd with its files in places where its unit does not let it write, and where an operator's drop-in does."""

import pytest
from support.wait import waitUntil

CONFIG = "/etc/kxagent/kxagentd.toml"
ELSEWHERE = "/srv/kxagent"
CONTAINER = "named"
WITHIN_S = 20

DROP_IN = "/etc/systemd/system/kxagentd.service.d/places.conf"
MAY_WRITE = f"[Service]\nReadWritePaths={ELSEWHERE}\n"


@pytest.fixture
def placed(freshDebian):
    """A Debian with a container that is given a number, which is written to the state directory."""
    freshDebian.do("systemctl", "stop", "kxagentd")
    freshDebian.do("mkdir", ELSEWHERE)
    folder = f"/var/lib/lxc/{CONTAINER}"
    freshDebian.do("mkdir", "-p", f"{folder}/rootfs")
    freshDebian.path(f"{folder}/config").write_text(f"lxc.rootfs.path = dir:{folder}/rootfs\n")
    return freshDebian


def configure(debian, setting, value):
    config = debian.path(CONFIG)
    lines = [f'{setting} = "{value}"' if setting in line else line for line in config.read_text().splitlines()]
    assert f'{setting} = "{value}"' in lines
    config.write_text("\n".join(lines) + "\n")


def letWrite(debian):
    debian.path(DROP_IN).parent.mkdir()
    debian.path(DROP_IN).write_text(MAY_WRITE)
    debian.do("systemctl", "daemon-reload")
    debian.do("systemctl", "reset-failed", "kxagentd")
    debian.do("systemctl", "restart", "kxagentd")


def said(debian):
    return debian.do("journalctl", "--no-pager", "-o", "cat", "-u", "kxagentd")


def waitForSaying(debian, words):
    waitUntil(lambda: words in said(debian), WITHIN_S, f"kxagentd says {words}")


def test_a_socket_where_nothing_may_be_written_is_told_and_a_drop_in_allows_it(placed):
    configure(placed, "socket", f"{ELSEWHERE}/agent.sock")
    placed.do("systemctl", "start", "kxagentd", status=1)
    waitForSaying(placed, f"cannot listen on {ELSEWHERE}/agent.sock: ")
    waitForSaying(placed, "Read-only file system")
    letWrite(placed)
    assert CONTAINER in placed.do("kxctl", "--socket", f"{ELSEWHERE}/agent.sock", "list")


def test_a_state_directory_where_nothing_may_be_written_is_told_and_a_drop_in_allows_it(placed):
    configure(placed, "state_directory", ELSEWHERE)
    placed.do("systemctl", "start", "kxagentd")
    waitForSaying(placed, f"cannot write {ELSEWHERE}/veids.toml: Read-only file system")
    letWrite(placed)
    waitUntil(lambda: CONTAINER in placed.do("kxctl", "list"), WITHIN_S, "the container is listed")
    assert CONTAINER in placed.path(f"{ELSEWHERE}/veids.toml").read_text()
