"""An array whose bytes no 32-bit signed number counts."""

import numpy
import pytest

import zks

USES_DAEMON = True

ELEMENTS = 2**28 + 3  # 2 GiB and a little of float64
MARKS = [0, 1, 2**27 - 1, 2**27, 2**28 - 1, 2**28, ELEMENTS - 1]  # around the borders of 1 and 2 GiB too


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_an_array_past_2_gib_comes_back_from_echo_as_it_went(where, request):
    sent = numpy.zeros(ELEMENTS)
    sent[MARKS] = numpy.arange(1.0, len(MARKS) + 1)
    with zks.connect(request.getfixturevalue("daemon") if where == "daemon" else None) as session:
        (item,) = session.echo(sent)
        received = item.array()
    assert (received.shape, received.dtype) == (sent.shape, sent.dtype)
    assert received.flags.writeable and received.flags.aligned
    assert numpy.flatnonzero(received).tolist() == MARKS
    assert received[MARKS].tolist() == sent[MARKS].tolist()
