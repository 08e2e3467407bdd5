"""Peers that connect, and say nothing."""

import contextlib
import re

import grpc
import pytest
from raw_http2 import CONVERSE, connect_to

KINDS = ["unix", "tls"]


@contextlib.contextmanager
def idle(address, count, source=None):
    with contextlib.ExitStack() as stack:
        yield [stack.enter_context(connect_to(address, source)) for _ in range(count)]


@pytest.mark.parametrize("kind", KINDS)
def test_service_that_ran_out_of_descriptors_accepts_again(start, kind):
    daemon = start("--max-connections", "1000", "--max-peer-connections", "1000", kind=kind, descriptors=(128, 128))
    with idle(daemon.address, 200):
        daemon.await_log("No connection can be accepted: Too many open files")
        daemon.awaits(lambda: daemon.descriptors() == 128)
    assert daemon.serves()


@pytest.mark.parametrize("kind", KINDS)
def test_soft_limit_of_descriptors_does_not_bind(start, kind):
    daemon = start(kind=kind, descriptors=(64, 1024))
    with idle(daemon.address, 200):
        assert daemon.serves()


def test_task_gets_the_soft_limit_that_the_service_was_started_with(start):
    daemon = start(descriptors=(64, 1024))
    assert daemon.run("ulimit -Sn; ulimit -Hn") == b"64\n1024\n"


@pytest.mark.parametrize("kind", KINDS)
def test_connections_leave_descriptors_for_the_rest(start, kind):
    daemon = start("--max-peer-connections", "1000", kind=kind, descriptors=(128, 128))
    before = daemon.descriptors()
    with idle(daemon.address, 200):
        daemon.await_log("There are 64 connections, as many as may be")
        assert daemon.descriptors() - before <= 64
    assert daemon.serves()


def test_one_peer_does_not_take_all_connections(start):
    daemon = start("--max-connections", "20", kind="tcp")
    with idle(daemon.address, 100, source="127.0.0.2") as connections:
        daemon.await_log("of 127.0.0.2, which has 10 already")
        assert daemon.serves()
        ended = [connection for connection in connections[10:] if is_ended(connection)]
        assert len(ended) == 90


def is_ended(connection):
    connection.settimeout(60)
    try:
        return connection.recv(1) == b""
    except ConnectionError:
        return True


@pytest.mark.parametrize("kind", KINDS)
def test_connection_whose_client_says_nothing_is_ended(start, kind):
    daemon = start("--handshake-timeout", "0.2", kind=kind)
    with idle(daemon.address, 10) as connections:
        for connection in connections:
            connection.settimeout(60)
            with contextlib.suppress(ConnectionError):
                while connection.recv(1024):
                    pass
    assert daemon.serves()


def test_connections_come_and_go_without_end(start):
    daemon = start("--max-connections", "10")
    before = daemon.descriptors()
    for _ in range(200):
        connect_to(daemon.address).close()
    assert daemon.serves()
    daemon.awaits(lambda: daemon.descriptors() <= before + 4)


def strangers(daemon, address):
    """How many connections of that address the log counts that ended before their client had shown who it is."""
    line = re.compile(rf"before their client had shown who it is: (\d+) of {re.escape(address)}\.$")
    return sum(int(found[1]) for found in map(line.search, daemon.log()) if found)


def test_failed_handshakes_are_counted_with_their_address(start):
    daemon = start(kind="tls")
    assert daemon.serves()
    for _ in range(1000):
        with connect_to(daemon.address, "127.0.0.3") as connection:
            connection.sendall(b"GET / HTTP/1.1\r\n\r\n" + bytes(1000))
            with contextlib.suppress(ConnectionError):
                while connection.recv(1024):
                    pass
    daemon.awaits(lambda: strangers(daemon, "127.0.0.3") == 1000)
    assert any("andshake failed" in line for line in daemon.log()), "gRPC says why"
    assert strangers(daemon, "127.0.0.1") == 0
    assert sum(len(line) for line in daemon.log()) < 10_000
    assert daemon.serves()


def test_calls_without_a_token_are_counted(start):
    daemon = start(kind="tls")
    with daemon.channel(token=False) as channel:
        for _ in range(200):
            with pytest.raises(grpc.RpcError):
                next(channel.stream_stream(CONVERSE)(iter([])))
    assert len([line for line in daemon.log() if "A call was refused" in line]) == 1
    assert daemon.serves()
