"""The shipped scrape configuration, alert rules and Grafana dashboard: on a Prometheus that scrapes a host with a few
containers, one with each thing that the dashboard shows, every query finds something."""

import json
import re

import pytest
from support.consumers import CONSUMERS, run, tablesOfPanel
from support.host import Host
from support.prometheus import FOLDER, HASTE, RULES, WINDOW, Prometheus, SnmpExporter, hastyConfig
from support.wait import waitUntil

DASHBOARD = json.loads((CONSUMERS / "grafana/kxsnmp.json").read_text())
OF_OTHERS = {"up", "ALERTS", "snmp_scrape_duration_seconds"}
PATIENCE_S = 60
GIGABYTE = 10**9

INVENTORY = f"""
[host]
product_version = "7.0.1-42"
[[environment]]
name = "unknown"
veid = 100
[[environment]]
name = "stopped"
veid = 101
state = 1
transition = 1
[[environment]]
name = "frozen"
veid = 103
state = 3
[[environment]]
name = "busy"
veid = 102
hostname = "busy.example"
os_template = {{ name = "debian", version = "12" }}
state = 2
[environment.counters.counters_kx_quota.""]
diskspace_used = {99 * GIGABYTE}
diskspace_softlimit = {80 * GIGABYTE}
diskspace_hardlimit = {100 * GIGABYTE}
diskspace_grace = 3600
inodes_used = 81
inodes_softlimit = 80
inodes_grace = 60
[environment.counters.counters_kx_net."2"]
bytes_in = {{ value = 1000, per_second = 1000 }}
packets_in = {{ value = 10, per_second = 100 }}
bytes_out = {{ value = 2000, per_second = 2000 }}
packets_out = {{ value = 20, per_second = 200 }}
"""


@pytest.fixture(scope="module")
def prometheus():
    host = Host()
    try:
        host.agent.writeConfig('backend = "simulated"', HASTE)
        host.startAll(INVENTORY)
        with (
            SnmpExporter(host.folder),
            Prometheus(host.folder, hastyConfig(host.folder, host.snmpd.port)) as running,
        ):
            yield running
    finally:
        host.close()
        host.removeFolder()


def filledIn(expression):
    """A query with the dashboard's variables as they are when nothing is chosen."""
    for variable, value in {"$instance": ".*", "$container": ".*", "$__rate_interval": WINDOW}.items():
        expression = expression.replace(variable, value)
    return expression


def queries():
    """Pairs of a panel's title and a query of it, as Prometheus gets them from the dashboard."""
    for panel in DASHBOARD["panels"]:
        for target in panel.get("targets", []):
            yield pytest.param(filledIn(target["expr"]), id=f"{panel['title']} {target['refId']}")


@pytest.mark.parametrize("expression", queries())
def test_each_query_of_the_dashboard_finds_something(prometheus, expression):
    assert waitUntil(lambda: prometheus.query(expression), PATIENCE_S, f"{expression} finds something")


def frame(target, answer, isOnly):
    """The answer of an instant query as Grafana's data source hands it to a table."""
    names = sorted({name for labels, _ in answer for name in labels})
    fields = [{"name": "Time", "type": "time", "values": [0] * len(answer)}]
    fields += [{"name": name, "type": "string", "values": [labels.get(name) for labels, _ in answer]} for name in names]
    value = "Value" if isOnly else f"Value #{target['refId']}"
    fields.append({"name": value, "type": "number", "values": [value for _, value in answer]})
    return {"refId": target["refId"], "fields": fields}


def tableOf(prometheus, title):
    """The rows of a table of the dashboard."""
    (panel,) = [panel for panel in DASHBOARD["panels"] if (panel["title"], panel["type"]) == (title, "table")]
    targets = panel["targets"]
    answers = [prometheus.query(filledIn(target["expr"])) for target in targets]
    frames = [frame(target, answer, len(targets) == 1) for target, answer in zip(targets, answers, strict=True)]
    (rows,) = tablesOfPanel(frames, panel["transformations"])
    return rows


def waitForTable(prometheus, title, isComplete):
    return waitUntil(
        lambda: (rows := tableOf(prometheus, title)) and isComplete(rows) and rows, PATIENCE_S, f"{title} is complete"
    )


def test_the_table_of_containers_shows_each_container_once(prometheus):
    rows = waitForTable(prometheus, "Containers", lambda rows: any(row.get("operating system") for row in rows))
    shown = {row["name"]: (row["number"], row["state"], row["transition"]) for row in rows}
    assert shown == {
        "unknown": ("100", 0, 0),
        "stopped": ("101", 1, 1),
        "busy": ("102", 2, 0),
        "frozen": ("103", 3, 0),
    }
    assert len(rows) == len(shown)
    assert {row["operating system"] for row in rows if row["name"] == "busy"} == {"debian/12"}


def test_the_table_of_graces_shows_each_container_once(prometheus):
    isComplete = lambda rows: rows[0].get("disk space") and rows[0].get("inodes")  # noqa: E731
    (row,) = waitForTable(prometheus, "Times of grace that run", isComplete)
    assert (row["name"], row["disk space"], row["inodes"]) == ("busy", 3600, 60)


