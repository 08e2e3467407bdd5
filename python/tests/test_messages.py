"""Protobuf messages as dicts: what comes back has one form for any count, and can be sent again."""

import numpy
import pytest

import zks
from zks import _bridge

PACKAGE = "parallel.zksmessages"


def sent_round(session, message):
    """The message as it comes back, having been sent again in that form."""
    (first,) = session.echo(message)
    (second,) = session.echo(first.message())
    return second.message()


def description(**fields):
    return zks.message("google.protobuf.FileDescriptorProto", **fields)


@pytest.mark.parametrize("count", [0, 1, 2, 3])
def test_repeated_fields_are_lists_and_columns_for_any_count(session, count):
    message = sent_round(
        session,
        description(
            dependency=[f"file {n}" for n in range(count)],
            message_type=[{"name": f"M{n}"} for n in range(count)],
            public_dependency=list(range(count)),
        ),
    )
    assert message["dependency"] == [f"file {n}" for n in range(count)]
    assert [each["name"] for each in message["message_type"]] == [f"M{n}" for n in range(count)]
    assert isinstance(message["message_type"], list)
    assert message["public_dependency"].dtype == numpy.int32
    assert message["public_dependency"].tolist() == list(range(count))
    assert message["enum_type"] == []


def test_messages_inside_are_messages_and_can_be_sent_alone(session):
    request = zks.message(f"{PACKAGE}.EchoRequest", items=[{"kind": "ITEM_KIND_PLAIN", "nbytes": 3}, {}])
    message = sent_round(session, request)
    first, second = message["items"]
    assert type(first) is zks.Message
    assert first == {"MessageType": f"{PACKAGE}.EchoRequest.Item", "kind": "ITEM_KIND_PLAIN", "nbytes": 3}
    assert second["kind"] == "ITEM_KIND_UNSPECIFIED"
    assert sent_round(session, first) == first


def test_maps_are_dicts(session):
    for environment in ({}, {"A": "1"}, {"A": "1", "B": ""}):
        message = sent_round(session, zks.message(f"{PACKAGE}.TaskDescription", argv=["x"], environment=environment))
        assert message["environment"] == environment
        assert message["argv"] == ["x"]


def test_bytes_are_bytes(session):
    for value in (b"", b"\0", b"ab"):
        option = {"name": [{"name_part": "x", "is_extension": False}], "string_value": value}
        options = {"uninterpreted_option": [option]}
        message = sent_round(session, description(options=options))
        assert message["options"]["uninterpreted_option"][0]["string_value"] == value


@pytest.mark.parametrize(
    "value", [{}, {"a": 1.5, "b": "text", "c": [1.0], "d": [], "e": {"f": [[True], "x"]}}, {"list": [{"a": 1.0}, {"b": []}]}]
)
def test_structs_of_any_values_are_dicts_and_lists(session, value):
    message = sent_round(session, zks.message("google.protobuf.Struct", fields=value))
    assert message["fields"] == value


def test_what_an_any_holds_is_a_message(session):
    inner = zks.message(f"{PACKAGE}.EchoRequest", items=[{"kind": "ITEM_KIND_FILE"}])
    message = sent_round(session, zks.message(f"{PACKAGE}.ResultPayload", result=inner))
    assert type(message["result"]) is zks.Message
    assert [each["kind"] for each in message["result"]["items"]] == ["ITEM_KIND_FILE"]


def test_special_forms_come_back_as_they_went(session):
    limits = zks.message(f"{PACKAGE}.TaskLimits", wall_time="1.500s", open_files=7)
    assert sent_round(session, limits) == {**limits, "open_files": 7}


def test_a_decoded_execution_record_is_a_message():
    encoded = zks.host.builtin("parallel::spf::transport::protobuf::bnSerializeProtobufStruct")(
        zks.message(f"{PACKAGE}.TesselTaskExecutionInfo", missing_outputs=["a"])
    )
    decoded = zks.host.builtin("parallel::spf::transport::protobuf::bnDeserializeTaskExecutionInfo")(encoded)
    assert type(decoded) is zks.Message
    assert decoded["missing_outputs"] == ["a"]


# --- Values that are no messages ---


def received(value):
    return _bridge.roundtrip(value)


def test_lists_of_other_shapes_go_round():
    values = numpy.empty((2, 2), object)
    values[:] = [[1, "x"], [None, [2.5]]]
    for again in (received(values), received(received(values))):
        assert again.shape == (2, 2)
        assert again.tolist() == values.tolist()
    empty = received(numpy.empty((0, 3), object))
    assert empty.shape == received(empty).shape == (0, 3)


def test_arrays_of_dicts_with_the_same_keys_are_struct_arrays():
    records = numpy.array([{"a": 1, "b": "x"}, {"b": "y", "a": 2}], object)
    again = received(received(records))
    assert again.shape == (2, 1)
    assert again[:, 0].tolist() == [{"a": 1, "b": "x"}, {"a": 2, "b": "y"}]
    assert list(again[1, 0]) == ["a", "b"]
    assert received(numpy.array([{"a": 1}], object)) == {"a": 1}, "one element is a struct as a dict is"
    mixed = received(numpy.array([{"a": 1}, {"b": 2}], object))
    assert mixed[:, 0].tolist() == [{"a": 1}, {"b": 2}]


def test_texts_of_several_rows_go_round():
    rows = numpy.array([list("ab"), list("c\0"), ["\ud800", "ä"]], "U1")
    again = received(received(rows))
    assert again.dtype == "U1"
    assert (again == rows).all()
    assert received(numpy.array([list("row")])) == "row"
    with pytest.raises(ValueError, match="two units"):
        received(numpy.array(["\U0001f600", "x"]))
    assert received(numpy.array("a text")) == "a text"
