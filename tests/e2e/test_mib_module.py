"""The MIB module: it is sound, and says what is really on the wire."""

import os
import re
import shutil
import subprocess
from functools import cache

import pytest
from support import describedhost, mibs
from support.describedhost import expectedTables
from support.host import PRODUCT_VERSION, PROJECT, ROOT, SERVER_EID
from support.raising import AlertRaiser
from support.snmp import COUNTER64, IP_ADDRESS, OCTET_STRING, UNSIGNED32, formatOid
from support.traps import waitForSubscription
from support.wait import waitUntil

INVENTORY = describedhost.INVENTORY

TRAPD_PORT = 1162
ALERTED = 101  # a container
ARRIVES_WITHIN_S = 20
_SCALARS = ["kxServerEid", "kxProductVersion"]
_SEPARATOR = "\x1f"  # between the cells of a table; no text of the described host has it

TABLES = re.findall(r"^(\w+) OBJECT-TYPE\s+SYNTAX\s+SEQUENCE OF ", mibs.MODULE_FILE.read_text(), re.MULTILINE)


@cache
def module():
    """Not at import: where it cannot be read, these tests are to fail and no others."""
    return mibs.Module()


@pytest.fixture(params=TABLES)
def table(request):
    """Each table of the module."""
    return module().tables[request.param]


@pytest.fixture(scope="module")
def describedHost(describedHost):
    """An answer that the agent was late with is without counters."""
    describedHost.waitForCounters()
    return describedHost


def named(name):
    return f"{mibs.MODULE}::{name}"


# ---- the module by itself -------------------------------------------------------------------------------------------


def test_the_module_is_without_findings():
    assert mibs.lint(mibs.MODULE_FILE) == ""


@pytest.mark.parametrize(
    ("sound", "broken"),
    [
        ("kxVeState, kxVeTransition\n", "kxVeState\n"),
        ("{ kxVeIndex, kxVeIpAddrIndex }", "{ kxVeIndex, kxVeIpAddr }"),
        ("::= { kxVeEntry 9 }", "::= { kxVeEntry 8 }"),
        ("SYNTAX      KxState\n", "SYNTAX      KxStat\n"),
        ("    LAST-UPDATED ", "    LAST-UPDATE "),
        ("    MODULE-IDENTITY, OBJECT-TYPE,", "    MODULE-IDENTITY,"),
        ("\nEND\n", "\n"),
    ],
)
def test_a_broken_module_has_findings(tmp_path, sound, broken):
    text = mibs.MODULE_FILE.read_text()
    assert text.count(sound) == 1
    copy = tmp_path / mibs.MODULE_FILE.name
    copy.write_text(text.replace(sound, broken))
    assert mibs.lint(copy) != ""


def test_every_name_stands_for_its_oid_and_every_oid_for_its_name():
    oids = module().oids()
    byName = mibs.shown(["snmptranslate", "-On", *map(named, oids)])
    assert byName.split() == ["." + formatOid(oid) for oid in oids.values()]
    byOid = mibs.shown(["snmptranslate", *map(formatOid, oids.values())])
    assert byOid.split() == list(map(named, oids))


def test_reading_the_module_gives_no_warning():
    assert mibs.run(["snmptranslate", named("kxVeId")]).stderr == ""


def test_full_base_modules_take_precedence_over_the_shipped_ones(tmp_path):
    """Where an operator has installed those of the RFCs, the documented options load these."""
    full = tmp_path / ".snmp/mibs"  # the first of net-snmp's folders
    full.mkdir(parents=True)
    shutil.copy(mibs.MODULE_FILE, full)
    shutil.copy(mibs.BASE_MODULES / "SNMPv2-TC", full)
    command = ["snmptranslate", "-M", f"-{mibs.BASE_MODULES}", "-m", mibs.MODULE, "-Dparse-mibs", named("kxVeId")]
    environment = {**os.environ, "HOME": str(tmp_path), "SNMPCONFPATH": str(tmp_path)}
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=60, check=True)
    assert f"SNMPv2-TC is now in {full}/SNMPv2-TC" in done.stderr


def test_enumerations_list_every_value():
    """kxsnmp passes on numbers that the management agent need not have a name for."""
    assert [each.name for each in module().objects.values() if each.syntax.names] == []


