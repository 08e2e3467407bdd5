#!/usr/bin/env -S /usr/bin/python3 -u
"""A 256 MiB float64 array through echo from Python, and small calls, beside what other packages do with the same array.

Each line is a median of the round trip; ratios are to a plain copy of the array in this process. Packages that are not installed are
left out, and said so. PYTHONPATH has the package, ZKSD the daemon.
"""

import importlib.util
import os
import pathlib
import statistics
import subprocess
import tempfile
import time

import numpy

import zks

MIB = 256
ROUNDS = 5
SMALL_CALLS = 2000


def seconds_of(work, rounds=ROUNDS):
    times = []
    for _ in range(rounds):
        start = time.perf_counter()
        work()
        times.append(time.perf_counter() - start)
    return times


def report(name, times, floor=None):
    median = statistics.median(times)
    ratio = "" if floor is None else f"  {floor / median:5.2f} of a copy"
    print(f"{name:<44} {MIB / median:8.0f} MiB/s  (spread {min(times):.3f} to {max(times):.3f} s){ratio}")
    return median


def report_small(name, times):
    ordered = sorted(times)
    p99 = ordered[int(len(ordered) * 0.99)]
    print(f"{name:<44} {statistics.median(ordered) * 1e3:8.3f} ms median {p99 * 1e3:8.3f} ms p99")


def bench_session(name, session, array, floor):
    def echo():
        (item,) = session.echo(array)
        assert item.array().shape == array.shape

    echo()
    report(f"zks, {name}: array through echo", seconds_of(echo), floor)
    small = numpy.zeros(1)
    report_small(f"zks, {name}: small echo", seconds_of(lambda: session.echo(small)[0].array(), SMALL_CALLS))


def bench_zks(array, floor):
    with zks.connect() as session:
        bench_session("embedded", session, array, floor)
    with tempfile.TemporaryDirectory() as directory:
        path = pathlib.Path(directory) / "socket"
        daemon = subprocess.Popen([os.environ["ZKSD"], "--socket", path], stdout=subprocess.PIPE)
        try:
            daemon.stdout.readline()
            with zks.connect(f"unix:{path}") as session:
                bench_session("zksd on a socket file", session, array, floor)
        finally:
            daemon.terminate()
            daemon.wait()
            daemon.stdout.close()


def bench_distributed(array, floor):
    if importlib.util.find_spec("distributed") is None:
        print("distributed: not installed")
        return
    import distributed

    with distributed.LocalCluster(n_workers=1, threads_per_worker=1, processes=True, dashboard_address=None) as cluster:
        with distributed.Client(cluster) as client:
            for direct in (False, True):
                def there_and_back():
                    client.gather(client.scatter(array, direct=direct, hash=False), direct=direct)

                there_and_back()
                way = "direct" if direct else "through the scheduler"
                report(f"distributed, {way}: scatter and gather", seconds_of(there_and_back), floor)
            report_small("distributed: submit", seconds_of(lambda: client.submit(int, 0, pure=False).result(), 200))


def main():
    array = numpy.random.default_rng(1).random(MIB * 2**20 // 8)
    target = numpy.empty_like(array)
    floor = report("a copy", seconds_of(lambda: numpy.copyto(target, array)))
    bench_zks(array, floor)
    bench_distributed(array, floor)


if __name__ == "__main__":
    main()
