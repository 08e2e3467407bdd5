"""Arguments checked before anything is sent, so that an error says which one is wrong and what is wanted."""

from __future__ import annotations

import numbers
import operator
import os
from typing import Any, Iterable, Mapping

# The transport counts bytes in signed numbers of 64 bits.
_MOST_BYTES = 2**63 - 1

# A longer time (thirty years) is no limit.
_MOST_SECONDS = 1e9


def seconds(name: str, value: Any) -> float:
    """A time of 0 or more; it may be infinite."""
    if not isinstance(value, numbers.Real):
        raise TypeError(f"{name} is a number of seconds, not {value!r}")
    if not value >= 0:
        raise ValueError(f"{name} is a number of seconds, 0 or more, not {value!r}")
    return float(min(value, _MOST_SECONDS))


def seconds_above_zero(name: str, value: Any) -> float:
    if seconds(name, value) == 0:
        raise ValueError(f"{name} is a number of seconds above 0, not {value!r}")
    return seconds(name, value)


def is_endless(value: float) -> bool:
    return value >= _MOST_SECONDS


def count(name: str, value: Any) -> int:
    """A number of bytes or things."""
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{name} is a whole number, not {value!r}") from None
    if not 0 <= number <= _MOST_BYTES:
        raise ValueError(f"{name} is a whole number from 0 to 2**63 - 1, not {value!r}")
    return number


def text(name: str, value: Any) -> str:
    """A str that UTF-8 can hold."""
    if not isinstance(value, str):
        raise TypeError(f"{name} is a text, not {value!r}")
    try:
        value.encode()
    except UnicodeEncodeError:
        raise ValueError(f"{name} is not UTF-8, as all texts of a call have to be: {value!r}") from None
    return value


def words(name: str, values: Iterable[Any]) -> list[str]:
    """Texts; paths are texts too."""
    return [text(f"{name}[{at}]", os.fsdecode(value)) for at, value in enumerate(several(name, values))]


def several(name: str, values: Any) -> Any:
    """A sequence. One text or path is refused: going through it gives its letters, or nothing."""
    if isinstance(values, (str, bytes, os.PathLike)):
        raise TypeError(f"{name} is a sequence, not one text: [{values!r}]")
    return values


def texts_by_name(name: str, values: Mapping[Any, Any] | None) -> dict[str, str]:
    return {text(f"a name in {name}", key): text(f"{name}[{key!r}]", value) for key, value in (values or {}).items()}


def directory(name: str, value: Any) -> str:
    """The path of a directory that is there."""
    path = os.fsdecode(value)
    if not os.path.isdir(path):
        raise ValueError(f"{name} is a directory, and {path!r} is none")
    return path


def method_name(value: Any) -> str:
    if not text("the method", value) or "\0" in value:
        raise ValueError(f"the method is a name, not {value!r}")
    return value
