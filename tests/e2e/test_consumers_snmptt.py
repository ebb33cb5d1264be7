"""Real traps, received by snmptrapd, handed on to snmptt with the shipped configuration: what it logs."""

import re

import pytest
from support.consumers import CONSUMERS, run
from support.host import Host
from support.mibs import MODULE_FILE, NamingSnmptrapd, netSnmpSettings
from support.parts import Snmptrapd
from support.raising import AlertRaiser
from support.traps import PROBE_CODE, waitForSubscription
from support.wait import waitUntil

FOLDER = CONSUMERS / "snmptt"
EVENTS = FOLDER / "kxsnmp.conf"
TRAP_PORT = 1162
LOGGED_WITHIN_S = 20  # snmptt is started anew for each trap
INVENTORY = "\n".join(f'[[environment]]\nname = "ve{veid}"\nveid = {veid}\n' for veid in (101, 102))

LEVELS = {2: "crit", 4: "warning", 5: "notice"}  # syslog(3)
_LINE = re.compile(r' (\w+) "Containers" \S+ - (.*)$')


def installed(name, replacements):
    """A shipped file's text; `replacements`: what is elsewhere here."""
    text = (FOLDER / name).read_text()
    for shipped, here in replacements.items():
        assert shipped in text
        text = text.replace(shipped, str(here))
    return text


@pytest.fixture
def settings(tmp_path):
    """snmptt's settings."""
    path = tmp_path / "kxsnmp.ini"
    path.write_text(installed("kxsnmp.ini", {"/etc/snmp/kxsnmp-snmptt.conf": EVENTS}))
    return path


def logged(syslog):
    """What snmptt has logged of alerts that count: level, severity, and the text behind them."""
    lines = [line for line in syslog.lines() if line.program == "snmptt" and f"code {PROBE_CODE}:" not in line.text]
    return [(LEVELS[line.priority & 7], *_LINE.search(line.text.rstrip("\n")).groups()) for line in lines]


def waitForLogged(syslog, count):
    return waitUntil(
        lambda: logged(syslog) if len(logged(syslog)) >= count else None, LOGGED_WITHIN_S, f"{count} lines are logged"
    )


@pytest.fixture(params=[Snmptrapd, NamingSnmptrapd], ids=["numbers", "names"])
def trappingHost(request, settings):
    """A host that sends its traps to a snmptrapd, one that knows the module or one that does not, which hands each
    to snmptt."""
    made = Host(trapPorts=[TRAP_PORT])
    trapd = request.param(made.folder / "snmptrapd", TRAP_PORT)

    def hasLogged(text):
        return any(line.program == "snmptt" and text.decode() in line.text for line in made.syslog.lines())

    try:
        with open(trapd.folder / "snmptrapd.conf", "a", encoding="utf-8") as config:
            config.write(installed("snmptrapd.conf", {"/etc/snmp/kxsnmp-snmptt.ini": settings}))
        trapd.start()
        made.startAll(INVENTORY)
        waitForSubscription(101, hasLogged, LOGGED_WITHIN_S)
        yield made
    finally:
        try:
            trapd.stop()
        finally:
            made.close()
            made.removeFolder()


def test_each_alert_is_logged_with_its_container_severity_text_and_value(trappingHost):
    raiser = AlertRaiser()
    try:
        raiser.alert(veid=101, code=2, text=b"memory is used up", value=2**63 - 1)
        raiser.alert(veid=102, code=1, text=b'memory is "nearly" used up', value=7)
        raiser.alert(veid=101, code=0, text=b"memory is free again", value=0)
        raiser.alert(veid=102, code=17, text=b"told by a stranger", value=5)
        assert waitForLogged(trappingHost.syslog, 4) == [
            ("crit", "Critical", "container 101: critical: memory is used up (value 9223372036854775807)"),
            ("warning", "Warning", 'container 102: warning: memory is "nearly" used up (value 7)'),
            ("notice", "Normal", "container 101: clear: memory is free again (value 0)"),
            ("warning", "Minor", "container 102: code 17: told by a stranger (value 5)"),
        ]
    finally:
        raiser.close()


def test_the_configuration_names_the_trap_and_its_variables_as_the_module_does(tmp_path):
    made = tmp_path / "made.conf"
    run(["snmpttconvertmib", f"--in={MODULE_FILE}", f"--out={made}"], netSnmpSettings())
    events = re.findall(r"^EVENT \S+ \S+", made.read_text(), re.MULTILINE)
    variables = re.findall(r"^ +(\d): (\w+)", made.read_text(), re.MULTILINE)
    assert variables == [("1", "kxVeId"), ("2", "kxVeAlertText"), ("3", "kxVeAlertCode"), ("4", "kxVeAlertValue")]
    assert set(re.findall(r"^EVENT \S+ \S+", EVENTS.read_text(), re.MULTILINE)) == set(events)
