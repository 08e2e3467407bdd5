// A service that dies, freezes or is cut off, at every stage of a call: the right error in time, and nothing left over.
#include <dirent.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/testing/NetworkNamespace.h"
#include "platform/spf/grpc/testing/ServiceProcess.h"

namespace agent::spf::testing {
namespace {

using core::ErrorLevel;
using grpc_transport::ConnectOptions;

using Kind = ErrorLevel::Kind;

// Short, so that a test of them is; yet long enough for a service that lives on a busy machine.
ConnectOptions shortDeadlines() {
  ConnectOptions options = plainClient();
  options.connectTimeout = std::chrono::milliseconds(1000);
  options.keepaliveInterval = std::chrono::milliseconds(300);
  options.keepaliveTimeout = std::chrono::milliseconds(700);
  return options;
}

std::size_t countEntries(const char* directory) {
  std::size_t count = 0;
  DIR* const entries = ::opendir(directory);
  while (::readdir(entries) != nullptr)
    ++count;
  ::closedir(entries);
  return count;
}

// Open files and threads of this process come back to what they were.
class NothingLeftOver {
 public:
  NothingLeftOver() {
    // gRPC keeps some files and threads from its first use on.
    const TemporaryDirectory directory;
    const ServiceProcess process(directory.address());
    call(*grpc_transport::connect(directory.address()), "echo", std::string("x"));
    files_ = countEntries("/proc/self/fd");
  }

  void expect() const {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (countEntries("/proc/self/fd") > files_ && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    EXPECT_LE(countEntries("/proc/self/fd"), files_);
  }

 private:
  std::size_t files_ = 0;
};

// What happens to the service, and what its client is then told.
struct Fault {
  const char* name;
  std::function<void(ServiceProcess&)> strike;
  Kind errorOfCalls;
  Kind errorOfConnecting;
};

// Waits until the connection is known to be dead, and says what each call on it fails with from then on.
void expectDead(core::Invokable& client, std::promise<void>& disconnected, Kind kind) {
  awaitEvent(disconnected);
  const auto chain = chainThrownBy([&] { call(client, "echo", std::string()); });
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_EQ(chain[0].kind, kind) << chain[0].text;
}

void expectOneLevel(const core::ErrorChain& chain, Kind kind, const std::string& address) {
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_EQ(chain[0].kind, kind) << chain[0].text;
  EXPECT_THAT(chain[0].text, HasSubstr(address));
}

void expectErrorInUpload(ServiceProcess& process, const Fault& fault, core::Invokable& client) {
  std::promise<void> underWay;
  const auto endless = [&, told = false](std::ostream& out) mutable {
    for (long sent = 0;; sent += 100'000) {
      out << patternOf(100'000) << std::flush;
      if (sent > 0 && !std::exchange(told, true))
        underWay.set_value();
    }
  };
  auto uploading = start(client, "doNothing", sourceOf(endless, 1L << 40));
  awaitEvent(underWay);
  fault.strike(process);
  expectOneLevel(chainThrownBy([&] { await(uploading); }), fault.errorOfCalls, process.address());
}

void expectErrorInWait(ServiceProcess& process, const Fault& fault, core::Invokable& client) {
  auto waiting = start(client, "doNothing", sourceOf("x"));
  process.awaitCall();
  fault.strike(process);
  expectOneLevel(chainThrownBy([&] { await(waiting); }), fault.errorOfCalls, process.address());
}

void expectErrorInDownload(ServiceProcess& process, const Fault& fault, core::Invokable& client) {
  const auto reply = openReply(client, "produce", sourceOf(""));
  reply->ignore(200'000);
  fault.strike(process);
  expectOneLevel(chainThrownBy([&] {
                   for (;;)
                     reply->ignore(1'000'000);
                 }),
                 fault.errorOfCalls, process.address());
}

using Stage = void (*)(ServiceProcess&, const Fault&, core::Invokable&);

void expectErrorAt(Stage stage, ServiceProcess& process, const Fault& fault) {
  std::promise<void> disconnected;
  ConnectOptions options = shortDeadlines();
  options.onDisconnect = [&] { disconnected.set_value(); };
  const auto client = grpc_transport::connect(process.address(), options);
  stage(process, fault, *client);
  expectDead(*client, disconnected, fault.errorOfCalls);
}

void expectErrorInConnecting(ServiceProcess& process, const Fault& fault) {
  fault.strike(process);
  const auto chain = chainThrownBy([&] { grpc_transport::connect(process.address(), shortDeadlines()); });
  expectOneLevel(chain, fault.errorOfConnecting, process.address());
}

void expectErrorWhenIdle(ServiceProcess& process, const Fault& fault) {
  expectErrorAt([](ServiceProcess& service, const Fault& struck, core::Invokable&) { struck.strike(service); }, process,
                fault);
}

const Fault kKilled{"Killed", [](ServiceProcess& service) { service.kill(); }, Kind::terminated, Kind::framework};
const Fault kStopped{"Stopped", [](ServiceProcess& service) { service.stop(); }, Kind::timeout, Kind::timeout};

class FaultOfTheService : public ::testing::TestWithParam<std::tuple<Fault, const char*>> {
 protected:
  const Fault& fault() const { return std::get<0>(GetParam()); }
  ServiceProcess& process() { return *process_; }

  void TearDown() override {
    process_ = nullptr;
    nothingLeftOver_.expect();
  }

 private:
  const TemporaryDirectory directory_;
  const NothingLeftOver nothingLeftOver_;
  std::unique_ptr<ServiceProcess> process_ = std::make_unique<ServiceProcess>(
      std::get<1>(GetParam()) == std::string("unix") ? directory_.address() : "127.0.0.1:0");
};

TEST_P(FaultOfTheService, WhileConnectingIsTold) {
  expectErrorInConnecting(process(), fault());
}
TEST_P(FaultOfTheService, InAnUploadIsToldNamingTheAddress) {
  expectErrorAt(expectErrorInUpload, process(), fault());
}
TEST_P(FaultOfTheService, InTheWaitForAReplyIsToldNamingTheAddress) {
  expectErrorAt(expectErrorInWait, process(), fault());
}
TEST_P(FaultOfTheService, InADownloadIsToldNamingTheAddress) {
  expectErrorAt(expectErrorInDownload, process(), fault());
}
TEST_P(FaultOfTheService, BetweenCallsIsToldToTheNextOne) {
  expectErrorWhenIdle(process(), fault());
}

INSTANTIATE_TEST_SUITE_P(All, FaultOfTheService,
                         ::testing::Combine(::testing::Values(kKilled, kStopped), ::testing::Values("unix", "tcp")),
                         [](const auto& parameter) {
                           return std::string(std::get<0>(parameter.param).name) + "_" + std::get<1>(parameter.param);
                         });

class OtherHost : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!network_.isUsable())
      GTEST_SKIP() << "this machine lets the tests make no network namespace (ip and the right to use it are needed)";
    process_ = std::make_unique<ServiceProcess>(network_.host() + ":0", network_.launcher());
  }
  void TearDown() override {
    if (process_ == nullptr)
      return;
    process_ = nullptr;
    nothingLeftOver_.expect();
  }

