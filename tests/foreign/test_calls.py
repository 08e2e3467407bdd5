"""Calls by stock gRPC and hand-written frames, and how their errors are read."""

import pathlib
import random
import subprocess
import sys
import threading
import time

import grpc
import jobs_pb2 as jobs
import pytest
import transport_pb2 as wire
import zksmessages_pb2 as messages
from foreign_wire import Conversation, RemoteError, call_frames, container, echo_request, framed, items_of, plain_of

PLAIN, FILE, ARRAY, PROTOBUF = (
    messages.ITEM_KIND_PLAIN,
    messages.ITEM_KIND_FILE,
    messages.ITEM_KIND_ARRAY,
    messages.ITEM_KIND_PROTOBUF,
)
MIB = 1 << 20


def pattern(nbytes):
    return random.Random(nbytes).randbytes(nbytes)


def test_documented_request_gets_the_documented_reply_to_the_byte(conversation):
    request = bytes.fromhex(
        "00 00000003  000A 0A04 0803 1003 0A02 0804 FFFF  0003 616263 FFFF  0004 66696C65 FFFF"
    )
    assert echo_request((PLAIN, b"abc"), (FILE, b"file")) == request
    reply = conversation.call("echo", request)
    assert reply == bytes.fromhex("00 00000002  0008 0000000000000003 0003 616263 FFFF  0004 66696C65 FFFF")


def test_every_kind_of_item_comes_back(conversation):
    sent = [(PLAIN, b"abc"), (FILE, b""), (ARRAY, b"any bytes"), (PROTOBUF, b"\x0a\x01x"), (PLAIN, b"")]
    found = items_of(conversation.call("echo", echo_request(*sent)))
    assert [plain_of(found[0]), *found[1:4], plain_of(found[4])] == [content for _, content in sent]


@pytest.mark.parametrize("nbytes", [0, 1, 32766, 32767, 32768, MIB - 1, MIB, 5 * MIB + 1])
def test_items_of_many_sizes_come_back(conversation, nbytes):
    data = pattern(nbytes)
    (found,) = items_of(conversation.call("echo", echo_request((PLAIN, data))))
    assert plain_of(found) == data


def test_reply_arrives_while_the_request_is_still_sent(conversation):
    data = pattern(48 * MIB)
    conversation.start(call_frames("echo", echo_request((FILE, data))))
    head, reply = conversation.reply()
    assert head.size == len(reply)
    assert items_of(reply) == [data]


def test_several_calls_share_one_stream(conversation):
    for nbytes in [3, 3 * MIB, 0, 100_000]:
        data = pattern(nbytes)
        assert items_of(conversation.call("echo", echo_request((FILE, data)))) == [data]


def test_whole_call_in_one_frame(conversation):
    request = echo_request((FILE, b"small"))
    head = wire.CallHead(protocol_version=1, method="echo", size=len(request))
    conversation.start([wire.Frame(call=head, data=request, end=True)])
    assert items_of(conversation.reply()[1]) == [b"small"]


@pytest.mark.parametrize("frame_bytes", [1, 7, 4096])
def test_frames_are_cut_anywhere_and_blocks_have_any_length(conversation, frame_bytes):
    data = pattern(40 * frame_bytes)
    request = echo_request((FILE, data), block=5)
    assert items_of(conversation.call("echo", request, frame_bytes=frame_bytes)) == [data]


def test_size_is_announced_only_when_the_caller_announced_its_own(conversation):
    request = echo_request((FILE, b"x"))
    conversation.start(call_frames("echo", request, size=False))
    assert not conversation.reply()[0].HasField("size")
    conversation.start(call_frames("echo", request))
    assert conversation.reply()[0].size == len(container(framed(b"x")))


