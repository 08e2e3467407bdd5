"""The items of a reply."""

from __future__ import annotations

import builtins
import os
from dataclasses import replace
from typing import Any, Callable, Sequence

import numpy

from zks import _bridge, _logging
from zks._calls import CallFuture, Calls, Operation, T
from zks._errors import Error
from zks._items import Message
from zks._layout import ArrayLayout, Layout, restored


class _LeftBehind:
    """In place of a reply, in a copy of an item that another process made by pickling."""

    def __init__(self, count: int):
        self._count = count

    def __len__(self) -> int:
        return self._count

    def _take(self, *_: Any, **__: Any) -> Any:
        raise Error("The item stayed in the process that has its reply: save or read it there, and pickle what it held.")

    take_array = take_message = take_bytes = take_content = take_file = _take


class ReplyItem:
    """One item of a reply. Its bytes arrive while it is read.

    Read it once, and as the kind that the method says: the kind does not travel with the item. Items may be read in any
    order; those in front of the one that is read are then kept in memory. Read them before the session is closed.
    """

    def __init__(self, reply: _bridge.Reply, index: int, method: str, calls: Calls, sent: Layout = None, file: str | None = None):
        self._reply = reply
        self._index = index
        self._method = method
        self._calls = calls
        self._layout = sent
        self._file = file
        self._state = "not read"

    def array(self, shape: Sequence[int] | int | None = None, order: str | None = None) -> Any:
        """The host array. NumPy arrays own their memory, are writable and have at least two dimensions.

        shape: another shape of as many elements, in the host's (column-major) order of elements; -1 flattens
        order: "C" for an array in row order, which costs a copy; by default what the host has, column-major
        Items of echo come back in the shape and order in which NumPy arrays were sent, inside lists and dicts too.
        Text comes as str, lists as list, structs as dict.
        """
        return self._reading_array(shape, order)(None)

    def array_async(self, shape: Sequence[int] | int | None = None, order: str | None = None) -> CallFuture[Any]:
        """array on a thread of the session. Cancelling the future gives the rest of the reply up; so for all of these."""
        return self._calls.submit(self._reading_array(shape, order))

    def message(self) -> Message:
        """The protobuf message as a dict of its fields."""
        return self._reading_message()(None)

    def message_async(self) -> CallFuture[Message]:
        """message on a thread of the session."""
        return self._calls.submit(self._reading_message())

    def bytes(self) -> bytes:
        """The bytes of a plain item, or of a file: a task's output, or a file that echo gives back."""
        return self._reading_bytes()(None)

    def bytes_async(self) -> CallFuture[builtins.bytes]:
        """bytes on a thread of the session."""
        return self._calls.submit(self._reading_bytes())

    def save(self, path: str | builtins.bytes | os.PathLike) -> None:
        """Writes a file item to a file, which is created or replaced when all of the item has arrived.

        A task's output that is a program stays one: whoever may read the file may run it. If nothing can be written there,
        the item can still be read in another way.
        """
        self._saving(path)(None)

    def save_async(self, path: str | builtins.bytes | os.PathLike) -> CallFuture[None]:
        """save on a thread of the session."""
        return self._calls.submit(self._saving(path))

    def _saving(self, path: str | builtins.bytes | os.PathLike) -> Operation[None]:
        return self._reading("saved", self._reply.take_file, path, self._file == "program")

    def _reading(self, state: str, take: Callable[..., T], *arguments: Any) -> Operation[T]:
        _logging.follow_level()

        def read(control: _bridge.CallControl | None) -> T:
            result = take(self._index, *arguments, control=control)
            self._state = state
            return result

        return read

    def _reading_bytes(self) -> Operation[builtins.bytes]:
        return self._reading("bytes", self._reply.take_bytes if self._file is None else self._reply.take_content)

    def _reading_array(self, shape: Sequence[int] | int | None, order: str | None) -> Operation[Any]:
        if order not in (None, "C", "F"):
            raise ValueError(f'order is "C" or "F", not {order!r}')
        read = self._reading("array", self._reply.take_array)
        return lambda control: self._laid_out(read(control), shape, order)

    def _reading_message(self) -> Operation[Message]:
        read = self._reading("message", self._reply.take_message)
        return read

    def _laid_out(self, value: Any, shape: Sequence[int] | int | None, order: str | None) -> Any:
        layout = self._layout
        if isinstance(value, numpy.ndarray):
            known = layout if isinstance(layout, ArrayLayout) else ArrayLayout(value.shape, "F", value.dtype.kind)
            layout = replace(known, shape=known.shape if shape is None else shape, order=order or known.order)
        return restored(value, layout)

    def __reduce__(self) -> tuple[Any, ...]:
        return _item_left_behind, (len(self._reply), self._index, self._method, self._state)

    def __repr__(self) -> str:
        return f"<zks reply item {self._index + 1} of {len(self._reply)} of {self._method!r}: {self._state}>"

    def _repr_html_(self) -> str:
        import html

        return f"<code>{html.escape(repr(self))}</code>"


def _item_left_behind(count: int, index: int, method: str, state: str) -> ReplyItem:
    item = ReplyItem(_LeftBehind(count), index, method, Calls())  # type: ignore[arg-type]
    item._state = state
    return item


def reply_items(
    reply: _bridge.Reply,
    method: str,
    calls: Calls,
    layouts: Sequence[Layout] | None = None,
    files: Sequence[str | None] | None = None,
) -> list[ReplyItem]:
    """`layouts`: of what was sent, where these items are the same. `files`: "file" or "program" for each known to be one."""
    nothing = [None] * len(reply)
    known = zip(layouts or nothing, files or nothing, strict=True)
    return [ReplyItem(reply, index, method, calls, sent, file) for index, (sent, file) in enumerate(known)]
