"""Sessions: connections to a service, and calls of its methods."""

from __future__ import annotations

import html
import os
import warnings
import weakref
from typing import Any, Iterable, Mapping, Sequence

from zks import _arguments, _bridge, _logging
from zks._calls import CallFuture, Calls, Operation, T, with_parameters_of
from zks._items import Item, item_of, native_item
from zks._layout import Layout, layout_of
from zks._reply import ReplyItem, reply_items
from zks._tasks import TaskResult, native_limits, raise_unless_ok, task_inputs

_open_sessions: weakref.WeakSet[Session] = weakref.WeakSet()


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

    def invoke_async(self, method: str, *items: Any) -> CallFuture[list[ReplyItem]]:
        """invoke on a thread of the session. Leave the arrays alone until the future is done.

        The future stays pending until the reply begins; cancelling it until then stops the call, also at the service. It
        is a concurrent.futures.Future that can be awaited too. All the futures of this package are like that.
        """
        return self._submit(self._invocation(method, items))

    def echo(self, *items: Any) -> list[ReplyItem]:
        """Sends items and gets the same ones back, NumPy arrays in the shape and order in which they were sent."""
        return self._echoing(items)(None)

    def echo_async(self, *items: Any) -> CallFuture[list[ReplyItem]]:
        """echo on a thread of the session, as invoke_async is invoke."""
        return self._submit(self._echoing(items))

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
        native_items = _native_items([item_of(item) for item in items])

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
        native_items = _native_items(sent, in_reply=True)
        layouts = [_layout_of_item(item) for item in sent]
        files = ["file" if item.kind == "file" else None for item in sent]
        sent.clear()

        def call(control: _bridge.CallControl | None) -> list[ReplyItem]:
            try:
                reply = self._native.echo(native_items, control)
            finally:
                native_items.clear()
            return reply_items(reply, "echo", self._calls, layouts, files)

        return call

    def _task(
        self,
        argv: Sequence[str | os.PathLike],
        files: Iterable[str | os.PathLike] | Mapping[str, str | os.PathLike] = (),
        outputs: Iterable[str] = (),
        *,
        stdin: str | bytes | bytearray | memoryview | os.PathLike | None = None,
        text: bool = False,
        check: bool = False,
        to: str | os.PathLike | None = None,
        environment: Mapping[str, str] | None = None,
        clear_environment: bool = False,
        timeout: float | None = None,
        cpu_time: float | None = None,
        memory_bytes: int | None = None,
        file_bytes: int | None = None,
        open_files: int | None = None,
    ) -> Operation[TaskResult]:
        _logging.follow_level()
        limits = {
            "timeout": timeout,
            "cpu_time": cpu_time,
            "memory_bytes": memory_bytes,
            "file_bytes": file_bytes,
            "open_files": open_files,
        }
        words = _arguments.words("argv", argv)
        names = _arguments.words("outputs", outputs)
        directory = _arguments.directory("to", to) if to is not None else None
        request = {
            "argv": words,
            "environment": _arguments.texts_by_name("environment", environment),
            "clear_environment": bool(clear_environment),
            "inputs": task_inputs(files, stdin),
            "output_names": names,
            "limits": native_limits(limits),
        }

        def call(control: _bridge.CallControl | None) -> TaskResult:
            try:
                info, stdout, stderr, reply = self._native.run_task(**request, control=control)
            finally:
                request.clear()
            paths = [*names, *info.pop("folder_files")]
            programs = set(info["executable_outputs"])
            kinds = ["program" if path in programs else "file" for path in paths]
            items = reply_items(reply, "runTask", self._calls, files=kinds)
            folders = info["output_folders"]
            no_files = {*info["missing_outputs"], *folders}
            made = {path: item for path, item in zip(paths, items, strict=True) if path not in no_files}
            if text:
                stdout, stderr = stdout.decode(errors="replace"), stderr.decode(errors="replace")
            task = TaskResult(stdout=stdout, stderr=stderr, outputs=made, **info)
            if directory is not None:
                for folder in folders:
                    os.makedirs(os.path.join(directory, folder), exist_ok=True)
                for path, item in made.items():
                    item._saving(os.path.join(directory, path))(control)
            if check:
                raise_unless_ok(words[0], task)
            return task

        return call

    @with_parameters_of(_task)
    def run(self, *arguments: Any, **options: Any) -> TaskResult:
        """Runs a command on the service, in a directory of its own, and waits until it has ended.

        files:   what is put into the directory, folders with all that is in them: paths, under their last parts, or a
                 mapping of names to paths
        outputs: names of files and folders that are brought back; save them from the result's outputs
        to:      a directory that the outputs are saved in; a folder that is there already keeps what else it has
        stdin:   what the command reads: bytes, a text (UTF-8), or a pathlib.Path
        text:    stdout and stderr are str, of UTF-8; what is none becomes U+FFFD
        check:   zks.TaskFailed is raised when it does not go well
        timeout: seconds after which the command is ended; the others are limits of the command's processes
        """
        return self._task(*arguments, **options)(None)

    @with_parameters_of(_task)
    def run_async(self, *arguments: Any, **options: Any) -> CallFuture[TaskResult]:
        """run on a thread of the session. Cancelling the future ends the command."""
        return self._submit(self._task(*arguments, **options))

    def _submit(self, operation: Operation[T]) -> CallFuture[T]:
        if self._closed or self._process != os.getpid():
            self._native.call("", [])  # which says so
        return self._calls.submit(operation)

    async def __aenter__(self) -> Session:
        return self

    async def __aexit__(self, *exception: object) -> None:
        import asyncio

        await asyncio.to_thread(self.close)

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


