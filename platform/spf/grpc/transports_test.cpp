// One suite for the interface, run on each of its implementations.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "platform/spf/core/Service.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/testCalls.h"
#include "platform/spf/grpc/Server.h"
#include "platform/spf/grpc/connect.h"
#include "platform/spf/inprocess/connectInProcess.h"

namespace agent::spf {
namespace {

using core::ServerCall;
using core::testing::call;
using core::testing::digestOf;
using core::testing::patternOf;
using core::testing::readAll;

void echo(ServerCall& call) {
  if (const auto size = call.requestSize())
    call.setReplySize(*size);
  std::vector<char> part(300'000);
  while (call.request().read(part.data(), static_cast<long>(part.size())), call.request().gcount() > 0)
    call.reply().write(part.data(), call.request().gcount());
}

void digest(ServerCall& call) { call.reply() << digestOf(readAll(call.request())); }

std::shared_ptr<core::Service> makeService() {
  auto service = std::make_shared<core::Service>();
  service->add("echo", echo);
  service->add("digest", digest);
  return service;
}

class Transports : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    auto service = makeService();
    if (GetParam() == "inprocess") {
      client_ = inprocess::connectInProcess(service);
      return;
    }
    std::string address = "127.0.0.1:0";
    if (GetParam() == "unix") {
      char path[] = "/tmp/spf-test-XXXXXX";
      directory_ = ::mkdtemp(path);
      address = "unix:" + directory_ + "/socket";
    }
    grpc_transport::ServerOptions options;
    options.address = address;
    server_ = std::make_unique<grpc_transport::Server>(service, options);
    client_ = grpc_transport::connect(server_->address());
  }
  void TearDown() override {
    client_ = nullptr;
    server_ = nullptr;
    if (!directory_.empty()) {
      ::unlink((directory_ + "/socket").c_str());
      ::rmdir(directory_.c_str());
    }
  }
  std::string directory_;
  std::unique_ptr<grpc_transport::Server> server_;
  std::shared_ptr<core::Invokable> client_;
};

TEST_P(Transports, EmptyRequestIsEchoed) { EXPECT_EQ(call(*client_, "echo", std::string()), ""); }

TEST_P(Transports, RequestsOfBorderSizesComeBackWhole) {
  const std::size_t kFrame = std::size_t{1} << 20;
  const std::size_t kBuffer = std::size_t{256} << 10;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{1023}, std::size_t{1024}, std::size_t{1025},
                                 std::size_t{65535}, std::size_t{65536}, std::size_t{65537}, kBuffer - 1, kBuffer,
                                 kBuffer + 1, kFrame - 1, kFrame, kFrame + 1, 5 * kFrame + 17}) {
    const std::string bytes = patternOf(size);
    EXPECT_TRUE(call(*client_, "echo", bytes) == bytes) << size;
    EXPECT_EQ(call(*client_, "digest", bytes), std::to_string(digestOf(bytes))) << size;
  }
}

INSTANTIATE_TEST_SUITE_P(All, Transports, ::testing::Values("inprocess", "unix", "tcp"),
                         [](const auto& parameter) { return parameter.param; });

}  // namespace
}  // namespace agent::spf
