"""Waits that are ended from outside: by Ctrl-C, by other signals' handlers, by cancelling a future."""

import _thread
import contextlib
import functools
import os
import pathlib
import signal
import sys
import threading

import numpy
import pytest

import zks
from conftest import run_python, sleeping_task, start_daemon, stop_daemon, wait_until
from zks import _bridge, _layout

USES_DAEMON = True

INTERRUPTED = """
import os, signal, sys, threading, time, zks
session = zks.connect(sys.argv[1] or None)
started = sys.argv[2]
pressed = []
def press():
    while not os.path.exists(started):
        threading.Event().wait(0.01)
    pressed.append(time.monotonic())
    os.kill(os.getpid(), signal.SIGINT)
threading.Thread(target=press).start()
task = zks.message("parallel.zksmessages.TaskDescription", argv=["sh", "-c", f"touch {started}; exec sleep 1000"])
try:
    session.invoke("runTask", task)
except KeyboardInterrupt:
    print("interrupted", time.monotonic() - pressed[0])
print(session.echo(b"next")[0].bytes())
session.close()
"""


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_ctrl_c_ends_the_wait_and_the_session_goes_on(where, request, tmp_path):
    address = request.getfixturevalue("daemon") if where == "daemon" else ""
    done = run_python(INTERRUPTED, address, str(tmp_path / "started"))
    assert done.returncode == 0, done.stderr
    first, second = done.stdout.splitlines()
    assert first.startswith("interrupted")
    assert second == "b'next'"


def test_a_handler_that_raises_something_else_is_heard_too(session, tmp_path):
    class Enough(Exception):
        pass

    def handler(number, frame):
        raise Enough

    earlier = signal.signal(signal.SIGUSR1, handler)
    main = threading.main_thread().ident
    started = tmp_path / "started"

    def press():
        wait_until(started.exists)
        signal.pthread_kill(main, signal.SIGUSR1)

    thread = threading.Thread(target=press)
    thread.start()
    try:
        with pytest.raises(Enough):
            session.invoke("runTask", sleeping_task(started))
    finally:
        signal.signal(signal.SIGUSR1, earlier)
        thread.join(60)
    assert session.echo(b"next")[0].bytes() == b"next"


def test_a_handler_that_raises_nothing_stops_nothing(session):
    heard = []
    earlier = signal.signal(signal.SIGUSR1, lambda number, frame: heard.append(number))
    try:
        result = session.run(["sh", "-c", f"kill -USR1 {os.getpid()}; sleep 0.3; echo done"])
    finally:
        signal.signal(signal.SIGUSR1, earlier)
    assert result.stdout == b"done\n"
    assert heard == [signal.SIGUSR1]


@pytest.fixture
def stalling(tmp_path):
    """A session whose service stops dead when it is told to: a reply comes no further than it has come then."""
    process, address = start_daemon(tmp_path)

    def stall():
        process.send_signal(signal.SIGSTOP)
        os.waitpid(process.pid, os.WUNTRACED)

    with zks.connect(address) as opened:
        yield opened, stall, lambda: process.send_signal(signal.SIGCONT)
        process.send_signal(signal.SIGCONT)
    stop_daemon(process)


def main_thread_sleeps_in(function):
    """Whether the main thread has come to that Python function and waits there."""
    frame = sys._current_frames()[threading.main_thread().ident]
    state = pathlib.Path(f"/proc/self/task/{os.getpid()}/stat").read_text().rpartition(")")[2].split()[0]
    return state == "S" and frame.f_code.co_name == function


def is_below(frame, function):
    """Whether the thread of that frame has left Python for something that this function calls."""
    # On a function's first line it may still wait for its turn to run Python.
    return frame.f_code.co_name == function and frame.f_lineno > frame.f_code.co_firstlineno


@contextlib.contextmanager
def pressing_ctrl_c_when(condition):
    def press():
        wait_until(condition)
        os.kill(os.getpid(), signal.SIGINT)

    thread = threading.Thread(target=press)
    thread.start()
    try:
        yield
    finally:
        thread.join(60)


LARGE = numpy.zeros(32 << 20, "uint8")

DOWNLOADS = {
    "array": (zks.array, lambda items, directory: items[0].array()),
    "bytes": (zks.plain, lambda items, directory: items[0].bytes()),
    "file": (zks.plain, lambda items, directory: items[0].save(directory / "received")),
    "item out of turn": (zks.plain, lambda items, directory: items[1].bytes()),
}


