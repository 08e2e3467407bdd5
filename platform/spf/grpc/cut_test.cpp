// A connection that breaks off at any byte: the call fails, or has all of its reply.
#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/testing/CuttingRelay.h"

namespace agent::spf::testing {
namespace {

class CutConnection : public ::testing::Test {
 protected:
  // Makes a call over a connection with this budget. True when it had its whole reply; false when it failed as a broken
  // connection must.
  bool succeedsWithin(CuttingRelay::Budget budget, CuttingRelay::Budget* passed = nullptr) {
    CuttingRelay relay(path("relay"), path("service"), budget);
    bool succeeded = false;
    try {
      grpc_transport::ConnectOptions options;
      options.connectTimeout = kDeadline;
      const auto client = grpc_transport::connect("unix:" + path("relay"), options);
      EXPECT_EQ(call(*client, "echo", request_), request_);
      succeeded = true;
    } catch (const Terminated&) {
    } catch (const FrameworkError& e) {
      EXPECT_THAT(e.what(), HasSubstr(path("relay"))) << "only connecting may fail in this way";
    }
    if (passed != nullptr)
      *passed = {relay.toService(), relay.toClient()};
    return succeeded;
  }

  // With every number of bytes up to `all`. How many ping and window frames there are differs from run to run, and so
  // does the number that suffices; the payload alone never does.
  void expectWholeOrFailed(std::size_t CuttingRelay::Budget::*direction, std::size_t all) {
    for (std::size_t nbytes = 0; nbytes <= all; ++nbytes) {
      CuttingRelay::Budget budget;
      budget.*direction = nbytes;
      const bool succeeded = succeedsWithin(budget);
      EXPECT_FALSE(succeeded && nbytes <= request_.size()) << nbytes;
    }
  }

  std::string path(const char* name) const { return directory_.path() + "/" + name; }

 private:
  static std::shared_ptr<core::Service> echoService() {
    auto service = std::make_shared<core::Service>();
    service->add("echo", echo);
    return service;
  }

  const std::string request_ = patternOf(300);
  const TemporaryDirectory directory_;
  const grpc_transport::Server server_{echoService(), {"unix:" + path("service"), {}}};
};

TEST_F(CutConnection, AtAnyByteFailsTheCallOrLeavesItWhole) {
  CuttingRelay::Budget all;
  ASSERT_TRUE(succeedsWithin({}, &all));
  expectWholeOrFailed(&CuttingRelay::Budget::toService, all.toService);
  expectWholeOrFailed(&CuttingRelay::Budget::toClient, all.toClient);
}

}  // namespace
}  // namespace agent::spf::testing
