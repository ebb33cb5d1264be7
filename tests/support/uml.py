"""A user-mode-linux guest: a kernel of its own, as a program."""

import os
import shutil
import signal
import subprocess
from pathlib import Path

KERNEL = "linux.uml"


def obstacle():
    """Why no guest can run on this machine; empty when one can."""
    return "" if shutil.which(KERNEL) else f"{KERNEL} is not installed"


def boot(folder, init, memory, deadlineSeconds, **settings):
    """Runs a guest until it turns itself off. Its root is the host's, read-only; `init` is its first process, and gets the
    settings from the kernel's command line. @return the file with what its kernel has said, in `folder`"""
    command = [KERNEL, f"mem={memory}", "root=/dev/root", "rootfstype=hostfs", "rootflags=/", "ro", f"init={init}"]
    command += [f"uml_dir={folder}/uml", "con=null", "con0=fd:0,fd:1", "quiet"]
    command += [f"{name}={value}" for name, value in settings.items()]
    console = Path(folder) / "console"
    with open(console, "wb") as output:
        guest = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output, process_group=0)
        try:
            guest.wait(deadlineSeconds)
        finally:
            # It runs as several processes, which are a group.
            if guest.poll() is None:
                os.killpg(guest.pid, signal.SIGKILL)
                guest.wait()
    return console
