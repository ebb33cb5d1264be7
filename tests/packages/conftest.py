"""Tests of the Debian packages, in namespaces of their own. Needs root, build/packages and build/debian-root.tar."""

import os
import sys
from contextlib import contextmanager
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from support import debianroot, privatehost  # noqa: E402


def pytest_configure(config):
    if os.geteuid() != 0:
        pytest.exit("the tests of the packages need root: they make namespaces of their own", returncode=1)
    privatehost.enter(privatehost.BUILT_IN_FOLDERS, ownNetwork=True)


# What runs now; a test whose fixtures failed has none that could be asked.
_running = []


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport():
    """Adds the journal to the report of a failed test."""
    report = (yield).get_result()
    if report.failed:
        report.sections.extend(("journal", made.logs()) for made in _running)


@contextmanager
def _installed():
    obstacle = debianroot.obstacle()
    assert not obstacle, obstacle
    made = debianroot.DebianRoot()
    _running.append(made)
    try:
        made.install(debianroot.builtPackages())
        yield made
    finally:
        _running.remove(made)
        made.close()


@pytest.fixture(scope="module")
def debian():
    """A Debian with our packages, for all tests of a module."""
    with _installed() as made:
        yield made


@pytest.fixture
def freshDebian():
    """A Debian with our packages, for one test that takes them away or replaces them."""
    with _installed() as made:
        yield made