def enumerators(header, enum, prefix=""):
    """The enumerators of an enumeration in a header of the agent: their numbers and lower-case names."""
    (body,) = re.findall(rf"enum (?:class )?{enum} : std::int32_t {{([^}}]*)}}", (PROJECT / header).read_text())
    return {int(number): name.lower() for name, number in re.findall(rf"{prefix}(\w+) = (\d+)", body)}


@pytest.mark.parametrize(
    ("convention", "enumeration"),
    [
        ("KxState", ("agent/inventory/Environment.h", "State")),
        ("KxTransition", ("agent/inventory/Environment.h", "Transition")),
        ("KxAlertCode", ("agent/alerts/Alert.h", "AlertCode", "kAlert")),
    ],
)
def test_numbers_have_the_names_that_the_agent_gives_them(convention, enumeration):
    assert module().listedNumbers(convention) == enumerators(*enumeration)


def test_every_object_says_what_it_is_read_for():
    """Nothing can be written, and what is counted in something says in what."""
    assert {each.access for each in module().objects.values()} == {"readonly", "notifyonly", "noaccess"}
    counters = [each for each in module().readable if each.syntax.tag == COUNTER64]
    assert len(counters) == 12 and all(each.units for each in counters)


# ---- against the wire -----------------------------------------------------------------------------------------------


def split(oid):
    """The object of an instance, and the instance's own sub-identifiers."""
    for each in module().readable:
        if oid[: len(each.oid)] == each.oid:
            return each, oid[len(each.oid) :]
    raise AssertionError(f"the module has nothing for {formatOid(oid)}")


def tableOf(column):
    return next((table for table in module().tables.values() if column in table.columns), None)


def indexValues(table, subIds):
    """What an instance's sub-identifiers mean by the table's INDEX, as values that a variable could have."""
    values, left = [], list(subIds)
    for index in table.index:
        size = {UNSIGNED32: 1, IP_ADDRESS: 4, OCTET_STRING: None}[index.syntax.tag]
        if size is None:
            size = left.pop(0)  # a text that may have any length is told with its length
        assert len(left) >= size
        part, left = left[:size], left[size:]
        values.append(part[0] if index.syntax.tag == UNSIGNED32 else bytes(part))
    assert not left, f"{table.name}: {subIds} is longer than the index"
    return values


def test_all_that_a_walk_finds_has_the_syntax_that_the_module_says(client):
    for varbind in client.walk(ROOT):
        found, _ = split(varbind.oid)
        assert varbind.tag == found.syntax.tag, found.name
        if found.syntax.sizes:
            assert any(least <= len(varbind.value) <= most for least, most in found.syntax.sizes), found.name


def test_a_walk_finds_every_object_that_the_module_calls_readable(client):
    seen = {split(varbind.oid)[0].name for varbind in client.walk(ROOT)}
    assert seen == {each.name for each in module().readable}


def test_scalars_have_the_instance_0(client):
    found = [split(oid) for oid in (SERVER_EID, PRODUCT_VERSION)]
    assert [(each.name, instance) for each, instance in found] == [(name, (0,)) for name in _SCALARS]


# Each index object, and the column that shows what it stands for.
_SHOWN_INDEXES = {
    "kxVeIndex": "kxVeId",
    "kxVeIpAddrIndex": "kxVeIpAddr",
    "kxVeAppAddrIndex": "kxVeAppName",
    "kxVeNetstatIndex": "kxVeNetstatInstance",
}


def test_instances_are_what_the_index_says(client):
    values = {varbind.oid: varbind.value for varbind in client.walk(ROOT)}
    for column, instance in map(split, values):
        table = tableOf(column)
        parts = zip(table.index, indexValues(table, instance), strict=True) if table else ()
        for index, value in parts:
            shown = module().objects[_SHOWN_INDEXES[index.name]]
            row = instance if shown in table.columns else (value,)  # the container's number is in its own table only
            assert values.get(shown.oid + row) == value, f"{index.name} of {column.name}.{formatOid(instance)}"


# ---- as net-snmp's tools show it ------------------------------------------------------------------------------------


def tool(host, name, *options, root):
    """What a tool shows of a table, a column or more, line by line."""
    command = [name, "-v2c", "-c", "public", *options, f"127.0.0.1:{host.snmpd.port}", named(root)]
    return [line for line in mibs.shown(command).splitlines() if "No more variables left in this MIB View" not in line]


def asText(syntax, value):
    """A value as net-snmp's tools show it by the module, without its type and units."""
    if syntax.tag == IP_ADDRESS:
        return formatOid(value)
    if syntax.tag == OCTET_STRING:
        return value.decode().replace("\0", ".")
    return syntax.names.get(value, str(value))


