"""What happens once, at import, and its end."""

import atexit
import threading

from zks import _bridge, _calls, _errors, _items, _logging, _session, host


def start() -> None:
    _bridge.set_error_factory(_errors.error_from_levels)
    _bridge.set_handle_factory(host.object_of_handle)
    _bridge.set_message_factory(_items.Message)
    _bridge.connect_interpreter(_logging.pass_on)
    _bridge.load_library()
    atexit.register(_end)
    # The threads of futures are joined before atexit's turn comes, so what they wait for has to end before that. A
    # user's own threads may use their sessions for as long as the interpreter waits for them.
    before_threads_are_joined = getattr(threading, "_register_atexit", atexit.register)
    before_threads_are_joined(_calls.cancel_all)


def _end() -> None:
    _bridge.end_other_threads()
    _session.close_all()
    _bridge.disconnect_interpreter()
