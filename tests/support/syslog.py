"""Collects what programs send to syslog."""

import os
import re
import socket
import threading
from typing import NamedTuple

from . import privatehost

ERR, WARNING, INFO = 3, 4, 6  # the priorities of syslog(3)

_MAX_LINE_BYTES = 65536
_MARK = b"all lines before this one have come"
_MARK_DEADLINE_S = 10
_LINE = re.compile(r"<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?([^:\[\s]+)(?:\[(\d+)\])?: ?(.*)", re.DOTALL)


class SyslogLine(NamedTuple):
    priority: int
    program: str
    pid: int
    text: str


def _parse(data):
    match = _LINE.match(data.decode("utf-8", "replace").rstrip("\0"))
    if match is None:
        return SyslogLine(-1, "", 0, repr(data))
    priority, program, pid, text = match.groups()
    return SyslogLine(int(priority) & 7, program, int(pid or 0), text)


class SyslogCollector:
    """Owns the datagram socket. A thread empties it, because a full one would block the senders.

    Datagrams keep their order, so whoever asks for lines sends one of its own and waits until that has come: then
    everything sent before has come too.
    """

    def __init__(self, path=privatehost.SYSLOG_SOCKET):
        self._lines = []
        self._marksSeen = 0
        self._marksSent = 0
        self._changed = threading.Condition()
        self._path = path
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        os.chmod(path, 0o666)
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        while True:
            data = self._socket.recv(_MAX_LINE_BYTES)
            if not data:
                return
            with self._changed:
                if data == _MARK:
                    self._marksSeen += 1
                    self._changed.notify_all()
                else:
                    self._lines.append(_parse(data))

    def _send(self, data):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(data, self._path)

    def _waitForAllSent(self):
        self._send(_MARK)
        with self._changed:
            self._marksSent += 1
            if not self._changed.wait_for(lambda: self._marksSeen >= self._marksSent, _MARK_DEADLINE_S):
                raise AssertionError("the syslog collector does not collect")

    def lines(self, pid=None):
        """What was sent so far, in order; of one process if `pid` is given."""
        self._waitForAllSent()
        with self._changed:
            return [line for line in self._lines if pid is None or line.pid == pid]

    def texts(self, pid=None):
        return [line.text.rstrip("\n") for line in self.lines(pid)]

    def close(self):
        # An empty datagram ends the thread; closing the socket alone would leave it in recv().
        self._send(b"")
        self._thread.join()
        self._socket.close()
        os.unlink(self._path)
