"""A NumPy array and a file to the service and back: `./dev python examples/session.py`."""

import pathlib

import numpy
import zks

source = pathlib.Path(__file__)
with zks.connect() as session:  # zks.connect("unix:/path") or zks.connect("host:port") for a service that runs already
    array, file = session.echo(numpy.linspace(0, 1, 5), source)
    print(array.array())
    file.save("session-copy.py")
    task = session.run(["wc", "-l", source.name], files=[source])
    print(task.stdout.decode().strip())
