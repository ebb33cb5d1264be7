"""What docs/operations.md says of log lines is what the programs log, and all of it."""

import re

import pytest
from support.host import PROJECT

OPERATIONS = (PROJECT / "docs/operations.md").read_text()
SOURCES = [
    path
    for part in ("agent", "client/src", "daemon")
    for path in sorted((PROJECT / part).rglob("*"))
    if path.suffix in (".h", ".cpp")
]

# What net-snmp logs in kxsnmp's name is in no source of ours.
FOREIGN_TABLE = "net-snmp's own lines in it"

TEXT = r'"(?:[^"\\]|\\.)*"'
VARIABLE = r"\{[^}]*\}|%[a-z]+"
LOG_CALL = re.compile(r"\b(?:log::(?:info|warning|error)\(|log_?\(Severity|logOnChange\(|snmp_log\()")
LEAST_LETTERS = 7  # of a text that can be told from others


def unquoted(literals):
    joined = "".join(literal[1:-1] for literal in literals)
    return joined.replace('\\"', '"').replace("\\n", "").replace("\\\\", "\\")


def textsIn(source):
    """The texts of a source, those that follow each other joined as the compiler does."""
    return [unquoted(re.findall(TEXT, run)) for run in re.findall(rf"{TEXT}(?:\s*{TEXT})*", source)]


def letters(text):
    return len(re.sub("[^a-zA-Z]", "", text))


def constantParts(text):
    """What of a format string is the same in each line."""
    return [part.strip(" :;,()") for part in re.split(VARIABLE, text)]


def patterns():
    """They find what format strings of the sources make, the longest first."""
    texts = {text.strip() for path in SOURCES for text in textsIn(path.read_text())}
    found = [text for text in texts if sum(map(letters, constantParts(text))) >= LEAST_LETTERS]
    parts = [re.split(VARIABLE, text) for text in sorted(found, key=len, reverse=True)]
    return [re.compile(r"\S+".join(map(re.escape, each))) for each in parts]


def documentedLines(section):
    """The lines in the first columns of a section's tables."""
    rows = re.findall(r"^\| (`.*?`) \|.*\|$", section, re.MULTILINE)
    return [line for row in rows for line in re.findall(r"`([^`]+)`", row)]


def sections():
    """The sections about log lines; without net-snmp's own table."""
    found = dict(re.findall(r"^## Log lines of (\w+)\n(.*?)(?=^## )", OPERATIONS, re.MULTILINE | re.DOTALL))
    return [found["kxsnmp"].split(FOREIGN_TABLE)[0], found["kxagentd"]]


def loggedTexts():
    for path in SOURCES:
        source = path.read_text()
        for call in LOG_CALL.finditer(source):
            for text in textsIn(source[call.end() : source.index(";\n", call.end())]):
                longest = max(constantParts(text), key=letters)
                if letters(longest) >= LEAST_LETTERS:
                    yield f"{path.relative_to(PROJECT)}: {text}", longest


PATTERNS = patterns()
DOCUMENTED = [line for section in sections() for line in documentedLines(section)]


@pytest.mark.parametrize("line", DOCUMENTED, ids=[line[:60] for line in DOCUMENTED])
def test_a_documented_line_is_logged(line):
    left = line
    # What is put into a text may be another text: the longest that is found is taken out, again and again.
    while found := next((pattern for pattern in PATTERNS if pattern.search(left)), None):
        left = found.sub("...", left)
    left = re.sub(r"\b[A-Z]+\b", "", left)  # what differs
    assert letters(left) == 0, f"no source says: {left.strip()}"


@pytest.mark.parametrize("logged", [pytest.param(part, id=where[-90:]) for where, part in loggedTexts()])
def test_a_logged_line_is_documented(logged):
    assert logged in " ".join(sections())
