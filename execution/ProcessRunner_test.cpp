// Real processes: /bin/sh and the system's small tools.
#include "execution/ProcessRunner.h"
#include "platform/files/UniqueFd.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>
#include <sstream>
#include <thread>

#include "execution/PeakMemory.h"
#include "execution/testing/waiting.h"
#include "transport/data/testing/TemporaryDirectory.h"

namespace parallel::execution {
namespace {

using files::UniqueFd;
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Outcome = ProcessResult::Outcome;
using spf::transport::testing::TemporaryDirectory;
using testing::hasEnded;
using testing::readLine;
using testing::TestPipe;

// A directory to run in, with the captured output beside it.
class ProcessRunner : public ::testing::Test {
 protected:
  ProcessRunner() {
    fs::create_directory(work());
    directory_ = UniqueFd(::open(work().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    output_ = capture("out");
    error_ = capture("err");
    spec_.environment = {"PATH=/usr/local/bin:/usr/bin:/bin"};
    spec_.directory = directory_.get();
    spec_.standardOutput = output_.get();
    spec_.standardError = error_.get();
  }

  // No child of ours may be left, ended or not.
  ~ProcessRunner() override {
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  fs::path work() const { return place_.file("work"); }

  ProcessResult run(std::vector<std::string> argv, const std::stop_token& stop = {}) {
    spec_.argv = std::move(argv);
    return runProcess(spec_, stop);
  }
  ProcessResult shell(const std::string& script, const std::stop_token& stop = {}) {
    return run({"sh", "-c", script}, stop);
  }
  std::string output() const { return contentOf("out"); }
  std::string error() const { return contentOf("err"); }

  // Runs the script on a thread of its own; its output comes through the pipe.
  std::future<ProcessResult> startShell(const std::string& script, const TestPipe& pipe, std::stop_token stop = {}) {
    spec_.argv = {"sh", "-c", script};
    spec_.standardOutput = pipe.writing.get();
    return std::async(std::launch::async, [this, stop] { return runProcess(spec_, stop); });
  }

  ProcessSpec spec_;

 private:
  UniqueFd capture(const char* name) const {
    return UniqueFd(::open(place_.file(name).c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  }
  std::string contentOf(const char* name) const {
    std::ostringstream content;
    content << std::ifstream(place_.file(name), std::ios::binary).rdbuf();
    return content.str();
  }

  TemporaryDirectory place_;
  UniqueFd directory_;
  UniqueFd output_;
  UniqueFd error_;
};

void expectExit(const ProcessResult& result, int status) {
  EXPECT_EQ(result.outcome, Outcome::Exited) << result.message;
  EXPECT_EQ(result.exitStatus, status);
  EXPECT_EQ(result.message, "");
}

TEST_F(ProcessRunner, ExitStatusIsTold) {
  for (const int status : {0, 1, 77, 127, 255})
    expectExit(shell("exit " + std::to_string(status)), status);
}

TEST_F(ProcessRunner, SignalThatEndedItIsTold) {
  for (const int signal : {SIGTERM, SIGKILL, SIGSEGV}) {
    const ProcessResult result = shell("ulimit -c 0; kill -" + std::to_string(signal) + " $$");
    EXPECT_EQ(result.outcome, Outcome::Signalled);
    EXPECT_EQ(result.signal, signal);
  }
}

TEST_F(ProcessRunner, OutputAndErrorAreCapturedApart) {
  expectExit(shell("echo to out; echo to err >&2; echo more"), 0);
  EXPECT_EQ(output(), "to out\nmore\n");
  EXPECT_EQ(error(), "to err\n");
}

TEST_F(ProcessRunner, ArgumentsArriveAsTheyAre) {
  expectExit(run({"printf", "%s|", "a b", "", "*", "$HOME", "\xC3\xBC"}), 0);
  EXPECT_EQ(output(), "a b||*|$HOME|\xC3\xBC|");
}

TEST_F(ProcessRunner, StandardInputIsEmpty) {
  expectExit(shell("cat; readlink /proc/self/fd/0"), 0);
  EXPECT_EQ(output(), "/dev/null\n");
}

TEST_F(ProcessRunner, EnvironmentIsTheGivenOneAndTheMark) {
  spec_.environment = {"PATH=/usr/bin:/bin", "A=1", "B=x y"};
  expectExit(run({"env"}), 0);
  EXPECT_THAT(output(), ::testing::MatchesRegex("PATH=/usr/bin:/bin\nA=1\nB=x y\nZKS_MARK=[0-9.]+\n"));
}

TEST_F(ProcessRunner, RunsInItsDirectoryAndRelativeProgramsAreFoundThere) {
  std::ofstream(work() / "tool") << "#!/bin/sh\npwd\n";
  fs::permissions(work() / "tool", fs::perms::owner_all);
  expectExit(run({"./tool"}), 0);
  EXPECT_EQ(output(), fs::canonical(work()).string() + "\n");
}

TEST_F(ProcessRunner, EmptyEntryOfPathMeansTheDirectoryItRunsIn) {
  std::ofstream(work() / "tool") << "#!/bin/sh\necho found\n";
  fs::permissions(work() / "tool", fs::perms::owner_all);
  spec_.environment = {"PATH=/nowhere:"};
  expectExit(run({"tool"}), 0);
  EXPECT_EQ(output(), "found\n");
}

TEST_F(ProcessRunner, FiftyMebibytesOfOutputAreKeptWhole) {
  expectExit(shell("head -c 52428800 /dev/zero"), 0);
  EXPECT_EQ(output().size(), 52'428'800U);
}

TEST_F(ProcessRunner, MissingProgramNamesItAndWhereItWasSearched) {
  spec_.environment = {"PATH=/usr/bin:/bin"};
  ProcessResult result = run({"no-such-program"});
  EXPECT_EQ(result.outcome, Outcome::NotStarted);
  EXPECT_EQ(result.message, "No program \"no-such-program\" in PATH (/usr/bin:/bin)");
  spec_.environment = {};
  result = run({"no-such-program"});
  EXPECT_EQ(result.message, "No program \"no-such-program\" in PATH (/usr/local/bin:/usr/bin:/bin)");
  result = run({"./no-such-program"});
  EXPECT_EQ(result.outcome, Outcome::NotStarted);
  EXPECT_EQ(result.message, "Cannot run \"./no-such-program\": No such file or directory");
}

TEST_F(ProcessRunner, FilesThatAreNotProgramsAreNamed) {
  std::ofstream(work() / "plain") << "text";
  fs::permissions(work() / "plain", fs::perms::owner_read);
  EXPECT_EQ(run({"./plain"}).message, "Cannot run \"./plain\": Permission denied");
  spec_.environment = {"PATH=."};
  EXPECT_EQ(run({"plain"}).message, "No program \"plain\" in PATH (.); \"./plain\" is not executable");
  fs::permissions(work() / "plain", fs::perms::owner_all);
  EXPECT_EQ(run({"./plain"}).message,
            "Cannot run \"./plain\": it is neither a program nor a script that names its interpreter after #! in its "
            "first line");
  std::ofstream(work() / "script") << "#!/no/such/interpreter\n";
  fs::permissions(work() / "script", fs::perms::owner_all);
  EXPECT_EQ(run({"./script"}).message, "Cannot run \"./script\": the interpreter or loader that it names is not there");
  fs::create_directory(work() / "folder");
  EXPECT_EQ(run({"./folder"}).message, "Cannot run \"./folder\": it is a directory");
  EXPECT_EQ(run({"folder"}).message, "No program \"folder\" in PATH (.)");
}

TEST_F(ProcessRunner, NoDescriptorButTheStandardOnesPassesOn) {
  // Not marked to be closed, as a careless library would open it.
  const UniqueFd careless(::open("/dev/null", O_RDONLY));
  const UniqueFd high(::fcntl(careless.get(), F_DUPFD, 700));
  expectExit(shell("ls /proc/$$/fd"), 0);
  EXPECT_EQ(output(), "0\n1\n2\n");
}

TEST_F(ProcessRunner, SignalsAreAtTheirDefaultsWhateverTheParentDid) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  auto* const pipeHandler = std::signal(SIGPIPE, SIG_IGN);
  const ProcessResult result = run({"cat", "/proc/self/status"});
  sigset_t after;
  ::pthread_sigmask(SIG_SETMASK, &before, &after);
  std::signal(SIGPIPE, pipeHandler);
  expectExit(result, 0);
  for (const char* line : {"SigBlk:\t0000000000000000\n", "SigIgn:\t0000000000000000\n", "SigCgt:\t0000000000000000\n"})
    EXPECT_THAT(output(), ::testing::HasSubstr(line));
  EXPECT_EQ(sigismember(&after, SIGTERM), 1);  // and the parent's own mask is as it was
  EXPECT_EQ(sigismember(&after, SIGINT), 0);
}

TEST_F(ProcessRunner, LeadsAProcessGroupOfItsOwn) {
  expectExit(shell("test $$ = $(ps -o pgid= -p $$ 2>/dev/null || cut -d' ' -f5 /proc/$$/stat)"), 0);
}

TEST_F(ProcessRunner, WallTimeEndsTheWholeGroup) {
  spec_.limits.wallTime = 300ms;
  const TestPipe pipe;
  auto running = startShell("sleep 1000 & echo $!; wait", pipe);
  const pid_t child = std::stoi(readLine(pipe.reading.get()));
  const ProcessResult result = running.get();
  EXPECT_EQ(result.outcome, Outcome::TimedOut);
  EXPECT_EQ(result.message, "Ended after its wall time of 0.3 s.");
  EXPECT_GE(result.wallTime, 300ms);
  EXPECT_TRUE(hasEnded(child));
}

TEST_F(ProcessRunner, ProgramThatIgnoresTheFirstSignalGetsTheLast) {
  spec_.limits.wallTime = 50ms;
  spec_.killGrace = 50ms;
  EXPECT_EQ(shell("trap '' TERM; while :; do sleep 1; done").outcome, Outcome::TimedOut);
}

TEST_F(ProcessRunner, ProgramMayUseTheGraceTimeToTidyUp) {
  spec_.limits.wallTime = 50ms;
  spec_.killGrace = 30s;
  const ProcessResult result = shell("trap 'echo tidy; exit 3' TERM; while :; do sleep 0.01; done");
  EXPECT_EQ(result.outcome, Outcome::TimedOut);
  EXPECT_EQ(output(), "tidy\n");
}

TEST_F(ProcessRunner, StoppedProgramIsEndedToo) {
  spec_.limits.wallTime = 50ms;
  spec_.killGrace = 30s;
  EXPECT_EQ(shell("kill -STOP $$").outcome, Outcome::TimedOut);
}

TEST_F(ProcessRunner, StopRequestEndsTheWholeTree) {
  const TestPipe pipe;
  std::stop_source stop;
  auto running = startShell("sh -c 'sleep 1000 & echo $!; wait' & echo $!; wait", pipe, stop.get_token());
  const pid_t one = std::stoi(readLine(pipe.reading.get()));
  const pid_t other = std::stoi(readLine(pipe.reading.get()));
  stop.request_stop();
  EXPECT_EQ(running.get().outcome, Outcome::Stopped);
  EXPECT_TRUE(hasEnded(one));
  EXPECT_TRUE(hasEnded(other));
}

TEST_F(ProcessRunner, StopRequestedBeforeStartsNothing) {
  std::stop_source stop;
  stop.request_stop();
  EXPECT_EQ(shell("echo started", stop.get_token()).outcome, Outcome::Stopped);
  EXPECT_EQ(output(), "");
}

TEST_F(ProcessRunner, WhatIsLeftOfTheGroupIsKilledWhenTheMainProcessEnds) {
  const TestPipe pipe;
  auto running = startShell("trap '' TERM HUP; sleep 1000 & echo $!", pipe);
  const pid_t child = std::stoi(readLine(pipe.reading.get()));
  expectExit(running.get(), 0);
  EXPECT_TRUE(hasEnded(child));
}

TEST_F(ProcessRunner, DiesWithTheThreadThatRunsIt) {
  // Only seen from within: the signal that the system sends when the parent is gone.
  expectExit(shell("exec python3 -c 'import ctypes; s = ctypes.c_int(); ctypes.CDLL(None).prctl(2, ctypes.byref(s)); "
                   "print(s.value)'"),
             0);
  EXPECT_EQ(output(), "9\n");
}

TEST_F(ProcessRunner, ProcessorTimeIsLimited) {
  spec_.limits.cpuTime = 100ms;  // counts as one second
  const ProcessResult result = shell("ulimit -c 0; while :; do :; done");
  EXPECT_EQ(result.outcome, Outcome::Signalled);
  EXPECT_EQ(result.signal, SIGXCPU);
  EXPECT_EQ(result.message, "Used up its processor time of 0.1 s.");
  EXPECT_GE(result.userTime + result.systemTime, 500ms);
}

TEST_F(ProcessRunner, FileSizeIsLimited) {
  spec_.limits.fileBytes = 1000;
  ProcessResult result = shell("ulimit -c 0; exec head -c 2000 /dev/zero > big");
  EXPECT_EQ(result.outcome, Outcome::Signalled);
  EXPECT_EQ(result.signal, SIGXFSZ);
  EXPECT_EQ(result.message, "Wrote a file of more than 1000 bytes.");
  EXPECT_EQ(fs::file_size(work() / "big"), 1000U);
  result = shell("ulimit -c 0; exec head -c 2000 /dev/zero");
  EXPECT_EQ(result.signal, SIGXFSZ);
  EXPECT_EQ(output().size(), 1000U);
}

TEST_F(ProcessRunner, MemoryAndDescriptorsAreLimited) {
  spec_.limits.memoryBytes = 512 << 20;
  spec_.limits.openFiles = 20;
  expectExit(shell("ulimit -v; ulimit -n; ulimit -Hn"), 0);
  EXPECT_EQ(output(), "524288\n20\n20\n");
}

TEST_F(ProcessRunner, LimitsBeyondTheServicesOwnAreCutToThose) {
  spec_.limits.openFiles = std::numeric_limits<std::uint64_t>::max() - 1;
  spec_.limits.memoryBytes = std::numeric_limits<std::uint64_t>::max() - 1;
  expectExit(shell("true"), 0);
}

TEST_F(ProcessRunner, TimesAreMeasured) {
  const ProcessResult result = shell("i=0; while [ $i -lt 20000 ]; do i=$((i+1)); done");
  expectExit(result, 0);
  EXPECT_GT(result.wallTime, 0ns);
  EXPECT_GT(result.userTime + result.systemTime, 0ns);
}

TEST_F(ProcessRunner, PeakMemoryIsTheTasksOwnEvenIfOursIsLarger) {
  constexpr std::size_t kOurs = std::size_t{256} << 20;
  void* memory = ::mmap(nullptr, kOurs, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  ASSERT_GE(residentHighWaterMark(::getpid()), kOurs);
  const TestPipe pipe;
  std::stop_source stop;
  auto running = startShell("echo ready; exec sleep 1000", pipe, stop.get_token());
  readLine(pipe.reading.get());
  stop.request_stop();
  const ProcessResult small = running.get();
  ::munmap(memory, kOurs);
  EXPECT_GT(small.peakMemoryBytes, 0U);
  EXPECT_LT(small.peakMemoryBytes, kOurs / 2);
}

TEST_F(ProcessRunner, PeakMemoryAboveOursIsTheKernelsFigure) {
  const std::uint64_t wanted = residentHighWaterMark(::getpid()) + (std::uint64_t{64} << 20);
  const ProcessResult result =
      shell("head -c " + std::to_string(wanted) + " /dev/zero | tail -c " + std::to_string(wanted) + " > /dev/null");
  expectExit(result, 0);
  EXPECT_GE(result.peakMemoryBytes, wanted);
}

TEST_F(ProcessRunner, ManyRunsAtOnceDoNotDisturbEachOther) {
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, i, &good] {
      for (int round = 0; round < 10; ++round) {
        ProcessSpec spec = spec_;
        spec.argv = {"sh", "-c", "exit " + std::to_string(i)};
        const ProcessResult result = runProcess(spec, {});
        good += result.outcome == Outcome::Exited && result.exitStatus == i ? 1 : 0;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(good, 80);
}

TEST_F(ProcessRunner, WallTimeBoundsTheSearchForTheProgramToo) {
  spec_.environment = {"PATH=" + std::string(100'000, ':')};
  spec_.limits.wallTime = 1ns;
  const ProcessResult result = run({"no-such-program"});
  EXPECT_EQ(result.outcome, Outcome::TimedOut);
  EXPECT_EQ(result.message, "Ended after its wall time of 0 s.");
}

}  // namespace
}  // namespace parallel::execution
