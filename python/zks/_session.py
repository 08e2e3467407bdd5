"""Sessions: connections to a service, and calls of its methods."""

from __future__ import annotations

import html
import os
import warnings
import weakref
from concurrent.futures import Future
from dataclasses import dataclass
from typing import Any, Callable, Iterable, Mapping, Sequence

from zks import _arguments, _bridge, _logging
from zks._calls import Calls, Operation, T
from zks._items import item_of, native_item
from zks._reply import Layout, ReplyItem, reply_items

# The limits of a task: what they are called natively, and what they are.
_LIMITS: dict[str, tuple[str, Callable[[str, Any], float]]] = {
    "timeout": ("wall_time", _arguments.seconds_above_zero),
    "cpu_time": ("cpu_time", _arguments.seconds_above_zero),
    "memory_bytes": ("memory_bytes", _arguments.count),
    "file_bytes": ("file_bytes", _arguments.count),
    "open_files": ("open_files", _arguments.count),
}

_open_sessions: weakref.WeakSet[Session] = weakref.WeakSet()
_attempts: weakref.WeakSet[Future[Session]] = weakref.WeakSet()


def _named(files: Iterable[str | os.PathLike] | Mapping[str, str | os.PathLike]) -> dict[str, str | os.PathLike]:
    """Paths by the names that they have in the task's directory."""
    if isinstance(files, Mapping):
        return {_arguments.text("a name in files", name): path for name, path in files.items()}
    named: dict[str, str | os.PathLike] = {}
    for path in _arguments.several("files", files):
        name = _arguments.text("a name in files", os.path.basename(os.fsdecode(path)))
        if name in named:
            raise ValueError(f"two files are named {name!r}; give them names of their own: files={{name: path}}")
        named[name] = path
    return named


def _native_limits(limits: Mapping[str, float | None]) -> dict[str, float]:
    unknown = [name for name in limits if name not in _LIMITS]
    if unknown:
        raise TypeError(f"a task has no limit {unknown[0]!r}; there are: {', '.join(_LIMITS)}")
    native: dict[str, float] = {}
    for name, limit in limits.items():
        if limit is None:
            continue
        native_name, checked = _LIMITS[name]
        value = checked(name, limit)
        if checked is _arguments.count or not _arguments.is_endless(value):
            native[native_name] = value
    return native


@dataclass(frozen=True)
class TaskResult:
    """How a task ran, and what it left. Times are in seconds."""

    outcome: str  # "exited", "signalled", "timed_out" or "not_started"
    exit_status: int | None
    signal: int | None
    message: str  # why it was not started
    stdout: bytes
    stderr: bytes
    wall_time: float
    user_time: float
    system_time: float
    queued_time: float
    peak_memory_bytes: int
    missing_outputs: tuple[str, ...]
    outputs: Mapping[str, ReplyItem]  # file items by name; only what the task made

    @property
    def ok(self) -> bool:
        """Whether the task exited with status 0 and made all its outputs."""
        return self.outcome == "exited" and self.exit_status == 0 and not self.missing_outputs

    def __repr__(self) -> str:
        ended = {"exited": f"status {self.exit_status}", "signalled": f"signal {self.signal}"}.get(self.outcome, "")
        return f"<zks task: {self.outcome} {ended}".rstrip() + f", {self.wall_time:.3f} s>"


