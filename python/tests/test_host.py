"""The classes and builtins of the host, shown as the class system holds them."""

import inspect

import numpy
import pytest

import zks
from zks import _bridge

PACKAGE = "parallel.internal.cluster"
SERIALIZE = "parallel::spf::transport::protobuf::bnSerializeProtobufStruct"
DESERIALIZE = "parallel::spf::transport::protobuf::bnDeserializeTaskExecutionInfo"


def cluster():
    return zks.host.parallel.internal.cluster


def test_namespaces_and_classes_are_what_the_library_registered():
    assert "parallel" in dir(zks.host)
    assert dir(zks.host.parallel.internal) == ["cluster"]
    assert dir(cluster()) == ["DeserializableData", "SerializableData"]
    assert repr(cluster()) == "<namespace parallel.internal.cluster of the host>"


def test_the_class_is_made_once():
    assert cluster().SerializableData is cluster().SerializableData
    assert cluster().SerializableData is zks.host.class_named(f"{PACKAGE}.SerializableData")


def test_static_methods_make_objects_of_their_class(tmp_path):
    (tmp_path / "data.bin").write_bytes(b"data")
    cls = cluster().SerializableData
    for made in (
        cls.createFile(str(tmp_path / "data.bin")), cls.createFile(tmp_path / "data.bin"),
        cls.createQxArray(numpy.zeros(3)), cls.createPlain(b"abc"),
        cls.createProtobuf({"MessageType": "parallel.zksmessages.Missing"}),
    ):  # fmt: skip
        assert type(made) is cls
        assert repr(made) == f"<{PACKAGE}.SerializableData object of the host>"


def test_objects_keep_their_values_whatever_happens_to_the_array():
    value = numpy.zeros(1000)
    before = _bridge.live_objects()["borrowed"]
    item = cluster().SerializableData.createQxArray(value)
    assert _bridge.live_objects()["borrowed"] == before + 1
    assert not numpy.shares_memory(value, value.copy())
    import sys

    assert sys.getrefcount(value) == 2, "the object holds the caller's own array"
    del item


def test_objects_pass_through_lists_and_stay_themselves():
    item = cluster().SerializableData.createPlain(b"x")
    (back,) = _bridge.roundtrip([item])
    assert back == item
    assert type(back) is type(item)
    assert item != cluster().SerializableData.createPlain(b"x")
    assert item != 3


def test_superclasses_are_bases():
    cls = cluster().DeserializableData
    assert [base.__name__ for base in cls.__mro__[1:3]] == ["Heterogeneous", "HostObject"]


def test_docstrings_and_signatures_tell_what_the_class_system_knows():
    create = cluster().SerializableData.createFile
    assert create.__qualname__ == "SerializableData.createFile"
    assert "createFile(any)" in create.__doc__
    assert str(inspect.signature(create)) == "(input1: 'any', /) -> 'parallel.internal.cluster.SerializableData'"
    read = cluster().DeserializableData.deserializeQxArray
    assert "any = deserializeQxArray(any)" in read.__doc__
    assert "any = deserializeQxArray()" in read.__doc__
    assert str(inspect.signature(read)) == "(self, input1: 'any' = Ellipsis, /) -> 'any'"
    save = cluster().DeserializableData.deserializeToFile
    assert str(inspect.signature(save)) == "(self, input1: 'TovaFactoryString scalar', /) -> 'None'"
    assert cluster().SerializableData.__doc__


def test_what_is_not_there():
    with pytest.raises(AttributeError, match="nowhere"):
        zks.host.nowhere
    with pytest.raises(AttributeError, match="Nothing"):
        cluster().Nothing
    with pytest.raises(AttributeError):
        cluster().SerializableData.nothing
    with pytest.raises(zks.Error) as caught:
        zks.host.class_named("a.B")
    assert caught.value.identifier == "host:classes:NoSuchClass"


def test_classes_without_a_constructor_say_where_objects_come_from():
    with pytest.raises(TypeError, match="no constructor"):
        cluster().SerializableData()


@pytest.mark.parametrize(
    "call, identifier",
    [
        (lambda cls: cls.createFile(), "host:classes:NotEnoughInputs"),
        (lambda cls: cls.createFile("a", "b"), "host:classes:TooManyInputs"),
        (lambda cls: zks.host.builtin("no::such"), "parallel:python:NoSuchBuiltin"),
        (lambda cls: zks.host.builtin(SERIALIZE)(), "host:builtins:NotEnoughInputs"),
        (lambda cls: zks.host.builtin(SERIALIZE)(1, 2), "host:builtins:TooManyInputs"),
    ],
)
def test_misuse_is_told_by_the_host(call, identifier):
    with pytest.raises(zks.Error) as caught:
        call(cluster().SerializableData)
    assert caught.value.identifier == identifier


def test_builtins_are_found_by_name_and_called():
    encoded = zks.host.builtin(SERIALIZE)(zks.message("parallel.zksmessages.TesselTaskExecutionInfo", message="why"))
    assert encoded.dtype == numpy.uint8
    assert encoded[:, 0].tobytes() == b"\x22\x03why"
    decoded = zks.host.builtin(DESERIALIZE)(encoded)
    assert decoded["message"] == "why"
    assert zks.host.builtin(SERIALIZE).__name__ == "bnSerializeProtobufStruct"


def test_a_builtin_that_fails_says_what_it_did():
    with pytest.raises(zks.Error, match="Error occurred serializing protobuf message"):
        zks.host.builtin(SERIALIZE)({"MessageType": "no.Such"})
