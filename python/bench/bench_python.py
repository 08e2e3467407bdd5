"""A float64 array through echo and back from Python, and small calls, beside the C++ client and other packages.

    python_bench [REPETITIONS]

All in one run: the same array through zksd on a socket file from Python and from C++, to a worker of `distributed` and
back, and to an engine of ipyparallel and back; then small calls beside a unary call of python3-grpcio and a task of
`distributed`. Packages that are not installed are left out, and that is said. ZKSD and ECHO_CLIENT name the programs,
PYTHONPATH has the package.
"""

from __future__ import annotations

import contextlib
import pathlib
import sys
import tempfile

import contenders as peers
import numpy
from measure import Contender, measure_interleaved, percentile, print_table, ratio_text, spread_text

MEBIBYTES = 256
ELEMENTS = MEBIBYTES * 2**20 // 8
SMALL_CALLS = 1000
SMALL_TASKS = 200  # a task of distributed takes milliseconds

CPP = "C++ client"
ZKS = "zks from Python"
GRPCIO = "python3-grpcio, unary"


def contender_of_rate(name: str, seconds) -> Contender:
    return Contender(name, lambda: MEBIBYTES / seconds())


def zks_rates(stack: contextlib.ExitStack, address: str) -> list[Contender]:
    kept = peers.KEEP_FREED_MEMORY
    clients = {
        CPP: peers.cpp_client(address),
        ZKS: peers.python_client(address),
        f"{CPP}, freed memory kept": peers.cpp_client(address, kept),
        f"{ZKS}, freed memory kept": peers.python_client(address, kept),
    }
    entered = {name: stack.enter_context(client) for name, client in clients.items()}
    return [contender_of_rate(name, lambda client=client: client.seconds(ELEMENTS)[0])
            for name, client in entered.items()]


def distributed_rates(client, array: numpy.ndarray) -> list[Contender]:
    def there_and_back(direct: bool) -> None:
        back = client.gather(client.scatter(array, direct=direct, hash=False), direct=direct)
        assert back.shape == array.shape

    return [contender_of_rate(name, lambda direct=direct: peers.seconds_of(lambda: there_and_back(direct)))
            for name, direct in (("distributed, through its scheduler", False), ("distributed, direct", True))]


def ipyparallel_rate(engine, array: numpy.ndarray) -> Contender:
    def there_and_back() -> None:
        engine.push({"array": array}, block=True)
        assert engine.pull("array", block=True).shape == array.shape

    return contender_of_rate("ipyparallel, push and pull", lambda: peers.seconds_of(there_and_back))


def bench_arrays(directory: pathlib.Path, repetitions: int) -> None:
    with contextlib.ExitStack() as stack:
        contenders = zks_rates(stack, stack.enter_context(peers.daemon(directory)))
        array = numpy.random.default_rng(1).random(ELEMENTS)
        if peers.is_installed("distributed", "python3-distributed"):
            contenders += distributed_rates(stack.enter_context(peers.distributed_client(directory)), array)
        if peers.is_installed("ipyparallel", "python3-ipyparallel"):
            contenders.append(ipyparallel_rate(stack.enter_context(peers.ipyparallel_engine(directory)), array))
        samples = measure_interleaved(contenders, repetitions)
    names = [contender.name for contender in contenders]
    cpp, python = samples[names.index(CPP)], samples[names.index(ZKS)]
    print_table([f"float64 array there and back, {MEBIBYTES} MiB", "MiB/s", f"ratio to {CPP}", f"{ZKS} to it"],
                [[name, spread_text(rates), ratio_text(rates, cpp), ratio_text(python, rates)]
                 for name, rates in zip(names, samples)])


def small_calls(name: str, call, count: int) -> Contender:
    return Contender(name, lambda: [peers.seconds_of(call) for _ in range(count)])


def small_contenders(stack: contextlib.ExitStack, directory: pathlib.Path) -> list[Contender]:
    address = stack.enter_context(peers.daemon(directory))
    clients = {CPP: peers.cpp_client(address), ZKS: peers.python_client(address)}
    entered = {name: stack.enter_context(client) for name, client in clients.items()}
    contenders = [Contender(name, lambda client=client: client.seconds(1, SMALL_CALLS))
                  for name, client in entered.items()]
    if peers.is_installed("grpc", "python3-grpcio"):
        echo = stack.enter_context(peers.grpc_echo(directory))
        contenders.append(small_calls(GRPCIO, lambda: echo(b"12345678"), SMALL_CALLS))
    if peers.is_installed("distributed", "python3-distributed"):
        client = stack.enter_context(peers.distributed_client(directory))
        contenders.append(small_calls("distributed, submit and result",
                                      lambda: client.submit(int, 0, pure=False).result(), SMALL_TASKS))
    return contenders


def bench_small_calls(directory: pathlib.Path, repetitions: int) -> None:
    with contextlib.ExitStack() as stack:
        contenders = small_contenders(stack, directory)
        samples = measure_interleaved(contenders, repetitions)
    names = [contender.name for contender in contenders]
    base = names.index(GRPCIO if GRPCIO in names else CPP)
    medians, tails = ([[percentile(calls, fraction) * 1e6 for calls in repetition] for repetition in samples]
                      for fraction in (0.5, 0.99))
    print_table(["small call", "median us", f"ratio to {names[base]}", "p99 us", "ratio of p99"],
                [[name, spread_text(median), ratio_text(median, medians[base]),
                  spread_text(tail), ratio_text(tail, tails[base])]
                 for name, median, tail in zip(names, medians, tails)])


def main() -> None:
    repetitions = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    with tempfile.TemporaryDirectory(prefix="zks-bench-") as directory:
        bench_arrays(pathlib.Path(directory), repetitions)
        bench_small_calls(pathlib.Path(directory), repetitions)


if __name__ == "__main__":
    main()
