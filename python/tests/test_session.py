"""Sessions with the embedded service and with a daemon."""

import asyncio
import concurrent.futures
import inspect
import os
import pathlib
import pickle
import resource
import signal
import subprocess
import threading

import hypothesis
import numpy
import pytest

import zks
from conftest import run_python, sleeping_task, start_daemon, stop_daemon, wait_until
from test_arrays import host_arrays, same_bits


USES_DAEMON = True


@pytest.fixture(params=["embedded", "daemon"])
def any_session(request):
    address = None if request.param == "embedded" else request.getfixturevalue("daemon")
    with zks.connect(address) as opened:
        yield opened


@hypothesis.given(host_arrays)
@hypothesis.settings(
    deadline=None, max_examples=60, suppress_health_check=[hypothesis.HealthCheck.function_scoped_fixture]
)
def test_any_array_comes_back_from_echo_as_it_went(session, value):
    (item,) = session.echo(value)
    assert same_bits(item.array(), value)


def test_echo_gives_back_every_kind_of_item(any_session, tmp_path):
    path = tmp_path / "sent"
    path.write_bytes(os.urandom(100_000))
    sent = numpy.arange(12.0).reshape(3, 4)
    array, plain, file, message, value = any_session.echo(
        sent, b"bytes\0", path, zks.message("parallel.zksmessages.TaskLimits", memory_bytes=5), {"a": [1, "b"]}
    )
    received = array.array()
    assert same_bits(received, sent)
    assert received.flags.c_contiguous and received.flags.writeable
    assert plain.bytes() == b"bytes\0"
    file.save(tmp_path / "received")
    assert (tmp_path / "received").read_bytes() == path.read_bytes()
    limits = message.message()
    assert limits.type_name == "parallel.zksmessages.TaskLimits"
    assert limits["memory_bytes"] == 5
    assert value.array() == {"a": [1, "b"]}


def test_shapes_and_orders_come_back_from_echo_as_sent(session):
    for sent in (
        numpy.float32(7), numpy.zeros(()), numpy.arange(5), numpy.zeros((5, 1)), numpy.zeros((1, 5)), numpy.zeros((2, 3, 1)),
        numpy.zeros((2, 3, 4), order="F"), numpy.zeros((2, 3, 4), order="C"), numpy.zeros((0,)), numpy.zeros((3, 0, 2)),
    ):  # fmt: skip
        (item,) = session.echo(sent)
        received = item.array()
        assert received.shape == sent.shape
        assert received.flags.c_contiguous == sent.flags.c_contiguous
        assert received.flags.f_contiguous == sent.flags.f_contiguous


def test_arrays_inside_lists_and_dicts_come_back_from_echo_as_sent(session):
    records = numpy.array([{"a": numpy.arange(2)}, {"a": numpy.zeros((1, 1))}], object)
    sent = {
        "vector": numpy.arange(3), "rows": numpy.arange(6.0).reshape(2, 3), "one": numpy.ones(1, "float32"), "number": 2.5,
        "list": [[numpy.zeros(()), numpy.float32(1)], (numpy.zeros((1, 1, 1)), "x", None)], "records": records,
        "characters": numpy.array(["a", "b"]), "row": numpy.array([["a", "\ud83d", "\ude00"]]), "nothing": {},
        "objects": numpy.array([[1, "x", None]], object), "deep": numpy.empty((0, 2), object),
    }  # fmt: skip

    def check(before, after):
        if isinstance(before, numpy.ndarray):
            assert (after.shape, after.dtype) == (before.shape, before.dtype)
            assert (after.flags.c_contiguous, after.flags.f_contiguous) == (
                before.flags.c_contiguous, before.flags.f_contiguous,
            )  # fmt: skip
            if before.dtype.kind == "O":
                check(before.ravel().tolist(), after.ravel().tolist())
            else:
                assert (after == before).all()
        elif isinstance(before, dict):
            assert list(after) == list(before)
            for key in before:
                check(before[key], after[key])
        elif isinstance(before, (list, tuple)):
            assert type(after) is list and len(after) == len(before)
            for pair in zip(before, after):
                check(*pair)
        else:
            assert after == before and type(after) is type(before)

    check(sent, session.echo(sent)[0].array())
    check([sent], session.echo([sent])[0].array())
    for value in (records, sent["characters"], sent["row"], sent["objects"], numpy.array([[{"a": 1}]], object)):
        check(value, session.echo(value)[0].array())


