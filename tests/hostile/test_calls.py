"""Calls beyond those that are served at once."""

import pytest
import zksmessages_pb2 as messages
from foreign_wire import RemoteError, call_frames, echo_request


def served(daemon):
    return [line for line in daemon.log() if 'method="echo"' in line]


def test_calls_beyond_the_most_wait_in_line(start):
    daemon = start("--max-calls", "1")
    *begin, end = call_frames("echo", echo_request((messages.ITEM_KIND_FILE, b"first" * 200_000)))
    with daemon.conversation() as first, daemon.conversation() as second, daemon.conversation() as third:
        first.start(begin)
        assert next(first.stream).HasField("reply")  # its handler is at work
        threads = daemon.threads()
        second.start(call_frames("echo", echo_request((messages.ITEM_KIND_FILE, b"second"))))
        with pytest.raises(RemoteError, match="has no method"):  # for that no handler is needed
            third.call("none", b"")
        assert daemon.threads() <= threads + 1
        assert served(daemon) == []
        first.start([end])
        assert b"second" in second.reply()[1]
        daemon.awaits(lambda: len(served(daemon)) == 2)
    assert "request=100" in served(daemon)[0]
