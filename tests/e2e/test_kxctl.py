"""kxctl as an operator types it, against the real agent with a described host."""

import json
import re
import signal
import subprocess
from base64 import b64decode

import pytest
from support.kxctl import DEADLINE_S, DONE, REFUSED, UNREACHABLE, WRONG_USAGE, command, run, runAsNobody, surroundings
from support.parts import Agent
from support.wait import waitUntil

WEB_EID = "0f8e5c1a-7a44-4c3b-9d1e-000000000101"
UNKNOWN_EID = "0f8e5c1a-7a44-4c3b-9d1e-0000000009ff"
HOST_ONLY = '[host]\nproduct_version = "7.0.1-42"\n'
WEB = f'[[environment]]\nname = "web"\nveid = 101\neid = "{WEB_EID}"\nstate = 2\n'
FROZEN_WEB = WEB.replace("state = 2", "state = 2\ntransition = 3")
DATABASE = '[[environment]]\nname = "data base"\nveid = 102\nstate = 1\n'

# Every alert is told, and at once.
ALL_ALERTS = "[alerts]\nrepeat_seconds = 0\nper_second = 100000\nburst = 100000\n"


def raiseAlert(*arguments, **options):
    done = run("alert", "raise", *arguments, **options)
    assert (done.returncode, done.stdout) == (DONE, b""), done.stderr
    return done


class Watching:
    """kxctl events, running. Returns from its making once it is subscribed."""

    def __init__(self, folder, *arguments):
        self._out, self._err = folder / "out", folder / "err"
        with open(self._out, "wb") as out, open(self._err, "wb") as err:
            self.popen = subprocess.Popen(
                command("events", *arguments), stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=surroundings()
            )
        waitUntil(lambda: self.notes() or self.popen.poll() is not None, DEADLINE_S, "kxctl is subscribed")
        assert re.fullmatch(r"subscribed to events of kxagentd [0-9.]+ \([0-9a-f-]{36}\)", self.notes()[0])

    def lines(self):
        """Whole lines only."""
        return self._out.read_bytes().decode().split("\n")[:-1]

    def objects(self):
        return [json.loads(line) for line in self.lines()]

    def notes(self):
        return self._err.read_text().split("\n")[:-1]

    def wait(self):
        return self.popen.wait(DEADLINE_S)

    def waitForLines(self, count):
        waitUntil(lambda: len(self.lines()) >= count, DEADLINE_S, f"{count} events are shown")
        return self.lines()

    def stop(self, number=signal.SIGTERM):
        self.popen.send_signal(number)
        return self.wait()


@pytest.fixture
def watching(tmp_path):
    """Starts kxctl events, and ends what is still running in the end."""
    started = []

    def start(*arguments):
        folder = tmp_path / str(len(started))
        folder.mkdir()
        started.append(Watching(folder, *arguments))
        return started[-1]

    yield start
    for one in started:
        one.popen.kill()
        one.popen.wait()


@pytest.fixture
def agentHost(host):
    """A host of which only the agent runs, which tells every alert."""
    host.agent.writeConfig('backend = "simulated"', ALL_ALERTS)
    host.agent.writeInventory(HOST_ONLY + WEB)
    host.agent.start()
    return host


def describe(host, *environments):
    host.agent.writeInventory(HOST_ONLY + "".join(environments))


# ---- without an agent ---------------------------------------------------------------------------------------------


def test_it_tells_its_version_and_how_it_is_used():
    done = run("--version", text=True)
    assert (done.returncode, done.stderr) == (DONE, "")
    assert re.fullmatch(r"kxctl \d+\.\d+\.\d+\n", done.stdout)
    done = run("--help", text=True)
    assert (done.returncode, done.stderr) == (DONE, "")
    assert "events" in done.stdout and "alert" in done.stdout and Agent.SOCKET in done.stdout


@pytest.mark.parametrize(
    "arguments, word",
    [
        ([], "subcommand"),
        (["frobnicate"], "frobnicate"),
        (["events", "--count", "none"], "none is no number"),
        (["events", "--filter", "colour=red"], "colour is none of kind"),
        (["alert", "raise", "--code", "1"], "--ve, --eid and --host"),
        (["alert", "raise", "--host", "--code", "2147483648"], "outside of -2147483648 to 2147483647"),
    ],
)
def test_wrong_usage_is_named(arguments, word):
    done = run(*arguments, text=True)
    assert (done.returncode, done.stdout) == (WRONG_USAGE, "")
    assert word in done.stderr


