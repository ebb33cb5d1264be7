"""What upgrading, removing and purging the packages keeps and takes."""

from support import debianroot
from support.parts import SUBTREE

CONFIG = "/etc/kxagent/kxagentd.toml"
LIBRARY_CONFIG = "/etc/snmp/kxsnmp.conf"
STATE = "/var/lib/kxagent"
NAMES = f"{SUBTREE}.4.1.3"
EDIT = "\n# edited by the operator\n"
HIGHER = "0.1.0-1+higher1"


def define(debian, name):
    """A container that is defined and has never run."""
    folder = f"/var/lib/lxc/{name}"
    debian.do("mkdir", "-p", f"{folder}/rootfs")
    debian.path(f"{folder}/config").write_text(f"lxc.rootfs.path = dir:{folder}/rootfs\nlxc.uts.name = {name}\n")


def waitForNames(debian, expected):
    """Waits until the containers are `expected`: a map of numbers to names."""
    wanted = {f"{NAMES}.{number}": f'STRING: "{name}"' for number, name in expected.items()}
    debian.waitForWalk(NAMES, lambda found: found == wanted, f"the containers are {expected}")


def edit(debian, path):
    with debian.path(path).open("a") as file:
        file.write(EDIT)


def installedVersions(debian):
    printed = debian.do("dpkg-query", "-W", "-f", "${Version}\n", "kxsnmp", "kxagent", "libkxclient0")
    return set(printed.split())


def test_an_upgrade_keeps_numbers_and_edited_configurations(freshDebian, tmp_path):
    for name in ("first", "second"):
        define(freshDebian, name)
        waitForNames(freshDebian, {1000000: "first"} if name == "first" else {1000000: "first", 1000001: "second"})
    # The numbers would be given anew, from the lowest, if they were forgotten.
    freshDebian.do("rm", "-r", "/var/lib/lxc/first")
    waitForNames(freshDebian, {1000001: "second"})
    edit(freshDebian, CONFIG)
    edit(freshDebian, LIBRARY_CONFIG)
    before = freshDebian.processesOf("kxsnmp") + freshDebian.processesOf("kxagentd")

    freshDebian.install([debianroot.repack(package, HIGHER, tmp_path) for package in debianroot.builtPackages()])

    assert installedVersions(freshDebian) == {HIGHER}
    waitForNames(freshDebian, {1000001: "second"})
    after = freshDebian.processesOf("kxsnmp") + freshDebian.processesOf("kxagentd")
    assert not set(before) & set(after), "what runs is the former version"
    assert all(freshDebian.path(path).read_text().endswith(EDIT) for path in (CONFIG, LIBRARY_CONFIG))


def test_removing_keeps_and_purging_takes_configuration_and_numbers(freshDebian):
    define(freshDebian, "first")
    waitForNames(freshDebian, {1000000: "first"})
    edit(freshDebian, CONFIG)
    snmpd = freshDebian.processesOf("snmpd")

    freshDebian.do("dpkg", "--remove", "kxsnmp", "kxagent", "libkxclient0")
    for path in (CONFIG, LIBRARY_CONFIG, f"{STATE}/veids.toml"):
        assert freshDebian.path(path).exists(), path
    for path in ("/usr/sbin/kxsnmp", "/usr/sbin/kxagentd", "/usr/bin/kxctl"):
        assert not freshDebian.path(path).exists(), path
    assert not freshDebian.walk(NAMES)
    freshDebian.do("sh", "-c", "pidof kxsnmp kxagentd", status=1)

    freshDebian.do("dpkg", "--purge", "kxsnmp", "kxagent", "libkxclient0")
    left = freshDebian.do("find", "/etc", "/var", "/usr", "/run", "-xdev", "-name", "*kx*")
    assert left == ""
    left = [path for path in (STATE, "/var/opt/orma", "/var/lib/kxsnmp") if freshDebian.path(path).exists()]
    assert left == []
    assert freshDebian.path("/var/lib/lxc/first/config").exists(), "containers are the operator's"
    # Its own configuration is read again, and the users stay: numbers are not to be given to others.
    assert freshDebian.processesOf("snmpd") != snmpd
    freshDebian.do("getent", "passwd", "kxsnmp")
    freshDebian.do("getent", "group", "kxagent")
