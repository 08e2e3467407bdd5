"""A service that keeps to no rules, against `zks`: it ends with one line that says why, and holds little meanwhile."""

import struct
import zlib

import pytest
import transport_pb2 as wire
from daemon import MIB
from hostile_service import Client, reply_head
from raw_http2 import CONTINUATION, HEADERS, frame, header, integer, reply_headers

# What zks takes by itself, and a bit.
MARGIN = 96 * MIB
ECHO = ("echo", "--plain", "x")


@pytest.fixture
def connect(tmp_path):
    started = []

    def start(*arguments, **how):
        started.append(Client(tmp_path, *arguments, **how))
        return started[-1]

    yield start
    for client in started:
        client.stop()


def expect_end(client, *words, most=MARGIN):
    code, said, peak = client.end()
    assert code != 0
    assert said.count("\n") == 1, said
    for word in words:
        assert word in said
    assert peak < most, f"{peak / MIB:.0f} MiB"


def container_head(count):
    return b"\0" + struct.pack(">i", count)


def test_reply_that_only_counts_its_items(connect):
    client = connect(*ECHO)
    conversation = client.conversation
    conversation.say(conversation.stream, reply_head(5), wire.Frame(data=container_head(20_000_000), end=True))
    expect_end(client, "has 20000000 items, not 1")


def test_reply_that_counts_more_items_than_the_limit_has_room_for(connect):
    client = connect("--max-reply", "1M", "call", "any", "--reply", "plain")
    conversation = client.conversation
    conversation.say(conversation.stream, reply_head(), wire.Frame(data=container_head(20_000_000)))
    expect_end(client, "counts 20000000 items", "zks --max-reply")


def test_compressed_message(connect):
    client = connect(*ECHO)
    peer, stream = client.conversation.peer, client.conversation.stream
    inflated = zlib.compressobj(9, zlib.DEFLATED, 31)
    content = b"".join(inflated.compress(bytes(MIB)) for _ in range(500)) + inflated.flush()
    peer.send_data(stream, struct.pack(">BI", 1, len(content)) + content)
    expect_end(client, "echo")


@pytest.mark.parametrize("kind", ["unix", "tcp"])
def test_message_of_gibibytes(connect, kind):
    client = connect(*ECHO, kind=kind)
    peer, stream = client.conversation.peer, client.conversation.stream
    peer.send_data(stream, struct.pack(">BI", 0, 4000 * MIB))
    while peer.send_data(stream, bytes(MIB)):
        pass
    expect_end(client, "echo", most=1200 * MIB)


def test_headers_without_end(connect):
    client = connect(*ECHO)
    peer = client.conversation.peer
    endless = reply_headers() + b"\0" + integer(1, 7) + b"x" + integer(1 << 31, 7)
    peer.send(frame(HEADERS, 0, 3, endless))
    for _ in range(640):
        if not peer.send(frame(CONTINUATION, 0, 3, bytes(16384))):
            break
    peer.close()
    expect_end(client, "echo", most=400 * MIB)
