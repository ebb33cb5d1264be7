"""The two scalars: who the server is, and what version of the product it runs."""

import pytest
from support import snmp
from support.host import PRODUCT_VERSION, ROOT, SERVER_EID
from support.snmp import OCTET_STRING, Varbind
from support.wait import waitUntil

NO_SERVER = b"00000000-0000-0000-0000-000000000000"
RECONNECT_DEADLINE_S = 10  # the client library waits up to 5 s between attempts
CHANGED_WITHIN_S = 5.0  # how soon is for the tests of a host's life; the machine may be busy


def described(version):
    """An inventory; None: without a version."""
    return "[host]\n" if version is None else f'[host]\nproduct_version = "{version}"\n'


def scalars(host):
    """Both, asked for in one request."""
    server, version = host.client.get([SERVER_EID, PRODUCT_VERSION])
    assert (server.oid, server.tag) == (SERVER_EID, OCTET_STRING)
    assert (version.oid, version.tag) == (PRODUCT_VERSION, OCTET_STRING)
    return server.value, version.value


def test_both_are_answered_in_one_request_in_either_order(host):
    host.startAll(described("7.0.1-42"))
    server, version = scalars(host)
    assert len(server) == 36 and server != NO_SERVER
    assert version == b"7.0.1-42"
    assert [varbind.value for varbind in host.client.get([PRODUCT_VERSION, SERVER_EID] * 3)] == [version, server] * 3


@pytest.mark.parametrize("version", [" 7.0 \\n", "", "größe", "a\\u0000b", "v" * 2000], ids=ascii)
def test_the_version_is_shown_as_the_vocabulary_has_it(host, version):
    host.startAll(described(version))
    assert scalars(host)[1] == version.encode().decode("unicode_escape" if "\\" in version else "utf-8").encode()


def test_a_vocabulary_without_a_version_gives_an_empty_text(host):
    host.startAll(described(None))
    server, version = scalars(host)
    assert version == b""
    assert server != NO_SERVER


def test_without_the_agent_there_is_no_server_and_no_version(host):
    host.snmpd.start()
    host.kxsnmp.start()
    host.waitForSubtree()
    assert scalars(host) == (NO_SERVER, b"")
    assert [varbind.oid for varbind in host.client.walk(ROOT)] == [SERVER_EID, PRODUCT_VERSION]


def test_a_changed_vocabulary_is_pushed(host):
    host.startAll(described("1"))
    server, version = scalars(host)
    assert version == b"1"
    for version in ("2", None, "3"):
        host.agent.writeInventory(described(version))
        expected = (server, b"" if version is None else version.encode())
        waitUntil(lambda: scalars(host) == expected, CHANGED_WITHIN_S, f"version {version} is shown")  # noqa: B023


def test_an_agent_that_is_replaced_by_another_version_is_shown_without_a_restart(host):
    host.startAll(described("1"))
    server, _ = scalars(host)
    host.agent.stop()
    # The identifier stays; the version may be another one by now.
    waitUntil(lambda: scalars(host) == (server, b""), CHANGED_WITHIN_S, "the version is empty")
    host.agent.writeInventory(described("2"))
    host.agent.start()
    waitUntil(lambda: scalars(host) == (server, b"2"), RECONNECT_DEADLINE_S, "the new version is shown")


def test_a_scalar_has_one_instance_only(host):
    host.startAll(described("1"))
    for oid in (ROOT + (1,), ROOT + (1, 1), ROOT + (2, 1), ROOT + (1, 0, 0)):
        assert host.client.get([oid])[0].tag in (snmp.NO_SUCH_INSTANCE, snmp.NO_SUCH_OBJECT)
    assert host.client.getnext([ROOT])[0].oid == SERVER_EID
    assert host.client.getnext([SERVER_EID])[0] == Varbind(PRODUCT_VERSION, OCTET_STRING, b"1")
