"""Operations that return a future, under threads and under asyncio."""

import asyncio
import concurrent.futures
import inspect
import pathlib

import numpy
import pytest

import zks
from conftest import ARRAY_REQUEST, sleeping_task, wait_until
from test_arrays import same_bits


USES_DAEMON = True


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
