"""The checks of consumers/nagios, run as Nagios runs them: macros filled in, by a shell."""

import re

from .consumers import CONSUMERS, run

FOLDER = CONSUMERS / "nagios"
CONFIGURATION = (FOLDER / "kxsnmp.cfg").read_text()

# By their exit statuses.
OK, WARNING, CRITICAL, UNKNOWN = _STATUSES = ["OK", "WARNING", "CRITICAL", "UNKNOWN"]


def calls():
    """What the services of the configuration call."""
    return re.findall(r"check_command +(.*)", CONFIGURATION)


def check(port, call):
    """Runs a check_command as it stands in a service's definition. @return what its exit status means, and its output"""
    (line,) = re.findall(r"command_name +check_kxsnmp\n +command_line +(.*)", CONFIGURATION)
    name, *arguments = call.split("!")
    assert name == "check_kxsnmp"
    macros = {"USER1": FOLDER, "HOSTADDRESS": "127.0.0.1", "_HOSTSNMPPORT": port, "_HOSTSNMPCOMMUNITY": "public"}
    macros |= {f"ARG{number}": "" for number in (1, 2)}
    macros |= {f"ARG{number}": argument for number, argument in enumerate(arguments, start=1)}
    done = run(["sh", "-c", re.sub(r"\$(\w+)\$", lambda macro: str(macros[macro.group(1)]), line)], check=False)
    assert done.stderr == ""
    return _STATUSES[done.returncode], done.stdout.strip()
