"""Prometheus' programs, run against a host under test, and the text in which metrics are told."""

import http.client
import json
import re
import signal
import subprocess
import urllib.parse
import urllib.request
from pathlib import Path
from typing import NamedTuple

from .consumers import CONSUMERS, run
from .host import PROJECT
from .wait import waitUntil

FOLDER = CONSUMERS / "prometheus"
RULES = FOLDER / "alerts.yml"
CONFIG = FOLDER / "prometheus.yml"

# For an agent: what clients ask to be told every 30 seconds it tells every 150 milliseconds.
HASTE = "[monitoring]\nperiod_scale = 0.005\n"

# From one scrape to the next, and what a scrape may take, on a busy machine too; and what always has two of them.
INTERVAL = "2s"
WINDOW = "5s"


class Release(NamedTuple):
    """The SNMP exporter of a Debian release: where its programs are, and the configuration of ours in its form."""

    programs: Path
    config: Path


_FORMS = {"before 0.23": FOLDER / "kxsnmp-before-0.23.yml", "from 0.23 on": FOLDER / "kxsnmp.yml"}


def _formOf(programs):
    done = run([programs / "prometheus-snmp-exporter", "--version"])
    major, minor = re.search(r"version (\d+)\.(\d+)", done.stdout + done.stderr).groups()
    return "from 0.23 on" if (int(major), int(minor)) >= (0, 23) else "before 0.23"


def releaseWith(form):
    """The exporter that reads a form, this machine's or the one that scripts/fetch-exporter has fetched; None where there
    is none."""
    for programs in (Path("/usr/bin"), PROJECT / "build/exporter/usr/bin"):
        if (programs / "prometheus-snmp-exporter").exists() and _formOf(programs) == form:
            return Release(programs, _FORMS[form])
    return None


FORMS = list(_FORMS)
INSTALLED = Path("/usr/bin")

_START_DEADLINE_S = 20
_STOP_DEADLINE_S = 20
_REQUEST_DEADLINE_S = 30

_SAMPLE = re.compile(r"^(\w+)(?:\{(.*)\})? (\S+)$")
_LABEL = re.compile(r'(\w+)="((?:[^"\\]|\\.)*)"')
_ESCAPES = {"\\\\": "\\", '\\"': '"', "\\n": "\n"}


class Sample(NamedTuple):
    name: str
    labels: tuple  # of pairs, sorted
    value: float


def sample(name, value, **labels):
    return Sample(name, tuple(sorted(labels.items())), float(value))


def _unescaped(text):
    return re.sub(r"\\.", lambda escape: _ESCAPES[escape.group()], text)


def parseMetrics(text):
    """The samples of a text that an exporter has answered."""
    samples = []
    for line in text.split("\n"):
        if line and not line.startswith("#"):
            name, labels, value = _SAMPLE.match(line).groups()
            pairs = ((label, _unescaped(content)) for label, content in _LABEL.findall(labels or ""))
            samples.append(Sample(name, tuple(sorted(pairs)), float(value)))
    return samples


def fetch(url):
    with urllib.request.urlopen(url, timeout=_REQUEST_DEADLINE_S) as answer:  # noqa: S310
        return answer.read().decode()


class _Server:
    """A program that listens on a port of 127.0.0.1; a context manager."""

    def __init__(self, program, port, log, readyPath):
        self.url = f"http://127.0.0.1:{port}"
        self._program, self._log, self._readyPath = program, log, readyPath
        self._popen = None

    def arguments(self):
        raise NotImplementedError

    def __enter__(self):
        with open(self._log, "ab") as output:
            command = [self._program, *map(str, self.arguments())]
            self._popen = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        try:
            waitUntil(self._isReady, _START_DEADLINE_S, f"{self._program} listens")
        except AssertionError:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self._popen.send_signal(signal.SIGTERM)
        try:
            self._popen.wait(_STOP_DEADLINE_S)
        except subprocess.TimeoutExpired:
            self._popen.kill()
            self._popen.wait()
            raise AssertionError(f"{self._program} did not end") from None

    def _isReady(self):
        if self._popen.poll() is not None:
            raise AssertionError(f"{self._program} ended:\n{self._log.read_text()}")
        try:
            fetch(self.url + self._readyPath)
        except (OSError, http.client.HTTPException):
            return False
        return True


class SnmpExporter(_Server):
    """Prometheus' SNMP exporter with our configuration: this machine's, or another release's."""

    def __init__(self, folder, release=None, configs=None, port=9116):
        release = release or Release(INSTALLED, _FORMS[_formOf(INSTALLED)])
        super().__init__(release.programs / "prometheus-snmp-exporter", port, folder / "exporter.log", "/metrics")
        self._listen = f"127.0.0.1:{port}"
        self._configs = configs or [release.config]

    def arguments(self):
        configs = [f"--config.file={config}" for config in self._configs]
        return [*configs, f"--web.listen-address={self._listen}"]

    def scrape(self, module, port):
        """The samples that a module makes of the agent on a port. Raises urllib's HTTPError when it does not answer."""
        query = urllib.parse.urlencode({"target": f"127.0.0.1:{port}", "module": module, "auth": "kxsnmp"})
        return parseMetrics(fetch(f"{self.url}/snmp?{query}"))


def hastyConfig(folder, port):
    """The shipped configuration and rules, for the agent on a port: every time and interval is one of seconds.
    @return the path of the configuration, in `folder`"""
    rules = RULES.read_text().replace("[5m]", f"[{WINDOW}]")
    (folder / RULES.name).write_text(re.sub(r"for: \d+m", "for: 0s", rules))
    text = CONFIG.read_text().replace("192.0.2.10", f"127.0.0.1:{port}")
    hasty = re.sub(r"(interval|timeout): \d+[ms]\b", rf"\1: {INTERVAL}", text)
    config = folder / CONFIG.name
    config.write_text("global:\n  evaluation_interval: 500ms\n" + hasty)
    return config


class Prometheus(_Server):
    """A Prometheus that stores what it scrapes in a folder of its own."""

    def __init__(self, folder, config, port=9090):
        super().__init__("prometheus", port, folder / "prometheus.log", "/-/ready")
        self._listen = f"127.0.0.1:{port}"
        self._folder, self._config = folder, config

    def arguments(self):
        storage = f"--storage.tsdb.path={self._folder}/data"
        return [f"--config.file={self._config}", f"--web.listen-address={self._listen}", storage]

    def query(self, expression):
        """What an instant query finds: a list of pairs of labels and value. Raises HTTPError for a wrong query."""
        answer = json.loads(fetch(f"{self.url}/api/v1/query?{urllib.parse.urlencode({'query': expression})}"))
        return [(found["metric"], float(found["value"][1])) for found in answer["data"]["result"]]

    def firing(self):
        """The names of the alerts that are firing."""
        return {labels["alertname"] for labels, _ in self.query('ALERTS{alertstate="firing"}')}
