"""zks: named methods of a job-scheduler service, called with NumPy arrays, bytes, files and messages.

    import numpy, zks

    with zks.connect() as session:
        reply, = session.echo(numpy.arange(6.0))
        print(reply.array())

Importing starts no thread, opens no socket and touches no signal handler.
"""

import sys

from zks._built import PYTHON, PYTHON_VERSION
from zks._built import VERSION as __version__

# A Python of any version understands this file, so that it can say this.
if sys.version_info[:2] != PYTHON_VERSION:
    raise ImportError(
        "zks was built for Python %d.%d (%s), and this is Python %d.%d (%s)"
        % (PYTHON_VERSION + (PYTHON,) + sys.version_info[:2] + (sys.executable,))
    )

from zks import _needs

_needs.check()

from zks import _start, host
from zks._errors import Error, FrameworkError, Terminated, Timeout
from zks._items import Message, array, file, message, plain
from zks._reply import ReplyItem
from zks._session import Session, connect, connect_async
from zks._tasks import TaskFailed, TaskResult

__all__ = [
    "Error",
    "FrameworkError",
    "Message",
    "ReplyItem",
    "Session",
    "TaskFailed",
    "TaskResult",
    "Terminated",
    "Timeout",
    "__version__",
    "array",
    "connect",
    "connect_async",
    "file",
    "host",
    "message",
    "plain",
]

_start.start()
