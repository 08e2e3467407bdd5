"""Health checking and reflection, as stock tools ask for them."""

import grpc
import health_pb2
import health_pb2_grpc
import pytest
import reflection_pb2
import reflection_pb2_grpc
from conftest import start_daemon, stop_daemon
from foreign_wire import DEADLINE
from google.protobuf import descriptor_pb2, descriptor_pool, message_factory

Status = health_pb2.HealthCheckResponse
TRANSPORT = "agent.spf.v1.Transport"


def health_request(service):
    return health_pb2.HealthCheckRequest(service=service)


@pytest.fixture
def health(channel):
    return health_pb2_grpc.HealthStub(channel)


@pytest.mark.parametrize("service", ["", TRANSPORT])
def test_service_is_healthy(health, service):
    assert health.Check(health_request(service), timeout=DEADLINE).status == Status.SERVING


def test_check_of_an_unknown_service_is_not_found(health):
    with pytest.raises(grpc.RpcError) as raised:
        health.Check(health_request("no.Such"), timeout=DEADLINE)
    assert raised.value.code() == grpc.StatusCode.NOT_FOUND


def test_watch_of_an_unknown_service_says_so(health):
    watch = health.Watch(health_request("no.Such"), timeout=DEADLINE)
    assert next(watch).status == Status.SERVICE_UNKNOWN
    watch.cancel()


def test_watch_ends_when_the_service_does(tmp_path):
    process, address = start_daemon(tmp_path)
    with grpc.insecure_channel(address) as channel:
        watch = health_pb2_grpc.HealthStub(channel).Watch(health_request(TRANSPORT), timeout=DEADLINE)
        assert next(watch).status == Status.SERVING
        assert stop_daemon(process) == 0
        with pytest.raises(grpc.RpcError) as raised:
            while True:
                assert next(watch).status == Status.NOT_SERVING
    assert raised.value.code() in (grpc.StatusCode.UNAVAILABLE, grpc.StatusCode.CANCELLED)


class Reflection:
    """One reflection stream; a request is answered before the next is sent."""

    def __init__(self, channel):
        self._stub = reflection_pb2_grpc.ServerReflectionStub(channel)

    def ask(self, **what):
        request = reflection_pb2.ServerReflectionRequest(**what)
        (response,) = self._stub.ServerReflectionInfo(iter([request]), timeout=DEADLINE)
        assert response.original_request == request
        return response

    def services(self):
        return [service.name for service in self.ask(list_services="").list_services_response.service]

    def load(self, pool, symbol):
        files = {}
        for serialised in self.ask(file_containing_symbol=symbol).file_descriptor_response.file_descriptor_proto:
            file = descriptor_pb2.FileDescriptorProto.FromString(serialised)
            files[file.name] = file

        def add(name):
            if name in files:
                file = files.pop(name)
                for dependency in file.dependency:
                    add(dependency)
                pool.Add(file)

        for name in list(files):
            add(name)


@pytest.fixture
def reflection(channel):
    return Reflection(channel)


def test_reflection_lists_the_services(reflection):
    assert {TRANSPORT, "grpc.health.v1.Health", "grpc.reflection.v1alpha.ServerReflection"} <= set(reflection.services())


def test_reflection_of_every_listed_service_is_complete(reflection):
    for service in reflection.services():
        pool = descriptor_pool.DescriptorPool()
        reflection.load(pool, service)
        assert pool.FindServiceByName(service).methods


def test_reflection_of_an_unknown_symbol_is_not_found(reflection):
    response = reflection.ask(file_containing_symbol="no.Such")
    assert response.error_response.error_code == grpc.StatusCode.NOT_FOUND.value[0]


def test_call_with_nothing_but_what_reflection_tells(channel, reflection):
    pool = descriptor_pool.DescriptorPool()
    for symbol in (TRANSPORT, "parallel.zksmessages.EchoRequest"):
        reflection.load(pool, symbol)
    factory = message_factory.MessageFactory(pool)
    converse = pool.FindServiceByName(TRANSPORT).FindMethodByName("Converse")
    frame_class = factory.GetPrototype(converse.input_type)
    echo_class = factory.GetPrototype(pool.FindMessageTypeByName("parallel.zksmessages.EchoRequest"))

    description = echo_class(items=[{"kind": 4}]).SerializeToString()
    request = b"\0\0\0\0\2" + len(description).to_bytes(2, "big") + description + b"\xff\xff" + b"\0\3abc\xff\xff"
    frame = frame_class(data=request, end=True, call={"protocol_version": 1, "method": "echo"})
    call = channel.stream_stream(
        f"/{TRANSPORT}/Converse", frame_class.SerializeToString, factory.GetPrototype(converse.output_type).FromString
    )
    reply = b"".join(got.data for got in call(iter([frame]), timeout=DEADLINE))
    assert reply == b"\0\0\0\0\1" + b"\0\3abc\xff\xff"
