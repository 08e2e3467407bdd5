// How a connection comes about, or why it does not: addresses, listening, and peers that say nothing.
#include <gmock/gmock.h>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/transport.grpc.pb.h"
#include "platform/spf/security/testing/TestAuthority.h"

namespace agent::spf::testing {
namespace {

using grpc_transport::connect;
using grpc_transport::ConnectOptions;
using grpc_transport::Server;
using ::testing::AllOf;

using Kind = core::ErrorLevel::Kind;

TEST(Connect, WrongAddressesAreNamedAtOnceWithTheReason) {
  const auto textOf = [](const std::string& address) {
    return textOfOnly(chainThrownBy([&] { connect(address, plainClient()); }), Kind::framework);
  };
  const TemporaryDirectory directory;
  EXPECT_THAT(textOf(directory.address()), AllOf(HasSubstr(directory.address()), HasSubstr("no such socket file")));
  std::ofstream(directory.path() + "/socket") << "a file";
  EXPECT_THAT(textOf(directory.address()), HasSubstr("not a socket"));
  for (const char* address : {"", "nonsense", "unix:relative", "unix:", "host:", ":1", "host:port", "host:70000"})
    EXPECT_THAT(textOf(address), HasSubstr("is not an address")) << address;
  EXPECT_THAT(textOf("no-such-host.invalid:1"), HasSubstr("cannot be resolved"));
}

TEST(Connect, NothingListeningIsSaid) {
  std::string address;
  {
    const Server server(std::make_shared<core::Service>(), plainServer());
    address = server.address();
  }
  EXPECT_THAT(textOfOnly(chainThrownBy([&] { connect(address, plainClient()); }), Kind::framework),
              AllOf(HasSubstr(address), HasSubstr("nothing listens there")));
}

// Lets clients connect and says nothing.
class SilentListener {
 public:
  SilentListener() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof at;
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&at), size), 0);
    EXPECT_EQ(::listen(listener_, 8), 0);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&at), &size);
    address_ = "127.0.0.1:" + std::to_string(ntohs(at.sin_port));
  }
  ~SilentListener() {
    ::close(client_);
    ::close(listener_);
  }
  SilentListener(const SilentListener&) = delete;
  SilentListener& operator=(const SilentListener&) = delete;

  const std::string& address() const { return address_; }

  // Whether a client has connected and begun to speak.
  bool hasHeard() { return (client_ >= 0 || isReadable(listener_, 0)) && isReadable(client(), 0); }

  // Whether the client that connected first closes its end before the time is over.
  bool clientLeavesWithin(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    ssize_t got = 1;
    for (char said[256]; got > 0;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (!isReadable(client(), std::max<std::int64_t>(left.count(), 0)))
        break;
      got = ::recv(client(), said, sizeof said, 0);
    }
    return got <= 0;
  }

 private:
  static bool isReadable(int fd, std::int64_t withinMilliseconds) {
    pollfd waiting{fd, POLLIN, 0};
    return ::poll(&waiting, 1, static_cast<int>(withinMilliseconds)) > 0;
  }
  int client() {
    if (client_ < 0)
      client_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    return client_;
  }

  int listener_;
  int client_ = -1;
  std::string address_;
};

TEST(Connect, SilentPeerTimesOutAndTheWaitCanBeInterrupted) {
  const SilentListener listener;
  auto options = plainClient();
  options.connectTimeout = std::chrono::milliseconds(150);
  EXPECT_THAT(textOfOnly(chainThrownBy([&] { connect(listener.address(), options); }), Kind::timeout),
              HasSubstr(listener.address()));
  options.connectTimeout = kDeadline;
  int asked = 0;
  options.poll = [&] {
    if (++asked == 3)
      throw std::out_of_range("interrupted");
  };
  EXPECT_THROW(connect(listener.address(), options), std::out_of_range);
}

TEST(Connect, AttemptThatTimedOutGivesItsSocketBack) {
  SilentListener listener;
  auto options = plainClient();
  options.connectTimeout = std::chrono::milliseconds(150);
  EXPECT_THAT(textOfOnly(chainThrownBy([&] { connect(listener.address(), options); }), Kind::timeout),
              HasSubstr("150"));
  EXPECT_TRUE(listener.clientLeavesWithin(std::chrono::seconds(10)));  // by itself gRPC would wait for 20
}