def _native_items(items: Sequence[Item], *, in_reply: bool = False) -> list[_bridge.Item]:
    native = []
    for number, item in enumerate(items, start=1):
        try:
            native.append(native_item(item, in_reply=in_reply))
        except Exception as error:
            if len(items) > 1:
                error.add_note(f"That is item {number} of the call.")
            raise
    return native


def _layout_of_item(item: Item) -> Layout:
    return layout_of(item.value) if item.kind == "array" else None


def _opening(
    address: str | None = None,
    *,
    timeout: float = 10.0,
    tls: str | os.PathLike[str] | None = None,
    insecure: bool = False,
    idle_timeout: float | None = 600.0,
    max_reply: int | None = None,
) -> Operation[_bridge.Session]:
    """The making of a connection, wrong arguments being told at once."""
    if address is None:
        address = os.environ.get("ZKS_ADDRESS") or None
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


@with_parameters_of(_opening)
def connect(*arguments: Any, **options: Any) -> Session:
    """A session with the service at "unix:PATH" or "HOST:PORT"; without an address, with that of $ZKS_ADDRESS, and without
    that one with a service of its own in this process. "unix:" alone is the default socket of zksd.

    timeout:  seconds to wait for the connection; then zks.Timeout is raised
    tls:      the directory with the service's ca.pem and token and a client.pem and client-key.pem; for HOST:PORT it is
              $ZKS_TLS or ~/.local/state/zks/tls if not given
    insecure: connect to HOST:PORT in plain text, which others can read and alter
    idle_timeout: seconds that a reply which has begun may pause while it is read; then zks.Timeout is raised. None: for
              ever
    max_reply: bytes of the largest reply that is taken; a larger one fails its call
    """
    return Session(_opening(*arguments, **options)(None), Calls())


class SessionFuture(CallFuture[Session]):
    """A session that is being opened: `await` it, or use it as `async with zks.connect_async(...) as session`."""

    async def __aenter__(self) -> Session:
        return await self

    async def __aexit__(self, *exception: object) -> None:
        await self.result().__aexit__(*exception)


@with_parameters_of(_opening)
def connect_async(*arguments: Any, **options: Any) -> SessionFuture:
    """connect on a thread that then belongs to the session. Cancelling the future gives the attempt up."""
    opening = _opening(*arguments, **options)
    calls = Calls()

    def open_session(control: _bridge.CallControl | None) -> Session:
        try:
            return Session(opening(control), calls)
        except BaseException:
            calls.close()
            raise

    attempt = SessionFuture()
    calls.run(attempt, open_session, unwanted=Session.close)
    return attempt


def close_all() -> None:
    """Closes what is still open when the interpreter ends."""
    for session in list(_open_sessions):
        session.close()
