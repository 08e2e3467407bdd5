#include "scheduler/RunTaskMethod.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "execution/testing/waiting.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/logging/createQLVLogger.h"
#include "platform/spf/core/errors.h"
#include "scheduler/testing/FakeServerCall.h"
#include "scheduler/testing/containers.h"
#include "scheduler/testing/expectError.h"
#include "transport/data/testing/TemporaryDirectory.h"

namespace parallel::scheduler {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using execution::testing::hasEnded;
using spf::transport::testing::TemporaryDirectory;
using ::testing::ElementsAre;
using testing::FakeServerCall;
using testing::itemsOf;
using ::testing::MatchesRegex;
using testing::raw;
using testing::requestOf;
using zksmessages::TaskDescription;
using zksmessages::TesselTaskExecutionInfo;

TaskDescription taskOf(std::vector<std::string> argv) {
  TaskDescription task;
  for (std::string& argument : argv)
    task.add_argv(std::move(argument));
  return task;
}

TaskDescription shellTask(const std::string& script) {
  return taskOf({"sh", "-c", script});
}

// A reply, unpacked.
struct Reply {
  TesselTaskExecutionInfo info;
  std::string output;
  std::string error;
  std::vector<std::string> files;
};

Reply unpack(const std::string& container) {
  const auto items = itemsOf(container);
  Reply reply;
  zksmessages::ResultPayload payload;
  if (items.size() < 3 || !payload.ParseFromString(items[0]) || !reply.info.ParseFromString(payload.result().value()))
    throw std::runtime_error("The reply is not one of runTask");
  EXPECT_EQ(payload.result().type_url(), "type.googleapis.com/parallel.zksmessages.TesselTaskExecutionInfo");
  reply.output = testing::plainOf(items[1]);
  reply.error = testing::plainOf(items[2]);
  reply.files.assign(items.begin() + 3, items.end());
  return reply;
}

class RunTask : public ::testing::Test {
 protected:
  explicit RunTask(std::size_t slots = 2)
      : method_({.slots = slots,
                 .scratchParent = parent_.file(""),
                 .killGrace = 100ms,
                 .environment = {"PATH=/usr/bin:/bin", "OWN=service"},
                 .mostFolderEntries = 6},
                logging::createQLVLogger("zks.scheduler.test")) {}

  ~RunTask() override { EXPECT_TRUE(taskDirectories().empty()) << "a task's directory is left"; }

  void serve(FakeServerCall& call) {
    CallRecord record;
    method_.serve(call, record);
  }

  Reply run(const TaskDescription& task, const std::vector<std::string>& inputs = {}) {
    FakeServerCall call(requestOf(task, inputs), "runTask");
    serve(call);
    EXPECT_EQ(call.replySize(), static_cast<long>(call.replyText().size()));
    return unpack(call.replyText());
  }
  Reply shell(const std::string& script) { return run(shellTask(script)); }

  std::vector<fs::path> taskDirectories() const {
    std::vector<fs::path> directories;
    for (const auto& area : fs::directory_iterator(parent_.file(""))) {
      for (const auto& task : fs::directory_iterator(area))
        directories.push_back(task);
    }
    return directories;
  }

  // Waits until a task has made that file, and gives its first word.
  std::string wordFrom(const char* name) {
    std::string word;
    EXPECT_TRUE(execution::testing::eventually([&] {
      for (const fs::path& directory : taskDirectories()) {
        std::ifstream file(directory / "work" / name);
        std::string line;
        if (std::getline(file, line) && !file.eof()) {
          word = line;
          return true;
        }
      }
      return false;
    }));
    return word;
  }

 private:
  TemporaryDirectory parent_;
  RunTaskMethod method_;
};

// Takes the head of a reply, and no more.
class AbandonedCall : public FakeServerCall {
 public:
  explicit AbandonedCall(std::string request) : FakeServerCall(std::move(request), "runTask"), reply_(&none_) {
    reply_.exceptions(std::ios::badbit);
  }
  std::ostream& reply() override { return reply_; }

