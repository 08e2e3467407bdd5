// Health checking and reflection against stock clients, whose generated code is in this process under the standard
// names.
#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/ext/health_check_service_server_builder_option.h>
#include <grpcpp/health_check_service_interface.h>
#include <gtest/gtest.h>

#include <thread>

#include "grpc/health/v1/health.grpc.pb.h"
#include "grpc/reflection/v1alpha/reflection.grpc.pb.h"
#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/transport.grpc.pb.h"

namespace agent::spf::testing {
namespace {

using grpc::health::v1::Health;
using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;
using grpc::reflection::v1alpha::ServerReflection;
using grpc::reflection::v1alpha::ServerReflectionRequest;
using grpc::reflection::v1alpha::ServerReflectionResponse;
using ::testing::ElementsAre;

constexpr const char* kTransport = "agent.spf.v1.Transport";

class StandardServices : public ::testing::Test {
 protected:
  void SetUp() override {
    service_->add("echo", echo);
    service_->add("slow", [this](ServerCall& call) {
      probe_.entered.set_value();
      awaitEvent(probe_.mayGoOn);
      call.reply() << "done";
    });
    listen(std::chrono::milliseconds(0));
  }

  void listen(std::chrono::milliseconds grace) {
    server_ = nullptr;
    server_ = std::make_unique<grpc_transport::Server>(
        service_, grpc_transport::ServerOptions{.address = directory_.address(), .grace = grace});
    channel_ = newChannel();
    health_ = Health::NewStub(channel_);
  }

  // One of its own connection.
  std::shared_ptr<grpc::Channel> newChannel() const {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return grpc::CreateCustomChannel(server_->address(), grpc::InsecureChannelCredentials(), arguments);
  }

  static HealthCheckRequest requestFor(const std::string& name) {
    HealthCheckRequest request;
    request.set_service(name);
    return request;
  }

  static grpc::Status check(Health::Stub& stub, const std::string& name, HealthCheckResponse& response) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kDeadline);
    return stub.Check(&context, requestFor(name), &response);
  }

  static HealthCheckResponse::ServingStatus checked(Health::Stub& stub, const std::string& name) {
    HealthCheckResponse response;
    const grpc::Status status = check(stub, name, response);
    EXPECT_TRUE(status.ok()) << status.error_message();
    return response.status();
  }

  TemporaryDirectory directory_;
  Probe probe_;
  std::shared_ptr<core::Service> service_ = std::make_shared<core::Service>();
  std::unique_ptr<grpc_transport::Server> server_;
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<Health::Stub> health_;
};

TEST_F(StandardServices, CheckSaysThatTheServerAndEachOfItsServicesServe) {
  for (const char* name : {"", kTransport, "grpc.health.v1.Health", "grpc.reflection.v1alpha.ServerReflection"})
    EXPECT_EQ(checked(*health_, name), HealthCheckResponse::SERVING) << name;
}

TEST_F(StandardServices, CheckOfAnUnknownServiceIsNotFound) {
  HealthCheckResponse response;
  const grpc::Status status = check(*health_, "no.Such", response);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::NOT_FOUND);
  EXPECT_THAT(status.error_message(), HasSubstr("no.Such"));
}

TEST_F(StandardServices, WatchOfAnUnknownServiceSaysSoAndStaysOpen) {
  grpc::ClientContext context;
  const auto watch = health_->Watch(&context, requestFor("no.Such"));
  HealthCheckResponse response;
  ASSERT_TRUE(watch->Read(&response));
  EXPECT_EQ(response.status(), HealthCheckResponse::SERVICE_UNKNOWN);
  context.TryCancel();
  EXPECT_FALSE(watch->Read(&response));
  EXPECT_EQ(watch->Finish().error_code(), grpc::StatusCode::CANCELLED);
}

TEST_F(StandardServices, HealthCallWithoutARequestOrWithNoneThatCanBeReadIsRefused) {
  using ByteBufferStream = grpc::ClientReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer>;
  using grpc::internal::RpcMethod;
  for (const char* path : {"/grpc.health.v1.Health/Check", "/grpc.health.v1.Health/Watch"})
    for (const std::string bytes : {"", "\xFF"}) {
      const RpcMethod method(path, RpcMethod::BIDI_STREAMING);
      grpc::ClientContext context;
      const std::unique_ptr<ByteBufferStream> stream(
          grpc::internal::ClientReaderWriterFactory<grpc::ByteBuffer, grpc::ByteBuffer>::Create(channel_.get(), method,
                                                                                                &context));
      const grpc::Slice slice(bytes);
      if (!bytes.empty())
        stream->Write(grpc::ByteBuffer(&slice, 1));
      stream->WritesDone();
      EXPECT_EQ(stream->Finish().error_code(), grpc::StatusCode::INVALID_ARGUMENT) << path << bytes.size();
    }
}

