"""What importing does, and does not do."""

import importlib.util
import os
import pathlib
import subprocess
import sys
import venv

import pytest

import zks
from conftest import run_python

QUIET = """
import os, signal, sys
import numpy, numpy.ma, concurrent.futures.thread, logging
def state():
    sockets = [name for name in os.listdir("/proc/self/fd")
               if os.path.exists(f"/proc/self/fd/{name}") and os.readlink(f"/proc/self/fd/{name}").startswith("socket:")]
    handlers = {number: signal.getsignal(number) for number in signal.valid_signals()}
    lines = open("/proc/self/status").read().splitlines()
    masks = [line for line in lines if line.startswith(("SigCgt", "SigIgn", "SigBlk"))]
    return len(os.listdir("/proc/self/task")), sockets, handlers, masks
before = state()
import zks
after = state()
assert before == after, (before, after)
"""


def test_import_starts_no_thread_opens_no_socket_and_touches_no_signal_handler():
    done = run_python(QUIET)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_calls_touch_no_signal_handler_either():
    code = """
import signal, zks
def masks():
    lines = [line for line in open("/proc/self/status").read().splitlines() if line.startswith(("SigCgt", "SigIgn"))]
    masks = [int(line.split()[1], 16) for line in lines]
    return [mask & ~(3 << 31) for mask in masks]  # 32 and 33 are the C library's own, for threads
before = masks()
with zks.connect() as session:
    session.echo(b"x")[0].bytes()
    session.run(["true"])
assert masks() == before, (before, masks())
"""
    done = run_python(code)
    assert done.returncode == 0, done.stderr


@pytest.mark.parametrize("other", ["grpc", "google.protobuf.message", "google.protobuf.struct_pb2"])
@pytest.mark.parametrize("first", ["zks", "other"])
def test_beside_the_packages_that_share_libraries(other, first):
    if importlib.util.find_spec(other.split(".")[0]) is None:
        pytest.fail(f"{other} is not installed; scripts/setup installs it")
    order = ["zks", other] if first == "zks" else [other, "zks"]
    code = f"""
import {order[0]}
import {order[1]}
import numpy, zks
from google.protobuf import descriptor_pb2, struct_pb2
with zks.connect() as session:
    assert (session.echo(numpy.arange(5.0))[0].array() == numpy.arange(5.0)).all()
    limits = session.echo(zks.message("parallel.zksmessages.TaskLimits", open_files=3))[0].message()
    assert limits["open_files"] == 3
value = struct_pb2.Struct()
value["a"] = 1
assert struct_pb2.Struct.FromString(value.SerializeToString())["a"] == 1
"""
    done = run_python(code)
    assert (done.returncode, done.stderr) == (0, "")


def test_beside_a_grpc_channel_of_the_host(daemon):
    code = """
import sys, grpc, zks
with grpc.insecure_channel(sys.argv[1]) as channel:
    grpc.channel_ready_future(channel).result(30)
    with zks.connect(sys.argv[1]) as session:
        assert session.echo(b"x")[0].bytes() == b"x"
"""
    done = run_python(code, daemon)
    assert done.returncode == 0, done.stderr


def test_another_python_is_told_in_one_line_which_one_is_wanted():
    code = """
import sys
sys.version_info = (3, 99, 0, "final", 0)
try:
    import zks
except ImportError as error:
    print(error)
"""
    done = run_python(code)
    ours = "%d.%d" % sys.version_info[:2]
    told = f"zks was built for Python {ours} ({sys.executable}), and this is Python 3.99 ({sys.executable})\n"
    assert (done.stdout, done.stderr) == (told, "")


IMPORT = "try:\n import zks\nexcept ImportError as error:\n print(error)"


def test_a_python_without_numpy_is_told_in_one_line_which_one_is_wanted(tmp_path):
    venv.create(tmp_path, with_pip=False, symlinks=True)
    python = tmp_path / "bin" / "python3"
    done = subprocess.run([python, "-c", IMPORT], capture_output=True, text=True, timeout=60)
    told = f"zks needs NumPy, and this Python ({python}) has none; zks was built for {sys.executable}\n"
    assert (done.stdout, done.stderr) == (told, "")


def test_a_python_that_cannot_load_the_package_is_told_in_one_line_which_one_is_wanted():
    done = run_python("import sys\nsys.modules['zks._bridge'] = None\n" + IMPORT)
    told = f"zks was built for {sys.executable}, and this Python ({sys.executable}) cannot load it: "
    assert done.stdout.startswith(told) and done.stdout.count("\n") == 1
    assert done.stderr == ""


def test_the_interpreter_of_the_build_tree_finds_the_package(tmp_path):
    interpreter = pathlib.Path(os.environ["ZKS_BUILD_DIR"]) / "python" / "python"
    environment = {name: value for name, value in os.environ.items() if name != "PYTHONPATH"}
    done = subprocess.run(
        [interpreter, "-c", "import sys, zks; print(zks.__version__, sys.argv[1])", "an argument"],
        cwd=tmp_path, env=environment, capture_output=True, text=True, timeout=60,
    )  # fmt: skip
    assert (done.stdout, done.stderr) == (f"{zks.__version__} an argument\n", "")


def test_the_version_is_the_project_s():
    cache = (pathlib.Path(os.environ["ZKS_BUILD_DIR"]) / "CMakeCache.txt").read_text()
    assert f"CMAKE_PROJECT_VERSION:STATIC={zks.__version__}\n" in cache


def test_it_is_debian_s_own_python():
    assert sys.executable == "/usr/bin/python3" or sys.executable.startswith("/usr/bin/python3.")
