#include "scheduler/store/StoreLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::scheduler::store {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::ThrowsMessage;

TEST(StoreLock, SecondIsToldWhoHoldsIt) {
  const files::testing::TemporaryDirectory place;
  std::optional<StoreLock> first(place.path());
  EXPECT_THAT([&] { StoreLock(place.path()); }, ThrowsMessage<Exception<parallel::store::StoreInUse>>(
                                                    AllOf(HasSubstr(place.path()), HasSubstr(StoreLock::ownName()))));
  first.reset();
  const StoreLock second(place.path());
}

TEST(StoreLock, HolderIsNamedByProcessHostAndBoot) {
  EXPECT_THAT(StoreLock::ownName(), MatchesRegex("process [0-9]+ on host .+ \\(boot [0-9a-f-]+\\)"));
}

TEST(StoreLock, GoesWithAProcessThatIsKilled) {
  const files::testing::TemporaryDirectory place;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    const StoreLock lock(place.path());
    [[maybe_unused]] const ssize_t written = ::write(ready[1], "x", 1);
    ::pause();
    ::_exit(0);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_THAT([&] { StoreLock(place.path()); },
              ThrowsMessage<Exception<parallel::store::StoreInUse>>(HasSubstr("process " + std::to_string(holder))));
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
  const StoreLock next(place.path());
}

}  // namespace
}  // namespace parallel::scheduler::store