def test_many_streams_at_once(stub):
    failures = []

    def run(seed):
        try:
            conversation = Conversation(stub)
            data = pattern(MIB + seed)
            assert items_of(conversation.call("echo", echo_request((FILE, data)))) == [data]
            conversation.half_close()
            assert conversation.stream.code() == grpc.StatusCode.OK
        except BaseException as error:  # reported by the test's own thread
            failures.append(error)

    threads = [threading.Thread(target=run, args=(seed,)) for seed in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not failures


def test_task_runs(conversation):
    task = messages.TaskDescription(argv=["sort", "in"], input_files=["in"])
    request = container(framed(task.SerializeToString()), framed(b"b\na\n"))
    result, out, err = items_of(conversation.call("runTask", request))
    payload = messages.ResultPayload.FromString(result)
    assert payload.result.type_url == "type.googleapis.com/parallel.zksmessages.TesselTaskExecutionInfo"
    info = messages.TesselTaskExecutionInfo.FromString(payload.result.value)
    assert (info.outcome, info.exit_status) == (messages.TesselTaskExecutionInfo.OUTCOME_EXITED, 0)
    assert (plain_of(out), plain_of(err)) == (b"a\nb\n", b"")


def test_job_is_submitted_and_described(conversation):
    def ask(method, request, reply):
        (item,) = items_of(conversation.call(method, container(framed(request.SerializeToString()))))
        payload = messages.ResultPayload.FromString(item)
        assert payload.result.type_url == "type.googleapis.com/" + reply.DESCRIPTOR.full_name
        return reply.FromString(payload.result.value)

    description = jobs.JobDescription(name="sorting", arrays=[{"count": 2, "command": {"argv": ["sort"]}}])
    submission = jobs.SubmitJobRequest(key="one", job=description)
    first = ask("submitJob", submission, jobs.SubmitJobReply)
    again = ask("submitJob", submission, jobs.SubmitJobReply)
    assert (first.job, first.is_repeat, again.job, again.is_repeat) == (1, False, 1, True)
    described = ask("describeJob", jobs.JobRequest(job=1), jobs.DescribeJobReply)
    assert described.description == description
    assert described.summary.counts.ready == 2


def test_unknown_method_is_an_error_chain_and_the_stream_goes_on(conversation):
    with pytest.raises(RemoteError) as raised:
        conversation.call("no such", b"")
    (level,) = raised.value.levels
    assert level.kind == wire.ErrorChain.Level.FRAMEWORK
    for word in (b"no such", b"echo", b"runTask"):
        assert word in level.text
    assert items_of(conversation.call("echo", echo_request((FILE, b"still here")))) == [b"still here"]


def test_identified_error_names_its_component_and_name(conversation):
    with pytest.raises(RemoteError) as raised:
        conversation.call("echo", container())
    level = raised.value.levels[0]
    assert level.kind == wire.ErrorChain.Level.IDENTIFIED
    assert (level.component, level.name) == ("parallel:scheduler", "WrongItemCount")
    assert level.text


@pytest.mark.parametrize(
    "method, request_bytes, code",
    [("no such", b"", grpc.StatusCode.FAILED_PRECONDITION), ("echo", container(), grpc.StatusCode.UNKNOWN)],
)
def test_half_close_after_an_error_gives_its_short_form_as_status(stub, method, request_bytes, code):
    stream = stub.Converse(call_frames(method, request_bytes), timeout=60)
    levels = []
    with pytest.raises(grpc.RpcError) as raised:
        for frame in stream:
            levels += frame.error.levels
    assert raised.value.code() == code
    assert levels[0].text.decode() in raised.value.details()


def test_half_close_after_a_good_reply_ends_well(stub):
    stream = stub.Converse(call_frames("echo", echo_request((FILE, b"x"))), timeout=60)
    assert b"".join(frame.data for frame in stream) == container(framed(b"x"))
    assert stream.code() == grpc.StatusCode.OK


def test_frame_outside_a_call_breaks_the_stream_off_with_a_reason(stub):
    stream = stub.Converse(iter([wire.Frame(data=b"x")]), timeout=60)
    with pytest.raises(grpc.RpcError) as raised:
        list(stream)
    assert raised.value.code() == grpc.StatusCode.INVALID_ARGUMENT
    assert "outside any call" in raised.value.details()


def test_other_protocol_version_is_refused_naming_both(conversation):
    head = wire.CallHead(protocol_version=99, method="echo")
    conversation.start([wire.Frame(call=head, end=True)])
    with pytest.raises(RemoteError, match="99.*1"):
        conversation.reply()


def test_call_of_a_task_that_never_ends_can_be_cancelled(stub, tmp_path):
    pid_file = tmp_path / "pid"
    task = messages.TaskDescription(argv=["sh", "-c", f"echo $$ >{pid_file}.new; mv {pid_file}.new {pid_file}; sleep 600"])
    conversation = Conversation(stub)
    conversation.start(call_frames("runTask", container(framed(task.SerializeToString()))))
    deadline = time.monotonic() + 60
    while not pid_file.exists():
        assert time.monotonic() < deadline
        threading.Event().wait(0.01)
    process = pathlib.Path("/proc") / pid_file.read_text().strip()
    assert process.exists()
    conversation.stream.cancel()
    while process.exists():
        assert time.monotonic() < deadline
        threading.Event().wait(0.01)


def test_example_prints_what_it_got(address):
    example = pathlib.Path(__file__).parents[2] / "examples" / "foreign_client.py"
    printed = subprocess.run([sys.executable, example, address], capture_output=True, text=True, check=True, timeout=60)
    assert printed.stdout == "00 00 00 00 01 00 08 00 00 00 00 00 00 00 05 00 05 68 65 6c 6c 6f ff ff\n"