def test_invoke_gives_host_shapes_and_takes_wishes(session):
    request = zks.message("parallel.zksmessages.EchoRequest", items=[{"kind": "ITEM_KIND_ARRAY"}])
    sent = numpy.arange(6.0)
    assert session.invoke("echo", request, sent)[0].array().shape == (6, 1)
    assert session.invoke("echo", request, sent)[0].array(shape=-1).shape == (6,)
    matrix = session.invoke("echo", request, sent)[0].array(shape=(2, 3), order="C")
    assert matrix.flags.c_contiguous
    assert (matrix == sent.reshape((2, 3), order="F")).all()
    with pytest.raises(ValueError):
        session.invoke("echo", request, sent)[0].array(order="K")


def test_explicit_kinds_overrule_the_types(session, tmp_path):
    (tmp_path / "file").write_bytes(b"content")
    items = session.echo(
        zks.array(b"abc"), zks.plain(numpy.arange(3, dtype="uint8")), zks.plain(bytearray(b"x")),
        zks.file(str(tmp_path / "file")), zks.plain(memoryview(numpy.arange(2, dtype="int16"))),
    )  # fmt: skip
    assert items[0].array()[:, 0].tobytes() == b"abc"
    assert items[1].bytes() == b"\0\1\2"
    assert items[2].bytes() == b"x"
    items[3].save(tmp_path / "back")
    assert (tmp_path / "back").read_bytes() == b"content"
    assert items[4].bytes() == b"\0\0\1\0"


def test_items_can_be_read_in_any_order_and_each_once(any_session, tmp_path):
    sent = [numpy.full(1000, 1.0), b"two", numpy.full((3, 3), 3, "int8"), zks.message("parallel.zksmessages.Missing")]
    first, second, third, fourth = any_session.echo(*sent)
    assert fourth.message().type_name == "parallel.zksmessages.Missing"
    assert second.bytes() == b"two"
    assert (third.array() == 3).all()
    assert (first.array() == 1).all()
    for item in (first, second, third):
        with pytest.raises(zks.Error) as caught:
            item.array()
        assert caught.value.identifier == "parallel:python:ItemAlreadyRead"


def test_skipped_messages_and_files_are_kept_too(session, tmp_path):
    (tmp_path / "sent").write_bytes(b"f" * 70_000)
    message, file, last = session.echo(
        zks.message("parallel.zksmessages.TaskLimits", open_files=3), tmp_path / "sent", b"last"
    )
    assert last.bytes() == b"last"
    assert message.message()["open_files"] == 3
    file.save(tmp_path / "back")
    assert (tmp_path / "back").read_bytes() == b"f" * 70_000


def test_a_reply_that_nobody_reads_does_no_harm(any_session):
    any_session.echo(numpy.zeros(1 << 20))
    assert any_session.echo(b"next")[0].bytes() == b"next"


def test_run_takes_files_there_and_brings_outputs_back(any_session, tmp_path):
    (tmp_path / "in.txt").write_text("hello\n")
    result = any_session.run(
        ["sh", "-c", 'tr a-z A-Z <in.txt >out.txt; echo "$GREETING"; echo err >&2'],
        files=[tmp_path / "in.txt"], outputs=["out.txt"], environment={"GREETING": "hi"},
    )  # fmt: skip
    assert result.ok
    assert (result.outcome, result.exit_status, result.signal) == ("exited", 0, None)
    assert (result.stdout, result.stderr) == (b"hi\n", b"err\n")
    result.outputs["out.txt"].save(tmp_path / "out.txt")
    assert (tmp_path / "out.txt").read_text() == "HELLO\n"
    assert result.wall_time > 0
    assert result.peak_memory_bytes > 0


def test_run_says_how_a_task_ended(session, tmp_path):
    missing = session.run(["false"], outputs=["never"])
    assert (missing.outcome, missing.exit_status, missing.missing_outputs, dict(missing.outputs)) == (
        "exited", 1, ("never",), {},
    )  # fmt: skip
    assert not missing.ok
    killed = session.run(["sh", "-c", "kill -9 $$"])
    assert (killed.outcome, killed.signal) == ("signalled", signal.SIGKILL)
    assert session.run(["sleep", "1000"], timeout=0.05).outcome == "timed_out"
    nowhere = session.run(["/no/such/program"])
    assert nowhere.outcome == "not_started"
    assert nowhere.message
    (tmp_path / "data").write_text("x")
    renamed = session.run(["cat", "other"], files={"other": tmp_path / "data"})
    assert renamed.stdout == b"x"
    with pytest.raises(TypeError, match="argv is a sequence"):
        session.run("echo")
    with pytest.raises(ValueError, match="two files"):
        session.run(["true"], files=["/a/data", "/b/data"])