class Session:
    """A connection to a service. Made by zks.connect or zks.connect_async; closed by close() or at the end of a with block.

    Threads: any, several calls at once. A forked process cannot use its parent's sessions.
    Errors:  zks.Error; KeyboardInterrupt when Ctrl-C is pressed, after which the session can be used on.
    """

    def __init__(self, native: _bridge.Session, calls: Calls):
        self._native = native
        self._process = os.getpid()
        self._calls = calls
        self._closed = False
        _open_sessions.add(self)

    @property
    def name(self) -> str:
        """The address of the service."""
        return self._native.name

    @property
    def closed(self) -> bool:
        """Whether the connection is gone: closed here, or found dead."""
        return self._closed or not self._native.is_open

    def invoke(self, method: str, *items: Any) -> list[ReplyItem]:
        """Calls a method. Returns when its reply begins; the items of the reply arrive as they are read.

        A bytes object is sent as plain bytes, a path as the file, a zks.message(...) as protobuf, everything else as a
        host array; zks.array, zks.plain and zks.file say it explicitly. Arrays are not copied if their layout allows:
        leave them alone until the call returns.
        """
        return self._invocation(method, items)(None)

    def invoke_async(self, method: str, *items: Any) -> Future[list[ReplyItem]]:
        """invoke on a thread of the session. Leave the arrays alone until the future is done.

        The future stays pending until the reply begins; cancelling it until then stops the call, also at the service.
        asyncio.wrap_future makes it awaitable. All the futures of this package are like that.
        """
        return self._submit(self._invocation(method, items))

    def echo(self, *items: Any) -> list[ReplyItem]:
        """Sends items and gets the same ones back, NumPy arrays in the shape and order in which they were sent."""
        return self._echoing(items)(None)

    def echo_async(self, *items: Any) -> Future[list[ReplyItem]]:
        """echo on a thread of the session, as invoke_async is invoke."""
        return self._submit(self._echoing(items))

    def run(
        self,
        argv: Sequence[str | os.PathLike],
        files: Iterable[str | os.PathLike] | Mapping[str, str | os.PathLike] = (),
        outputs: Iterable[str] = (),
        *,
        environment: Mapping[str, str] | None = None,
        clear_environment: bool = False,
        timeout: float | None = None,
        cpu_time: float | None = None,
        memory_bytes: int | None = None,
        file_bytes: int | None = None,
        open_files: int | None = None,
    ) -> TaskResult:
        """Runs a command on the service, in a directory of its own, and waits until it has ended.

        files:   what is put into the directory: paths, under their last parts, or a mapping of names to paths
        outputs: names of files that are brought back; save them from the result's outputs
        timeout: seconds after which the command is ended; the others are limits of the command's processes
        """
        limits = {
            "timeout": timeout,
            "cpu_time": cpu_time,
            "memory_bytes": memory_bytes,
            "file_bytes": file_bytes,
            "open_files": open_files,
        }
        return self._task(argv, files, outputs, environment, clear_environment, limits)(None)

    def run_async(
        self,
        argv: Sequence[str | os.PathLike],
        files: Iterable[str | os.PathLike] | Mapping[str, str | os.PathLike] = (),
        outputs: Iterable[str] = (),
        *,
        environment: Mapping[str, str] | None = None,
        clear_environment: bool = False,
        **limits: float | None,
    ) -> Future[TaskResult]:
        """run on a thread of the session, with the same limits. Cancelling the future ends the command."""
        return self._submit(self._task(argv, files, outputs, environment, clear_environment, limits))

    def close(self) -> None:
        """Lets go of the connection; calls under way end with zks.Terminated. Again: no effect."""
        self._closed = True
        self._native.close()
        self._calls.close()

    # What waits for the service is made ready by one of these, wrong arguments being told at once, and then either run
    # or submitted.

    def _invocation(self, method: str, items: Sequence[Any]) -> Operation[list[ReplyItem]]:
        _logging.follow_level()
        method = _arguments.method_name(method)
        native_items = [native_item(item_of(item)) for item in items]

        def call(control: _bridge.CallControl | None) -> list[ReplyItem]:
            try:
                reply = self._native.call(method, native_items, control)
            finally:
                native_items.clear()  # what the items borrow ends with the call, not with the future
            return reply_items(reply, method, self._calls)

        return call

    def _echoing(self, items: Sequence[Any]) -> Operation[list[ReplyItem]]:
        _logging.follow_level()
        sent = [item_of(item) for item in items]
        layouts = [Layout.of(item) for item in sent]
        native_items = [native_item(item, in_reply=True) for item in sent]
        sent.clear()

        def call(control: _bridge.CallControl | None) -> list[ReplyItem]:
            try:
                reply = self._native.echo(native_items, control)
            finally:
                native_items.clear()
            return reply_items(reply, "echo", self._calls, layouts)

        return call

    def _task(
        self,
        argv: Sequence[str | os.PathLike],
        files: Iterable[str | os.PathLike] | Mapping[str, str | os.PathLike],
        outputs: Iterable[str],
        environment: Mapping[str, str] | None,
        clear_environment: bool,
        limits: Mapping[str, float | None],
    ) -> Operation[TaskResult]:
        _logging.follow_level()
        native_limits = _native_limits(limits)
        inputs = _named(files)
        names = _arguments.words("outputs", outputs)
        request = {
            "argv": _arguments.words("argv", argv),
            "environment": _arguments.texts_by_name("environment", environment),
            "clear_environment": clear_environment,
            "input_names": list(inputs),
            "output_names": names,
            "limits": native_limits,
            "inputs": [_bridge.file_item(os.fspath(path)) for path in inputs.values()],
        }

        def call(control: _bridge.CallControl | None) -> TaskResult:
            info, stdout, stderr, reply = self._native.run_task(**request, control=control)
            missing = tuple(info.pop("missing_outputs"))
            items = reply_items(reply, "runTask", self._calls)
            made = {name: item for name, item in zip(names, items, strict=True) if name not in missing}
            return TaskResult(stdout=stdout, stderr=stderr, missing_outputs=missing, outputs=made, **info)

        return call

    def _submit(self, operation: Operation[T]) -> Future[T]:
        if self._closed or self._process != os.getpid():
            self._native.call("", [])  # which says so
        return self._calls.submit(operation)

    def __enter__(self) -> Session:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_closed", True) or self._process != os.getpid():
            return
        warnings.warn(f"unclosed {self!r}", ResourceWarning, source=self, stacklevel=2)
        self.close()

    def __repr__(self) -> str:
        return f"<zks session with {self.name}: {'closed' if self.closed else 'open'}>"

    def _repr_html_(self) -> str:
        return f"<code>{html.escape(repr(self))}</code>"


