"""NumPy arrays and other values, to the host and back."""

import array as stdlib_array
import enum
import gc
import pathlib
from unittest import mock

import hypothesis
import hypothesis.extra.numpy as hnp
import hypothesis.strategies as st
import numpy
import pytest

import zks
from zks import _bridge, _layout

DTYPES = [
    "float64", "float32", "complex128", "complex64", "bool",
    "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64",
]  # fmt: skip


@st.composite
def host_arrays_of(draw, shapes):
    """Few drawn elements, NaNs and extremes among them, in places of chance: many drawn ones would take long."""
    dtype = numpy.dtype(draw(st.sampled_from(DTYPES)))
    elements = numpy.array(draw(st.lists(hnp.from_dtype(dtype), min_size=1, max_size=4)), dtype)
    places = numpy.random.default_rng(draw(st.integers(0, 2**32))).integers(len(elements), size=draw(shapes))
    return numpy.asarray(elements[places])


host_arrays = host_arrays_of(hnp.array_shapes(min_dims=0, max_dims=5, min_side=0, max_side=5))


def same_bits(left, right):
    """Equal to the bit, so that NaNs and negative zeros count."""
    return (
        left.dtype == right.dtype
        and left.shape == right.shape
        and numpy.ascontiguousarray(left).tobytes() == numpy.ascontiguousarray(right).tobytes()
    )


def as_in_host(value):
    """The array in the shape that host arrays have."""
    shape = value.shape + (1,) * (2 - value.ndim)
    while len(shape) > 2 and shape[-1] == 1:
        shape = shape[:-1]
    return value.reshape(shape)


@hypothesis.given(host_arrays)
@hypothesis.settings(deadline=None)
def test_any_numeric_array_keeps_dtype_values_and_host_shape(value):
    assert same_bits(_bridge.roundtrip(value), as_in_host(value))


@hypothesis.given(host_arrays, st.data())
@hypothesis.settings(deadline=None)
def test_views_of_any_layout_keep_their_values(value, data):
    view = numpy.transpose(value, data.draw(st.permutations(range(value.ndim))))
    for axis in range(view.ndim):
        step = data.draw(st.sampled_from([1, -1, 2]))
        view = view[(slice(None),) * axis + (slice(None, None, step),)]
    assert same_bits(_bridge.roundtrip(view), as_in_host(view))


@pytest.mark.parametrize("dtype", DTYPES)
def test_received_arrays_are_writable_aligned_and_own_their_memory(dtype):
    sent = numpy.ones((3, 4), dtype, order="F")
    received = _bridge.roundtrip(sent)
    assert received.flags.writeable
    assert received.flags.aligned
    assert received.flags.f_contiguous
    received[...] = 0
    assert sent.all(), "a write reached the array that was sent"


def test_array_outlives_everything_it_came_from(session):
    (item,) = session.echo(numpy.arange(1000.0))
    value = item.array()
    del item
    session.close()
    gc.collect()
    assert (value == numpy.arange(1000.0)).all()


def test_fortran_and_one_dimensional_arrays_are_borrowed_not_copied():
    for value in (numpy.zeros((1000, 3), order="F"), numpy.zeros(1000), numpy.zeros((1, 1000)), b"x" * 1000):
        before = _bridge.live_objects()["borrowed"]
        item = _bridge.array_item(value)
        assert _bridge.live_objects()["borrowed"] == before + 1
        del item
        assert _bridge.live_objects()["borrowed"] == before


def test_borrowed_memory_is_given_back_when_its_item_is_gone():
    value = numpy.zeros(10)
    import sys

    before = sys.getrefcount(value)
    item = _bridge.array_item(value)
    assert sys.getrefcount(value) == before + 1
    del item
    assert sys.getrefcount(value) == before


@pytest.mark.parametrize("dtype", [">f8", ">i2", ">c8", ">u4"])
def test_foreign_byte_order_comes_back_native(dtype):
    sent = numpy.arange(6, dtype=dtype).reshape(2, 3)
    received = _bridge.roundtrip(sent)
    assert received.dtype.isnative
    assert (received == sent).all()


