#include "cli/jobArguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "cli/CliError.h"

namespace zks {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

void expectRefused(const std::function<void()>& parse, const std::string& text) {
  try {
    parse();
    ADD_FAILURE() << "accepted: " << text;
  } catch (const UsageError& error) {
    EXPECT_THAT(error.what(), HasSubstr(text));
  }
}

TEST(JobArguments, ArraysHaveARangeAStepAndAnumberAtOnce) {
  EXPECT_EQ(parseArray("7"), (ArrayArgument{7, 7, 1, 0}));
  EXPECT_EQ(parseArray("0-99"), (ArrayArgument{0, 99, 1, 0}));
  EXPECT_EQ(parseArray("10-20:5%2"), (ArrayArgument{10, 20, 5, 2}));
  EXPECT_EQ(parseArray("0-99%4"), (ArrayArgument{0, 99, 1, 4}));
  EXPECT_EQ(parseArray("0-99").count(), 100U);
  EXPECT_EQ(parseArray("0-10:3").count(), 4U);
  EXPECT_EQ(parseArray("5").count(), 1U);
  EXPECT_EQ(parseArray("0-999999999").count(), 1'000'000'000U);
}

TEST(JobArguments, WhatIsNoArrayIsRefused) {
  for (const char* text : {"", "a", "9-0", "-5", "0-", "-", "0-9:0", "0-9:", "0-9%0", "0-9%", "0-9%x", "0-9 ", "0x9",
                           "0-99999999999999999999"})
    expectRefused([&] { parseArray(text); }, "is not a range of indexes");
  expectRefused([] { parseArray("0-1000000000"); }, "more than 1000000000 tasks");
}

TEST(JobArguments, TimesAreSecondsUnitsOrAClock) {
  EXPECT_EQ(parseTime("--time", "90"), 90);
  EXPECT_EQ(parseTime("--time", "45s"), 45);
  EXPECT_EQ(parseTime("--time", "15m"), 900);
  EXPECT_EQ(parseTime("--time", "15min"), 900);
  EXPECT_EQ(parseTime("--time", "1h30m"), 5400);
  EXPECT_EQ(parseTime("--time", "1.5h"), 5400);
  EXPECT_EQ(parseTime("--time", "2d"), 172800);
  EXPECT_EQ(parseTime("--time", "500ms"), 0.5);
  EXPECT_EQ(parseTime("--time", "1:30:00"), 5400);
  EXPECT_EQ(parseTime("--time", "10:30"), 630);
}

TEST(JobArguments, WhatIsNoTimeIsRefused) {
  for (const char* text :
       {"", "0", "-1", "x", "1x", "h", "1:2:3:4", ":30", "1:", "0:00", "nan", "inf", "1e99", "9999999d"})
    expectRefused([&] { parseTime("--time", text); }, "--time \"" + std::string(text) + "\" is not a time");
}

TEST(JobArguments, OthersAreNamedByJobAndTask) {
  EXPECT_EQ(parseAfter("7"), (AfterArgument{"7", std::nullopt}));
  EXPECT_EQ(parseAfter("fit:3"), (AfterArgument{"fit", 3}));
  for (const char* text : {"", ":3", "7:", "7:x", "7:-1"})
    expectRefused([&] { parseAfter(text); }, "is not JOB or JOB:TASK");
}

TEST(JobArguments, TaskRangesAreANumberOrTwo) {
  EXPECT_EQ(parseTaskRange("7"), (TaskRange{7, 7}));
  EXPECT_EQ(parseTaskRange("3-9"), (TaskRange{3, 9}));
  for (const char* text : {"", "9-3", "a", "1-", "-1", "1,2"})
    expectRefused([&] { parseTaskRange(text); }, "is not a task or a range");
}

TEST(JobArguments, InputsMayHaveAnotherNameAfterTheLastEquals) {
  EXPECT_EQ(parseJobInput("dir/a.csv"), (JobInputArgument{"dir/a.csv", std::nullopt}));
  EXPECT_EQ(parseJobInput("a.csv=data/{index}.csv"), (JobInputArgument{"a.csv", "data/{index}.csv"}));
  EXPECT_EQ(parseJobInput("a=b=c"), (JobInputArgument{"a=b", "c"}));
  for (const char* text : {"", "=x", "x="})
    expectRefused([&] { parseJobInput(text); }, "does not name a file");
}

TEST(JobArguments, ResourcesHaveANumber) {
  EXPECT_THAT(parseResource("gpu=2"), Pair("gpu", 2U));
  for (const char* text : {"", "gpu", "gpu=", "=2", "gpu=x", "gpu=-1"})
    expectRefused([&] { parseResource(text); }, "NAME=N");
}

TEST(JobArguments, RetryReasonsAreAList) {
  RetryArgument retries;
  parseRetryReasons("exit:75,signal,exit:3,lost", retries);
  RetryArgument wanted;
  wanted.exit = wanted.signal = wanted.lost = true;
  wanted.exitCodes = {75, 3};
  EXPECT_EQ(retries, wanted);
  RetryArgument others;
  parseRetryReasons("memory,time,exit", others);
  EXPECT_TRUE(others.memory && others.time && others.exit && !others.signal && !others.lost);
  EXPECT_THAT(others.exitCodes, IsEmpty());
  for (const char* text : {"", "exit,", "exit:", "exit:x", "signal:9", "sometimes"})
    expectRefused([&] { parseRetryReasons(text, retries); }, "is not a list of");
}

TEST(JobArguments, KeysAreShortPlainWords) {
  checkKey("a-key_1.2");
  checkKey(std::string(128, 'k'));
  for (const std::string& key : {std::string(), std::string("a b"), std::string("ä"), std::string(129, 'k')})
    expectRefused([&] { checkKey(key); }, "is not 1 to 128 letters");
}

TEST(JobArguments, OptionsStandInAScriptsFirstComments) {
  EXPECT_THAT(optionsInScript("#!/bin/sh\n"
                              "# zks: --name 'two words' --cores 2\n"
                              "# a comment\n\n"
                              "# zks:--output \"a b\"\\ c\r\n"
                              "#zks: --not-this\n"
                              "echo hello\n"
                              "# zks: --nor-this\n"),
              ElementsAre("--name", "two words", "--cores", "2", "--output", "a b c"));
  EXPECT_THAT(optionsInScript("# zks: --name ''"), ElementsAre("--name", ""));
  EXPECT_THAT(optionsInScript(""), IsEmpty());
  expectRefused([] { optionsInScript("# zks: --name 'x\n"); }, "a quote is not closed");
}

}  // namespace
}  // namespace zks
