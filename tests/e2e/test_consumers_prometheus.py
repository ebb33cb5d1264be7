"""Prometheus' SNMP exporter with the shipped configuration: what it makes of the described host, value for value."""

import re

import pytest
from support import describedhost
from support.consumers import run
from support.describedhost import ADDRESSES, NETWORK, QUOTA, ROWS, TEMPLATES
from support.host import PRODUCT_VERSION, SERVER_EID
from support.mibs import netSnmpSettings
from support.prometheus import FOLDER, FORMS, SnmpExporter, releaseWith, sample

INVENTORY = describedhost.INVENTORY

# A float has no more digits, so the exporter counts modulo this; rates do not notice.
WRAP = 2**53

TEXTS = ["kxVeEid", "kxVeName", "kxVeHostname", "kxVeDescription", "kxVeOsTemplate", "kxVeBaseSample"]
QUOTAS = [
    "kxVeQuotaDiskUsed",
    "kxVeQuotaDiskSoftLimit",
    "kxVeQuotaDiskHardLimit",
    "kxVeQuotaDiskGrace",
    "kxVeQuotaInodesUsed",
    "kxVeQuotaInodesSoftLimit",
    "kxVeQuotaInodesHardLimit",
    "kxVeQuotaInodesGrace",
]
NETSTATS = ["kxVeNetstatBytesIn", "kxVeNetstatPacketsIn", "kxVeNetstatBytesOut", "kxVeNetstatPacketsOut"]


@pytest.fixture(scope="module")
def describedHost(describedHost):
    """An answer that the agent was late with is without counters."""
    describedHost.waitForCounters()
    return describedHost


@pytest.fixture(scope="module", params=FORMS)
def release(request):
    """The SNMP exporter of each Debian release."""
    found = releaseWith(request.param)
    if not found:
        pytest.skip(f"scripts/fetch-exporter could not get an SNMP exporter with the form {request.param}")
    return found


@pytest.fixture(scope="module")
def exporter(describedHost, release):
    with SnmpExporter(describedHost.folder, release) as running:
        yield running


def scraped(exporter, describedHost, module):
    """The samples about the host; those about the scrape itself left out."""
    found = exporter.scrape(module, describedHost.snmpd.port)
    return sorted(one for one in found if not one.name.startswith("snmp_"))


def labels(veid):
    """The labels that every sample of a container has."""
    return {"kxVeIndex": str(veid), "kxVeName": ROWS[veid][1], "kxVeHostname": ROWS[veid][2]}


def expectedInventory(client):
    eid, version = (varbind.value.decode() for varbind in client.get([SERVER_EID, PRODUCT_VERSION]))
    yield sample("kxServerEid", 1, kxServerEid=eid)
    yield sample("kxProductVersion", 1, kxProductVersion=version)
    for veid, values in ROWS.items():
        for name, text in zip(TEXTS, values, strict=False):
            yield sample(name, 1, **{**labels(veid), name: text})
    for veid, addresses in ADDRESSES.items():
        for address, mask in addresses.items():
            yield sample("kxVeIpAddrMask", 1, kxVeIpAddrIndex=address, kxVeIpAddrMask=mask, **labels(veid))
    for veid, templates in TEMPLATES.items():
        for name, version in templates.items():
            yield sample("kxVeAppVersion", version, kxVeAppAddrIndex=name, **labels(veid))


def expectedCounters():
    for veid, (*_, state, transition) in ROWS.items():
        yield sample("kxVeState", state, **labels(veid))
        yield sample("kxVeTransition", transition, **labels(veid))
    for veid, values in QUOTA.items():
        for name, value in zip(QUOTAS, values, strict=True):
            yield sample(name, value % WRAP, **labels(veid))
    for (veid, instance), values in NETWORK.items():
        for name, value in zip(NETSTATS, values, strict=True):
            yield sample(name, value % WRAP, kxVeNetstatIndex=str(instance), **labels(veid))


def test_the_inventory_module_exports_what_the_described_host_is(exporter, describedHost, client):
    assert scraped(exporter, describedHost, "kxsnmp_inventory") == sorted(expectedInventory(client))


def test_the_counters_module_exports_what_the_described_host_does(exporter, describedHost):
    assert scraped(exporter, describedHost, "kxsnmp_counters") == sorted(expectedCounters())


def test_the_configuration_is_what_the_generator_makes_of_the_module(release, tmp_path):
    text = (FOLDER / "generator.yml").read_text()
    if "before" in release.config.name:
        text = re.sub(r"^auths:\n( .*\n)*", "", text, flags=re.MULTILINE)
    (tmp_path / "generator.yml").write_text(text)
    command = f"cd '{tmp_path}' && {release.programs}/prometheus-snmp-generator generate -o made.yml"
    run(["sh", "-c", command], netSnmpSettings())
    assert release.config.read_text() == (tmp_path / "made.yml").read_text()


OPERATORS = {
    "before 0.23": "if_mib:\n  walk: [1.3.6.1.2.1.2]\n",
    "from 0.23 on": "auths:\n  public_v2:\n    version: 2\nmodules:\n  if_mib:\n    walk: [1.3.6.1.2.1.2]\n",
}


@pytest.mark.parametrize("form", FORMS)
def test_the_configuration_is_added_to_the_operators_own(describedHost, tmp_path, form):
    """As consumers/README.md says: the package's own file stays as it is."""
    found = releaseWith(form)
    if not found:
        pytest.skip(f"scripts/fetch-exporter could not get an SNMP exporter with the form {form}")
    own = tmp_path / "snmp.yml"
    own.write_text(OPERATORS[form])
    configs = [own, found.config]
    if "before" in form:
        (tmp_path / "both.yml").write_text(own.read_text() + found.config.read_text())
        configs = [tmp_path / "both.yml"]
    with SnmpExporter(tmp_path, found, configs, port=9117) as running:
        assert scraped(running, describedHost, "kxsnmp_counters")