def test_unaligned_arrays_are_copied():
    raw = numpy.zeros(8 * 5 + 1, numpy.uint8)
    sent = raw[1:].view(numpy.float64)
    sent[:] = range(5)
    assert not sent.flags.aligned
    assert (_bridge.roundtrip(sent)[:, 0] == sent).all()


@pytest.mark.parametrize(
    "dtype", ["float16", "longdouble", "clongdouble", "U3", "S3", "datetime64[s]", "timedelta64[s]", "V3", "i4,f8"]
)
def test_dtypes_without_a_host_form_are_refused_by_name(dtype):
    with pytest.raises(TypeError) as caught:
        _bridge.roundtrip(numpy.zeros(2, dtype))
    assert str(numpy.dtype(dtype)) in str(caught.value)


def test_errors_say_where_in_a_value_they_are():
    rows = numpy.empty((2, 3), object)
    rows[1, 2] = {"b": numpy.zeros(1, "float16")}
    for value, error, place in (
        ({"a": [1, {"b c": {1}}]}, TypeError, "at ['a'][1]['b c']"),
        ([[], [2**70]], OverflowError, "at [1][0]"),
        (rows, TypeError, "at [1, 2]['b']"),
        ([{"a": {"": 1}}], ValueError, "at [0]['a']"),
        ([{"\ud800": 1}], ValueError, "'\\ud800' was found, at [0]"),
        ([numpy.ma.masked_array([1], [1])], TypeError, "at [0]"),
    ):  # fmt: skip
        with pytest.raises(error) as caught:
            _bridge.roundtrip(value)
        assert str(caught.value).endswith(place)
    with pytest.raises(TypeError) as caught:
        _bridge.roundtrip({1})
    assert " at " not in str(caught.value)


def test_scalars_of_such_dtypes_are_refused_too():
    with pytest.raises(TypeError, match="float16"):
        _bridge.roundtrip(numpy.float16(1))


def test_masked_arrays_are_refused():
    with pytest.raises(TypeError, match="masked"):
        _bridge.roundtrip(numpy.ma.masked_array([1, 2], [0, 1]))


def test_matrices_are_arrays():
    with pytest.warns(PendingDeprecationWarning):
        matrix = numpy.matrix("1 2; 3 4")
    assert type(_bridge.roundtrip(matrix)) is numpy.ndarray


def test_broadcast_and_read_only_arrays_can_be_sent():
    wide = numpy.broadcast_to(numpy.arange(3.0), (4, 3))
    assert (_bridge.roundtrip(wide) == wide).all()
    fixed = numpy.arange(3.0)
    fixed.flags.writeable = False
    assert _bridge.roundtrip(fixed).flags.writeable


# --- Values that are no arrays ---

scalars = st.one_of(
    st.booleans(),
    st.integers(-(2**63), 2**63 - 1),
    st.floats(allow_nan=False),
    st.complex_numbers(allow_nan=False),
    st.text(st.characters(), max_size=4),
)
keys = st.text(st.characters(blacklist_categories=["Cs"]), min_size=1, max_size=2)
values = st.recursive(
    st.one_of(st.none(), scalars),
    lambda inner: st.one_of(st.lists(inner, max_size=4), st.dictionaries(keys, inner, max_size=4)),
    max_leaves=10,
)


@hypothesis.given(values)
@hypothesis.settings(deadline=None)
def test_plain_python_values_come_back_equal_and_of_the_same_type(value):
    received = _bridge.roundtrip([value])
    assert received == [value]
    assert type(received[0]) is type(value)


