"""A lab of real LXC containers for the tests; lxclab.sh does the work and explains its commands."""

import os
import subprocess
from pathlib import Path

_SCRIPT = Path(__file__).with_suffix(".sh")
_COMMAND_DEADLINE_S = 60


def obstacle():
    """Why there can be no lab on this machine; empty when there can."""
    done = subprocess.run([_SCRIPT, "check"], stdout=subprocess.PIPE, text=True, check=False)
    return done.stdout.strip() if done.returncode else ""


class LxcLab:
    """Holds a lab open. Its namespaces are children of this process's, so it shares our /tmp and /var/opt."""

    def __init__(self):
        self._holder = subprocess.Popen([_SCRIPT, "hold"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        words = self._holder.stdout.readline().split()
        if len(words) != 2 or words[0] != "ready":
            raise AssertionError(f"the lab is not ready: {words}")
        self.pid = words[1]
        self.launcher = ["nsenter", "--mount", "--net", "--target", self.pid, "--"]

    def do(self, command, *arguments):
        """Runs a command of lxclab.sh in the lab and returns when it is done; raises when it fails."""
        done = subprocess.run(
            [_SCRIPT, command, *arguments],
            env={**os.environ, "LXCLAB_PID": self.pid},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=_COMMAND_DEADLINE_S,
            check=False,
        )
        if done.returncode:
            raise AssertionError(f"lxclab {command} {arguments}: {done.stdout}")
        return done.stdout

    def writeFile(self, path, text):
        """Writes a file inside the lab, where /var/lib/lxc is the lab's own."""
        subprocess.run([*self.launcher, "tee", path], input=text, stdout=subprocess.DEVNULL, text=True, check=True)

    def ip(self, name, *arguments):
        """Runs `ip` in the network namespace of a running container."""
        init = self.do("exec", "lxc-info", "-pH", "-n", name).strip()
        self.do("exec", "nsenter", "--net", "--target", init, "--", "ip", *arguments)

    def configuredAddress(self, name):
        """The one address of a container, as the lab has put it into its configuration: ADDRESS, PREFIX LENGTH."""
        path = f"/var/lib/lxc/{name}/config"
        text = self.do("exec", "sed", "-n", "s/^lxc.net.0.ipv4.address = //p", path).strip()
        address, prefix = text.split("/")
        return address, int(prefix)

    def close(self):
        self._holder.stdin.close()
        self._holder.wait(_COMMAND_DEADLINE_S)
        self._holder.stdout.close()
