"""kxctl as an operator types it."""

import json
import os
import pty
import shutil
import struct
import subprocess
import termios
from fcntl import ioctl

from . import sanitizers
from .host import buildFolder

PROGRAM = buildFolder() / "ctl/kxctl"
DEADLINE_S = 20
NOBODY = 65534

DONE, REFUSED, WRONG_USAGE, UNREACHABLE = range(4)


def command(*arguments, program=PROGRAM):
    launcher = sanitizers.launcher() if sanitizers.isSanitized(PROGRAM) else []
    return [*launcher, program, *arguments]


def surroundings(**more):
    """Environment of kxctl: a sanitizer's report changes its exit status."""
    return {**os.environ, **sanitizers.environment(), **more}


def run(*arguments, program=PROGRAM, **options):
    common = {"capture_output": True, "timeout": DEADLINE_S, "check": False, "env": surroundings()}
    return subprocess.run(command(*arguments, program=program), **{**common, **options})


def runAsNobody(folder, *arguments):
    """Runs a copy of the program in `folder`, where everybody may run it."""
    folder.mkdir(mode=0o755, exist_ok=True)
    copied = shutil.copy(PROGRAM, folder)
    for library in (buildFolder() / "client").glob("libkxclient.so*"):
        shutil.copy(library, folder)
    environment = surroundings(LD_LIBRARY_PATH=str(folder))
    who = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
    return run(*arguments, program=copied, text=True, env=environment, **who)


def document(*arguments, status=DONE):
    """The one JSON document that a command shows."""
    done = run(*arguments, "--json", text=True)
    assert (done.returncode, done.stderr) == (status, ""), done.stderr
    (line,) = done.stdout.splitlines()
    return json.loads(line)


class Terminal:
    """A pseudo terminal on which a program runs. What it writes is kept as it comes."""

    def __init__(self, columns, rows, *arguments, **environment):
        self.written = b""
        self.master, self.slave = pty.openpty()
        self.resize(columns, rows)
        self.before = termios.tcgetattr(self.slave)
        os.set_blocking(self.master, False)
        self.popen = subprocess.Popen(
            command(*arguments),
            stdin=self.slave,
            stdout=self.slave,
            stderr=self.slave,
            env=surroundings(**{"TERM": "xterm", **environment}),
            start_new_session=True,
            preexec_fn=lambda: ioctl(0, termios.TIOCSCTTY, 0),
        )

    def resize(self, columns, rows):
        ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def type(self, keys):
        os.write(self.master, keys)

    def read(self):
        """All that was written so far."""
        try:
            while part := os.read(self.master, 65536):
                self.written += part
        except OSError:  # nothing more for now, or nobody has the terminal open
            pass
        return self.written

    def isRestored(self):
        """Whether keys are shown and come line by line again."""
        return termios.tcgetattr(self.slave) == self.before

    def wait(self):
        return self.popen.wait(DEADLINE_S)

    def close(self):
        self.popen.kill()
        self.popen.wait()
        os.close(self.slave)
        os.close(self.master)
