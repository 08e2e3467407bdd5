"""What every test of the package gets: sessions, a daemon, and a check that the test leaves nothing behind."""

import gc
import os
import pathlib
import subprocess
import sys
import threading
import time

import pytest

import zks
from zks import _bridge

# Threads of the transport below, which live as long as the process does once sockets have been used.
_LASTING_THREADS = ("default-executo", "resolver-execut", "grpc_global_tim", "event_engine", "grpcpp_sync_ser",
                    "timer_manager")


# What is there now lives on: the collector need not go through all of the packages at each look for leaks.
gc.collect()
gc.freeze()


def _native_threads():
    names = []
    for task in pathlib.Path("/proc/self/task").iterdir():
        try:
            names.append((task / "comm").read_text().strip())
        except OSError:  # it has just ended
            continue
    return sorted(name for name in names if not name.startswith(_LASTING_THREADS))


def _descriptors():
    found = {}
    for entry in pathlib.Path("/proc/self/fd").iterdir():
        try:
            found[entry.name] = os.readlink(entry)
        except OSError:
            continue
    # What the transport keeps to wake its threads.
    return sorted(target for target in found.values() if not target.startswith("anon_inode:"))


def _children():
    found = []
    for task in pathlib.Path("/proc/self/task").iterdir():
        try:
            found += (task / "children").read_text().split()
        except OSError:
            continue
    return sorted(found)


def resources():
    """What a process can leave behind, by kind."""
    gc.collect()
    _bridge.run_deferred()
    return {
        "descriptors": _descriptors(),
        "children": _children(),
        "threads": _native_threads(),
        "python threads": sorted(thread.name for thread in threading.enumerate()),
        "native objects": _bridge.live_objects(),
    }


def leaks_since(before, deadline=10.0):
    """The kinds that differ from `before` still when the deadline is over; native threads end in their own time."""
    end = time.monotonic() + deadline
    while True:
        now = resources()
        different = {kind: (before[kind], now[kind]) for kind in now if now[kind] != before[kind]}
        if not different or time.monotonic() > end:
            return different
        threading.Event().wait(0.01)


@pytest.fixture(autouse=True)
def nothing_is_left_behind(request):
    if "no_leak_check" in request.keywords:
        yield
        return
    if getattr(request.module, "USES_DAEMON", False):
        request.getfixturevalue("daemon")  # belongs to the module, so it is there before the test and after it
    before = resources()
    yield
    different = leaks_since(before)
    assert not different, f"left behind (before, after): {different}"


@pytest.fixture
def session():
    with zks.connect() as opened:
        yield opened


@pytest.fixture(params=["embedded", "daemon"])
def any_session(request):
    address = None if request.param == "embedded" else request.getfixturevalue("daemon")
    with zks.connect(address) as opened:
        yield opened


def start_daemon(directory):
    """A daemon on a socket of its own, and its address; waits until it says that it listens."""
    path = pathlib.Path(directory) / "socket"
    process = subprocess.Popen(
        [os.environ["ZKSD"], "--socket", str(path)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True
    )
    if "listening" not in process.stdout.readline():
        stop_daemon(process)
        raise RuntimeError("zksd did not start")
    return process, f"unix:{path}"


def stop_daemon(process):
    process.terminate()
    try:
        process.wait(10)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait(10)
    process.stdout.close()


@pytest.fixture(scope="module")
def daemon(tmp_path_factory):
    """The address of a service in another process."""
    process, address = start_daemon(tmp_path_factory.mktemp("zksd"))
    yield address
    stop_daemon(process)


def wait_until(condition):
    """Returns when the condition holds; fails when it never comes to."""
    end = time.monotonic() + 60
    while not condition():
        assert time.monotonic() < end, "it never came"
        threading.Event().wait(0.01)


def sleeping_task(marker=None):
    """A task that runs until it is ended; it makes the marker file when it has started."""
    script = "sleep 1000" if marker is None else f"touch {marker}; sleep 1000"
    return zks.message("parallel.zksmessages.TaskDescription", argv=["sh", "-c", script])


# A request to echo one array with Session.invoke.
ARRAY_REQUEST = zks.message("parallel.zksmessages.EchoRequest", items=[{"kind": "ITEM_KIND_ARRAY"}])


def run_python(code, *arguments, timeout=60, **options):
    """A fresh interpreter that runs `code`, with this one's path."""
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(path for path in sys.path if path)}
    return subprocess.run(
        [sys.executable, "-c", code, *arguments], env=environment, capture_output=True, text=True, timeout=timeout, **options
    )


def pytest_configure(config):
    config.addinivalue_line("markers", "no_leak_check: the test ends processes or threads in ways of its own")
