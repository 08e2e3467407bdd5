// Expecting identified errors with their whole text.
#pragma once

#include <gtest/gtest.h>

#include <string>

// EXPECT_IDENTIFIED(MalformedRequest, "The request ...", statement)
#define EXPECT_IDENTIFIED(tag, text, statement)                  \
  try {                                                          \
    statement;                                                   \
    ADD_FAILURE() << "nothing was thrown";                       \
  } catch (const Exception<parallel::scheduler::tag>& failure) { \
    EXPECT_EQ(std::string(failure.what()), text);                \
  }