def test_run_feeds_the_standard_input(any_session, tmp_path):
    (tmp_path / "words").write_bytes(b"b\na\n")
    for stdin in (b"b\na\n", "b\na\n", bytearray(b"b\na\n"), memoryview(b"b\na\n"), tmp_path / "words"):
        assert any_session.run(["sort"], stdin=stdin, files=[tmp_path / "words"]).stdout == b"a\nb\n"
    assert any_session.run(["cat"], stdin=b"").stdout == any_session.run(["cat"]).stdout == b""
    with pytest.raises(TypeError, match="stdin is bytes"):
        any_session.run(["cat"], stdin=["a"])


def test_run_gives_text_where_it_is_wanted(session):
    task = session.run(["sh", "-c", "printf 'ä\\377'; echo err >&2"], text=True)
    assert (task.stdout, task.stderr) == ("ä\ufffd", "err\n")


def test_run_saves_outputs_in_a_directory(any_session, tmp_path):
    task = any_session.run(["sh", "-c", "echo a >a; echo b >b"], outputs=["a", "b", "c"], to=tmp_path)
    assert {path.name: path.read_text() for path in tmp_path.iterdir()} == {"a": "a\n", "b": "b\n"}
    assert task.missing_outputs == ("c",)
    assert repr(task.outputs["a"]).endswith(": saved>")
    with pytest.raises(ValueError, match="to is a directory, and .*nowhere' is none"):
        any_session.run(["true"], to=tmp_path / "nowhere")


def test_programs_that_a_task_makes_can_be_run(any_session, tmp_path):
    task = any_session.run(
        ["sh", "-c", "printf '#!/bin/sh\\necho ran\\n' >prog; echo x >data; chmod +x prog"], outputs=["data", "prog"], to=tmp_path
    )
    assert task.executable_outputs == ("prog",)
    assert not os.access(tmp_path / "data", os.X_OK)
    assert subprocess.run([tmp_path / "prog"], capture_output=True).stdout == b"ran\n"


def test_folders_go_there_and_come_back(any_session, tmp_path):
    (tmp_path / "in" / "sub" / "empty").mkdir(parents=True)
    (tmp_path / "in" / "sub" / "tool").write_text("#!/bin/sh\nmkdir made; cp -r in made\n")
    (tmp_path / "in" / "sub" / "tool").chmod(0o755)
    (tmp_path / "in" / "data").write_text("x")
    task = any_session.run(["in/sub/tool"], files=[f"{tmp_path}/in/"], outputs=["made"])
    assert task.ok, task.stderr
    assert task.output_folders == ("made", "made/in", "made/in/sub", "made/in/sub/empty")
    assert list(task.outputs) == ["made/in/data", "made/in/sub/tool"]
    task.outputs["made/in/sub/tool"].save(tmp_path / "tool")
    assert os.access(tmp_path / "tool", os.X_OK)
    (tmp_path / "made").mkdir()
    (tmp_path / "made" / "kept").write_text("kept")
    any_session.run(["in/sub/tool"], files={"in": tmp_path / "in"}, outputs=["made"], to=tmp_path, check=True)
    found = {str(path.relative_to(tmp_path / "made")) for path in (tmp_path / "made").rglob("*")}
    assert found == {"kept", "in", "in/data", "in/sub", "in/sub/tool", "in/sub/empty"}
    assert not os.access(tmp_path / "made" / "in" / "data", os.X_OK)


def test_a_folder_that_cannot_be_sent_is_named(session, tmp_path):
    (tmp_path / "link").symlink_to("/")
    with pytest.raises(zks.Error, match="link.* cannot be sent: it is a link to a folder"):
        session.run(["true"], files={"d": tmp_path})


def test_a_task_is_true_when_all_went_well(session):
    assert session.run(["true"])
    assert not session.run(["false"])
    assert not session.run(["true"], outputs=["never"])


