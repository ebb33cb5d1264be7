"""What is published of a real container under the restrictions of the units is what the kernel says of it."""

import json
import os
import re

import pytest
from support.parts import SUBTREE
from support.wait import waitUntil

NAME = "103"
ADDRESS = "10.0.3.79"
ADDED = "10.0.3.98"
INET6 = "2001:db8::103"
ROOT = f"/var/lib/lxc/{NAME}/rootfs"
CONFIG = "/etc/kxagent/kxagentd.toml"
ADDRESSES, QUOTA, NETWORK = 5, 7, 8
SPACE_USED, INODES_USED = 1, 5
# Columns of the network table, and of /proc/net/dev.
COLUMNS = {2: 0, 3: 1, 4: 8, 5: 9}
PUBLISHED_WITHIN_S = 30


@pytest.fixture(scope="module")
def init(debian):
    """The init process of a running container whose root is a file system by itself."""
    debian.do("mkdir", "-p", ROOT)
    debian.do("mount", "-t", "tmpfs", "tmpfs", ROOT)
    debian.createContainer(NAME, ADDRESS)
    # Reports come often.
    debian.do("sed", "-i", "s/^#period_scale.*/period_scale = 0.02/", CONFIG)
    debian.do("systemctl", "restart", "kxagentd")
    debian.do("lxc-start", "-n", NAME)
    debian.do("lxc-attach", "-n", NAME, "--", "/bin/ip", "addr", "add", f"{ADDED}/24", "dev", "eth0")
    debian.do("lxc-attach", "-n", NAME, "--", "/bin/ip", "addr", "add", f"{INET6}/64", "dev", "eth0")
    yield debian.do("lxc-info", "-pH", "-n", NAME).strip()
    debian.do("lxc-stop", "-k", "-n", NAME)
    debian.do("umount", ROOT)


def ip(debian, init, *arguments):
    return debian.do("nsenter", "--net", "--target", init, "ip", *arguments)


def waitForSame(shown, kernels, what):
    """Waits until what is published is what the kernel says at the same time."""
    seen = {}

    def same():
        seen.update(shown=shown(), kernel=kernels())
        return seen["kernel"] and seen["shown"] == seen["kernel"]

    try:
        waitUntil(same, PUBLISHED_WITHIN_S, what)
    except AssertionError as error:
        raise AssertionError(f"{error}: {seen}") from None


def columns(debian, table, column):
    """OID behind the column -> value as a number."""
    prefix = f"{SUBTREE}.{table}.1.{column}."
    found = debian.walk(prefix[:-1])
    return {oid.removeprefix(prefix): value.rpartition(": ")[2] for oid, value in found.items()}


def test_network_counters_are_the_kernels(debian, init):
    index = int(ip(debian, init, "-o", "link", "show", "eth0").split(":")[0])
    debian.do("lxc-attach", "-n", NAME, "--", "/bin/ping", "-q", "-c", "3", "-s", "1000", "10.0.3.1")

    def shown():
        return {column: columns(debian, NETWORK, column).get(f"{NAME}.{index}") for column in COLUMNS}

    def kernels():
        line = re.search(r"^ *eth0:(.*)$", debian.do("cat", f"/proc/{init}/net/dev"), re.MULTILINE).group(1).split()
        return {column: line[position] for column, position in COLUMNS.items()}

    waitForSame(shown, kernels, "network counters are the kernel's")
    assert int(shown()[2]) > 3000 and int(shown()[4]) > 3000


def test_addresses_are_the_kernels(debian, init):
    def shown():
        found = columns(debian, ADDRESSES, 1)
        return sorted(value for oid, value in found.items() if oid.startswith(f"{NAME}."))

    def kernels():
        printed = json.loads(ip(debian, init, "-json", "-4", "addr", "show", "dev", "eth0"))
        return sorted(address["local"] for link in printed for address in link["addr_info"])

    waitForSame(shown, kernels, "addresses are the kernel's")
    assert shown() == sorted([ADDRESS, ADDED])


def test_disk_usage_is_the_kernels(debian, init):
    def shown():
        found = [columns(debian, QUOTA, column).get(NAME) for column in (SPACE_USED, INODES_USED)]
        return [int(value) for value in found if value is not None]

    def kernels():
        status = os.statvfs(debian.path(ROOT))
        return [(status.f_blocks - status.f_bfree) * status.f_frsize, status.f_files - status.f_ffree]

    waitForSame(shown, kernels, "disk usage is the kernel's")
    assert shown()[0] > 500_000, "a busybox"


def test_nothing_is_complained_about(debian, init):
    lines = debian.do("journalctl", "--no-pager", "-o", "cat", "-p", "warning", "-u", "kxagentd").splitlines()
    assert lines in ([], ["-- No entries --"])
