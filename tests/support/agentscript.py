"""An agent that does as a test says: it answers clients' handshakes, and goes on by a script for each kind of connection."""

import os
import socket
import struct
import threading

from .agentpeer import loadSchema
from .parts import Agent

SERVER_EID = b"\x5e" * 16
CAPABILITIES = [b"snapshot", b"vocabulary", b"events", b"raise", b"counters"]


class Peer:
    """One client's connection. Methods raise OSError or return None once the client is gone."""

    def __init__(self, connected, schema):
        self.schema = schema
        self._socket = connected

    def sendBytes(self, data):
        self._socket.sendall(data)

    def send(self, frame):
        self.sendBytes(encoded(frame))

    def read(self):
        header = self._read(4)
        payload = self._read(struct.unpack(">I", header)[0]) if header else None
        return None if payload is None else self.schema.Frame.FromString(payload)

    def _read(self, count):
        data = bytearray()
        while len(data) < count:
            part = self._socket.recv(count - len(data))
            if not part:
                return None
            data += part
        return bytes(data)

    def serveFirstData(self, count=1):
        """A list of as many containers, and vocabularies without anything."""
        frame = self.schema.Frame()
        frame.snapshot_chunk.generation = 1
        frame.snapshot_chunk.last = True
        for number in range(1, count + 1):
            environment = frame.snapshot_chunk.environments.add(eid=struct.pack(">QQ", 0, number), type=b"lumetra")
            environment.configuration.veid = number
        self.send(frame)
        frame = self.schema.Frame()
        frame.vocabulary_set.SetInParent()
        self.send(frame)

    def readUntilClosed(self):
        while self.read() is not None:
            pass


def encoded(frame):
    payload = frame.SerializeToString()
    return struct.pack(">I", len(payload)) + payload


class ScriptedAgent:
    """Listens where clients look for the agent, and runs a script on a thread of its own for each connection."""

    def __init__(self, link, events=Peer.readUntilClosed):
        """link, events: what is done with a connection of either kind once it has asked for its first data."""
        self.schema = loadSchema()
        self.connections = 0
        self._scripts = {"snapshot_request": link, "event_subscribe": events}
        self._open = []
        self._lock = threading.Lock()
        os.makedirs(os.path.dirname(Agent.SOCKET), exist_ok=True)
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(Agent.SOCKET)
        self._listener.listen(16)
        self._acceptor = threading.Thread(target=self._accept, daemon=True)
        self._acceptor.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._acceptor.join()
        self._listener.close()
        os.unlink(Agent.SOCKET)
        with self._lock:
            for connected in self._open:
                connected.close()

    def _accept(self):
        while True:
            try:
                connected, _ = self._listener.accept()
            except OSError:
                return
            with self._lock:
                self.connections += 1
                self._open.append(connected)
            threading.Thread(target=self._serve, args=(connected,), daemon=True).start()

    def _serve(self, connected):
        peer = Peer(connected, self.schema)
        try:
            peer.read()
            frame = self.schema.Frame()
            frame.hello.protocol_major = 1
            frame.hello.program = b"scripted agent"
            frame.hello.server_eid = SERVER_EID
            frame.hello.capabilities.extend(CAPABILITIES)
            peer.send(frame)
            request = peer.read()
            if request is not None:
                self._scripts[request.WhichOneof("body")](peer)
        except OSError:
            pass  # the client has gone, which some scripts are written for
        finally:
            try:
                connected.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
