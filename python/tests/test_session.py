"""The life of a session: threads that share it, its end, a service that goes away."""

import concurrent.futures
import os
import signal
import threading

import numpy
import pytest

import zks
from conftest import run_python, sleeping_task, start_daemon, stop_daemon, wait_until


USES_DAEMON = True


def test_threads_share_a_session(any_session):
    def work(number):
        for _ in range(5):
            (item,) = any_session.echo(numpy.full(5000, number))
            assert (item.array() == number).all()
        return number

    with concurrent.futures.ThreadPoolExecutor(8) as threads:
        assert sorted(threads.map(work, range(8))) == list(range(8))


def test_other_threads_run_while_a_call_waits(session):
    future = session.invoke_async("runTask", sleeping_task())
    assert session.echo(b"x")[0].bytes() == b"x"
    counted = []
    thread = threading.Thread(target=lambda: counted.extend(range(1000)))
    thread.start()
    thread.join(60)
    assert len(counted) == 1000
    future.cancel()


def test_a_closed_session_says_so():
    session = zks.connect()
    assert not session.closed
    session.close()
    session.close()
    assert session.closed
    for call in (lambda: session.echo(b"x"), lambda: session.invoke("echo"), lambda: session.invoke_async("echo")):
        with pytest.raises(zks.Terminated, match="The session with the embedded service was closed") as caught:
            call()
        assert caught.value.identifier == "parallel:python:SessionClosed"


def test_items_read_after_the_session_s_end_say_that_it_was_closed(any_session):
    items = any_session.echo(b"one", numpy.zeros(1 << 20), zks.message("parallel.zksmessages.Missing"), b"four")
    assert items[1].array().shape == (1 << 20,)
    any_session.close()
    assert items[0].bytes() == b"one", "it was in memory"
    for read in (items[2].message, items[3].bytes, lambda: items[3].save("/dev/null"), items[3].bytes_async().result):
        with pytest.raises(zks.Terminated) as caught:
            read()
        assert caught.value.identifier == "parallel:python:SessionClosed"
        assert any_session.name in str(caught.value)


def test_a_download_under_way_when_the_session_is_closed_says_so(tmp_path):
    process, address = start_daemon(tmp_path)
    session = zks.connect(address)
    items = session.echo(bytes(32 << 20), b"after it")
    process.send_signal(signal.SIGSTOP)
    os.waitpid(process.pid, os.WUNTRACED)
    reading = concurrent.futures.ThreadPoolExecutor(1)
    future = reading.submit(items[0].bytes)
    wait_until(lambda: future.running())
    session.close()
    process.send_signal(signal.SIGCONT)
    with pytest.raises(zks.Terminated) as caught:
        future.result(60)
    assert caught.value.identifier == "parallel:python:SessionClosed"
    reading.shutdown()
    stop_daemon(process)


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_closing_does_not_wait_for_a_reply_that_nobody_finishes(where, request):
    session = zks.connect(request.getfixturevalue("daemon") if where == "daemon" else None)
    first, second, third = session.echo(b"one", b"two" * 500_000, numpy.zeros(1 << 20))
    (broken,) = session.echo(b"no array")
    with pytest.raises(zks.Error):
        broken.array()
    assert first.bytes() == b"one"
    session.close()
    with pytest.raises(zks.Terminated):
        second.bytes()


def test_closing_keeps_items_that_are_in_memory():
    session = zks.connect()
    first, second, third = session.echo(b"one", b"two", b"three")
    assert second.bytes() == b"two"
    session.close()
    assert first.bytes() == b"one"
    with pytest.raises(zks.Terminated):
        third.bytes()


def test_a_forgotten_session_warns_and_ends():
    with pytest.warns(ResourceWarning, match="unclosed"):
        zks.connect()


def test_a_service_that_goes_away_is_told_as_terminated(tmp_path):
    process, address = start_daemon(tmp_path)
    with zks.connect(address) as session:
        session.echo(b"x")[0].bytes()
        future = session.invoke_async("runTask", sleeping_task())
        stop_daemon(process)
        with pytest.raises(zks.Terminated):
            future.result(60)
        with pytest.raises(zks.Terminated):
            session.echo(b"x")


def test_a_service_that_dies_in_a_reply_is_told_as_terminated(tmp_path):
    process, address = start_daemon(tmp_path)
    with zks.connect(address) as session:
        first, second = session.echo(b"first", bytes(50_000_000))
        assert first.bytes() == b"first"
        process.kill()
        stop_daemon(process)
        with pytest.raises(zks.Terminated) as caught:
            second.bytes()
        assert caught.value.identifier == "parallel:toolbox:ReplyItemFailed"
        assert address in caught.value.causes[0].text


def test_a_reply_that_pauses_for_too_long_is_told_as_a_timeout(tmp_path):
    process, address = start_daemon(tmp_path)
    with zks.connect(address, idle_timeout=0.1) as session:
        (item,) = session.echo(bytes(50_000_000))
        process.send_signal(signal.SIGSTOP)
        with pytest.raises(zks.Timeout):
            item.bytes()
        process.send_signal(signal.SIGCONT)
    stop_daemon(process)


def test_repr_is_one_line_and_makes_no_call(any_session):
    (item,) = any_session.echo(b"x")
    for shown in (any_session, item, zks.plain(b"x"), any_session.run(["true"]), zks.message("a.B", x=1)):
        assert "\n" not in repr(shown)
        assert len(repr(shown)) < 200
    assert "open" in repr(any_session)
    assert "not read" in repr(item)
    assert any_session._repr_html_().startswith("<code>&lt;zks session")
    assert "&lt;" in item._repr_html_()
    any_session.close()
    assert "closed" in repr(any_session)


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_the_interpreter_ends_with_everything_still_open(where, request):
    address = request.getfixturevalue("daemon") if where == "daemon" else ""
    code = """
import sys, numpy, zks
session = zks.connect(sys.argv[1] or None)
request = zks.message("parallel.zksmessages.EchoRequest", items=[{"kind": "ITEM_KIND_ARRAY"}])
array = session.echo(numpy.zeros(1000))[0].array()
unread = session.echo(numpy.zeros(1 << 20), b"x")
future = session.invoke_async("runTask", zks.message("parallel.zksmessages.TaskDescription", argv=["sleep", "1000"]))
item = zks.host.parallel.internal.cluster.SerializableData.createQxArray(numpy.zeros(1000))
print("end")
"""
    done = run_python(code, address)
    assert (done.returncode, done.stdout) == (0, "end\n"), done.stderr


def test_larger_reply_than_allowed_fails_its_call_naming_size_limit_and_option(daemon):
    with zks.connect(daemon, max_reply=1000) as session:
        with pytest.raises(zks.Error, match=r"at most 1000 are allowed: see max_reply of zks\.connect"):
            session.echo(b"x" * 2000)
        (item,) = session.echo(b"x" * 100)
        assert item.bytes() == b"x" * 100