TEST(Connect, AttemptThatEndedWhileItsCallerWasLateIsStillATimeout) {
  SilentListener listener;
  auto options = plainClient();
  options.connectTimeout = std::chrono::milliseconds(150);
  options.poll = [&] { EXPECT_TRUE(!listener.hasHeard() || listener.clientLeavesWithin(kDeadline)); };
  EXPECT_THAT(textOfOnly(chainThrownBy([&] { connect(listener.address(), options); }), Kind::timeout),
              HasSubstr("150"));
}

TEST(Connect, AttemptThatWasInterruptedInTheHandshakeOfTlsGivesItsSocketBack) {
  SilentListener listener;
  ConnectOptions options;
  options.credentials = security::testing::TestAuthority().client();
  options.connectTimeout = kDeadline;
  options.poll = [&] {
    if (listener.hasHeard())
      throw std::out_of_range("interrupted");
  };
  EXPECT_THROW(connect(listener.address(), options), std::out_of_range);
  EXPECT_TRUE(listener.clientLeavesWithin(std::chrono::seconds(10)));  // the attempt has a minute
}

TEST(Connect, LongestTimeoutOfAllIsAllowed) {
  const TemporaryDirectory directory;
  auto service = std::make_shared<core::Service>();
  service->add("echo", echo);
  const Server server(service, {directory.address(), {}});
  auto options = plainClient();
  options.connectTimeout = std::chrono::milliseconds::max();
  EXPECT_EQ(call(*connect(server.address(), options), "echo", std::string("x")), "x");
}

TEST(Connect, ServerOfAnotherServiceIsRecognised) {
  const TemporaryDirectory directory;
  grpc::ServerBuilder builder;
  v1::Transport::Service unimplemented;  // answers every method with UNIMPLEMENTED
  builder.AddListeningPort(directory.address(), grpc::InsecureServerCredentials());
  builder.RegisterService(&unimplemented);
  const auto server = builder.BuildAndStart();
  EXPECT_THAT(textOfOnly(chainThrownBy([&] { connect(directory.address()); }), Kind::framework),
              AllOf(HasSubstr(directory.address()), HasSubstr("not such a service")));
}

TEST(Listen, AddressesInUseOrOutOfReachAreNamedWithTheReason) {
  const auto service = std::make_shared<core::Service>();
  const auto textOf = [&](const std::string& address) {
    return textOfOnly(chainThrownBy([&] {
                        auto options = plainServer();
                        options.address = address;
                        Server(service, options);
                      }),
                      Kind::framework);
  };
  const TemporaryDirectory directory;
  const Server local(service, {directory.address(), {}});
  EXPECT_THAT(textOf(directory.address()), AllOf(HasSubstr(directory.address()), HasSubstr("another service listens")));
  const Server remote(service, plainServer());
  EXPECT_THAT(textOf(remote.address()), AllOf(HasSubstr(remote.address()), HasSubstr("in use")));
  EXPECT_THAT(textOf("unix:/no-such-directory/socket"), HasSubstr("directory"));
  EXPECT_THAT(textOf("unix:/" + std::string(200, 'x')), HasSubstr("longer than"));
  EXPECT_THAT(textOf("nonsense"), HasSubstr("is not an address"));
}

TEST(Listen, SocketFileOfADeadServiceIsInNobodysWay) {
  const TemporaryDirectory directory;
  const int stale = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un at{};
  at.sun_family = AF_UNIX;
  (directory.path() + "/socket").copy(at.sun_path, sizeof at.sun_path - 1);
  ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
  ::close(stale);
  auto service = std::make_shared<core::Service>();
  service->add("echo", echo);
  const Server server(service, {directory.address(), {}});
  EXPECT_EQ(call(*connect(server.address()), "echo", std::string("x")), "x");
}

TEST(Listen, CallsUnderWayMayEndWithinTheGraceTime) {
  Probe probe;
  auto service = std::make_shared<core::Service>();
  service->add("slow", [&](ServerCall& call) {
    probe.entered.set_value();
    awaitEvent(probe.mayGoOn);
    call.reply() << "done";
  });
  auto serverOptions = plainServer();
  serverOptions.grace = kDeadline;
  auto server = std::make_unique<Server>(service, serverOptions);
  std::promise<void> disconnected;
  auto options = plainClient();
  options.onDisconnect = [&] { disconnected.set_value(); };  // the watch ends first: the service is shutting down
  const auto client = connect(server->address(), options);
  auto reply = start(*client, "slow", sourceOf(""));
  awaitEvent(probe.entered);
  std::thread stopper([&] { server = nullptr; });
  awaitEvent(disconnected);
  probe.mayGoOn.set_value();
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "done");
  stopper.join();
}

}  // namespace
}  // namespace agent::spf::testing
