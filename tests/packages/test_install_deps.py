"""scripts/install-deps on a Debian that lacks the packages: they are installed, and none of their services is started, now
or at the next boot. And scripts/test, before it would install anything."""

import shutil
import subprocess

import pytest
from support.debianroot import DEPENDENCIES, DebianRoot
from support.host import PROJECT

PACKAGES = ("snmpd", "lxc", "snmptrapd")
ARCHIVE = "/srv/archive"
CHECKOUT = "/srv/checkout"
WRONG_USAGE = 2


def offerPackages(debian, folder):
    """Lets apt find the packages without a network."""
    for name in PACKAGES:
        shutil.copy(max(DEPENDENCIES.glob(f"{name}_*.deb")), folder)
    index = subprocess.run(["dpkg-scanpackages", "."], cwd=folder, stdout=subprocess.PIPE, check=True)
    (folder / "Packages").write_bytes(index.stdout)
    shutil.copytree(folder, debian.path(ARCHIVE))
    debian.path("/etc/apt/sources.list").write_text(f"deb [trusted=yes] file:{ARCHIVE} ./\n")


@pytest.fixture
def bare(tmp_path):
    made = DebianRoot()
    try:
        made.do("dpkg", "--purge", *PACKAGES)
        offerPackages(made, tmp_path)
        for folder in ("scripts", "packaging"):
            made.path(f"{CHECKOUT}/{folder}").mkdir(parents=True)
        shutil.copy(PROJECT / "scripts/install-deps", made.path(f"{CHECKOUT}/scripts"))
        made.path(f"{CHECKOUT}/packaging/debian-packages.txt").write_text("\n".join(PACKAGES) + "\n")
        yield made
    finally:
        made.close()


def startedAtBoot(debian):
    """The links that start a service of the packages at boot."""
    name = ["(", *(word for package in PACKAGES for word in ("-name", f"*{package}*", "-o")), "-false", ")"]
    links = debian.do("find", "/etc/systemd/system", "/etc/rc2.d", *name, "-type", "l", "-not", "-name", "K*")
    return links.split()


@pytest.mark.parametrize("systemctl", ["with", "without"])
def test_services_that_come_with_packages_are_neither_started_nor_enabled(bare, systemctl):
    assert startedAtBoot(bare) == []
    if systemctl == "without":
        bare.do("mv", "/usr/bin/systemctl", "/srv")
    said = bare.do(f"{CHECKOUT}/scripts/install-deps")
    assert said == f"Installing {len(PACKAGES)} Debian packages: {' '.join(PACKAGES)}\n"
    bare.do("dpkg", "--status", *PACKAGES)
    assert startedAtBoot(bare) == []
    bare.do("pidof", "snmpd", "dnsmasq", status=1)
    assert not bare.path("/usr/sbin/policy-rc.d").exists()
    assert bare.do(f"{CHECKOUT}/scripts/install-deps") == "", "all is there"


def test_a_part_that_does_not_exist_is_rejected_before_anything_is_installed(tmp_path):
    """In a copy that has nothing else: whatever else were called would fail in another way."""
    for name in ("test", "run-tests"):
        shutil.copy(PROJECT / "scripts" / name, tmp_path)
    done = subprocess.run([tmp_path / "test", "unit", "bogus"], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout) == (WRONG_USAGE, "")
    assert done.stderr.startswith('test: there is no part "bogus"; parts are: unit unit-asan ')
