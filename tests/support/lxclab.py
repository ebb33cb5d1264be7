"""A lab of real LXC containers for the tests; lxclab.sh does the work and explains its commands."""

import os
import signal
import subprocess
from pathlib import Path

_SCRIPT = Path(__file__).with_suffix(".sh")
_COMMAND_DEADLINE_S = 60
_CONTAINERS = "/var/lib/lxc"
_CGROUPS = "/sys/fs/cgroup"


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

    def containers(self):
        """The names of all containers, those included whose configuration LXC cannot read."""
        return self.do("exec", "ls", _CONTAINERS).split()

    def destroyAll(self):
        """Leaves the lab without a container, whatever a test has made of them."""
        for name in self.containers():
            try:
                self.do("destroy", name)
            except AssertionError:  # LXC cannot read its configuration
                self.do("exec", "rm", "-rf", f"{_CONTAINERS}/{name}")

    def cgroup(self, name, controller):
        """The folder of a running container's cgroup that has this controller: v1's of its own, or v2's."""
        lines = Path(f"/proc/{self.init(name)}/cgroup").read_text().splitlines()
        paths = {names: path for _, names, path in (line.split(":", 2) for line in lines)}
        for names, path in paths.items():
            if controller in names.split(","):
                return Path(f"{_CGROUPS}/{controller}{path}")
        return Path(f"{_CGROUPS}{paths['']}")

    def writeFile(self, path, text):
        """Writes a file inside the lab, where /var/lib/lxc is the lab's own."""
        subprocess.run([*self.launcher, "tee", path], input=text, stdout=subprocess.DEVNULL, text=True, check=True)

    def init(self, name):
        """The init process of a running container. Its number means the same outside the lab."""
        return int(self.do("exec", "lxc-info", "-pH", "-n", name))

    def ip(self, name, *arguments):
        """Runs `ip` in the network namespace of a running container; returns what it prints."""
        return self.do("exec", "nsenter", "--net", "--target", str(self.init(name)), "--", "ip", *arguments)

    def spawn(self, name, command, **options):
        """Starts a shell command in a running container and does not wait for it; `options` are Popen's."""
        words = [*self.launcher, "lxc-attach", "-n", name, "--", "/bin/sh", "-c", command]
        return subprocess.Popen(words, **options)

    @staticmethod
    def end(spawned):
        """Ends what spawn() has started. Not by killing lxc-attach: what it runs would become a child of some process
        out here, and the container could not end before that one had buried it."""
        for child in Path(f"/proc/{spawned.pid}/task/{spawned.pid}/children").read_text().split():
            os.kill(int(child), signal.SIGKILL)
        spawned.communicate(timeout=_COMMAND_DEADLINE_S)

    def takeNetwork(self, name):
        """Leaves a stopped container nothing but its loopback."""
        edits = ["-e", "/^lxc[.]net[.]/d", "-e", "$a lxc.net.0.type = empty"]
        self.do("exec", "sed", "-i", *edits, f"/var/lib/lxc/{name}/config")

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
