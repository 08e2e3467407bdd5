// The fixture of the suite that every transport must pass: a service over each of them, and a client.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/spf/core/Invokable.h"
#include "platform/spf/core/Service.h"
#include "platform/spf/core/errorChain.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/testCalls.h"
#include "platform/spf/grpc/Server.h"
#include "platform/spf/grpc/connect.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "platform/spf/security/testing/TestAuthority.h"

namespace agent::spf::testing {

// The words in which tests of a transport speak of calls.
using core::ServerCall;
using core::testing::await;
using core::testing::call;
using core::testing::kDeadline;
using core::testing::openReply;
using core::testing::patternOf;
using core::testing::readAll;
using core::testing::sourceOf;
using core::testing::start;
using ::testing::HasSubstr;

// A directory for socket files that goes with the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    char path[] = "/tmp/spf-test-XXXXXX";
    path_ = ::mkdtemp(path);
  }
  ~TemporaryDirectory() {
    ::unlink((path_ + "/socket").c_str());
    ::rmdir(path_.c_str());
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::string& path() const noexcept { return path_; }
  std::string address() const { return "unix:" + path_ + "/socket"; }

 private:
  std::string path_;
};

// Plain text over TCP, at a port that the system chooses.
inline grpc_transport::ServerOptions plainServer() {
  grpc_transport::ServerOptions options;
  options.address = "127.0.0.1:0";
  options.plainText = true;
  return options;
}

inline grpc_transport::ConnectOptions plainClient() {
  grpc_transport::ConnectOptions options;
  options.plainText = true;
  return options;
}

// What a handler lets its test see and decide. A test uses the members that its handler uses.
struct Probe {
  std::promise<void> entered;
  std::promise<void> left;
  std::promise<void> cancelled;
  std::promise<void> mayGoOn;
  std::atomic<long> bytes{0};
};

class Transports : public ::testing::TestWithParam<std::string> {
 protected:
  using Handler = core::Service::Handler;

  // Adds methods; before connect().
  core::Service& service() { return *service_; }
  std::shared_ptr<Probe> probe() const { return probe_; }

  void connect() {
    if (GetParam() == "inprocess") {
      client_ = inprocess::connectInProcess(service_);
      return;
    }
    serverOptions_.address = GetParam() == "unix" ? directory_.address() : "127.0.0.1:0";
    serverOptions_.plainText = connectOptions_.plainText = GetParam() == "tcp";
    if (GetParam() == "tls") {
      static const security::testing::TestAuthority authority;
      serverOptions_.credentials = authority.server();
      connectOptions_.credentials = authority.client();
    }
    server_ = std::make_unique<grpc_transport::Server>(service_, serverOptions_);
    client_ = grpc_transport::connect(server_->address(), connectOptions_);
  }

  // Serves one method and connects.
  core::Invokable& serve(const std::string& method, Handler handler) {
    service_->add(method, std::move(handler));
    connect();
    return *client_;
  }

  core::Invokable& client() { return *client_; }
  bool isInProcess() const { return GetParam() == "inprocess"; }
  void disconnect() { client_ = nullptr; }
  std::shared_ptr<core::Invokable> takeClient() { return std::exchange(client_, nullptr); }
  void stopServer() { server_ = nullptr; }
  const std::string& address() const { return server_->address(); }
  void setOnDisconnect(std::function<void()> callback) { connectOptions_.onDisconnect = std::move(callback); }
  // Before connect(); of the transports that have any.
  grpc_transport::ConnectOptions& connectOptions() { return connectOptions_; }
  grpc_transport::ServerOptions& serverOptions() { return serverOptions_; }

  void TearDown() override {
    client_ = nullptr;
    server_ = nullptr;
  }

 private:
  TemporaryDirectory directory_;
  std::shared_ptr<core::Service> service_ = std::make_shared<core::Service>();
  std::shared_ptr<Probe> probe_ = std::make_shared<Probe>();
  grpc_transport::ServerOptions serverOptions_;
  grpc_transport::ConnectOptions connectOptions_;
  std::unique_ptr<grpc_transport::Server> server_;
  std::shared_ptr<core::Invokable> client_;
};

inline std::string nameOfTransport(const ::testing::TestParamInfo<std::string>& parameter) {
  return parameter.param;
}

#define INSTANTIATE_TRANSPORTS(suite) \
  INSTANTIATE_TEST_SUITE_P(All, suite, ::testing::Values("inprocess", "unix", "tcp", "tls"), nameOfTransport)

// The chain that `action` throws; empty when it throws nothing.
template <class Action>
core::ErrorChain chainThrownBy(Action action) {
  try {
    action();
  } catch (...) {
    return core::flattenErrorChain(std::current_exception());
  }
  return {};
}

// The text of a chain of one error of that kind.
inline std::string textOfOnly(const core::ErrorChain& chain, core::ErrorLevel::Kind kind) {
  if (chain.size() != 1 || chain[0].kind != kind)
    return "another chain";
  return chain[0].text;
}

// Waits for the event with the deadline of all tests.
template <class T>
void awaitEvent(std::promise<T>& event) {
  auto future = event.get_future();
  core::testing::await(future);
}

inline void echo(core::ServerCall& call) {
  if (const auto size = call.requestSize())
    call.setReplySize(*size);
  std::vector<char> part(300'000);
  while (call.request().read(part.data(), static_cast<long>(part.size())), call.request().gcount() > 0)
    call.reply().write(part.data(), call.request().gcount());
}

}  // namespace agent::spf::testing
