"""What tools of Debian, systemd and groff say of the packages, the units and the manual pages."""

import os
import re
import subprocess

import pytest
from support.debianroot import PACKAGES, PROJECT, builtPackages


def output(*command, **options):
    """What a command prints, errors included; it has to end well."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    assert done.returncode == 0, done.stdout
    return done.stdout


def cmakeVersion():
    return re.search(r"project\(kxsnmp VERSION ([0-9.]+)", (PROJECT / "CMakeLists.txt").read_text()).group(1)


def test_there_are_three_packages():
    assert [package.name.split("_")[0] for package in builtPackages()] == ["kxagent", "kxsnmp", "libkxclient0"]


def test_the_packages_have_the_version_of_the_sources():
    version = output("dpkg-parsechangelog", "-l", PROJECT / "debian/changelog", "-S", "Version").strip()
    assert re.fullmatch(re.escape(cmakeVersion()) + r"-\d+", version)
    assert {package.name.split("_")[1] for package in builtPackages()} == {version}


def test_lintian_has_neither_errors_nor_warnings(tmp_path):
    (changes,) = PACKAGES.glob("*.changes")
    # It leaves files behind. Its standard error says that it is run by root, and more when it fails.
    environment = {**os.environ, "TMPDIR": str(tmp_path)}
    done = subprocess.run(["lintian", changes], env=environment, capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout) == (0, ""), done.stderr


@pytest.mark.parametrize("unit, limit", [("kxsnmp", 1.5), ("kxagentd", 3.5)])
def test_a_unit_leaves_little_exposed(unit, limit):
    file = PROJECT / f"packaging/systemd/{unit}.service"
    judged = output("systemd-analyze", "security", "--offline=true", "--no-pager", file)
    assert float(re.search(rf"exposure level for {unit}.service: ([0-9.]+)", judged).group(1)) <= limit


@pytest.mark.parametrize("page", sorted((PROJECT / "man").glob("*.[1-9]")), ids=lambda page: page.name)
def test_a_manual_page_is_without_warnings(page):
    complaints = subprocess.run(
        ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
        env={"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "MANROFFSEQ": "", "MANWIDTH": "80"},
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        text=True,
        check=False,
    )
    assert (complaints.returncode, complaints.stderr) == (0, "")


def test_the_manual_pages_name_the_version():
    for page in (PROJECT / "man").glob("kx*.[158]"):
        assert f"kxsnmp {cmakeVersion()}" in page.read_text().splitlines()[0], page.name


def test_what_builds_the_packages_is_installed_before_they_are_built():
    """build-essential is what every Debian package may count on, and a bare machine lacks."""
    control = (PROJECT / "debian/control").read_text()
    (needed,) = re.findall(r"^Build-Depends:(.*?)^\S", re.sub(r"\(.*?\)", "", control), re.MULTILINE | re.DOTALL)
    listed = (PROJECT / "packaging/debian-packages.txt").read_text().partition("# --- testing")[0]
    installed = set(re.findall(r"^[\w.+-]+", listed, re.MULTILINE))
    wanted = set(re.findall(r"[\w.+-]+", needed)) - {"debhelper-compat"}
    assert wanted | {"debhelper", "build-essential"} <= installed
