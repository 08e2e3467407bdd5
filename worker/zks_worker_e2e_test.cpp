// zksd and zks-worker as processes: what is in the books when either is killed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cli/testing/ChildProcess.h"
#include "execution/procFiles.h"
#include "platform/files/testing/TemporaryDirectory.h"
#include "toolbox/Connection.h"
#include "toolbox/JobClient.h"

namespace parallel::worker {
namespace {

using std::chrono::steady_clock;
using zks::ChildProcess;
using zksmessages::TaskCounts;

constexpr std::chrono::seconds kPatience{200};  // a lease of a minute may have to lapse

class WorkerProcessTest : public testing::Test {
 protected:
  ~WorkerProcessTest() override {
    workers_.clear();
    service_.reset();
  }

  std::string path(const std::string& name) const { return files_.file(name).string(); }

  void startService(const std::vector<std::string>& engine = {"--no-local-engine"}) {
    service_.reset();
    std::vector<std::string> command{ZKSD_PATH, "--socket", path("s"), "--store", path("store"), "--log", "error"};
    command.insert(command.end(), engine.begin(), engine.end());
    service_ = std::make_unique<ChildProcess>(command, files_.path());
    ASSERT_THAT(service_->readLine(), testing::HasSubstr("listening on"));
    connection_ = std::make_unique<toolbox::Connection>(toolbox::Connection::connect("unix:" + path("s")));
  }
  ChildProcess& startWorker() {
    return *workers_.emplace_back(std::make_unique<ChildProcess>(
        std::vector<std::string>{ZKS_WORKER_PATH, "--address", "unix:" + path("s"), "--cores", "2", "--scratch",
                                 files_.path(), "--grace", "0.2", "--log", "error"},
        files_.path()));
  }
  static void kill(const ChildProcess& process) { process.send(SIGKILL); }

  std::uint64_t submit(std::uint64_t count, const std::string& script) {
    zksmessages::SubmitJobRequest request;
    request.set_key("key" + std::to_string(++keys_));
    request.mutable_job()->set_name("test");
    auto* array = request.mutable_job()->add_arrays();
    array->set_count(count);
    for (const std::string& argument : {std::string("/bin/sh"), std::string("-c"), script})
      array->mutable_command()->add_argv(argument);
    return jobs().submitJob(request).job();
  }
  toolbox::JobClient jobs() const { return toolbox::JobClient(*connection_); }
  TaskCounts counts(std::uint64_t job) const { return jobs().describeJob(job).summary().counts(); }

  template <class Condition>
  bool waitUntil(std::uint64_t job, Condition condition) const {
    const auto deadline = steady_clock::now() + kPatience;
    zksmessages::WaitForChangeRequest request;
    request.set_job(job);
    request.mutable_wait()->set_seconds(5);
    while (!condition(counts(job))) {
      if (steady_clock::now() > deadline)
        return false;
      request.set_version(jobs().waitForChange(request).summary().version());
    }
    return true;
  }
  bool waitUntilSucceeded(std::uint64_t job, std::uint64_t count) const {
    return waitUntil(job, [count](const TaskCounts& counts) { return counts.succeeded() >= count; });
  }
  // How often each task has run to its end.
  std::map<std::string, int> runs() const {
    std::map<std::string, int> count;
    std::ifstream lines(path("ran"));
    for (std::string line; std::getline(lines, line);)
      ++count[line];
    return count;
  }
  std::string recording(const std::string& before = "") const { return before + "echo {index} >>" + path("ran"); }

  files::testing::TemporaryDirectory files_;
  std::unique_ptr<ChildProcess> service_;
  std::vector<std::unique_ptr<ChildProcess>> workers_;
  std::unique_ptr<toolbox::Connection> connection_;
  int keys_ = 0;
};

TEST_F(WorkerProcessTest, AllTasksEndOnce) {
  startService();
  const auto job = submit(200, recording());
  startWorker();
  startWorker();
  ASSERT_TRUE(waitUntilSucceeded(job, 200));
  EXPECT_EQ(runs().size(), 200U);
  for (const auto& [task, count] : runs())
    EXPECT_EQ(count, 1) << task;
}

TEST_F(WorkerProcessTest, AfterAWorkersDeathAnotherOneEndsItsTasks) {
  startService();
  const auto job = submit(200, recording("sleep 0.01; "));
  const ChildProcess& first = startWorker();
  ASSERT_TRUE(waitUntilSucceeded(job, 20));
  kill(first);
  startWorker();
  ASSERT_TRUE(waitUntilSucceeded(job, 200));
  const TaskCounts counts = this->counts(job);
  EXPECT_EQ(counts.succeeded(), 200U);
  EXPECT_EQ(counts.failed() + counts.ready() + counts.running() + counts.granted(), 0U);
  EXPECT_EQ(runs().size(), 200U);
}

TEST_F(WorkerProcessTest, AWorkerOutlivesItsServiceAndHandsInToTheNext) {
  startService();
  const auto job = submit(200, recording("sleep 0.01; "));
  startWorker();
  ASSERT_TRUE(waitUntilSucceeded(job, 20));
  kill(*service_);
  startService();
  ASSERT_TRUE(waitUntilSucceeded(job, 200));
  EXPECT_EQ(runs().size(), 200U);
  for (const auto& [task, count] : runs())
    EXPECT_EQ(count, 1) << task;
}

TEST_F(WorkerProcessTest, SigtermHandsBackWhatIsNotDone) {
  startService();
  const auto job = submit(10, "sleep 600");
  ChildProcess& worker = startWorker();
  ASSERT_TRUE(waitUntil(job, [](const TaskCounts& counts) { return counts.running() >= 2; }));
  worker.send(SIGTERM);
  EXPECT_EQ(worker.wait().exitCode, 0);
  EXPECT_EQ(counts(job).ready(), 10U);
}

// Nobody has to ask for it: zksd finds the worker in this build.
TEST_F(WorkerProcessTest, AWorkerThatTheServiceStartsOutlivesIt) {
  ::setenv("SLURM_JOB_ID", "1", 1);  // no login node, whatever is installed here
  const std::vector<std::string> engine{"--scratch", files_.path()};
  startService(engine);
  const auto first = submit(1, "echo $PPID >" + path("pid"));
  ASSERT_TRUE(waitUntilSucceeded(first, 1));
  pid_t worker = 0;
  ASSERT_TRUE(std::ifstream(path("pid")) >> worker);
  service_->send(SIGTERM);
  EXPECT_EQ(service_->wait().exitCode, 0);
  EXPECT_EQ(::kill(worker, 0), 0);
  startService(engine);
  const auto second = submit(1, "test $PPID = " + std::to_string(worker));
  EXPECT_TRUE(waitUntilSucceeded(second, 1));
  EXPECT_EQ(::kill(worker, SIGTERM), 0);
  const auto deadline = steady_clock::now() + kPatience;
  const auto hasEnded = [worker] {
    const auto status = execution::processStatus(worker);
    return !status || status->hasEnded;
  };
  while (!hasEnded() && steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_TRUE(hasEnded());
}

}  // namespace
}  // namespace parallel::worker