@pytest.mark.parametrize("arguments", [["events"], ["alert", "raise", "--host", "--code", "1"]])
def test_an_absent_agent_is_named(tmp_path, arguments):
    missing = tmp_path / "agent.sock"
    done = run(*arguments, "--socket", missing, text=True)
    assert (done.returncode, done.stdout) == (UNREACHABLE, "")
    assert done.stderr == f"kxctl: {missing}: No such file or directory (is kxagentd running?)\n"


# ---- alerts -------------------------------------------------------------------------------------------------------


def test_a_raised_alert_is_shown_as_a_line(agentHost, watching):
    seen = watching("-n1")
    raiseAlert("--ve", "web", "--code", "2", "--text", 'a "quoted" ü', "--value", "-7")
    assert seen.wait() == DONE
    (line,) = seen.lines()
    time, kind, container, severity, value, text = re.split(r" {2,}", line)
    assert re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}", time)
    assert [kind, container, severity, value, text] == ["alert", "101 web", "critical", "-7", 'a "quoted" ü']


@pytest.mark.parametrize(
    "text, shown",
    [
        (b"", ""),
        (b"plain", "plain"),
        (b"nul \0 in it", "nul \\x00 in it"),
        (b"two\nlines\r\n\ttab", "two\\nlines\\r\\n\\ttab"),
        ("übergroß € 😀".encode(), "übergroß € 😀"),
        (b'"quotes" and \\backslash', '"quotes" and \\\\backslash'),
        (b"\xff\xc3(", "\\xff\\xc3("),
        (b"\x1b]0;title\x07\x1b[2J", "\\x1b]0;title\\x07\\x1b[2J"),
        ("\u202egnp.exe\u0085".encode(), "\\u{202e}gnp.exe\\u{0085}"),
    ],
)
def test_any_text_is_shown_as_one_line_and_exactly_in_json(agentHost, watching, text, shown):
    asText, asJson = watching("-n1"), watching("--json", "-n1")
    raiseAlert("--host", "--code", "1", "--text-file", "-", input=text)
    assert (asText.wait(), asJson.wait()) == (DONE, DONE)
    (line,) = asText.lines()
    assert line.endswith("warning   0" + (f"  {shown}" if shown else ""))
    (alert,) = asJson.objects()
    exact = b64decode(alert["text_base64"]) if "text_base64" in alert else alert["text"].encode()
    assert exact == text
    assert alert["text"] == text.decode(errors="replace")
    assert ("text_base64" in alert) == ("\ufffd" in alert["text"])


@pytest.mark.parametrize(
    "code, value", [("-2147483648", "-9223372036854775808"), ("2147483647", "9223372036854775807"), ("0", "0")]
)
def test_numbers_are_exact_to_their_extremes(agentHost, watching, code, value):
    asText, asJson = watching("-n1"), watching("--json", "-n1")
    raiseAlert("--ve", "101", "--code", code, "--value", value)
    assert (asText.wait(), asJson.wait()) == (DONE, DONE)
    assert asText.lines()[0].split()[-2:] == ["clear" if code == "0" else code, value]
    assert f'"code":{code},' in asJson.lines()[0] and f'"value":{value},' in asJson.lines()[0]


def test_an_alert_names_its_target_as_far_as_it_is_known(agentHost, watching):
    seen = watching("--json", "--count", "4")
    for target in (["--ve", "101"], ["--eid", WEB_EID.upper()], ["--eid", UNKNOWN_EID], ["--host"]):
        raiseAlert(*target, "--code", "1")
    assert seen.wait() == DONE
    byNumber, byIdentifier, unknown, host = seen.objects()
    for one in (byNumber, byIdentifier):
        assert (one["eid"], one["veid"], one["name"], one["host"]) == (WEB_EID, 101, "web", False)
    assert (unknown["eid"], unknown["host"]) == (UNKNOWN_EID, False)
    assert "veid" not in unknown and "name" not in unknown
    assert host["host"] is True and host["eid"] in seen.notes()[0]