def cell(column, value):
    text = asText(column.syntax, value).replace("\n", " ")
    return f"{text} {column.units}" if column.units else text


def rowName(table, subIds):
    """An instance with its index decoded, as in kxVeIpAddr[101][10.0.0.1]."""
    values = zip(table.index, indexValues(table, subIds), strict=True)
    return "".join(f"[{asText(index.syntax, value)}]" for index, value in values)


def expectedRows(table):
    """The cells of each row of the described host, by the row's name."""
    rows = {}
    for varbind in expectedTables():
        column, instance = split(varbind.oid)
        if column in table.columns:
            rows.setdefault(rowName(table, instance), []).append((varbind.oid, cell(column, varbind.value)))
    return {name: [text for _, text in sorted(cells)] for name, cells in rows.items()}


def shownRows(host, table):
    """The cells of each row as snmptable shows them, by the row's name; and the names of the columns."""
    title, _, header, *lines = tool(host, "snmptable", "-Ci", "-OX", "-Cf", _SEPARATOR, root=table.name)
    assert title == f"SNMP table: {named(table.name)}"
    rows = {name: values for name, *values in (line.split(_SEPARATOR) for line in lines)}
    assert len(rows) == len(lines)
    return rows, header.split(_SEPARATOR)[1:]


def test_snmptable_shows_every_row_under_the_names_of_its_columns(describedHost, table):
    rows, header = shownRows(describedHost, table)
    assert header == [column.name for column in table.columns]
    assert rows == expectedRows(table) and len(rows) > 1


# One row of each table as the described host's file has it, in words of its own.
_ROWS_BY_NAME = {
    "kxVeTable [101]": {
        "kxVeId": "101",
        "kxVeEid": "0f8e5c1a-7a44-4c3b-9d1e-000000000101",
        "kxVeName": "web",
        "kxVeHostname": "web.example",
        "kxVeDescription": "front end",
        "kxVeOsTemplate": "debian/12",
        "kxVeBaseSample": "0f8e5c1a-7a44-4c3b-9d1e-0000000000aa",
        "kxVeState": "2",
        "kxVeTransition": "0",
    },
    "kxVeIpAddrTable [101][10.0.0.9]": {"kxVeIpAddr": "10.0.0.9", "kxVeIpAddrMask": "255.255.255.0"},
    "kxVeAppAddrTable [101][b]": {"kxVeAppName": "b", "kxVeAppVersion": "2"},
    "kxVeQuotaTable [101]": {
        "kxVeQuotaDiskUsed": "1000000 bytes",
        "kxVeQuotaDiskSoftLimit": "2000000 bytes",
        "kxVeQuotaDiskHardLimit": "9223372036854775807 bytes",
        "kxVeQuotaDiskGrace": "604800 seconds",
        "kxVeQuotaInodesUsed": "17 inodes",
        "kxVeQuotaInodesSoftLimit": "0 inodes",
        "kxVeQuotaInodesHardLimit": "18446744073709551611 inodes",
        "kxVeQuotaInodesGrace": "0 seconds",
    },
    "kxVeNetstatTable [101][10]": {
        "kxVeNetstatInstance": "10",
        "kxVeNetstatBytesIn": "4294967296 bytes",
        "kxVeNetstatPacketsIn": "1 packets",
        "kxVeNetstatBytesOut": "2 bytes",
        "kxVeNetstatPacketsOut": "3 packets",
    },
}


@pytest.mark.parametrize("place", _ROWS_BY_NAME)
def test_columns_hold_what_their_names_say(describedHost, place):
    name, row = place.split()
    rows, header = shownRows(describedHost, module().tables[name])
    assert dict(zip(header, rows[row], strict=True)) == _ROWS_BY_NAME[place]


def test_snmpwalk_decodes_the_index_of_every_row(describedHost, table):
    column = table.columns[-1]
    lines = tool(describedHost, "snmpwalk", "-OXQ", root=column.name)
    rows = expectedRows(table).items()
    assert sorted(lines) == sorted(f"{named(column.name)}{name} = {cells[-1]}" for name, cells in rows)


def test_an_instance_is_found_by_the_name_that_it_is_shown_under():
    names = ["kxVeName.4294967295", "kxVeIpAddrMask.101.10.0.0.9", 'kxVeAppVersion.101."nginx"']
    names.append("kxVeNetstatBytesIn.101.10")
    oids = mibs.shown(["snmptranslate", "-On", *map(named, names)]).split()
    assert mibs.shown(["snmptranslate", *oids]).split() == list(map(named, names))
    expected = {"." + formatOid(varbind.oid) for varbind in expectedTables()}
    assert expected.issuperset(oids)


