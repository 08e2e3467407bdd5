"""A daemon of its own for each module, and a stock client's channel to it."""

import os
import subprocess

import grpc
import pytest
import transport_pb2_grpc
from foreign_wire import Conversation


def start_daemon(directory):
    path = directory / "socket"
    process = subprocess.Popen(
        [os.environ["ZKSD"], "--socket", str(path), "--store", str(directory / "store")],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        text=True,
    )
    line = process.stdout.readline()
    assert line == f"zksd: listening on unix:{path}\n"
    return process, f"unix:{path}"


def stop_daemon(process):
    process.terminate()
    try:
        return process.wait(30)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait(30)
        raise
    finally:
        process.stdout.close()


@pytest.fixture(scope="module")
def address(tmp_path_factory):
    process, where = start_daemon(tmp_path_factory.mktemp("zksd"))
    yield where
    assert stop_daemon(process) == 0


@pytest.fixture
def channel(address):
    with grpc.insecure_channel(address) as opened:
        yield opened


@pytest.fixture
def stub(channel):
    return transport_pb2_grpc.TransportStub(channel)


@pytest.fixture
def conversation(stub):
    opened = Conversation(stub)
    yield opened
    opened.half_close()
    opened.stream.cancel()
