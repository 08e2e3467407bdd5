#include "platform/files/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

using files::UniqueFd;

UniqueFd openNothing() {
  return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

bool isOpen(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

TEST(UniqueFd, DescriptorIsClosedWithItsOwner) {
  int number = -1;
  {
    const UniqueFd file = openNothing();
    number = file.get();
    ASSERT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(UniqueFd, MovedFromOwnsNothing) {
  UniqueFd first = openNothing();
  const int number = first.get();
  const UniqueFd second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move)
  first.reset();
  EXPECT_EQ(second.get(), number);
  EXPECT_TRUE(isOpen(number));
}

TEST(UniqueFd, ReleasedDescriptorIsItsNewOwnersToClose) {
  UniqueFd file = openNothing();
  const UniqueFd next(file.release());
  EXPECT_FALSE(file);
  EXPECT_TRUE(isOpen(next.get()));
}

TEST(UniqueFd, AssignmentClosesWhatWasOwned) {
  UniqueFd file = openNothing();
  const int replaced = file.get();
  file = openNothing();
  EXPECT_FALSE(isOpen(replaced));
  EXPECT_TRUE(isOpen(file.get()));
}

TEST(UniqueFd, NegativeNumberIsNotADescriptor) {
  EXPECT_FALSE(UniqueFd(-1));
  EXPECT_FALSE(UniqueFd());
  EXPECT_TRUE(openNothing());
}

}  // namespace