  NetworkNamespace& network() { return network_; }
  ServiceProcess& process() { return *process_; }
  Fault cut() {
    return {"Cut", [this](ServiceProcess&) { ASSERT_TRUE(network_.cut()); }, Kind::timeout, Kind::timeout};
  }

 private:
  NetworkNamespace network_;
  const NothingLeftOver nothingLeftOver_;
  std::unique_ptr<ServiceProcess> process_;
};

TEST_F(OtherHost, CutOffWhileConnectingIsATimeout) {
  expectErrorInConnecting(process(), cut());
}
TEST_F(OtherHost, CutOffInAnUploadIsATimeout) {
  expectErrorAt(expectErrorInUpload, process(), cut());
}
TEST_F(OtherHost, CutOffInTheWaitForAReplyIsATimeout) {
  expectErrorAt(expectErrorInWait, process(), cut());
}
TEST_F(OtherHost, CutOffInADownloadIsATimeout) {
  expectErrorAt(expectErrorInDownload, process(), cut());
}
TEST_F(OtherHost, CutOffBetweenCallsIsToldToTheNextOne) {
  expectErrorWhenIdle(process(), cut());
}

TEST_F(OtherHost, SlowLinkIsNotAFault) {
  ConnectOptions options = shortDeadlines();
  options.keepaliveTimeout = std::chrono::seconds(20);
  const auto client = grpc_transport::connect(process().address(), options);
  ASSERT_TRUE(network().slowDown("40mbit"));
  const std::string bytes = patternOf(3'000'000);
  EXPECT_TRUE(call(*client, "echo", bytes) == bytes);
}

class Pause : public Transports {};

TEST_P(Pause, OfAReplyIsATimeoutOfItsReaderAndCancelsTheCall) {
  connectOptions().idleTimeout = std::chrono::milliseconds(50);
  service().add("echo", echo);
  serve("pause", [probe = probe()](ServerCall& call) {
    call.onCancel([probe] { probe->cancelled.set_value(); });
    call.reply() << "abc" << std::flush;
    awaitEvent(probe->mayGoOn);
  });
  const auto reply = openReply(client(), "pause", sourceOf(""));
  std::string got;
  const auto chain = chainThrownBy([&] {
    for (;;)
      got.push_back(static_cast<char>(reply->get()));
  });
  EXPECT_EQ(got, "abc");
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_EQ(chain[0].kind, Kind::timeout);
  EXPECT_EQ(chain[0].text, "The reply of call \"pause\" has paused for more than 50 ms.");
  awaitEvent(probe()->cancelled);
  probe()->mayGoOn.set_value();
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
}

TEST_P(Pause, BeforeAReplyBeginsHasNoLimit) {
  connectOptions().idleTimeout = std::chrono::milliseconds(1);
  serve("slow", [probe = probe()](ServerCall& call) {
    awaitEvent(probe->mayGoOn);
    call.reply() << "x";
  });
  auto waiting = start(client(), "slow", sourceOf(""));
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
  probe()->mayGoOn.set_value();
  EXPECT_EQ(readAll(*await(waiting)->getImportedIstream()), "x");
}

TEST_P(Pause, OfAServiceThatIsAskedForLifeAndGivesItIsNotAFault) {
  connectOptions().keepaliveInterval = std::chrono::milliseconds(10);
  serve("slow", [probe = probe()](ServerCall& call) {
    awaitEvent(probe->mayGoOn);
    call.reply() << "x";
  });
  auto waiting = start(client(), "slow", sourceOf(""));
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  probe()->mayGoOn.set_value();
  EXPECT_EQ(readAll(*await(waiting)->getImportedIstream()), "x");
}

TEST_P(Pause, OfARequestIsATimeoutOfItsHandlerAndOfItsCaller) {
  serverOptions().idleTimeout = std::chrono::milliseconds(50);
  service().add("echo", echo);
  serve("digest", [](ServerCall& call) { readAll(call.request()); });
  const auto writer = [probe = probe()](std::ostream& out) {
    out << "abc" << std::flush;
    awaitEvent(probe->mayGoOn);
    out << patternOf(99'997);
  };
  auto waiting = start(client(), "digest", sourceOf(writer, 100'000));
  const auto chain = chainThrownBy([&] { await(waiting); });
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_EQ(chain[0].kind, Kind::timeout);
  EXPECT_EQ(chain[0].text, "The request of call \"digest\" has paused for more than 50 ms.");
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
  probe()->mayGoOn.set_value();
}

INSTANTIATE_TEST_SUITE_P(All, Pause, ::testing::Values("unix", "tcp"), nameOfTransport);

class LifeCheckOfManyCalls : public Transports {
 protected:
  struct State {
    std::promise<void> mayGoOn;
    std::shared_future<void> goingOn{mayGoOn.get_future()};
    std::atomic<int> handlers{0};
    std::atomic<int> asked{0};
  };

  // Waits until the counter has come that far.
  static void awaitCount(const std::atomic<int>& counter, int count) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (counter < count && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    ASSERT_GE(counter, count);
  }

  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

// The client asks for life by a call of the method "", which every service refuses.
TEST_P(LifeCheckOfManyCalls, IsAnsweredThoughCallsWaitOnAllStreamsThatTheServiceAllows) {
  serverOptions().maxStreamsPerConnection = 4;
  connectOptions().keepaliveInterval = std::chrono::milliseconds(20);
  connectOptions().keepaliveTimeout = std::chrono::milliseconds(2000);
  service().setRefusalObserver([state = state_](std::string_view method, std::string_view, const std::exception&) {
    if (method.empty())
      ++state->asked;
  });
  serve("wait", [state = state_](ServerCall& call) {
    ++state->handlers;
    state->goingOn.wait_for(kDeadline);
    call.reply() << "x";
  });
  std::vector<core::testing::ReplyFuture> replies;
  for (int i = 0; i < 3; ++i)
    replies.push_back(start(client(), "wait", sourceOf("")));
  awaitCount(state_->handlers, 2);
  awaitCount(state_->asked, state_->asked + 2);
  state_->mayGoOn.set_value();
  EXPECT_EQ(readAll(*await(replies.front())->getImportedIstream()), "x");
}

INSTANTIATE_TEST_SUITE_P(All, LifeCheckOfManyCalls, ::testing::Values("unix"), nameOfTransport);

}  // namespace
}  // namespace agent::spf::testing
