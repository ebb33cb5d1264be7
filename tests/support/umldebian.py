"""A Debian in a user-mode-linux guest: a whole machine, with control groups that limit; umldebian.sh explains how."""

import os
import shutil
import signal
import subprocess
from pathlib import Path

from . import debianroot

_KERNEL = "linux.uml"
_INIT = Path(__file__).with_suffix(".sh")
_DEADLINE_S = 300  # some 60 s where nothing else runs


def obstacle():
    """Why no guest can run on this machine; empty when one can."""
    return debianroot.obstacle() or ("" if shutil.which(_KERNEL) else f"{_KERNEL} is not installed")


def run(folder, script):
    """Boots the guest, runs a script of bash in it, and waits for its end. `folder` may have a folder "files", which is
    copied over the guest's root before it boots. @return status and output of the script"""
    folder = Path(folder)
    (folder / "files").mkdir(exist_ok=True)
    (folder / "script").write_text(script)
    # In memory, all of it: the unpacked Debian, and what runs.
    command = [_KERNEL, "mem=1400M", "root=/dev/root", "rootfstype=hostfs", "rootflags=/", "ro", f"init={_INIT}"]
    command += [f"uml_dir={folder}/uml", "con=null", "con0=fd:0,fd:1", "quiet"]
    command += [f"KX_OUT={folder}", f"KX_ROOT={debianroot.ARCHIVE}"]
    with open(folder / "console", "wb") as console:
        guest = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=console, stderr=console, process_group=0)
        try:
            guest.wait(_DEADLINE_S)
        finally:
            # It runs as several processes, which are a group.
            if guest.poll() is None:
                os.killpg(guest.pid, signal.SIGKILL)
                guest.wait()
    if not (folder / "status").exists():
        raise AssertionError("the guest has not come to its end:\n" + _said(folder))
    return int((folder / "status").read_text()), (folder / "output").read_text(errors="replace")


def _said(folder):
    logs = [folder / name for name in ("console", "boot.log", "systemd.log", "output")]
    return "\n".join(f"--- {log.name}\n{log.read_text(errors='replace')[-5000:]}" for log in logs if log.exists())
