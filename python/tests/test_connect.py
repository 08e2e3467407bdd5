"""How a session comes about, or why it does not."""

import asyncio
import concurrent.futures
import math
import socket
import threading
import warnings

import pytest

import zks
from conftest import run_python, wait_until
from zks import _bridge

USES_DAEMON = True


def test_addresses_that_lead_nowhere(tmp_path):
    with pytest.raises(zks.FrameworkError, match="nowhere"):
        zks.connect(f"unix:{tmp_path}/nowhere")
    with pytest.raises(zks.Error) as caught:
        zks.connect("what is this")
    assert caught.value.identifier == "parallel:toolbox:BadAddress"


def test_the_environment_names_the_service_where_the_call_does_not(daemon, monkeypatch):
    monkeypatch.setenv("ZKS_ADDRESS", daemon)
    with zks.connect(max_reply=1000) as session:
        assert session.name == daemon
    with zks.connect_async().result(60) as session:
        assert session.name == daemon
    monkeypatch.setenv("ZKS_ADDRESS", "")
    with zks.connect() as session:
        assert session.name != daemon


def test_an_address_without_a_path_is_the_default_socket(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_RUNTIME_DIR", str(tmp_path))
    with pytest.raises(zks.FrameworkError, match=f"{tmp_path}/zks/zksd.sock"):
        zks.connect("unix:")


@pytest.fixture(params=["silent", "full"])
def deaf_address(request):
    """Where connections are made but nothing is said, and where they are not even made: the queue is full."""
    with socket.create_server(("127.0.0.1", 0), backlog=0 if request.param == "full" else 8) as listener:
        waiting = []
        if request.param == "full":
            for _ in range(2):  # as many as such a queue takes, and one more
                waiting.append(socket.socket())
                waiting[-1].setblocking(False)
                waiting[-1].connect_ex(listener.getsockname())
        yield "127.0.0.1:%d" % listener.getsockname()[1]
        for client in waiting:
            client.close()


def test_a_service_that_never_answers_is_told_as_a_timeout_and_nothing_stays(deaf_address):
    with pytest.raises(zks.Timeout) as caught:
        zks.connect(deaf_address, timeout=0.1, insecure=True)
    assert caught.value.identifier == "parallel:toolbox:NoAnswer"
    assert deaf_address in caught.value.text
    (cause,) = caught.value.causes
    assert isinstance(cause, zks.Timeout)
    assert "100 ms" in cause.text


@pytest.mark.parametrize("seconds", [1e300, math.inf])
def test_the_longest_timeouts_are_no_timeouts(seconds, daemon):
    with zks.connect(daemon, timeout=seconds) as session:
        assert session.echo(b"x")[0].bytes() == b"x"


# --- connect_async ---


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_connect_async_gives_a_session(where, request):
    address = request.getfixturevalue("daemon") if where == "daemon" else None
    future = zks.connect_async(address)
    assert isinstance(future, concurrent.futures.Future)
    with future.result(60) as session:
        assert session.echo(b"x")[0].bytes() == b"x"
        assert session.echo_async(b"y").result(60)[0].bytes() == b"y"


def test_many_sessions_are_opened_at_once_under_asyncio(daemon):
    async def main():
        wrap = asyncio.wrap_future
        sessions = await asyncio.gather(*(wrap(zks.connect_async(daemon)) for _ in range(10)))
        for session in sessions:
            with session:
                (item,) = await wrap(session.echo_async(b"x"))
                assert await wrap(item.bytes_async()) == b"x"

    asyncio.run(main())


def test_connect_async_tells_wrong_arguments_at_once():
    with pytest.raises(ValueError, match="timeout"):
        zks.connect_async(timeout=-1)


def test_an_attempt_that_fails_says_why_through_its_future(tmp_path):
    future = zks.connect_async(f"unix:{tmp_path}/nowhere")
    with pytest.raises(zks.FrameworkError, match="nowhere"):
        future.result(60)


# An attempt over a socket file that hears nothing goes on for 30 seconds, however long it may.
LESS_THAN_AN_ATTEMPT = 20


@pytest.fixture
def deaf_socket(tmp_path):
    """A socket file where connections are made but nothing is said."""
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(tmp_path / "socket"))
        listener.listen()
        yield listener


def test_a_cancelled_task_gives_the_attempt_up(deaf_socket):
    deaf_socket.setblocking(False)

    async def main():
        loop = asyncio.get_running_loop()
        attempt = zks.connect_async("unix:" + deaf_socket.getsockname(), timeout=math.inf)
        task = asyncio.ensure_future(asyncio.wrap_future(attempt))
        client, _ = await loop.sock_accept(deaf_socket)
        with client:
            task.cancel()
            with pytest.raises(asyncio.CancelledError):
                await task
            while await loop.sock_recv(client, 4096):  # until the attempt has left
                pass

    asyncio.run(asyncio.wait_for(main(), LESS_THAN_AN_ATTEMPT))


def test_a_session_that_comes_after_the_cancellation_is_closed(monkeypatch):
    opened, may_go_on, sessions = threading.Event(), threading.Event(), []
    open_natively = _bridge.Session

    def open_slowly(*arguments):
        sessions.append(open_natively(*arguments))
        opened.set()
        assert may_go_on.wait(60)
        return sessions[0]

    monkeypatch.setattr(_bridge, "Session", open_slowly)
    with warnings.catch_warnings(record=True) as warned:
        warnings.simplefilter("always")
        attempt = zks.connect_async()
        assert opened.wait(60)
        assert attempt.cancel()
        may_go_on.set()
        wait_until(lambda: not sessions[0].is_open)
        with pytest.raises(concurrent.futures.CancelledError):
            attempt.result(60)
    assert not warned


def test_the_interpreter_ends_while_an_attempt_goes_on(deaf_socket):
    code = """
import math, sys, zks
attempt = zks.connect_async(sys.argv[1], timeout=math.inf)
print("end")
"""
    done = run_python(code, "unix:" + deaf_socket.getsockname(), timeout=LESS_THAN_AN_ATTEMPT)
    assert (done.returncode, done.stdout) == (0, "end\n"), done.stderr
