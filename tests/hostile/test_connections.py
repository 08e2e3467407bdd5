"""Peers that connect, and say nothing."""

import contextlib

import pytest
from raw_http2 import connect_to

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