def test_a_walk_by_names_reads_everything(describedHost):
    lines = tool(describedHost, "snmpwalk", "-Oq", root="kxObjects")
    assert {line.partition(".")[0] for line in lines} >= {named(each.name) for each in module().readable}


# ---- traps ----------------------------------------------------------------------------------------------------------


@pytest.fixture
def trapd(describedHost):
    """snmptrapd with the module, at which the described host's alerts arrive."""
    config = describedHost.snmpd.folder / "snmpd.conf"
    withoutSinks = config.read_text()
    made = mibs.NamingSnmptrapd(describedHost.folder / "snmptrapd", TRAPD_PORT)
    made.start()
    try:
        restartSnmpd(describedHost, withoutSinks + f"trap2sink 127.0.0.1:{TRAPD_PORT} public\n")
        waitForSubscription(ALERTED, lambda text: trapsWith(made, text))
        yield made
    finally:
        made.stop()
        restartSnmpd(describedHost, withoutSinks)


def restartSnmpd(host, config):
    host.snmpd.stop()
    (host.snmpd.folder / "snmpd.conf").write_text(config)
    host.snmpd.start()
    host.waitForSubtree()


def trapsWith(trapd, text):
    """The variables of each trap with an alert's text, as snmptrapd shows them."""
    shown = "STRING: " + text.decode()
    return [trap for trap in trapd.traps() if any(value == shown for _, value in trap)]


def raised(trapd, **alert):
    """Raises an alert. @return its variables as snmptrapd shows them"""
    with AlertRaiser() as raiser:
        raiser.alert(veid=ALERTED, **alert)
    return waitUntil(lambda: trapsWith(trapd, alert["text"]), ARRIVES_WITHIN_S, f"a trap with {alert['text']}")[-1]


def test_snmptrapd_shows_a_trap_with_all_its_names(trapd):
    (alert,) = module().notifications
    _, oid, *variables = raised(trapd, code=2, text=b"out of memory", value=2**63 - 1)
    assert oid == ("SNMPv2-MIB::snmpTrapOID.0", f"OID: {named(alert)}")
    names = [named(name) for name in module().notifications[alert]["objects"]]
    values = ["Gauge32: 101", "STRING: out of memory", "INTEGER: 2", "Counter64: 9223372036854775807"]
    assert variables[:4] == list(zip(names, values, strict=True))
    codes = {code: raised(trapd, code=code, text=b"code %d" % code)[4][1] for code in (0, -1)}
    assert codes == {0: "INTEGER: 0", -1: "INTEGER: -1"}


# ---- where an SNMP manager of npm comes from---------------------------------------------------------------------------


@pytest.fixture
def checkout(tmp_path):
    """The part of the tree that scripts/fetch-npm needs."""
    (tmp_path / "scripts").mkdir()
    shutil.copy(PROJECT / "scripts/fetch-npm", tmp_path / "scripts")
    shutil.copytree(PROJECT / "tests/npm", tmp_path / "tests/npm")
    return tmp_path


def fetchNpm(checkout):
    """Runs scripts/fetch-npm, which finds no network here."""
    environment = {**os.environ, "npm_config_fetch_retries": "0"}
    command = [checkout / "scripts/fetch-npm"]
    return subprocess.run(command, env=environment, capture_output=True, text=True, timeout=60, check=False)


def test_what_cannot_be_fetched_is_said_in_one_line_and_leaves_nothing(checkout):
    done = fetchNpm(checkout)
    assert done.returncode == 1
    assert done.stdout == "" and re.fullmatch(r"fetch-npm: npm could not install .*http.*\n", done.stderr)
    assert list((checkout / "build").iterdir()) == []


def test_what_is_there_already_is_not_fetched_again(checkout):
    installed = checkout / "build/npm"
    installed.mkdir(parents=True)
    shutil.copy(checkout / "tests/npm/package-lock.json", installed / "installed-lock.json")
    done = fetchNpm(checkout)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    (checkout / "tests/npm/package-lock.json").write_text("{}")
    assert fetchNpm(checkout).returncode == 1, "another lock file is another installation"
    assert (installed / "installed-lock.json").exists(), "what was there before stays when the new cannot be had"
