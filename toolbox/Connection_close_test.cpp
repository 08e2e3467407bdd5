// Closing a connection ends the calls on it, wherever they are, although each of them holds the connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/errors/IException.h"
#include "platform/spf/core/Closable.h"
#include "platform/spf/core/Service.h"
#include "platform/spf/core/errorChain.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/testCalls.h"
#include "platform/spf/grpc/Server.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "toolbox/Connection.h"
#include "toolbox/Item.h"
#include "toolbox/SchedulerClient.h"
#include "toolbox/testing/FakeInvokable.h"
#include "toolbox/testing/SocketDirectory.h"

namespace parallel::toolbox {
namespace {

using agent::spf::Terminated;
using agent::spf::core::ServerCall;
using agent::spf::core::testing::await;
using agent::spf::core::testing::openReply;
using agent::spf::core::testing::readAll;
using agent::spf::core::testing::sourceOf;

class ConnectionClose : public testing::TestWithParam<std::string> {
 protected:
  // Serves a method that hands nothing out until its call is given up, and one that never stops.
  Connection connect() {
    auto service = std::make_shared<agent::spf::core::Service>();
    service->add("silent", [this](ServerCall& call) {
      std::promise<void> cancelled;
      call.onCancel([&] { cancelled.set_value(); });
      entered_.set_value();
      auto end = cancelled.get_future();
      await(end);
      left_.set_value();
    });
    service->add("produce", [this](ServerCall& call) {
      try {
        for (;;)
          call.reply() << std::string(500'000, 'x');
      } catch (const Terminated&) {
        left_.set_value();
        throw;
      }
    });
    if (GetParam() == "embedded")
      return {agent::spf::inprocess::connectInProcess(service), "embedded"};
    server_ = std::make_unique<agent::spf::grpc_transport::Server>(
        service, agent::spf::grpc_transport::ServerOptions{directory_.address(), {}});
    return Connection::connect(directory_.address());
  }

  // Whether the call was terminated.
  static std::future<bool> callSilent(const Connection& connection, std::vector<Item> items) {
    return std::async(std::launch::async, [&connection, items = std::move(items)] {
      try {
        SchedulerClient(connection, nullptr, ErrorForm::Chain).call("silent", items);
      } catch (const std::exception&) {
        const auto chain = agent::spf::core::flattenErrorChain(std::current_exception());
        return std::any_of(chain.begin(), chain.end(), [](const auto& level) {
          return level.kind == agent::spf::core::ErrorLevel::Kind::terminated;
        });
      }
      return false;
    });
  }

  static void wait(std::promise<void>& event) {
    auto future = event.get_future();
    await(future);
  }

  static void expectUnreachable(const Connection& connection) {
    try {
      connection.client().invokeMethod("silent", "bytes");
      ADD_FAILURE() << "a closed connection makes calls";
    } catch (const IException& error) {
      EXPECT_EQ(error.identifier(), "parallel:cluster:ZKSUnreachable");
    }
  }

  std::promise<void> entered_;
  std::promise<void> left_;

 private:
  SocketDirectory directory_;
  std::unique_ptr<agent::spf::grpc_transport::Server> server_;
};

TEST_P(ConnectionClose, EndsACallThatWaits) {
  Connection connection = connect();
  auto waiting = callSilent(connection, {});
  wait(entered_);
  connection.close();
  EXPECT_TRUE(await(waiting));
  wait(left_);
  expectUnreachable(connection);
}

TEST_P(ConnectionClose, EndsACallThatUploads) {
  const std::size_t shape[] = {100'000'000, 1};
  const qxArrayPtr array = qxCreateNumericArray(shape, qxClass::Uint8);
  Connection connection = connect();
  auto uploading = callSilent(connection, {plainItem(array.get())});
  wait(entered_);
  connection.close();
  EXPECT_TRUE(await(uploading));
  wait(left_);
  expectUnreachable(connection);
}

TEST_P(ConnectionClose, EndsAReplyThatIsHeldHalfRead) {
  Connection connection = connect();
  const auto held = connection.client().getInvokable();
  const auto reply = openReply(*held, "produce", sourceOf(""));
  reply->ignore(100'001);
  connection.close();
  wait(left_);
  EXPECT_THROW(readAll(*reply), Terminated);
  expectUnreachable(connection);
}

INSTANTIATE_TEST_SUITE_P(All, ConnectionClose, testing::Values("embedded", "socket"),
                         [](const auto& parameter) { return parameter.param; });

class ClosableFake : public FakeInvokable, public agent::spf::core::Closable {
 public:
  void close() noexcept override { ++closed; }
  int closed = 0;
};

TEST(Connection, ClosesAConnectionThatOthersHold) {
  const auto held = std::make_shared<ClosableFake>();
  Connection connection(held, "fake");
  EXPECT_EQ(held->closed, 0);
  connection.close();
  EXPECT_EQ(held->closed, 1);
  EXPECT_EQ(held.use_count(), 1);
  connection.close();
  EXPECT_EQ(held->closed, 1);
}

}  // namespace
}  // namespace parallel::toolbox
