"""How arrays lie in memory: copies in another order, and what the host's arrays do not keep of NumPy arrays."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Any, Iterator, Sequence

import numpy

# --- Copies ---

# Of an array this long a piece is copied at a time, and signals are looked at in between.
_PIECE_BYTES = 1 << 25

# A piece that has no more rows than this, or no more bytes, is turned within the processor's cache.
_CACHED_BYTES = 1 << 18
_CACHED_ROWS = 256


def copied(array: numpy.ndarray, order: str) -> numpy.ndarray:
    """A copy in row ("C") or column ("F") order and the machine's byte order. Ctrl-C ends it soon."""
    dtype = array.dtype.newbyteorder("=")
    if array.nbytes <= _CACHED_BYTES:
        return numpy.array(array, dtype, order=order, copy=True, subok=False)  # type: ignore[call-overload]
    source = array.view(numpy.ndarray)
    result = numpy.empty(array.shape, dtype, order=order)  # type: ignore[call-overload]
    for piece in _pieces(source, order):
        result[piece] = source[piece]
    return result


def _halve_longest(lengths: list[int], axes: Sequence[int]) -> None:
    longest = max(axes, key=lengths.__getitem__)
    lengths[longest] = -(-lengths[longest] // 2)


def _pieces(source: numpy.ndarray, order: str) -> Iterator[tuple[slice, ...]]:
    """Index expressions that cover the array. Where its rows become columns, a piece has few of them."""
    axes = range(source.ndim)
    lengths = list(source.shape)
    while math.prod(lengths) * source.itemsize > _PIECE_BYTES:
        _halve_longest(lengths, axes)
    along_rows = min((axis for axis in axes if lengths[axis] > 1), key=lambda axis: abs(source.strides[axis]))
    across = [axis for axis in axes if axis != along_rows]
    is_turned = along_rows != (source.ndim - 1 if order == "C" else 0)
    while (
        is_turned
        and math.prod(lengths) * source.itemsize > _CACHED_BYTES
        and math.prod(lengths[axis] for axis in across) > _CACHED_ROWS
    ):
        _halve_longest(lengths, across)
    for corner in numpy.ndindex(*(-(-whole // part) for whole, part in zip(source.shape, lengths))):
        yield tuple(slice(at * part, (at + 1) * part) for at, part in zip(corner, lengths))


# --- Layouts ---


@dataclass(frozen=True)
class ArrayLayout:
    """Of one NumPy array: its shape, its order, and what its elements are."""

    shape: tuple[int, ...]
    order: str
    kind: str
    inside: Layout = None  # of an array of objects, as that of the list of its elements in column-major order

    def restored(self, value: Any) -> Any:
        if self.kind == "O":
            value = self._objects(value)
        elif self.kind == "U":
            value = _characters(value)
        value = numpy.asarray(value)  # inside lists and dicts an array of one element comes back as a number
        if self.shape == value.shape and self.order == "F":
            return value
        return in_order(value.reshape(self.shape, order="F"), self.order)

    def _objects(self, value: Any) -> numpy.ndarray:
        """Of what such an array comes back as: an array, or where it has one row a list, one dict or None."""
        if isinstance(value, numpy.ndarray):
            elements = list(value.ravel("F"))
        elif isinstance(value, list):
            elements = value
        else:
            elements = [] if value is None else [value]
        return numpy.fromiter(restored(elements, self.inside), object, len(elements))


# What lists and dicts hold: layouts by index or by key, only those of arrays and of what holds arrays.
Layout = ArrayLayout | dict | None

_CONTAINERS = (numpy.ndarray, list, tuple, dict)


def layout_of(value: Any) -> Layout:
    """Of a value that is sent; None where the host's arrays keep all."""
    if isinstance(value, numpy.ndarray) and not (value.dtype.kind == "U" and value.ndim == 0):
        order = "C" if value.flags.c_contiguous and not value.flags.f_contiguous else "F"
        inside = layout_of(list(value.ravel("F"))) if value.dtype.kind == "O" else None
        return ArrayLayout(value.shape, order, value.dtype.kind, inside)
    if isinstance(value, numpy.generic) and not isinstance(value, (str, bytes)):
        return ArrayLayout((), "F", value.dtype.kind)
    if isinstance(value, dict):
        return _layouts(value.items())
    if isinstance(value, (list, tuple)) and any(issubclass(cls, _CONTAINERS) for cls in set(map(type, value))):
        return _layouts(enumerate(value))
    return None


def _layouts(items: Any) -> Layout:
    found = {key: layout_of(value) for key, value in items if isinstance(value, _CONTAINERS)}
    return {key: layout for key, layout in found.items() if layout is not None} or None


def restored(value: Any, layout: Layout) -> Any:
    """What came back, with its arrays as they were sent."""
    if isinstance(layout, ArrayLayout):
        return layout.restored(value)
    for key, inside in (layout or {}).items():
        value[key] = restored(value[key], inside)
    return value


def in_order(array: numpy.ndarray, order: str | None) -> numpy.ndarray:
    """The array itself where it lies so, else a copy that does."""
    if order != "C" or array.ndim < 2 or array.flags.c_contiguous:
        return array
    return copied(array, "C")


def _characters(value: Any) -> numpy.ndarray:
    """An array of characters of one that came as a str: a row of UTF-16 units."""
    if isinstance(value, numpy.ndarray):
        return value
    units = numpy.frombuffer(value.encode("utf-16-le", "surrogatepass"), "<u2")
    return units.astype(numpy.uint32).view("U1")
