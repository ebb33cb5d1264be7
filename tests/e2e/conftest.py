"""End-to-end tests: the real programs, the real master agent, in namespaces of their own. Needs root."""

import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from support import host as host_module  # noqa: E402
from support import lxclab, privatehost, traps  # noqa: E402


def pytest_configure(config):
    if os.geteuid() != 0:
        pytest.exit("the end-to-end tests need root: they make namespaces of their own", returncode=1)
    privatehost.enter(privatehost.BUILT_IN_FOLDERS, ownNetwork=True)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """Adds what the programs logged to the report of a failed test."""
    report = (yield).get_result()
    if report.failed:
        for fixture in item.funcargs.values():
            if isinstance(fixture, host_module.Host) and fixture.folder.exists():
                report.sections.extend(fixture.logs())


@pytest.fixture
def host():
    """A host with nothing running. Ends whatever the test started; a sanitizer's report fails the test."""
    made = host_module.Host()
    yield made
    made.closeAndJudge()


@pytest.fixture(scope="module")
def describedHost(request):
    """A running host for all tests of a module, described by the module's INVENTORY."""
    made = host_module.Host()
    try:
        made.startAll(request.module.INVENTORY)
        yield made
    finally:
        made.closeAndJudge()


@pytest.fixture(scope="module")
def lab():
    """Where a module's real containers are, which end with it."""
    obstacle = lxclab.obstacle()
    if obstacle:
        pytest.skip(f"no LXC lab can be made here: {obstacle}")
    made = lxclab.LxcLab()
    yield made
    made.close()


@pytest.fixture
def sink():
    """What a host's traps are sent to that has traps.SINK_PORT among its sinks."""
    made = traps.TrapSink(traps.SINK_PORT)
    yield made
    made.close()


@pytest.fixture
def client(describedHost):
    """Asks the module's described host."""
    return describedHost.client
