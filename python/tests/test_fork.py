"""Sessions and forked processes."""

import os
import signal

import numpy
import pytest

import zks
from conftest import ARRAY_REQUEST, run_python


USES_DAEMON = True


def in_fork(work):
    """What `work` returns in a forked child, as text; the child gets a minute."""
    read_end, write_end = os.pipe()
    child = os.fork()
    if child == 0:
        signal.alarm(60)
        try:
            answer = str(work())
        except BaseException as error:
            answer = f"{type(error).__name__}: {error}"
        os.write(write_end, answer.encode())
        os._exit(0)
    os.close(write_end)
    with os.fdopen(read_end, "rb") as answer:
        text = answer.read().decode()
    assert os.waitpid(child, 0)[1] == 0
    return text


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_a_forked_child_is_told_that_the_session_is_not_its_own(where, request):
    address = request.getfixturevalue("daemon") if where == "daemon" else None
    with zks.connect(address) as session:
        (unread,) = session.echo(b"unread")
        session.invoke_async("echo", ARRAY_REQUEST, numpy.zeros(3)).result(60)[0].array()
        text = in_fork(lambda: session.echo(b"child"))
        assert text.startswith("Error") and str(os.getpid()) in text
        text = in_fork(lambda: session.invoke_async("echo", ARRAY_REQUEST, 1))
        assert text.startswith("Error") and "forked" in text
        assert in_fork(session.close) == "None"
        assert session.echo(b"parent")[0].bytes() == b"parent"
        assert unread.bytes() == b"unread"


def test_a_forked_child_can_have_a_session_of_its_own(session):
    def work():
        with zks.connect() as own:
            return own.echo(b"child")[0].bytes()

    assert session.echo(b"x")[0].bytes() == b"x"
    assert in_fork(work) == "b'child'"


def test_a_forked_child_whose_parent_used_sockets_gets_a_clear_error(daemon):
    with zks.connect(daemon) as session:
        session.echo(b"x")[0].bytes()
    text = in_fork(lambda: zks.connect(daemon))
    assert "spawn" in text


def test_a_child_that_ends_the_ordinary_way_does_not_hang(daemon):
    code = """
import os, sys, zks
session = zks.connect(sys.argv[1] or None)
session.echo(b"x")[0].bytes()
child = os.fork()
if child == 0:
    sys.exit(7)
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
session.close()
"""
    for address in ("", daemon):
        done = run_python(code, address)
        assert done.stdout == "7\n", done.stderr