@pytest.mark.parametrize("kind, read", DOWNLOADS.values(), ids=DOWNLOADS)
def test_ctrl_c_ends_a_download_and_the_session_goes_on(kind, read, stalling, tmp_path):
    session, stall, go_on = stalling
    items = session.echo(kind(LARGE), b"after it")
    stall()
    with pressing_ctrl_c_when(lambda: main_thread_sleeps_in("read")), pytest.raises(KeyboardInterrupt):
        read(items, tmp_path)
    for item, identifier in zip(items, ("parallel:python:ItemAlreadyRead", "parallel:toolbox:ReplyLost")):
        with pytest.raises(zks.Error) as caught:
            item.bytes()
        assert caught.value.identifier == identifier
    assert not (tmp_path / "received").exists()
    go_on()
    assert session.echo(b"next")[0].bytes() == b"next"


def test_ctrl_c_ends_the_wait_for_another_thread_s_download(stalling):
    session, stall, go_on = stalling
    items = session.echo(zks.plain(LARGE), b"after it")
    stall()
    received = []
    thread = threading.Thread(target=lambda: received.append(items[0].bytes()))
    thread.start()
    wait_until(lambda: is_below(sys._current_frames()[thread.ident], "read"))
    with pressing_ctrl_c_when(lambda: main_thread_sleeps_in("read")), pytest.raises(KeyboardInterrupt):
        items[1].bytes()
    go_on()
    thread.join(60)
    assert len(received[0]) == LARGE.size
    assert items[1].bytes() == b"after it"


def test_cancelling_a_download_gives_the_rest_of_the_reply_up(stalling):
    session, stall, go_on = stalling
    items = session.echo(zks.plain(LARGE), b"after it")
    stall()
    future = items[0].bytes_async()

    def is_reading():
        return any(is_below(frame, "read") for frame in sys._current_frames().values())

    wait_until(is_reading)
    assert future.cancel()
    wait_until(lambda: not is_reading())
    with pytest.raises(zks.Error) as caught:
        items[1].bytes()
    assert caught.value.identifier == "parallel:toolbox:ReplyLost"
    go_on()
    assert session.echo_async(b"next").result(60)[0].bytes() == b"next"


# --- Conversions ---


class Signal:
    """An element at whose conversion a signal comes. No Python code runs in it, which would look at signals itself."""

    __array__ = functools.partial(max, [numpy.array(int(signal.SIGUSR1))], key=_thread.interrupt_main)


MANY = [0.0] * 100_000

CONVERSIONS = {
    "list": (_bridge.array_item, [Signal(), *MANY]),
    "dict": (_bridge.array_item, {"signal": Signal(), **{str(number): 0 for number in range(10_000)}}),
    "array of objects": (_bridge.array_item, numpy.fromiter([Signal(), *MANY], object)),
    "list that comes back": (_bridge.roundtrip, [*MANY, Signal()]),
    "array in row order": (_bridge.array_item, [Signal(), numpy.zeros((3000, 300))]),
    "message": (_bridge.message_item, {"MessageType": "google.protobuf.ListValue", "values": [Signal(), *MANY]}),
}


@pytest.mark.parametrize("convert, value", CONVERSIONS.values(), ids=CONVERSIONS)
def test_a_signal_ends_a_conversion_and_gives_back_what_was_borrowed(convert, value):
    class Enough(Exception):
        pass

    def handler(number, frame):
        raise Enough

    before = _bridge.live_objects()
    converted = []
    earlier = signal.signal(signal.SIGUSR1, handler)
    try:
        with pytest.raises(Enough):
            converted.extend(map(convert, [value]))  # gets what a conversion that goes on to its end returns
    finally:
        signal.signal(signal.SIGUSR1, earlier)
    assert converted == []
    assert _bridge.live_objects() == before


@pytest.mark.parametrize("order", ["C", "F"])
def test_copies_are_made_in_pieces_between_which_signals_are_looked_at(order):
    for shape in ((10**9,), (10**5, 10**4), (4, 10**8), (10**8, 4), (1000, 1000, 1000), (2, 10**4, 10**4, 2)):
        source = numpy.broadcast_to(numpy.zeros(1), shape)
        piece = next(_layout._pieces(source, order))
        assert numpy.prod([index.stop for index in piece]) * 8 <= 1 << 25
