"""A Debian in a user-mode-linux guest: a whole machine, with control groups that limit; umldebian.sh explains how."""

from pathlib import Path

from . import debianroot, uml

_INIT = Path(__file__).with_suffix(".sh")
_DEADLINE_S = 300  # some 60 s where nothing else runs


def obstacle():
    """Why no guest can run on this machine; empty when one can."""
    return debianroot.obstacle() or uml.obstacle()


def run(folder, script):
    """Boots the guest, runs a script of bash in it, and waits for its end. `folder` may have a folder "files", which is
    copied over the guest's root before it boots. @return status and output of the script"""
    folder = Path(folder)
    (folder / "files").mkdir(exist_ok=True)
    (folder / "script").write_text(script)
    # In memory, all of it: the unpacked Debian, and what runs.
    uml.boot(folder, _INIT, "1400M", _DEADLINE_S, KX_OUT=folder, KX_ROOT=debianroot.ARCHIVE)
    if not (folder / "status").exists():
        raise AssertionError("the guest has not come to its end:\n" + _said(folder))
    return int((folder / "status").read_text()), (folder / "output").read_text(errors="replace")


def _said(folder):
    logs = [folder / name for name in ("console", "boot.log", "systemd.log", "output")]
    return "\n".join(f"--- {log.name}\n{log.read_text(errors='replace')[-5000:]}" for log in logs if log.exists())
