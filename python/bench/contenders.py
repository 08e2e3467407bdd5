"""The services and clients that are measured, each as a context manager that ends its processes."""

from __future__ import annotations

import contextlib
import importlib.util
import logging
import os
import pathlib
import subprocess
import sys
import time
from typing import Callable, Iterator

HERE = pathlib.Path(__file__).parent

# Freed memory stays with malloc instead of going back to the system page by page. zksd sets the same for itself.
KEEP_FREED_MEMORY = {
    "MALLOC_TRIM_THRESHOLD_": str(1 << 30),
    "MALLOC_MMAP_THRESHOLD_": str(32 << 20),
    "MALLOC_TOP_PAD_": str(64 << 20),
    "MALLOC_ARENA_MAX": "1",
}


def is_installed(package: str, debian_package: str) -> bool:
    """Whether the package can be imported; says so when it cannot."""
    if importlib.util.find_spec(package) is not None:
        return True
    print(f"left out: {package}, because {debian_package} is not installed for {sys.executable}")
    return False


def seconds_of(work: Callable[[], object]) -> float:
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


@contextlib.contextmanager
def process(*command: object, environment: dict[str, str] | None = None) -> Iterator[subprocess.Popen]:
    """A program with pipes to its input and output. It is to end when its input does, or is ended."""
    arguments = [str(argument) for argument in command]
    with subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                          env={**os.environ, **(environment or {})}) as child:
        try:
            yield child
        finally:
            child.terminate()


def first_line(child: subprocess.Popen) -> str:
    line = child.stdout.readline()
    if not line:
        raise RuntimeError(f"{child.args[0]} ended without a word")
    return line


@contextlib.contextmanager
def daemon(directory: pathlib.Path) -> Iterator[str]:
    """A zksd on a socket file; gives its address."""
    with process(os.environ["ZKSD"], "--socket", directory / "zksd.sock") as child:
        first_line(child)  # it says when it listens
        yield f"unix:{directory / 'zksd.sock'}"


class EchoClient:
    """A client process: bench/echo_client.cpp, or echo_client.py."""

    def __init__(self, child: subprocess.Popen):
        self._child = child

    def seconds(self, elements: int, calls: int = 1) -> list[float]:
        """The seconds of each call with a float64 array."""
        self._child.stdin.write(f"{elements} {calls}\n")
        self._child.stdin.flush()
        return [float(word) for word in first_line(self._child).split()]


@contextlib.contextmanager
def cpp_client(address: str, environment: dict[str, str] | None = None) -> Iterator[EchoClient]:
    with process(os.environ["ECHO_CLIENT"], address, environment=environment) as child:
        yield EchoClient(child)


@contextlib.contextmanager
def python_client(address: str, environment: dict[str, str] | None = None) -> Iterator[EchoClient]:
    with process(sys.executable, HERE / "echo_client.py", address, environment=environment) as child:
        yield EchoClient(child)


@contextlib.contextmanager
def grpc_echo(directory: pathlib.Path) -> Iterator[Callable[[bytes], bytes]]:
    """The unary echo of a service in another Python process, over a socket file too."""
    import grpc

    address = f"unix:{directory / 'grpc.sock'}"
    with process(sys.executable, HERE / "grpc_echo_server.py", address) as child:
        first_line(child)
        with grpc.insecure_channel(address) as channel:
            yield channel.unary_unary("/bench.Echo/echo")


@contextlib.contextmanager
def distributed_client(directory: pathlib.Path) -> Iterator[object]:
    """A client of a scheduler with one worker process of one thread."""
    import distributed

    with distributed.LocalCluster(n_workers=1, threads_per_worker=1, processes=True, dashboard_address=None,
                                  local_directory=str(directory), silence_logs=logging.ERROR) as cluster:
        with distributed.Client(cluster) as client:
            yield client


@contextlib.contextmanager
def ipyparallel_engine(directory: pathlib.Path) -> Iterator[object]:
    """The view of a cluster's only engine."""
    os.environ["IPYTHONDIR"] = str(directory / "ipython")
    import ipyparallel

    cluster = ipyparallel.Cluster(n=1, log_level=logging.ERROR)
    cluster.start_cluster_sync()
    try:
        with cluster.connect_client_sync() as client:
            client.wait_for_engines(1, interactive=False)
            yield client[0]
    finally:
        cluster.stop_cluster_sync()