@pytest.mark.parametrize(
    "options, told",
    [
        ({"argv": ["sh", "-c", "echo first >&2; echo last >&2; exit 3"]}, "The task 'sh' exited with status 3: last"),
        ({"argv": ["sh", "-c", "kill -9 $$"]}, "The task 'sh' was ended by SIGKILL"),
        ({"argv": ["sleep", "1000"], "timeout": 0.05}, "The task 'sleep' was ended when its time was over"),
        ({"argv": ["/no/such"], "text": True}, "The task '/no/such' could not be started: "),
        ({"argv": ["true"], "outputs": ["a", "b"]}, "The task 'true' did not make 'a', 'b'"),
        ({"argv": ["ln", "-s", "/", "a"], "outputs": ["a"]}, "The task 'ln' left 'a', which cannot be brought back: it is a "),
    ],
)
def test_check_raises_when_a_task_does_not_go_well(session, options, told):
    with pytest.raises(zks.TaskFailed) as caught:
        session.run(check=True, **options)
    assert str(caught.value).startswith(told)
    assert isinstance(caught.value, zks.Error)
    assert not caught.value.task
    twin = pickle.loads(pickle.dumps(caught.value))
    assert (str(twin), twin.task.outcome) == (str(caught.value), caught.value.task.outcome)
    assert session.run(["true"], check=True)


def test_results_can_be_pickled_and_unsaved_outputs_stay_behind(session, tmp_path):
    task = session.run(["sh", "-c", "echo x >out; echo said"], outputs=["out"])
    twin = pickle.loads(pickle.dumps(task))
    assert (twin.stdout, twin.ok, twin.wall_time) == (b"said\n", True, task.wall_time)
    assert repr(twin.outputs["out"]) == repr(task.outputs["out"])
    with pytest.raises(zks.Error, match="stayed in the process"):
        twin.outputs["out"].save(tmp_path / "out")
    with pytest.raises(zks.Error, match="stayed in the process"):
        twin.outputs["out"].bytes_async().result(60)
    task.outputs["out"].save(tmp_path / "out")
    assert (tmp_path / "out").read_text() == "x\n"
    message = session.echo(zks.message("parallel.zksmessages.TaskLimits", open_files=3))[0].message()
    assert pickle.loads(pickle.dumps(message)) == message


def test_outputs_that_cannot_be_brought_back_are_told(session):
    task = session.run(["sh", "-c", "ln -s / link; mkdir d; ln -s / d/inside; echo x >d/x"], outputs=["link", "none", "d"])
    assert task.missing_outputs == ("link", "none", "d/inside")
    told = "it is a symbolic link, and only regular files can be returned"
    assert dict(task.unusable_outputs) == {"link": told, "d/inside": told}
    assert task.outputs["d/x"].bytes() == b"x\n"


def test_files_that_are_known_to_be_such_can_be_read_as_bytes(any_session, tmp_path):
    content = os.urandom(200_000)
    (tmp_path / "sent").write_bytes(content)
    first, file, last = any_session.echo(b"first", tmp_path / "sent", zks.file(tmp_path / "sent"))
    assert last.bytes() == content, "read before its turn"
    assert file.bytes() == content
    assert first.bytes() == b"first"
    task = any_session.run(["cp", "sent", "made"], files=[tmp_path / "sent"], outputs=["made", "sent"])
    assert task.outputs["sent"].bytes() == content
    assert task.outputs["made"].bytes_async().result(60) == content


def test_plain_bytes_of_border_sizes_come_back(any_session):
    for nbytes in (0, 1, 32758, 32759, 32760, 32767, 70_000, 3_000_000):
        sent = os.urandom(nbytes)
        early, late = any_session.echo(sent, sent)
        assert late.bytes() == sent
        assert early.bytes() == sent


def test_some_outputs_missing_leaves_the_others_readable(session, tmp_path):
    result = session.run(["sh", "-c", "echo b >b"], outputs=["a", "b", "c"])
    assert result.missing_outputs == ("a", "c")
    result.outputs["b"].save(tmp_path / "b")
    assert (tmp_path / "b").read_text() == "b\n"


# --- Saving ---


def test_a_file_that_cannot_be_made_is_named_and_the_item_stays(session, tmp_path):
    (item,) = session.echo(b"x")
    (tmp_path / "file").write_text("old")
    for place, told in (
        (tmp_path / "none" / "x", "No such file or directory"), (tmp_path, "it is a directory"), ("", "it names no file"),
        (tmp_path / "file" / "x", "directory"),
    ):  # fmt: skip
        with pytest.raises(zks.Error, match=told) as caught:
            item.save(place)
        assert caught.value.identifier.startswith("parallel:toolbox:CannotWrite")
    assert item.bytes() == b"x"


