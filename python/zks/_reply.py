"""The items of a reply."""

from __future__ import annotations

import builtins
import os
from concurrent.futures import Future
from dataclasses import dataclass
from typing import Any, Callable, Sequence

import numpy

from zks import _bridge, _logging
from zks._calls import Calls, Operation, T
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

    def __init__(self, reply: _bridge.Reply, index: int, method: str, calls: Calls, layout: Layout | None = None):
        self._reply = reply
        self._index = index
        self._method = method
        self._calls = calls
        self._layout = layout
        self._state = "not read"

    def array(self, shape: Sequence[int] | int | None = None, order: str | None = None) -> Any:
        """The host array. NumPy arrays own their memory, are writable and have at least two dimensions.

        shape: another shape of as many elements, in the host's (column-major) order of elements; -1 flattens
        order: "C" for an array in row order, which costs a copy; by default what the host has, column-major
        Items of echo come back in the shape and order in which NumPy arrays were sent.
        Text comes as str, lists as list, structs as dict.
        """
        return self._reading_array(shape, order)(None)

    def array_async(self, shape: Sequence[int] | int | None = None, order: str | None = None) -> Future[Any]:
        """array on a thread of the session. Cancelling the future gives the rest of the reply up; so for all of these."""
        return self._calls.submit(self._reading_array(shape, order))

    def message(self) -> Message:
        """The protobuf message as a dict of its fields."""
        return self._reading_message()(None)

    def message_async(self) -> Future[Message]:
        """message on a thread of the session."""
        return self._calls.submit(self._reading_message())

    def bytes(self) -> bytes:
        """The bytes of a plain item."""
        return self._reading("bytes", self._reply.take_bytes)(None)

    def bytes_async(self) -> Future[builtins.bytes]:
        """bytes on a thread of the session."""
        return self._calls.submit(self._reading("bytes", self._reply.take_bytes))

    def save(self, path: str | builtins.bytes | os.PathLike) -> None:
        """Writes a file item to a file, which is created or replaced when all of the item has arrived.

        If nothing can be written there, the item can still be read in another way.
        """
        self._reading("saved", self._reply.take_file, path)(None)

    def save_async(self, path: str | builtins.bytes | os.PathLike) -> Future[None]:
        """save on a thread of the session."""
        return self._calls.submit(self._reading("saved", self._reply.take_file, path))

    def _reading(self, state: str, take: Callable[..., T], *arguments: Any) -> Operation[T]:
        _logging.follow_level()

        def read(control: _bridge.CallControl | None) -> T:
            result = take(self._index, *arguments, control=control)
            self._state = state
            return result

        return read

    def _reading_array(self, shape: Sequence[int] | int | None, order: str | None) -> Operation[Any]:
        if order not in (None, "C", "F"):
            raise ValueError(f'order is "C" or "F", not {order!r}')
        read = self._reading("array", self._reply.take_array)
        return lambda control: self._laid_out(read(control), shape, order)

    def _reading_message(self) -> Operation[Message]:
        read = self._reading("message", self._reply.take_message)
        return lambda control: Message(read(control))

    def _laid_out(self, value: Any, shape: Sequence[int] | int | None, order: str | None) -> Any:
        if not isinstance(value, numpy.ndarray):
            return value
        if shape is None and self._layout is not None:
            shape = self._layout.shape
        if order is None and self._layout is not None:
            order = self._layout.order
        if shape is not None:
            value = value.reshape(shape, order="F")
        return numpy.ascontiguousarray(value) if order == "C" and value.ndim > 1 else value

    def __repr__(self) -> str:
        return f"<zks reply item {self._index + 1} of {len(self._reply)} of {self._method!r}: {self._state}>"

    def _repr_html_(self) -> str:
        import html

        return f"<code>{html.escape(repr(self))}</code>"


def reply_items(
    reply: _bridge.Reply, method: str, calls: Calls, layouts: Sequence[Layout | None] | None = None
) -> list[ReplyItem]:
    """`layouts`: of what was sent, where these items are the same."""
    known = layouts if layouts is not None else [None] * len(reply)
    return [ReplyItem(reply, index, method, calls, known[index]) for index in range(len(reply))]
