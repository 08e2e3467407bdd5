// How much memory client and service take, each a process of its own, whatever the reader does: what they hold
// themselves, and 64 MiB; and a few MiB more for each call where there are many at once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/spf/grpc/TransportsTest.h"
#include "platform/spf/grpc/testing/ServiceProcess.h"

namespace agent::spf::testing {
namespace {

constexpr long kMebibyte = 1L << 20;
constexpr long kOverhead = 64 * kMebibyte;
// What a call costs who reads it slowly: gRPC's window of 4 MiB, a message that it puts together, 2 MiB and a frame that
// are read ahead, the MiB that the tests themselves read into, and what malloc keeps of each.
constexpr long kPerCall = 10 * kMebibyte;
// Of many calls on one connection it may be there twice. gRPC takes 64 KiB from the socket at once, with pieces of
// several calls, and keeps them as long as one piece is unread. So when some calls read on and hold what came anew, their
// old bytes stay for the sake of the others. How finely the pieces are mixed depends on how busy the machine is: 460 MiB
// of 64 calls were seen, and 690. Whole payloads would be 4096 MiB.
constexpr long kPerCallOfMany = 2 * kPerCall;

// A figure of /proc/PID/status, in bytes.
long statusOf(pid_t pid, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; status >> word;)
    if (long kibibytes = 0; word == name + ":" && status >> kibibytes)
      return kibibytes << 10U;
  throw std::runtime_error("no " + name + " of process " + std::to_string(pid));
}

// How far a process has grown since this object was made, at its largest.
class Growth {
 public:
  explicit Growth(pid_t pid) : pid_(pid) {
    std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << 5;  // forgets the peak so far
    atFirst_ = statusOf(pid, "VmHWM");
  }
  long peak() const { return statusOf(pid_, "VmHWM") - atFirst_; }

 private:
  pid_t pid_;
  long atFirst_ = 0;
};

class Memory : public ::testing::TestWithParam<std::string> {
 protected:
  core::Invokable& client() { return *client_; }

  void expectWithin(long clientBytes, long serviceBytes) {
    RecordProperty("client_MiB", std::to_string(ours_.peak() / kMebibyte));
    RecordProperty("service_MiB", std::to_string(theirs_.peak() / kMebibyte));
    EXPECT_LE(ours_.peak(), clientBytes);
    EXPECT_LE(theirs_.peak(), serviceBytes);
  }

  // Returns when the writer of some transfer gets no further: its count stays the same, however many calls are made
  // meanwhile.
  void awaitStall(const std::function<std::string()>& count) {
    constexpr int kCalls = 300;
    std::string last;
    for (int same = 0; same < kCalls; ++same) {
      call(client(), "echo", std::string("x"));
      if (const std::string now = count(); now != last) {
        last = now;
        same = 0;
      }
    }
  }
  void awaitStallOfReplies() {
    awaitStall([this] { return call(client(), "written", std::string()); });
  }

  void readReplies(std::size_t count, long size);
  void sendRequests(std::size_t count, long size);

 private:
  TemporaryDirectory directory_;
  ServiceProcess process_{GetParam() == "unix" ? directory_.address() : "127.0.0.1:0"};
  std::shared_ptr<core::Invokable> client_ = grpc_transport::connect(process_.address(), plainClient());
  Growth ours_{::getpid()};
  Growth theirs_{process_.pid()};
};

// Reads so many replies a half at a time, all of them when none of their writers gets any further.
void Memory::readReplies(std::size_t count, long size) {
  std::vector<core::testing::ReplyFuture> futures;
  for (std::size_t i = 0; i < count; ++i)
    futures.push_back(start(client(), "stream", sourceOf(std::to_string(size))));
  std::vector<std::unique_ptr<std::istream>> replies;
  for (auto& future : futures)
    replies.push_back(await(future)->getImportedIstream());
  const std::string piece = patternOf(static_cast<std::size_t>(kMebibyte));
  std::string part(piece.size(), '\0');
  for (int half = 0; half < 2; ++half) {
    awaitStallOfReplies();
    for (const auto& reply : replies)
      for (long read = 0; read < size / 2; read += kMebibyte) {
        reply->read(part.data(), kMebibyte);
        ASSERT_TRUE(part == piece);
      }
  }
  for (const auto& reply : replies)
    EXPECT_EQ(reply->get(), std::char_traits<char>::eof());
}

// Sends so many requests to a method that reads a half at a time, each when no writer gets any further.
void Memory::sendRequests(std::size_t count, long size) {
  std::atomic<long> sent{0};
  const std::string piece = patternOf(static_cast<std::size_t>(kMebibyte));
  const auto writer = [&sent, &piece, size](std::ostream& out) {
    for (long left = size; left > 0; left -= kMebibyte) {
      out.write(piece.data(), kMebibyte);
      sent += kMebibyte;
    }
  };
  std::vector<core::testing::ReplyFuture> futures;
  for (std::size_t i = 0; i < count; ++i)
    futures.push_back(start(client(), "readSlowly", sourceOf(writer, size)));
  for (int half = 0; half < 2; ++half) {
    awaitStall([&sent] { return std::to_string(sent); });
    for (std::size_t i = 0; i < count; ++i)
      call(client(), "readOn", std::string());
  }
  for (auto& future : futures)
    EXPECT_EQ(readAll(*await(future)->getImportedIstream()), std::to_string(size));
}

TEST_P(Memory, SlowReaderOfAReplyCostsNeitherSideMore) {
  readReplies(1, 512 * kMebibyte);
  expectWithin(kOverhead, kOverhead);
}

TEST_P(Memory, SlowReaderOfARequestCostsNeitherSideMore) {
  sendRequests(1, 512 * kMebibyte);
  expectWithin(kOverhead, kOverhead);
}

// The request and the reply are held by the client at once, and one of them at a time by the service.
TEST_P(Memory, PayloadsThatAreHeldAreThereOnce) {
  constexpr long kSize = 256 * kMebibyte;
  const auto request = std::make_shared<std::string>(patternOf(kSize));
  const auto reply =
      openReply(client(), "keep", sourceOf([&](std::ostream& out) { out.write(request->data(), kSize); }, kSize));
  std::string received(kSize, '\0');
  reply->read(received.data(), kSize);
  EXPECT_TRUE(received == *request);
  expectWithin(2 * kSize + kOverhead, kSize + kOverhead);
}

INSTANTIATE_TEST_SUITE_P(All, Memory, ::testing::Values("unix", "tcp"), nameOfTransport);

constexpr std::size_t kMany = 64;

class MemoryOfMany : public Memory {};

TEST_P(MemoryOfMany, SlowReadersOfRepliesCostTheClientALittleEach) {
  readReplies(kMany, 64 * kMebibyte);
  expectWithin(kMany * kPerCallOfMany + kOverhead, kOverhead);
}

TEST_P(MemoryOfMany, SlowReadersOfRequestsCostTheServiceALittleEach) {
  sendRequests(kMany, 64 * kMebibyte);
  expectWithin(kOverhead, kMany * kPerCallOfMany + kOverhead);
}

INSTANTIATE_TEST_SUITE_P(All, MemoryOfMany, ::testing::Values("tcp"), nameOfTransport);

}  // namespace
}  // namespace agent::spf::testing
