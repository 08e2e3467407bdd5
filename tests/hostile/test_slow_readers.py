"""Clients that send without end to `echo`, and at some point read no more of what comes back."""

import concurrent.futures
import contextlib
import time

import grpc
import transport_pb2 as wire
import zksmessages_pb2 as messages
from daemon import MIB
from foreign_wire import echo_request
from raw_http2 import CONVERSE, STALL

STREAMS = 12
PIECE = wire.Frame(data=(b"\x7f\xff" + bytes(32767)) * 32).SerializeToString()  # blocks of an item
PIECES = 150
READ = 30 * MIB  # before it reads no more: the longer it is quick, the more gRPC lets a client be ahead over TLS


class SlowReader:
    def __init__(self, channel):
        self.sent = 0
        self._replies = channel.stream_stream(CONVERSE)(self._requests())
        with contextlib.suppress(grpc.RpcError):  # cancelled, since the streams hold too much together
            self._read(READ)

    def _read(self, nbytes):
        while nbytes > 0:
            nbytes -= len(next(self._replies))

    def _requests(self):
        yield wire.Frame(call=wire.CallHead(protocol_version=1, method="echo")).SerializeToString()
        begin = echo_request((messages.ITEM_KIND_FILE, b""))[:-2]  # without the item's end
        yield wire.Frame(data=begin).SerializeToString()
        while self.sent < PIECES:
            self.sent += 1
            yield PIECE

    def close(self):
        self._replies.cancel()


def held_by(daemon):
    """Bytes, when no client can send any more. All are streams of one connection."""
    assert daemon.serves()
    daemon.forget_peak()
    with contextlib.ExitStack() as stack:
        channel = stack.enter_context(daemon.channel())
        pool = stack.enter_context(concurrent.futures.ThreadPoolExecutor(STREAMS))
        readers = [
            stack.enter_context(contextlib.closing(reader))
            for reader in pool.map(lambda _: SlowReader(channel), range(STREAMS))
        ]
        sent = -1
        while sent != (now := sum(reader.sent for reader in readers)):
            sent = now
            time.sleep(STALL)
        assert sent < STREAMS * PIECES, "the service took all"
        held = daemon.growth()
    assert daemon.serves()
    print(f"{held / STREAMS / MIB:.1f} MiB for each stream")
    return held


def test_slow_reader_on_a_socket_file_costs_a_window_and_what_is_read_ahead(start):
    assert held_by(start()) < STREAMS * 12 * MIB


def test_slow_readers_over_tls_cost_what_is_configured_together(start):
    assert held_by(start("--max-memory", "512M", kind="tls")) < (256 + 96) * MIB
