"""What a command is run with, and how it ran."""

from __future__ import annotations

import os
import signal as signals
from dataclasses import dataclass
from typing import Any, Callable, Iterable, Mapping

from zks import _arguments, _bridge
from zks._errors import Error
from zks._reply import ReplyItem

# The limits of a task: what they are called natively, and what they are.
_LIMITS: dict[str, tuple[str, Callable[[str, Any], float]]] = {
    "timeout": ("wall_time", _arguments.seconds_above_zero),
    "cpu_time": ("cpu_time", _arguments.seconds_above_zero),
    "memory_bytes": ("memory_bytes", _arguments.count),
    "file_bytes": ("file_bytes", _arguments.count),
    "open_files": ("open_files", _arguments.count),
}


@dataclass(frozen=True)
class TaskResult:
    """How a task ran, and what it left. Times are in seconds. True when all went well (`ok`).

    It can be pickled; outputs that have not been saved or read by then stay behind.
    """

    outcome: str  # "exited", "signalled", "timed_out" or "not_started"
    exit_status: int | None
    signal: int | None
    message: str  # why it was not started
    stdout: bytes | str  # str with text=True
    stderr: bytes | str
    wall_time: float
    user_time: float
    system_time: float
    queued_time: float
    peak_memory_bytes: int
    missing_outputs: tuple[str, ...]
    unusable_outputs: Mapping[str, str]  # those of them that are there, and why they cannot be brought back
    executable_outputs: tuple[str, ...]  # those that are programs
    output_folders: tuple[str, ...]  # those that are folders, and the folders in them: "made", "made/inside"
    outputs: Mapping[str, ReplyItem]  # file items by name, "made/inside/file" in folders; only what the task made

    @property
    def ok(self) -> bool:
        """Whether the task exited with status 0 and made all its outputs."""
        return self.outcome == "exited" and self.exit_status == 0 and not self.missing_outputs

    def __bool__(self) -> bool:
        return self.ok

    def __repr__(self) -> str:
        ended = {"exited": f"status {self.exit_status}", "signalled": f"signal {self.signal}"}.get(self.outcome, "")
        return f"<zks task: {self.outcome} {ended}".rstrip() + f", {self.wall_time:.3f} s>"


class TaskFailed(Error):
    """A task that was run with check=True did not go well. `task` is its TaskResult."""

    def __init__(self, text: str = "", task: TaskResult | None = None):
        super().__init__(text)
        self.task = task

    def __reduce__(self) -> tuple[Any, ...]:
        return type(self), (self.text, self.task)


def raise_unless_ok(program: str, task: TaskResult) -> None:
    if not task.ok:
        raise TaskFailed(f"The task {program!r} {_failure(task)}{_last_line(task.stderr)}", task)


def _failure(task: TaskResult) -> str:
    if task.outcome == "signalled":
        assert task.signal is not None
        name = signals.Signals(task.signal).name if task.signal in list(signals.Signals) else f"signal {task.signal}"
        return f"was ended by {name}"
    if task.outcome == "timed_out":
        return "was ended when its time was over"
    if task.outcome == "not_started":
        return f"could not be started: {task.message}"
    if task.exit_status != 0:
        return f"exited with status {task.exit_status}"
    not_made = [name for name in task.missing_outputs if name not in task.unusable_outputs]
    if not_made:
        return "did not make " + ", ".join(map(repr, not_made))
    return "; ".join(f"left {name!r}, which cannot be brought back: {why}" for name, why in task.unusable_outputs.items())


def _last_line(stderr: bytes | str) -> str:
    most = 200
    text = stderr if isinstance(stderr, str) else stderr.decode(errors="replace")
    lines = text.split("\n") if (text := text.strip()) else []
    return f": {lines[-1][:most]}" if lines else ""


def named(files: Iterable[str | os.PathLike] | Mapping[str, str | os.PathLike]) -> dict[str, str | os.PathLike]:
    """Paths by the names that they have in the task's directory."""
    if isinstance(files, Mapping):
        return {_arguments.text("a name in files", name): path for name, path in files.items()}
    names: dict[str, str | os.PathLike] = {}
    for path in _arguments.several("files", files):
        name = _arguments.text("a name in files", os.path.basename(os.path.normpath(os.fsdecode(path))))
        if name in names:
            raise ValueError(f"two files are named {name!r}; give them names of their own: files={{name: path}}")
        names[name] = path
    return names


def task_inputs(
    files: Iterable[str | os.PathLike] | Mapping[str, str | os.PathLike],
    stdin: str | bytes | bytearray | memoryview | os.PathLike | None,
) -> _bridge.TaskInputs:
    inputs = _bridge.TaskInputs()
    if stdin is not None:
        inputs.set_standard_input(standard_input(stdin))
    for name, path in named(files).items():
        inputs.add(name, os.fspath(path))
    return inputs


def native_limits(limits: Mapping[str, float | None]) -> dict[str, float]:
    native: dict[str, float] = {}
    for name, limit in limits.items():
        if limit is None:
            continue
        native_name, checked = _LIMITS[name]
        value = checked(name, limit)
        if checked is _arguments.count or not _arguments.is_endless(value):
            native[native_name] = value
    return native


def standard_input(value: str | bytes | bytearray | memoryview | os.PathLike) -> _bridge.Item:
    """What a task reads: bytes, a text in UTF-8, or what a file holds."""
    if isinstance(value, os.PathLike):
        return _bridge.file_item(os.fspath(value))
    if isinstance(value, str):
        return _bridge.plain_item(_arguments.text("stdin", value).encode())
    if isinstance(value, (bytes, bytearray, memoryview)):
        return _bridge.plain_item(value)
    raise TypeError(f"stdin is bytes, a text, or the path of a file (pathlib.Path), not {value!r}")
