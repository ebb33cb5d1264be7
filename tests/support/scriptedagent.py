"""A management agent that does what a test wants: it serves containers, and sends messages of events as they are given.

It listens on the agent's socket in place of kxagentd. Each connection has a thread; a test calls from its own thread.
"""

import contextlib
import os
import socket
import struct
import threading
from pathlib import Path

from .agentpeer import loadSchema
from .parts import Agent
from .wait import waitUntil

SERVER_EID = b"s" * 16
FIRST_NUMBER = 2001
NET_CLASS, QUOTA_CLASS = b"counters_kx_net", b"counters_kx_quota"
_COUNTERS = {
    NET_CLASS: [b"bytes_in", b"packets_in", b"bytes_out", b"packets_out"],
    QUOTA_CLASS: [b"diskspace_used", b"diskspace_softlimit", b"diskspace_hardlimit", b"diskspace_grace"]
    + [b"inodes_used", b"inodes_softlimit", b"inodes_hardlimit", b"inodes_grace"],
}
_CAPABILITIES = [b"snapshot", b"vocabulary", b"events", b"counters", b"event-acks"]


def eidOf(number):
    """The identifier of the container with this number."""
    return b"container" + b"%07d" % number


class ScriptedAgent:
    """Serves `containers` containers, numbered from FIRST_NUMBER. Ends with close()."""

    def __init__(self, containers=100, path=Agent.SOCKET):
        self.schema = loadSchema()
        self.numbers = list(range(FIRST_NUMBER, FIRST_NUMBER + containers))
        self.acknowledged = []  # sequence numbers, in the order of their arrival
        self.consumers = []  # of each subscription
        self._subscribers = []
        self._connections = []
        Path(path).parent.mkdir(parents=True, exist_ok=True)
        Path(path).unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(path)
        self._listener.listen()
        self._path = path
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        os.unlink(self._path)
        for one in [self._listener, *self._connections]:
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
            one.close()

    def waitForSubscription(self, deadlineSeconds=20):
        waitUntil(lambda: self._subscribers, deadlineSeconds, "somebody subscribes to the events")

    def alerts(self, texts):
        """A message with one alert for each text, about the containers in turn."""
        message = self.schema.Frame().event_message
        for place, text in enumerate(texts):
            event = message.events.add(type=b"resource_alert", time_ms=1)
            alert = event.resource_alert
            alert.eid, alert.code = eidOf(self.numbers[place % len(self.numbers)]), 1
            alert.text, alert.value = text, place
        return message

    def send(self, message, sequence=0):
        """Sends a message to the latest subscriber. Waits while that does not read."""
        frame = self.schema.Frame(event_message=message)
        frame.event_message.sequence = sequence
        self.sendRaw(frame.SerializeToString())

    def sendRaw(self, payload):
        """Sends a frame with any bytes to the latest subscriber."""
        self._subscribers[-1].sendall(struct.pack(">I", len(payload)) + payload)

    # ---- serving, on a thread for each connection ----

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self._listener.accept()
                self._connections.append(connection)
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with contextlib.suppress(OSError), connection.makefile("rb") as stream:
            while header := stream.read(4):
                request = self.schema.Frame.FromString(stream.read(struct.unpack(">I", header)[0]))
                answer = self._answer(request)
                if answer is not None:
                    answer.request_id = request.request_id
                    payload = answer.SerializeToString()
                    connection.sendall(struct.pack(">I", len(payload)) + payload)
                if request.HasField("event_subscribe"):
                    self.consumers.append(request.event_subscribe.consumer)
                    self._subscribers.append(connection)

    def _answer(self, request):
        answer, kind = self.schema.Frame(), request.WhichOneof("body")
        if kind == "hello":
            answer.hello.protocol_major, answer.hello.server_eid = 1, SERVER_EID
            answer.hello.capabilities.extend(_CAPABILITIES)
        elif kind == "snapshot_request":
            self._fillSnapshot(answer.snapshot_chunk)
        elif kind == "vocabulary_request":
            self._fillVocabularies(answer.vocabulary_set)
        elif kind == "counter_query":
            self._fillCounters(answer.counter_sample, request.counter_query.classes)
        elif kind in ("monitor_start", "event_subscribe"):
            answer.done.SetInParent()
        elif kind == "ping":
            answer.pong.SetInParent()
        elif kind == "event_ack":
            self.acknowledged.append(request.event_ack.sequence)
            return None
        else:
            return None
        return answer

    def _fillSnapshot(self, chunk):
        chunk.generation, chunk.last = 1, True
        for number in self.numbers:
            environment = chunk.environments.add(eid=eidOf(number), type=b"lumetra", state=2)
            environment.configuration.name, environment.configuration.veid = b"c%d" % number, number

    @staticmethod
    def _fillVocabularies(vocabularies):
        vocabulary = vocabularies.vocabularies.add(name=b"KXABasicFunctionality")
        for name, counters in _COUNTERS.items():
            category = vocabulary.categories.add(name=name)
            for counter in counters:
                category.parameters.add(id=counter).attributes["counter_type"] = 1

    def _fillCounters(self, sample, classes):
        for name in classes:
            counters = _COUNTERS[name]
            group = sample.groups.add(class_name=name, counters=counters)
            group.eids = b"".join(map(eidOf, self.numbers))
            group.instances.extend([b"1" if name == NET_CLASS else b""] * len(self.numbers))
            group.values.extend([7] * (3 * len(counters) * len(self.numbers)))