 private:
  struct Nothing : std::streambuf {};  // every write fails
  Nothing none_;
  std::ostream reply_;
};

class RunTaskOneAtATime : public RunTask {
 protected:
  RunTaskOneAtATime() : RunTask(1) {}
};

TEST_F(RunTask, ExitStatusOutputAndErrorComeBack) {
  const Reply reply = shell("echo out; echo err >&2; exit 7");
  EXPECT_EQ(reply.info.outcome(), TesselTaskExecutionInfo::OUTCOME_EXITED);
  EXPECT_EQ(reply.info.exit_status(), 7);
  EXPECT_FALSE(reply.info.has_signal());
  EXPECT_EQ(reply.output, "out\n");
  EXPECT_EQ(reply.error, "err\n");
  EXPECT_TRUE(reply.files.empty());
  EXPECT_GT(reply.info.wall_time().nanos() + reply.info.wall_time().seconds(), 0);
}

TEST_F(RunTask, SignalIsTold) {
  const Reply reply = shell("kill -KILL $$");
  EXPECT_EQ(reply.info.outcome(), TesselTaskExecutionInfo::OUTCOME_SIGNALLED);
  EXPECT_EQ(reply.info.signal(), SIGKILL);
  EXPECT_FALSE(reply.info.has_exit_status());
}

TEST_F(RunTask, InputsBecomeFilesAndOutputsComeBackInOrder) {
  TaskDescription task = shellTask("cat b a > joined; printf x > second");
  task.add_input_files("a");
  task.add_input_files("b");
  task.add_output_files("second");
  task.add_output_files("joined");
  const std::string large = testing::patternOf(200'000);
  const Reply reply = run(task, {"tail", large});
  ASSERT_EQ(reply.files.size(), 2U);
  EXPECT_EQ(reply.files[0], "x");
  EXPECT_EQ(reply.files[1], large + "tail");
  EXPECT_EQ(reply.info.missing_outputs_size(), 0);
}

TEST_F(RunTask, StandardInputIsTheItemBeforeTheFiles) {
  for (const std::size_t nbytes : {0U, 1U, 32767U, 200'000U}) {
    TaskDescription task = shellTask("cat; echo; cat data");
    task.set_standard_input(true);
    task.add_input_files("data");
    const std::string content = testing::patternOf(nbytes);
    EXPECT_TRUE(run(task, {content, "the file"}).output == content + "\nthe file") << nbytes;
  }
}

TEST_F(RunTask, StandardInputCannotBeWrittenAndIsOutOfTheTasksDirectory) {
  TaskDescription task = shellTask("echo more >&0 || echo refused; ls -A");
  task.set_standard_input(true);
  EXPECT_EQ(run(task, {"x"}).output, "refused\n");
}

TEST_F(RunTask, StandardInputIsEmptyUnlessItIsSent) {
  EXPECT_EQ(shell("readlink /proc/self/fd/0").output, "/dev/null\n");
  TaskDescription task = taskOf({"cat"});
  task.set_standard_input(true);
  EXPECT_IDENTIFIED(WrongItemCount, "The request to runTask has the wrong number of items: 2 expected, 1 found.",
                    run(task));
}

TEST_F(RunTask, BorderSizesOfFilesComeBack) {
  for (const std::size_t nbytes : {0U, 1U, 32766U, 32767U, 32768U, 65534U, 65535U, 70000U}) {
    TaskDescription task = taskOf({"cat", "data"});
    task.add_input_files("data");
    task.add_output_files("data");
    const std::string content = testing::patternOf(nbytes);
    const Reply reply = run(task, {content});
    EXPECT_EQ(reply.output, content) << nbytes;
    EXPECT_EQ(reply.files.at(0), content) << nbytes;
  }
}

TEST_F(RunTask, InputFileCanBeTheProgram) {
  TaskDescription task = taskOf({"./tool", "argument"});
  task.add_input_files("tool");
  EXPECT_EQ(run(task, {"#!/bin/sh\necho ran with $1\n"}).output, "ran with argument\n");
}

TEST_F(RunTask, OutputsThatWereNotMadeAreEmptyAndNamed) {
  TaskDescription task = shellTask("printf here > b");
  for (const char* name : {"a", "b", "c"})
    task.add_output_files(name);
  const Reply reply = run(task);
  EXPECT_EQ(reply.files, (std::vector<std::string>{"", "here", ""}));
  ASSERT_EQ(reply.info.missing_outputs_size(), 2);
  EXPECT_EQ(reply.info.missing_outputs(0), "a");
  EXPECT_EQ(reply.info.missing_outputs(1), "c");
}

TEST_F(RunTask, OutputThatCannotBeReturnedIsToldAndTheRestArrives) {
  TaskDescription task = shellTask("echo important; printf data > y; ln -s y x; mkdir d");
  for (const char* name : {"x", "y", "d", "none"})
    task.add_output_files(name);
  const Reply reply = run(task);
  EXPECT_EQ(reply.info.outcome(), TesselTaskExecutionInfo::OUTCOME_EXITED);
  EXPECT_EQ(reply.output, "important\n");
  EXPECT_EQ(reply.files, (std::vector<std::string>{"", "data", "", ""}));
  EXPECT_THAT(reply.info.missing_outputs(), ElementsAre("x", "d", "none"));
  EXPECT_EQ(reply.info.unusable_outputs().size(), 2U);
  EXPECT_EQ(reply.info.unusable_outputs().at("x"), "it is a symbolic link, and only regular files can be returned");
  EXPECT_EQ(reply.info.unusable_outputs().at("d"), "it is a directory, and only regular files can be returned");
}

TEST_F(RunTask, OutputsThatAreProgramsAreTold) {
  TaskDescription task = shellTask("printf x > data; printf x > tool; chmod 0750 tool; mkdir d");
  for (const char* name : {"data", "tool", "d", "none"})
    task.add_output_files(name);
  EXPECT_THAT(run(task).info.executable_outputs(), ElementsAre("tool"));
}

TEST_F(RunTask, InputsThatComeBackAreProgramsIfTheyWereOrTheTaskMadeThemSo) {
  TaskDescription task = shellTask("chmod +x made; rm new; printf x > new");
  for (const char* name : {"data", "tool", "made", "new"}) {
    task.add_input_files(name);
    task.add_output_files(name);
  }
  task.add_executable_inputs("tool");
  task.add_executable_inputs("new");
  EXPECT_THAT(run(task, {"1", "2", "3", "4"}).info.executable_outputs(), ElementsAre("tool", "made"));
}

// --- Folders ---

TEST_F(RunTask, InputsLieInFoldersAndCanBeRunIfTheyWerePrograms) {
  TaskDescription task = shellTask("find . -mindepth 1 -printf '%P %m\\n' | sort; cat in/sub/data; in/tool");
  for (const char* name : {"in/sub/data", "in/tool", "top"})
    task.add_input_files(name);
  task.add_executable_inputs("in/tool");
  for (const char* name : {"in", "in/empty/deeper", "in/sub"})
    task.add_input_folders(name);
  EXPECT_EQ(
      run(task, {"data\n", "#!/bin/sh\necho ran\n", "x"}).output,
      "in 700\nin/empty 700\nin/empty/deeper 700\nin/sub 700\nin/sub/data 600\nin/tool 700\ntop 700\ndata\nran\n");
}

TEST_F(RunTask, FolderComesBackWithAllThatIsInItAfterTheOtherOutputs) {
  TaskDescription task = shellTask(
      "mkdir -p d/sub/empty; printf 1 > d/one; printf 22 > d/sub/two; printf x > last;"
      "chmod +x d/sub/two");
  task.set_return_folders(true);
  for (const char* name : {"d", "none", "last"})
    task.add_output_files(name);
  const Reply reply = run(task);
  EXPECT_EQ(reply.files, (std::vector<std::string>{"", "", "x", "1", "22"}));
  EXPECT_THAT(reply.info.output_folders(), ElementsAre("d", "d/sub", "d/sub/empty"));
  EXPECT_THAT(reply.info.folder_files(), ElementsAre("d/one", "d/sub/two"));
  EXPECT_THAT(reply.info.executable_outputs(), ElementsAre("d/sub/two"));
  EXPECT_THAT(reply.info.missing_outputs(), ElementsAre("none"));
}

TEST_F(RunTask, WhatAFolderHoldsThatCannotBeReturnedIsTold) {
  TaskDescription task =
      shellTask("mkdir d; ln -s /etc/passwd d/link; ln -s / d/root; mkfifo d/pipe; printf x > d/file");
  task.set_return_folders(true);
  task.add_output_files("d");
  const Reply reply = run(task);
  EXPECT_EQ(reply.files, (std::vector<std::string>{"", "x"}));
  EXPECT_THAT(reply.info.folder_files(), ElementsAre("d/file"));
  EXPECT_THAT(reply.info.missing_outputs(), ElementsAre("d/link", "d/pipe", "d/root"));
  EXPECT_EQ(reply.info.unusable_outputs().at("d/root"),
            "it is a symbolic link, and only regular files can be returned");
}

TEST_F(RunTask, LinkToAFolderIsNoFolder) {
  TaskDescription task = shellTask("ln -s / d");
  task.set_return_folders(true);
  task.add_output_files("d");
  EXPECT_THAT(run(task).info.missing_outputs(), ElementsAre("d"));
}

TEST_F(RunTask, FoldersWithTooManyFilesAreToldAndTheRestArrives) {
  TaskDescription task = shellTask("mkdir a b c; touch a/1 a/2 b/1 b/2 b/3 c/1");  // with six entries at most
  task.set_return_folders(true);
  for (const char* name : {"a", "b", "c"})
    task.add_output_files(name);
  const Reply reply = run(task);
  EXPECT_THAT(reply.info.output_folders(), ElementsAre("a", "c"));
  EXPECT_THAT(reply.info.folder_files(), ElementsAre("a/1", "a/2", "c/1"));
  EXPECT_THAT(reply.info.missing_outputs(), ElementsAre("b"));
  EXPECT_EQ(reply.info.unusable_outputs().at("b"),
            "a task's folders can be returned with 6 files at most, and it has more");
}

// In memory, where files may be as large as any.
TEST(RunTaskInMemory, SizeOfTheReplyStaysOneThatCanBeSaid) {
  constexpr long kHuge = long{1} << 62;
  RunTaskMethod method({.slots = 1, .scratchParent = "/dev/shm", .killGrace = 100ms, .environment = {}},
                       logging::createQLVLogger("zks.scheduler.test"));
  TaskDescription task = shellTask("for f in a b c; do truncate -s " + std::to_string(kHuge) + " $f; done");
  for (const char* name : {"a", "b", "c"})
    task.add_output_files(name);
  AbandonedCall call(requestOf(task));
  CallRecord record;
  EXPECT_THROW(method.serve(call, record), std::ios_base::failure);
  EXPECT_GT(call.replySize(), kHuge);  // one fits; with two it would be negative
}

TEST_F(RunTask, CaptureThatTheTaskRemovedIsSaid) {
  const Reply reply = shell("echo out; echo err >&2; rm ../stdout");
  EXPECT_EQ(reply.output, "");
  EXPECT_EQ(reply.error, "err\n");
  EXPECT_EQ(reply.info.message(), "What it wrote to the standard output is lost: its file is gone.");
}

TEST_F(RunTask, ProgramThatIsNotThereIsNotStarted) {
  TaskDescription task = taskOf({"no-such-program"});
  task.add_output_files("result");
  const Reply reply = run(task);
  EXPECT_EQ(reply.info.outcome(), TesselTaskExecutionInfo::OUTCOME_NOT_STARTED);
  EXPECT_EQ(reply.info.message(), "No program \"no-such-program\" in PATH (/usr/bin:/bin)");
  EXPECT_FALSE(reply.info.has_exit_status());
  EXPECT_EQ(reply.info.missing_outputs_size(), 1);
}

TEST_F(RunTask, EnvironmentIsAddedToTheServicesOwnOrReplacesIt) {
  TaskDescription task = taskOf({"env"});
  (*task.mutable_environment())["OWN"] = "task";
  EXPECT_THAT(run(task).output, MatchesRegex("PATH=/usr/bin:/bin\nOWN=task\nZKS_MARK=[0-9.]+\n"));
  task.set_clear_environment(true);
  EXPECT_THAT(run(task).output, MatchesRegex("OWN=task\nZKS_MARK=[0-9.]+\n"));
  task.clear_environment();
  task.set_clear_environment(false);
  EXPECT_THAT(run(task).output, MatchesRegex("PATH=/usr/bin:/bin\nOWN=service\nZKS_MARK=[0-9.]+\n"));
}

TEST_F(RunTask, WallTimeIsALimit) {
  TaskDescription task = shellTask("echo begun; sleep 1000");
  task.mutable_limits()->mutable_wall_time()->set_nanos(200'000'000);
  const Reply reply = run(task);
  EXPECT_EQ(reply.info.outcome(), TesselTaskExecutionInfo::OUTCOME_TIMED_OUT);
  EXPECT_EQ(reply.info.message(), "Ended after its wall time of 0.2 s.");
  EXPECT_EQ(reply.output, "begun\n");
}

TEST_F(RunTask, ResourceLimitsReachTheTask) {
  TaskDescription task = shellTask("ulimit -t; ulimit -v; ulimit -f; ulimit -n");
  auto& limits = *task.mutable_limits();
  limits.mutable_cpu_time()->set_seconds(33);
  limits.set_memory_bytes(512 << 20);
  limits.set_file_bytes(1 << 20);
  limits.set_open_files(44);
  EXPECT_EQ(run(task).output, "33\n524288\n2048\n44\n");
}

TEST_F(RunTask, TaskSeesOnlyItsOwnFiles) {
  TaskDescription task = shellTask("ls -A; pwd");
  task.add_input_files("data");
  const Reply reply = run(task, {"x"});
  EXPECT_EQ(reply.output.substr(0, 5), "data\n");
  EXPECT_NE(reply.output.find("/zks-scratch-"), std::string::npos);
}

TEST_F(RunTask, BadDescriptionsAndCountsAreRefusedBeforeAnythingIsMade) {
  EXPECT_IDENTIFIED(BadTaskField, "The task description cannot be used: argv: it is empty, and names no program.",
                    run(TaskDescription()));
  TaskDescription task = taskOf({"true"});
  task.add_input_files("a");
  EXPECT_IDENTIFIED(WrongItemCount, "The request to runTask has the wrong number of items: 2 expected, 1 found.",
                    run(task));
  EXPECT_IDENTIFIED(WrongItemCount, "The request to runTask has the wrong number of items: 2 expected, 3 found.",
                    run(task, {"x", "y"}));
  FakeServerCall empty(raw("\0\0\0\0\0"), "runTask");
  EXPECT_THROW(serve(empty), Exception<parallel::scheduler::WrongItemCount>);
  FakeServerCall unparseable(testing::containerOf({raw("\xFF")}), "runTask");
  EXPECT_THROW(serve(unparseable), Exception<parallel::scheduler::UnreadableDescription>);
}

TEST_F(RunTask, EveryTruncationIsRefusedAndNothingRuns) {
  TaskDescription task = taskOf({"true"});
  task.add_input_files("a");
  const std::string whole = requestOf(task, {"xyz"});
  for (std::size_t length = 0; length < whole.size(); ++length) {
    FakeServerCall call(whole.substr(0, length), "runTask");
    EXPECT_THROW(serve(call), Exception<parallel::scheduler::MalformedRequest>) << length;
    EXPECT_EQ(call.replyText(), "");
  }
  FakeServerCall longer(whole + "x", "runTask");
  EXPECT_THROW(serve(longer), Exception<parallel::scheduler::MalformedRequest>);
}

TEST_F(RunTask, CancelEndsTheProcessTree) {
  FakeServerCall call(requestOf(shellTask("sleep 1000 & echo $! > child; wait")), "runTask");
  auto serving = std::async(std::launch::async, [&] { serve(call); });
  const pid_t child = std::stoi(wordFrom("child"));
  call.cancel();
  EXPECT_THROW(serving.get(), agent::spf::Terminated);
  EXPECT_TRUE(hasEnded(child));
}

TEST_F(RunTask, CancelledBeforeItBeganRunsNothing) {
  const TemporaryDirectory elsewhere;
  const fs::path trace = elsewhere.file("trace");
  FakeServerCall call(requestOf(taskOf({"touch", trace.string()})), "runTask");
  call.cancel();
  EXPECT_THROW(serve(call), agent::spf::Terminated);
  EXPECT_FALSE(fs::exists(trace));
}

TEST_F(RunTaskOneAtATime, NextWaitsItsTurnAndIsTold) {
  FakeServerCall first(requestOf(shellTask("echo up > up; while test ! -e go; do sleep 0.01; done")), "runTask");
  auto firstServing = std::async(std::launch::async, [&] { serve(first); });
  wordFrom("up");
  const fs::path firstDirectory = taskDirectories().at(0);

  FakeServerCall second(requestOf(shellTask("true")), "runTask");
  auto secondServing = std::async(std::launch::async, [&] { serve(second); });
  EXPECT_TRUE(execution::testing::eventually([&] { return taskDirectories().size() == 2; }));
  EXPECT_EQ(secondServing.wait_for(50ms), std::future_status::timeout);

  std::ofstream(firstDirectory / "work" / "go") << "go";
  firstServing.get();
  secondServing.get();
  const Reply reply = unpack(second.replyText());
  EXPECT_THAT(first.notices(), ElementsAre("running"));
  EXPECT_THAT(second.notices(), ElementsAre("queued", "running"));
  EXPECT_EQ(reply.info.outcome(), TesselTaskExecutionInfo::OUTCOME_EXITED);
  EXPECT_GT(reply.info.queued_time().seconds() + reply.info.queued_time().nanos(), 0);
}

TEST_F(RunTaskOneAtATime, CancelTakesAWaitingTaskOut) {
  FakeServerCall first(requestOf(shellTask("echo up > up; sleep 1000")), "runTask");
  auto firstServing = std::async(std::launch::async, [&] { serve(first); });
  wordFrom("up");
  FakeServerCall second(requestOf(shellTask("true")), "runTask");
  auto secondServing = std::async(std::launch::async, [&] { serve(second); });
  EXPECT_TRUE(execution::testing::eventually([&] { return taskDirectories().size() == 2; }));
  second.cancel();
  EXPECT_THROW(secondServing.get(), agent::spf::Terminated);
  first.cancel();
  EXPECT_THROW(firstServing.get(), agent::spf::Terminated);
}

}  // namespace
}  // namespace parallel::scheduler
