#include "worker/AttemptRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/files/testing/TemporaryDirectory.h"
#include "platform/logging/createQLVLogger.h"
#include "toolbox/BlobClient.h"

namespace parallel::worker {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using zksmessages::Ending;
using zksmessages::OutputFile;

class AttemptRunnerTest : public testing::Test {
 protected:
  AttemptRunnerTest() { std::filesystem::create_directory(spool_); }

  zksmessages::TaskCommand& command() { return *array_.mutable_command(); }
  void script(const std::string& text) {
    command().clear_argv();
    for (const std::string& argument : {std::string("/bin/sh"), std::string("-c"), text})
      command().add_argv(argument);
  }
  AttemptOutcome run() { return run(std::stop_token()); }
  AttemptOutcome run(
      const std::stop_token& stop, const AttemptRunner::OnStart& onStart = [](const auto&) {}) {
    Assignment assignment;
    assignment.attempt.set_number(12);
    assignment.array = std::make_shared<zksmessages::TaskArray>(array_);
    assignment.values = {4, "line"};
    return runner_.run(assignment, stop, onStart);
  }
  zksmessages::Blob stored(const std::string& bytes) {
    const auto blob = toolbox::LocalBlob::ofBytes(bytes);
    blobs_[std::string(blob.digest().bytes())] = bytes;
    zksmessages::Blob name = blob.described();
    name.clear_content();
    return name;
  }
  void fetch(const zksmessages::Blob& blob, const std::string& path) {
    const auto found = blobs_.find(blob.sha256());
    if (found == blobs_.end())
      throw std::runtime_error("no such blob");
    std::ofstream(path, std::ios::binary) << found->second;
  }
  static std::map<std::string, std::string> filesOf(const AttemptOutcome& outcome) {
    std::map<std::string, std::string> contents;
    for (const auto& file : outcome.result.files()) {
      const char* const names[] = {"", "<out>", "<err>"};
      contents[names[file.stream()] + file.name()] = file.content().content();
    }
    return contents;
  }

