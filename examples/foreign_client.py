"""Calls `echo` of a running zksd with stock gRPC and nothing of this project but its two schemas.

    protoc -I platform/spf/grpc -I platform/zksmessages transport.proto zksmessages.proto --python_out=. \
        --grpc_python_out=. --plugin=protoc-gen-grpc_python=/usr/bin/grpc_python_plugin
    PYTHONPATH=. python3 examples/foreign_client.py unix:/run/user/1000/zks/zksd.sock
"""

import struct
import sys

import grpc
import transport_pb2 as wire
import transport_pb2_grpc
import zksmessages_pb2 as messages


def item(content):  # docs/framing.md
    parts = [content[at : at + 32767] for at in range(0, len(content), 32767)]
    return b"".join(struct.pack(">h", len(part)) + part for part in parts) + b"\xff\xff"


def echo_request(data):  # docs/methods.md, in a container of docs/container.md
    description = messages.EchoRequest(items=[{"kind": messages.ITEM_KIND_PLAIN, "nbytes": len(data)}])
    return struct.pack(">bi", 0, 2) + item(description.SerializeToString()) + item(data)


def call(method, request):  # docs/protocol.md
    yield wire.Frame(call=wire.CallHead(protocol_version=1, method=method, size=len(request)))
    for at in range(0, len(request), 1 << 20):
        yield wire.Frame(data=request[at : at + (1 << 20)])
    yield wire.Frame(end=True)


with grpc.insecure_channel(sys.argv[1]) as channel:
    reply = b""
    for frame in transport_pb2_grpc.TransportStub(channel).Converse(call("echo", echo_request(b"hello"))):
        if frame.HasField("error"):
            sys.exit("\n".join(level.text.decode(errors="replace") for level in frame.error.levels))
        reply += frame.data
print(reply.hex(" "))
