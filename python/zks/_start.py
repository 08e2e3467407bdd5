"""What happens once, at import, and its end."""

import atexit
import threading

from zks import _bridge, _errors, _logging, _session, host


def start() -> None:
    _bridge.set_error_factory(_errors.error_from_levels)
    _bridge.set_handle_factory(host.object_of_handle)
    _bridge.connect_interpreter(_logging.pass_on)
    _bridge.load_library()
    atexit.register(_bridge.disconnect_interpreter)
    # Threads that wait for calls are joined before atexit's turn comes, so the calls have to end before that.
    before_threads_are_joined = getattr(threading, "_register_atexit", atexit.register)
    before_threads_are_joined(_session.close_all)
