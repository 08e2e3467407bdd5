#include "cli/errorLine.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace zks {
namespace {

std::exception_ptr errorOf(const std::string& text) {
  return std::make_exception_ptr(std::runtime_error(text));
}

TEST(ErrorLine, CausesFollowOneAnotherInOneLine) {
  EXPECT_EQ(errorLine(errorOf("echo failed.\n no such thing:\n  at all.\n")), "echo failed: no such thing: at all.");
  EXPECT_EQ(joinedLines("\n\n one \r\n\n two\n"), "one: two");
  EXPECT_EQ(joinedLines(""), "");
}

TEST(ErrorLine, ExceptionsWithoutTextHaveOne) {
  EXPECT_EQ(errorLine(std::make_exception_ptr(std::bad_alloc())), "out of memory");
  EXPECT_EQ(errorLine(std::make_exception_ptr(7)), "an error of an unknown kind");
}

}  // namespace
}  // namespace zks
