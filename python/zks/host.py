"""The classes that native libraries have registered with the host's class system, as Python classes.

    zks.host.parallel.internal.cluster.SerializableData.createFile("data.bin")

Namespaces are attributes of this module, and classes attributes of namespaces. Everything is looked up when it is asked
for. Inputs are converted by the rules of docs/python.md and copied; a method with one output returns it, one with
several a tuple. builtin("name::of::function") finds a builtin.
"""

from __future__ import annotations

import inspect
from typing import Any, Callable, Sequence

from zks import _bridge, _logging

__all__ = ["HostObject", "Namespace", "builtin", "class_named", "namespace"]


class HostObject:
    """An object of the host, by its handle. Equal objects are the same native object."""

    __slots__ = ("_zks_handle",)

    def __init__(self, *_: Any) -> None:
        raise TypeError(f"{type(self).__name__} has no constructor: objects come from static methods and from other calls")

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, HostObject):
            return NotImplemented
        return self._zks_handle.is_same(other._zks_handle)

    __hash__ = None  # type: ignore[assignment]

    def __repr__(self) -> str:
        gone = "" if self._zks_handle.is_valid else ", gone"
        return f"<{self._zks_handle.class_name} object of the host{gone}>"


class Namespace:
    """A namespace of the class system. Its attributes are the classes and namespaces inside it."""

    def __init__(self, full_name: str):
        self._full_name = full_name

    def __getattr__(self, name: str) -> Any:
        if name.startswith("__"):
            raise AttributeError(name)
        full_name = f"{self._full_name}.{name}"
        if _bridge.has_class(full_name):
            return class_named(full_name)
        if full_name in _bridge.list_namespaces():
            return Namespace(full_name)
        raise AttributeError(f"the namespace {self._full_name} has no class or namespace {name!r}")

    def __dir__(self) -> list[str]:
        classes = [name.rpartition(".")[2] for name in _bridge.list_classes(self._full_name)]
        return sorted(classes + _namespaces_in(f"{self._full_name}."))

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Namespace) and self._full_name == other._full_name

    def __hash__(self) -> int:
        return hash(self._full_name)

    def __repr__(self) -> str:
        return f"<namespace {self._full_name} of the host>"


def _namespaces_in(prefix: str) -> list[str]:
    inside = (name[len(prefix) :] for name in _bridge.list_namespaces() if name.startswith(prefix))
    return [name for name in inside if name and "." not in name]


def namespace(full_name: str) -> Namespace:
    """The namespace of that name; AttributeError when there is none."""
    if full_name not in _bridge.list_namespaces():
        raise AttributeError(f"the host has no namespace {full_name!r}")
    return Namespace(full_name)


def __getattr__(name: str) -> Namespace:
    if name.startswith("__"):
        raise AttributeError(name)
    return namespace(name)


def __dir__() -> list[str]:
    return sorted([*__all__, *_namespaces_in("")])


# By full name: a class that takes another's place in the host has another registration.
_classes: dict[str, tuple[int, type]] = {}


def class_named(full_name: str) -> type:
    """The Python class of a host class."""
    description = _bridge.describe_class(full_name)
    known = _classes.get(full_name)
    if known is not None and known[0] == description["registration"]:
        return known[1]
    made = _make_class(description)
    _classes[full_name] = (description["registration"], made)
    return made


def _make_class(description: dict[str, Any]) -> type:
    overloads: dict[str, list[dict[str, Any]]] = {}
    for method in description["methods"]:
        overloads.setdefault(method["name"], []).append(method)
    full_name = description["full_name"]
    members: dict[str, Any] = {
        "__slots__": (),
        "__doc__": description["detailed_description"] or description["description"],
        "__module__": f"{__name__}.{full_name.rpartition('.')[0]}",
    }
    for name, methods in overloads.items():
        members[name] = _make_method(full_name, name, methods)
    if description["has_constructor"] and not description["is_abstract"]:
        members["__new__"] = lambda cls, *inputs: object_of_handle(_bridge.construct(full_name, *inputs), full_name)
        members["__init__"] = lambda self, *inputs: None
    bases = tuple(class_named(name) for name in description["superclasses"]) or (HostObject,)
    return type(description["name"], bases, members)


def _signature(methods: Sequence[dict[str, Any]], is_static: bool) -> inspect.Signature:
    fewest = min(len(method["inputs"]) for method in methods)
    longest = max(methods, key=lambda method: len(method["inputs"]))
    kind = inspect.Parameter.POSITIONAL_ONLY
    parameters = [] if is_static else [inspect.Parameter("self", kind)]
    for index, type_name in enumerate(longest["inputs"]):
        default = inspect.Parameter.empty if index < fewest else ...
        parameters.append(inspect.Parameter(f"input{index + 1}", kind, default=default, annotation=type_name))
    outputs = longest["outputs"]
    returns = "None" if longest["output_count"] == 0 else ", ".join(outputs)
    return inspect.Signature(parameters, return_annotation=returns)


def _make_method(class_name: str, name: str, methods: Sequence[dict[str, Any]]) -> Any:
    is_static = methods[0]["is_static"]
    # As many outputs as the overload makes that the host will choose.
    outputs = {len(method["inputs"]): method["output_count"] for method in methods}

    def call_static(*inputs: Any) -> Any:
        _logging.follow_level()
        return _bridge.call_static(class_name, name, outputs.get(len(inputs), 0), *inputs)

    def call_instance(self: HostObject, *inputs: Any) -> Any:
        _logging.follow_level()
        return _bridge.call_method(self._zks_handle, name, outputs.get(len(inputs), 0), *inputs)

    method: Callable[..., Any] = call_static if is_static else call_instance
    method.__name__ = name
    method.__qualname__ = f"{class_name.rpartition('.')[2]}.{name}"
    method.__doc__ = "\n".join(
        [line for line in dict.fromkeys(each["description"] for each in methods) if line]
        + [each["signature"] for each in methods]
    )
    method.__signature__ = _signature(methods, is_static)  # type: ignore[attr-defined]
    return staticmethod(method) if is_static else method


def object_of_handle(handle: _bridge.Handle, class_name: str) -> HostObject:
    """The object that users see for a handle. Its class may have been replaced, or have gone, since it was made."""
    cls = class_named(class_name) if _bridge.has_class(class_name) else HostObject
    made = object.__new__(cls)
    object.__setattr__(made, "_zks_handle", handle)
    return made


def builtin(name: str) -> Callable[..., Any]:
    """The builtin of that qualified name, "parallel::spf::transport::protobuf::bnSerializeProtobufStruct"."""
    _bridge.find_builtin(name)

    def call(*inputs: Any) -> Any:
        _logging.follow_level()
        return _bridge.call_builtin(name, *inputs)

    call.__name__ = name.rpartition("::")[2]
    call.__qualname__ = call.__name__
    call.__doc__ = f"The builtin {name} of the host."
    return call