@hypothesis.given(st.recursive(host_arrays, lambda inner: st.lists(inner, max_size=3), max_leaves=6))
@hypothesis.settings(deadline=None)
def test_arrays_inside_lists_keep_their_values(value):
    def check(sent, received):
        if isinstance(sent, list):
            assert isinstance(received, list) and len(received) == len(sent)
            for left, right in zip(sent, received):
                check(left, right)
        else:
            assert same_bits(numpy.atleast_2d(received) if sent.size == 1 else received, as_in_host(sent).astype(
                numpy.asarray(received).dtype))
            assert numpy.asarray(received).dtype == sent.dtype

    check([value], _bridge.roundtrip([value]))


@pytest.mark.parametrize("number", [2**63, 2**64 - 1])
def test_integers_above_int64_come_back_as_uint64(number):
    (received,) = _bridge.roundtrip([number])
    assert received == number
    assert received.dtype == numpy.uint64


def test_none_alone_and_an_empty_list_are_two_things():
    assert _bridge.roundtrip(None) is None
    assert _bridge.roundtrip([]) == []
    assert _bridge.roundtrip([None]) == [None]
    assert _bridge.roundtrip({}) == {}
    assert _bridge.roundtrip("") == ""


def test_order_of_fields_is_kept():
    assert list(_bridge.roundtrip({"z": 1, "a": 2, "m": 3})) == ["z", "a", "m"]


def test_tuples_become_lists():
    assert _bridge.roundtrip((1, (2.5, "x"))) == [1, [2.5, "x"]]


def test_numpy_scalars_keep_their_dtype_inside_lists():
    for dtype in DTYPES:
        (received,) = _bridge.roundtrip([numpy.ones((), dtype)[()]])
        assert numpy.asarray(received).dtype == dtype


def test_alone_a_number_is_an_array_unless_scalars_are_wanted():
    assert _bridge.roundtrip(2.5).shape == (1, 1)
    assert _bridge.roundtrip(2.5, scalars=True) == 2.5


def test_bytes_become_a_column_of_uint8():
    for value in (b"ab\0\xff", bytearray(b"ab\0\xff"), memoryview(b"ab\0\xff")):
        received = _bridge.roundtrip(value)
        assert received.dtype == numpy.uint8
        assert received[:, 0].tobytes() == b"ab\0\xff"
    for empty in (b"", bytearray(), memoryview(b"")):
        assert _bridge.roundtrip(empty).size == 0


def test_buffers_keep_their_element_type():
    received = _bridge.roundtrip(stdlib_array.array("i", [1, 2, 3]))
    assert received.dtype == numpy.int32
    assert received[:, 0].tolist() == [1, 2, 3]


def test_objects_that_offer_an_array_are_arrays():
    class Offers:
        def __array__(self, dtype=None):
            return numpy.arange(3, dtype=dtype or "int16")

    received = _bridge.roundtrip(Offers())
    assert received.dtype == numpy.int16
    assert received.shape == (3, 1)


def test_paths_are_text(tmp_path):
    assert _bridge.roundtrip(tmp_path / "dätä") == str(tmp_path / "dätä")


def test_integer_enums_are_their_values():
    class Colour(enum.IntEnum):
        RED = 7

    assert _bridge.roundtrip([Colour.RED]) == [7]


@pytest.mark.parametrize("number", [2**64, -(2**63) - 1, 10**100])
def test_integers_past_64_bits_are_refused(number):
    with pytest.raises(OverflowError, match="64 bits"):
        _bridge.roundtrip(number)


@pytest.mark.parametrize("value", [{1, 2}, object(), lambda: 0, iter([]), 1 .__add__, range])
def test_values_without_a_host_form_are_refused_by_type(value):
    with pytest.raises(TypeError, match=type(value).__name__):
        _bridge.roundtrip(value)


def test_an_error_inside_a_list_gives_back_what_was_borrowed():
    before = _bridge.live_objects()
    with pytest.raises(TypeError):
        _bridge.roundtrip([numpy.zeros(5), {"a": numpy.zeros(5), "b": {1}}])
    assert _bridge.live_objects() == before


def test_keys_are_text_and_not_empty():
    with pytest.raises(TypeError, match="int"):
        _bridge.roundtrip({1: 2})
    with pytest.raises(ValueError, match="empty"):
        _bridge.roundtrip({"": 2})


