#include "toolbox/Connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "execution/testing/waiting.h"
#include "platform/errors/Exception.h"
#include "platform/errors/IException.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/Server.h"
#include "toolbox/testing/FakeInvokable.h"
#include "toolbox/testing/SilentListener.h"
#include "toolbox/testing/SocketDirectory.h"

namespace parallel::toolbox {
namespace {

using testing::HasSubstr;

std::string identifierOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& error) {
    const auto* identified = dynamic_cast<const IException*>(&error);
    return identified == nullptr ? error.what() : identified->identifier();
  }
  return "no error";
}

std::shared_ptr<agent::spf::core::Service> emptyService() {
  return std::make_shared<agent::spf::core::Service>();
}

TEST(Connection, OverAnInvokableHandsOutClientsOfIt) {
  const auto invokable = std::make_shared<FakeInvokable>();
  const Connection connection(invokable, "fake");
  EXPECT_TRUE(connection.isOpen());
  EXPECT_EQ(connection.name(), "fake");
  EXPECT_EQ(connection.client().getInvokable(), invokable);
}

TEST(Connection, ClosedOneLeavesItsClientsWithoutAService) {
  auto invokable = std::make_shared<FakeInvokable>();
  const std::weak_ptr<FakeInvokable> watched = invokable;
  Connection connection(std::move(invokable), "fake");
  const auto client = connection.client();
  connection.close();
  EXPECT_FALSE(connection.isOpen());
  EXPECT_TRUE(watched.expired()) << "the connection holds on to a service that it has closed";
  EXPECT_EQ(identifierOf([&] { client.getInvokable(); }), "parallel:cluster:ZKSUnreachable");
  connection.close();
  EXPECT_FALSE(connection.isOpen());
}

TEST(Connection, EndOfItsLifeClosesIt) {
  auto connection = std::make_unique<Connection>(std::make_shared<FakeInvokable>(), "fake");
  const auto client = connection->client();
  connection.reset();
  EXPECT_EQ(identifierOf([&] { client.getInvokable(); }), "parallel:cluster:ZKSUnreachable");
}

TEST(Connection, MovedOneServesTheSameClients) {
  Connection first(std::make_shared<FakeInvokable>(), "fake");
  const auto client = first.client();
  Connection second(std::move(first));
  EXPECT_NE(client.getInvokable(), nullptr);
  const auto other = std::make_shared<FakeInvokable>();
  second = Connection(other, "other");
  EXPECT_EQ(identifierOf([&] { client.getInvokable(); }), "parallel:cluster:ZKSUnreachable");
  EXPECT_EQ(second.client().getInvokable(), other);
  EXPECT_EQ(second.name(), "other");
}

TEST(Connection, ToAServerIsOpenUntilTheServerGoes) {
  const SocketDirectory directory;
  auto server = std::make_unique<agent::spf::grpc_transport::Server>(
      emptyService(), agent::spf::grpc_transport::ServerOptions{directory.address(), {}});
  const Connection connection = Connection::connect(directory.address());
  EXPECT_TRUE(connection.isOpen());
  EXPECT_EQ(connection.name(), directory.address());
  server.reset();
  EXPECT_TRUE(execution::testing::eventually([&] { return !connection.isOpen(); }));
  EXPECT_EQ(identifierOf([&] { connection.client().getInvokable(); }), "parallel:cluster:ZKSUnreachable");
}

TEST(Connection, ToNobodyNamesTheAddress) {
  const SocketDirectory directory;
  EXPECT_THAT(identifierOf([&] { Connection::connect(directory.address()); }), HasSubstr(directory.address()));
  EXPECT_EQ(identifierOf([] { Connection::connect("nowhere"); }), "parallel:toolbox:BadAddress");
}

TEST(Connection, InterruptEndsTheWaitForAServiceThatNeverAnswers) {
  const SocketDirectory directory;
  const SilentListener silent(directory.path());
  const foundation::usm::InterpreterContext context;
  utInterruptState::request();
  EXPECT_THROW(Connection::connect(directory.address()), Corvane::System::InterruptException);
  EXPECT_FALSE(utInterruptState::isPending());
}

TEST(Connection, ServiceThatNeverAnswersIsNamedWithTheTimeoutUnderneath) {
  const SocketDirectory directory;
  const SilentListener silent(directory.path());
  try {
    Connection::connect(directory.address(), std::chrono::milliseconds(50));
    FAIL() << "connected to a service that never answers";
  } catch (const Exception<NoAnswer>& error) {
    EXPECT_THAT(error.what(), HasSubstr(directory.address()));
    EXPECT_THROW(std::rethrow_if_nested(error), agent::spf::Timeout);
  }
}

}  // namespace
}  // namespace parallel::toolbox
