"""The package's exceptions: chains, expansion, pickling."""

import copy
import pickle
import traceback

import numpy
import pytest

import zks
from zks._errors import error_from_levels


def levels(*kinds):
    """A chain of such kinds, outermost first; identified levels are c:N0, c:N1, ..."""
    return [
        (kind, "c" if kind == "identified" else "", f"N{depth}" if kind == "identified" else "", f"text {depth}")
        for depth, kind in enumerate(kinds)
    ]


def test_a_chain_keeps_each_level():
    error = error_from_levels(levels("identified", "standard", "framework"), "the expansion")
    assert str(error) == "the expansion"
    assert (error.identifier, error.text) == ("c:N0", "text 0")
    assert [(cause.identifier, cause.text) for cause in error.causes] == [
        ("", "text 1"), ("parallel:spf:FrameworkError", "text 2"),
    ]  # fmt: skip
    assert error.__cause__ is error.causes[0]
    assert error.causes[0].__cause__ is error.causes[1]
    assert error.causes[1].__cause__ is None
    assert str(error.causes[0]) == "text 1\n text 2"


@pytest.mark.parametrize(
    "kinds, expected",
    [
        (["identified"], zks.Error),
        (["standard"], zks.Error),
        (["unknown"], zks.Error),
        (["framework"], zks.FrameworkError),
        (["identified", "standard", "framework"], zks.FrameworkError),
        (["timeout"], zks.Timeout),
        (["terminated"], zks.Terminated),
        (["identified", "timeout"], zks.Error),
    ],
)
def test_the_type_says_what_to_do_next(kinds, expected):
    assert type(error_from_levels(levels(*kinds), "x")) is expected


@pytest.mark.parametrize(
    "kind, expected",
    [("timeout", zks.Timeout), ("terminated", zks.Terminated), ("framework", zks.FrameworkError), ("standard", zks.Error)],
)
def test_an_item_that_failed_is_what_its_cause_is(kind, expected):
    failed = ("identified", "parallel:toolbox", "ReplyItemFailed", "item 1")
    assert type(error_from_levels([failed, *levels(kind)], "x")) is expected
    assert type(error_from_levels([failed], "x")) is zks.Error


def test_the_types_are_python_s_own_too():
    assert issubclass(zks.Timeout, TimeoutError)
    assert issubclass(zks.Terminated, ConnectionError)
    for kind in (zks.FrameworkError, zks.Timeout, zks.Terminated):
        assert issubclass(kind, zks.Error)


@pytest.mark.parametrize("kind", ["identified", "framework", "timeout", "terminated", "standard"])
def test_errors_survive_pickling_and_copying(kind):
    error = error_from_levels(levels(kind, "identified", "standard"), "the\n expansion")
    for twin in (pickle.loads(pickle.dumps(error)), copy.copy(error), copy.deepcopy(error)):
        assert type(twin) is type(error)
        assert str(twin) == str(error)
        assert (twin.identifier, twin.text) == (error.identifier, error.text)
        assert [str(cause) for cause in twin.causes] == [str(cause) for cause in error.causes]
        assert twin.__cause__ is twin.causes[0]


def test_an_empty_error_can_be_made_and_pickled():
    assert str(pickle.loads(pickle.dumps(zks.Error()))) == ""


def test_an_error_of_the_service_arrives_with_its_chain(session):
    with pytest.raises(zks.Error) as caught:
        session.invoke("no such method")
    error = caught.value
    assert error.identifier == "parallel:toolbox:CallFailed"
    assert "no such method" in error.text
    assert error.causes
    lines = str(error).splitlines()
    assert lines[0] == error.text
    assert lines[1].startswith(" ")
    assert "direct cause" in "".join(traceback.format_exception(error))
    assert str(pickle.loads(pickle.dumps(error))) == str(error)


def test_an_item_of_another_kind_is_an_error_and_the_session_goes_on(session):
    (item,) = session.echo(b"these bytes are no array")
    with pytest.raises(zks.Error) as caught:
        item.array()
    assert caught.value.identifier == "parallel:toolbox:ReplyItemFailed"
    assert [cause.identifier for cause in caught.value.causes] == [
        "parallel:cluster:DeserializeQxArrayError", "parallel:toolbox:ItemNotReadable"]
    assert "its 32 bytes are not a serialised array" in caught.value.causes[-1].text
    assert session.echo(b"x")[0].bytes() == b"x"


def test_a_file_that_cannot_be_written_is_an_error(session, tmp_path):
    (item,) = session.echo(b"x")
    with pytest.raises(zks.Error):
        item.save(tmp_path / "no" / "such" / "directory")


def test_a_message_of_unknown_type_is_an_error(session):
    with pytest.raises(zks.Error, match="no.Such"):
        session.invoke("echo", zks.message("no.Such", x=1))


def test_values_that_cannot_be_sent_raise_before_the_call(session):
    with pytest.raises(TypeError, match="float16"):
        session.echo(numpy.zeros(1, "float16"))
    with pytest.raises(TypeError, match="float16"):
        session.invoke_async("echo", numpy.zeros(1, "float16"))