def test_a_file_is_replaced_by_a_whole_one_only(session, tmp_path):
    place = tmp_path / os.fsdecode(b"caf\xe9")
    place.write_text("old")
    sent = tmp_path / "sent"
    sent.write_bytes(b"x" * 200_000)
    unlimited = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, unlimited[1]))
    try:
        with pytest.raises(zks.Error, match="File too large") as caught:
            session.echo(sent)[0].save(place)
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, unlimited)
    assert caught.value.identifier == "parallel:toolbox:CannotWriteFile"
    assert place.read_text() == "old"
    session.echo(sent)[0].save(place)
    assert place.read_bytes() == sent.read_bytes()
    assert set(tmp_path.iterdir()) == {place, sent}


def test_what_is_no_file_is_written_to_and_stays(session, tmp_path):
    os.mkfifo(tmp_path / "pipe")
    (tmp_path / "sent").write_bytes(b"content")
    with concurrent.futures.ThreadPoolExecutor(1) as reader:
        read = reader.submit((tmp_path / "pipe").read_bytes)
        session.echo(tmp_path / "sent")[0].save(tmp_path / "pipe")
        assert read.result(60) == b"content"
    assert (tmp_path / "pipe").is_fifo()


def test_a_file_that_the_host_cannot_name_is_refused(session, tmp_path):
    path = tmp_path / os.fsdecode(b"caf\xe9")
    path.write_text("x")
    with pytest.raises(zks.Error, match="its name is not UTF-8"):
        session.echo(path)


# --- Futures ---


def echo_request(kinds):
    return zks.message("parallel.zksmessages.EchoRequest", items=[{"kind": kind} for kind in kinds])


ARRAY_REQUEST = echo_request(["ITEM_KIND_ARRAY"])


def test_invoke_async_gives_a_true_future(any_session):
    future = any_session.invoke_async("echo", ARRAY_REQUEST, numpy.arange(4.0))
    assert isinstance(future, concurrent.futures.Future)
    (item,) = future.result(60)
    assert item.array()[:, 0].tolist() == [0, 1, 2, 3]
    assert future.done() and not future.cancelled()


def test_many_futures_at_once(session):
    futures = {session.invoke_async("echo", ARRAY_REQUEST, numpy.full(1000, n)): n for n in range(50)}
    for future in concurrent.futures.as_completed(futures, 60):
        assert (future.result()[0].array() == futures[future]).all()


def test_futures_work_under_asyncio(session):
    async def main():
        calls = [session.invoke_async("echo", ARRAY_REQUEST, numpy.full(10, n)) for n in range(5)]
        return await asyncio.gather(*map(asyncio.wrap_future, calls))

    for number, (item,) in enumerate(asyncio.run(main())):
        assert (item.array() == number).all()


def test_futures_and_sessions_work_in_async_code(daemon):
    async def main():
        async with zks.connect_async(daemon) as session:
            (item,) = await session.echo_async(b"x")
            assert await item.bytes_async() == b"x"
            assert await asyncio.gather(*(asyncio.ensure_future(i.bytes_async()) for i in await session.echo_async(b"y")))
            with pytest.raises(zks.Error, match="no such method"):
                await session.invoke_async("no such method")
            sleeping = session.run_async(["sleep", "1000"])
            with pytest.raises(asyncio.TimeoutError):
                await asyncio.wait_for(sleeping, 0.01)
            with pytest.raises(concurrent.futures.CancelledError):
                sleeping.result(60)
        assert session.closed
        async with await zks.connect_async() as embedded:
            assert not embedded.closed
        assert embedded.closed

    asyncio.run(main())


def test_an_error_arrives_through_the_future(session):
    future = session.invoke_async("no such method")
    with pytest.raises(zks.Error) as caught:
        future.result(60)
    assert "no such method" in str(caught.value)


def test_cancelling_a_future_stops_the_call(session, tmp_path):
    future = session.invoke_async("runTask", sleeping_task())
    assert future.cancel()
    with pytest.raises(concurrent.futures.CancelledError):
        future.result(60)
    assert session.echo(b"next")[0].bytes() == b"next"


