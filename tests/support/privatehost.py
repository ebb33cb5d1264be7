"""Puts this process into namespaces of its own, so that nothing done from here on touches the machine.

What is mounted over: /dev (the same nodes, but a /dev/log of our own), and every folder that the programs under
test have a built-in path in. Undone by the kernel when the last process in the namespaces ends.
"""

import ctypes
import fcntl
import os
import socket
import stat
import struct
import tempfile

_CLONE_NEWNS, _CLONE_NEWNET = 0x00020000, 0x40000000
_MS_BIND, _MS_MOVE, _MS_REC, _MS_PRIVATE, _MS_SLAVE = 4096, 8192, 16384, 1 << 18, 1 << 19
_PR_SET_CHILD_SUBREAPER = 36
_SIOCGIFFLAGS, _SIOCSIFFLAGS, _IFF_UP = 0x8913, 0x8914, 1

SYSLOG_SOCKET = "/dev/log"

# Folders that the programs under test, or the tools beside them, have built in or write to.
BUILT_IN_FOLDERS = ["/var/opt", "/var/lib/lxc", "/var/lib/snmp", "/run"]

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, what):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def _mount(source, target, kind=None, flags=0):
    encoded = [None if text is None else os.fsencode(text) for text in (source, target, kind)]
    _check(_libc.mount(*encoded, ctypes.c_ulong(flags), None), f"mount on {target}")


def _copyNode(source, target):
    """One entry of /dev: device nodes are made anew, or bound where making them is not allowed."""
    info = os.lstat(source)
    if stat.S_ISLNK(info.st_mode):
        os.symlink(os.readlink(source), target)
    elif stat.S_ISDIR(info.st_mode):
        os.mkdir(target)
        _mount(source, target, flags=_MS_BIND | _MS_REC)
    elif stat.S_ISCHR(info.st_mode) or stat.S_ISBLK(info.st_mode):
        try:
            os.mknod(target, info.st_mode, info.st_rdev)
            os.chmod(target, stat.S_IMODE(info.st_mode))
        except PermissionError:
            os.close(os.open(target, os.O_CREAT | os.O_WRONLY))
            _mount(source, target, flags=_MS_BIND)


def _makePrivateDev():
    staging = tempfile.mkdtemp(prefix="kxdev")
    _mount("kxdev", staging, "tmpfs")
    os.chmod(staging, 0o755)
    for name in os.listdir("/dev"):
        if name != os.path.basename(SYSLOG_SOCKET):
            _copyNode(f"/dev/{name}", f"{staging}/{name}")
    _mount(staging, "/dev", flags=_MS_MOVE)
    os.rmdir(staging)


def _loopbackUp():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sH14x", b"lo", 0)
        flags = struct.unpack("16sH14x", fcntl.ioctl(any_socket, _SIOCGIFFLAGS, request))[1]
        fcntl.ioctl(any_socket, _SIOCSIFFLAGS, struct.pack("16sH14x", b"lo", flags | _IFF_UP))


def becomeSubreaper():
    """Processes that detach themselves from their parents become children of this one, so that they can be
    found, waited for and ended."""
    _check(_libc.prctl(_PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), "prctl")


def enter(emptyFolders, ownNetwork, followMounts=False):
    """Moves this process into a mount namespace, and a network namespace with lo up if `ownNetwork`.

    Must run before the process has threads. Each of `emptyFolders` is covered with a tmpfs, made first if need be.
    What is mounted outside later on is not seen inside, unless `followMounts`; the other way round nothing ever is.
    Needs root; raises PermissionError otherwise.
    """
    _check(_libc.unshare(_CLONE_NEWNS | (_CLONE_NEWNET if ownNetwork else 0)), "unshare")
    _mount(None, "/", flags=_MS_REC | (_MS_SLAVE if followMounts else _MS_PRIVATE))
    _makePrivateDev()
    for folder in emptyFolders:
        os.makedirs(folder, exist_ok=True)
        _mount("kxempty", folder, "tmpfs")
        os.chmod(folder, 0o755)
    if ownNetwork:
        _loopbackUp()
    becomeSubreaper()