// While it drains: watchers are told, checks on old and new connections answered, new calls refused, the one under way
// ends well; and its end ends the draining, although watchers are still there and the grace time is not over.
TEST_F(StandardServices, DrainingServerSaysThatItDoesNotServe) {
  listen(std::chrono::hours(1));
  grpc::ClientContext watchContext;
  const auto watch = health_->Watch(&watchContext, requestFor(kTransport));
  HealthCheckResponse response;
  ASSERT_TRUE(watch->Read(&response));
  EXPECT_EQ(response.status(), HealthCheckResponse::SERVING);

  const auto client = grpc_transport::connect(server_->address());
  auto reply = start(*client, "slow", sourceOf(""));
  awaitEvent(probe_.entered);
  const auto fresh = Health::NewStub(newChannel());
  const auto transport = v1::Transport::NewStub(newChannel());
  std::thread stopper([this] { server_ = nullptr; });

  ASSERT_TRUE(watch->Read(&response));
  EXPECT_EQ(response.status(), HealthCheckResponse::NOT_SERVING);
  for (Health::Stub* stub : {health_.get(), fresh.get()})
    for (const char* name : {"", kTransport})
      EXPECT_EQ(checked(*stub, name), HealthCheckResponse::NOT_SERVING);
  grpc::ClientContext lateContext;
  const auto late = transport->Converse(&lateContext);
  v1::Frame frame;
  EXPECT_FALSE(late->Read(&frame));
  EXPECT_EQ(late->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);

  probe_.mayGoOn.set_value();
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "done");
  stopper.join();
  EXPECT_FALSE(watch->Read(&response));
  EXPECT_FALSE(watch->Finish().ok());
}

TEST_F(StandardServices, ServerEndsAtOnceWithWatchersAndReflectionStreamsOpen) {
  std::vector<std::unique_ptr<grpc::ClientContext>> contexts;
  std::vector<std::unique_ptr<grpc::ClientReader<HealthCheckResponse>>> watches;
  for (int i = 0; i < 10; ++i) {
    contexts.push_back(std::make_unique<grpc::ClientContext>());
    watches.push_back(health_->Watch(contexts.back().get(), requestFor("")));
    HealthCheckResponse response;
    ASSERT_TRUE(watches.back()->Read(&response));
  }
  grpc::ClientContext context;
  const auto reflection = ServerReflection::NewStub(channel_)->ServerReflectionInfo(&context);
  ServerReflectionRequest request;
  request.set_list_services("");
  ServerReflectionResponse answer;
  ASSERT_TRUE(reflection->Write(request));
  ASSERT_TRUE(reflection->Read(&answer));
  server_ = nullptr;
  for (const auto& watch : watches) {
    HealthCheckResponse response;
    while (watch->Read(&response))
      EXPECT_EQ(response.status(), HealthCheckResponse::NOT_SERVING);
    EXPECT_FALSE(watch->Finish().ok());
  }
  EXPECT_FALSE(reflection->Read(&answer));
  EXPECT_FALSE(reflection->Finish().ok());
}

TEST_F(StandardServices, SwitchesNothingOnForOtherServersOfTheProcess) {
  EXPECT_FALSE(grpc::DefaultHealthCheckServiceEnabled());
}

class Reflection : public StandardServices {
 protected:
  void SetUp() override {
    StandardServices::SetUp();
    stub_ = ServerReflection::NewStub(channel_);
    stream_ = stub_->ServerReflectionInfo(&context_);
  }

  void TearDown() override {
    stream_->WritesDone();
    ServerReflectionResponse more;
    EXPECT_FALSE(stream_->Read(&more));
    EXPECT_TRUE(stream_->Finish().ok());
  }

  ServerReflectionResponse ask(ServerReflectionRequest request) {
    request.set_host("some host");
    EXPECT_TRUE(stream_->Write(request));
    ServerReflectionResponse response;
    EXPECT_TRUE(stream_->Read(&response));
    EXPECT_EQ(response.valid_host(), "some host");
    EXPECT_EQ(response.original_request().SerializeAsString(), request.SerializeAsString());
    return response;
  }

  static std::vector<std::string> filesOf(const ServerReflectionResponse& response) {
    std::vector<std::string> names;
    for (const std::string& bytes : response.file_descriptor_response().file_descriptor_proto()) {
      google::protobuf::FileDescriptorProto file;
      EXPECT_TRUE(file.ParseFromString(bytes));
      names.push_back(file.name());
    }
    return names;
  }

  std::vector<std::string> filesWithSymbol(const std::string& symbol) {
    ServerReflectionRequest request;
    request.set_file_containing_symbol(symbol);
    return filesOf(ask(request));
  }

  std::unique_ptr<ServerReflection::Stub> stub_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::ClientReaderWriter<ServerReflectionRequest, ServerReflectionResponse>> stream_;
};

TEST_F(Reflection, ListsTheServices) {
  ServerReflectionRequest request;
  request.set_list_services("");
  const ServerReflectionResponse response = ask(request);
  std::vector<std::string> names;
  for (const auto& service : response.list_services_response().service())
    names.push_back(service.name());
  EXPECT_THAT(names, ElementsAre(kTransport, "grpc.health.v1.Health", "grpc.reflection.v1.ServerReflection",
                                 "grpc.reflection.v1alpha.ServerReflection"));
}

