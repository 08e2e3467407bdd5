"""Echoes arrays through a service and prints the seconds of each call.

    echo_client.py ADDRESS

Reads lines "ELEMENTS CALLS" and answers each with one line, as bench/echo_client.cpp does.
"""

import sys
import time

import numpy

import zks


def seconds_of_echo(session: zks.Session, array: numpy.ndarray) -> float:
    start = time.perf_counter()
    (item,) = session.echo(array)
    back = item.array()
    assert back.shape == array.shape
    del item, back
    return time.perf_counter() - start


def main(address: str) -> None:
    array = numpy.empty(0)
    with zks.connect(address) as session:
        for line in sys.stdin:
            elements, calls = map(int, line.split())
            if array.size != elements:
                array = numpy.random.default_rng(1).random(elements)
            print(*(seconds_of_echo(session, array) for _ in range(calls)), flush=True)


if __name__ == "__main__":
    main(sys.argv[1])
