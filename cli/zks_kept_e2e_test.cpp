// Jobs from their submission to their outputs: the real zks, zksd and zks-worker.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include "cli/UserService.h"
#include "cli/testing/ZksFixture.h"

namespace zks {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ZksKept : public ZksFixture {
 protected:
  ZksKept() {
    std::filesystem::create_directory(path("run"));
    ::setenv("XDG_RUNTIME_DIR", path("run").c_str(), 1);
    ::setenv("XDG_STATE_HOME", path("state").c_str(), 1);
  }
  ~ZksKept() override {
    for (const pid_t worker : workers_)
      ::kill(worker, SIGTERM);
    stopUserService();
    ::unsetenv("XDG_RUNTIME_DIR");
    ::unsetenv("XDG_STATE_HOME");
  }

  // Runs zks, and notes the worker that it may have started.
  ProcessOutcome run(const Words& words) {
    ProcessOutcome outcome = zks(words);
    const std::string mark = "zks-worker, process ";
    if (const std::size_t place = outcome.error.find(mark); place != std::string::npos)
      workers_.push_back(std::stoi(outcome.error.substr(place + mark.size())));
    return outcome;
  }

 private:
  std::vector<pid_t> workers_;
};

TEST_F(ZksKept, AnArraySurvivesItsService) {
  constexpr int kTasks = 40;
  writeFile(path("word"), "hello");
  const auto submitted = run({"submit", "--array", "0-39", "--input", "word", "--output", "out-{index}", "--", "sh",
                              "-c", "printf '%s {index} %s' \"$(cat word)\" $ZKS_INDEX > out-{index}; echo said"});
  ASSERT_EQ(submitted.exitCode, 0) << submitted.error;
  EXPECT_EQ(submitted.output,
            "Job 1 (sh): 40 tasks; \"zks wait 1\" waits for them, \"zks fetch 1\" brings the outputs\n");
  const auto service = findUserService();
  ASSERT_TRUE(service);
  ::kill(*service, SIGKILL);
  const auto waited = run({"wait", "last"});
  EXPECT_EQ(waited.exitCode, 0) << waited.error;
  EXPECT_EQ(waited.output, "Job 1 (sh) succeeded: 40 tasks: 40 succeeded\n");
  EXPECT_NE(findUserService(), service);
  const auto fetched = run({"fetch", "last", "--to", "outputs"});
  EXPECT_EQ(fetched.exitCode, 0) << fetched.error;
  for (int task = 0; task < kTasks; ++task) {
    const std::string number = std::to_string(task);
    EXPECT_EQ(readFile(path("outputs/" + number + "/out-" + number)), "hello " + number + " " + number);
    EXPECT_EQ(readFile(path("outputs/" + number + "/stdout")), "said\n");
  }
  EXPECT_EQ(run({"logs", "last", "7"}).output, "said\n");
}

TEST_F(ZksKept, FollowingIsAsRunningIt) {
  const std::string large = someBytes(300'000);
  writeFile(path("large"), large);
  const auto followed = run({"submit", "--follow", "--input", "large", "--output", "copy", "--", "sh", "-c",
                             "cat large >copy; echo out; echo err >&2; exit 3"});
  EXPECT_EQ(followed.exitCode, 3) << followed.error;
  EXPECT_EQ(followed.output, "out\n");
  EXPECT_THAT(followed.error, HasSubstr("err\n"));
  EXPECT_EQ(readFile(path("copy")), large);
  const auto waited = run({"wait", "last"});
  EXPECT_EQ(waited.exitCode, 1);
  EXPECT_THAT(waited.output, HasSubstr("failed: 1 task: 1 failed"));
  EXPECT_THAT(waited.error, HasSubstr("task 0: exit code 3: err"));
}

TEST_F(ZksKept, TheSameKeyIsTheSameJob) {
  EXPECT_EQ(run({"submit", "--quiet", "--key", "k", "--", "true"}).output, "1\n");
  EXPECT_EQ(run({"submit", "--quiet", "--key", "k", "--", "true"}).output, "1\n");
  const auto other = run({"submit", "--quiet", "--key", "k", "--", "false"});
  EXPECT_EQ(other.exitCode, 1);
  EXPECT_THAT(other.error, HasSubstr("The key \"k\" stands for something else"));
  EXPECT_EQ(run({"wait", "1"}).exitCode, 0);
}

}  // namespace
}  // namespace zks