def test_a_cancelled_future_frees_its_thread(session):
    stuck = [session.invoke_async("runTask", sleeping_task()) for _ in range(40)]
    for future in stuck:
        assert future.cancel()
    future = session.invoke_async("echo", ARRAY_REQUEST, numpy.zeros(3))
    assert future.result(60)[0].array().shape == (3, 1)


def test_calls_under_way_when_the_session_is_closed_say_so(any_session, tmp_path):
    started = tmp_path / "started"
    future = any_session.invoke_async("runTask", sleeping_task(started))
    wait_until(started.exists)
    any_session.close()
    with pytest.raises(zks.Terminated) as caught:
        future.result(60)
    assert caught.value.identifier == "parallel:python:SessionClosed"


def test_futures_give_back_their_arrays(session):
    import weakref

    class Watched(numpy.ndarray):
        pass

    value = numpy.zeros(10).view(Watched)
    watch = weakref.ref(value)
    future = session.invoke_async("echo", ARRAY_REQUEST, value)
    future.result(60)[0].array()
    del value
    import gc
    from zks import _bridge

    gc.collect()
    _bridge.run_deferred()
    assert watch() is None


@pytest.mark.parametrize("cls, waiting", [(zks, ["connect"]), (zks.Session, ["invoke", "echo", "run"]),
                                          (zks.ReplyItem, ["array", "message", "bytes", "save"])])  # fmt: skip
def test_everything_that_waits_has_a_twin_that_does_not(cls, waiting):
    for name in waiting:
        plain = list(inspect.signature(getattr(cls, name)).parameters)
        assert list(inspect.signature(getattr(cls, f"{name}_async")).parameters) == plain
        assert len(plain) > 1 or name in ("message", "bytes")
    public = {name for name in vars(cls) if not name.startswith("_")}
    assert {name.removesuffix("_async") for name in public if name.endswith("_async")} == set(waiting)


def test_the_twins_give_what_the_others_give(any_session, tmp_path):
    sent = numpy.arange(12.0).reshape(3, 4)
    message = zks.message("parallel.zksmessages.TaskLimits", open_files=3)

    async def main():
        wrap = asyncio.wrap_future
        items = await wrap(any_session.echo_async(sent, b"bytes", message))
        array = await wrap(items[0].array_async())
        flat = await wrap((await wrap(any_session.echo_async(sent)))[0].array_async(shape=-1))
        assert same_bits(array, sent)
        assert (flat == sent.ravel(order="F")).all()
        assert await wrap(items[1].bytes_async()) == b"bytes"
        assert (await wrap(items[2].message_async()))["open_files"] == 3
        task = await wrap(any_session.run_async(["sh", "-c", "echo hi >out"], outputs=["out"], timeout=60))
        assert task.ok
        await wrap(task.outputs["out"].save_async(tmp_path / "out"))

    asyncio.run(main())
    assert (tmp_path / "out").read_text() == "hi\n"


def test_the_twins_tell_wrong_arguments_at_once(session):
    with pytest.raises(TypeError, match="unexpected keyword argument 'tmieout'"):
        session.run_async(["true"], tmieout=3)
    with pytest.raises(TypeError, match="float16"):
        session.echo_async(numpy.zeros(1, "float16"))
    with pytest.raises(ValueError, match="order"):
        session.echo(b"x")[0].array_async(order="K")


def test_cancelling_under_asyncio_ends_the_command_at_the_service(any_session, tmp_path):
    written = tmp_path / "pid"

    async def main():
        script = f"echo $$ >{written}.new; mv {written}.new {written}; exec sleep 1000"
        task = asyncio.ensure_future(asyncio.wrap_future(any_session.run_async(["sh", "-c", script])))
        while not written.exists():
            await asyncio.sleep(0.01)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task

    asyncio.run(main())
    process = pathlib.Path(f"/proc/{int(written.read_text())}")
    wait_until(lambda: not process.exists())


def test_an_item_s_future_outlives_the_session():
    with zks.connect() as session:
        first, second, third = session.echo(b"one", b"two", b"three")
        assert second.bytes() == b"two"
    assert first.bytes_async().result(0) == b"one"
    with pytest.raises(zks.Terminated):
        third.bytes_async().result(0)


# --- Threads ---


def test_threads_share_a_session(any_session):
    def work(number):
        for _ in range(5):
            (item,) = any_session.echo(numpy.full(5000, number))
            assert (item.array() == number).all()
        return number

    with concurrent.futures.ThreadPoolExecutor(8) as threads:
        assert sorted(threads.map(work, range(8))) == list(range(8))


