"""What upgrading, removing and purging the packages keeps and takes."""

import shutil

from support import debianroot
from support.parts import SUBTREE

CONFIG = "/etc/kxagent/kxagentd.toml"
LIBRARY_CONFIG = "/etc/snmp/kxsnmp.conf"
SNMPD_CONFIG = "/etc/snmp/snmpd.conf.d/kxsnmp.conf"
STATE = "/var/lib/kxagent"
NAMES = f"{SUBTREE}.4.1.3"
EDIT = "\n# edited by the operator\n"
HIGHER = "0.1.0-1+higher1"
NEWS = "# said by the newer version only\n"


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


def running(debian):
    """The processes that our services are."""
    return {debian.daemonOf("kxsnmp"), debian.processOf("kxagentd")}


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
    before = running(freshDebian)

    freshDebian.install([debianroot.repack(package, HIGHER, tmp_path) for package in debianroot.builtPackages()])

    assert installedVersions(freshDebian) == {HIGHER}
    waitForNames(freshDebian, {1000001: "second"})
    assert not before & running(freshDebian), "what runs is the former version"
    assert all(freshDebian.path(path).read_text().endswith(EDIT) for path in (CONFIG, LIBRARY_CONFIG))


def withNews(content):
    """Changes every configuration file in a package, below its unpacked content."""
    listed = content / "DEBIAN/conffiles"
    for path in listed.read_text().split() if listed.exists() else []:
        file = content / path.lstrip("/")
        file.write_text(NEWS + file.read_text())


def test_an_upgrade_that_has_a_changed_configuration_keeps_the_edited_one(freshDebian, tmp_path):
    """The edited one stays where the operator, who is asked, just presses Enter; the others are replaced unasked."""
    edit(freshDebian, CONFIG)
    edit(freshDebian, SNMPD_CONFIG)
    edited = {path: freshDebian.path(path).read_text() for path in (CONFIG, SNMPD_CONFIG)}
    packages = [debianroot.repack(package, HIGHER, tmp_path, withNews) for package in debianroot.builtPackages()]
    for package in packages:
        shutil.copy(package, freshDebian.path("/root"))

    copies = [f"/root/{package.name}" for package in packages]
    asked = freshDebian.do("sh", "-c", 'yes "" | dpkg -i "$@"', "sh", *copies)

    assert installedVersions(freshDebian) == {HIGHER}
    assert {path: freshDebian.path(path).read_text() for path in edited} == edited
    for path in edited:
        assert f"Configuration file '{path}'" in asked
        offered = freshDebian.path(f"{path}.dpkg-dist").read_text()
        assert offered.startswith(NEWS) and not offered.endswith(EDIT)
    assert freshDebian.path(LIBRARY_CONFIG).read_text().startswith(NEWS)
    define(freshDebian, "first")
    waitForNames(freshDebian, {1000000: "first"})


def test_removing_keeps_and_purging_takes_configuration_and_numbers(freshDebian):
    define(freshDebian, "first")
    waitForNames(freshDebian, {1000000: "first"})
    edit(freshDebian, CONFIG)
    snmpd = freshDebian.processOf("snmpd")

    freshDebian.do("dpkg", "--remove", "kxsnmp", "kxagent", "libkxclient0")
    for path in (CONFIG, LIBRARY_CONFIG, f"{STATE}/veids.toml"):
        assert freshDebian.path(path).exists(), path
    for path in ("/usr/sbin/kxsnmp", "/usr/sbin/kxagentd", "/usr/bin/kxctl"):
        assert not freshDebian.path(path).exists(), path
    freshDebian.waitForWalk(NAMES, lambda found: not found, "no containers are shown")
    freshDebian.do("sh", "-c", "pidof kxsnmp kxagentd", status=1)

    freshDebian.do("dpkg", "--purge", "kxsnmp", "kxagent", "libkxclient0")
    left = freshDebian.do("find", "/etc", "/var", "/usr", "/run", "-xdev", "-name", "*kx*")
    assert left == ""
    left = [path for path in (STATE, "/var/opt/orma", "/var/lib/kxsnmp") if freshDebian.path(path).exists()]
    assert left == []
    assert freshDebian.path("/var/lib/lxc/first/config").exists(), "containers are the operator's"
    # Its own configuration is read again, and the users stay: numbers are not to be given to others.
    assert freshDebian.processOf("snmpd") != snmpd
    freshDebian.do("getent", "passwd", "kxsnmp")
    freshDebian.do("getent", "group", "kxagent")
