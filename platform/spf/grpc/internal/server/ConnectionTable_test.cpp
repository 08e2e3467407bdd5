#include "platform/spf/grpc/internal/server/ConnectionTable.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

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

}  // namespace
}  // namespace agent::spf::grpc_transport::internal
