"""Wrong arguments are told before anything is sent: which one, what it was, what is wanted."""

import math
import os
import pathlib

import numpy
import pytest

import zks

NOT_UTF8 = os.fsdecode(b"caf\xe9")


@pytest.mark.parametrize(
    "arguments, error, told",
    [
        ({"address": pathlib.Path("/x")}, TypeError, r"the address is a text, not .*/x"),
        ({"address": b"unix:/x"}, TypeError, "the address is a text"),
        ({"address": "unix:/" + NOT_UTF8}, ValueError, "the address is not UTF-8"),
        ({"timeout": "soon"}, TypeError, "timeout is a number of seconds, not 'soon'"),
        ({"timeout": None}, TypeError, "timeout is a number of seconds, not None"),
        ({"timeout": -1}, ValueError, "timeout is a number of seconds, 0 or more, not -1"),
        ({"idle_timeout": 0}, ValueError, "idle_timeout is a number of seconds above 0, not 0"),
        ({"idle_timeout": math.nan}, ValueError, "idle_timeout"),
        ({"max_reply": 1.5}, TypeError, "max_reply is a whole number, not 1.5"),
        ({"max_reply": -1}, ValueError, "max_reply is a whole number from 0"),
        ({"max_reply": 2**70}, ValueError, "max_reply"),
        ({"tls": 5}, TypeError, "PathLike"),
        ({"tls": ""}, ValueError, "tls names a directory"),
    ],
)
def test_connect_names_the_argument_that_is_wrong(arguments, error, told):
    for connect in (zks.connect, zks.connect_async):
        with pytest.raises(error, match=told):
            connect(**{"address": "unix:/nowhere", **arguments})


@pytest.mark.parametrize(
    "arguments, error, told",
    [
        ({"argv": "true"}, TypeError, "argv is a sequence, not one text"),
        ({"argv": ["echo", 5]}, TypeError, "not int"),
        ({"argv": ["echo", NOT_UTF8]}, ValueError, r"argv\[1\] is not UTF-8"),
        ({"files": "data.txt"}, TypeError, "files is a sequence, not one text"),
        ({"files": pathlib.Path("data.txt")}, TypeError, "files is a sequence"),
        ({"files": {5: "data.txt"}}, TypeError, "a name in files is a text, not 5"),
        ({"outputs": "out"}, TypeError, "outputs is a sequence, not one text"),
        ({"environment": {"A": 5}}, TypeError, r"environment\['A'\] is a text, not 5"),
        ({"timeout": -1}, ValueError, "timeout is a number of seconds"),
        ({"timeout": 0}, ValueError, "timeout is a number of seconds above 0, not 0"),
        ({"timeout": math.nan}, ValueError, "timeout is a number of seconds"),
        ({"timeout": "1"}, TypeError, "timeout is a number of seconds, not '1'"),
        ({"memory_bytes": -1}, ValueError, "memory_bytes is a whole number"),
        ({"memory_bytes": 10**30}, ValueError, "memory_bytes is a whole number"),
        ({"open_files": 4.5}, TypeError, "open_files is a whole number, not 4.5"),
    ],
)
def test_run_names_the_argument_that_is_wrong(session, arguments, error, told):
    for run in (session.run, session.run_async):
        with pytest.raises(error, match=told):
            run(**{"argv": ["true"], **arguments})


def test_the_longest_times_are_no_limits(session):
    for endless in (math.inf, 1e300, numpy.float64(1e10)):
        assert session.run(["true"], timeout=endless, cpu_time=endless).ok


def test_words_may_be_bytes_and_paths(session):
    assert session.run([b"printf", "%s%s", b"x", pathlib.Path("y")]).stdout == b"xy"


@pytest.mark.parametrize("method, error", [(5, TypeError), ("", ValueError), ("a\0b", ValueError)])
def test_a_method_is_a_name(session, method, error):
    with pytest.raises(error, match="the method is a"):
        session.invoke(method)
