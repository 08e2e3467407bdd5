"""zks: named methods of a job-scheduler service, called with NumPy arrays, bytes, files and messages.

    import numpy, zks

    with zks.connect() as session:
        reply, = session.echo(numpy.arange(6.0))
        print(reply.array())

Importing starts no thread, opens no socket and touches no signal handler.
"""

from zks import _start, host
from zks._errors import Error, FrameworkError, Terminated, Timeout
from zks._items import Message, array, file, message, plain
from zks._reply import ReplyItem
from zks._session import Session, TaskResult, connect, connect_async

__all__ = [
    "Error",
    "FrameworkError",
    "Message",
    "ReplyItem",
    "Session",
    "TaskResult",
    "Terminated",
    "Timeout",
    "array",
    "connect",
    "connect_async",
    "file",
    "host",
    "message",
    "plain",
]

_start.start()
