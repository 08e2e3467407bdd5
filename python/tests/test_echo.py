"""Items there and back: echo and invoke, in any order, as any kind."""

import os

import hypothesis
import numpy
import pytest

import zks
from test_arrays import host_arrays, same_bits


USES_DAEMON = True


@hypothesis.given(host_arrays)
@hypothesis.settings(
    deadline=None, max_examples=60, suppress_health_check=[hypothesis.HealthCheck.function_scoped_fixture]
)
def test_any_array_comes_back_from_echo_as_it_went(session, value):
    (item,) = session.echo(value)
    assert same_bits(item.array(), value)


def test_echo_gives_back_every_kind_of_item(any_session, tmp_path):
    path = tmp_path / "sent"
    path.write_bytes(os.urandom(100_000))
    sent = numpy.arange(12.0).reshape(3, 4)
    array, plain, file, message, value = any_session.echo(
        sent, b"bytes\0", path, zks.message("parallel.zksmessages.TaskLimits", memory_bytes=5), {"a": [1, "b"]}
    )
    received = array.array()
    assert same_bits(received, sent)
    assert received.flags.c_contiguous and received.flags.writeable
    assert plain.bytes() == b"bytes\0"
    file.save(tmp_path / "received")
    assert (tmp_path / "received").read_bytes() == path.read_bytes()
    limits = message.message()
    assert limits.type_name == "parallel.zksmessages.TaskLimits"
    assert limits["memory_bytes"] == 5
    assert value.array() == {"a": [1, "b"]}


def test_shapes_and_orders_come_back_from_echo_as_sent(session):
    for sent in (
        numpy.float32(7), numpy.zeros(()), numpy.arange(5), numpy.zeros((5, 1)), numpy.zeros((1, 5)), numpy.zeros((2, 3, 1)),
        numpy.zeros((2, 3, 4), order="F"), numpy.zeros((2, 3, 4), order="C"), numpy.zeros((0,)), numpy.zeros((3, 0, 2)),
    ):  # fmt: skip
        (item,) = session.echo(sent)
        received = item.array()
        assert received.shape == sent.shape
        assert received.flags.c_contiguous == sent.flags.c_contiguous
        assert received.flags.f_contiguous == sent.flags.f_contiguous


def test_arrays_inside_lists_and_dicts_come_back_from_echo_as_sent(session):
    records = numpy.array([{"a": numpy.arange(2)}, {"a": numpy.zeros((1, 1))}], object)
    sent = {
        "vector": numpy.arange(3), "rows": numpy.arange(6.0).reshape(2, 3), "one": numpy.ones(1, "float32"), "number": 2.5,
        "list": [[numpy.zeros(()), numpy.float32(1)], (numpy.zeros((1, 1, 1)), "x", None)], "records": records,
        "characters": numpy.array(["a", "b"]), "row": numpy.array([["a", "\ud83d", "\ude00"]]), "nothing": {},
        "objects": numpy.array([[1, "x", None]], object), "deep": numpy.empty((0, 2), object),
    }  # fmt: skip

    def check(before, after):
        if isinstance(before, numpy.ndarray):
            assert (after.shape, after.dtype) == (before.shape, before.dtype)
            assert (after.flags.c_contiguous, after.flags.f_contiguous) == (
                before.flags.c_contiguous, before.flags.f_contiguous,
            )  # fmt: skip
            if before.dtype.kind == "O":
                check(before.ravel().tolist(), after.ravel().tolist())
            else:
                assert (after == before).all()
        elif isinstance(before, dict):
            assert list(after) == list(before)
            for key in before:
                check(before[key], after[key])
        elif isinstance(before, (list, tuple)):
            assert type(after) is list and len(after) == len(before)
            for pair in zip(before, after):
                check(*pair)
        else:
            assert after == before and type(after) is type(before)

    check(sent, session.echo(sent)[0].array())
    check([sent], session.echo([sent])[0].array())
    for value in (records, sent["characters"], sent["row"], sent["objects"], numpy.array([[{"a": 1}]], object)):
        check(value, session.echo(value)[0].array())


def test_invoke_gives_host_shapes_and_takes_wishes(session):
    request = zks.message("parallel.zksmessages.EchoRequest", items=[{"kind": "ITEM_KIND_ARRAY"}])
    sent = numpy.arange(6.0)
    assert session.invoke("echo", request, sent)[0].array().shape == (6, 1)
    assert session.invoke("echo", request, sent)[0].array(shape=-1).shape == (6,)
    matrix = session.invoke("echo", request, sent)[0].array(shape=(2, 3), order="C")
    assert matrix.flags.c_contiguous
    assert (matrix == sent.reshape((2, 3), order="F")).all()
    with pytest.raises(ValueError):
        session.invoke("echo", request, sent)[0].array(order="K")


def test_explicit_kinds_overrule_the_types(session, tmp_path):
    (tmp_path / "file").write_bytes(b"content")
    items = session.echo(
        zks.array(b"abc"), zks.plain(numpy.arange(3, dtype="uint8")), zks.plain(bytearray(b"x")),
        zks.file(str(tmp_path / "file")), zks.plain(memoryview(numpy.arange(2, dtype="int16"))),
    )  # fmt: skip
    assert items[0].array()[:, 0].tobytes() == b"abc"
    assert items[1].bytes() == b"\0\1\2"
    assert items[2].bytes() == b"x"
    items[3].save(tmp_path / "back")
    assert (tmp_path / "back").read_bytes() == b"content"
    assert items[4].bytes() == b"\0\0\1\0"


def test_items_can_be_read_in_any_order_and_each_once(any_session, tmp_path):
    sent = [numpy.full(1000, 1.0), b"two", numpy.full((3, 3), 3, "int8"), zks.message("parallel.zksmessages.Missing")]
    first, second, third, fourth = any_session.echo(*sent)
    assert fourth.message().type_name == "parallel.zksmessages.Missing"
    assert second.bytes() == b"two"
    assert (third.array() == 3).all()
    assert (first.array() == 1).all()
    for item in (first, second, third):
        with pytest.raises(zks.Error) as caught:
            item.array()
        assert caught.value.identifier == "parallel:python:ItemAlreadyRead"


def test_skipped_messages_and_files_are_kept_too(session, tmp_path):
    (tmp_path / "sent").write_bytes(b"f" * 70_000)
    message, file, last = session.echo(
        zks.message("parallel.zksmessages.TaskLimits", open_files=3), tmp_path / "sent", b"last"
    )
    assert last.bytes() == b"last"
    assert message.message()["open_files"] == 3
    file.save(tmp_path / "back")
    assert (tmp_path / "back").read_bytes() == b"f" * 70_000


def test_a_reply_that_nobody_reads_does_no_harm(any_session):
    any_session.echo(numpy.zeros(1 << 20))
    assert any_session.echo(b"next")[0].bytes() == b"next"
