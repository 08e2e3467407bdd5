"""Peers that make the service hold memory: more than it may is refused, or ends their connection, and others go on."""

import struct
import zlib

import grpc
import pytest
import transport_pb2 as wire
import zksmessages_pb2 as messages
from daemon import MIB
from foreign_wire import RemoteError, container, echo_request, framed
from raw_http2 import CONTINUATION, CONVERSE, END_HEADERS, HEADERS, Peer, frame, header, integer, request_headers

LIMIT = 128 * MIB
# What the process takes by itself, and what comes in between two looks at its memory.
MARGIN = 256 * MIB


@pytest.fixture
def daemon(start):
    daemon = start("--max-memory", str(LIMIT))
    yield daemon
    assert daemon.peak() <= LIMIT + MARGIN
    assert daemon.serves()


@pytest.fixture
def peer(daemon):
    with Peer(daemon.address) as opened:
        yield opened


@pytest.fixture
def silent(daemon):
    """A peer that answers nothing any more, so that nothing comes between its frames."""
    with Peer(daemon.address, mute=True) as opened:
        yield opened


def message_head(nbytes, compressed=False):
    return struct.pack(">BI", compressed, nbytes)


def test_message_of_gibibytes_is_not_gathered(daemon, peer):
    peer.open(1)
    peer.send_data(1, message_head(4000 * MIB))
    piece = bytes(MIB)
    for _ in range(600):
        if not peer.send_data(1, piece):
            break


def test_compressed_message_is_refused_before_it_is_inflated(daemon, peer):
    inflated = zlib.compressobj(9, zlib.DEFLATED, 31)
    message = b"".join(inflated.compress(bytes(MIB)) for _ in range(100)) + inflated.flush()
    peer.send(frame(HEADERS, END_HEADERS, 1, request_headers() + header("grpc-encoding", "gzip")))
    peer.send_data(1, message_head(len(message), compressed=True) + message)
    daemon.await_log("Compression algorithm 'gzip' is disabled")
    assert daemon.growth() < 32 * MIB


def test_stock_client_that_compresses_is_told_so(daemon):
    with daemon.channel() as channel:
        converse = channel.stream_stream(CONVERSE, bytes, bytes)
        with pytest.raises(grpc.RpcError) as refusal:
            next(converse(iter([bytes(MIB)]), compression=grpc.Compression.Gzip))
    assert refusal.value.code() == grpc.StatusCode.UNIMPLEMENTED
    assert "gzip" in refusal.value.details()


def flood_with_streams(peer, most):
    headers = request_headers()
    for first in range(0, most, 200):
        opened = range(first, first + 200)
        if not peer.send(b"".join(frame(HEADERS, END_HEADERS, 1 + 2 * number, headers) for number in opened)):
            return


def test_more_streams_than_allowed_end_the_connection(daemon, peer):
    flood_with_streams(peer, 60_000)
    peer.await_end()
    assert daemon.growth() < 64 * MIB


def test_streams_of_a_peer_that_ignores_the_settings_end_its_connection(daemon):
    with Peer(daemon.address, acknowledge=False) as peer:
        flood_with_streams(peer, 120_000)
        peer.await_end()
    daemon.await_log("zksd --max-memory")


def test_headers_without_end(daemon, silent):
    silent.send(frame(HEADERS, 0, 1, request_headers() + b"\0" + integer(1, 7) + b"x" + integer(1 << 31, 7)))
    piece = frame(CONTINUATION, 0, 1, bytes(16384))
    for _ in range(640):
        if not silent.send(piece):
            break


def test_longer_headers_than_any_are_refused(daemon, peer):
    headers = request_headers() + b"".join(header("x", "y" * 1000) for _ in range(12))
    peer.send(frame(HEADERS, END_HEADERS, 1, headers))
    peer.await_frame(1)
    assert daemon.growth() < 16 * MIB


def message(frame_bytes):
    return message_head(len(frame_bytes)) + frame_bytes


def call_head(method):
    return wire.Frame(call=wire.CallHead(protocol_version=1, method=method)).SerializeToString()


def unknown_field(nbytes):
    return b"\xc2\x3e" + integer_of_protobuf(nbytes) + bytes(nbytes)


def integer_of_protobuf(value):
    out = bytearray()
    while value >= 128:
        out.append(value % 128 | 128)
        value //= 128
    out.append(value)
    return bytes(out)


@pytest.fixture
def roomy(start):
    """A daemon whose limit of memory is not what holds a peer back."""
    daemon = start("--max-memory", "2G")
    yield daemon
    assert daemon.serves()


def test_little_data_beside_large_unknown_fields_waits_within_bounds(roomy):
    with Peer(roomy.address) as peer:
        peer.open(1)
        # The reply is not read, so the handler stops reading soon.
        bulk = echo_request((messages.ITEM_KIND_FILE, bytes(3 * MIB)))[: 2 * MIB]
        peer.send_data(1, message(call_head("echo") + wire.Frame(data=bulk).SerializeToString()))
        stuffed = message(wire.Frame(data=bytes(24)).SerializeToString() + unknown_field(60_000))
        most = 300 * MIB // len(stuffed)
        sent = peer.send_until_stalled(1, (stuffed for _ in range(most)))
        assert sent < most * len(stuffed), "the service took all"
        assert roomy.growth() < 48 * MIB
        assert roomy.serves()


def test_replies_that_nobody_reads_keep_further_calls_waiting(roomy):
    # Each is answered with an error that has four bytes for each of these.
    refused = message(call_head("\x01" * 200) + wire.Frame(end=True).SerializeToString())
    most = 64 * MIB // len(refused)
    with Peer(roomy.address) as peer:
        peer.open(1)
        sent = peer.send_until_stalled(1, (refused for _ in range(most)))
        assert sent < most * len(refused), "the service took all"
        assert roomy.growth() < 32 * MIB
        peer.give_window(1, 1 << 30)
        # All calls that were sent whole are answered now, and the service goes on to read.
        peer.await_data(sent // len(refused) * 800)
        assert peer.send_until_stalled(1, (refused for _ in range(10_000))) >= 10_000 * len(refused)


@pytest.mark.parametrize("method", ["echo", "runTask"])
def test_description_of_many_small_elements_is_refused_before_it_is_parsed(roomy, method):
    request = container(framed(b"\x0a\x00" * (63 * MIB // 2)))
    with roomy.conversation() as conversation:
        with pytest.raises(RemoteError, match="more than 1000000 fields .zksd --max-fields"):
            conversation.call(method, request)
    assert roomy.growth() < 160 * MIB
