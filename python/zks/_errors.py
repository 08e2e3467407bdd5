"""The package's exceptions."""

from __future__ import annotations

from typing import Sequence, Tuple

# Kind, component, name, text.
Level = Tuple[str, str, str, str]


class Error(Exception):
    """What went wrong in the library, the service or on the way.

    identifier: says which error it is, "parallel:toolbox:CallFailed"; empty for errors without one
    text:       the message of this error alone
    causes:     the errors underneath, outermost first, each an Error; the first is also __cause__

    str() is the whole chain, a line for each error.
    """

    identifier: str
    text: str
    causes: tuple[Error, ...]

    def __init__(self, text: str = "", identifier: str = "", causes: Sequence[Error] = (), expansion: str | None = None):
        super().__init__(text if expansion is None else expansion)
        self.text = text
        self.identifier = identifier
        self.causes = tuple(causes)
        if self.causes:
            self.__cause__ = self.causes[0]

    def __reduce__(self):
        return type(self), (self.text, self.identifier, self.causes, str(self))


class FrameworkError(Error):
    """The service framework failed or refused: fix the call or the set-up."""


class Timeout(Error, TimeoutError):
    """The service did not answer in time: try again later."""


class Terminated(Error, ConnectionError):
    """The service, or the connection to it, went away: connect anew."""


_FRAMEWORK_NAMES = {"framework": "FrameworkError", "timeout": "Timeout", "terminated": "Terminated"}

_TYPES = {
    "parallel:spf:FrameworkError": FrameworkError,
    "parallel:spf:Timeout": Timeout,
    "parallel:spf:Terminated": Terminated,
    "parallel:toolbox:NoAnswer": Timeout,
    "parallel:toolbox:ServiceGone": Terminated,
    "parallel:cluster:ZKSUnreachable": Terminated,
    "parallel:python:SessionClosed": Terminated,
}


def _identifier(level: Level) -> str:
    kind, component, name, _ = level
    if kind == "identified":
        return f"{component}:{name}"
    return f"parallel:spf:{_FRAMEWORK_NAMES[kind]}" if kind in _FRAMEWORK_NAMES else ""


def _type(levels: Sequence[Level]) -> type[Error]:
    identifier = _identifier(levels[0])
    found = _TYPES.get(identifier)
    if found is not None:
        return found
    if identifier == "parallel:toolbox:ReplyItemFailed" and len(levels) > 1:  # what to do, its cause says
        return _type(levels[1:])
    return FrameworkError if any(kind == "framework" for kind, *_ in levels) else Error


def _indented(texts: Sequence[str]) -> str:
    return "\n".join(" " * depth + text for depth, text in enumerate(texts))


def error_from_levels(levels: Sequence[Level], expansion: str) -> Error:
    """The exception for a native chain, outermost level first, whose expansion by the library is given."""
    if not levels:
        return Error(expansion)
    texts = [level[3] for level in levels]
    causes: tuple[Error, ...] = ()
    for depth in range(len(levels) - 1, 0, -1):
        cause = _type(levels[depth:])(texts[depth], _identifier(levels[depth]), causes, _indented(texts[depth:]))
        causes = (cause, *causes)
    return _type(levels)(texts[0], _identifier(levels[0]), causes, expansion)