  files::testing::TemporaryDirectory files_;
  std::filesystem::path spool_ = files_.file("spool");
  std::map<std::string, std::string> blobs_;
  zksmessages::TaskArray array_;
  execution::ScratchArea area_{files_.path(), logging::createQLVLogger("test")};
  InputCache cache_{files_.file("cache"), 1 << 20};
  AttemptRunner runner_{area_, cache_, spool_,
                        [this](const auto& blob, const std::string& path, const auto&) { fetch(blob, path); },
                        std::chrono::seconds(1)};
};

using Files = std::map<std::string, std::string>;

TEST_F(AttemptRunnerTest, ACommandWithoutOutputIsASuccessWithoutFiles) {
  script("exit 0");
  const auto outcome = run();
  EXPECT_EQ(outcome.result.ending().reason(), Ending::REASON_SUCCESS);
  EXPECT_EQ(outcome.result.attempt().number(), 12U);
  EXPECT_THAT(outcome.result.files(), IsEmpty());
}

TEST_F(AttemptRunnerTest, InputsComeFromTheMessageOrTheCache) {
  script("cat; cat sub/in-4; ./program");
  *command().mutable_standard_input() = stored("first ");
  auto* input = command().add_inputs();
  input->set_name("sub/in-{index}");
  *input->mutable_content() = stored("second ");
  auto* program = command().add_inputs();
  program->set_name("program");
  program->set_executable(true);
  *program->mutable_content() = toolbox::LocalBlob::ofBytes("#!/bin/sh\necho third").described();
  EXPECT_EQ(filesOf(run()), (Files{{"<out>", "first second third\n"}}));
}

TEST_F(AttemptRunnerTest, OutputsAreFoundByNamePatternAndFolder) {
  script("mkdir -p d/e; echo 1 >a.txt; echo 2 >b.txt; echo 3 >d/e/c; echo 4 >other; ln -s other link.txt; echo e >&2");
  for (const char* output : {"*.txt", "d", "a.txt", "never"})
    command().add_outputs(output);
  const auto outcome = run();
  EXPECT_EQ(filesOf(outcome), (Files{{"a.txt", "1\n"}, {"b.txt", "2\n"}, {"d/e/c", "3\n"}, {"<err>", "e\n"}}));
  EXPECT_THAT(outcome.result.info().missing_outputs(), ElementsAre("link.txt", "never"));
  EXPECT_THAT(outcome.result.info().unusable_outputs().at("link.txt"), HasSubstr("symbolic link"));
}

TEST_F(AttemptRunnerTest, ALargeFileWaitsInTheSpoolUntilItsLastShareGoes) {
  script("head -c 100000 /dev/zero >large; head -c 70000 /dev/zero");
  command().add_outputs("large");
  {
    const auto outcome = run();
    ASSERT_EQ(outcome.result.files_size(), 2);
    for (const auto& file : outcome.result.files())
      EXPECT_FALSE(file.content().has_content());
    ASSERT_EQ(outcome.files.size(), 2U);
    const auto blob = toolbox::LocalBlob::ofFile(outcome.files[1]->path());
    EXPECT_EQ(blob.nbytes(), 100'000U);
    EXPECT_EQ(blob.digest().bytes(), outcome.result.files(1).content().sha256());
  }
  EXPECT_TRUE(std::filesystem::is_empty(spool_));
}

TEST_F(AttemptRunnerTest, EndingsSayHowItEnded) {
  script("exit 3");
  EXPECT_EQ(run().result.ending().code(), 3);
  script("kill -9 $$");
  EXPECT_EQ(run().result.ending().reason(), Ending::REASON_SIGNAL);
  EXPECT_EQ(run().result.ending().code(), 9);
  script("sleep 60");
  command().mutable_limits()->mutable_wall_time()->set_nanos(50'000'000);
  EXPECT_EQ(run().result.ending().reason(), Ending::REASON_TIME_LIMIT);
}

TEST_F(AttemptRunnerTest, WhatKeepsItFromStartingIsSaid) {
  const auto reason = [this] {
    const auto outcome = run();
    EXPECT_EQ(outcome.result.ending().reason(), Ending::REASON_NOT_STARTED);
    return outcome.result.info().message();
  };
  script("echo {what}");
  EXPECT_THAT(reason(), HasSubstr("{what}"));
  script("true");
  command().add_outputs("../{line}");
  EXPECT_THAT(reason(), HasSubstr("leads out"));
  command().clear_outputs();
  auto* input = command().add_inputs();
  input->set_name("in");
  input->mutable_content()->set_sha256(std::string(32, 'x'));
  EXPECT_THAT(reason(), HasSubstr("no such blob"));
  command().clear_inputs();
  command().set_argv(0, "no-such-program");
  EXPECT_THAT(reason(), HasSubstr("no-such-program"));
}

TEST_F(AttemptRunnerTest, ItRunsInPlaceWhereItIsTold) {
  std::filesystem::create_directory(files_.file("project"));
  script("echo made >result; pwd");
  command().set_in_place_folder(files_.file("project"));
  command().add_outputs("result");
  EXPECT_EQ(filesOf(run()), (Files{{"<out>", files_.file("project").string() + "\n"}}));
  EXPECT_TRUE(std::filesystem::exists(files_.file("project") / "result"));
}

TEST_F(AttemptRunnerTest, AStopEndsIt) {
  script("sleep 60");
  std::stop_source stop;
  const auto outcome = run(stop.get_token(), [&](const auto&) { stop.request_stop(); });
  EXPECT_TRUE(outcome.isStopped);
  EXPECT_EQ(outcome.result.ending().reason(), Ending::REASON_HANDED_BACK);
}

TEST_F(AttemptRunnerTest, NothingIsLeftInTheScratchArea) {
  script("echo x >file");
  run();
  EXPECT_TRUE(std::filesystem::is_empty(area_.path()));
}

}  // namespace
}  // namespace parallel::worker