def test_an_unknown_container_is_refused_in_the_agents_words(agentHost):
    done = run("alert", "raise", "--ve", "555", "--code", "1", text=True)
    assert (done.returncode, done.stdout) == (REFUSED, "")
    assert done.stderr == "kxctl: the agent refuses: there is no container with the number 555\n"


def test_a_text_that_the_agent_does_not_take_is_refused_in_its_words(agentHost, tmp_path):
    large = tmp_path / "text"
    large.write_bytes(b"x" * 1_000_000)
    done = run("alert", "raise", "--host", "--code", "1", "--text-file", large, text=True)
    assert done.returncode == REFUSED
    assert "1000000" in done.stderr


def test_events_that_happened_before_are_shown_first(agentHost, watching):
    raiseAlert("--ve", "web", "--code", "1", "--text", "missed")
    seen = watching("--json", "-n2", "--since", "5m", "--filter", "kind=alert")
    raiseAlert("--ve", "web", "--code", "1", "--text", "live")
    assert seen.wait() == DONE
    assert [event["text"] for event in seen.objects()] == ["missed", "live"]


def test_only_matching_events_are_shown(agentHost, watching):
    seen = watching("-n1", "--filter", "ve=web", "--filter", "severity=critical")
    for target, code in ((("--host",), "2"), (("--ve", "web"), "1"), (("--ve", "101"), "2")):
        raiseAlert(*target, "--code", code)
    assert seen.wait() == DONE
    assert re.search(r"101 web +critical +0$", seen.lines()[0])


def test_many_alerts_are_all_shown(agentHost, watching):
    seen = watching("--count", "5000")
    done = raiseAlert("--ve", "101", "--code", "1", "--text", "again", "--repeat", "5000", text=False)
    assert re.fullmatch(rb"raised 5000 times in [0-9.]+ s\n", done.stderr)
    assert seen.wait() == DONE
    assert len(seen.lines()) == 5000


def test_repeated_alerts_add_up_where_the_agent_counts_them(host, watching):
    """However long raising them takes: what is counted is told again and again while they come."""
    host.agent.writeConfig('backend = "simulated"', "[alerts]\nrepeat_seconds = 1\n")
    host.agent.writeInventory(HOST_ONLY + WEB)
    host.agent.start()
    seen = watching("--json")
    raiseAlert("--ve", "101", "--code", "1", "--text", "full", "--repeat", "200")

    def toldFor():
        """How many alerts each event stands for."""
        more = [re.fullmatch(r"full(?: \(and (\d+) more\))?", alert["text"]).group(1) for alert in seen.objects()]
        return [1 + int(count or 0) for count in more]

    waitUntil(lambda: sum(toldFor()) >= 200, DEADLINE_S, "all of them are told or counted")
    assert seen.stop() == DONE
    assert sum(toldFor()) == 200 and toldFor()[0] == 1 and len(toldFor()) < 200


# ---- changes of containers ----------------------------------------------------------------------------------------


def test_changes_of_containers_are_shown(agentHost, watching):
    asText, asJson = watching("--count", "3"), watching("--json", "--count", "3")
    for shown, environments in enumerate([(WEB, DATABASE), (FROZEN_WEB, DATABASE), (FROZEN_WEB,)], 1):
        describe(agentHost, *environments)
        asText.waitForLines(shown)
        asJson.waitForLines(shown)
    assert (asText.wait(), asJson.wait()) == (DONE, DONE)
    assert [re.split(r" {2,}", line)[1:] for line in asText.lines()] == [
        ["change", '102 "data base"', "stopped", "-", "added"],
        ["change", "101 web", "running,freezing", "-", "modified"],
        ["change", '102 "data base"', "stopped", "-", "removed"],
    ]
    keys = ("kind", "veid", "name", "change", "state", "state_name", "transition", "transition_name")
    assert [tuple(event[key] for key in keys) for event in asJson.objects()] == [
        ("change", 102, "data base", "added", 1, "stopped", 0, "none"),
        ("change", 101, "web", "modified", 2, "running", 3, "freezing"),
        ("change", 102, "data base", "removed", 1, "stopped", 0, "none"),
    ]