def test_other_threads_run_while_a_call_waits(session):
    future = session.invoke_async("runTask", sleeping_task())
    assert session.echo(b"x")[0].bytes() == b"x"
    counted = []
    thread = threading.Thread(target=lambda: counted.extend(range(1000)))
    thread.start()
    thread.join(60)
    assert len(counted) == 1000
    future.cancel()


# --- The life of a session ---


def test_a_closed_session_says_so():
    session = zks.connect()
    assert not session.closed
    session.close()
    session.close()
    assert session.closed
    for call in (lambda: session.echo(b"x"), lambda: session.invoke("echo"), lambda: session.invoke_async("echo")):
        with pytest.raises(zks.Terminated, match="The session with the embedded service was closed") as caught:
            call()
        assert caught.value.identifier == "parallel:python:SessionClosed"


def test_items_read_after_the_session_s_end_say_that_it_was_closed(any_session):
    items = any_session.echo(b"one", numpy.zeros(1 << 20), zks.message("parallel.zksmessages.Missing"), b"four")
    assert items[1].array().shape == (1 << 20,)
    any_session.close()
    assert items[0].bytes() == b"one", "it was in memory"
    for read in (items[2].message, items[3].bytes, lambda: items[3].save("/dev/null"), items[3].bytes_async().result):
        with pytest.raises(zks.Terminated) as caught:
            read()
        assert caught.value.identifier == "parallel:python:SessionClosed"
        assert any_session.name in str(caught.value)


def test_a_download_under_way_when_the_session_is_closed_says_so(tmp_path):
    process, address = start_daemon(tmp_path)
    session = zks.connect(address)
    items = session.echo(bytes(32 << 20), b"after it")
    process.send_signal(signal.SIGSTOP)
    os.waitpid(process.pid, os.WUNTRACED)
    reading = concurrent.futures.ThreadPoolExecutor(1)
    future = reading.submit(items[0].bytes)
    wait_until(lambda: future.running())
    session.close()
    process.send_signal(signal.SIGCONT)
    with pytest.raises(zks.Terminated) as caught:
        future.result(60)
    assert caught.value.identifier == "parallel:python:SessionClosed"
    reading.shutdown()
    stop_daemon(process)


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_closing_does_not_wait_for_a_reply_that_nobody_finishes(where, request):
    session = zks.connect(request.getfixturevalue("daemon") if where == "daemon" else None)
    first, second, third = session.echo(b"one", b"two" * 500_000, numpy.zeros(1 << 20))
    (broken,) = session.echo(b"no array")
    with pytest.raises(zks.Error):
        broken.array()
    assert first.bytes() == b"one"
    session.close()
    with pytest.raises(zks.Terminated):
        second.bytes()


def test_closing_keeps_items_that_are_in_memory():
    session = zks.connect()
    first, second, third = session.echo(b"one", b"two", b"three")
    assert second.bytes() == b"two"
    session.close()
    assert first.bytes() == b"one"
    with pytest.raises(zks.Terminated):
        third.bytes()


def test_a_forgotten_session_warns_and_ends():
    with pytest.warns(ResourceWarning, match="unclosed"):
        zks.connect()


def test_a_service_that_goes_away_is_told_as_terminated(tmp_path):
    process, address = start_daemon(tmp_path)
    with zks.connect(address) as session:
        session.echo(b"x")[0].bytes()
        future = session.invoke_async("runTask", sleeping_task())
        stop_daemon(process)
        with pytest.raises(zks.Terminated):
            future.result(60)
        with pytest.raises(zks.Terminated):
            session.echo(b"x")


def test_a_service_that_dies_in_a_reply_is_told_as_terminated(tmp_path):
    process, address = start_daemon(tmp_path)
    with zks.connect(address) as session:
        first, second = session.echo(b"first", bytes(50_000_000))
        assert first.bytes() == b"first"
        process.kill()
        stop_daemon(process)
        with pytest.raises(zks.Terminated) as caught:
            second.bytes()
        assert caught.value.identifier == "parallel:toolbox:ReplyItemFailed"
        assert address in caught.value.causes[0].text


def test_a_reply_that_pauses_for_too_long_is_told_as_a_timeout(tmp_path):
    process, address = start_daemon(tmp_path)
    with zks.connect(address, idle_timeout=0.1) as session:
        (item,) = session.echo(bytes(50_000_000))
        process.send_signal(signal.SIGSTOP)
        with pytest.raises(zks.Timeout):
            item.bytes()
        process.send_signal(signal.SIGCONT)
    stop_daemon(process)


