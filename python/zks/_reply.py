"""The items of a reply."""

from __future__ import annotations

import os
from dataclasses import dataclass
from typing import Any, Sequence

import numpy

from zks import _bridge, _logging
from zks._items import Item, Message


@dataclass(frozen=True)
class Layout:
    """What the host's arrays do not keep of a NumPy array: fewer than two dimensions, row order."""

    shape: tuple[int, ...]
    order: str

    @staticmethod
    def of(item: Item) -> Layout | None:
        value = item.value
        if item.kind != "array" or not isinstance(value, (numpy.ndarray, numpy.generic)):
            return None
        return Layout(value.shape, "C" if value.flags.c_contiguous and not value.flags.f_contiguous else "F")


class ReplyItem:
    """One item of a reply, still on its way until it is read. Read it once, as what the method says that it is.

    What kind of item it is does not travel with it. Items may be read in any order; those in front of one that is read
    are kept in memory until their turn.
    """

    def __init__(self, reply: _bridge.Reply, index: int, method: str, layout: Layout | None = None):
        self._reply = reply
        self._index = index
        self._method = method
        self._layout = layout
        self._state = "not read"

    def _take(self, state: str, operation: Any, *arguments: Any) -> Any:
        _logging.follow_level()
        result = operation(self._index, *arguments)
        self._state = state
        return result

    def array(self, shape: Sequence[int] | int | None = None, order: str | None = None) -> Any:
        """The host array. NumPy arrays own their memory, are writable and have at least two dimensions.

        shape: another shape of as many elements, in the host's (column-major) order of elements; -1 flattens
        order: "C" for an array in row order, which costs a copy; by default what the host has, column-major
        Items of echo come back in the shape and order in which NumPy arrays were sent.
        Text comes as str, lists as list, structs as dict.
        """
        if order not in (None, "C", "F"):
            raise ValueError(f'order is "C" or "F", not {order!r}')
        value = self._take("array", self._reply.take_array)
        if not isinstance(value, numpy.ndarray):
            return value
        if shape is None and self._layout is not None:
            shape = self._layout.shape
        if order is None and self._layout is not None:
            order = self._layout.order
        if shape is not None:
            value = value.reshape(shape, order="F")
        return numpy.ascontiguousarray(value) if order == "C" and value.ndim > 1 else value

    def message(self) -> Message:
        """The protobuf message as a dict of its fields."""
        return Message(self._take("message", self._reply.take_message))

    def bytes(self) -> bytes:
        """The bytes of a plain item."""
        return self._take("bytes", self._reply.take_bytes)

    def save(self, path: str | bytes | os.PathLike) -> None:
        """Writes a file item to a file, which is created or replaced. After an error it holds what had come until then."""
        self._take("saved", self._reply.take_file, path)

    def __repr__(self) -> str:
        return f"<zks reply item {self._index + 1} of {len(self._reply)} of {self._method!r}: {self._state}>"

    def _repr_html_(self) -> str:
        import html

        return f"<code>{html.escape(repr(self))}</code>"


def reply_items(reply: _bridge.Reply, method: str, sent: Sequence[Item] | None = None) -> list[ReplyItem]:
    """`sent`: the items that these are the same as."""
    layouts = [Layout.of(item) for item in sent] if sent is not None else [None] * len(reply)
    return [ReplyItem(reply, index, method, layouts[index]) for index in range(len(reply))]
