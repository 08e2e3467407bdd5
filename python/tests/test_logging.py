"""The library's log under Python's logging."""

import logging

import numpy
import pytest

import zks
from conftest import run_python
from zks import _bridge


@pytest.fixture
def level():
    """Sets the logger's level and puts it back."""
    logger = logging.getLogger("zks")
    yield logger.setLevel
    logger.setLevel(logging.NOTSET)
    from zks import _logging

    _logging.follow_level()


def messages(caplog):
    _bridge.run_deferred()
    return [(record.levelno, record.getMessage()) for record in caplog.records if record.name == "zks"]


def test_calls_are_told_at_debug(session, level, caplog):
    level(logging.DEBUG)
    session.echo(b"x")[0].bytes()
    assert (logging.DEBUG, " methodName=echo") in messages(caplog)
    assert {record.native_logger for record in caplog.records} >= {"parallel::spf::transport"}


def test_nothing_is_told_below_the_level(session, level, caplog):
    level(logging.WARNING)
    session.echo(b"x")[0].bytes()
    assert messages(caplog) == []


def test_errors_are_told_by_level(session, level, caplog):
    level(logging.ERROR)
    with pytest.raises(zks.Error):
        session.invoke("no such method")
    told = messages(caplog)
    assert told
    assert {number for number, _ in told} == {logging.ERROR}
    assert any("Error depth = 0" in text for _, text in told)


def test_the_level_can_change_between_calls(session, level, caplog):
    level(logging.CRITICAL)
    with pytest.raises(zks.Error):
        session.invoke("no such method")
    assert messages(caplog) == []
    level(logging.DEBUG)
    session.echo(b"x")[0].bytes()
    assert messages(caplog)


def test_a_handler_that_calls_the_library_does_no_harm(session, level):
    called = []

    class Calling(logging.Handler):
        def emit(self, record):
            if not called:
                called.append(None)
                called[0] = session.echo(b"from the handler")[0].bytes()

    logger = logging.getLogger("zks")
    handler = Calling()
    logger.addHandler(handler)
    try:
        level(logging.DEBUG)
        session.echo(b"x")[0].bytes()
        _bridge.run_deferred()
    finally:
        logger.removeHandler(handler)
    assert called == [b"from the handler"]


def test_text_that_is_no_format_stays_text(session, level, caplog):
    level(logging.DEBUG)
    with pytest.raises(zks.Error):
        session.invoke("100%s %d")
    assert any("100%s %d" in text for _, text in messages(caplog))


def test_without_handlers_nothing_is_printed():
    code = """
import zks
with zks.connect() as session:
    try:
        session.invoke("no such method")
    except zks.Error:
        pass
"""
    done = run_python(code)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
