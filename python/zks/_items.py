"""The items of a request: what kind a Python value travels as."""

from __future__ import annotations

import os
from dataclasses import dataclass
from typing import Any, Mapping

import numpy

from zks import _bridge


class Message(dict):
    """A protobuf message as a dict of its fields; the key "MessageType" names its type."""

    @property
    def type_name(self) -> str:
        return self["MessageType"]

    def __repr__(self) -> str:
        fields = ", ".join(f"{key}={value!r}" for key, value in self.items() if key != "MessageType")
        return f"zks.message({self.get('MessageType')!r}{', ' if fields else ''}{fields})"


@dataclass(frozen=True)
class Item:
    """A value and the kind that it is sent as. It can be sent more than once."""

    kind: str
    value: Any

    def __repr__(self) -> str:
        return f"<zks item: {self.kind}, {type(self.value).__name__}>"


def array(value: Any) -> Item:
    """Any value as a host array: NumPy arrays, numbers, str, bytes, lists, dicts."""
    return Item("array", value)


def plain(value: Any) -> Item:
    """Bytes without a type, as they lie in memory: a bytes-like object, or an array whose elements are one byte."""
    return Item("bytes", value)


def file(path: str | bytes | os.PathLike) -> Item:
    """What a file holds when the call is made."""
    return Item("file", os.fspath(path))


def message(type_name: str, fields: Mapping[str, Any] | None = None, /, **more: Any) -> Message:
    """A protobuf message by its full type name, "parallel.zksmessages.TaskDescription", and its fields."""
    return Message({"MessageType": type_name, **(fields or {}), **more})


def item_of(value: Any) -> Item:
    """The item that a value is when no kind is named."""
    if isinstance(value, Item):
        return value
    if isinstance(value, Message):
        return Item("message", value)
    if isinstance(value, (bytes, bytearray, memoryview)) and not isinstance(value, numpy.generic):
        return Item("bytes", value)
    if isinstance(value, os.PathLike):
        return Item("file", os.fspath(value))
    return Item("array", value)


def native_item(item: Item, *, in_reply: bool = False) -> _bridge.Item:
    """The item ready to be sent. `in_reply`: messages in the form that they have in replies."""
    if item.kind == "array":
        return _bridge.array_item(item.value)
    if item.kind == "bytes":
        return _bridge.plain_item(item.value)
    if item.kind == "file":
        return _bridge.file_item(item.value)
    return _bridge.result_item(item.value) if in_reply else _bridge.message_item(item.value)
