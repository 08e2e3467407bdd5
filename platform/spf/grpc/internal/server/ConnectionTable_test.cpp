#include "platform/spf/grpc/internal/server/ConnectionTable.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/files/UniqueFd.h"
#include "platform/spf/grpc/internal/server/ListeningSockets.h"

namespace agent::spf::grpc_transport::internal {
namespace {

// Two ends of a connection.
struct Pair {
  Pair() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
      throw std::runtime_error("socketpair");
    ours = files::UniqueFd(ends[0]);
    theirs = files::UniqueFd(ends[1]);
  }
  files::UniqueFd ours;
  files::UniqueFd theirs;
};

Pair connectedTo(const ListeningSockets& listening) {
  sockaddr_storage at{};
  socklen_t size = sizeof at;
  const int listener = listening.sockets().front().get();
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&at), &size);
  Pair pair;
  pair.theirs = files::UniqueFd(::socket(at.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(pair.theirs.get(), reinterpret_cast<sockaddr*>(&at), size) != 0)
    throw std::runtime_error("connect");
  pair.ours = files::UniqueFd(::accept(listener, nullptr, nullptr));
  return pair;
}

TEST(ConnectionTable, ProcessAtTheOtherEndOfASocketFileIsAPeer) {
  const Pair pair;
  EXPECT_EQ(peerOf(pair.ours.get()), "process " + std::to_string(::getpid()));
}

TEST(ConnectionTable, OnlyUserOfASocketFileIsKnown) {
  ConnectionTable table(10, 10);
  EXPECT_EQ(table.onlyUser(), std::nullopt);
  Pair pair;
  table.admit(pair.ours.get(), "a");
  EXPECT_EQ(table.onlyUser(), ::geteuid());
  pair.theirs.reset();
  const Pair next;
  table.admit(next.ours.get(), "b");
  EXPECT_EQ(table.onlyUser(), ::geteuid());
}

TEST(ConnectionTable, OfTwoUsersOfASocketFileNobodyKnowsWhichItIs) {
  constexpr uid_t kAnother = 12'345;
  const uid_t ours = ::geteuid();
  if (ours != 0)
    GTEST_SKIP() << "needs root";
  ConnectionTable table(10, 10);
  const Pair one;
  table.admit(one.ours.get(), "a");
  // Of this thread only.
  ASSERT_EQ(::syscall(SYS_setresuid, -1, kAnother, -1), 0);
  Pair another;
  ASSERT_EQ(::syscall(SYS_setresuid, -1, ours, -1), 0);
  table.admit(another.ours.get(), "b");
  EXPECT_EQ(table.onlyUser(), std::nullopt);
  another.theirs.reset();
  EXPECT_EQ(table.onlyUser(), std::nullopt) << "its streams may still be under way";
}

TEST(ConnectionTable, ATcpConnectionHasNoUser) {
  const ListeningSockets listening("127.0.0.1:0", std::chrono::seconds(1));
  const Pair pair = connectedTo(listening);
  ConnectionTable table(10, 10);
  table.admit(pair.ours.get(), "a");
  EXPECT_EQ(table.onlyUser(), std::nullopt);
}

TEST(ConnectionTable, TakesAsManyOfAPeerAsItMay) {
  ConnectionTable table(10, 2);
  const Pair first;
  const Pair second;
  EXPECT_TRUE(table.admit(first.ours.get(), "a"));
  EXPECT_TRUE(table.admit(first.theirs.get(), "a"));
  EXPECT_FALSE(table.admit(second.ours.get(), "a"));
  EXPECT_TRUE(table.admit(second.ours.get(), "b"));
}

TEST(ConnectionTable, IsFullUntilAConnectionCloses) {
  ConnectionTable table(2, 2);
  Pair pair;
  EXPECT_FALSE(table.isFull());
  EXPECT_TRUE(table.admit(pair.ours.get(), "a"));
  EXPECT_TRUE(table.admit(pair.theirs.get(), "a"));
  EXPECT_TRUE(table.isFull());
  pair.theirs.reset();
  EXPECT_FALSE(table.isFull());
}

TEST(ConnectionTable, ClosedConnectionMakesRoomForItsPeerThoughItsNumberIsInUseAgain) {
  ConnectionTable table(10, 1);
  Pair old;
  const int number = old.ours.get();
  EXPECT_TRUE(table.admit(number, "a"));
  Pair next;
  ASSERT_EQ(::dup3(next.ours.get(), number, O_CLOEXEC), number);
  EXPECT_TRUE(table.admit(next.theirs.get(), "a"));
}

TEST(ConnectionTable, NumberThatIsTakenInAnewIsAnotherConnection) {
  ConnectionTable table(10, 1);
  Pair old;
  const int number = old.ours.get();
  EXPECT_TRUE(table.admit(number, "a"));
  const Pair next;
  ASSERT_EQ(::dup3(next.ours.get(), number, O_CLOEXEC), number);
  EXPECT_TRUE(table.admit(number, "b"));
  EXPECT_FALSE(table.admit(next.theirs.get(), "b"));
}

bool isEnded(const files::UniqueFd& socket) {
  char byte = 0;
  return ::recv(socket.get(), &byte, 1, MSG_DONTWAIT) == 0;
}

