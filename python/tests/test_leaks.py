"""The check that every test ends with can fail: each kind of thing left behind is found."""

import subprocess
import threading

import numpy

import zks
from conftest import leaks_since, resources
from zks import _bridge


def kinds_left(before):
    return set(leaks_since(before, deadline=0.2))


def test_an_open_file_is_found(tmp_path):
    before = resources()
    with open(tmp_path / "file", "w"):
        assert kinds_left(before) == {"descriptors"}


def test_a_thread_is_found():
    before = resources()
    end = threading.Event()
    thread = threading.Thread(target=end.wait)
    thread.start()
    assert kinds_left(before) == {"python threads", "threads"}
    end.set()
    thread.join()


def test_a_child_process_is_found():
    before = resources()
    child = subprocess.Popen(["sleep", "1000"])
    assert kinds_left(before) == {"children"}
    child.kill()
    child.wait()


def test_native_objects_are_found():
    before = resources()
    kept = [
        _bridge.array_item(numpy.zeros(3)),
        _bridge.roundtrip(numpy.zeros(3)),
        zks.host.parallel.internal.cluster.SerializableData.createPlain(b"x"),
    ]
    different = leaks_since(before, deadline=0.2)["native objects"]
    changed = {name for name in different[0] if different[0][name] != different[1][name]}
    assert changed == {"borrowed", "exported", "handles", "bindings"}
    kept.clear()
    assert not leaks_since(before, deadline=0.2)


def test_an_open_session_and_an_unread_reply_are_found():
    before = resources()
    session = zks.connect()
    items = session.echo(b"unread")
    live = leaks_since(before, deadline=0.2)["native objects"][1]
    assert (live["sessions"], live["replies"]) == (1, 1)
    session.close()
    del items
    assert not leaks_since(before)
