"""A client of the service as a stranger would write it: stock stubs, and the bytes that the documents describe."""

import queue
import struct

import transport_pb2 as wire
import zksmessages_pb2 as messages

FRAME_BYTES = 1 << 20
DEADLINE = 60


def framed(content, block=32767):
    """docs/framing.md: an item, in blocks of the given length."""
    parts = [content[at : at + block] for at in range(0, len(content), block)]
    return b"".join(struct.pack(">h", len(part)) + part for part in parts) + b"\xff\xff"


def container(*items):
    """docs/container.md: items that are framed already."""
    return b"\0" + struct.pack(">i", len(items)) + b"".join(items)


def echo_request(*items, block=32767):
    """docs/methods.md: pairs of a kind and the bytes."""
    description = messages.EchoRequest()
    for kind, content in items:
        entry = description.items.add(kind=kind)
        if kind == messages.ITEM_KIND_PLAIN:
            entry.nbytes = len(content)
    return container(framed(description.SerializeToString()), *(framed(content, block) for _, content in items))


def items_of(reply):
    """The contents of a container's items; nothing may stand after the last one."""
    version, count = struct.unpack_from(">bi", reply)
    assert version == 0
    at = 5
    found = []
    for _ in range(count):
        content = bytearray()
        while (length := struct.unpack_from(">h", reply, at)[0]) != -1:
            at += 2
            content += reply[at : at + length]
            at += length
        at += 2
        found.append(bytes(content))
    assert at == len(reply)
    return found


def plain_of(content):
    """A plain item of a reply: its length, then that many bytes."""
    (nbytes,) = struct.unpack_from(">q", content)
    assert len(content) == 8 + nbytes
    return content[8:]


def call_frames(method, request, frame_bytes=FRAME_BYTES, size=True):
    """docs/protocol.md: one call, in frames of its own for the head, for each piece and for the end."""
    head = wire.CallHead(protocol_version=1, method=method)
    if size:
        head.size = len(request)
    yield wire.Frame(call=head)
    for at in range(0, len(request), frame_bytes):
        yield wire.Frame(data=request[at : at + frame_bytes])
    yield wire.Frame(end=True)


class RemoteError(Exception):
    """An error reply; its levels, outermost first."""

    def __init__(self, levels):
        super().__init__(levels[0].text.decode(errors="replace"))
        self.levels = levels


class Conversation:
    """One stream that carries one call after another. What is written while a call runs is sent by gRPC's own thread."""

    def __init__(self, stub):
        self._outgoing = queue.Queue()
        self.stream = stub.Converse(iter(self._outgoing.get, None), timeout=DEADLINE)

    def start(self, frames):
        for frame in frames:
            self._outgoing.put(frame)

    def half_close(self):
        self._outgoing.put(None)

    def reply(self):
        """The head and the bytes of the next reply. RemoteError when it ends with an error."""
        head, data = None, bytearray()
        for frame in self.stream:
            assert not frame.HasField("call")
            if frame.HasField("reply"):
                assert head is None
                head = frame.reply
            data += frame.data
            if frame.HasField("error"):
                raise RemoteError(frame.error.levels)
            assert head is not None
            if frame.end:
                assert head.protocol_version == 1
                assert not head.HasField("size") or head.size == len(data)
                return head, bytes(data)
        raise AssertionError("the stream ended in the middle of a reply")

    def call(self, method, request, **how):
        self.start(call_frames(method, request, **how))
        return self.reply()[1]
