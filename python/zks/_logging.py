"""The native log records under the name "zks" of Python's logging.

Nothing is formatted while the logger's level is above a record's. Handlers and filters are the user's: without any,
nothing is shown.
"""

import logging

from zks import _bridge

logger = logging.getLogger("zks")
logger.addHandler(logging.NullHandler())

# The native level bits by what they are called there, and Python's levels for them.
_LEVELS = {256: logging.ERROR, 8: logging.WARNING, 16: logging.INFO, 2: logging.DEBUG}
_WORDS = ((logging.DEBUG, "trace"), (logging.INFO, "detail"), (logging.WARNING, "warning"), (logging.ERROR, "error"))

_word = "off"


def pass_on(name: str, level: int, text: str) -> None:
    """One native record; its own logger's name is the record's attribute `native_logger`."""
    logger.log(_LEVELS.get(level, logging.INFO), "%s", text, extra={"native_logger": name})


def follow_level() -> None:
    """Switches the native levels as the logger's level says. Cheap; called before each operation."""
    global _word
    level = logger.getEffectiveLevel()
    word = next((word for most, word in _WORDS if level <= most), "off")
    if word != _word:
        _word = word
        _bridge.set_log_level(word)
