// A service that dies without a word: a process of its own, killed in mid-call.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/spf/grpc/TransportsTest.h"

namespace agent::spf {
namespace {

using core::ServerCall;
using core::testing::await;
using core::testing::call;
using core::testing::openReply;
using core::testing::patternOf;
using core::testing::readAll;
using core::testing::sourceOf;
using testing::awaitEvent;
using ::testing::HasSubstr;
using testing::TemporaryDirectory;

constexpr const char* kAddressVariable = "SPF_TEST_ADDRESS";

// Not a test: what the other process runs. It tells its parent on standard output when it listens, and waits for its
// end.
TEST(KilledService, DISABLED_Serves) {
  const char* address = ::getenv(kAddressVariable);
  ASSERT_NE(address, nullptr);
  auto service = std::make_shared<core::Service>();
  std::promise<void> never;
  auto future = never.get_future();
  service->add("silent", [&](ServerCall& served) {
    served.reply() << "x" << std::flush;
    future.wait();
  });
  service->add("deaf", [&](ServerCall&) { future.wait(); });
  service->add("produce", [&](ServerCall& served) {
    for (;;)
      served.reply() << patternOf(100'000);
  });
  const grpc_transport::Server server(service, {address, {}});
  ASSERT_EQ(::write(STDOUT_FILENO, "!", 1), 1);
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
  ::_exit(0);
}

class Process {
 public:
  explicit Process(const std::string& address) {
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe2");
    ::setenv(kAddressVariable, address.c_str(), 1);
    const char* arguments[] = {"killed", "--gtest_also_run_disabled_tests",
                               "--gtest_filter=KilledService.DISABLED_Serves", nullptr};
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(input[0], STDIN_FILENO);
      ::dup2(output[1], STDOUT_FILENO);
      ::execv("/proc/self/exe", const_cast<char**>(arguments));
      ::_exit(127);
    }
    ::close(input[0]);
    ::close(output[1]);
    input_ = input[1];
    char byte = 0;
    while (byte != '!')
      if (::read(output[0], &byte, 1) != 1)
        throw std::runtime_error("the service did not start");
    ::close(output[0]);
  }
  ~Process() {
    kill();
    ::close(input_);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void kill() {
    if (pid_ < 0)
      return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

TEST(KilledService, WaitersReadersAndUploadsAreTerminatedNamingTheAddress) {
  const TemporaryDirectory directory;
  Process process(directory.address());
  std::promise<void> disconnected;
  grpc_transport::ConnectOptions options;
  options.onDisconnect = [&] { disconnected.set_value(); };
  const auto client = grpc_transport::connect(directory.address(), options);
  const auto silent = openReply(*client, "silent", sourceOf(""));
  ASSERT_EQ(silent->get(), 'x');
  const auto producing = openReply(*client, "produce", sourceOf(""));
  producing->ignore(200'000);
  auto waiting = core::testing::start(*client, "deaf", sourceOf(""));
  auto uploading = core::testing::start(*client, "deaf", sourceOf(patternOf(64 << 20)));
  process.kill();
  for (auto* future : {&waiting, &uploading}) {
    const auto chain = testing::chainThrownBy([&] { await(*future); });
    ASSERT_EQ(chain.size(), 1U);
    EXPECT_EQ(chain[0].kind, core::ErrorLevel::Kind::terminated);
    EXPECT_THAT(chain[0].text, HasSubstr(directory.address()));
  }
  EXPECT_THROW(silent->get(), Terminated);
  EXPECT_THROW(readAll(*producing), Terminated);
  EXPECT_THROW(call(*client, "silent", std::string()), Terminated);
  awaitEvent(disconnected);
}

TEST(KilledService, IdleConnectionLearnsOfIt) {
  const TemporaryDirectory directory;
  Process process(directory.address());
  std::promise<void> disconnected;
  grpc_transport::ConnectOptions options;
  options.onDisconnect = [&] { disconnected.set_value(); };
  const auto client = grpc_transport::connect(directory.address(), options);
  process.kill();
  awaitEvent(disconnected);
  EXPECT_THROW(call(*client, "silent", std::string()), Terminated);
}

}  // namespace
}  // namespace agent::spf
