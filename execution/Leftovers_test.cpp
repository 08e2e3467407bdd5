// Real processes that leave their group in every way that we know.
#include "execution/Leftovers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "execution/ProcessRunner.h"
#include "execution/procFiles.h"
#include "execution/testing/waiting.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::execution {
namespace {

using files::UniqueFd;
using testing::eventually;
using testing::hasEnded;
using testing::readLine;
using testing::TestPipe;

bool isBorneByAnybody(const std::string& mark) {
  const std::vector<pid_t> all = processesOfThisUser();
  return std::any_of(all.begin(), all.end(), [&](pid_t pid) { return environmentValue(pid, "ZKS_MARK") == mark; });
}

// Tasks that are scripts, in a directory of their own. `ready` in one waits until what it started in the background has
// run `: > ready`.
class Scripts {
 public:
  Scripts() : directory_(::open(place_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

  ProcessResult run(const std::string& script) {
    ProcessSpec spec;
    spec.argv = {"sh", "-c", "ready() { while [ ! -e ready ]; do :; done; }; " + script};
    spec.environment = {"PATH=/usr/local/bin:/usr/bin:/bin"};
    spec.directory = directory_.get();
    spec.standardOutput = output_.writing.get();
    spec.standardError = STDERR_FILENO;
    return runProcess(spec, {});
  }
  std::string line() const { return readLine(output_.reading.get()); }
  pid_t number() const { return std::stoi(line()); }

 private:
  files::testing::TemporaryDirectory place_;
  UniqueFd directory_;
  TestPipe output_;
};

// The script tells the number of a process that has left its group, and ends with 7.
void expectNothingLeft(const std::string& script) {
  Scripts scripts;
  const ProcessResult result = scripts.run("echo $ZKS_MARK; " + script);
  EXPECT_EQ(result.outcome, ProcessResult::Outcome::Exited) << result.message;
  EXPECT_EQ(result.exitStatus, 7);
  const std::string mark = scripts.line();
  EXPECT_FALSE(isBorneByAnybody(mark)) << script;
  EXPECT_TRUE(hasEnded(scripts.number())) << script;
}

constexpr std::array kEscapes{
    // A session of its own.
    "setsid sh -c 'echo $$; : > ready; exec sleep 1000' & ready; exit 7",
    // One whose parent has ended, in a session whose leader has.
    "setsid sh -c 'sh -c \"echo \\$\\$; : > ready; exec sleep 1000\" & exit 0' & ready; exit 7",
    // One that hears no signal but the last.
    "setsid sh -c 'trap \"\" TERM HUP INT; echo $$; : > ready; while :; do sleep 1000; done' & ready; exit 7",
    // One with children of its own, which are hidden behind it.
    "setsid sh -c 'setsid sh -c \"sleep 1000 & echo \\$!; : > ready; wait\" & wait' & ready; exit 7",
    // One that is stopped.
    "setsid sh -c 'echo $$; : > ready; kill -STOP $$' & ready; exit 7",
};

// In a program that does not adopt orphans: theirs is the machine's first process.
TEST(LeftoversOfALibrary, WhatLeavesItsGroupEndsWithItsTask) {
  for (const char* script : kEscapes)
    expectNothingLeft(script);
}

TEST(LeftoversOfALibrary, OtherTasksAreLeftAlone) {
  Scripts other;
  std::thread running([&] { other.run("setsid sh -c 'echo $$; : > ready; exec sleep 1000' & wait"); });
  const pid_t escaped = other.number();
  EXPECT_EQ(Scripts().run("exit 7").exitStatus, 7);
  EXPECT_EQ(::kill(escaped, 0), 0);
  ::kill(escaped, SIGKILL);
  running.join();
}

TEST(LeftoversOfALibrary, WhatADeadServiceLeftIsKilledAndWhatALivingOneRunsIsNot) {
  const auto startMarked = [](const AttemptMark& mark) {
    std::string variable = "ZKS_MARK=" + mark.text();
    std::array<char*, 2> environment{variable.data(), nullptr};
    std::array<std::string, 2> words{"sleep", "1000"};
    std::array<char*, 3> argv{words[0].data(), words[1].data(), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(::posix_spawnp(&pid, "sleep", nullptr, nullptr, argv.data(), environment.data()), 0);
    EXPECT_TRUE(eventually([&] { return environmentValue(pid, "ZKS_MARK") == mark.text(); }));
    return pid;
  };
  const AttemptMark ours = AttemptMark::make();
  const std::string space = ours.text().substr(0, ours.text().find('.'));
  const AttemptMark ofTheDead = *AttemptMark::parse(space + "." + std::to_string(::getpid()) + ".1.1");
  const pid_t living = startMarked(ours);
  const pid_t left = startMarked(ofTheDead);
  EXPECT_GE(killLeftoversOfTheDead(), 1U);
  EXPECT_FALSE(isBorneByAnybody(ofTheDead.text()));
  EXPECT_EQ(::waitpid(living, nullptr, WNOHANG), 0);
  ::kill(living, SIGKILL);
  ::waitpid(living, nullptr, 0);
  ::waitpid(left, nullptr, 0);
}

// In a program that adopts orphans, which these suites are from here on.
class LeftoversOfAService : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { adoptOrphans(); }
  static void TearDownTestSuite() { ::prctl(PR_SET_CHILD_SUBREAPER, 0); }

  // No child, ended or not, is left.
  static bool hasNoChildren() {
    tendOrphans();
    siginfo_t child{};
    return ::waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
  }
};

TEST_F(LeftoversOfAService, WhatLeavesItsGroupEndsWithItsTask) {
  for (const char* script : kEscapes) {
    expectNothingLeft(script);
    EXPECT_TRUE(eventually(hasNoChildren)) << script;
  }
}

// Between two programs a process has no environment for a moment, and so bears no mark.
TEST_F(LeftoversOfAService, ProcessThatBecomesAnotherProgramAgainAndAgainEndsWithItsTask) {
  for (int round = 0; round < 30 && !HasFailure(); ++round)
    expectNothingLeft("echo 'exec sh again' > again; setsid sh -c 'echo $$; : > ready; exec sh again' & ready; exit 7");
}

TEST_F(LeftoversOfAService, OrphansThatEndAreWaitedForWhileTheTaskRuns) {
  Scripts scripts;
  std::thread running([&] {
    scripts.run("for i in 1 2 3; do sh -c ':&'; done; : > ready; echo begun; while [ -e ready ]; do :; done");
  });
  EXPECT_EQ(scripts.line(), "begun");
  EXPECT_TRUE(eventually([] {
    tendOrphans();
    return childrenOfMainThread().empty();
  }));
  EXPECT_EQ(scripts.run("rm ready").exitStatus, 0);
  running.join();
}

TEST_F(LeftoversOfAService, OrphanWithoutTheMarkEndsWithTheTasksThatMayHaveStartedIt) {
  Scripts scripts;
  EXPECT_EQ(scripts.run("env -i setsid sh -c 'echo $$; : > ready; exec sleep 1000' & ready; exit 7").exitStatus, 7);
  const pid_t orphan = scripts.number();
  EXPECT_TRUE(eventually(hasNoChildren));
  EXPECT_NE(::kill(orphan, 0), 0);
}

TEST_F(LeftoversOfAService, OrphanWithoutTheMarkStaysWhileSuchATaskRuns) {
  Scripts scripts;
  std::thread running([&] {
    scripts.run(
        "sh -c 'env -i setsid sh -c \": > ready; echo \\$\\$; exec sleep 1000\" &'; ready; while [ -e ready ]; do :; "
        "done");
  });
  const pid_t orphan = scripts.number();
  EXPECT_TRUE(eventually([&] {
    const std::vector<pid_t> children = childrenOfMainThread();
    return std::find(children.begin(), children.end(), orphan) != children.end();
  }));
  tendOrphans();
  EXPECT_EQ(scripts.run("rm ready").exitStatus, 0);
  EXPECT_EQ(::kill(orphan, 0), 0);
  running.join();
  EXPECT_TRUE(eventually(hasNoChildren));
}

TEST_F(LeftoversOfAService, ChainThatForksWithoutEndIsBroken) {
  Scripts scripts;
  EXPECT_EQ(scripts.run("echo $ZKS_MARK; setsid sh -c 'next() { (next) & exit 0; }; : > ready; next' & ready; exit 7")
                .exitStatus,
            7);
  const std::string mark = scripts.line();
  EXPECT_TRUE(eventually([&] {
    tendOrphans();
    return !isBorneByAnybody(mark) && hasNoChildren();
  }));
}

TEST_F(LeftoversOfAService, OrphansAreTendedWhileManyTasksRunAndNoStatusIsLost) {
  std::atomic<bool> over{false};
  std::thread tending([&] {
    while (!over)
      tendOrphans();
  });
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      Scripts mine;
      for (int round = 0; round < 10; ++round)
        good += mine.run("sh -c ':&'; setsid sleep 1000 & exit " + std::to_string(i)).exitStatus == i ? 1 : 0;
    });
  }
  for (auto& thread : threads)
    thread.join();
  over = true;
  tending.join();
  EXPECT_EQ(good, 40);
  EXPECT_TRUE(eventually(hasNoChildren));
}

}  // namespace
}  // namespace parallel::execution