def test_a_thousand_new_containers_are_shown_with_their_numbers(agentHost, watching):
    seen = watching("--json", "--count", "1000")
    agentHost.agent.writeInventory(HOST_ONLY + "generate = 1000\n" + WEB)
    assert seen.wait() == DONE
    assert {event["veid"] for event in seen.objects()} == set(range(2001, 3001))


# ---- several that are meant ---------------------------------------------------------------------------------------


def test_what_may_be_several_is_refused_with_all_of_them(agentHost):
    twice = "".join(f'[[environment]]\nname = "web"\nveid = {veid}\n' for veid in (5, 6))
    agentHost.agent.writeInventory(twice + '[[environment]]\nname = "5"\n')
    waitUntil(lambda: run("show", "6").returncode == DONE, DEADLINE_S, "the agent has read it")
    for word, number in (("web", 2), ("5", 2)):
        done = run("show", word, text=True)
        assert (done.returncode, done.stdout) == (REFUSED, "")
        assert len(re.findall(r"\([0-9a-f-]{36}\)", done.stderr)) == number


# ---- following ----------------------------------------------------------------------------------------------------


def test_following_goes_on_over_a_restart_of_the_agent(agentHost, watching):
    agent = agentHost.agent
    seen = watching("--json")
    raiseAlert("--ve", "101", "--code", "1", "--text", "before")
    seen.waitForLines(1)
    agent.stop()
    waitUntil(lambda: len(seen.notes()) == 2, DEADLINE_S, "the loss is told")
    agent.writeInventory(HOST_ONLY + WEB.replace("veid = 101", "veid = 111"))
    agent.start()
    waitUntil(lambda: len(seen.notes()) == 3, DEADLINE_S, "the return is told")
    raiseAlert("--ve", "111", "--code", "2", "--text", "after")
    seen.waitForLines(2)
    assert [(event["veid"], event["text"]) for event in seen.objects()] == [(101, "before"), (111, "after")]
    subscribed, lost, back = seen.notes()
    assert lost == "the connection to the agent was lost; trying to connect again"
    assert back == f"{subscribed} again; what happened meanwhile is not shown"
    assert seen.stop() == DONE


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_it_orderly(agentHost, watching, number):
    seen = watching()
    assert seen.stop(number) == DONE
    assert len(seen.notes()) == 1


# ---- its surroundings ---------------------------------------------------------------------------------------------


def test_it_ends_in_silence_when_its_reader_does(agentHost, tmp_path):
    """No further event is needed for it to notice."""
    notes = tmp_path / "err"
    line = f"{subprocess.list2cmdline(map(str, command('events')))} 2>{notes} | head -n 1"
    piped = subprocess.Popen(
        ["bash", "-c", f"set -o pipefail; {line}"],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        env=surroundings(),
    )
    waitUntil(lambda: notes.exists() and notes.read_text().endswith("\n"), DEADLINE_S, "kxctl is subscribed")
    raiseAlert("--host", "--code", "1", "--text", "only one")
    shown, _ = piped.communicate(timeout=DEADLINE_S)
    assert piped.returncode == DONE
    assert shown.endswith(b"only one\n") and shown.count(b"\n") == 1
    assert notes.read_text().count("\n") == 1


def test_an_output_that_cannot_be_written_to_is_an_error(agentHost, tmp_path):
    for redirection, word in ((">/dev/full", "No space left on device"), (">&-", "Bad file descriptor")):
        notes = tmp_path / word.split()[0]
        line = f"{subprocess.list2cmdline(map(str, command('events')))} 2>{notes} {redirection}"
        popen = subprocess.Popen(["bash", "-c", line], stdin=subprocess.DEVNULL, env=surroundings())
        waitUntil(lambda notes=notes: notes.exists() and "\n" in notes.read_text(), DEADLINE_S, "kxctl is subscribed")
        raiseAlert("--host", "--code", "1")
        assert popen.wait(DEADLINE_S) == REFUSED
        assert notes.read_text().splitlines()[1:] == [f"kxctl: cannot write: {word}"]


def test_who_may_not_connect_is_told_so(agentHost):
    done = runAsNobody(agentHost.folder / "everybody", "events")
    assert done.returncode == UNREACHABLE
    expected = f"kxctl: {Agent.SOCKET}: Permission denied: only root and members of the group kxagent may connect\n"
    assert done.stderr == expected