def test_a_list_that_contains_itself_is_a_recursion_error():
    circle = []
    circle.append(circle)
    with pytest.raises(RecursionError):
        _bridge.roundtrip(circle)


def test_lone_surrogates_and_astral_characters_survive():
    text = "\ud800 a \U0001f600 \0 \udfff"
    assert _bridge.roundtrip(text) == text


def test_received_elements_are_writable_and_apart():
    shared = numpy.zeros(4)
    received = _bridge.roundtrip([shared, {"x": shared}])
    received[0][0] = 1
    assert received[1]["x"][0] == 0
    assert shared[0] == 0


def test_item_that_is_not_bytes_cannot_be_plain():
    with pytest.raises(zks.Error) as caught:
        _bridge.plain_item(numpy.zeros(3))
    assert caught.value.identifier == "host:array:WrongClass"
    assert "float64" in str(caught.value)


def test_a_missing_file_is_named():
    with pytest.raises(zks.Error) as caught:
        _bridge.file_item(pathlib.Path("/no/such/file"))
    assert caught.value.identifier == "parallel:toolbox:CannotReadFile"
    assert "/no/such/file" in str(caught.value)


def sent_as_plain(value):
    with zks.connect() as session:
        return session.echo(zks.plain(value))[0].bytes()


def test_plain_bytes_go_as_they_lie_in_memory():
    rows = numpy.arange(6, dtype="uint8").reshape(2, 3)
    columns = numpy.asfortranarray(rows)
    for value in (rows, columns, rows.astype("int8"), rows.astype("bool"), rows.astype("int16"), rows.view("S1")):
        if value.itemsize == 1:
            assert sent_as_plain(value) == value.tobytes("A")
        assert sent_as_plain(memoryview(value)) == value.tobytes("A")
    assert sent_as_plain(rows) == bytes(range(6))
    assert sent_as_plain(columns) == bytes([0, 3, 1, 4, 2, 5])


def test_plain_bytes_of_a_view_with_gaps_go_in_row_order():
    view = numpy.arange(24, dtype="uint8").reshape(4, 6)[::2, ::-2]
    assert sent_as_plain(view) == sent_as_plain(memoryview(view)) == view.tobytes()
    assert sent_as_plain(numpy.zeros((0, 3), "uint8")) == b""


def test_plain_bytes_are_borrowed():
    before = _bridge.live_objects()["borrowed"]
    items = [_bridge.plain_item(value) for value in (b"x", bytearray(b"x"), numpy.zeros((2, 3), "uint8"))]
    assert _bridge.live_objects()["borrowed"] == before + len(items)


def test_masked_arrays_are_no_bytes():
    with pytest.raises(TypeError, match="masked"):
        zks._bridge.plain_item(numpy.ma.masked_array([1], [1], dtype="uint8"))


@hypothesis.given(data=st.data())
@hypothesis.settings(deadline=None, max_examples=40)
def test_copies_have_the_wanted_order_and_the_same_values(data):
    """Around the sizes at which an array is cut into pieces."""
    shape = data.draw(hnp.array_shapes(min_dims=1, max_dims=4, max_side=40))
    value = numpy.arange(numpy.prod(shape), dtype=data.draw(st.sampled_from(["float64", ">i4", "uint8"]))).reshape(shape)
    view = value.transpose(data.draw(st.permutations(range(value.ndim))))[:: data.draw(st.sampled_from([1, -1, 2]))]
    order = data.draw(st.sampled_from("CF"))
    with mock.patch.multiple(_layout, _CACHED_BYTES=64, _CACHED_ROWS=3, _PIECE_BYTES=1024):
        copy = _layout.copied(view, order)
    assert copy.dtype.isnative and (copy == view).all()
    assert copy.flags.c_contiguous if order == "C" else copy.flags.f_contiguous
    assert not numpy.shares_memory(copy, view)