def test_the_table_of_hosts_shows_each_host_once(prometheus):
    (row,) = waitForTable(prometheus, "Hosts", lambda rows: rows[0].get("version"))
    assert (row["version"], row["containers"], row["scraped"]) == ("7.0.1-42", 4, 1)


def test_a_container_is_chosen_by_a_link_in_the_table():
    """The link leads to this dashboard; its variables get the values of the row."""
    links = re.findall(r'"url": "([^"]*)"', json.dumps(DASHBOARD["panels"]))
    assert links and all(link.startswith(f"/d/{DASHBOARD['uid']}?") for link in links)
    names = {variable["name"] for variable in DASHBOARD["templating"]["list"]}
    assert set(re.findall(r"var-(\w+)=", " ".join(links))) == {"instance", "container"} <= names


def test_no_panel_asks_for_more_values_than_there_are():
    """A rate over less than two scrapes of 30 seconds is nothing."""
    assert {panel.get("interval") for panel in DASHBOARD["panels"] if panel.get("targets")} == {"30s"}


def test_firing_alerts_are_annotations(prometheus):
    (annotation,) = DASHBOARD["annotations"]["list"]
    found = waitUntil(lambda: prometheus.query(filledIn(annotation["expr"])), PATIENCE_S, "an alert fires")
    asked = set(re.findall(r"{{(\w+)}}", annotation["titleFormat"] + annotation["textFormat"]))
    assert any(asked <= set(labels) for labels, _ in found)


def test_the_rate_that_the_dashboard_shows_is_the_rate_of_the_container(prometheus):
    rate = f"sum(rate(kxVeNetstatBytesOut[{WINDOW}]))"

    def isAboutRight():
        found = prometheus.query(rate)
        return found and 1000 < found[0][1] < 3000

    waitUntil(isAboutRight, PATIENCE_S, "the rate is about 2,000 bytes a second")


def test_an_alert_of_a_real_container_has_its_names(prometheus):
    firing = 'ALERTS{alertname="KxQuotaNearHardLimit", alertstate="firing"}'
    [(labels, _)] = waitUntil(lambda: prometheus.query(firing), PATIENCE_S, "the alert fires")
    shown = {name: labels[name] for name in ("kxVeIndex", "kxVeName", "kxVeHostname", "resource", "severity")}
    assert shown == {
        "kxVeIndex": "102",
        "kxVeName": "busy",
        "kxVeHostname": "busy.example",
        "resource": "disk",
        "severity": "critical",
    }


def exported():
    """Names of the metrics, and of the labels, that the exporter makes with the shipped configuration."""
    return set(re.findall(r"(?:- name|labelname): (\w+)", (FOLDER / "kxsnmp.yml").read_text()))


@pytest.mark.parametrize(
    "expressions",
    [
        pytest.param([query.values[0] for query in queries()], id="dashboard"),
        pytest.param(re.findall(r"expr: (.*(?:\n {10}.*)*)", RULES.read_text()), id="rules"),
    ],
)
def test_only_metrics_that_are_exported_are_asked_for(expressions):
    asked = set(re.findall(r"\b(?:kx[A-Z]\w*|snmp_\w+|up|ALERTS)\b", "\n".join(expressions)))
    assert asked > {"kxVeState", "kxVeQuotaDiskUsed", "kxVeNetstatBytesIn", "up"}
    assert asked <= exported() | OF_OTHERS


def dataSources(part):
    """Every data source that is named anywhere in the dashboard."""
    if isinstance(part, dict):
        if "datasource" in part:
            yield part["datasource"]
        part = list(part.values())
    if isinstance(part, list):
        for inner in part:
            yield from dataSources(inner)


def test_the_data_source_is_a_variable_of_the_dashboard_everywhere():
    named = list(dataSources(DASHBOARD))
    assert named.count({"type": "prometheus", "uid": "${datasource}"}) == len(named) > len(DASHBOARD["panels"]) // 2
    assert [variable["type"] for variable in DASHBOARD["templating"]["list"]] == ["datasource", "query", "query"]


def test_the_panels_of_the_dashboard_have_numbers_and_places_of_their_own():
    panels = DASHBOARD["panels"]
    assert len({panel["id"] for panel in panels}) == len(panels)
    cells = [
        (place["x"] + column, place["y"] + line)
        for place in (panel["gridPos"] for panel in panels)
        for column in range(place["w"])
        for line in range(place["h"])
    ]
    assert len(cells) == len(set(cells)) and max(column for column, _ in cells) == 23


def test_each_alert_rule_does_what_its_test_says():
    run(["promtool", "check", "config", FOLDER / "prometheus.yml"])
    run(["promtool", "test", "rules", FOLDER / "alerts.test.yml"])


def test_each_alert_rule_has_a_test():
    alerts = set(re.findall(r"- alert: (\w+)", RULES.read_text()))
    tests = (FOLDER / "alerts.test.yml").read_text()
    firing = re.findall(r"- alertname: (\w+)\n +eval_time: \w+\n +exp_alerts:\n", tests)
    assert alerts and set(firing) == alerts
