"""Calls on threads of a session, and the futures that stand for them."""

from __future__ import annotations

import os
import threading
from concurrent.futures import Future, ThreadPoolExecutor
from typing import Callable, TypeVar

from zks import _bridge

T = TypeVar("T")

# What waits for the service; the control stops it from outside. None: only Ctrl-C does.
Operation = Callable[[_bridge.CallControl | None], T]

# How many run at once; more wait their turn.
_MOST_AT_ONCE = 32


def _drop(result: object) -> None:
    pass


class _CallFuture(Future):
    """An operation under way. It stays pending until that is over, so that cancelling it stops the operation."""

    def __init__(self) -> None:
        super().__init__()
        self._control = _bridge.CallControl()

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
        self._closed = False

    def submit(self, operation: Operation[T], unwanted: Callable[[T], None] = _drop) -> Future[T]:
        """Runs the operation on a thread. After close() there is nothing left to wait for: it runs at once.

        unwanted: gets the result of an operation that was cancelled when it was over already
        """
        future: Future[T] = _CallFuture()
        if self._process != os.getpid():
            future.complete(operation, unwanted)
            return future
        with self._lock:
            if not self._closed:
                if self._executor is None:
                    self._executor = ThreadPoolExecutor(_MOST_AT_ONCE, thread_name_prefix="zks")
                self._executor.submit(future.complete, operation, unwanted)
                return future
        future.complete(operation, unwanted)
        return future

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
