"""The end of the interpreter while threads are in calls: quiet, soon, and as it would be without this package."""

import os
import signal

import pytest

from conftest import run_python, start_daemon, stop_daemon

# What a thread waits in: calls of each kind, and what the standard library does in their place.
WAITS = {
    "call": 'session.invoke("runTask", sleeping)',
    "task": 'session.run(["sleep", "1000"])',
    "task of an embedded service": 'embedded.run(["sleep", "1000"])',
    "connection": 'zks.connect("unix:" + deaf.getsockname(), timeout=math.inf)',
    "item": "items[0].bytes()",
}

PROGRAM = """
import math, os, signal, socket, sys, threading, time, zks
address, service, directory, wait, end = sys.argv[1:]
session, embedded = zks.connect(address), zks.connect()
sleeping = zks.message("parallel.zksmessages.TaskDescription", argv=["sleep", "1000"])
deaf = socket.socket(socket.AF_UNIX)
deaf.bind(directory + "/deaf")
deaf.listen()
if wait.startswith("items"):
    items = session.echo(bytes(32 << 20), b"")
    os.kill(int(service), signal.SIGSTOP)
def work():
    eval(wait)
    print("it came back to Python")
def is_waiting():
    frame = sys._current_frames()[thread.ident]
    state = open(f"/proc/self/task/{thread.native_id}/stat").read().rpartition(")")[2].split()[0]
    return state == "S" and ("/zks/" in frame.f_code.co_filename or "sleep" in wait and frame.f_code.co_name == "<module>")
def press_ctrl_c_when_the_interpreter_waits():
    main = threading.main_thread().ident
    while sys._current_frames()[main].f_code.co_name != "_shutdown":
        time.sleep(0.01)
    os.kill(os.getpid(), signal.SIGINT)
thread = threading.Thread(target=work, daemon=end == "daemon")
thread.start()
while not is_waiting():
    time.sleep(0.01)
if end != "daemon":
    threading.Thread(target=press_ctrl_c_when_the_interpreter_waits, daemon=True).start()
print("end")
"""


@pytest.fixture
def service(tmp_path):
    process, address = start_daemon(tmp_path)
    yield address, str(process.pid)
    process.send_signal(signal.SIGCONT)
    stop_daemon(process)


@pytest.mark.parametrize("end", ["daemon", "ctrl-c"])
@pytest.mark.parametrize("wait", WAITS.values(), ids=WAITS)
def test_threads_in_calls_end_with_the_interpreter_as_others_do(wait, end, service, tmp_path):
    done = run_python(PROGRAM, *service, str(tmp_path), wait, end)
    os.kill(int(service[1]), signal.SIGCONT)
    others = run_python(PROGRAM, *service, str(tmp_path / ".."), "time.sleep(1000)", end)
    os.unlink(tmp_path / ".." / "deaf")
    assert (done.returncode, done.stdout, done.stderr) == (0, "end\n", others.stderr)


def test_a_thread_that_is_waited_for_may_use_its_session_to_the_end():
    code = """
import threading, zks
session = zks.connect()
def work():
    threading.main_thread().join()
    print(session.run(["echo", "done"], text=True).stdout, end="")
threading.Thread(target=work).start()
"""
    done = run_python(code)
    assert (done.returncode, done.stdout, done.stderr) == (0, "done\n", "")


def test_a_receiver_of_log_records_that_does_not_return_ends_with_the_interpreter():
    code = """
import logging, threading, time, zks
waiting = threading.Event()
def never_return(record):
    if threading.current_thread() is not threading.main_thread():  # which receives records too
        while True:
            waiting.set()
            time.sleep(0.001)
def call_for_ever():
    session = zks.connect()
    while True:
        session.echo(b"x")[0].bytes()
logger = logging.getLogger("zks")
logger.addFilter(never_return)
logger.setLevel(logging.DEBUG)
threading.Thread(target=call_for_ever, daemon=True).start()
waiting.wait()
"""
    done = run_python(code)
    assert (done.returncode, done.stderr) == (0, "")