def test_repr_is_one_line_and_makes_no_call(any_session):
    (item,) = any_session.echo(b"x")
    for shown in (any_session, item, zks.plain(b"x"), any_session.run(["true"]), zks.message("a.B", x=1)):
        assert "\n" not in repr(shown)
        assert len(repr(shown)) < 200
    assert "open" in repr(any_session)
    assert "not read" in repr(item)
    assert any_session._repr_html_().startswith("<code>&lt;zks session")
    assert "&lt;" in item._repr_html_()
    any_session.close()
    assert "closed" in repr(any_session)


# --- Fork ---


def in_fork(work):
    """What `work` returns in a forked child, as text; the child gets a minute."""
    read_end, write_end = os.pipe()
    child = os.fork()
    if child == 0:
        signal.alarm(60)
        try:
            answer = str(work())
        except BaseException as error:
            answer = f"{type(error).__name__}: {error}"
        os.write(write_end, answer.encode())
        os._exit(0)
    os.close(write_end)
    with os.fdopen(read_end, "rb") as answer:
        text = answer.read().decode()
    assert os.waitpid(child, 0)[1] == 0
    return text


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_a_forked_child_is_told_that_the_session_is_not_its_own(where, request):
    address = request.getfixturevalue("daemon") if where == "daemon" else None
    with zks.connect(address) as session:
        (unread,) = session.echo(b"unread")
        session.invoke_async("echo", ARRAY_REQUEST, numpy.zeros(3)).result(60)[0].array()
        text = in_fork(lambda: session.echo(b"child"))
        assert text.startswith("Error") and str(os.getpid()) in text
        text = in_fork(lambda: session.invoke_async("echo", ARRAY_REQUEST, 1))
        assert text.startswith("Error") and "forked" in text
        assert in_fork(session.close) == "None"
        assert session.echo(b"parent")[0].bytes() == b"parent"
        assert unread.bytes() == b"unread"


def test_a_forked_child_can_have_a_session_of_its_own(session):
    def work():
        with zks.connect() as own:
            return own.echo(b"child")[0].bytes()

    assert session.echo(b"x")[0].bytes() == b"x"
    assert in_fork(work) == "b'child'"


def test_a_forked_child_whose_parent_used_sockets_gets_a_clear_error(daemon):
    with zks.connect(daemon) as session:
        session.echo(b"x")[0].bytes()
    text = in_fork(lambda: zks.connect(daemon))
    assert "spawn" in text


def test_a_child_that_ends_the_ordinary_way_does_not_hang(daemon):
    code = """
import os, sys, zks
session = zks.connect(sys.argv[1] or None)
session.echo(b"x")[0].bytes()
child = os.fork()
if child == 0:
    sys.exit(7)
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
session.close()
"""
    for address in ("", daemon):
        done = run_python(code, address)
        assert done.stdout == "7\n", done.stderr


# --- The end of the interpreter ---


@pytest.mark.parametrize("where", ["embedded", "daemon"])
def test_the_interpreter_ends_with_everything_still_open(where, request):
    address = request.getfixturevalue("daemon") if where == "daemon" else ""
    code = """
import sys, numpy, zks
session = zks.connect(sys.argv[1] or None)
request = zks.message("parallel.zksmessages.EchoRequest", items=[{"kind": "ITEM_KIND_ARRAY"}])
array = session.echo(numpy.zeros(1000))[0].array()
unread = session.echo(numpy.zeros(1 << 20), b"x")
future = session.invoke_async("runTask", zks.message("parallel.zksmessages.TaskDescription", argv=["sleep", "1000"]))
item = zks.host.parallel.internal.cluster.SerializableData.createQxArray(numpy.zeros(1000))
print("end")
"""
    done = run_python(code, address)
    assert (done.returncode, done.stdout) == (0, "end\n"), done.stderr


def test_larger_reply_than_allowed_fails_its_call_naming_size_limit_and_option(daemon):
    with zks.connect(daemon, max_reply=1000) as session:
        with pytest.raises(zks.Error, match=r"at most 1000 are allowed: see max_reply of zks\.connect"):
            session.echo(b"x" * 2000)
        (item,) = session.echo(b"x" * 100)
        assert item.bytes() == b"x" * 100