TEST_F(Reflection, GivesTheSchemaOfEachServiceBySymbolAndByFile) {
  const std::pair<const char*, const char*> cases[] = {
      {kTransport, "platform/spf/grpc/transport.proto"},
      {"agent.spf.v1.Transport.Converse", "platform/spf/grpc/transport.proto"},
      {"agent.spf.v1.ErrorChain.Level", "platform/spf/grpc/transport.proto"},
      {"grpc.health.v1.Health", "grpc/health/v1/health.proto"},
      {"grpc.reflection.v1.ServerReflection", "grpc/reflection/v1/reflection.proto"},
      {"grpc.reflection.v1alpha.ServerReflectionRequest", "grpc/reflection/v1alpha/reflection.proto"},
  };
  for (const auto& [symbol, file] : cases) {
    EXPECT_THAT(filesWithSymbol(symbol), ElementsAre(file)) << symbol;
    ServerReflectionRequest request;
    request.set_file_by_filename(file);
    EXPECT_THAT(filesOf(ask(request)), ElementsAre(file));
  }
}

TEST_F(Reflection, SchemasOfTheStandardServicesAreTheStandards) {
  for (const auto* file : {HealthCheckRequest::descriptor()->file(), ServerReflectionRequest::descriptor()->file()}) {
    ServerReflectionRequest request;
    request.set_file_by_filename(file->name());
    google::protobuf::FileDescriptorProto found;
    ASSERT_TRUE(found.ParseFromString(ask(request).file_descriptor_response().file_descriptor_proto(0)));
    google::protobuf::FileDescriptorProto expected;
    file->CopyTo(&expected);
    expected.clear_options();  // names for other languages
    // The order of definitions is nobody's business.
    EXPECT_EQ(found.package(), expected.package());
    EXPECT_EQ(found.service(0).SerializeAsString(), expected.service(0).SerializeAsString());
    ASSERT_EQ(found.message_type_size(), expected.message_type_size());
    for (int i = 0; i < expected.message_type_size(); ++i)
      EXPECT_EQ(found.message_type(i).SerializeAsString(), expected.message_type(i).SerializeAsString());
  }
}

TEST_F(Reflection, ImportsComeWithTheFileEachOnce) {
  EXPECT_THAT(filesWithSymbol("google.protobuf.FileDescriptorProto"), ElementsAre("google/protobuf/descriptor.proto"));
}

TEST_F(Reflection, ExtensionsAreFoundByNumberAndListed) {
  ServerReflectionRequest request;
  request.set_all_extension_numbers_of_type("google.protobuf.FileOptions");
  const auto all = ask(request).all_extension_numbers_response();
  EXPECT_EQ(all.base_type_name(), "google.protobuf.FileOptions");
  EXPECT_EQ(all.extension_number_size(), 0);
  request.mutable_file_containing_extension()->set_containing_type("google.protobuf.FileOptions");
  request.mutable_file_containing_extension()->set_extension_number(50'000);
  EXPECT_EQ(ask(request).error_response().error_code(), grpc::StatusCode::NOT_FOUND);
}

TEST_F(Reflection, WhatIsNotThereIsSaidAndTheStreamGoesOn) {
  std::vector<ServerReflectionRequest> requests(5);
  requests[0].set_file_by_filename("no.proto");
  requests[1].set_file_containing_symbol("no.Symbol");
  requests[2].set_all_extension_numbers_of_type("no.Type");
  requests[3].mutable_file_containing_extension()->set_containing_type("no.Type");
  for (const auto& request : requests) {
    const bool empty = request.message_request_case() == ServerReflectionRequest::MESSAGE_REQUEST_NOT_SET;
    const auto response = ask(request);
    EXPECT_EQ(response.error_response().error_code(),
              empty ? grpc::StatusCode::INVALID_ARGUMENT : grpc::StatusCode::NOT_FOUND);
    EXPECT_THAT(response.error_response().error_message(), HasSubstr(empty ? "nothing" : "no."));
  }
  EXPECT_THAT(filesWithSymbol(kTransport), ElementsAre("platform/spf/grpc/transport.proto"));
}

// Requests are taken one by one, each when the answer to the last is out.
TEST_F(Reflection, ManyRequestsAtOnceAreAnsweredInOrder) {
  constexpr int kRequests = 500;
  std::thread writer([this] {
    for (int i = 0; i < kRequests; ++i) {
      ServerReflectionRequest request;
      request.set_host(std::to_string(i));
      request.set_file_containing_symbol(kTransport);
      stream_->Write(request);
    }
  });
  for (int i = 0; i < kRequests; ++i) {
    ServerReflectionResponse response;
    ASSERT_TRUE(stream_->Read(&response));
    EXPECT_EQ(response.valid_host(), std::to_string(i));
  }
  writer.join();
}

}  // namespace
}  // namespace agent::spf::testing