def connect(
    address: str | None = None,
    *,
    timeout: float = 10.0,
    tls: str | os.PathLike[str] | None = None,
    insecure: bool = False,
    idle_timeout: float | None = 600.0,
    max_reply: int | None = None,
) -> Session:
    """A session with the service at "unix:PATH" or "HOST:PORT"; without an address, with one of its own in this process.

    timeout:  seconds to wait for the connection; then zks.Timeout is raised
    tls:      the directory with the service's ca.pem and token and a client.pem and client-key.pem; for HOST:PORT it is
              $ZKS_TLS or ~/.local/state/zks/tls if not given
    insecure: connect to HOST:PORT in plain text, which others can read and alter
    idle_timeout: seconds that a reply which has begun may pause while it is read; then zks.Timeout is raised. None: for
              ever
    max_reply: bytes of the largest reply that is taken; a larger one fails its call
    """
    opening = _opening(address, timeout, tls, insecure, idle_timeout, max_reply)
    return Session(opening(None), Calls())


def connect_async(
    address: str | None = None,
    *,
    timeout: float = 10.0,
    tls: str | os.PathLike[str] | None = None,
    insecure: bool = False,
    idle_timeout: float | None = 600.0,
    max_reply: int | None = None,
) -> Future[Session]:
    """connect on a thread that then belongs to the session. Cancelling the future gives the attempt up."""
    opening = _opening(address, timeout, tls, insecure, idle_timeout, max_reply)
    calls = Calls()

    def open_session(control: _bridge.CallControl | None) -> Session:
        try:
            return Session(opening(control), calls)
        except BaseException:
            calls.close()
            raise

    attempt = calls.submit(open_session, unwanted=Session.close)
    _attempts.add(attempt)
    return attempt


def _opening(
    address: str | None,
    timeout: float,
    tls: str | os.PathLike[str] | None,
    insecure: bool,
    idle_timeout: float | None,
    max_reply: int | None,
) -> Operation[_bridge.Session]:
    """The making of a connection, wrong arguments being told at once."""
    if address is None and (tls is not None or insecure or max_reply is not None):
        raise ValueError("tls, insecure and max_reply are of connections to an address, and there is none")
    if tls is not None and insecure:
        raise ValueError("tls and insecure exclude each other")
    if address is not None:
        _arguments.text("the address", address)
    seconds = _arguments.seconds("timeout", timeout)
    pause = _arguments.seconds_above_zero("idle_timeout", idle_timeout) if idle_timeout is not None else 0.0
    most = _arguments.count("max_reply", max_reply) if max_reply is not None else None
    _logging.follow_level()
    directory = _arguments.text("tls", os.fsdecode(tls)) if tls is not None else ""
    if tls is not None and not directory:
        raise ValueError("tls names a directory, and the name is empty")

    def connect_now(control: _bridge.CallControl | None) -> _bridge.Session:
        return _bridge.Session(address, seconds, directory, bool(insecure), pause, most, control)

    return connect_now


def close_all() -> None:
    """Closes what is still open when the interpreter ends, and gives up what is still to be opened."""
    for attempt in list(_attempts):  # those that it comes too late for have left their sessions below
        attempt.cancel()
    for session in list(_open_sessions):
        session.close()
