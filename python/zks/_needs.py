"""What the package needs of the Python that imports it, and what is said when that is not there."""

from __future__ import annotations

import importlib
import sys

from zks._built import PYTHON


def check() -> None:
    """ImportError in one line: another Python on the path than the one wanted is the usual reason."""
    try:
        importlib.import_module("numpy")
    except ModuleNotFoundError as error:
        if error.name != "numpy":
            raise
        raise ImportError(
            f"zks needs NumPy, and this Python ({sys.executable}) has none; zks was built for {PYTHON}"
        ) from None
    try:
        importlib.import_module("zks._bridge")
    except ImportError as error:
        raise ImportError(
            f"zks was built for {PYTHON}, and this Python ({sys.executable}) cannot load it: {error}"
        ) from None
