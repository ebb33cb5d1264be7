"""A peer of the management agent's socket that can speak the protocol, and break it."""

import importlib
import socket
import struct
import subprocess
import sys
import tempfile
from pathlib import Path

_SCHEMA = Path(__file__).resolve().parents[2] / "wire/kxwire.proto"
_HEADER_BYTES = 4


def loadSchema():
    """The message classes, generated from the one schema both sides of the socket use."""
    name = "kxwire_pb2"
    if name not in sys.modules:
        with tempfile.TemporaryDirectory(prefix="kxproto") as folder:
            subprocess.run(["protoc", f"-I{_SCHEMA.parent}", f"--python_out={folder}", _SCHEMA], check=True)
            sys.path.insert(0, folder)
            try:
                importlib.import_module(name)
            finally:
                sys.path.remove(folder)
    return sys.modules[name]


class AgentPeer:
    """One connection. Reads and writes with a deadline, so that a silent agent fails a test and does not hang it."""

    def __init__(self, path, timeoutSeconds=5):
        self.schema = loadSchema()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(timeoutSeconds)
        self._socket.connect(path)

    def setTimeout(self, seconds):
        self._socket.settimeout(seconds)

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def sendBytes(self, data):
        self._socket.sendall(data)

    def sendFrame(self, frame):
        payload = frame.SerializeToString()
        self.sendBytes(struct.pack(">I", len(payload)) + payload)

    def sendHello(self, major=1, minor=0, program=b"peer", capabilities=()):
        frame = self.schema.Frame()
        frame.hello.protocol_major = major
        frame.hello.protocol_minor = minor
        frame.hello.program = program
        frame.hello.capabilities.extend([b"snapshot", b"vocabulary", *capabilities])
        self.sendFrame(frame)

    def ask(self, body):
        """Sends a frame whose only content is the empty body of this name."""
        frame = self.schema.Frame(request_id=1)
        getattr(frame, body).SetInParent()
        self.sendFrame(frame)

    def _receiveExactly(self, count):
        data = bytearray()
        while len(data) < count:
            part = self._socket.recv(count - len(data))
            if not part:
                return None
            data += part
        return bytes(data)

    def receiveFrame(self):
        """The next frame; None when the agent has closed the connection."""
        header = self._receiveExactly(_HEADER_BYTES)
        if header is None:
            return None
        payload = self._receiveExactly(struct.unpack(">I", header)[0])
        return None if payload is None else self.schema.Frame.FromString(payload)

    def handshake(self, **hello):
        """Does what a well-behaved client does first. @return the agent's Hello"""
        self.sendHello(**hello)
        frame = self.receiveFrame()
        if frame is None or not frame.HasField("hello"):
            raise AssertionError(f"no Hello from the agent but {frame}")
        return frame.hello

    def askForEvents(self, name=b"events", requestId=1, consumer=b""):
        """Asks for a subscription. @return the answer"""
        frame = self.schema.Frame(request_id=requestId)
        frame.event_subscribe.name = name
        frame.event_subscribe.consumer = consumer
        self.sendFrame(frame)
        return self.receiveFrame()

    def subscribe(self, consumer=b""):
        """Introduces itself and subscribes to events. @return itself"""
        self.handshake()
        answer = self.askForEvents(consumer=consumer)
        if answer is None or not answer.HasField("done"):
            raise AssertionError(f"the subscription was not confirmed: {answer}")
        return self

    def acknowledge(self, sequence):
        """All messages of events up to this one have been handled."""
        frame = self.schema.Frame()
        frame.event_ack.sequence = sequence
        self.sendFrame(frame)

    def nextEvents(self):
        """The events of the next frame, which must be one of events."""
        frame = self.receiveFrame()
        if frame is None or not frame.HasField("event_message"):
            raise AssertionError(f"no events from the agent but {frame}")
        return list(frame.event_message.events)

    def events(self, count):
        """As many events as are asked for, from as many frames as it takes."""
        events = []
        while len(events) < count:
            events.extend(self.nextEvents())
        return events

    def snapshot(self):
        """The whole list of environments."""
        self.ask("snapshot_request")
        environments = []
        while True:
            frame = self.receiveFrame()
            if frame is None:
                raise AssertionError("the agent closed the connection within a snapshot")
            if frame.HasField("snapshot_chunk"):
                environments.extend(frame.snapshot_chunk.environments)
                if frame.snapshot_chunk.last:
                    return environments
