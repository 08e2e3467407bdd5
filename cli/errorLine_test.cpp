#include "cli/errorLine.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "cli/LogOutput.h"

namespace zks {
namespace {

std::exception_ptr errorOf(const std::string& text) {
  return std::make_exception_ptr(std::runtime_error(text));
}

TEST(ErrorLine, CausesFollowOneAnotherInOneLine) {
  EXPECT_EQ(errorLine(errorOf("echo failed.\n no such thing:\n  at all.\n"), ""),
            "echo failed: no such thing: at all.");
  EXPECT_EQ(joinedLines("\n\n one \r\n\n two\n"), "one: two");
  EXPECT_EQ(joinedLines(""), "");
}

TEST(ErrorLine, CauseStandsInForTheHintAtTheLog) {
  const auto error = errorOf("Item 1 failed\n An array could not be read. The log says why (--log detail).");
  EXPECT_EQ(errorLine(error, "The bytes are not an array.\n"),
            "Item 1 failed: An array could not be read: The bytes are not an array.");
  EXPECT_EQ(errorLine(error, ""), "Item 1 failed: An array could not be read. The log says why (--log detail).");
}

TEST(ErrorLine, ExceptionsWithoutTextHaveOne) {
  EXPECT_EQ(errorLine(std::make_exception_ptr(std::bad_alloc()), ""), "out of memory");
  EXPECT_EQ(errorLine(std::make_exception_ptr(7), ""), "an error of an unknown kind");
}

TEST(CauseFromDiagnostic, IsTheLineOfWhat) {
  EXPECT_EQ(causeFromDiagnostic("Exception caught: Dynamic exception type: std::runtime_error\n"
                                "std::exception::what: not enough\nmore"),
            "not enough");
  EXPECT_EQ(causeFromDiagnostic("Exception caught: Unknown exception."), "");
}

}  // namespace
}  // namespace zks
