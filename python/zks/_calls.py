"""Calls on threads of a session, and the futures that stand for them."""

from __future__ import annotations

import inspect
import os
import threading
import weakref
from concurrent.futures import Future, ThreadPoolExecutor
from typing import Any, Callable, Generator, ParamSpec, TypeVar

from zks import _bridge

P = ParamSpec("P")
T = TypeVar("T")

# What waits for the service; the control stops it from outside. None: only Ctrl-C does.
Operation = Callable[[_bridge.CallControl | None], T]

# How many run at once; more wait their turn.
_MOST_AT_ONCE = 32


def _drop(result: object) -> None:
    pass


def with_parameters_of(prepare: Callable[P, Operation[Any]]) -> Callable[[Callable[..., T]], Callable[P, T]]:
    """For a function that passes its arguments on to `prepare`: shows that one's parameters as its own."""

    def decorate(function: Callable[..., T]) -> Callable[P, T]:
        returns = inspect.signature(function).return_annotation
        shown = inspect.signature(prepare).replace(return_annotation=returns)
        function.__signature__ = shown  # type: ignore[attr-defined]
        return function

    return decorate


class CallFuture(Future[T]):
    """An operation under way. It stays pending until that is over, so that cancelling it stops the operation.

    A concurrent.futures.Future that can be awaited too.
    """

    def __init__(self) -> None:
        super().__init__()
        self._control = _bridge.CallControl()

    def __await__(self) -> Generator[Any, None, T]:
        import asyncio  # which takes long to load, and only such programs have

        return asyncio.wrap_future(self).__await__()

    def cancel(self) -> bool:
        if not super().cancel():
            return False
        self._control.cancel()
        return True

    def complete(self, operation: Operation[T], unwanted: Callable[[T], None]) -> None:
        if self.cancelled():
            self.set_running_or_notify_cancel()
            return
        try:
            result = operation(self._control)
        except BaseException as error:
            if self.set_running_or_notify_cancel():
                self.set_exception(error)
        else:
            if self.set_running_or_notify_cancel():
                self.set_result(result)
            else:
                unwanted(result)


class Calls:
    """The threads of one session, which start when they are needed. Threads: any."""

    def __init__(self) -> None:
        self._process = os.getpid()
        self._lock = threading.Lock()
        self._executor: ThreadPoolExecutor | None = None
        self._futures: weakref.WeakSet[CallFuture[Any]] = weakref.WeakSet()
        self._closed = False
        _all_calls.add(self)

    def submit(self, operation: Operation[T]) -> CallFuture[T]:
        """Runs the operation on a thread. After close() there is nothing left to wait for: it runs at once."""
        return self.run(CallFuture(), operation)

    def run(
        self, future: CallFuture[T], operation: Operation[T], unwanted: Callable[[T], None] = _drop
    ) -> CallFuture[T]:
        """submit for a future that there is already.

        unwanted: gets the result of an operation that was cancelled when it was over already
        """
        if self._process != os.getpid():
            future.complete(operation, unwanted)
            return future
        with self._lock:
            if not self._closed:
                if self._executor is None:
                    self._executor = ThreadPoolExecutor(_MOST_AT_ONCE, thread_name_prefix="zks")
                self._executor.submit(future.complete, operation, unwanted)
                self._futures.add(future)
                return future
        future.complete(operation, unwanted)
        return future

    def cancel(self) -> None:
        """Cancels all that is under way."""
        with self._lock:
            under_way = list(self._futures)
        for future in under_way:
            future.cancel()

    def close(self) -> None:
        """Waits for the threads, which end when the session's connection is closed; not for the one that calls this."""
        if self._process != os.getpid():
            return
        with self._lock:
            self._closed = True
            executor, self._executor = self._executor, None
        if executor is not None:
            inside = threading.current_thread() in executor._threads
            executor.shutdown(wait=not inside)


_all_calls: weakref.WeakSet[Calls] = weakref.WeakSet()


def cancel_all() -> None:
    """Cancels every future of the package: the interpreter waits for its threads next, and they would for the service."""
    for calls in list(_all_calls):
        calls.cancel()
