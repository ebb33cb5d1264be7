"""The checks of consumers/nagios, run as Nagios runs them: macros filled in, by a shell."""

import re

from .consumers import CONSUMERS, run

CONFIGURATION = (CONSUMERS / "nagios/kxsnmp.cfg").read_text()
_PLUGINS = "/usr/lib/nagios/plugins"

# By their exit statuses.
OK, WARNING, CRITICAL, UNKNOWN = _STATUSES = ["OK", "WARNING", "CRITICAL", "UNKNOWN"]


def commandLines():
    """The command lines of the configuration by their names."""
    return dict(re.findall(r"command_name +(\S+)\n +command_line +(.*)", CONFIGURATION))


def check(port, call):
    """Runs a check_command as it stands in a service's definition. @return what its exit status means, and its line"""
    name, *arguments = call.split("!")
    macros = {"HOSTADDRESS": "127.0.0.1", "_HOSTSNMPPORT": port, "_HOSTSNMPCOMMUNITY": "public"}
    macros |= {f"ARG{number}": argument for number, argument in enumerate(arguments, start=1)}
    return runLine(commandLines()[name], macros)


def runLine(line, macros):
    """Runs a command line. @return what its exit status means, and its line"""
    values = {"USER1": _PLUGINS, **macros}
    filled = re.sub(r"\$(\w+)\$", lambda macro: str(values[macro.group(1)]), line)
    done = run(["sh", "-c", filled], check=False)
    return _STATUSES[done.returncode], done.stdout.strip()