TEST(ConnectionTable, HeaviestConnectionOfASocketFileIsTheNewest) {
  ConnectionTable table(10, 10);
  const Pair older;
  const Pair newer;
  EXPECT_FALSE(table.endHeaviest());
  EXPECT_TRUE(table.admit(older.ours.get(), "older"));
  EXPECT_TRUE(table.admit(newer.ours.get(), "newer"));
  EXPECT_EQ(table.endHeaviest(), "newer");
  EXPECT_TRUE(isEnded(newer.theirs));
  EXPECT_FALSE(isEnded(older.theirs));
  EXPECT_EQ(table.endHeaviest(), "older");
}

TEST(ConnectionTable, HeaviestConnectionOverTcpHasBroughtTheMost) {
  ConnectionTable table(10, 10);
  const ListeningSockets listening("127.0.0.1:0", std::chrono::milliseconds(1000));
  const Pair light = connectedTo(listening);
  const Pair heavy = connectedTo(listening);
  const Pair newest = connectedTo(listening);
  ASSERT_EQ(::send(heavy.theirs.get(), "abc", 3, 0), 3);
  ASSERT_EQ(::send(light.theirs.get(), "a", 1, 0), 1);
  for (const Pair* pair : {&light, &heavy, &newest})
    EXPECT_TRUE(table.admit(pair->ours.get(), pair == &heavy ? "heavy" : "another"));
  EXPECT_EQ(table.endHeaviest(), "heavy");
}

TEST(ConnectionTable, ClientOfTcpHasAnAddressAndOneOfASocketFileHasNone) {
  for (const char* address : {"127.0.0.1:0", "[::1]:0"}) {
    const ListeningSockets listening(address, std::chrono::milliseconds(1000));
    const Pair pair = connectedTo(listening);
    const std::string client = clientAt(pair.ours.get());
    const std::string host = std::string(address).substr(0, std::string(address).rfind(':') + 1);
    EXPECT_TRUE(client.starts_with(host) && client.size() > host.size()) << client;
  }
  EXPECT_EQ(clientAt(Pair().ours.get()), "");
}

using Counts = std::map<std::string, std::size_t>;

TEST(ConnectionTable, CountsThoseThatCloseBeforeTheirClientHasShownWhoItIs) {
  ConnectionTable table(10, 10);
  const ListeningSockets listening("127.0.0.1:0", std::chrono::milliseconds(1000));
  Pair stranger = connectedTo(listening);
  Pair known = connectedTo(listening);
  Pair overFile;
  EXPECT_TRUE(table.admit(stranger.ours.get(), "stranger"));
  EXPECT_TRUE(table.admit(known.ours.get(), "known"));
  EXPECT_TRUE(table.admit(overFile.ours.get(), "process"));
  table.introduced(clientAt(known.ours.get()));
  EXPECT_EQ(table.takeClosedStrangers(), Counts{});
  for (Pair* pair : {&stranger, &known, &overFile})
    pair->ours.reset();
  EXPECT_EQ(table.takeClosedStrangers(), (Counts{{"stranger", 1}}));
  EXPECT_EQ(table.takeClosedStrangers(), Counts{});
}

TEST(ConnectionTable, CountsThoseThatCloseAlsoWhenTheirNumberIsInUseAgain) {
  ConnectionTable table(10, 10);
  const ListeningSockets listening("127.0.0.1:0", std::chrono::milliseconds(1000));
  Pair old = connectedTo(listening);
  const int number = old.ours.get();
  EXPECT_TRUE(table.admit(number, "old"));
  const Pair next = connectedTo(listening);
  ASSERT_EQ(::dup3(next.ours.get(), number, O_CLOEXEC), number);
  EXPECT_TRUE(table.admit(number, "next"));
  EXPECT_EQ(table.takeClosedStrangers(), (Counts{{"old", 1}}));
}

void fillUp(const files::UniqueFd& socket) {
  const std::array<char, 4096> bytes{};
  while (::send(socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
  }
}

void emptyOut(const files::UniqueFd& socket) {
  std::array<char, 4096> bytes{};
  while (::recv(socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
  }
}

TEST(ConnectionTable, ConnectionWhoseClientTakesNothingEndsAfterTheTime) {
  constexpr std::chrono::milliseconds kTime{80};
  const ConnectionTable::TimePoint begin{};
  ConnectionTable table(10, 10);
  const Pair stuck;
  const Pair taking;
  const Pair quiet;
  EXPECT_TRUE(table.admit(stuck.ours.get(), "stuck"));
  EXPECT_TRUE(table.admit(taking.ours.get(), "taking"));
  EXPECT_TRUE(table.admit(quiet.ours.get(), "quiet"));
  fillUp(stuck.ours);
  fillUp(taking.ours);
  EXPECT_TRUE(table.endStuck(begin, kTime).empty());
  std::array<char, 100'000> some{};
  ASSERT_GT(::recv(taking.theirs.get(), some.data(), some.size(), 0), 0);
  EXPECT_TRUE(table.endStuck(begin + kTime - std::chrono::milliseconds(1), kTime).empty());
  EXPECT_EQ(table.endStuck(begin + kTime, kTime), (std::vector<std::string>{"stuck"}));
  emptyOut(stuck.theirs);
  EXPECT_TRUE(isEnded(stuck.theirs));
  emptyOut(taking.theirs);
  EXPECT_TRUE(table.endStuck(begin + 3 * kTime, kTime).empty());
  EXPECT_FALSE(isEnded(taking.theirs));
}

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
